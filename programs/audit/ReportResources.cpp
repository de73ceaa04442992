#include "audit/ReportResources.h"

#include <string>

#include "embedded/reportResources.h"
#include "qelCore/Resources.h"

namespace qel::programs {

void installReportResources() {
    for (const embedded::File& file : embedded::reportResources())
        resources::set(std::string(file.name).c_str(), ConstByteSpan(file.bytes.data(), file.bytes.size()));
}

}  // namespace qel::programs
