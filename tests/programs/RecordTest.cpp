#include "SiteFixture.h"
#include "common/Times.h"

namespace qel::programs {
namespace {

class RecordTest : public SiteFixture {
  protected:
    std::string shown(const std::string& user = "anna") {
        return audit({"queue", "--config", config(user), "--show", "100"}).out;
    }
};

TEST_F(RecordTest, WordsBecomeOneEventOfTexts) {
    const test::ProgramResult result =
        audit({"record", "--config", config("anna"), "--log", "audit", "DataShare", "1.2", "7", "--json"});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.out, "{\"recorded\":1,\"log\":\"audit\"}\n");
    EXPECT_NE(shown().find("[\"DataShare\",\"1.2\",\"7\"]"), std::string::npos) << shown();
}

TEST_F(RecordTest, LinesBecomeEventsInTheirOrder) {
    EXPECT_EQ(record("anna", "[\"A\",1]\n[\"B\",true]\r\n[\"C\"]").code, 0);
    const std::string text = shown();
    EXPECT_LT(text.find("[\"A\",1]"), text.find("[\"B\",true]"));
    EXPECT_LT(text.find("[\"B\",true]"), text.find("[\"C\"]"));
    const test::ProgramResult queue = audit({"queue", "--config", config("anna"), "--json"});
    EXPECT_EQ(queue.out.rfind("{\"count\":3,\"logs\":{\"interaction\":{\"count\":3,", 0), 0u) << queue.out;
}

TEST_F(RecordTest, BadLineEndsWithItsNumberAndKeepsWhatCameBefore) {
    const test::ProgramResult result = record("anna", "[\"A\"]\n[\"B\",1.5]\n[\"C\"]\n");
    EXPECT_EQ(result.code, 65);
    EXPECT_NE(result.err.find("standard input:2: a fraction"), std::string::npos) << result.err;
    const std::string text = shown();
    EXPECT_NE(text.find("[\"A\"]"), std::string::npos);
    EXPECT_EQ(text.find("[\"B\""), std::string::npos);
    EXPECT_EQ(text.find("[\"C\"]"), std::string::npos);
}

TEST_F(RecordTest, ReplayKeepsTimesAndMovesAsidePairsByAMicrosecond) {
    const std::string at = "\"2026-03-01T08:00:00.000001+01:00\"";
    std::string lines;
    for (const char* name : {"A", "B", "C"})
        lines += "{\"time\":" + at + ",\"event\":[\"" + name + "\"]}\n";
    lines += "{\"time\":\"2026-03-01T07:00:00.000002Z\",\"event\":[\"D\"]}\n";
    EXPECT_EQ(record("anna", lines, "interaction", true).code, 0);
    EXPECT_EQ(shown().substr(shown().find('\n') + 1, 4 * 36),
              "  2026-03-01T07:00:00.000001Z [\"A\"]\n"
              "  2026-03-01T07:00:00.000002Z [\"B\"]\n"
              "  2026-03-01T07:00:00.000003Z [\"C\"]\n"
              "  2026-03-01T07:00:00.000004Z [\"D\"]\n");
}

TEST_F(RecordTest, ReplayRefusesTheFuture) {
    const std::string tomorrow = formatUtc(wallClock() + 86400LL * 1000000);
    const test::ProgramResult result =
        record("anna", "{\"time\":\"" + tomorrow + "\",\"event\":[\"A\"]}\n", "interaction", true);
    EXPECT_EQ(result.code, 65);
    EXPECT_NE(result.err.find("lies in the future"), std::string::npos) << result.err;
    EXPECT_EQ(shown().find("[\"A\"]"), std::string::npos);
}

TEST_F(RecordTest, EventThatNoServiceTakesIsRefusedAsBadData) {
    const test::ProgramResult result = record("anna", "[\"A\",\"" + std::string(70000, 'x') + "\"]\n");
    EXPECT_EQ(result.code, 65);
    EXPECT_NE(result.err.find("standard input:1: "), std::string::npos) << result.err;
}

TEST_F(RecordTest, QueueBelongsToTheIdentityThatFilledIt) {
    EXPECT_EQ(record("anna", "[\"A\"]\n").code, 0);
    edit(config("paul"), "url = \"lmdb:queue\"", "url = \"lmdb:" + workstation("anna") + "/queue\"");
    const test::ProgramResult recorded = record("paul", "[\"B\"]\n");
    EXPECT_EQ(recorded.code, 78);
    EXPECT_NE(recorded.err.find("filled by another identity than paul at ws-01"), std::string::npos)
        << recorded.err;
    EXPECT_EQ(audit({"forward", "--config", config("paul"), "--once"}).code, 78);
}

TEST_F(RecordTest, MissingInputAndConfigurationAreMissingInput) {
    EXPECT_EQ(audit({"record", "--config", folder_ / "no.toml", "--log", "audit", "A"}).code, 66);
    EXPECT_EQ(audit({"record", "--config", config("anna"), "--log", "audit", "--from", folder_ / "no"}).code,
              66);
    EXPECT_EQ(audit({"record", "--config", config("anna"), "--log", "audit", "--from", folder_.path()}).code,
              66);
    EXPECT_EQ(audit({"queue", "--config", config("paul")}).code, 66) << "nothing was ever queued there";
}

TEST_F(RecordTest, OptionsThatDoNotGoTogetherAreUsageErrors) {
    const std::string file = config("anna");
    EXPECT_EQ(audit({"record", "--config", file, "--log", "audit"}).code, 64);
    EXPECT_EQ(audit({"record", "--config", file, "--log", "audit", "--replay", "A"}).code, 64);
    EXPECT_EQ(audit({"record", "--config", file, "--log", "audit", "--from", "-", "A"}).code, 64);
    EXPECT_EQ(audit({"record", "--config", file, "--log", "other", "A"}).code, 64);
}

TEST_F(RecordTest, TextsFromOutsideNeverSteerTheTerminal) {
    ASSERT_EQ(record("anna", "[\"A\",\"\\u202e\\u009b31m\\u001b[2J\\\\x\"]\n").code, 0);
    const std::string text = shown();
    for (const char* raw : {"\u202e", "\u009b", "\x1b"})
        EXPECT_EQ(text.find(raw), std::string::npos) << text;
    const test::ProgramResult refused =
        audit({"record", "--config", folder_ / "\x1b[2Jno", "--log", "audit", "A"});
    EXPECT_EQ(refused.code, 66);
    EXPECT_EQ(refused.err.find('\x1b'), std::string::npos) << refused.err;
}

TEST_F(RecordTest, ResultThatCannotBeWrittenIsNoSuccess) {
    record("anna", "[\"A\"]\n");
    const test::ProgramResult result =
        test::run({"/bin/sh", "-c",
                   QEL_PROGRAMS_DIR "/qel-audit queue --config '" + config("anna") + "' --json >/dev/full"});
    EXPECT_EQ(result.code, 74);
    EXPECT_NE(result.err.find("standard output: No space left"), std::string::npos) << result.err;
}

TEST_F(RecordTest, KeyThatOthersMayReadIsRefused) {
    const std::string key = workstation("anna") + "/workstation.key";
    std::filesystem::permissions(key, std::filesystem::perms(0644));
    const test::ProgramResult result = record("anna", "[\"A\"]\n");
    EXPECT_EQ(result.code, 78);
    EXPECT_NE(result.err.find(key), std::string::npos) << result.err;
}

}  // namespace
}  // namespace qel::programs
