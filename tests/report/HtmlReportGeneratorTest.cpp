#include "auditing/HtmlReportGenerator.h"

#include <gtest/gtest.h>

#include <string>

#include "qelCore/logging/CaptureSink.h"
#include "report/Templates.h"

namespace qel {
namespace {

using templates::Part;

const std::string separator = templates::get(Part::separator).str();

class Generator : public HtmlReportGenerator {
  public:
    using HtmlReportGenerator::createArrayAsString;

    Generator() { begin("", "", ""); }

    void chart(const Vector<String>& keys, EventStatistic& statistic, const String& description = "") {
        addBarchart("Chart", keys, statistic, description, 5);
    }
    void chart() {
        EventByMonth statistic;
        statistic.increaseByOne(6, 2021, 0);
        chart({"Login"}, statistic);
    }
    void table(const Vector<Vector<String>>& rows) { addTable("Table", rows, ""); }
    void table() { table({{"Column"}, {"cell"}}); }
    /// What was added since `begin`.
    std::string body() {
        const std::string whole = end("", "").str();
        const std::size_t header = templates::get(Part::header).str().size() - 2 * 13 - 18 - 18;
        return whole.substr(header);
    }
};

int count(const std::string& text, const std::string& what) {
    int found = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size()))
        ++found;
    return found;
}

bool holds(const std::string& text, const std::string& what) {
    return text.find(what) != std::string::npos;
}

TEST(HtmlReportGenerator, NothingBetweenBeginAndEndGivesHeaderAndFooter) {
    HtmlReportGenerator page;
    page.begin("Title", "Period", "Server");
    const std::string text = page.end("Title", "Date").str();
    const std::string header = templates::get(Part::header)
                                   .replace_all("[[[[TITLE]]]]", "Title")
                                   .replace_all("[[[[TIMEPERIOD]]]]", "Period")
                                   .replace_all("[[[[SERVERNAME]]]]", "Server")
                                   .str();
    const std::string footer = templates::get(Part::footer)
                                   .replace_all("[[[[TITLE]]]]", "Title")
                                   .replace_all("[[[[CURRENTDATE]]]]", "Date")
                                   .str();
    EXPECT_EQ(text, header + footer);
    EXPECT_EQ(count(text, "Title"), 3);
}

TEST(HtmlReportGenerator, AChartAfterATableIsPrecededByTheSeparator) {
    Generator page;
    page.table();
    page.chart();
    EXPECT_EQ(count(page.body(), separator + "\n\t<div id=\"chart-0\">"), 1);
}

TEST(HtmlReportGenerator, ATableAfterAChartIsPrecededByTheSeparator) {
    Generator page;
    page.chart();
    page.table();
    EXPECT_EQ(count(page.body(), separator + "\n\t<div id=\"table-0\""), 1);
}

TEST(HtmlReportGenerator, DescriptionsNeitherGetNorCauseASeparator) {
    Generator page;
    page.addDescription("first");
    page.chart();
    page.addDescription("second");
    EXPECT_EQ(count(page.body(), separator), 0);
}

TEST(HtmlReportGenerator, ADescriptionInBetweenSavesNoSeparator) {
    Generator page;
    page.addDescription("first");
    page.chart();
    page.addDescription("second");
    page.chart();
    page.addDescription("third");
    page.table();
    const std::string body = page.body();
    EXPECT_EQ(count(body, separator), 2);
    EXPECT_EQ(count(body, separator + "\n\t<div id=\"chart-1\">"), 1);
    EXPECT_EQ(count(body, separator + "\n\t<div id=\"table-0\""), 1);
}

TEST(HtmlReportGenerator, ATableWithOnlyAHeaderRowAddsNothingAndUsesNoId) {
    Generator page;
    page.table({{"Column"}});
    page.table({});
    page.table();
    const std::string body = page.body();
    EXPECT_EQ(count(body, "<div id=\"table-0\""), 1);
    EXPECT_EQ(count(body, "<div id=\"table-"), 1);
    EXPECT_EQ(count(body, separator), 0);
}

TEST(HtmlReportGenerator, AChartWithoutLabelsAddsNothingAndUsesNoId) {
    Generator page;
    EventByMonth empty;
    page.chart({"Login"}, empty);
    EventByMonth unnamed;
    unnamed.increaseByOne(6, 2021, 0);
    page.chart({}, unnamed);
    page.chart();
    const std::string body = page.body();
    EXPECT_EQ(count(body, "<div id=\"chart-0\""), 1);
    EXPECT_EQ(count(body, "<div id=\"chart-"), 1);
    EXPECT_EQ(count(body, separator), 0);
}

