#pragma once

#include <functional>

#include "qelCore/Item.h"

namespace qel {

/// Writes a range of a log as AuditExport::exportCSV does. `isWanted` is asked every so many lines; when it says no, the
/// export is given up and its file removed, as when the log cannot be read to its end.
void writeCsvFile(const char* path, const Item& log, long long startTime, long long endTime,
                  const std::function<bool()>& isWanted);

}  // namespace qel
