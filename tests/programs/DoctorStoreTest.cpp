#include <lmdb.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include "SiteFixture.h"
#include "qelCore/ItemStore.h"

namespace qel::programs {
namespace {

/// Faults of stores and clocks, planted one at a time in a site that is well.
class DoctorStoreTest : public SiteFixture {
  protected:
    std::string queue() { return workstation("anna") + "/queue"; }
    std::string daemonConfig() const { return site() + "/qel-auditd.toml"; }

    void beWell() {
        serve();
        ASSERT_EQ(record("anna", "[\"A\"]\n").code, 0);
        ASSERT_EQ(forward("anna").code, 0);
        edit(daemonConfig(), "listen = \"127.0.0.1:0\"", "listen = \"127.0.0.1:" + port_ + '"');
    }
    std::string doctor(const std::string& file) {
        const test::ProgramResult result =
            audit({"doctor", "--config", file, "--quiet", "--least-free", "1"});
        EXPECT_EQ(result.code, result.out.empty() ? 0 : 1) << result.out << result.err;
        return result.out;
    }
    void expectFault(const std::string& found, const std::string& cause, const std::string& cure) {
        EXPECT_NE(found.find(cause), std::string::npos) << found;
        EXPECT_NE(found.find("Cure: " + cure), std::string::npos) << found;
    }

    /// Writes another format number into the record that stands before all others.
    static void claimFormat(const std::string& folder, long long format) {
        MDB_env* environment = nullptr;
        MDB_txn* transaction = nullptr;
        MDB_cursor* cursor = nullptr;
        MDB_dbi table = 0;
        MDB_val key{};
        MDB_val value{};
        ASSERT_EQ(mdb_env_create(&environment), 0);
        ASSERT_EQ(mdb_env_set_mapsize(environment, std::size_t{1} << 30), 0);
        ASSERT_EQ(mdb_env_open(environment, folder.c_str(), 0, 0660), 0);
        ASSERT_EQ(mdb_txn_begin(environment, nullptr, 0, &transaction), 0);
        ASSERT_EQ(mdb_dbi_open(transaction, nullptr, 0, &table), 0);
        ASSERT_EQ(mdb_cursor_open(transaction, table, &cursor), 0);
        ASSERT_EQ(mdb_cursor_get(cursor, &key, &value, MDB_FIRST), 0);
        bool found = false;
        do {
            Item::Iterator old({static_cast<const unsigned char*>(value.mv_data), value.mv_size});
            long long number = 0;
            long long created = 0;
            if (!old.decodeElementAsInteger(number) || number != 1 || !old.decodeElementAsInteger(created))
                continue;
            Item record;
            record.addInteger(format);
            record.addInteger(created);
            Item rest;
            rest.setPlain(old.rest());
            record.concatItem(rest);
            const std::string bytes(reinterpret_cast<const char*>(record.data()), record.size());
            MDB_val fresh{bytes.size(), const_cast<char*>(bytes.data())};
            ASSERT_EQ(mdb_cursor_put(cursor, &key, &fresh, MDB_CURRENT), 0);
            found = true;
        } while (!found && mdb_cursor_get(cursor, &key, &value, MDB_NEXT) == 0);
        EXPECT_TRUE(found);
        mdb_cursor_close(cursor);
        ASSERT_EQ(mdb_txn_commit(transaction), 0);
        mdb_env_close(environment);
    }
};

TEST_F(DoctorStoreTest, StoreOfANewerVersion) {
    beWell();
    claimFormat(queue(), 9);
    expectFault(doctor(config("anna")), "has format 9; this version reads formats up to 1",
                "use the version of the programs that wrote the store");
}

TEST_F(DoctorStoreTest, FolderThatHoldsNoStoreOfThisSystem) {
    beWell();
    std::filesystem::remove_all(queue());
    std::filesystem::create_directory(queue());
    std::ofstream(queue() + "/data.mdb") << std::string(100000, 'x');
    expectFault(doctor(config("anna")), queue(),
                "name the right store in [store] url, or bring a backup back");
}

TEST_F(DoctorStoreTest, LogsAndAQueueThatNobodyHasBound) {
    beWell();
    stop();
    for (const std::string& folder : {queue(), site() + "/store"}) {
        std::filesystem::remove_all(folder);
        std::string reason;
        ASSERT_TRUE(ItemStore::open("lmdb:" + folder, StoreOptions(), reason)) << reason;
    }
    const std::string central = doctor(daemonConfig());
    expectFault(central, "the store knows no log \"audit\"",
                "start the program with this configuration once");
    expectFault(central, "the store knows no log \"interaction\"", "start the program with");
    expectFault(doctor(config("anna")), "is not bound to an identity yet",
                "give each identity a queue of its own");
}

TEST_F(DoctorStoreTest, GroupsThatAreAFolder) {
    beWell();
    const test::ProgramResult result = audit(
        {"doctor", "--config", config("anna"), "--quiet", "--least-free", "1", "--groups", folder_.path()});
    EXPECT_EQ(result.code, 1);
    expectFault(result.out, folder_.path() + ": Is a directory", "write one user;group1;group2 per line");
}

TEST_F(DoctorStoreTest, SecondAgentOnOneQueueIsToldWhoTheFirstIs) {
    beWell();
    test::Program agent({QEL_PROGRAMS_DIR "/qel-audit", "forward", "--config", config("anna")});
    ASSERT_TRUE(agent.waitFor("connected to ")) << agent.err();
    const test::ProgramResult second = audit({"forward", "--config", config("anna")});
    EXPECT_EQ(second.code, 75);
    EXPECT_NE(second.err.find("forwards the queue in " + queue() + " already"), std::string::npos)
        << second.err;
    agent.signal(SIGTERM);
    EXPECT_EQ(agent.wait().code, 0);
}

#ifdef QEL_SHIFTED_CLOCK
TEST_F(DoctorStoreTest, ClockThatIsMinutesAway) {
    beWell();
    ::setenv("LD_PRELOAD", QEL_SHIFTED_CLOCK, 1);
    ::setenv("QEL_CLOCK_SHIFT", "300", 1);
    const std::string ahead = doctor(config("anna"));
    ::setenv("QEL_CLOCK_SHIFT", "-600", 1);
    const std::string behind = doctor(config("anna"));
    ::unsetenv("LD_PRELOAD");
    ::unsetenv("QEL_CLOCK_SHIFT");
    const std::string cure = "set the clocks of both machines by a time service";
    for (const auto& [found, seconds] : {std::pair(ahead, 300), std::pair(behind, 600)}) {
        const std::string differs = "this machine's clock differs from the service's by ";
        expectFault(found, differs, cure);
        const std::size_t at = found.find(differs);
        ASSERT_NE(at, std::string::npos) << found;
        // The two looks at this clock enclose the one at the other: what lies between them may be lost.
        const int told = std::atoi(found.c_str() + at + differs.size());
        EXPECT_LE(told, seconds) << found;
        EXPECT_GE(told, seconds - 30) << found;
    }
    expectFault(behind, "the last event's time is ", "set the clock of this machine by a time service");
}
#endif

}  // namespace
}  // namespace qel::programs
