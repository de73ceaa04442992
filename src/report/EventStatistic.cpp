#include "auditing/EventStatistic.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "qelCore/GregorianDate.h"

namespace qel {

namespace {

constexpr std::int32_t largestCount = std::numeric_limits<std::int32_t>::max();

/// A series index that can be counted: its series count has to fit into 32 bits as well.
bool isCountable(int series) {
    return series >= 0 && series < largestCount;
}

}  // namespace

void EventStatistic::widen(int series) {
    if (isCountable(series))
        seriesCount_ = std::max(seriesCount_, series + 1);
}

void EventStatistic::addTo(Counts& counts, int series, std::int32_t occurrences) const {
    counts.resize(std::max(counts.size(), static_cast<std::size_t>(seriesCount_)), 0);
    std::int32_t& count = counts[static_cast<std::size_t>(series)];
    count = occurrences > largestCount - count ? largestCount : count + occurrences;
}

void EventStatistic::beginRows(int series) {
    seriesCount_ = std::max(series, 0);
    values_.resize(static_cast<std::size_t>(seriesCount_));
}

void EventStatistic::appendRow(String label, const Counts& counts) {
    labels_.push_back(std::move(label));
    for (std::size_t series = 0; series < values_.size(); ++series)
        values_[series].push_back(series < counts.size() ? static_cast<float>(counts[series]) : 0.0F);
}

// Months
// -----------------------------------------------------------------------------------------------------

namespace {

// Year first, so that the order of keys is the order of time.
std::int32_t monthKey(int month, int year) {
    return (year << 4) | month;
}

std::string onceKey(std::string_view row, std::string_view token, int series) {
    std::string key;
    key.reserve(row.size() + token.size() + 8);
    key.append(row).append("-").append(token).append("-").append(std::to_string(series));
    return key;
}

}  // namespace

void EventByMonth::increaseByOne(int month, int year, int series) {
    if (!isCountable(series))
        return;
    widen(series);
    addTo(months_[monthKey(month, year)], series, 1);
}

void EventByMonth::increaseByOneOnlyOnceInMonth(int month, int year, const char* token, int series) {
    if (!isCountable(series))
        return;
    widen(series);
    if (seen_.insert(onceKey(std::to_string(monthKey(month, year)), token, series)).second)
        increaseByOne(month, year, series);
}

void EventByMonth::generate(int numSeries) {
    beginRows(numSeries);
    for (const auto& [key, counts] : months_)
        appendRow(GregorianDate::getMonthName(key & 15, "en") + " " + std::to_string(key >> 4), counts);
}

// Categories
// -------------------------------------------------------------------------------------------------

void EventByCategory::increaseByOne(const char* category, int series) {
    increaseBy(category, series, 1);
}

void EventByCategory::increaseBy(const char* category, int series, std::int32_t occurrences) {
    if (!isCountable(series) || occurrences <= 0)
        return;
    widen(series);
    addTo(categories_[String(category)], series, occurrences);
}

void EventByCategory::increaseByOneOnlyOnce(const char* category, const char* token, int series) {
    if (!isCountable(series))
        return;
    widen(series);
    if (seen_.insert(onceKey(category, token, series)).second)
        increaseByOne(category, series);
}

void EventByCategory::generate(int numSeries) {
    beginRows(std::max(seriesCount_, numSeries));
    for (const auto& [category, counts] : categories_)
        appendRow(category, counts);
}

}  // namespace qel
