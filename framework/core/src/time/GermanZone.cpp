#include "time/GermanZone.h"

#include <date/tz.h>

#include <algorithm>
#include <exception>
#include <limits>

#include "qelCore/logging/Log.h"
#include "qelCore/logging/MessageStream.h"
#include "time/Calendar.h"

namespace qel::german {

namespace {

using calendar::daysFromCivil;
using calendar::secondsPerDay;

constexpr std::int64_t winterOffset = 3600;
constexpr std::int64_t summerOffset = 7200;
constexpr std::int64_t beginOfTime = std::numeric_limits<std::int64_t>::min();

// Time-zone files list their changes one by one, up to this year. A later year is looked up as one of the 28
// years up to it that has the same days of the week.
constexpr std::int64_t lastListedYear = 2037;
constexpr std::int64_t yearsOfWeekCycle = 28;

// Before this there was no common time in Germany to change.
constexpr std::int64_t earliestLookup = daysFromCivil(1850, 1, 1) * secondsPerDay;

// Clocks never were moved further than this in one go, nor twice within it.
constexpr std::int64_t changeMargin = secondsPerDay;

constexpr std::int64_t yearStart(std::int64_t year) {
    return daysFromCivil(year, 1, 1) * secondsPerDay;
}

std::int64_t yearOf(std::int64_t utcSeconds) {
    return calendar::civilFromDays(calendar::floorDivide(utcSeconds, secondsPerDay)).year;
}

bool sameDaysOfWeek(std::int64_t a, std::int64_t b) {
    return calendar::isLeapYear(a) == calendar::isLeapYear(b) &&
           calendar::weekdayOf(daysFromCivil(a, 1, 1)) == calendar::weekdayOf(daysFromCivil(b, 1, 1));
}

std::int64_t listedYearLike(std::int64_t year) {
    std::int64_t like = lastListedYear - yearsOfWeekCycle + 1;
    while (like < lastListedYear && !sameDaysOfWeek(like, year))
        ++like;
    return like;
}

const date::time_zone* findZone() {
    try {
        return date::locate_zone("Europe/Berlin");
    } catch (const std::exception& failure) {
        logging::MessageStream(logging::levelError, logging::channelSystem)
            << "the time-zone database has no Europe/Berlin, summer time goes by the rule since 1996: "
            << failure.what();
        return nullptr;
    }
}

OffsetSpan lookUp(const date::time_zone& zone, std::int64_t utcSeconds) {
    const std::int64_t time = std::max(utcSeconds, earliestLookup);
    const date::sys_info info = zone.get_info(date::sys_seconds(std::chrono::seconds(time)));
    const std::int64_t begin = info.begin.time_since_epoch().count();
    return {begin <= earliestLookup ? beginOfTime : begin, info.end.time_since_epoch().count(),
            info.offset.count()};
}

OffsetSpan lookUpLike(const date::time_zone& zone, std::int64_t utcSeconds, std::int64_t year) {
    const std::int64_t like = listedYearLike(year);
    const std::int64_t shift = yearStart(year) - yearStart(like);
    OffsetSpan span = lookUp(zone, utcSeconds - shift);
    span.begin = std::max(span.begin, yearStart(like)) + shift;
    span.end = std::min(span.end, yearStart(like + 1)) + shift;
    return span;
}

std::int64_t lastSundayAtOne(std::int64_t year, int month) {
    const std::int64_t lastDay = daysFromCivil(year, month, 31);
    return (lastDay - calendar::weekdayOf(lastDay)) * secondsPerDay + 3600;
}

// Nothing is inside it, so that the first use looks up.
thread_local OffsetSpan lastSpan{0, 0, 0};

const OffsetSpan& spanAt(std::int64_t utcSeconds) {
    if (utcSeconds < lastSpan.begin || utcSeconds >= lastSpan.end)
        lastSpan = spanFromDatabase(utcSeconds);
    return lastSpan;
}

}  // namespace

OffsetSpan spanByRule(std::int64_t utcSeconds) {
    const std::int64_t year = yearOf(utcSeconds);
    const std::int64_t summer = lastSundayAtOne(year, 3);
    const std::int64_t winter = lastSundayAtOne(year, 10);
    if (utcSeconds < summer)
        return {yearStart(year), summer, winterOffset};
    if (utcSeconds < winter)
        return {summer, winter, summerOffset};
    return {winter, yearStart(year + 1), winterOffset};
}

OffsetSpan spanFromDatabase(std::int64_t utcSeconds) {
    static const date::time_zone* const zone = findZone();
    if (zone == nullptr)
        return spanByRule(utcSeconds);
    const std::int64_t year = yearOf(utcSeconds);
    if (year > lastListedYear)
        return lookUpLike(*zone, utcSeconds, year);
    OffsetSpan span = lookUp(*zone, utcSeconds);
    span.end = std::min(span.end, yearStart(lastListedYear + 1));
    return span;
}

std::int64_t offsetAt(std::int64_t utcSeconds) {
    return spanAt(utcSeconds).offset;
}

std::int64_t utcFromLocal(std::int64_t localSeconds) {
    const std::int64_t likely = localSeconds - lastSpan.offset;
    if (likely - changeMargin >= lastSpan.begin && likely + changeMargin < lastSpan.end)
        return likely;
    const std::int64_t before = offsetAt(localSeconds - changeMargin);
    const std::int64_t after = offsetAt(localSeconds + changeMargin);
    const bool changedAlready = offsetAt(localSeconds - before) != before;
    const bool shownAfter = offsetAt(localSeconds - after) == after;
    return localSeconds - (changedAlready && shownAfter ? after : before);
}

}  // namespace qel::german
