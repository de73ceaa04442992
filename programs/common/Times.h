#pragma once

#include <cstdint>
#include <string>

namespace qel::programs {

/// What a time argument names: one instant, or all of a day, month, quarter or year.
/// Microseconds since 1970-01-01T00:00:00Z, both bounds included; plain record.
struct TimeSpan {
    std::int64_t first = 0;
    std::int64_t last = 0;
};

/// Reads `2026-03-01T08:00:00+01:00`, `…Z` (up to six decimals of a second), `2026-03-01`, `2026-03`,
/// `2026-Q1` or `2026`; names mean German local time. On failure returns false and puts a sentence into
/// `error`.
bool parseTime(const std::string& text, TimeSpan& span, std::string& error);

/// RFC 3339 in UTC with microseconds: 2026-03-01T07:00:00.000001Z.
std::string formatUtc(std::int64_t time);

/// The present in microseconds since 1970, as the wall clock has it (not the unique clock of events).
std::int64_t wallClock();

}  // namespace qel::programs
