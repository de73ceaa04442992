#include "qelCore/GregorianDate.h"

#include <gtest/gtest.h>

#include <climits>
#include <ctime>
#include <limits>
#include <sstream>

#include "qelCore/util/DateConversion.h"
#include "support/CommaLocale.h"

namespace qel {
namespace {

constexpr UTCDateTime earliest = std::numeric_limits<UTCDateTime>::min();
constexpr UTCDateTime latest = std::numeric_limits<UTCDateTime>::max();

std::string us(const GregorianDate& date) {
    return date.formatAsUSDateTime().str();
}

TEST(GregorianDate, BeginsAtTheEpoch) {
    EXPECT_EQ(us(GregorianDate()), "01/01/1970 00:00:00");
    EXPECT_EQ(GregorianDate(), GregorianDate(UTCDateTime{0}));
}

TEST(GregorianDate, FieldsOfATime) {
    const GregorianDate date(UTCDateTime{1615125909123456});
    EXPECT_EQ(date, GregorianDate(2021, 3, 7, 14, 5, 9, 123456));
    EXPECT_EQ(date.getYear(), 2021);
    EXPECT_EQ(date.getMonth(), 3);
    EXPECT_EQ(date.getDay(), 7);
    EXPECT_EQ(date.getHour(), 14);
    EXPECT_EQ(date.getMinute(), 5);
    EXPECT_EQ(date.getSecond(), 9);
    EXPECT_EQ(date.getMicrosecond(), 123456);
}

TEST(GregorianDate, TimesBefore1970RoundDown) {
    EXPECT_EQ(GregorianDate(UTCDateTime{-1}), GregorianDate(1969, 12, 31, 23, 59, 59, 999999));
    EXPECT_EQ(GregorianDate(1969, 12, 31, 23, 59, 59, 999999).asUTCDateTime(), -1);
}

// timegm is the system's own calendar.
TEST(GregorianDate, EveryDayOfEightCenturiesAgreesWithTheSystem) {
    for (std::time_t day = -365L * 400; day < 365L * 400; ++day) {
        const std::time_t seconds = day * 86400 + 45296;
        std::tm fields{};
        ASSERT_NE(::gmtime_r(&seconds, &fields), nullptr);
        const GregorianDate date(static_cast<UTCDateTime>(seconds) * 1000000);
        ASSERT_EQ(date, GregorianDate(fields.tm_year + 1900, fields.tm_mon + 1, fields.tm_mday, 12, 34, 56));
        ASSERT_EQ(date.asUTCDateTime(), static_cast<UTCDateTime>(seconds) * 1000000);
    }
}

TEST(GregorianDate, USFormIsZeroPaddedWith24Hours) {
    EXPECT_EQ(us({2021, 3, 7, 4, 5, 9}), "03/07/2021 04:05:09");
    EXPECT_EQ(us({2021, 12, 31, 23, 59, 59}), "12/31/2021 23:59:59");
    EXPECT_EQ(us({33, 1, 1}), "01/01/0033 00:00:00");
}

TEST(GregorianDate, USFormPrintsAnyFieldsWhole) {
    EXPECT_EQ(us({12345, 100, -5, 0, 0, 0}), "100/-5/12345 00:00:00");
    const GregorianDate widest(INT_MIN, INT_MIN, INT_MIN, INT_MIN, INT_MIN, INT_MIN);
    EXPECT_EQ(us(widest), "-2147483648/-2147483648/-2147483648 -2147483648:-2147483648:-2147483648");
    EXPECT_LE(us(widest).size(), GregorianDate::maxTextSize);
    EXPECT_EQ(us({-44, 3, 15, 0, 0, 0}), "03/15/-044 00:00:00");
}

TEST(GregorianDate, BufferFormWritesTheSameTextAndNothingMore) {
    char buffer[GregorianDate::maxTextSize];
    std::fill(std::begin(buffer), std::end(buffer), '#');
    const GregorianDate date(2021, 3, 7, 14, 5, 9);
    char* const end = date.formatAsUSDateTime(buffer);
    EXPECT_EQ(std::string(buffer, end), us(date));
    EXPECT_EQ(*end, '#');
}

TEST(GregorianDate, ShortFormByDefault) {
    EXPECT_EQ(GregorianDate(2021, 3, 5, 14, 5, 59).formatAsShortTextDateTime(nullptr), "05 Mar 2021 14:05");
    EXPECT_EQ(GregorianDate(2021, 3, 5, 14, 5, 59).formatAsShortTextDateTime(), "05 Mar 2021 14:05");
    EXPECT_EQ(GregorianDate(2021, 13, 5).formatAsShortTextDateTime(), "05  2021 00:00");
}

TEST(GregorianDate, ShortFormByPattern) {
    const GregorianDate date(2021, 3, 5, 14, 5, 59);
    EXPECT_EQ(date.formatAsShortTextDateTime("%Y-%m-%dT%H:%M:%S %B %%"), "2021-03-05T14:05:59 March %");
    EXPECT_EQ(date.formatAsShortTextDateTime("%q %"), "%q %");
    EXPECT_EQ(date.formatAsShortTextDateTime(""), "");
}

TEST(GregorianDate, MonthNames) {
    EXPECT_EQ(GregorianDate::getMonthName(1, "en"), "January");
    EXPECT_EQ(GregorianDate::getMonthName(9, "en"), "September");
    EXPECT_EQ(GregorianDate::getMonthName(12, "en"), "December");
    EXPECT_EQ(GregorianDate::getMonthName(3, "de"), "M\xC3\xA4rz");
    EXPECT_EQ(GregorianDate::getMonthName(3, "fr"), "March");
    EXPECT_EQ(GregorianDate::getMonthName(3, nullptr), "March");
}

TEST(GregorianDate, MonthsOutsideTheYearHaveNoName) {
    for (const int month : {0, 13, 14, 15, -1, INT_MIN, INT_MAX})
        EXPECT_EQ(GregorianDate::getMonthName(month, "en"), "");
}

TEST(GregorianDate, TextsDoNotDependOnTheLocale) {
    const test::CommaLocale locale;
    EXPECT_EQ(us({12021, 3, 7, 4, 5, 9}), "03/07/12021 04:05:09");
    EXPECT_EQ(GregorianDate(12021, 3, 5, 14, 5).formatAsShortTextDateTime(), "05 Mar 12021 14:05");
}

TEST(GregorianDate, FieldsBeyondTheirRangeCarry) {
    EXPECT_EQ(GregorianDate(2020, 13, 1).asUTCDateTime(), GregorianDate(2021, 1, 1).asUTCDateTime());
    EXPECT_EQ(GregorianDate(2021, 0, 1).asUTCDateTime(), GregorianDate(2020, 12, 1).asUTCDateTime());
    EXPECT_EQ(GregorianDate(2021, -11, 1).asUTCDateTime(), GregorianDate(2020, 1, 1).asUTCDateTime());
    EXPECT_EQ(GregorianDate(2021, 3, 0).asUTCDateTime(), GregorianDate(2021, 2, 28).asUTCDateTime());
    EXPECT_EQ(GregorianDate(2021, 2, 31).asUTCDateTime(), GregorianDate(2021, 3, 3).asUTCDateTime());
    EXPECT_EQ(GregorianDate(2021, 1, 1, 24, 60, 60).asUTCDateTime(),
              GregorianDate(2021, 1, 2, 1, 1, 0).asUTCDateTime());
    EXPECT_EQ(GregorianDate(2021, 1, 1, 0, 0, -1).asUTCDateTime(),
              GregorianDate(2020, 12, 31, 23, 59, 59).asUTCDateTime());
}

TEST(GregorianDate, EveryExtremeFieldSaturatesOrCarries) {
    for (const int extreme : {INT_MIN, INT_MIN + 1, INT_MAX - 1, INT_MAX}) {
        const UTCDateTime bound = extreme < 0 ? earliest : latest;
        EXPECT_EQ(GregorianDate(extreme, 1, 1).asUTCDateTime(), bound);
        EXPECT_EQ(GregorianDate(extreme, 1, 1).asUTCDateTimeLocalTime(), bound);
        EXPECT_EQ(GregorianDate(extreme, extreme, extreme, extreme, extreme, extreme, extreme)
                      .asUTCDateTimeLocalTime(),
                  bound);
        EXPECT_EQ(GregorianDate(2021, extreme, 1).asUTCDateTimeLocalTime(), bound);
        EXPECT_EQ(GregorianDate(2021, 1, extreme).asUTCDateTimeLocalTime(), bound);
    }
}

TEST(GregorianDate, ExtremeTimesOfDayStayExact) {
    const UTCDateTime base = GregorianDate(2021, 1, 1).asUTCDateTime();
    EXPECT_EQ(GregorianDate(2021, 1, 1, INT_MAX).asUTCDateTime(), base + 3600000000LL * INT_MAX);
    EXPECT_EQ(GregorianDate(2021, 1, 1, 0, INT_MIN).asUTCDateTime(), base + 60000000LL * INT_MIN);
    EXPECT_EQ(GregorianDate(2021, 1, 1, 0, 0, INT_MAX).asUTCDateTime(), base + 1000000LL * INT_MAX);
    EXPECT_EQ(GregorianDate(2021, 1, 1, 0, 0, 0, INT_MIN).asUTCDateTime(), base + INT_MIN);
}

TEST(GregorianDate, EndsOfTheTimeBreakDownAndComeBack) {
    for (const UTCDateTime time : {earliest, earliest + 1, latest - 1, latest}) {
        EXPECT_EQ(GregorianDate(time).asUTCDateTime(), time);
        EXPECT_FALSE(util::convertUTCDateTimeToGermanTime(time).formatAsUSDateTime().empty());
    }
    EXPECT_EQ(GregorianDate(latest).getYear(), 294247);
    EXPECT_EQ(GregorianDate(earliest).getYear(), -290308);
}

TEST(GregorianDate, LineWithoutADateIsNoTrouble) {
    EXPECT_LT(GregorianDate(0, 0, 0, 0, 0, 0).asUTCDateTimeLocalTime(), 0);
}

}  // namespace
}  // namespace qel
