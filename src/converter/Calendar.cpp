#include "converter/Calendar.h"

#include <cstring>

namespace qel {

namespace {

/// A text like "MM/DD/YYYY " decides the date: a blank behind a digit ends the year, or ends the reading.
constexpr std::size_t dateSize = sizeof("MM/DD/YYYY ") - 1;

bool decidesDate(std::string_view time) {
    return time.size() >= dateSize && time[dateSize - 1] == ' ' && time[dateSize - 2] >= '0' &&
           time[dateSize - 2] <= '9';
}

}  // namespace

bool Calendar::isSameDate(std::string_view time) const {
    return hasLastDate_ && time.size() >= dateSize && std::memcmp(time.data(), lastDate_, dateSize) == 0;
}

const Day& Calendar::dayOf(std::string_view time) {
    if (isSameDate(time))
        return last_;
    const TimeFields fields = scanTime(time);
    last_ = {fields.month, fields.year, fields.day, fields.isPlausible(), 0};
    if (last_.plausible)
        last_.number = numberOf(last_.month, last_.year, last_.day);
    hasLastDate_ = decidesDate(time);
    if (hasLastDate_)
        std::memcpy(lastDate_, time.data(), dateSize);
    return last_;
}

std::uint32_t Calendar::numberOf(int month, int year, int day) {
    const auto monthOfYear = static_cast<std::uint32_t>(year) << 4 | static_cast<std::uint32_t>(month);
    return days_.numberOf(pairKey(monthOfYear, static_cast<std::uint32_t>(day)));
}

}  // namespace qel
