#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "postgres/system/SharedSite.h"
#include "qelCore/ItemStore.h"

namespace qel::test {
namespace {

class SharedDatabase : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { server_ = std::make_unique<PostgresServer>(); }
    static void TearDownTestSuite() { server_.reset(); }

    void SetUp() override {
        static int number = 0;
        schema_ = "site" + std::to_string(++number);
        url_ = server_->storeUrl(schema_);
    }
    std::string sql(const std::string& text) {
        return server_->sql("SET search_path = " + schema_ + "; " + text);
    }
    ProcessResult run(std::vector<std::string> arguments) {
        return audit(folder_.path(), std::move(arguments));
    }
    /// Waits until that holds of a program in the midst of its work, which stands still whenever it is asked: asking takes
    /// longer than the work may. Leaves it standing still.
    static bool standsStillWhen(const Process& process, const std::function<bool()>& condition) {
        return waitFor(
            [&] {
                process.signal(SIGSTOP);
                if (condition())
                    return true;
                process.signal(SIGCONT);
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
                return false;
            },
            std::chrono::seconds(120));
    }
    std::vector<std::string> lines() { return exportLines(folder_.path(), url_, "interaction"); }
    int forward(const Workstation& workstation) {
        return run({"forward", "--config", workstation.config(), "--once"}).code;
    }

    static void holdCommits(const std::string& standby) {
        server_->sql("ALTER SYSTEM SET synchronous_standby_names = '" + standby + "'");
        server_->sql("SELECT pg_reload_conf()");
    }

