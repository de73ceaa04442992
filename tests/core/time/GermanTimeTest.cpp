#include <gtest/gtest.h>
#include <stdlib.h>

#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "qelCore/GregorianDate.h"
#include "qelCore/util/DateConversion.h"
#include "time/Calendar.h"
#include "time/GermanZone.h"

namespace qel {
namespace {

constexpr UTCDateTime second = 1000000;
constexpr UTCDateTime hour = 3600 * second;

UTCDateTime utc(int year, int month, int day, int hours = 0, int minutes = 0, int seconds = 0) {
    return GregorianDate(year, month, day, hours, minutes, seconds).asUTCDateTime();
}

std::string german(UTCDateTime time) {
    return util::convertUTCDateTimeToGermanTime(time).formatAsUSDateTime().str();
}

UTCDateTime back(UTCDateTime time) {
    return util::convertUTCDateTimeToGermanTime(time).asUTCDateTimeLocalTime();
}

// One o'clock UTC on the last Sunday of a month of 31 days.
UTCDateTime changeOf(int year, int month) {
    const std::int64_t last = calendar::daysFromCivil(year, month, 31);
    return ((last - calendar::weekdayOf(last)) * 86400 + 3600) * second;
}

/// Runs a test with the process in another time zone.
class ZoneOfProcess {
  public:
    explicit ZoneOfProcess(const char* zone) {
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
    ~ZoneOfProcess() {
        ::unsetenv("TZ");
        ::tzset();
    }
    ZoneOfProcess(const ZoneOfProcess&) = delete;
    ZoneOfProcess& operator=(const ZoneOfProcess&) = delete;
};

TEST(GermanTime, WinterIsOneHourAheadAndSummerTwo) {
    EXPECT_EQ(german(utc(2021, 1, 15, 12)), "01/15/2021 13:00:00");
    EXPECT_EQ(german(utc(2021, 7, 15, 12)), "07/15/2021 14:00:00");
    EXPECT_EQ(german(utc(2021, 12, 31, 23, 30)), "01/01/2022 00:30:00");
}

TEST(GermanTime, MicrosecondsStay) {
    EXPECT_EQ(util::convertUTCDateTimeToGermanTime(utc(2021, 7, 15) + 123456).getMicrosecond(), 123456);
    EXPECT_EQ(back(utc(2021, 7, 15) + 123456), utc(2021, 7, 15) + 123456);
}

TEST(GermanTime, KnownChangesOfSummerTime) {
    EXPECT_EQ(german(utc(2021, 3, 28, 0, 59, 59)), "03/28/2021 01:59:59");
    EXPECT_EQ(german(utc(2021, 3, 28, 1)), "03/28/2021 03:00:00");
    EXPECT_EQ(german(utc(2021, 10, 31, 0, 59, 59)), "10/31/2021 02:59:59");
    EXPECT_EQ(german(utc(2021, 10, 31, 1)), "10/31/2021 02:00:00");
}

TEST(GermanTime, BothChangesOfEveryYearSince1996) {
    for (int year = 1996; year <= 2200; ++year) {
        const UTCDateTime summer = changeOf(year, 3);
        const UTCDateTime winter = changeOf(year, 10);
        ASSERT_EQ(util::convertUTCDateTimeToGermanTime(summer - 1), GregorianDate(summer - 1 + hour)) << year;
        ASSERT_EQ(util::convertUTCDateTimeToGermanTime(summer), GregorianDate(summer + 2 * hour)) << year;
        ASSERT_EQ(util::convertUTCDateTimeToGermanTime(winter - 1), GregorianDate(winter - 1 + 2 * hour))
            << year;
        ASSERT_EQ(util::convertUTCDateTimeToGermanTime(winter), GregorianDate(winter + hour)) << year;
    }
}

TEST(GermanTime, MissingHourOfMarchMovesForward) {
    EXPECT_EQ(GregorianDate(2021, 3, 28, 1, 59, 59).asUTCDateTimeLocalTime(), utc(2021, 3, 28, 0, 59, 59));
    EXPECT_EQ(GregorianDate(2021, 3, 28, 2, 0, 0).asUTCDateTimeLocalTime(), utc(2021, 3, 28, 1));
    EXPECT_EQ(GregorianDate(2021, 3, 28, 2, 30, 0).asUTCDateTimeLocalTime(), utc(2021, 3, 28, 1, 30));
    EXPECT_EQ(german(GregorianDate(2021, 3, 28, 2, 30, 0).asUTCDateTimeLocalTime()), "03/28/2021 03:30:00");
    EXPECT_EQ(GregorianDate(2021, 3, 28, 3, 0, 0).asUTCDateTimeLocalTime(), utc(2021, 3, 28, 1));
}

TEST(GermanTime, DoubledHourOfOctoberTakesTheFirst) {
    EXPECT_EQ(GregorianDate(2021, 10, 31, 1, 59, 59).asUTCDateTimeLocalTime(), utc(2021, 10, 30, 23, 59, 59));
    EXPECT_EQ(GregorianDate(2021, 10, 31, 2, 0, 0).asUTCDateTimeLocalTime(), utc(2021, 10, 31, 0));
    EXPECT_EQ(GregorianDate(2021, 10, 31, 2, 59, 59).asUTCDateTimeLocalTime(), utc(2021, 10, 31, 0, 59, 59));
    EXPECT_EQ(GregorianDate(2021, 10, 31, 3, 0, 0).asUTCDateTimeLocalTime(), utc(2021, 10, 31, 2));
}

TEST(GermanTime, LocalTimeInvertsTheConversionThroughManyYears) {
    for (UTCDateTime time = utc(1970, 1, 1); time < utc(2100, 1, 1); time += 13 * hour + 37 * 60 * second) {
        const bool isSecondOctoberHour =
            util::convertUTCDateTimeToGermanTime(time - hour) == util::convertUTCDateTimeToGermanTime(time);
        ASSERT_EQ(back(time), isSecondOctoberHour ? time - hour : time)
            << GregorianDate(time).formatAsUSDateTime();
    }
}

TEST(GermanTime, EveryQuarterHourAroundTheChangesComesBack) {
    for (int year = 1980; year <= 2080; ++year)
        for (int month : {3, 10})
            for (UTCDateTime time = changeOf(year, month) - 48 * hour;
                 time < changeOf(year, month) + 48 * hour; time += hour / 4) {
                const bool isSecondOctoberHour = util::convertUTCDateTimeToGermanTime(time - hour) ==
                                                 util::convertUTCDateTimeToGermanTime(time);
                ASSERT_EQ(back(time), isSecondOctoberHour ? time - hour : time);
            }
}

// The C library reads the same database through other code.
TEST(GermanTime, AgreesWithTheSystemThroughTheCentury) {
    const ZoneOfProcess zone("Europe/Berlin");
    for (std::time_t time = -2208988800; time < 4102444800; time += 4 * 3600 + 1234) {
        std::tm fields{};
        ASSERT_NE(::localtime_r(&time, &fields), nullptr);
        ASSERT_EQ(util::convertUTCDateTimeToGermanTime(static_cast<UTCDateTime>(time) * second),
                  GregorianDate(fields.tm_year + 1900, fields.tm_mon + 1, fields.tm_mday, fields.tm_hour,
                                fields.tm_min, fields.tm_sec))
            << time;
    }
}

TEST(GermanTime, ZoneOfTheMachineDoesNotMatter) {
    for (const char* name :
         {"UTC", "America/New_York", "Asia/Kolkata", "Pacific/Kiritimati", "Nonsense/Zone", ""}) {
        const ZoneOfProcess zone(name);
        EXPECT_EQ(german(utc(2021, 7, 15, 12)), "07/15/2021 14:00:00");
        EXPECT_EQ(GregorianDate(2021, 7, 15, 14).asUTCDateTimeLocalTime(), utc(2021, 7, 15, 12));
        EXPECT_EQ(util::convertUTCDateTimeToGMT(utc(2021, 7, 15, 12)), GregorianDate(2021, 7, 15, 12));
    }
}

TEST(GermanTime, RuleOfTheUnionAgreesWithTheDatabase) {
    for (std::int64_t time = utc(1996, 1, 1) / second; time < utc(2150, 1, 1) / second; time += 86399) {
        const german::OffsetSpan rule = german::spanByRule(time);
        ASSERT_EQ(rule.offset, german::spanFromDatabase(time).offset) << time;
        ASSERT_TRUE(rule.begin <= time && time < rule.end) << time;
    }
}

TEST(GermanTime, SpansHoldTheTimeTheyAreAskedFor) {
    for (std::int64_t time = -20000000000; time < 20000000000; time += 98765432) {
        const german::OffsetSpan span = german::spanFromDatabase(time);
        ASSERT_TRUE(span.begin <= time && time < span.end) << time;
    }
}

TEST(GermanTime, ThreadsConvertSideBySide) {
    std::vector<std::thread> threads;
    std::vector<int> wrong(4);
    for (std::size_t t = 0; t < wrong.size(); ++t)
        threads.emplace_back([&wrong, t] {
            for (int year = 2000; year < 2060; ++year)
                for (int month = 1; month <= 12; ++month)
                    wrong[t] += back(utc(year, month, 15, 12)) != utc(year, month, 15, 12);
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, std::vector<int>(4, 0));
}

}  // namespace
}  // namespace qel
