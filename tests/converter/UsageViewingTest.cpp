#include "converter/ReportFixture.h"

namespace qel::test {
namespace {

using ViewingCharts = ReportTest;

const std::string perMonth = "Series and Studies viewed per month";
const std::string perUser = "Series and Studies viewed per user";
const std::string perGroup = "Series and Studies viewed per group";
const std::string perUserPerMonth = "Series and Studies viewed per user per month";

TEST_F(ViewingCharts, AccessWithLessThanTwoParametersCountsNowhere) {
    audit("3/7/2021", "anna", "DataAccess");
    audit("3/7/2021", "anna", "DataAccess;1.2");
    report();
    EXPECT_EQ(chartsShown(), 0);
    audit("3/7/2021", "anna", "DataAccess;1.2;1.3;more;and more");
    audit("3/7/2021", "anna", "DataAccess;;");
    report();
    EXPECT_EQ(chart(perMonth), "March 2021: 2 2");
}

TEST_F(ViewingCharts, TheSameSeriesCountsOnceADay) {
    member("anna", {"radiology", "surgery"});
    for (int i = 0; i < 3; ++i)
        audit("3/7/2021", "anna", "DataAccess;1.2;1.3");
    report();
    EXPECT_EQ(chart(perMonth), "March 2021: 1 1");
    EXPECT_EQ(chart(perUser), "anna: 1 1");
    EXPECT_EQ(chart(perGroup), "radiology: 1 1 | surgery: 1 1");
    EXPECT_EQ(chart(perUserPerMonth), "March 2021: 1");
    audit("3/8/2021", "anna", "DataAccess;1.2;1.3");
    report();
    EXPECT_EQ(chart(perMonth), "March 2021: 2 2");
    EXPECT_EQ(chart(perUser), "anna: 2 2");
    EXPECT_EQ(chart(perGroup), "radiology: 2 2 | surgery: 2 2");
    EXPECT_EQ(chart(perUserPerMonth), "March 2021: 2");
}

TEST_F(ViewingCharts, UserAndGroupChartsKnowOnlyTheDayNumber) {
    member("anna", {"radiology"});
    audit("1/5/2021", "anna", "DataAccess;1.2;1.3");
    audit("2/5/2021", "anna", "DataAccess;1.2;1.3");
    report();
    EXPECT_EQ(chart(perUser), "anna: 1 1");
    EXPECT_EQ(chart(perGroup), "radiology: 1 1");
    EXPECT_EQ(chart(perMonth), "January 2021: 1 1 | February 2021: 1 1");
    EXPECT_EQ(chart(perUserPerMonth), "January 2021: 1 | February 2021: 1");
    audit("1/6/2021", "anna", "DataAccess;1.2;1.3");
    report();
    EXPECT_EQ(chart(perUser), "anna: 2 2");
}

TEST_F(ViewingCharts, ParameterOneIsTheSeriesAndZeroTheStudy) {
    audit("3/7/2021", "anna", "DataAccess;1.2;1.3");
    audit("3/7/2021", "anna", "DataAccess;1.2;1.4");
    report();
    EXPECT_EQ(keys(perMonth), "[\"Series\",\"Studies\"]");
    EXPECT_EQ(chart(perMonth), "March 2021: 2 1");
    EXPECT_EQ(chart(perUserPerMonth), "March 2021: 2");
}

TEST_F(ViewingCharts, AUserWithoutGroupIsMissingOnlyInTheGroupChart) {
    audit("3/7/2021", "anna", "DataAccess;1.2;1.3");
    report();
    EXPECT_TRUE(isShown(perMonth));
    EXPECT_TRUE(isShown(perUser));
    EXPECT_TRUE(isShown(perUserPerMonth));
    EXPECT_FALSE(isShown(perGroup));
}

TEST_F(ViewingCharts, WeblinkRecipientsViewUnderOneName) {
    member("Weblink", {"guests"});
    audit("3/7/2021", "invite-1", "DataAccess;1.2;1.3");
    audit("3/7/2021", "invite-2", "DataAccess;1.2;1.3");
    report();
    EXPECT_EQ(chart(perMonth), "March 2021: 1 1");
    EXPECT_EQ(chart(perUser), "Weblink: 1 1");
    EXPECT_EQ(chart(perGroup), "guests: 1 1");
    EXPECT_EQ(keys(perUserPerMonth), "[\"Weblink\"]");
}

TEST_F(ViewingCharts, ViewingUsersComeByFirstAccess) {
    for (const char* user : {"zoe", "anna", "zoe", "bert"})
        audit("3/7/2021", user, "DataAccess;1.2;1.3");
    report();
    EXPECT_EQ(keys(perUserPerMonth), "[\"zoe\",\"anna\",\"bert\"]");
    EXPECT_EQ(chart(perUserPerMonth), "March 2021: 1 1 1");
}

TEST_F(ViewingCharts, JoinedKeysThatAreEqualCountOnce) {
    // a-1 on day 2 with x, and a on day 1 with 2-x, both join to a-1-2-x.
    audit("3/2/2021", "a-1", "DataAccess;s;x");
    audit("3/1/2021", "a", "DataAccess;t;2-x");
    report();
    EXPECT_EQ(chart(perMonth), "March 2021: 1 2");
    EXPECT_EQ(chart(perUserPerMonth), "March 2021: 1 1");
    EXPECT_EQ(chart(perUser), "a: 1 1 | a-1: 1 1");
}

TEST_F(ViewingCharts, JoinedKeysCollideInTheOtherOrderToo) {
    audit("3/1/2021", "a", "DataAccess;t;2-x");
    audit("3/2/2021", "a-1", "DataAccess;s;x");
    report();
    EXPECT_EQ(chart(perMonth), "March 2021: 1 2");
    EXPECT_EQ(chart(perUserPerMonth), "March 2021: 1 1");
}

TEST_F(ViewingCharts, GroupAndUserMayJoinToOneKey) {
    member("c", {"a-b"});
    member("b-c", {"a"});
    audit("3/1/2021", "c", "DataAccess;1.2;1.3");
    audit("3/1/2021", "b-c", "DataAccess;1.2;1.3");
    report();
    EXPECT_EQ(chart(perGroup), "a-b: 1 1");
}

TEST_F(ViewingCharts, ANegativeDayMayJoinToADayOfAnotherUser) {
    audit("3/-5/2021", "a", "DataAccess;1.2;1.3");
    audit("3/5/2021", "a-", "DataAccess;1.2;1.3");
    report();
    EXPECT_EQ(chart(perMonth), "March 2021: 1 1");
}

TEST_F(ViewingCharts, ViewingEventsCountEveryTime) {
    for (const char* event : {"SeriesOpened", "SeriesOpened", "ViewPreviousSeries", "ViewNextSeries",
                              "seriesopened", "SeriesOpened ;", "ViewSeries"})
        interaction("3/7/2021", "anna", event);
    interaction("3/7/2021", "invite-1", "SeriesOpened");
    report();
    EXPECT_EQ(chart("Series viewed per month"), "March 2021: 5");
}

TEST_F(ViewingCharts, QueriesCountEveryTime) {
    interaction("3/7/2021", "anna", "ApplicationPacsSearch");
    interaction("3/7/2021", "invite-1", "ApplicationPacsSearch;x");
    report();
    EXPECT_EQ(chart("Queries per month"), "March 2021: 2");
}

TEST_F(ViewingCharts, RetrievesKnowExactlySeriesAndStudy) {
    for (const char* event : {"QRRetrieve;Series", "QRRetrieve;Series", "QRRetrieve;Study",
                              "QRRetrieve;series", "QRRetrieve;Studies", "QRRetrieve;", "QRRetrieve"})
        interaction("3/7/2021", "anna", event);
    report();
    EXPECT_EQ(chart("Series and Studies retrieved per month"), "March 2021: 2 1");
}

TEST_F(ViewingCharts, EachLogFeedsItsOwnCharts) {
    audit("3/7/2021", "anna", "SeriesOpened");
    interaction("3/7/2021", "anna", "DataAccess;1.2;1.3");
    report();
    EXPECT_FALSE(isShown("Series viewed per month"));
    EXPECT_FALSE(isShown(perMonth));
}

}  // namespace
}  // namespace qel::test
