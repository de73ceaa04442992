#include "qelCore/util/StringFormat.h"

#include <gtest/gtest.h>

#include <clocale>
#include <limits>
#include <string>

#include "qelCore/logging/CaptureSink.h"
#include "support/CommaLocale.h"

namespace qel {
namespace {

using util::stringFormat;

TEST(StringFormat, FormatsAsC) {
    EXPECT_EQ(stringFormat("\"%s\"", String("Series")), "\"Series\"");
    EXPECT_EQ(stringFormat("-%d-%d-%d", 2021, 3, 7), "-2021-3-7");
    EXPECT_EQ(stringFormat(", \"%s\": %f", "Login", 3.0F), ", \"Login\": 3.000000");
    EXPECT_EQ(stringFormat("%05d|%-4s|%+d|%x|%.2f|%c|%u", -42, "ab", 7, 255, 2.345, 'z', 5U),
              "-0042|ab  |+7|ff|2.35|z|5");
    EXPECT_EQ(stringFormat("%lld %llu", std::numeric_limits<long long>::min(),
                           std::numeric_limits<unsigned long long>::max()),
              "-9223372036854775808 18446744073709551615");
    EXPECT_EQ(stringFormat("100%%"), "100%");
    EXPECT_EQ(stringFormat("plain"), "plain");
    EXPECT_EQ(stringFormat(""), "");
}

TEST(StringFormat, TextsArePassedAsTheirCStrings) {
    EXPECT_EQ(stringFormat("[%s]", String(std::string_view("a\0b", 3))), "[a]");
    EXPECT_EQ(stringFormat("[%s][%s]", std::string("x"), static_cast<const char*>(nullptr)), "[x][(null)]");
}

TEST(StringFormat, TextOfAnArgumentIsNoPattern) {
    EXPECT_EQ(stringFormat("%s", "%d%n%s"), "%d%n%s");
}

TEST(StringFormat, ManyArguments) {
    EXPECT_EQ(stringFormat("%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d", 1, 2, 3, 4, 5, 6, 7, 8, 9, 0, 1, 2, 3, 4,
                           5, 6, 7, 8),
              "123456789012345678");
}

class StringFormatError : public testing::TestWithParam<const char*> {};

TEST_P(StringFormatError, LogsAndReturnsThePatternItself) {
    logging::CaptureSink log;
    EXPECT_EQ(stringFormat(GetParam(), "text"), GetParam());
    ASSERT_EQ(log.texts(logging::levelError).size(), 1U);
    EXPECT_TRUE(String(log.texts()[0]).begins_with("util::stringFormat error: "));
    EXPECT_GT(log.texts()[0].size(), std::string("util::stringFormat error: ").size());
    EXPECT_EQ(log.entries()[0].channel, 2);
}

INSTANTIATE_TEST_SUITE_P(Patterns, StringFormatError,
                         testing::Values("%d", "%s %s", "%*d", "%.*f", "%", "%99999999999s", "%q"));

TEST(StringFormat, NoPatternGivesNoText) {
    EXPECT_EQ(stringFormat(nullptr, 1), "");
}

TEST(StringFormat, DecimalPointUnderACommaLocale) {
    const test::CommaLocale locale;
    EXPECT_EQ(stringFormat("%f %d", 1234.5, 1234567), "1234.500000 1234567");
}

}  // namespace
}  // namespace qel
