#pragma once

#include <cstdint>

namespace qel::calendar {

constexpr std::int64_t secondsPerDay = 86400;
constexpr std::int64_t monthsPerYear = 12;
// The Gregorian calendar repeats after 400 years.
constexpr std::int64_t yearsPerEra = 400;
constexpr std::int64_t daysPerEra = 146097;
// From 1 March of the year 0, where eras begin, to 1 January 1970.
constexpr std::int64_t daysFromEraStartTo1970 = 719468;

struct Day {
    std::int64_t year;
    int month;  // 1 to 12
    int day;    // 1 to 31
};

/// Division that rounds down, and the matching remainder, 0 to `divisor` (not included).
constexpr std::int64_t floorDivide(std::int64_t value, std::int64_t divisor) {
    return value / divisor - (value % divisor < 0 ? 1 : 0);
}
constexpr std::int64_t floorModulo(std::int64_t value, std::int64_t divisor) {
    const std::int64_t rest = value % divisor;
    return rest < 0 ? rest + divisor : rest;
}

// Years are counted from March here, so that the leap day ends its year and months have lengths of one
// pattern: month m of such a year (0 = March) begins at day (153 m + 2) / 5.

/// Days from 1 January 1970; `month` 1 to 12, `day` any.
constexpr std::int64_t daysFromCivil(std::int64_t year, int month, std::int64_t day) {
    const std::int64_t marchYear = month > 2 ? year : year - 1;
    const std::int64_t marchMonth = month > 2 ? month - 3 : month + 9;
    const std::int64_t era = floorDivide(marchYear, yearsPerEra);
    const std::int64_t yearOfEra = floorModulo(marchYear, yearsPerEra);
    const std::int64_t dayOfEra =
        yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + (153 * marchMonth + 2) / 5;
    return era * daysPerEra + dayOfEra - daysFromEraStartTo1970 + day - 1;
}

constexpr Day civilFromDays(std::int64_t days) {
    const std::int64_t shifted = days + daysFromEraStartTo1970;
    const std::int64_t era = floorDivide(shifted, daysPerEra);
    const std::int64_t dayOfEra = floorModulo(shifted, daysPerEra);
    const std::int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const std::int64_t marchMonth = (5 * dayOfYear + 2) / 153;
    const int day = static_cast<int>(dayOfYear - (153 * marchMonth + 2) / 5 + 1);
    const int month = static_cast<int>(marchMonth < 10 ? marchMonth + 3 : marchMonth - 9);
    return {era * yearsPerEra + yearOfEra + (month <= 2 ? 1 : 0), month, day};
}

/// 0 is Sunday.
constexpr int weekdayOf(std::int64_t days) {
    return static_cast<int>(floorModulo(days + 4, 7));
}

constexpr bool isLeapYear(std::int64_t year) {
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

}  // namespace qel::calendar
