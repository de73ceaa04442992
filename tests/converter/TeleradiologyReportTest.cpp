#include "converter/ReportFixture.h"

namespace qel::test {
namespace {

using TeleradiologyReport = ReportTest;

const std::string checkHeader =
    "[\"Day\",\"Tester\",\"Line pair grid in center and corners\",\"5% and 95% fields\","
    "\"QUALITY CONTRO((L) white and gray)\",\"Centering, borders and lines of the grid\",\"Gradient\","
    "\"passed/failed\"]";

/// The cells of a daily check as they stand in the page.
std::string check(const std::vector<std::string>& cells) {
    const char* columns[] = {"Day",
                             "Tester",
                             "Line pair grid in center and corners",
                             "5% and 95% fields",
                             "QUALITY CONTRO((L) white and gray)",
                             "Centering, borders and lines of the grid",
                             "Gradient",
                             "passed/failed"};
    std::string row;
    for (std::size_t i = 0; i < cells.size(); ++i)
        row += std::string(i ? "," : "") + "\"" + columns[i] + "\":\"" + cells[i] + "\"";
    return "[{" + row + "}]";
}

TEST_F(TeleradiologyReport, DailyChecksBecomeMarks) {
    audit("7/5/2021", "anna", "DailyConstancyCheck;1;;1;0;passed;failed");
    teleradiologyReport();
    EXPECT_EQ(table("Daily constancy check"),
              check({"05 Jul 2021 08:00", "anna", "\u2713", "\u2717", "\u2713", "0", "\u2705", "\u274c"}));
    EXPECT_EQ(count(checkHeader), 1);
}

TEST_F(TeleradiologyReport, MissingParametersAreEmptyCellsButEmptyOnesCrosses) {
    audit("7/5/2021", "anna", "DailyConstancyCheck;1;");
    teleradiologyReport();
    EXPECT_EQ(table("Daily constancy check"),
              check({"05 Jul 2021 08:00", "anna", "\u2713", "\u2717", "", "", "", ""}));
}

TEST_F(TeleradiologyReport, MarksCompareExactly) {
    audit("7/5/2021", "anna", "DailyConstancyCheck;Passed; 1;01;FAILED;2;ok");
    teleradiologyReport();
    EXPECT_EQ(table("Daily constancy check"),
              check({"05 Jul 2021 08:00", "anna", "Passed", " 1", "01", "FAILED", "2", "ok"}));
}

TEST_F(TeleradiologyReport, LuxAndSpeedCellsStayAsTheyAre) {
    audit("1/5/2021", "anna", "ConstancyLuxMeter;412;2");
    audit("1/5/2021", "invite-7", "ConstancyLuxMeter;1");
    audit("1/5/2021", "anna", "ConstancySpeedTest;Quick;12.5");
    teleradiologyReport();
    EXPECT_EQ(table("Lux Meter"),
              "[{\"Date\":\"05 Jan 2021 09:00\",\"Tester\":\"anna\",\"Lux\":\"412\",\"Room class\":\"2\"},"
              "{\"Date\":\"05 Jan 2021 09:00\",\"Tester\":\"Weblink\",\"Lux\":\"1\",\"Room class\":\"\"}]");
    EXPECT_EQ(table("Download speed test"),
              "[{\"Date\":\"05 Jan 2021 09:00\",\"Tester\":\"anna\",\"Quick/Detailed\":\"Quick\","
              "\"Duration (s)\":\"12.5\"}]");
}

TEST_F(TeleradiologyReport, RowDatesAreUtcAcrossSummerTime) {
    audit_ +=
        "03/28/2021 01:30:00;anna;WS;ConstancyLuxMeter;1;1\n03/28/2021 "
        "02:30:00;anna;WS;ConstancyLuxMeter;1;1\n";
    audit_ += "10/31/2021 02:30:00;anna;WS;ConstancyLuxMeter;1;1\n";
    teleradiologyReport();
    const std::string rows = table("Lux Meter");
    EXPECT_NE(rows.find("28 Mar 2021 00:30"), std::string::npos);
    EXPECT_NE(rows.find("28 Mar 2021 01:30"), std::string::npos);
    EXPECT_NE(rows.find("31 Oct 2021 00:30"), std::string::npos);
}

TEST_F(TeleradiologyReport, ImplausibleDatesAreLeftOut) {
    for (const char* date : {"13/1/2021", "1/1/1899", "1/1/2101", "x"})
        for (const char* event : {"DailyConstancyCheck;1", "ConstancyLuxMeter;1", "ConstancySpeedTest;1"})
            audit(date, "anna", event);
    teleradiologyReport();
    EXPECT_EQ(count("<div id=\"table-"), 0);
}

TEST_F(TeleradiologyReport, EventNamesCompareExactly) {
    audit("1/5/2021", "anna", "dailyconstancycheck;1");
    audit("1/5/2021", "anna", "ConstancyLuxMeter2;1");
    teleradiologyReport();
    EXPECT_EQ(count("<div id=\"table-"), 0);
}

TEST_F(TeleradiologyReport, LinesOutsideThePeriodAreListed) {
    audit("1/5/2021", "anna", "ConstancyLuxMeter;1;1");
    teleradiologyReport();
    EXPECT_EQ(count("01 Jan 1970 00:00 - 01 Jan 1970 00:00</br> server"), 1);
    EXPECT_EQ(count("05 Jan 2021 09:00"), 1);
}

TEST_F(TeleradiologyReport, ReadsOnlyTheAuditLogInItsOrder) {
    interaction("1/5/2021", "anna", "ConstancyLuxMeter;1;1");
    audit("2/5/2021", "bert", "ConstancyLuxMeter;2;1");
    audit("1/5/2021", "carl", "ConstancyLuxMeter;2;1");
    audit("1/5/2021", "carl", "ConstancyLuxMeter;2;1");
    teleradiologyReport();
    const std::string rows = table("Lux Meter");
    EXPECT_EQ(rows.find("anna"), std::string::npos);
    EXPECT_LT(rows.find("bert"), rows.find("carl"));
    EXPECT_EQ(count("\"carl\""), 2);
}

TEST_F(TeleradiologyReport, TablesComeInTheirOrderWithTheirDescriptions) {
    audit("1/5/2021", "anna", "ConstancySpeedTest;Quick;1");
    audit("1/5/2021", "anna", "ConstancyLuxMeter;1;1");
    audit("1/5/2021", "anna", "DailyConstancyCheck;1");
    teleradiologyReport();
    EXPECT_LT(page().find("<h2>Daily constancy check</h2>"), page().find("<h2>Lux Meter</h2>"));
    EXPECT_LT(page().find("<h2>Lux Meter</h2>"), page().find("<h2>Download speed test</h2>"));
    EXPECT_EQ(count("Quick downloads a 10% of the dataset and extrapolates the duration while"), 1);
    EXPECT_EQ(count("Tembra teleradiology report"), 3);
    EXPECT_EQ(log_.count("generating table for: "), 3);
}

TEST_F(TeleradiologyReport, WithoutLogsThePageHasNoTables) {
    converter_.performTeleradiologyReport(folder_.path().c_str(), 0, 0, "");
    const std::string page = TemporaryFolder::read(folder_ / "teleradiology_report.html");
    EXPECT_EQ(page.find("<div id=\"table-"), std::string::npos);
    EXPECT_NE(page.find("</body>"), std::string::npos);
}

}  // namespace
}  // namespace qel::test
