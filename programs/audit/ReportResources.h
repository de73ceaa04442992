#pragma once

namespace qel::programs {

/// Enters the script and the two images that a report page loads into the process's resource table.
void installReportResources();

}  // namespace qel::programs
