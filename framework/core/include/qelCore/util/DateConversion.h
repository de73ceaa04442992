#pragma once

#include "qelCore/Export.h"
#include "qelCore/GregorianDate.h"
#include "qelCore/System.h"

namespace qel::util {

/// The fields of a time in UTC. Any thread, any value.
QELCORE_EXPORT GregorianDate convertUTCDateTimeToGMT(UTCDateTime time);

/// The fields that a clock in Germany shows at a time: Europe/Berlin by the system's time-zone database,
/// summer time included, whatever zone the machine is in. Any thread, any value; each thread remembers the
/// span without a clock change it used last, so that writing a log in time order costs a comparison and an
/// addition per line. Years behind the database's last entry follow its last rules.
QELCORE_EXPORT GregorianDate convertUTCDateTimeToGermanTime(UTCDateTime time);

}  // namespace qel::util
