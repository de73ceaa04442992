#pragma once

#include "auditing/EventStatistic.h"
#include "qelCore/String.h"
#include "qelCore/Vector.h"

namespace qel {

/// The nineteen counters of one usage report, and the label lists that grow while the logs are read.
struct UsageCounts {
    EventByMonth activeUsers;            // 1
    EventByMonth activeUsersInGroup;     // 2
    EventByMonth activeWeblinkUsers;     // 3
    EventByCategory daysActive;          // 4
    EventByMonth seriesViewed;           // 5
    EventByMonth viewedPerMonth;         // 6
    EventByCategory viewedPerUser;       // 7
    EventByCategory viewedPerGroup;      // 8
    EventByMonth viewedPerUserPerMonth;  // 9
    EventByMonth seriesShared;           // 10
    EventByMonth studiesShared;          // 11
    EventByMonth queries;                // 12
    EventByMonth retrieved;              // 13
    EventByMonth chatMessages;           // 14
    EventByMonth photodocs;              // 15
    EventByMonth photodocsPerUser;       // 16
    EventByMonth photosAssigned;         // 17
    EventByMonth taggingUsed;            // 18
    EventByMonth photosViewed;           // 19

    Vector<String> groupLabels;      // chart 2
    Vector<String> viewingUsers;     // chart 9
    Vector<String> photodocUsers;    // chart 16
    Vector<String> photoCountTexts;  // chart 17
};

}  // namespace qel
