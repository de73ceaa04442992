#include "converter/ReportFixture.h"
#include "converter/UsageCharts.h"

namespace qel::test {
namespace {

using UsageReport = ReportTest;

TEST_F(UsageReport, WithoutAnyLineItHasHeaderAndFooterOnly) {
    report(true);
    EXPECT_EQ(chartsShown(), 0);
    EXPECT_EQ(count("Tembra usage statistics"), 3);
    EXPECT_EQ(count("01 Jan 1970 00:00 - 01 Jan 1970 00:00</br> server"), 1);
    EXPECT_EQ(count("</body>"), 1);
}

TEST_F(UsageReport, StartAfterEndIsShownAsItIs) {
    converter_.performUsageReport(folder_.path().c_str(), 86'400'000'000, 0, "", false);
    const std::string page = TemporaryFolder::read(folder_ / "usage_report.html");
    EXPECT_NE(page.find("02 Jan 1970 00:00 - 01 Jan 1970 00:00"), std::string::npos);
}

TEST_F(UsageReport, ChartsComeInTheirOrder) {
    const char* titles[] = {"Active users per month",
                            "Active users in group per month",
                            "Active weblink users per month",
                            "Active users",
                            "Series viewed per month",
                            "Series and Studies viewed per month",
                            "Series and Studies viewed per user",
                            "Series and Studies viewed per group",
                            "Series and Studies viewed per user per month",
                            "Series shared per month",
                            "Studies shared per month",
                            "Queries per month",
                            "Series and Studies retrieved per month",
                            "Chat messages written per month",
                            "Photodocs performed per month",
                            "Photodocs performed per user per month",
                            "Assigned photos per photodoc per month",
                            "Photodoc tagging used per month",
                            "Photodoc photos viewed per month"};
    ASSERT_EQ(usageCharts().size(), std::size(titles));
    for (std::size_t i = 0; i < std::size(titles); ++i) {
        EXPECT_STREQ(usageCharts()[i].title, titles[i]);
        EXPECT_EQ(usageCharts()[i].onlyWithDetails, i >= 16);
    }
}

TEST_F(UsageReport, HoldsSixteenChartsAndNineteenWithDetails) {
    member("anna", {"radiology"});
    interaction("3/7/2021", "invite-1", "SeriesOpened");
    for (const char* event :
         {"SeriesOpened", "ApplicationPacsSearch", "QRRetrieve;Series", "ChatSendMessage;r;Text",
          "PDConfirmDone", "PDReviewAssignPhotos;1", "PDReviewOpenView", "PDTaggingUsed"})
        interaction("3/7/2021", "anna", event);
    audit("3/7/2021", "anna", "DataAccess;1.2;1.3");
    audit("3/7/2021", "anna", "DataShare;1.2;x;contact");
    report(false);
    EXPECT_EQ(chartsShown(), 16);
    report(true);
    EXPECT_EQ(chartsShown(), 19);
    EXPECT_EQ(count("var numCols = 5\n"), 19);
}

TEST_F(UsageReport, WeblinkRecipientsCountOnlyInTheirOwnChart) {
    interaction("3/7/2021", "invite-1", "SeriesOpened");
    interaction("3/8/2021", "invite-1", "SeriesOpened");
    interaction("3/8/2021", "invite-2", "SeriesOpened");
    interaction("4/8/2021", "invite-1", "SeriesOpened");
    report();
    EXPECT_EQ(chart("Active weblink users per month"), "March 2021: 2 | April 2021: 1");
    EXPECT_FALSE(isShown("Active users per month"));
    EXPECT_FALSE(isShown("Active users in group per month"));
    EXPECT_FALSE(isShown("Active users"));
    EXPECT_EQ(chart("Series viewed per month"), "March 2021: 3 | April 2021: 1");
}

TEST_F(UsageReport, AUserNamedWeblinkCountsAsAWeblinkRecipient) {
    interaction("3/7/2021", "Weblink", "x");
    interaction("3/7/2021", "invite-1", "x");
    report();
    EXPECT_EQ(chart("Active weblink users per month"), "March 2021: 2");
    EXPECT_FALSE(isShown("Active users per month"));
}

TEST_F(UsageReport, NamesThatOnlyLookLikeWeblinkAreNamedUsers) {
    interaction("3/7/2021", "Invite-x", "x");
    interaction("3/7/2021", "my-invite-x", "x");
    interaction("3/7/2021", "weblink", "x");
    report();
    EXPECT_EQ(chart("Active users per month"), "March 2021: 3");
}

TEST_F(UsageReport, DaysOfActivityAddUpOverTheWholePeriod) {
    for (const char* date : {"3/7/2021", "3/8/2021", "3/8/2021", "3/9/2021", "4/7/2021", "4/8/2021"})
        interaction(date, "anna", "x");
    report();
    EXPECT_EQ(chart("Active users"), "anna: 5");
    EXPECT_EQ(keys("Active users"), "[\"Days active\"]");
    EXPECT_EQ(chart("Active users per month"), "March 2021: 1 | April 2021: 1");
}

TEST_F(UsageReport, DayKeysTellMonthAndDayApart) {
    interaction("12/1/2021", "anna", "x");
    interaction("1/21/2021", "anna", "x");
    interaction("1/12/2021", "anna", "x");
    report();
    EXPECT_EQ(chart("Active users"), "anna: 3");
}

TEST_F(UsageReport, UsersWhoseNamesEndLikeADayKeyCountApart) {
    for (const char* user : {"anna", "anna-3", "anna-3-2021"})
        for (const char* date : {"3/5/2021", "3/-5/2021", "5/3/2021"})
            interaction(date, user, "x");
    report();
    EXPECT_EQ(chart("Active users"), "anna: 3 | anna-3: 3 | anna-3-2021: 3");
}

TEST_F(UsageReport, UsersComeInTheOrderOfTheirBytes) {
    for (const char* user : {"b", "B", "a", ""})
        interaction("3/7/2021", user, "x");
    report();
    EXPECT_EQ(chart("Active users"), ": 1 | B: 1 | a: 1 | b: 1");
}

TEST_F(UsageReport, AUserOfTwoGroupsCountsOnceAMonthInEach) {
    member("anna", {"radiology", "surgery"});
    member("bert", {"surgery"});
    interaction("3/7/2021", "anna", "x");
    interaction("3/8/2021", "anna", "x");
    interaction("3/8/2021", "bert", "x");
    interaction("4/8/2021", "bert", "x");
    report();
    EXPECT_EQ(keys("Active users in group per month"), "[\"radiology\",\"surgery\"]");
    EXPECT_EQ(chart("Active users in group per month"), "March 2021: 1 2 | April 2021: 0 1");
}

TEST_F(UsageReport, NoGroupTakesItsPlaceWhereItIsFirstNeeded) {
    member("anna", {"radiology"});
    member("carl", {"surgery"});
    interaction("3/7/2021", "anna", "x");
    interaction("3/7/2021", "bert", "x");
    interaction("3/7/2021", "carl", "x");
    report();
    EXPECT_EQ(keys("Active users in group per month"), "[\"radiology\",\"No group\",\"surgery\"]");
    EXPECT_EQ(chart("Active users in group per month"), "March 2021: 1 1 1");
}

TEST_F(UsageReport, ARealGroupNamedNoGroupSharesTheBar) {
    member("anna", {"No group"});
    interaction("3/7/2021", "anna", "x");
    interaction("3/7/2021", "bert", "x");
    audit("3/7/2021", "anna", "DataAccess;1.2;1.3");
    audit("3/7/2021", "bert", "DataAccess;1.2;1.3");
    report();
    EXPECT_EQ(keys("Active users in group per month"), "[\"No group\"]");
    EXPECT_EQ(chart("Active users in group per month"), "March 2021: 2");
    EXPECT_EQ(chart("Series and Studies viewed per group"), "No group: 1 1");
}

TEST_F(UsageReport, AGroupNamedTwiceCountsOnce) {
    member("anna", {"radiology", "radiology"});
    interaction("3/7/2021", "anna", "x");
    audit("3/7/2021", "anna", "DataAccess;1.2;1.3");
    report();
    EXPECT_EQ(chart("Active users in group per month"), "March 2021: 1");
    EXPECT_EQ(chart("Series and Studies viewed per group"), "radiology: 1 1");
}

TEST_F(UsageReport, GroupsAreAskedOncePerNameInBothLogsTogether) {
    for (int i = 0; i < 3; ++i) {
        interaction("3/7/2021", "anna", "x");
        interaction("13/7/2021", "undated", "x");
        interaction("3/7/2021", "invite-" + std::to_string(i), "x");
        audit("3/7/2021", "anna", "x");
        audit("3/7/2021", "bert", "x");
    }
    report();
    const std::map<std::string, int> once = {
        {"anna", 1}, {"undated", 1}, {"Weblink", 1}, {"bert", 1}, {"", 1}};
    EXPECT_EQ(asked_, once);  // the empty name belongs to the piece behind the last line end
    report();
    EXPECT_EQ(asked_["anna"], 2);
}

TEST_F(UsageReport, AShortLineCountsNowhereButItsEmptyNameIsLookedUp) {
    interaction_ += "3/7/2021 10:00:00;anna;WS1\n";
    interaction_.pop_back();
    report();
    EXPECT_EQ(chartsShown(), 0);
    EXPECT_EQ(asked_, (std::map<std::string, int>{{"", 1}}));
}

TEST_F(UsageReport, TheEmptyNameOfShortLinesIsLookedUpOnceInEitherLog) {
    const std::string shortLine = "3/7/2021 10:00:00;anna;WS1";
    const std::pair<std::string, std::string> logs[] = {
        {shortLine, ""}, {"", shortLine}, {shortLine + '\n' + shortLine, shortLine + '\n' + shortLine}};
    for (const auto& [interactions, audits] : logs) {
        asked_.clear();
        interaction_ = interactions.empty() ? "" : header + interactions;
        audit_ = audits.empty() ? "" : header + audits;
        report();
        EXPECT_EQ(asked_, (std::map<std::string, int>{{"", 1}}));
    }
}

TEST_F(UsageReport, ImplausibleDatesCountNowhere) {
    for (const char* date : {"13/1/2021", "0/1/2021", "1/1/1899", "1/1/2101", "x"})
        interaction(date, "anna", "SeriesOpened");
    interaction("2/31/2021", "anna", "SeriesOpened");
    report();
    EXPECT_EQ(chart("Series viewed per month"), "February 2021: 1");
}

TEST_F(UsageReport, BothLineEndsGiveTheSameReport) {
    interaction("3/7/2021", "anna", "QRRetrieve;Series");
    interaction("3/7/2021", "anna", "PDConfirmDone");
    report();
    const std::string withCarriageReturns = page();
    std::string text = interaction_;
    for (std::size_t at = text.find('\r'); at != std::string::npos; at = text.find('\r'))
        text.erase(at, 1);
    interaction_ = text;
    report();
    EXPECT_EQ(page().substr(0, page().find("END for charts")),
              withCarriageReturns.substr(0, withCarriageReturns.find("END for charts")));
}

TEST_F(UsageReport, AnUnconnectedConverterKnowsNoGroups) {
    AuditCSVtoHtmlReportConverter converter;
    converter.setLogs(header + std::string("3/7/2021 1:1:1;anna;WS;x\r\n"), "");
    converter.performUsageReport(folder_.path().c_str(), 0, 0, "", false);
    const std::string page = TemporaryFolder::read(folder_ / "usage_report.html");
    EXPECT_NE(page.find("var keys = [\"No group\"];"), std::string::npos);
}

TEST_F(UsageReport, ThePageIsWrittenBeforeTheResourceFiles) {
    report();
    const std::vector<std::string> errors = log_.texts(3);
    ASSERT_EQ(errors.size(), 3u);
    EXPECT_TRUE(std::filesystem::exists(folder_ / "usage_report.html"));
    converter_.performUsageReport((folder_ / "missing").c_str(), 0, 0, "", false);
    EXPECT_EQ(log_.texts(3).size(), 6u);
}

}  // namespace
}  // namespace qel::test
