#pragma once

#include <functional>
#include <string>

#include "auditing/Export.h"
#include "qelCore/Item.h"

namespace qel {

/// Which of the two shapes of key a log has.
enum class LogShape {
    queue,   ///< path, time; value [event, parameter, …]
    central  ///< path, [time, origin checksum]; value [user, device, event, parameter, …]
};

/// What stands in a log.
struct LogSummary {
    unsigned long long events = 0;
    long long oldest = 0;  ///< microseconds since 1970-01-01T00:00:00Z; 0 when there is no event
    long long newest = 0;
};

/// Looks at, checks and trims whole logs, for tools and housekeeping. No state; any thread, while the log is
/// in use. Walks cost a cursor step per entry and pin no part of the store.
class QELAUDITING_EXPORT AuditLogTools {
  public:
    /// Called now and then with the number of entries done so far; returning false ends the work early.
    using Progress = std::function<bool(unsigned long long done)>;
    /// Called for each fault with the key's text and a sentence.
    using Fault = std::function<void(const std::string& key, const std::string& sentence)>;

    /// Counts by walking the whole log.
    static LogSummary summarize(const Item& log, LogShape shape, const Progress& progress = {});

    /// The time of the first or last event by one look-up; false when there is none.
    static bool oldest(const Item& log, LogShape shape, long long& time);
    static bool newest(const Item& log, LogShape shape, long long& time);

    /// Removes every event of a central log older than `time` (not included), oldest first, in batches that
    /// are each durable before the next begins, so that a cut leaves a log without holes. Returns how many
    /// were removed. With `dryRun` only counts. Queues are left alone: their keys do not match.
    static unsigned long long pruneCentral(const Item& log, long long time, bool dryRun,
                                           const Progress& progress = {});

    /// Checks that every key and value of the log has its shape and decodes, and that times never fall.
    /// Returns the number of entries looked at.
    static unsigned long long verify(const Item& log, LogShape shape, const Fault& fault,
                                     const Progress& progress = {});

    /// Stores [user, device, event…] in a central log at the present time, as if the origin had sent it: how
    /// a program records that somebody read or trimmed the log. `origin` is [user, device] or [pseudonym,
    /// "***"].
    static void appendCentral(const Item& log, const Item& origin, unsigned originChecksum,
                              const Item& event);

    /// The origin checksum over the two 32-byte identity blocks of a user and a device.
    static unsigned originChecksum(const unsigned char userBlock[32], const unsigned char deviceBlock[32]);

    /// [user, device], or [the checksum in decimal, "***"] when `anonymous`.
    static Item origin(const char* user, const char* device, unsigned originChecksum, bool anonymous);
};

}  // namespace qel
