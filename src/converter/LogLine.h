#pragma once

#include <cstdint>

#include "qelCore/String.h"
#include "qelCore/System.h"
#include "qelCore/Vector.h"

namespace qel {

/// One line of an exported log with everything that can be read from it, each text its own copy. For tests,
/// tools and tables; the counting passes read slices (LineView) and only what they need.
struct LogLine {
    LogLine() = default;
    explicit LogLine(const String& line);

    bool parsed = false;     ///< the line had at least 4 fields
    bool dateValid = false;  ///< and its month and year are plausible; only then trust `time`
    String timeText;
    UTCDateTime time = 0;  ///< the Time field, read as German local time
    std::int32_t month = 0;
    std::int32_t day = 0;
    std::int32_t year = 0;
    std::int32_t hour = 0;
    std::int32_t minute = 0;
    std::int32_t second = 0;
    String user;
    String reportUser;  ///< "Weblink" when `user` begins with "invite-", else `user`
    String device;
    String event;
    Vector<String> params;  ///< the fields behind the fourth; all fields when there are fewer than four
};

}  // namespace qel
