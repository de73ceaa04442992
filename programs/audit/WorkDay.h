#pragma once

#include <string>
#include <vector>

#include "audit/SiteModel.h"

namespace qel::programs {

/// One event of an imagined day. Plain record.
struct DayEvent {
    double second = 0;   // of the local day
    bool audit = false;  // audit trail, otherwise interaction log
    std::string json;    // ["Event",…]
};

/// What a person does on a day at work, in the order of time.
std::vector<DayEvent> workDay(const SiteModel& site, int person, int day);

/// What a weblink recipient does on a day; empty on days without a visit.
std::vector<DayEvent> guestDay(const SiteModel& site, int guest, int day);

}  // namespace qel::programs
