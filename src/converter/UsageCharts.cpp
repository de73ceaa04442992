#include "converter/UsageCharts.h"

#include "auditing/HtmlReportGenerator.h"

namespace qel {

namespace {

/// Names in one row of a chart's legend.
constexpr int itemsPerRow = 5;

/// A counter or a grown label list of the report, as a function that a table can hold.
template <auto member>
EventStatistic& counter(UsageCounts& counts) {
    return counts.*member;
}
template <auto member>
Vector<String> grown(const UsageCounts& counts) {
    return counts.*member;
}

Vector<String> users(const UsageCounts&) {
    return {"Users"};
}
Vector<String> daysActive(const UsageCounts&) {
    return {"Days active"};
}
Vector<String> series(const UsageCounts&) {
    return {"Series"};
}
Vector<String> seriesAndStudies(const UsageCounts&) {
    return {"Series", "Studies"};
}
Vector<String> shareTargets(const UsageCounts&) {
    return {"Contact", "Weblink", "AET"};
}
Vector<String> queries(const UsageCounts&) {
    return {"Queries"};
}
Vector<String> messagesAndShares(const UsageCounts&) {
    return {"Messages", "Shares"};
}
Vector<String> photodocsDone(const UsageCounts&) {
    return {"Photodocs done"};
}
Vector<String> taggingUsed(const UsageCounts&) {
    return {"Photodoc tagging used"};
}
Vector<String> photosViewed(const UsageCounts&) {
    return {"Photodoc photos viewed"};
}

using C = UsageCounts;

// The texts are the report's own and stay as they are, "occurence" and the doubled words included: readers and
// their tools know them so.
const UsageChart charts[] = {
    {"Active users per month",
     "This diagram visualizes the number of active users per month over the specified time period."
     "<br>The information is gathered from the interaction log.",
     counter<&C::activeUsers>, users, false},
    {"Active users in group per month",
     "This diagram visualizes the number of active users per group per month over the specified time period."
     "<br>The information is gathered from the interaction log.",
     counter<&C::activeUsersInGroup>, grown<&C::groupLabels>, false},
    {"Active weblink users per month",
     "This diagram visualizes the number of active weblink users per month over the specified time period."
     "<br>The information is gathered from the interaction log.",
     counter<&C::activeWeblinkUsers>, users, false},
    {"Active users",
     "This diagram visualizes how many days users were active over the specified time period."
     "<br>The information is gathered from the interaction log.",
     counter<&C::daysActive>, daysActive, false},
    {"Series viewed per month",
     "This diagram visualizes the number of series viewed over the specified time period."
     "<br>The information is gathered from the interaction log.",
     counter<&C::seriesViewed>, series, false},
    {"Series and Studies viewed per month",
     "This diagram visualizes the number of series and studies viewed per month over the specified time "
     "period."
     "<br>Only one occurence per day for a series or study is counted."
     "<br>The information is gathered from the audit log.",
     counter<&C::viewedPerMonth>, seriesAndStudies, false},
    {"Series and Studies viewed per user",
     "This diagram visualizes the number of series and studies viewed per user over the specified time "
     "period."
     "<br>Only one occurence per day for a series or study is counted."
     "<br>The information is gathered from the audit log.",
     counter<&C::viewedPerUser>, seriesAndStudies, false},
    {"Series and Studies viewed per group",
     "This diagram visualizes the number of series and studies viewed per group over the specified time "
     "period."
     "<br>Only one occurence per day for a series or study is counted."
     "<br>The information is gathered from the audit log.",
     counter<&C::viewedPerGroup>, seriesAndStudies, false},
    {"Series and Studies viewed per user per month",
     "This diagram visualizes the number of series and studies viewed per user per month over the specified "
     "time period."
     "<br>Only one occurence per day for a series or study is counted."
     "<br>The information is gathered from the audit log.",
     counter<&C::viewedPerUserPerMonth>, grown<&C::viewingUsers>, false},
    {"Series shared per month",
     "This diagram visualizes the number of series shared per month to a target over the specified time "
     "period."
     "<br>The information is gathered from the audit log.",
     counter<&C::seriesShared>, shareTargets, false},
    {"Studies shared per month",
     "This diagram visualizes the number of studies shared per month to a target over the specified time "
     "period."
     "<br>The information is gathered from the audit log.",
     counter<&C::studiesShared>, shareTargets, false},
    {"Queries per month",
     "This diagram visualizes the number of queries to a PACS performed over the specified time period."
     "<br>The information is gathered from the interaction log.",
     counter<&C::queries>, queries, false},
    {"Series and Studies retrieved per month",
     "This diagram visualizes the number of retrieves from a PACS performed over the specified time period."
     "<br>The information is gathered from the interaction log.",
     counter<&C::retrieved>, seriesAndStudies, false},
    {"Chat messages written per month",
     "This diagram visualizes the number of chat and share messages sent over the specified time period."
     "<br>Chat messages include text, photo and audio messages."
     "<br>The information is gathered from the interaction log.",
     counter<&C::chatMessages>, messagesAndShares, false},
    {"Photodocs performed per month",
     "This diagram visualizes the number of completed photodoc workflows per month over the specified time "
     "period."
     "<br>The information is gathered from the interaction log.",
     counter<&C::photodocs>, photodocsDone, false},
    {"Photodocs performed per user per month",
     "This diagram visualizes the number of of completed photodoc workflows per user per month over the "
     "specified time period."
     "<br>The information is gathered from the interaction log.",
     counter<&C::photodocsPerUser>, grown<&C::photodocUsers>, false},
    {"Assigned photos per photodoc per month",
     "This diagram visualizes the number of assigned photos per photodoc per month over the specified time "
     "period."
     "<br>The information is gathered from the interaction log.",
     counter<&C::photosAssigned>, grown<&C::photoCountTexts>, true},
    {"Photodoc tagging used per month",
     "This diagram visualizes the number of used of tagging functionality in photodoc per month over the "
     "specified time period."
     "<br>The information is gathered from the interaction log.",
     counter<&C::taggingUsed>, taggingUsed, true},
    {"Photodoc photos viewed per month",
     "This diagram visualizes the number of photos viewed in photodoc per month over the specified time "
     "period."
     "<br>The information is gathered from the interaction log.",
     counter<&C::photosViewed>, photosViewed, true},
};

}  // namespace

std::span<const UsageChart> usageCharts() {
    return charts;
}

void addUsageCharts(HtmlReportGenerator& page, UsageCounts& counts, bool withPhotodocDetails) {
    for (const UsageChart& chart : charts)
        if (withPhotodocDetails || !chart.onlyWithDetails)
            page.addBarchart(chart.title, chart.labels(counts), chart.counter(counts), chart.description,
                             itemsPerRow);
}

}  // namespace qel
