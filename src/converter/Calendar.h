#pragma once

#include <cstdint>
#include <string_view>

#include "converter/LineView.h"
#include "converter/Numbering.h"

namespace qel {

/// A day as a line names it; whether the month has such a day nobody asks.
struct Day {
    int month = 0;
    int year = 0;
    int day = 0;
    bool plausible = false;    ///< only then the rest counts
    std::uint32_t number = 0;  ///< of this day in its Calendar, from 1
};

/// Numbers the days of one report and reads them from Time fields. Lines of one day follow each other, so the
/// last day is kept and most lines cost one comparison.
class Calendar {
  public:
    /// The day of a Time field; valid until the next call.
    const Day& dayOf(std::string_view time);

    /// The number of a month and a day number of any size.
    std::uint32_t numberOf(int month, int year, int day);
    std::uint32_t monthNumber(const Day& day) const {
        return static_cast<std::uint32_t>(day.year) << 4 | static_cast<std::uint32_t>(day.month);
    }

  private:
    bool isSameDate(std::string_view time) const;

    KeyNumbers days_;
    Day last_;
    char lastDate_[11] = {};
    bool hasLastDate_ = false;
};

}  // namespace qel