TEST(HtmlReportGenerator, AKeyBecomesAMemberWithSixDecimals) {
    Generator page;
    EventByMonth statistic;
    for (int i = 0; i < 3; ++i)
        statistic.increaseByOne(6, 2021, 0);
    for (int i = 0; i < 2; ++i)
        statistic.increaseByOne(6, 2021, 1);
    page.chart({"Login", "Logout"}, statistic);
    const std::string body = page.body();
    EXPECT_TRUE(
        holds(body, "var data = [{ xLabel: \"June 2021\", \"Login\": 3.000000, \"Logout\": 2.000000}];"));
    EXPECT_TRUE(holds(body, "var keys = [\"Login\",\"Logout\"];"));
    EXPECT_TRUE(holds(body, "var numCols = 5\n"));
}

TEST(HtmlReportGenerator, IdsStandInEveryPlaceOfTheirTemplate) {
    Generator page;
    page.chart();
    page.chart();
    page.table();
    const std::string body = page.body();
    EXPECT_EQ(count(body, "<div id=\"chart-1\">"), 1);
    EXPECT_EQ(count(body, "d3.select(\"div#chart-1\")"), 2);
    EXPECT_EQ(count(body, "<div id=\"table-0\""), 1);
    EXPECT_EQ(count(body, "d3.select(\"div#table-0\")"), 1);
    EXPECT_EQ(count(body, "[[[["), 0);
}

TEST(HtmlReportGenerator, ItemsPerRowAreWrittenWithoutACheck) {
    for (const int items : {0, -3, 7}) {
        Generator page;
        EventByMonth statistic;
        statistic.increaseByOne(6, 2021, 0);
        page.addBarchart("Chart", {"Login"}, statistic, "", items);
        EXPECT_TRUE(holds(page.body(), "var numCols = " + std::to_string(items) + "\n"));
    }
}

TEST(HtmlReportGenerator, RowsAreJoinedByCommas) {
    Generator page;
    EventByCategory statistic;
    statistic.increaseByOne("a", 0);
    statistic.increaseByOne("b", 0);
    page.chart({"Days"}, statistic);
    EXPECT_TRUE(
        holds(page.body(), "[{ xLabel: \"a\", \"Days\": 1.000000},{ xLabel: \"b\", \"Days\": 1.000000}]"));
}

TEST(HtmlReportGenerator, TextsGoInUnescaped) {
    Generator page;
    EventByCategory statistic;
    statistic.increaseByOne("a\"b", 0);
    page.addBarchart("<i>Title</i>", {"k\"\\"}, statistic, "", 5);
    page.begin("<b>", "&", "\"");
    page.addBarchart("<i>Title</i>", {"k\"\\"}, statistic, "", 5);
    const std::string text = page.end("<b>", "<u>").str();
    EXPECT_TRUE(holds(text, "<title><b></title>"));
    EXPECT_TRUE(holds(text, "<h2><i>Title</i></h2>"));
    EXPECT_TRUE(holds(text, "{ xLabel: \"a\"b\", \"k\"\\\": 1.000000}"));
    EXPECT_TRUE(holds(text, "<b> | <u> | Zorvik"));
}

TEST(HtmlReportGenerator, UserTextIsNeverAPattern) {
    Generator page;
    EventByCategory statistic;
    statistic.increaseByOne("%s%n%d", 0);
    page.chart({"%f"}, statistic);
    EXPECT_TRUE(holds(page.body(), "{ xLabel: \"%s%n%d\", \"%f\": 1.000000}"));
}

TEST(HtmlReportGenerator, ATextWithItsOwnPlaceholderStaysAsItIs) {
    HtmlReportGenerator page;
    page.begin("[[[[TITLE]]]]", "", "");
    EXPECT_TRUE(holds(page.end("", "").str(), "<title>[[[[TITLE]]]]</title>"));
}

TEST(HtmlReportGenerator, ATextWithALaterPlaceholderIsFilledByTheLaterStep) {
    HtmlReportGenerator page;
    page.begin("[[[[SERVERNAME]]]]", "", "here");
    EXPECT_TRUE(holds(page.end("", "").str(), "<title>here</title>"));
}

