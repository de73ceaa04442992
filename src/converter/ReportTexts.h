#pragma once

#include "qelCore/GregorianDate.h"
#include "qelCore/String.h"
#include "qelCore/System.h"
#include "qelCore/util/DateConversion.h"

namespace qel {

/// A time as headers and footers of the reports show it, in UTC.
inline String shortText(UTCDateTime time) {
    return util::convertUTCDateTimeToGMT(time).formatAsShortTextDateTime(nullptr);
}

inline String reportPeriod(UTCDateTime start, UTCDateTime end) {
    return shortText(start) + " - " + shortText(end);
}

inline String presentTime() {
    return shortText(System::getUTCDateTime());
}

}  // namespace qel
