#pragma once

#include <cstdint>
#include <vector>

#include "converter/Calendar.h"
#include "converter/UsageCounts.h"
#include "converter/UserDirectory.h"

namespace qel {

/// Who was active: the charts on users, groups, weblink recipients and days of activity, from the dated lines
/// of the interaction log.
class ActivityCharts {
  public:
    ActivityCharts(UsageCounts& counts, UserDirectory& users) : counts_(counts), users_(users) {}

    void count(const UserDirectory::User& user, const Day& day, std::uint32_t month);
    /// Hands over what was gathered per user.
    void finish();

  private:
    /// What is known of a named user.
    struct Activity {
        std::uint32_t lastDay = 0;
        std::int32_t days = 0;
    };

    void countWeblink(const UserDirectory::User& user, const Day& day, std::uint32_t month);
    void countNamed(std::uint32_t name, const Day& day, std::uint32_t month);
    void countInGroup(std::uint32_t group, const Day& day);
    int labelOf(std::uint32_t group);

    UsageCounts& counts_;
    UserDirectory& users_;
    std::vector<Activity> activities_;  // by name
    std::vector<int> labels_;           // by group, plus one; 0 while the group has no label
    OnceSet daysOfUsers_;
    OnceSet monthsOfUsers_;
    OnceSet monthsOfRecipients_;
};

}  // namespace qel