TEST(HtmlReportGenerator, TableRowsFollowTheHeader) {
    Generator page;
    page.table({{"A", "B"}, {"1", "2", "beyond"}, {"3"}});
    EXPECT_TRUE(holds(page.body(), "var tableHeader = [\"A\",\"B\"];"));
    EXPECT_TRUE(
        holds(page.body(), "var tableContent = [{\"A\":\"1\",\"B\":\"2\"},{\"A\":\"3\",\"B\":\"\"}];"));
}

TEST(HtmlReportGenerator, DescriptionStandsBelowItsChart) {
    Generator page;
    EventByMonth statistic;
    statistic.increaseByOne(6, 2021, 0);
    page.chart({"Login"}, statistic, "about it<br>");
    EXPECT_TRUE(holds(page.body(), "</div>\n\n\t<p>about it<br></p>\n"));
}

TEST(HtmlReportGenerator, MoreSeriesThanKeysReadsNothingOutOfRange) {
    Generator page;
    EventByCategory statistic;
    statistic.increaseByOne("a", 3);
    page.chart({"one", "two"}, statistic);
    EXPECT_TRUE(holds(page.body(), "[{ xLabel: \"a\", \"one\": 0.000000, \"two\": 0.000000}]"));
}

/// A statistic of a host that forgets values.
class Ragged : public EventStatistic {
  public:
    void generate(int) override {
        labels_ = {"a", "b"};
        values_ = {{1}};
        seriesCount_ = 7;
    }
};

TEST(HtmlReportGenerator, MissingValuesShowAsZero) {
    Generator page;
    Ragged ragged;
    page.chart({"x", "y"}, ragged);
    EXPECT_TRUE(holds(page.body(),
                      "[{ xLabel: \"a\", \"x\": 1.000000, \"y\": 0.000000},"
                      "{ xLabel: \"b\", \"x\": 0.000000, \"y\": 0.000000}]"));
}

TEST(HtmlReportGenerator, ASecondPageGoesOnWithIdsAndSeparator) {
    Generator page;
    page.chart();
    page.begin("", "", "");
    page.chart();
    page.table();
    const std::string body = page.body();
    EXPECT_EQ(count(body, "<div id=\"chart-0\""), 0);
    EXPECT_EQ(count(body, separator + "\n\t<div id=\"chart-1\""), 1);
    EXPECT_EQ(count(body, "<div id=\"table-0\""), 1);
}

TEST(HtmlReportGenerator, EndAgainAddsAnotherFooter) {
    HtmlReportGenerator page;
    page.begin("", "", "");
    page.end("", "");
    EXPECT_EQ(count(page.end("", "").str(), "</body>"), 2);
}

TEST(HtmlReportGenerator, CopiesTakeTextAndNumbers) {
    Generator page;
    page.chart();
    Generator copy = page;
    copy.chart();
    EXPECT_EQ(count(copy.body(), "<div id=\"chart-1\""), 1);
    EXPECT_EQ(count(page.body(), "<div id=\"chart-1\""), 0);
    Generator moved = std::move(copy);
    moved.chart();
    EXPECT_EQ(count(moved.body(), "<div id=\"chart-2\""), 1);
}

TEST(HtmlReportGenerator, ArrayOfNothingIsTwoBrackets) {
    Generator page;
    EXPECT_EQ(page.createArrayAsString({}), "[]");
    EXPECT_EQ(page.createArrayAsString({"a", "b"}), "[\"a\",\"b\"]");
}

TEST(HtmlReportGenerator, NullTextsAreEmptyTexts) {
    HtmlReportGenerator page;
    page.begin(nullptr, nullptr, nullptr);
    page.addDescription(nullptr);
    EXPECT_TRUE(holds(page.end(nullptr, nullptr).str(), "<title></title>"));
}

TEST(HtmlReportGenerator, LogsWhatItDraws) {
    logging::CaptureSink log;
    Generator page;
    page.chart();
    page.table({});
    EXPECT_EQ(log.texts(1),
              (std::vector<std::string>{"generating chart for: Chart", "generating table for: Table"}));
    EXPECT_STREQ(HtmlReportGenerator::getStaticClassName(), "HtmlReportGenerator");
}

}  // namespace
}  // namespace qel
