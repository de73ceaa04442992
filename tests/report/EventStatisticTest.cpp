#include "auditing/EventStatistic.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <type_traits>
#include <vector>

namespace qel {
namespace {

using Labels = Vector<String>;
using Values = Vector<Vector<float>>;

TEST(EventStatistic, FreshCounterHasOneSeriesAndNoRow) {
    EventByMonth counter;
    EXPECT_EQ(counter.seriesCount(), 1);
    counter.generate(1);
    EXPECT_TRUE(counter.chartRowLabels().empty());
    ASSERT_EQ(counter.chartValues().size(), 1u);
    EXPECT_TRUE(counter.chartValues()[0].empty());
}

TEST(EventStatistic, CountInAHighSeriesFillsTheLowerOnesWithZero) {
    EventByMonth counter;
    counter.increaseByOne(3, 2021, 2);
    EXPECT_EQ(counter.seriesCount(), 3);
    counter.generate(3);
    EXPECT_EQ(counter.chartRowLabels(), Labels{"March 2021"});
    EXPECT_EQ(counter.chartValues(), (Values{{0}, {0}, {1}}));
}

TEST(EventStatistic, MonthsComeOutInTheOrderOfTime) {
    EventByMonth counter;
    counter.increaseByOne(1, 2021, 0);
    counter.increaseByOne(12, 2020, 0);
    counter.increaseByOne(2, 2020, 0);
    counter.generate(1);
    EXPECT_EQ(counter.chartRowLabels(), (Labels{"February 2020", "December 2020", "January 2021"}));
}

TEST(EventStatistic, MonthsDropSeriesBeyondTheNamedOnes) {
    EventByMonth counter;
    for (int series = 0; series < 4; ++series)
        counter.increaseByOne(1, 2021, series);
    counter.generate(2);
    EXPECT_EQ(counter.seriesCount(), 2);
    EXPECT_EQ(counter.chartValues(), (Values{{1}, {1}}));
}

TEST(EventStatistic, CategoriesKeepSeriesBeyondTheNamedOnes) {
    EventByCategory counter;
    for (int series = 0; series < 4; ++series)
        counter.increaseByOne("a", series);
    counter.generate(2);
    EXPECT_EQ(counter.seriesCount(), 4);
    EXPECT_EQ(counter.chartValues(), (Values{{1}, {1}, {1}, {1}}));
}

TEST(EventStatistic, CategoriesGrowToTheNamedSeries) {
    EventByCategory counter;
    counter.increaseByOne("a", 0);
    counter.generate(3);
    EXPECT_EQ(counter.chartValues(), (Values{{1}, {0}, {0}}));
}

TEST(EventStatistic, TheSameTokenCountsOncePerCategoryAndSeries) {
    EventByCategory counter;
    counter.increaseByOneOnlyOnce("anna", "day", 0);
    counter.increaseByOneOnlyOnce("anna", "day", 0);
    EXPECT_EQ(counter.seriesCount(), 1);
    counter.increaseByOneOnlyOnce("anna", "day", 1);
    EXPECT_EQ(counter.seriesCount(), 2);
    counter.generate(2);
    EXPECT_EQ(counter.chartValues(), (Values{{1}, {1}}));
}

TEST(EventStatistic, TheSameTokenCountsOncePerMonth) {
    EventByMonth counter;
    for (int i = 0; i < 3; ++i)
        counter.increaseByOneOnlyOnceInMonth(3, 2021, "anna", 0);
    counter.increaseByOneOnlyOnceInMonth(4, 2021, "anna", 0);
    counter.generate(1);
    EXPECT_EQ(counter.chartValues(), (Values{{1, 1}}));
}

TEST(EventStatistic, ASuppressedCallStillWidensTheChart) {
    // Category "a", token "b-0", series 1 joins to the text of category "a-b", token "0", series 1.
    EventByCategory counter;
    counter.increaseByOneOnlyOnce("a", "b-0", 1);
    EventByCategory other = counter;
    other.increaseByOneOnlyOnce("a-b", "0", 1);
    EXPECT_EQ(other.seriesCount(), 2);
    other.widen(4);
    EXPECT_EQ(other.seriesCount(), 5);
    other.generate(1);
    EXPECT_EQ(other.chartRowLabels(), Labels{"a"});
}

TEST(EventStatistic, ASuppressedCallRaisesTheSeriesCountAgain) {
    EventByMonth counter;
    counter.increaseByOneOnlyOnceInMonth(3, 2021, "anna", 2);
    counter.generate(1);
    EXPECT_EQ(counter.seriesCount(), 1);
    counter.increaseByOneOnlyOnceInMonth(3, 2021, "anna", 2);
    EXPECT_EQ(counter.seriesCount(), 3);
    // The rows come a second time, behind the first.
    counter.generate(3);
    EXPECT_EQ(counter.chartValues(), (Values{{0, 0}, {0}, {1}}));
}

TEST(EventStatistic, KeysThatJoinToOneTextCountOnce) {
    EventByCategory counter;
    counter.increaseByOneOnlyOnce("a-b", "c", 0);
    counter.increaseByOneOnlyOnce("a", "b-c", 0);
    counter.generate(1);
    EXPECT_EQ(counter.chartRowLabels(), Labels{"a-b"});
}

TEST(EventStatistic, CategoriesComeOutInTheOrderOfTheirBytes) {
    EventByCategory counter;
    for (const char* category : {"B", "a", "A", "\xc3\xa4", "aa", ""})
        counter.increaseByOne(category, 0);
    counter.generate(1);
    EXPECT_EQ(counter.chartRowLabels(), (Labels{"", "A", "B", "a", "aa", "\xc3\xa4"}));
}

TEST(EventStatistic, GeneratingTwiceRepeatsEveryRow) {
    EventByMonth counter;
    counter.increaseByOne(3, 2021, 0);
    counter.generate(1);
    counter.generate(1);
    EXPECT_EQ(counter.chartRowLabels(), (Labels{"March 2021", "March 2021"}));
    EXPECT_EQ(counter.chartValues(), (Values{{1, 1}}));
}

TEST(EventStatistic, ANegativeSeriesIsIgnored) {
    EventByMonth months;
    months.increaseByOne(3, 2021, -1);
    months.increaseByOneOnlyOnceInMonth(3, 2021, "anna", std::numeric_limits<int>::min());
    months.increaseByOne(3, 2021, std::numeric_limits<int>::max());
    EventByCategory categories;
    categories.increaseByOne("a", -1);
    categories.increaseByOneOnlyOnce("a", "b", -5);
    months.generate(1);
    categories.generate(-3);
    EXPECT_EQ(months.seriesCount(), 1);
    EXPECT_TRUE(months.chartRowLabels().empty());
    EXPECT_TRUE(categories.chartRowLabels().empty());
}

TEST(EventStatistic, GeneratingNoSeriesKeepsLabelsOnly) {
    EventByMonth counter;
    counter.increaseByOne(3, 2021, 0);
    counter.generate(-1);
    EXPECT_EQ(counter.seriesCount(), 0);
    EXPECT_TRUE(counter.chartValues().empty());
}

TEST(EventStatistic, CountsStopAtTheLargestNumber) {
    EventByCategory counter;
    counter.increaseBy("a", 0, std::numeric_limits<std::int32_t>::max());
    counter.increaseByOne("a", 0);
    counter.increaseBy("b", 0, 0);
    counter.generate(1);
    EXPECT_EQ(counter.chartRowLabels(), Labels{"a"});
    EXPECT_FLOAT_EQ(counter.chartValues()[0][0], 2147483647.0F);
}

TEST(EventStatistic, CopiesCountOnTheirOwn) {
    EventByMonth counter;
    counter.increaseByOneOnlyOnceInMonth(3, 2021, "anna", 0);
    EventByMonth copy = counter;
    copy.increaseByOneOnlyOnceInMonth(3, 2021, "anna", 0);
    copy.increaseByOneOnlyOnceInMonth(3, 2021, "bert", 0);
    EventByMonth moved = std::move(copy);
    counter.generate(1);
    moved.generate(1);
    EXPECT_EQ(counter.chartValues(), (Values{{1}}));
    EXPECT_EQ(moved.chartValues(), (Values{{2}}));
}

TEST(EventStatistic, NamesItsClassesAndHasNoVirtualDestructor) {
    EXPECT_STREQ(EventByMonth::getStaticClassName(), "EventByMonth");
    EXPECT_STREQ(EventByCategory::getStaticClassName(), "EventByCategory");
    EXPECT_FALSE(std::has_virtual_destructor_v<EventStatistic>);
    EXPECT_FALSE(std::has_virtual_destructor_v<EventByMonth>);
}

}  // namespace
}  // namespace qel
