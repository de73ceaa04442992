#include "audit/ReportResources.h"

#include <string>

#include "qelCore/Resources.h"
#ifdef QEL_REPORT_RESOURCES
#include "embedded/reportResources.h"
#endif

namespace qel::programs {

void installReportResources() {
#ifdef QEL_REPORT_RESOURCES
    for (const embedded::File& file : embedded::reportResources())
        resources::set(std::string(file.name).c_str(), ConstByteSpan(file.bytes.data(), file.bytes.size()));
#endif
}

}  // namespace qel::programs
