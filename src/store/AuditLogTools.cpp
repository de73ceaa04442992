#include "auditing/AuditLogTools.h"

#include <limits>
#include <memory>

#include "qelCore/ItemStore.h"
#include "qelCore/String.h"
#include "qelCore/System.h"
#include "store/AuditRecord.h"
#include "store/RecordGuard.h"

namespace qel {

namespace {

constexpr long long latest = std::numeric_limits<long long>::max();

/// Entries between two calls of a progress function.
constexpr unsigned long long progressStep = 4096;

/// Removals per durable batch: large enough to share a flush among thousands, small enough to let others in between.
constexpr unsigned long long pruneBatch = 4096;

bool goesOn(const AuditLogTools::Progress& progress, unsigned long long done) {
    return !progress || done % progressStep != 0 || progress(done);
}

bool timeOf(const Item& position, LogShape shape, long long& time) {
    long long origin = 0;
    return shape == LogShape::queue ? record::readQueueTime(position, time)
                                    : record::readCentralKey(position, time, origin);
}

/// A key behind every entry of the log, from which prev() reaches the last one.
Item behindAll(const Item& log, LogShape shape) {
    // Strings sort behind integers and before nested items.
    if (shape == LogShape::central)
        return record::centralKey(log, latest, latest);
    Item key(log);
    key.addString("");
    return key;
}

/// The first entry of the log; false when there is none.
bool first(const Item& log, LogShape shape, Item& position) {
    if (log.isEmpty())
        return false;
    if (shape == LogShape::queue)
        return log.child(position);
    position = log;
    position.addItem(Item());
    return position.next();
}

/// The sentence about what is wrong with one entry, or an empty one.
std::string faultOf(const Item& position, LogShape shape, long long& time) {
    if (!timeOf(position, shape, time))
        return shape == LogShape::queue ? "the key does not end in an integer, the event's time"
                                        : "the key does not end in [time, origin checksum]";
    if (shape == LogShape::central) {
        long long origin = 0;
        record::readCentralKey(position, time, origin);
        if (origin < record::lowestOrigin || origin > record::highestOrigin)
            return "the origin checksum is outside 0 to 4294967295";
    }
    const ConstByteSpan value = position.fetch();
    if (value.isNull())
        return "there are keys below it, but no event";
    if (!Item::isWellFormed(value))
        return "the value does not decode";
    if (shape == LogShape::central && !record::hasOrigin(value))
        return "the value does not begin with user and device";
    return {};
}

}  // namespace

LogSummary AuditLogTools::summarize(const Item& log, LogShape shape, const Progress& progress) {
    LogSummary found;
    Item position;
    if (!first(log, shape, position))
        return found;
    do {
        long long time = 0;
        if (!timeOf(position, shape, time))
            continue;
        if (found.events++ == 0)
            found.oldest = time;
        found.newest = time;
    } while (goesOn(progress, found.events) && position.next());
    return found;
}

bool AuditLogTools::oldest(const Item& log, LogShape shape, long long& time) {
    Item position;
    return first(log, shape, position) && timeOf(position, shape, time);
}

bool AuditLogTools::newest(const Item& log, LogShape shape, long long& time) {
    if (log.isEmpty())
        return false;
    Item position = behindAll(log, shape);
    return position.prev() && timeOf(position, shape, time);
}

unsigned long long AuditLogTools::pruneCentral(const Item& log, long long time, bool dryRun,
                                               const Progress& progress) {
    unsigned long long done = 0;
    Item position;
    if (!first(log, LogShape::central, position))
        return done;
    WriteBatch batch;
    do {
        long long entryTime = 0;
        long long origin = 0;
        if (!record::readCentralKey(position, entryTime, origin))
            continue;
        if (entryTime >= time)
            break;
        if (!dryRun)
            position.remove();
        if (++done % pruneBatch == 0 && !batch.commit())
            break;
    } while (goesOn(progress, done) && position.next());
    batch.commit();
    return done;
}

unsigned long long AuditLogTools::verify(const Item& log, LogShape shape, const Fault& fault,
                                         const Progress& progress) {
    unsigned long long done = 0;
    Item position;
    if (log.isEmpty() || !log.child(position))
        return done;
    long long before = std::numeric_limits<long long>::min();
    do {
        long long time = before;
        std::string sentence = faultOf(position, shape, time);
        if (sentence.empty() && time < before)
            sentence = "the time is lower than that of the entry before it";
        if (!sentence.empty() && fault)
            fault(position.asString().str(), sentence);
        before = time;
    } while (goesOn(progress, ++done) && position.next());
    return done;
}

void AuditLogTools::appendCentral(const Item& log, const Item& origin, unsigned originChecksum,
                                  const Item& event) {
    ItemStore* const store = ItemStore::current();
    if (store == nullptr)
        return;
    // Times are unique within this process only: somebody's use of another daemon may carry the same one.
    store->store(record::centralKey(log, System::getUTCDateTimeUnique(), originChecksum),
                 record::centralValue(origin, event).bytes(), std::make_shared<RecordGuard>(log));
}

unsigned AuditLogTools::originChecksum(const unsigned char userBlock[32],
                                       const unsigned char deviceBlock[32]) {
    return record::originChecksum(userBlock, deviceBlock);
}

Item AuditLogTools::origin(const char* user, const char* device, unsigned originChecksum, bool anonymous) {
    return record::origin(user, device, originChecksum, anonymous);
}

}  // namespace qel