    static std::unique_ptr<PostgresServer> server_;
    TemporaryFolder folder_;
    std::string schema_;
    std::string url_;
};

std::unique_ptr<PostgresServer> SharedDatabase::server_;

TEST_F(SharedDatabase, EventsTravelFromTheQueueIntoAReport) {
    SharedDaemon daemon(folder_.path(), "one", url_);
    ASSERT_TRUE(daemon.start()) << daemon.log();
    const Workstation anna = enrollFor(folder_.path(), daemon, "anna", {&daemon});
    record(folder_.path(), anna, 0, 500);
    ASSERT_EQ(run({"record", "--config", anna.config(), "--log", "audit", "SeriesOpened", "1.2.3"}).code, 0);
    ASSERT_EQ(forward(anna), 0);
    EXPECT_EQ(lines().size(), 500U);
    EXPECT_EQ(daemon.get("/-/ready"), "ready\n\n");
    // Nothing is known of the database's disks, and no alert about a full one may fire.
    const std::string metrics = daemon.get("/metrics");
    EXPECT_NE(metrics.find("qel_store_used_bytes"), std::string::npos);
    EXPECT_EQ(metrics.find("qel_store_disk_free_bytes"), std::string::npos);
    const std::string interaction = folder_ / "exported.csv";
    const std::string trail = folder_ / "audit.csv";
    ASSERT_EQ(
        run({"export", "--store", url_, "--log", "audit", "--from", "1971", "--to", "2200", "--out", trail})
            .code,
        0);
    const ProcessResult report =
        run({"report", "usage", "--interaction", interaction, "--audit", trail, "--out", folder_ / "report"});
    EXPECT_EQ(report.code, 0) << report.err;
    daemon.process().signal(SIGTERM);
    EXPECT_EQ(daemon.process().wait(std::chrono::seconds(30)), 0) << daemon.log();
}

TEST_F(SharedDatabase, ToolsWorkOnIt) {
    SharedDaemon daemon(folder_.path(), "one", url_);
    ASSERT_TRUE(daemon.start()) << daemon.log();
    const Workstation anna = enrollFor(folder_.path(), daemon, "anna", {&daemon});
    record(folder_.path(), anna, 0, 300);
    ASSERT_EQ(forward(anna), 0);
    const ProcessResult info = run({"store", "info", "--store", url_, "--json"});
    EXPECT_EQ(info.code, 0) << info.err;
    EXPECT_NE(info.out.find("\"count\""), std::string::npos);
    EXPECT_EQ(run({"store", "verify", "--store", url_}).code, 0);
    const std::string moved = "lmdb:" + (folder_ / "moved");
    const ProcessResult copied = run({"store", "copy", "--from", url_, "--to", moved});
    ASSERT_EQ(copied.code, 0) << copied.err;
    EXPECT_EQ(exportLines(folder_.path(), moved, "interaction").size(), 300U);
    const ProcessResult pruned =
        run({"store", "prune", "--store", url_, "--log", "interaction", "--before", "2020"});
    EXPECT_EQ(pruned.code, 0) << pruned.err;
    EXPECT_EQ(lines().size(), 300U);
    EXPECT_EQ(run({"store", "backup", "--store", url_, "--out", folder_ / "backup"}).code, 64);
}

TEST_F(SharedDatabase, ACopyThatIsKilledGoesOnWhenItIsRunAgain) {
    constexpr int entries = 120000;
    const std::string source = "lmdb:" + (folder_ / "source");
    {
        std::string reason;
        const auto store = ItemStore::open(source, {}, reason);
        ASSERT_NE(store, nullptr) << reason;
        WriteBatch batch(store.get());
        Item at;
        at.addString("log");
        for (long long i = 0; i < entries; ++i) {
            Item key = at;
            key.addInteger(i);
            ASSERT_TRUE(store->store(key, key.bytes()));
        }
        ASSERT_TRUE(batch.commit().durable);
    }
    const auto stored = [&] {
        return std::atoi(sql("SELECT count(*) FROM qel_items WHERE get_byte(key, 0) <> 2").c_str());
    };
    const std::vector<std::string> command{
        program("qel-audit"), "store", "copy", "--json", "--from", source, "--to", url_};
    ASSERT_EQ(sql("SELECT to_regclass('qel_items') IS NULL"), "t\n");
    Process copying(command, folder_.path(), "copy");
    // The record of how far it has come follows the entries.
    ASSERT_TRUE(standsStillWhen(copying, [&] {
        return sql("SELECT to_regclass('qel_items') IS NOT NULL") == "t\n" && stored() > 0 &&
               sql("SELECT count(*) FROM qel_items WHERE key = '\\x026d'") == "1\n";
    }));
    copying.kill();
    const int before = stored();
    EXPECT_LT(before, entries);
    const ProcessResult done = runProgram(command, folder_.path(), std::chrono::seconds(120));
    EXPECT_EQ(done.code, 0) << done.err;
    EXPECT_NE(done.out.find("\"resumed\":true"), std::string::npos) << done.out;
    EXPECT_EQ(done.out.find("\"copied\":" + std::to_string(entries)), std::string::npos) << done.out;
    EXPECT_NE(done.out.find("\"entries\":" + std::to_string(entries)), std::string::npos) << done.out;
    EXPECT_EQ(stored(), entries);
    sql("UPDATE qel_items SET value = '\\x0c' WHERE key = (SELECT key FROM qel_items ORDER BY key DESC LIMIT "
        "1)");
    const ProcessResult differs = runProgram(command, folder_.path(), std::chrono::seconds(120));
    EXPECT_EQ(differs.code, 1) << differs.out;
    EXPECT_NE(differs.out.find("\"differing\":1"), std::string::npos) << differs.out;
    const ProcessResult away = audit(folder_.path(), {"store", "copy", "--from", source, "--to",
                                                      "postgresql://qel@localhost:1/x?sslmode=disable"});
    EXPECT_EQ(away.code, 69) << away.err;
}

// A file that ends where the connection did would pass for the whole log.
TEST_F(SharedDatabase, ExportsWhoseSnapshotIsLostLeaveNoFile) {
    SharedDaemon daemon(folder_.path(), "one", url_);
    ASSERT_TRUE(daemon.start()) << daemon.log();
    // Enough to be at it for a while.
    {
        std::string reason;
        const auto store = ItemStore::open(url_, {}, reason);
        ASSERT_NE(store, nullptr) << reason;
        StoreLog log;
        ASSERT_TRUE(store->findLog("interaction", log));
        Item value;
        for (const char* const text : {"anna", "pc", "Event"})
            value.addString(text);
        WriteBatch batch(store.get());
        for (long long i = 0; i < 300000; ++i) {
            Item last;
            last.addInteger(1700000000000000 + i);
            last.addInteger(1);
            Item at = log.path;
            at.addItem(last);
            ASSERT_TRUE(store->store(at, value.bytes()));
        }
        ASSERT_TRUE(batch.commit().durable);
    }
    const std::string file = folder_ / "exported.csv";
    Process exporting({program("qel-audit"), "export", "--store", url_, "--log", "interaction", "--from",
                       "1971", "--to", "2200", "--out", file},
                      folder_.path(), "export");
    EXPECT_TRUE(standsStillWhen(exporting, [&] {
        return sql("SELECT count(pg_terminate_backend(pid, 5000)) FROM pg_stat_activity WHERE "
                   "application_name = 'qel' AND backend_xmin IS NOT NULL AND state = 'idle in "
                   "transaction'") != "0\n";
    }));
    exporting.signal(SIGCONT);
    EXPECT_EQ(exporting.wait(std::chrono::seconds(60)), 74) << exporting.err();
    EXPECT_NE(exporting.err().find("could not be read to its end"), std::string::npos) << exporting.err();
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_FALSE(std::filesystem::exists(file + ".part"));
}

TEST_F(SharedDatabase, DoctorFindsTheStoreWellAndTellsWhenItIsAway) {
    SharedDaemon daemon(folder_.path(), "one", url_);
    ASSERT_TRUE(daemon.start()) << daemon.log();
    const ProcessResult well = run({"doctor", "--config", daemon.config()});
    EXPECT_EQ((well.out + well.err).find("disk"), std::string::npos) << well.out << well.err;
    EXPECT_EQ((well.out + well.err).find("the database"), std::string::npos) << well.out << well.err;
    setKey(daemon.config(), "url", "\"postgresql://qel@localhost:1/postgres?sslmode=disable\"");
    const ProcessResult away = run({"doctor", "--config", daemon.config()});
    EXPECT_EQ(away.code, 1);
    EXPECT_NE((away.out + away.err).find("start the database"), std::string::npos) << away.out << away.err;
}

TEST_F(SharedDatabase, DaemonWithAnotherSiteKeyIsRefused) {
    SharedDaemon one(folder_.path(), "one", url_);
    SharedDaemon stranger(folder_.path(), "stranger", url_);
    ASSERT_TRUE(one.start()) << one.log();
    EXPECT_FALSE(stranger.start());
    EXPECT_EQ(stranger.process().wait(std::chrono::seconds(10)), 78);
    EXPECT_NE(stranger.log().find("belongs to the site key"), std::string::npos) << stranger.log();
}

TEST_F(SharedDatabase, PasswordAppearsNeitherInLogsNorInListsOfProcesses) {
    SharedDaemon daemon(folder_.path(), "one", url_);
    ASSERT_TRUE(daemon.start()) << daemon.log();
    EXPECT_EQ(daemon.log().find("only for tests"), std::string::npos);
    const std::string process = "/proc/" + std::to_string(daemon.process().pid());
    EXPECT_EQ(TemporaryFolder::read(process + "/cmdline").find("only for tests"), std::string::npos);
    EXPECT_EQ(TemporaryFolder::read(process + "/environ").find("only for tests"), std::string::npos);
}

// The records are in the database, the acknowledgements never leave: the workstation sends again, to the other daemon. A
// standby that is not there holds a commit up between its durability and its answer.
TEST_F(SharedDatabase, RetransmissionToTheOtherDaemonLeavesOneRecord) {
    SharedDaemon one(folder_.path(), "one", url_);
    SharedDaemon two(folder_.path(), "two", url_, &one);
    ASSERT_TRUE(one.start()) << one.log();
    ASSERT_TRUE(two.start()) << two.log();
    const Workstation anna = enrollFor(folder_.path(), one, "anna", {&one, &two});
    record(folder_.path(), anna, 0, 40);
    const std::string count = "SELECT count(*) FROM qel_items WHERE get_byte(key, 0) <> 2";
    EXPECT_EQ(sql(count), "0\n");
    holdCommits("nobody");
    Process agent({program("qel-audit"), "forward", "--config", anna.config(), "--once"}, folder_.path(),
                  "agent");
    ASSERT_TRUE(waitFor([&] {
        return server_->sql("SELECT count(*) FROM pg_stat_activity WHERE wait_event = 'SyncRep'") != "0\n";
    }));
    // A database that answers nothing is told soon, too.
    EXPECT_NE(two.get("/-/ready").find("did not commit within 2000 milliseconds"), std::string::npos);
    one.process().kill();
    holdCommits("");
    ASSERT_TRUE(waitFor([&] { return sql(count) != "0\n"; }));
    if (agent.wait(std::chrono::seconds(60)) != 0) {
        EXPECT_EQ(forward(anna), 0) << agent.err();
    }
    EXPECT_EQ(lines().size(), 40U);
    EXPECT_EQ(two.get("/metrics").find("qel_events_retransmitted_total{log=\"interaction\"} 0"),
              std::string::npos);
}

// One identity on two machines, and one time: what came through the first daemon does not vanish under what comes through
// the second a moment later.
TEST_F(SharedDatabase, OtherContentThroughTheOtherDaemonIsKeptAside) {
    SharedDaemon one(folder_.path(), "one", url_);
    SharedDaemon two(folder_.path(), "two", url_, &one);
    ASSERT_TRUE(one.start()) << one.log();
    ASSERT_TRUE(two.start()) << two.log();
    const Workstation anna = enrollFor(folder_.path(), one, "anna", {&one});
    const Workstation doubled{folder_ / "doubled"};
    std::filesystem::copy(anna.folder, doubled.folder);
    setKey(doubled.config(), "address", "\"" + two.address() + "\"");
    for (const auto& [workstation, name] : {std::pair(&anna, "First"), std::pair(&doubled, "Second")}) {
        std::ofstream(workstation->folder + "/events")
            << R"({"time":"2026-03-01T08:00:00Z","event":[")" << name << "\"]}\n";
        ASSERT_EQ(run({"record", "--config", workstation->config(), "--log", "interaction", "--replay",
                       "--from", workstation->folder + "/events"})
                      .code,
                  0);
    }
    Process other({program("qel-audit"), "forward", "--config", doubled.config(), "--once"}, folder_.path(),
                  "doubled");
    EXPECT_EQ(forward(anna), 0);
    EXPECT_EQ(other.wait(std::chrono::seconds(60)), 0) << other.err();
    const auto found = lines();
    ASSERT_EQ(found.size(), 1U);
    const bool secondStands = found[0].find("Second") != std::string::npos;
    const std::string kept = secondStands ? "First" : "Second";
    EXPECT_EQ(sql("SELECT count(*) FROM qel_items WHERE position('" + kept +
                  "'::bytea in value) > 0 AND "
                  "position('overwritten'::bytea in key) > 0"),
              "1\n");
    const std::string metrics = one.get("/metrics") + two.get("/metrics");
    EXPECT_NE(metrics.find("qel_events_overwritten_total{log=\"interaction\"} 1"), std::string::npos);
    EXPECT_NE((one.log() + two.log()).find("the older one is kept aside"), std::string::npos);
}

}  // namespace
}  // namespace qel::test
