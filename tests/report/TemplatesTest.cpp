#include "report/Templates.h"

#include <gtest/gtest.h>

#include <string>

namespace qel {
namespace {

using templates::Part;

std::string text(Part part) {
    return templates::get(part).str();
}

int count(const std::string& text, const std::string& what) {
    int found = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size()))
        ++found;
    return found;
}

TEST(Templates, HoldTheirPlaceholdersAsOftenAsTheyAreFilled) {
    EXPECT_EQ(count(text(Part::header), "[[[[TITLE]]]]"), 2);
    EXPECT_EQ(count(text(Part::header), "[[[[TIMEPERIOD]]]]"), 1);
    EXPECT_EQ(count(text(Part::header), "[[[[SERVERNAME]]]]"), 1);
    EXPECT_EQ(count(text(Part::footer), "[[[[TITLE]]]]"), 1);
    EXPECT_EQ(count(text(Part::footer), "[[[[CURRENTDATE]]]]"), 1);
    EXPECT_EQ(count(text(Part::description), "[[[[DESCRIPTION]]]]"), 1);
    EXPECT_EQ(count(text(Part::barchart), "[[[[CHART ID]]]]"), 3);
    EXPECT_EQ(count(text(Part::barchart), "[[[[CHART TITLE]]]]"), 1);
    EXPECT_EQ(count(text(Part::barchart), "[[[[DATA]]]]"), 1);
    EXPECT_EQ(count(text(Part::barchart), "[[[[KEYS]]]]"), 1);
    EXPECT_EQ(count(text(Part::barchart), "[[[[NUM ITEMS PER ROW]]]]"), 1);
    EXPECT_EQ(count(text(Part::table), "[[[[TABLE ID]]]]"), 2);
    EXPECT_EQ(count(text(Part::table), "[[[[TABLE HEADER]]]]"), 1);
    EXPECT_EQ(count(text(Part::table), "[[[[TABLE CONTENT]]]]"), 1);
}

TEST(Templates, SeparatorHasNoPlaceholderAndAThinRule) {
    EXPECT_EQ(text(Part::separator), "\n\t<hr style=\"border: 0.1em solid #797675;\">\n");
}

TEST(Templates, PageKeepsItsShape) {
    const std::string header = text(Part::header);
    EXPECT_EQ(header.find("\n<!-- Header -->\n<!DOCTYPE html>\n<meta charset=\"utf-8\">\n<head>"), 0u);
    EXPECT_EQ(count(header, "<html"), 0);
    EXPECT_EQ(count(header, "</br>"), 1);
    EXPECT_EQ(count(header, "<div class=\"report-charts\">"), 1);
    const std::string footer = text(Part::footer);
    EXPECT_NE(footer.find("<!-- END for charts -->\n\t</div>"), std::string::npos);
    EXPECT_EQ(footer.substr(footer.size() - 9), "</body>\n\n");
}

TEST(Templates, ChartsKnowTenColoursInTheirOrder) {
    const std::string chart = text(Part::barchart);
    std::size_t last = 0;
    for (const char* colour : {"#fac73c", "#4d4d4d", "#C0392B", "#9B59B6", "#27AE60", "#2980B9", "#9C640C",
                               "#95A5A6", "#E74C3C", "#5B2C6F"}) {
        const std::size_t at = chart.find('"' + std::string(colour) + '"', last);
        ASSERT_NE(at, std::string::npos) << colour;
        last = at;
    }
}

}  // namespace
}  // namespace qel
