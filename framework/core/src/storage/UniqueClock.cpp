#include "storage/UniqueClock.h"

#include <algorithm>
#include <iterator>
#include <limits>

#include "qelCore/ItemStore.h"
#include "qelCore/logging/MessageStream.h"

namespace qel::storage {

namespace {

constexpr long long never = std::numeric_limits<long long>::max();
// A step of more than an hour may be the start of a time that a wild clock made: remembered.
constexpr long long leapSize = 3600LL * 1000000;

template <int count>
void pushPair(long long (&pairs)[count][2], long long first, long long second) {
    for (int i = 1; i < count; ++i)
        std::copy(std::begin(pairs[i]), std::end(pairs[i]), std::begin(pairs[i - 1]));
    pairs[count - 1][0] = first;
    pairs[count - 1][1] = second;
}

// The oldest span gives way by growing into its neighbour: too much is passed over rather than too little.
void addSkip(ClockPage& page, long long from, long long to) {
    auto& skips = page.skips;
    if (skips[0][1] != 0) {
        skips[1][0] = std::min(skips[0][0], skips[1][0]);
        skips[1][1] = std::max(skips[0][1], skips[1][1]);
    }
    pushPair(skips, from, to);
}

template <int count>
void dropLeaps(long long (&leaps)[count][2], long long after) {
    for (int i = 0; i < count; ++i)
        if (leaps[i][1] > after)
            leaps[i][0] = leaps[i][1] = 0;
}

template <int count>
Item pairsItem(const long long (&pairs)[count][2]) {
    Item out;
    for (const auto& pair : pairs) {
        if (pair[1] == 0)
            continue;
        out.addInteger(pair[0]);
        out.addInteger(pair[1]);
    }
    return out;
}

template <int count>
void loadPairs(const Item& item, long long (&pairs)[count][2]) {
    Item::Iterator at(item);
    long long first = 0;
    long long second = 0;
    while (at.decodeElementAsInteger(first) && at.decodeElementAsInteger(second))
        pushPair(pairs, first, second);
}

}  // namespace

long long UniqueClock::next(long long now, long long atLeast) {
    long long last = page_.last.load();
    if (last - now > ItemStore::maxClockLead && atLeast - now <= ItemStore::maxClockLead) {
        forgetLead(now);
        last = page_.last.load();
    }
    for (;;) {
        const long long time = std::max({now, atLeast, last + 1});
        if (time - last > leapSize || time >= page_.nextSkip.load()) {
            leap(now, atLeast);
            last = page_.last.load();
        } else if (page_.last.compare_exchange_weak(last, time)) {
            return time;
        }
    }
}

// Brings the counter over a wide gap or a span to pass over, to just before the next time to hand out.
void UniqueClock::leap(long long now, long long atLeast) {
    const RobustLock guard(page_.mutex);
    long long last = page_.last.load();
    long long time = std::max({now, atLeast, last + 1});
    for (bool moved = true; moved;) {
        moved = false;
        for (const auto& skip : page_.skips) {
            if (skip[1] != 0 && time >= skip[0] && time <= skip[1]) {
                time = skip[1] + 1;
                moved = true;
            }
        }
    }
    if (time - last > leapSize)
        pushPair(page_.leaps, last, time);
    while (last < time - 1 && !page_.last.compare_exchange_weak(last, time - 1)) {
    }
    refreshNextSkip(time);
}

void UniqueClock::refreshNextSkip(long long from) {
    long long nearest = never;
    for (const auto& skip : page_.skips)
        if (skip[1] != 0 && skip[0] >= from)
            nearest = std::min(nearest, skip[0]);
    page_.nextSkip = nearest;
}

// The clock once ran far ahead and is back: go on from the present, and remember the times handed out meanwhile.
void UniqueClock::forgetLead(long long now) {
    const RobustLock guard(page_.mutex);
    const long long last = page_.last.load();
    if (last - now <= ItemStore::maxClockLead)
        return;
    const auto wild = std::find_if(std::begin(page_.leaps), std::end(page_.leaps),
                                   [now](const auto& leap) { return leap[1] > now; });
    if (wild == std::end(page_.leaps))
        return;
    const long long before = (*wild)[0];
    addSkip(page_, (*wild)[1], std::max(last, page_.committed.load()));
    dropLeaps(page_.leaps, now);
    page_.last = std::max(before, now - 1);
    page_.committed = std::numeric_limits<long long>::min();
    refreshNextSkip(page_.last + 1);
    logging::MessageStream(2, 2) << "the unique clock was " << (last - now) / 1000000
                                 << " seconds ahead of the present and goes on from the present";
}

ClockState UniqueClock::state(long long now) const {
    ClockState out;
    out.last = page_.last;
    out.committed = std::max(0LL, page_.committed.load());
    out.lead = std::max(0LL, out.last - now);
    return out;
}

Bytes UniqueClock::markKey() {
    static constexpr char key[] = {ownRecords, 'c'};
    return {key, sizeof key};
}

bool UniqueClock::dueMark(ClockPage& page, long long now, std::string& record, long long& mark) {
    if (page.last.load() <= page.committed.load())
        return false;
    // The counter and the leaps that explain it belong together: a clock that goes back changes both.
    const RobustLock guard(page.mutex);
    const long long last = page.last.load();
    const long long since = now - page.marked.exchange(now);
    const bool isAtPresent = now - last <= markLead;
    mark = isAtPresent && since >= 0 && since <= markLead ? std::max(last, now + markLead) : last;
    Item item;
    item.addInteger(mark);
    item.addItem(pairsItem(page.leaps));
    item.addItem(pairsItem(page.skips));
    record.assign(reinterpret_cast<const char*>(item.data()), item.size());
    return true;
}

void UniqueClock::markCommitted(ClockPage& page, long long mark) {
    // The clock was wild when the mark was taken, and the counter went back to the present before it was durable.
    const RobustLock guard(page.mutex);
    if (mark > page.last.load() + 2 * markLead)
        return;
    long long before = page.committed.load();
    while (before < mark && !page.committed.compare_exchange_weak(before, mark)) {
    }
}

void UniqueClock::load(ClockPage& page, Bytes record) {
    Item item;
    item.setPlain(reinterpret_cast<const unsigned char*>(record.data()), record.size());
    Item::Iterator at(item);
    long long mark = 0;
    Item leaps;
    Item skips;
    if (at.decodeElementAsInteger(mark) && at.decodeElementAsItem(leaps) && at.decodeElementAsItem(skips)) {
        loadPairs(leaps, page.leaps);
        loadPairs(skips, page.skips);
    } else if (!record.empty()) {
        // Should the mark be wild, too, this is how it came about, and how the clock finds back.
        pushPair(page.leaps, 0, mark);
        logging::MessageStream(2, 2)
            << "the store's record of the unique clock is damaged: the clock goes on from "
            << (mark > 0 ? "its mark" : "the present");
    }
    page.last = mark;
    page.committed = mark;
    page.nextSkip = never;
    for (const auto& skip : page.skips)
        if (skip[1] != 0 && skip[1] > mark)
            page.nextSkip = std::min(page.nextSkip.load(), skip[0]);
}

}  // namespace qel::storage
