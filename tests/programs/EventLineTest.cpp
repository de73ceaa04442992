#include "common/EventLine.h"

#include <gtest/gtest.h>

#include "common/Times.h"
#include "qelCore/String.h"

namespace qel::programs {
namespace {

std::string roundTrip(const std::string& line) {
    Item event;
    try {
        readEventLine(line, event);
    } catch (const BadEventLine& bad) {
        return std::string("refused: ") + bad.what();
    }
    EXPECT_TRUE(event.isWellFormed());
    return writeEventLine(event);
}

bool refused(const std::string& line) {
    return roundTrip(line).rfind("refused: ", 0) == 0;
}

TEST(EventLine, StringsIntegersAndBooleansKeepTheirTypes) {
    EXPECT_EQ(roundTrip("[\"SeriesOpened\",\"1.2.3\",7,true]"), "[\"SeriesOpened\",\"1.2.3\",7,true]");
    EXPECT_EQ(roundTrip("  [ \"A\" , false , -1 ] \r"), "[\"A\",false,-1]");
    Item event;
    readEventLine("[\"A\",1,true,\"\"]", event);
    Item expected;
    expected.addString("A");
    expected.addInteger(1);
    expected.addBool(true);
    expected.addString("");
    EXPECT_EQ(event, expected);
}

TEST(EventLine, IntegersAreExactToBothEndsOfSixtyFourBits) {
    EXPECT_EQ(roundTrip("[\"A\",9223372036854775807,-9223372036854775808,9007199254740993]"),
              "[\"A\",9223372036854775807,-9223372036854775808,9007199254740993]");
    EXPECT_TRUE(refused("[\"A\",9223372036854775808]"));
    EXPECT_TRUE(refused("[\"A\",-9223372036854775809]"));
    EXPECT_TRUE(refused("[\"A\",123456789012345678901234567890]"));
}

TEST(EventLine, TextsMayHoldAnyCharacterOfUnicode) {
    EXPECT_EQ(roundTrip("[\"A\",\"\\u00e4\\n\\\"\\ud83d\\ude00\"]"), "[\"A\",\"\u00e4\\n\\\"\U0001F600\"]");
    EXPECT_EQ(roundTrip("[\"A\",\"\\u0000x\"]"), "[\"A\",\"\\u0000x\"]");
}

TEST(EventLine, AnythingElseIsRefused) {
    for (const char* wrong : {"",
                              " ",
                              "[]",
                              "[1]",
                              "[true,\"A\"]",
                              "[\"A\",1.0]",
                              "[\"A\",1e3]",
                              "[\"A\",null]",
                              "[\"A\",[1]]",
                              "[\"A\",{}]",
                              "{}",
                              "\"A\"",
                              "[\"A\"",
                              "[\"A\"]x",
                              "[\"A\"][\"B\"]",
                              "[\"A\",]",
                              "['A']",
                              "[\"A\",01]",
                              "[\"A\",\"\\ud800\"]",
                              "[\"A\",\"\xff\"]",
                              "[\"A\",\"\n\"]",
                              "[\"A\"] // note",
                              "[\"A\",NaN]",
                              "{\"time\":\"2026-03-01T08:00:00Z\",\"event\":[\"A\"]}"})
        EXPECT_TRUE(refused(wrong)) << wrong;
}

TEST(EventLine, SentencesSayWhatStoodThereAndWhatWasExpected) {
    EXPECT_EQ(
        roundTrip("[\"A\",1.5]"),
        "refused: a fraction among the parameters, expected strings, 64-bit integers and booleans only");
    EXPECT_EQ(roundTrip("[\"A\",99999999999999999999]"),
              "refused: a number beyond 64 bits among the parameters, expected strings, 64-bit integers and "
              "booleans "
              "only");
    EXPECT_EQ(roundTrip("[7]"), "refused: a number stands where the event's name, a string, is expected");
    EXPECT_EQ(roundTrip("[]"), "refused: an event without a name, expected a string first");
}

TEST(EventLine, ReplayLineGivesTimeAndEventInEitherOrder) {
    Item event;
    const std::int64_t time =
        readReplayLine("{\"time\":\"2026-03-01T08:00:00.000001+01:00\",\"event\":[\"A\",2]}", event);
    EXPECT_EQ(formatUtc(time), "2026-03-01T07:00:00.000001Z");
    EXPECT_EQ(writeEventLine(event), "[\"A\",2]");
    EXPECT_EQ(readReplayLine("{\"event\":[\"B\"],\"time\":\"1970-01-01T00:00:00.000007Z\"}", event), 7);
    EXPECT_EQ(writeEventLine(event), "[\"B\"]");
}

TEST(EventLine, ReplayLineNeedsBothMembersOnceAndNothingElse) {
    for (const char* wrong :
         {"[\"A\"]", "{}", "{\"time\":\"2026-03-01T08:00:00Z\"}", "{\"event\":[\"A\"]}",
          "{\"time\":\"2026-03-01\",\"event\":[\"A\"]}", "{\"time\":7,\"event\":[\"A\"]}",
          "{\"time\":\"2026-03-01T08:00:00Z\",\"event\":\"A\"}",
          "{\"time\":\"2026-03-01T08:00:00Z\",\"event\":[]}",
          "{\"time\":\"2026-03-01T08:00:00Z\",\"event\":[\"A\"],\"x\":1}",
          "{\"time\":\"2026-03-01T08:00:00Z\",\"time\":\"2026-03-01T08:00:00Z\",\"event\":[\"A\"]}",
          "{\"time\":\"2026-03-01T08:00:00Z\",\"event\":[\"A\"],\"event\":[\"B\"]}",
          "{\"time\":\"2026-03-01T08:00:00Z\",\"event\":[\"A\"]}{}",
          "{\"time\":[\"A\"],\"event\":[\"A\"]}"}) {
        Item event;
        EXPECT_THROW(readReplayLine(wrong, event), BadEventLine) << wrong;
    }
}

}  // namespace
}  // namespace qel::programs
