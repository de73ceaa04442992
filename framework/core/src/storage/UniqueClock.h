#pragma once

#include <string>

#include "qelCore/StoreOptions.h"
#include "qelCore/System.h"
#include "storage/Engine.h"
#include "storage/SharedPage.h"

namespace qel::storage {

/// Hands out times that no process with the same store ever hands out again. The counter lies in the shared page and is
/// advanced atomically. With the writes a mark goes into the store that no time stored so far lies behind; after a power
/// cut the counter goes on from the mark. While commits follow each other quickly the mark runs ahead of the present by
/// `markLead`, so that only some of them have to write it. It runs ahead only of a counter that
/// is at the present: not of one that is ahead itself, or a program that is started for every event would move further from
/// the present with every start; nor of one that a wild clock has left behind, which would never come back.
/// Any thread.
class UniqueClock {
  public:
    explicit UniqueClock(ClockPage& page) : page_(page) {}

    long long next(long long now, long long atLeast);
    ClockState state(long long now) const;

    bool isMarkDue() const { return page_.last > page_.committed; }
    /// The key of the mark's record.
    static Bytes markKey();
    /// Microseconds.
    static constexpr long long markLead = 20000;
    /// The record to commit with the writes at hand at the present `now`, or false when the one in the store suffices.
    static bool dueMark(ClockPage& page, long long now, std::string& record, long long& mark);
    /// That record is durable now.
    static void markCommitted(ClockPage& page, long long mark);
    /// Sets the page from the record of the store (empty: none yet).
    static void load(ClockPage& page, Bytes record);

  private:
    void leap(long long now, long long atLeast);
    void forgetLead(long long now);
    void refreshNextSkip(long long from);

    ClockPage& page_;
};

/// Installs a store's clock as the source of System's unique times.
class StoreTimeSource : public UniqueTimeSource {
  public:
    explicit StoreTimeSource(UniqueClock& clock) : clock_(clock) {}
    UTCDateTime next(UTCDateTime now, UTCDateTime atLeast) override { return clock_.next(now, atLeast); }

  private:
    UniqueClock& clock_;
};

}  // namespace qel::storage
