#include "report/Templates.h"

#include "embedded/report_templates.h"

namespace qel::templates {

String get(Part part) {
    // The parts are embedded in the order of the enumeration.
    const auto bytes = embedded::report_templates()[static_cast<std::size_t>(part)].bytes;
    return String(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

}  // namespace qel::templates
