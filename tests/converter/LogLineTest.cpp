#include "converter/LogLine.h"

#include <gtest/gtest.h>

#include <limits>

#include "converter/LineView.h"
#include "qelCore/GregorianDate.h"

namespace qel {
namespace {

using Params = Vector<String>;

LogLine dated(const std::string& time) {
    return LogLine(String(time + ";anna;WS1;Event"));
}

TEST(LogLine, FourFieldsOfAWeblinkRecipient) {
    const LogLine line("3/7/2021 14:05:09;invite-4711;WS1;SeriesOpened");
    EXPECT_TRUE(line.parsed);
    EXPECT_TRUE(line.dateValid);
    EXPECT_EQ(line.timeText, "3/7/2021 14:05:09");
    EXPECT_EQ(line.month, 3);
    EXPECT_EQ(line.day, 7);
    EXPECT_EQ(line.year, 2021);
    EXPECT_EQ(line.hour, 14);
    EXPECT_EQ(line.minute, 5);
    EXPECT_EQ(line.second, 9);
    EXPECT_EQ(line.user, "invite-4711");
    EXPECT_EQ(line.reportUser, "Weblink");
    EXPECT_EQ(line.device, "WS1");
    EXPECT_EQ(line.event, "SeriesOpened");
    EXPECT_TRUE(line.params.empty());
}

TEST(LogLine, OnlyTheLowerCasePrefixMakesAWeblink) {
    for (const char* user : {"Invite-x", "my-invite-x", "invite", "anna"})
        EXPECT_EQ(LogLine(String("3/7/2021 14:05:09;") + user + ";WS1;E").reportUser, user);
    EXPECT_EQ(LogLine("3/7/2021 14:05:09;invite-;WS1;E").reportUser, "Weblink");
}

TEST(LogLine, AnExportedLineHasEightParametersEmptyOnesIncluded) {
    const LogLine line("03/07/2021 14:05:09;anna;WS1;DataAccess;1.2;1.3;;;;;;\r");
    EXPECT_EQ(line.params, (Params{"1.2", "1.3", "", "", "", "", "", ""}));
}

TEST(LogLine, FewerThanFourFieldsAreKeptAsPieces) {
    const LogLine line(" a;b;c \r");
    EXPECT_FALSE(line.parsed);
    EXPECT_FALSE(line.dateValid);
    EXPECT_TRUE(line.user.empty());
    EXPECT_EQ(line.params, (Params{"a", "b", "c"}));
    EXPECT_FALSE(LogLine("").parsed);
    EXPECT_FALSE(LogLine("\r").parsed);
}

TEST(LogLine, OnlyTheEndsOfTheWholeLineAreTrimmed) {
    const LogLine line(" \t3/7/2021 14:05:09; anna ;WS1; E ;\t\r\n ");
    EXPECT_EQ(line.timeText, "3/7/2021 14:05:09");
    EXPECT_EQ(line.user, " anna ");
    EXPECT_EQ(line.event, " E ");
    EXPECT_EQ(line.params, Params{""});
}

TEST(LogLine, TheThirteenthMonthIsParsedButNoValidDate) {
    const LogLine line = dated("13/01/2021 10:00:00");
    EXPECT_TRUE(line.parsed);
    EXPECT_FALSE(line.dateValid);
    EXPECT_EQ(line.month, 13);
    EXPECT_FALSE(dated("0/01/2021 10:00:00").dateValid);
}

TEST(LogLine, YearsFrom1900To2100AreValid) {
    EXPECT_FALSE(dated("1/1/1899 0:0:0").dateValid);
    EXPECT_TRUE(dated("1/1/1900 0:0:0").dateValid);
    EXPECT_TRUE(dated("12/31/2100 23:59:59").dateValid);
    EXPECT_FALSE(dated("1/1/2101 0:0:0").dateValid);
}

TEST(LogLine, TextThatIsNoTimeLeavesZeros) {
    const LogLine line = dated("yesterday");
    EXPECT_TRUE(line.parsed);
    EXPECT_FALSE(line.dateValid);
    EXPECT_EQ(line.month, 0);
    EXPECT_EQ(dated("3/7").day, 7);
    EXPECT_EQ(dated("3/7").year, 0);
    EXPECT_EQ(dated("3 /7/2021").day, 0);
    EXPECT_EQ(dated("3/7/2021 14-05").hour, 14);
    EXPECT_EQ(dated("3/7/2021 14-05").minute, 0);
}

TEST(LogLine, TimesFollowTheGrammarOfScanf) {
    const LogLine line = dated("+3/ 7/\t2021   14: +5: 9 and more");
    EXPECT_TRUE(line.dateValid);
    EXPECT_EQ(line.day, 7);
    EXPECT_EQ(line.hour, 14);
    EXPECT_EQ(line.minute, 5);
    EXPECT_EQ(line.second, 9);
    EXPECT_EQ(dated("3/-7/2021 1:1:1").day, -7);
    EXPECT_EQ(dated("3/7/202114:05:09").year, 202114);
}

TEST(LogLine, NumbersBeyondAnIntSaturate) {
    constexpr int greatest = std::numeric_limits<int>::max();
    constexpr int least = std::numeric_limits<int>::min();
    const LogLine line = dated("3/99999999999999999999999/2021 -99999999999:2147483647:-2147483648");
    EXPECT_EQ(line.day, greatest);
    EXPECT_EQ(line.hour, least);
    EXPECT_EQ(line.minute, greatest);
    EXPECT_EQ(line.second, least);
    EXPECT_TRUE(line.dateValid);
    EXPECT_EQ(dated("99999999999/1/2021 1:1:1").month, greatest);
}

TEST(LogLine, TimeIsReadAsGermanLocalTime) {
    EXPECT_EQ(dated("7/1/2021 14:00:00").time, GregorianDate(2021, 7, 1, 12).asUTCDateTime());
    EXPECT_EQ(dated("1/1/2021 14:00:00").time, GregorianDate(2021, 1, 1, 13).asUTCDateTime());
    EXPECT_EQ(dated("3/28/2021 2:30:00").time, GregorianDate(2021, 3, 28, 1, 30).asUTCDateTime());
    EXPECT_EQ(dated("10/31/2021 2:30:00").time, GregorianDate(2021, 10, 31, 0, 30).asUTCDateTime());
}

TEST(LogLine, FieldsEndAtTheirFirstZeroByte) {
    using namespace std::string_literals;
    const LogLine line(String("3/7/2021 1:1:1;an\0na;W\0S;E\0;p\0q;r"s));
    EXPECT_EQ(line.user, "an");
    EXPECT_EQ(line.device, "W");
    EXPECT_EQ(line.event, "E");
    EXPECT_EQ(line.params, (Params{"p", "r"}));
}

TEST(LineView, ParametersAreFoundByIndexAndMissingOnesAreNull) {
    const LineView line("t;u;d;e;a;;c");
    EXPECT_EQ(line.param(0), "a");
    EXPECT_EQ(line.param(1), "");
    EXPECT_NE(line.param(1).data(), nullptr);
    EXPECT_EQ(line.param(2), "c");
    EXPECT_TRUE(line.hasParam(2));
    EXPECT_FALSE(line.hasParam(3));
    EXPECT_FALSE(LineView("t;u;d;e").hasParam(0));
    EXPECT_TRUE(LineView("t;u;d;e;").hasParam(0));
    EXPECT_FALSE(LineView("t;u;d;e;").hasParam(1));
}

}  // namespace
}  // namespace qel
