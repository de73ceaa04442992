#pragma once

#include <span>

#include "converter/UsageCounts.h"

namespace qel {

class HtmlReportGenerator;

/// One chart of the usage report: what is written on it and what it shows.
struct UsageChart {
    const char* title;
    const char* description;
    EventStatistic& (*counter)(UsageCounts&);
    Vector<String> (*labels)(const UsageCounts&);  ///< names of the series
    bool onlyWithDetails;                          ///< shown only when photodoc details are asked for
};

/// All charts in the order of the report.
std::span<const UsageChart> usageCharts();

/// Adds the charts to the page.
void addUsageCharts(HtmlReportGenerator& page, UsageCounts& counts, bool withPhotodocDetails);

}  // namespace qel
