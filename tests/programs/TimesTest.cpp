#include "common/Times.h"

#include <gtest/gtest.h>

namespace qel::programs {
namespace {

std::string spanOf(const std::string& text) {
    TimeSpan span;
    std::string error;
    if (!parseTime(text, span, error))
        return "refused";
    return formatUtc(span.first) + " to " + formatUtc(span.last);
}

TEST(Times, InstantsKeepTheirOffsetAndMicroseconds) {
    EXPECT_EQ(spanOf("2026-03-01T08:00:00.000001+01:00"),
              "2026-03-01T07:00:00.000001Z to 2026-03-01T07:00:00.000001Z");
    EXPECT_EQ(spanOf("2026-03-01T08:00:00Z"), "2026-03-01T08:00:00.000000Z to 2026-03-01T08:00:00.000000Z");
    EXPECT_EQ(spanOf("2026-03-01T00:15:00.5-03:30"),
              "2026-03-01T03:45:00.500000Z to 2026-03-01T03:45:00.500000Z");
    EXPECT_EQ(spanOf("1969-12-31T23:59:59.999999Z"),
              "1969-12-31T23:59:59.999999Z to 1969-12-31T23:59:59.999999Z");
}

TEST(Times, NamedPeriodsAreGermanLocalTimeFromTheFirstToTheLastMicrosecond) {
    EXPECT_EQ(spanOf("2026-03-01"), "2026-02-28T23:00:00.000000Z to 2026-03-01T22:59:59.999999Z");
    EXPECT_EQ(spanOf("2026-07"), "2026-06-30T22:00:00.000000Z to 2026-07-31T21:59:59.999999Z");
    EXPECT_EQ(spanOf("2026-Q1"), "2025-12-31T23:00:00.000000Z to 2026-03-31T21:59:59.999999Z");
    EXPECT_EQ(spanOf("2026-Q4"), "2026-09-30T22:00:00.000000Z to 2026-12-31T22:59:59.999999Z");
    EXPECT_EQ(spanOf("2026-12"), "2026-11-30T23:00:00.000000Z to 2026-12-31T22:59:59.999999Z");
    EXPECT_EQ(spanOf("2026"), "2025-12-31T23:00:00.000000Z to 2026-12-31T22:59:59.999999Z");
}

TEST(Times, DaysOfTheClockChangeAreAnHourShorterAndLonger) {
    EXPECT_EQ(spanOf("2026-03-29"), "2026-03-28T23:00:00.000000Z to 2026-03-29T21:59:59.999999Z");
    EXPECT_EQ(spanOf("2026-10-25"), "2026-10-24T22:00:00.000000Z to 2026-10-25T22:59:59.999999Z");
}

TEST(Times, LeapDaysExistInLeapYearsOnly) {
    EXPECT_NE(spanOf("2024-02-29"), "refused");
    EXPECT_EQ(spanOf("2026-02-29"), "refused");
    EXPECT_EQ(spanOf("2100-02-29"), "refused");
    EXPECT_NE(spanOf("2000-02-29"), "refused");
}

TEST(Times, AnythingElseIsRefusedWithTheFormsThatAreAccepted) {
    for (const char* wrong : {"",
                              "now",
                              "26-03-01",
                              "2026-13",
                              "2026-00",
                              "2026-Q0",
                              "2026-Q5",
                              "2026-3-1",
                              "2026-03-01T08:00:00",
                              "2026-03-01T08:00Z",
                              "2026-03-01T24:00:00Z",
                              "2026-03-01T08:60:00Z",
                              "2026-03-01T08:00:60Z",
                              "2026-03-01T08:00:00.Z",
                              "2026-03-01T08:00:00.1234567Z",
                              "2026-03-01T08:00:00+0100",
                              "2026-03-01T08:00:00+24:00",
                              "2026-03-01T08:00:00Z ",
                              " 2026",
                              "2026-03-01 ",
                              "2026-",
                              "0000"})
        EXPECT_EQ(spanOf(wrong), "refused") << wrong;
    TimeSpan span;
    std::string error;
    parseTime("yesterday", span, error);
    EXPECT_EQ(
        error,
        "\"yesterday\" is not a time, expected one like 2026-03-01T08:00:00+01:00 (with its offset, or Z), "
        "2026-03-01, 2026-03, 2026-Q1 or 2026");
}

}  // namespace
}  // namespace qel::programs
