#pragma once

#include <string>

#include "auditing/AuditCSVtoHtmlReportConverter.h"

namespace qel::test {

/// The usage report once more, as plainly as it can be said: one line record per line, label lists searched
/// from their beginning, once-rules kept by the counters as joined texts. Slow, and the measure of the fast
/// passes: their page must be the same, byte for byte. `groups` answers for a user name.
std::string plainUsagePage(const AuditCSVtoHtmlReportConverter& converter,
                           const Delegate<List<String>(const String&)>& groups, UTCDateTime startTime,
                           UTCDateTime endTime, const char* serverName, bool withPhotodocDetails);

}  // namespace qel::test
