#include "converter/SharingCharts.h"

namespace qel {

namespace {

/// The series of a target kind; negative for words that name none.
int seriesOf(std::string_view target) {
    constexpr std::string_view targets[] = {"contact", "weblink", "sendto"};
    for (int series = 0; series < 3; ++series)
        if (target == targets[series])
            return series;
    return -1;
}

}  // namespace

void SharingCharts::count(const Day& day, std::uint32_t month, std::string_view study,
                          std::string_view target) {
    const int series = seriesOf(target);
    if (series < 0)
        return;
    counts_.seriesShared.increaseByOne(day.month, day.year, series);
    const std::uint32_t low = studies_.numberOf(study) << 2 | static_cast<std::uint32_t>(series);
    if (monthsOfStudies_.insert(pairKey(month, low)))
        counts_.studiesShared.increaseByOne(day.month, day.year, series);
}

}  // namespace qel
