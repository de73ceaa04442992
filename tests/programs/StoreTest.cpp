#include "SiteFixture.h"
#include "common/Folders.h"

namespace qel::programs {
namespace {

/// A central log with one event in each of five years, and a workstation's queue.
class StoreTest : public SiteFixture {
  protected:
    void SetUp() override {
        SiteFixture::SetUp();
        std::string lines;
        for (int year = 2020; year < 2025; ++year)
            lines += "{\"time\":\"" + std::to_string(year) + "-06-01T10:00:00Z\",\"event\":[\"E\"," +
                     std::to_string(year) + "]}\n";
        serve();
        ASSERT_EQ(record("anna", lines, "interaction", true).code, 0);
        ASSERT_EQ(forward("anna").code, 0);
        ASSERT_EQ(record("anna", "[\"Waiting\"]\n").code, 0);
    }
    std::string central() const { return "lmdb:" + site() + "/store"; }
    std::string queue() { return "lmdb:" + workstation("anna") + "/queue"; }

    static test::ProgramResult store(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "store");
        return audit(arguments);
    }
    std::string listed(const std::string& url, const std::string& log = "interaction") {
        const test::ProgramResult result = store({"ls", "--store", url, "--log", log});
        EXPECT_EQ(result.code, 0) << result.err;
        return result.out;
    }
    static int count(const std::string& text, const std::string& part) {
        int found = 0;
        for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
            ++found;
        return found;
    }
};

TEST_F(StoreTest, InfoTellsTheLogsOfAStoreInUse) {
    const test::ProgramResult words = store({"info", "--store", central()});
    EXPECT_EQ(words.code, 0) << words.err;
    EXPECT_NE(words.out.find("interaction: central log at [\"interaction\"], 5 events, "
                             "2020-06-01T10:00:00.000000Z to 2024-06-01T10:00:00.000000Z"),
              std::string::npos)
        << words.out;
    const test::ProgramResult json = store({"info", "--store", queue(), "--json"});
    EXPECT_NE(json.out.find("\"interaction\":{\"kind\":\"queue\""), std::string::npos) << json.out;
}

TEST_F(StoreTest, LsPrintsEventsOldestFirstAndLeavesATrace) {
    const std::string text = listed(central());
    EXPECT_EQ(count(text, "\n"), 5);
    EXPECT_EQ(text.rfind("2020-06-01T10:00:00.000000Z ", 0), 0u) << text;
    EXPECT_NE(text.find("[\"anna\",\"ws-01\",\"E\",2024]"), std::string::npos) << text;
    EXPECT_NE(listed(central(), "audit").find("\"AuditLogUsed\",\"ls\",\"interaction\""), std::string::npos);
    EXPECT_NE(listed(queue()).find("[\"Waiting\"]"), std::string::npos);
}

TEST_F(StoreTest, LsKeepsToItsRangeAndLimit) {
    const test::ProgramResult range = store({"ls", "--store", central(), "--log", "interaction", "--from",
                                             "2021", "--to", "2022-06-01T10:00:00Z"});
    EXPECT_EQ(count(range.out, "\n"), 2) << range.out;
    const test::ProgramResult limited =
        store({"ls", "--store", central(), "--log", "interaction", "--limit", "3"});
    EXPECT_EQ(count(limited.out, "\n"), 3) << limited.out;
}

TEST_F(StoreTest, VerifyFindsNoFaultInAStoreInUse) {
    const test::ProgramResult result = store({"verify", "--store", central(), "--json"});
    EXPECT_EQ(result.code, 0) << result.out << result.err;
    EXPECT_NE(result.out.find("\"faults\":0"), std::string::npos) << result.out;
    EXPECT_EQ(store({"verify", "--store", queue()}).code, 0);
}

TEST_F(StoreTest, BackupIsRestoredWithEveryEventAndLeavesATrace) {
    const std::string file = folder_ / "deep/er/store.backup";
    const test::ProgramResult saved = store({"backup", "--store", central(), "--out", file});
    ASSERT_EQ(saved.code, 0) << saved.err;
    const test::ProgramResult restored =
        store({"restore", "--from", file, "--store", "lmdb:" + (folder_ / "again")});
    ASSERT_EQ(restored.code, 0) << restored.err;
    EXPECT_EQ(listed("lmdb:" + (folder_ / "again")), listed(central()));
    EXPECT_EQ(store({"verify", "--store", "lmdb:" + (folder_ / "again")}).code, 0);
    EXPECT_NE(listed(central(), "audit").find("\"AuditLogUsed\",\"backup\""), std::string::npos);
    EXPECT_EQ(store({"restore", "--from", file, "--store", "lmdb:" + (folder_ / "again")}).code, 73)
        << "a store must not be replaced";
    EXPECT_EQ(store({"restore", "--from", folder_ / "no", "--store", "lmdb:" + (folder_ / "x")}).code, 66);
}

TEST_F(StoreTest, PruneRemovesWhatIsOlderAndSaysSoInTheTrail) {
    const std::vector<std::string> prune{
        "prune", "--store", central(), "--log", "interaction", "--before", "2022-06-01T10:00:00Z"};
    std::vector<std::string> dry = prune;
    dry.insert(dry.end(), {"--dry-run", "--json"});
    EXPECT_EQ(store(dry).out, "{\"found\":2,\"removed\":0}\n");
    EXPECT_EQ(count(listed(central()), "\n"), 5);
    std::vector<std::string> wet = prune;
    wet.push_back("--json");
    EXPECT_EQ(store(wet).out, "{\"found\":2,\"removed\":2}\n");
    EXPECT_EQ(listed(central()).rfind("2022-06-01T10:00:00.000000Z ", 0), 0u) << "the time itself stays";
    EXPECT_NE(listed(central(), "audit").find("\"AuditLogUsed\",\"prune\",\"interaction\""),
              std::string::npos);
}

TEST_F(StoreTest, PruneNeedsALogAndATimeOfThePastAndRefusesAQueue) {
    EXPECT_EQ(store({"prune", "--store", central(), "--before", "2021"}).code, 64);
    EXPECT_EQ(store({"prune", "--store", central(), "--log", "audit"}).code, 64);
    EXPECT_EQ(store({"prune", "--store", central(), "--log", "audit", "--before", "2999"}).code, 64);
    EXPECT_EQ(store({"prune", "--store", queue(), "--log", "interaction", "--before", "2021"}).code, 78);
    EXPECT_NE(listed(queue()).find("[\"Waiting\"]"), std::string::npos);
}

TEST_F(StoreTest, CopyHoldsEveryEvent) {
    const test::ProgramResult result =
        store({"copy", "--from", central(), "--to", "lmdb:" + (folder_ / "copy")});
    ASSERT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(listed("lmdb:" + (folder_ / "copy")), listed(central()));
}

TEST_F(StoreTest, WhatIsNoStoreIsRefused) {
    EXPECT_EQ(store({"info", "--store", "lmdb:" + (folder_ / "no")}).code, 66);
    EXPECT_EQ(store({"info", "--store", folder_ / "no"}).code, 64);
    EXPECT_EQ(store({"backup", "--store", "elsewhere", "--out", folder_ / "x"}).code, 64);
    EXPECT_EQ(store({"nothing"}).code, 64);
}

}  // namespace
}  // namespace qel::programs
