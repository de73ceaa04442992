#pragma once

#include <string>

#include "auditing/Export.h"
#include "qelCore/Item.h"

namespace qel {

class RpcProvider;

/// Turns a time range of a stored central log into text or into lines, and offers both as remote calls. It
/// holds no state; every operation may run on any thread, several at once, also while the log grows. A log is
/// given by its path in the process's current item store; times are microseconds since 1970-01-01T00:00:00Z.
///
/// The two operations differ on purpose in their upper end: a file includes it, lines do not.
class QELAUDITING_EXPORT AuditExport {
  public:
    /// Writes the events with `startTime` <= time <= `endTime` to the file `path`, which is created or
    /// replaced, one line each behind a header line. Each line leaves with a write of its own, up to 32 of them one after
    /// the other: whoever reads along sees whole lines. Times are written in German local time; nothing is quoted or
    /// escaped: a value that holds ";" or a line break is written as it is. An empty `log` is the store's root: what has
    /// a path of its own is not part of it. Nothing is reported and nothing thrown: whoever must know looks at
    /// the file. Takes about a microsecond per line, and does not hold up writers of the store.
    static void exportCSV(const char* path, const Item& log, long long startTime, long long endTime);

    /// The events with `startTimeInclusive` <= time < `endTimeExclusive`, one nested item each:
    /// [[time, origin checksum], user, device, event, parameter, …], times as integers. All of them are held
    /// in memory; lines of more than 1 GiB fit into no item, and std::length_error is thrown: ask for slices
    /// of the range then.
    static Item getLines(const Item& log, long long startTimeInclusive, long long endTimeExclusive);

    /// Offers "download_audit_report" and "get_audit_log" in the group "Auditing". The handlers hold copies
    /// of the two paths; they run on the threads that `provider` uses for calls.
    static void registerRpcCalls(RpcProvider* provider, const Item& auditTrail, const Item& interactionLog);

    /// The header line of an exported file, without line end.
    static const char* csvHeader();

    /// Appends to `text` the line that exportCSV writes, line end included, for a line as getLines returns
    /// it: for clients that fetched lines and want text.
    static void appendCsvLine(std::string& text, const Item& line);

    /// How many entries exportCSV writes for that range, by walking it; the walk ends when it has seen more
    /// than `most`.
    static unsigned long long countLines(const Item& log, long long startTime, long long endTime,
                                         unsigned long long most = ~0ULL);

    static const char* getStaticClassName();
};

}  // namespace qel
