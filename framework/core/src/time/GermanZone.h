#pragma once

#include <cstdint>

namespace qel::german {

/// A span of time without a clock change: seconds of UTC since 1970, `begin` included, `end` not, and how far
/// German clocks are ahead of UTC in it.
struct OffsetSpan {
    std::int64_t begin;
    std::int64_t end;
    std::int64_t offset;
};

/// How many seconds German clocks are ahead of UTC at a time. Any thread; the span found last is kept per
/// thread.
std::int64_t offsetAt(std::int64_t utcSeconds);

/// The time at which German clocks show `localSeconds`: the first one in the doubled hour, and in the missing
/// hour the one that the clock of before would show.
std::int64_t utcFromLocal(std::int64_t localSeconds);

/// The span around a time by the system's time-zone database. Slow; the operations above keep its answers.
OffsetSpan spanFromDatabase(std::int64_t utcSeconds);

/// The span by the rule of the European Union alone, summer time from the last Sunday of March to the last
/// Sunday of October, 01:00 UTC: right since 1996, and used only on a machine without the database.
OffsetSpan spanByRule(std::int64_t utcSeconds);

}  // namespace qel::german
