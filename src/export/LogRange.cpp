#include "export/LogRange.h"

#include <limits>
#include <utility>

#include "store/AuditRecord.h"

namespace qel {

namespace {

constexpr long long firstTime = std::numeric_limits<long long>::min();
constexpr long long lastTime = std::numeric_limits<long long>::max();

/// The greatest key that no entry at or behind `startTime` reaches: next() from there finds the first of them.
Item before(const Item& log, long long startTime) {
    // Before the first time there is no other to stand on; a key without origin lies before all with one.
    return startTime == firstTime ? record::centralKeyBeforeAll(log, startTime)
                                  : record::centralKey(log, startTime - 1, record::highestOrigin);
}

/// The least key that no entry at or before `endTime` reaches.
Item behind(const Item& log, long long endTime) {
    // Behind the last time there is no other to stop at; an origin that none has lies behind all.
    return endTime == lastTime ? record::centralKey(log, endTime, record::highestOrigin + 1)
                               : record::centralKey(log, endTime + 1, record::lowestOrigin);
}

}  // namespace

LogRange::LogRange(const Item& log, long long startTime, Item stop)
    : position_(before(log, startTime)), stop_(std::move(stop)), pathSize_(log.size()) {}

LogRange LogRange::including(const Item& log, long long startTime, long long endTime) {
    return {log, startTime, behind(log, endTime)};
}

LogRange LogRange::excluding(const Item& log, long long startTime, long long endTime) {
    return {log, startTime, record::centralKey(log, endTime, record::lowestOrigin)};
}

bool LogRange::next() {
    return position_.next(value_) && Item::compare(position_, stop_) < 0;
}

long long LogRange::time() const {
    // Everything in the log begins with its path, so the last element begins behind it.
    Item::Iterator element(ConstByteSpan(position_.data() + pathSize_, position_.size() - pathSize_));
    ConstByteSpan last;
    long long time = 0;
    if (element.decodeElementAsItem(last))
        Item::Iterator(last).decodeElementAsInteger(time);
    return time;
}

}  // namespace qel
