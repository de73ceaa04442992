#include "converter/ActivityCharts.h"

namespace qel {

// The once-keys of these charts join to one text that can be taken apart in one way only, so numbers of user,
// day and month stand for it exactly. (A user's name, which may hold dashes, stands twice in the day key.)

void ActivityCharts::count(const UserDirectory::User& user, const Day& day, std::uint32_t month) {
    if (user.isWeblink)
        countWeblink(user, day, month);
    else
        countNamed(user.name, day, month);
}

void ActivityCharts::countWeblink(const UserDirectory::User& user, const Day& day, std::uint32_t month) {
    if (monthsOfRecipients_.insert(pairKey(month, user.user)))
        counts_.activeWeblinkUsers.increaseByOne(day.month, day.year, 0);
}

void ActivityCharts::countNamed(std::uint32_t name, const Day& day, std::uint32_t month) {
    if (name >= activities_.size())
        activities_.resize(users_.nameCount());
    Activity& activity = activities_[name];
    if (activity.lastDay == day.number)
        return;  // this day of this user is counted in all three charts
    activity.lastDay = day.number;
    if (daysOfUsers_.insert(pairKey(day.number, name)))
        ++activity.days;
    if (!monthsOfUsers_.insert(pairKey(month, name)))
        return;
    counts_.activeUsers.increaseByOne(day.month, day.year, 0);
    const std::vector<std::uint32_t>& groups = users_.groupsOf(name);
    if (groups.empty())
        countInGroup(users_.noGroup(), day);
    for (const std::uint32_t group : groups)
        countInGroup(group, day);
}

void ActivityCharts::countInGroup(std::uint32_t group, const Day& day) {
    counts_.activeUsersInGroup.increaseByOne(day.month, day.year, labelOf(group));
}

int ActivityCharts::labelOf(std::uint32_t group) {
    if (group >= labels_.size())
        labels_.resize(users_.groupCount(), 0);
    if (labels_[group] == 0) {
        counts_.groupLabels.push_back(String(users_.group(group)));
        labels_[group] = static_cast<int>(counts_.groupLabels.size());
    }
    return labels_[group] - 1;
}

void ActivityCharts::finish() {
    for (std::uint32_t name = 0; name < activities_.size(); ++name)
        counts_.daysActive.increaseBy(String(users_.name(name)).c_str(), 0, activities_[name].days);
}

}  // namespace qel
