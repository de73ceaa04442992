#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "auditing/Export.h"
#include "qelCore/ConstByteSpan.h"
#include "qelCore/Item.h"

namespace qel {

/// Why something was kept aside instead of standing in its log.
enum class AsideReason {
    damaged,     ///< an entry of a queue that could not be read
    parked,      ///< an event of a queue that is larger than the service takes: intact, and nowhere else
    overwritten  ///< a record of a central log that met another content under its own key
};

/// One thing that was kept aside.
struct AsideEntry {
    long long keptAt = 0;  ///< microseconds since 1970-01-01T00:00:00Z
    Item key;              ///< the whole key it had in its log
    std::string value;     ///< the raw bytes it had there, as they were; they need not decode
};

/// What the library could neither deliver nor leave where it was, so that no evidence disappears in silence.
/// It lies in the same store outside every log's path (below the side path "aside", docs/formats/log.md), and
/// is bounded: once `limit` entries are kept for one log and reason, others are only logged. Parked events have no
/// limit: each is the only one of its kind, and took the same room in its queue. Any thread.
class QELAUDITING_EXPORT AuditAside {
  public:
    /// Entries kept per log and reason, but for parked events: enough to see what went wrong, at most some megabytes of
    /// usual events.
    static constexpr long long limit = 1000;

    /// Keeps a copy of what stands under `key`, an entry of `log`, with its raw value. False when the limit
    /// is reached, or the store refuses it. As durable as any other write of this thread.
    static bool keep(AsideReason reason, const Item& log, const Item& key, ConstByteSpan value);

    /// What `keep` would store: keys and values. Empty when the limit is reached.
    static std::vector<std::pair<Item, Item>> entriesFor(AsideReason reason, const Item& log, const Item& key,
                                                         ConstByteSpan value);

    /// Puts the parked events of the queue `log` back where they stood, to be sent again, the last one first: how many.
    /// For when the service takes larger ones than before. Each is durable in the one place or the other at
    /// any time. Ends before the first one that this store does not take.
    static long long returnParked(const Item& log);

    /// How many entries are kept for `log`; costs one look-up, not a walk.
    static long long count(AsideReason reason, const Item& log);

    /// Calls `visit` for each entry kept for `log`, oldest first, until it returns false.
    static void walk(AsideReason reason, const Item& log,
                     const std::function<bool(const AsideEntry&)>& visit);
};

}  // namespace qel
