#include "qelCore/GregorianDate.h"

#include <algorithm>
#include <cstdint>
#include <limits>

#include "qelCore/util/DateConversion.h"
#include "time/Calendar.h"
#include "time/GermanZone.h"

namespace qel {

namespace {

using calendar::floorDivide;
using calendar::floorModulo;
using calendar::secondsPerDay;

constexpr std::int64_t microseconds = microsecondsPerSecond;

// A little beyond what a 64-bit time can hold; the fields of more are cut to it before any zone is looked up.
constexpr std::int64_t largestSeconds =
    std::numeric_limits<std::int64_t>::max() / microseconds + 2 * secondsPerDay;

// The fields of a time, in whole seconds since 1970 of the clock that shows them. No int overflows here: the
// largest year is below 10^17 seconds.
std::int64_t secondsOf(const GregorianDate& date) {
    const std::int64_t monthIndex = static_cast<std::int64_t>(date.getMonth()) - 1;
    const std::int64_t year = date.getYear() + floorDivide(monthIndex, calendar::monthsPerYear);
    const int month = static_cast<int>(floorModulo(monthIndex, calendar::monthsPerYear)) + 1;
    const std::int64_t days = calendar::daysFromCivil(year, month, date.getDay());
    const std::int64_t seconds = days * secondsPerDay + static_cast<std::int64_t>(date.getHour()) * 3600 +
                                 static_cast<std::int64_t>(date.getMinute()) * 60 + date.getSecond();
    return std::clamp(seconds, -largestSeconds, largestSeconds);
}

UTCDateTime joined(std::int64_t seconds, std::int64_t microsecond) {
    // Both parts point away from zero, so that a time near the beginning does not overflow on the way.
    if (seconds < 0) {
        ++seconds;
        microsecond -= microseconds;
    }
    std::int64_t time = 0;
    if (__builtin_mul_overflow(seconds, microseconds, &time) ||
        __builtin_add_overflow(time, microsecond, &time))
        return seconds < 0 ? std::numeric_limits<UTCDateTime>::min()
                           : std::numeric_limits<UTCDateTime>::max();
    return time;
}

GregorianDate brokenDown(std::int64_t seconds, int microsecond) {
    const calendar::Day day = calendar::civilFromDays(floorDivide(seconds, secondsPerDay));
    const int secondOfDay = static_cast<int>(floorModulo(seconds, secondsPerDay));
    return {static_cast<int>(day.year), day.month,        day.day,    secondOfDay / 3600,
            secondOfDay / 60 % 60,      secondOfDay % 60, microsecond};
}

}  // namespace

GregorianDate::GregorianDate(UTCDateTime time) : GregorianDate(util::convertUTCDateTimeToGMT(time)) {}

UTCDateTime GregorianDate::asUTCDateTime() const {
    return joined(secondsOf(*this), microsecond_);
}

UTCDateTime GregorianDate::asUTCDateTimeLocalTime() const {
    return joined(german::utcFromLocal(secondsOf(*this)), microsecond_);
}

GregorianDate util::convertUTCDateTimeToGMT(UTCDateTime time) {
    return brokenDown(floorDivide(time, microseconds), static_cast<int>(floorModulo(time, microseconds)));
}

GregorianDate util::convertUTCDateTimeToGermanTime(UTCDateTime time) {
    const std::int64_t seconds = floorDivide(time, microseconds);
    return brokenDown(seconds + german::offsetAt(seconds), static_cast<int>(floorModulo(time, microseconds)));
}

}  // namespace qel
