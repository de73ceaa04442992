#include "qelCore/StoreTools.h"

#include <lmdb.h>
#include <sys/stat.h>

#include <filesystem>
#include <thread>
#include <vector>

#include "support/StoreFixture.h"

using namespace qel;
using namespace qel::test;

namespace {

class Tools : public StoreTest {
  protected:
    void fill(long long count) {
        WriteBatch batch;
        for (long long i = 0; i < count; ++i)
            write(key(path("log"), i), "value " + std::to_string(i));
        ASSERT_TRUE(batch.commit().durable);
    }
    std::unique_ptr<ItemStore> other(const std::string& name) {
        std::string reason;
        auto store = ItemStore::open(storeUrlOf()(folder_ / name), {}, reason);
        EXPECT_NE(store, nullptr) << reason;
        return store;
    }
    // Puts bytes into the store's file that no item operation would.
    void plant(const std::string& rawKey, const std::string& rawValue) {
        close();
        MDB_env* environment = nullptr;
        mdb_env_create(&environment);
        mdb_env_set_mapsize(environment, 1 << 26);
        ASSERT_EQ(mdb_env_open(environment, (folder_ / "store").c_str(), 0, 0660), 0);
        MDB_txn* transaction = nullptr;
        ASSERT_EQ(mdb_txn_begin(environment, nullptr, 0, &transaction), 0);
        MDB_dbi database = 0;
        ASSERT_EQ(mdb_dbi_open(transaction, nullptr, 0, &database), 0);
        MDB_val atKey{rawKey.size(), const_cast<char*>(rawKey.data())};
        MDB_val value{rawValue.size(), const_cast<char*>(rawValue.data())};
        ASSERT_EQ(mdb_put(transaction, database, &atKey, &value, 0), 0);
        ASSERT_EQ(mdb_txn_commit(transaction), 0);
        mdb_env_close(environment);
    }
    std::vector<std::string> faults() {
        std::vector<std::string> out;
        outcome_ = StoreTools::verify(*store_, [&](const std::string& at, const std::string& sentence) {
            out.push_back(at + ": " + sentence);
        });
        return out;
    }

    StoreTools::Outcome outcome_;
};

// Damaged pages, and copies as a file, are the embedded engine's.
using EmbeddedTools = Tools;

}  // namespace

TEST_F(Tools, VerifyReadsEveryEntry) {
    fill(5000);
    EXPECT_TRUE(faults().empty());
    EXPECT_EQ(outcome_.entries, 5000U);
    EXPECT_TRUE(outcome_.result.durable);
}

TEST_F(EmbeddedTools, VerifyNamesTheDamagedPlace) {
    fill(3);
    plant(std::string("\x28log\0\x19\x63", 7), "\x28 no end");
    plant(std::string("\x28nokey", 6), std::string("\x18", 1));
    reopen();
    const auto found = faults();
    ASSERT_EQ(found.size(), 2U);
    EXPECT_EQ(found[0], "[\"log\",99]: the value of 8 bytes does not decode");
    EXPECT_EQ(found[1], "[<malformed: 6 bytes>]: the key does not decode");
}

TEST_F(Tools, VerifyStopsWhenAsked) {
    fill(10000);
    const auto outcome = StoreTools::verify(*store_, {}, [](std::uint64_t done) { return done < 5000; });
    EXPECT_TRUE(outcome.stopped);
    EXPECT_LT(outcome.entries, 10000U);
}

TEST_F(EmbeddedTools, CutBackupIsRefusedAndLeavesNothing) {
    fill(5000);
    const std::string file = folder_ / "copy";
    ASSERT_TRUE(StoreTools::backup(*store_, file, false).durable);
    std::filesystem::resize_file(file, std::filesystem::file_size(file) / 2);
    const CommitResult restored = StoreTools::restore(file, folder_ / "restored");
    EXPECT_FALSE(restored.durable);
    EXPECT_EQ(restored.reason.rfind("the backup " + file + " lacks ", 0), 0U) << restored.reason;
    EXPECT_FALSE(std::filesystem::exists(folder_ / "restored"));
}

TEST_F(EmbeddedTools, BackupNeverTakesThePlaceOfAPipeOrADevice) {
    fill(3);
    const std::string pipe = folder_ / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const CommitResult result = StoreTools::backup(*store_, pipe, false);
    EXPECT_FALSE(result.durable);
    EXPECT_EQ(result.reason, "cannot replace " + pipe + " by a backup: it is no regular file");
    EXPECT_TRUE(std::filesystem::is_fifo(pipe));
}

TEST_F(EmbeddedTools, BackupIsRestoredElsewhere) {
    fill(2000);
    store_->setSite("site");
    ASSERT_TRUE(store_->setLog({"audit", path("log"), StoreLog::Kind::central, false}).durable);
    for (const bool compact : {false, true}) {
        const std::string file = folder_ / "copy";
        ASSERT_TRUE(StoreTools::backup(*store_, file, compact).durable);
        const std::string target = folder_ / (compact ? "compact" : "plain");
        ASSERT_TRUE(StoreTools::restore(file, target).durable);
        const auto restored = other(compact ? "compact" : "plain");
        EXPECT_EQ(restored->identity().site, "site");
        EXPECT_EQ(restored->logs().size(), 1U);
        EXPECT_EQ(StoreTools::verify(*restored, {}).entries, 2000U);
    }
}

TEST_F(EmbeddedTools, BackupIsOneMomentWhileOthersWrite) {
    fill(1000);
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        // The two always move together, so a copy in which they differ is none of a moment.
        for (long long i = 0; !stop; ++i) {
            WriteBatch batch;
            write(path("left"), std::to_string(i));
            write(path("right"), std::to_string(i));
            batch.commit();
        }
    });
    for (int i = 0; i < 5; ++i) {
        const std::string name = "moment" + std::to_string(i);
        ASSERT_TRUE(StoreTools::backup(*store_, folder_ / "copy", i % 2 == 0).durable);
        ASSERT_TRUE(StoreTools::restore(folder_ / "copy", folder_ / name).durable);
        const auto restored = other(name);
        const std::string left(restored->fetch(path("left")).view());
        EXPECT_EQ(restored->fetch(path("right")).view(), left);
    }
    stop = true;
    writer.join();
}

TEST_F(EmbeddedTools, RestoreOverAStoreOrFromRubbishIsRefused) {
    fill(1);
    ASSERT_TRUE(StoreTools::backup(*store_, folder_ / "copy", true).durable);
    EXPECT_NE(StoreTools::restore(folder_ / "copy", store_->path()).reason.find("holds a store already"),
              std::string::npos);
    EXPECT_NE(StoreTools::restore(folder_ / "none", folder_ / "new").reason.find("cannot read"),
              std::string::npos);
    folder_.write("rubbish", std::string(50000, 'r'));
    EXPECT_FALSE(StoreTools::restore(folder_ / "rubbish", folder_ / "new").durable);
    EXPECT_NE(access((folder_ / "new").c_str(), F_OK), 0);
}

TEST_F(Tools, CopyTakesEverythingAlong) {
    fill(3000);
    std::string reason;
    ASSERT_TRUE(store_->bindSiteKey("ab", reason));
    ASSERT_TRUE(store_->setLog({"audit", path("log"), StoreLog::Kind::central, true}).durable);
    const auto target = other("target");
    const auto outcome = StoreTools::copy(*store_, *target);
    EXPECT_TRUE(outcome.result.durable) << outcome.result.reason;
    EXPECT_TRUE(outcome.isSame());
    EXPECT_EQ(outcome.entries, 3000U);
    EXPECT_EQ(outcome.added, 3000U);
    EXPECT_EQ(target->identity().siteKeyFingerprint, "ab");
    EXPECT_TRUE(target->logs().at(0).anonymous);
    EXPECT_EQ(target->fetch(key(path("log"), 2999)).view(), text("value 2999").bytes().view());
    const auto foreign = other("foreign");
    ASSERT_TRUE(foreign->bindSiteKey("cd", reason));
    EXPECT_FALSE(StoreTools::copy(*store_, *foreign).result.durable);
}

TEST_F(Tools, CopyThatWasCutOffGoesOnBehindWhatIsDurable) {
    fill(40000);
    const auto target = other("target");
    const auto stopped = StoreTools::copy(*store_, *target, {}, [](std::uint64_t) { return false; });
    EXPECT_TRUE(stopped.stopped);
    EXPECT_GT(stopped.added, 0U);
    EXPECT_LT(stopped.added, 40000U);
    // What comes before the place where it goes on is found at the end.
    write(key(path("log"), -1), "late");
    const auto outcome = StoreTools::copy(*store_, *target);
    EXPECT_TRUE(outcome.resumed);
    EXPECT_EQ(outcome.added, 40001U - stopped.added);
    EXPECT_EQ(outcome.entries, 40001U);
    EXPECT_TRUE(outcome.isSame());
    const auto again = StoreTools::copy(*store_, *target);
    EXPECT_FALSE(again.resumed) << "a whole copy leaves no mark";
    EXPECT_EQ(again.added, 0U);
    EXPECT_EQ(again.checksum, outcome.checksum);
}

TEST_F(Tools, MarkOfAnotherSourceIsNotFollowed) {
    fill(40000);
    const auto target = other("target");
    ASSERT_TRUE(StoreTools::copy(*store_, *target, {}, [](std::uint64_t) { return false; }).stopped);
    const auto second = other("second");
    ASSERT_TRUE(second->store(key(path("other"), 1), text("v").bytes()));
    EXPECT_FALSE(StoreTools::copy(*second, *target).resumed);
}

TEST_F(Tools, CopyTellsWhatDiffersAndLeavesItAlone) {
    fill(20);
    const auto target = other("target");
    ASSERT_TRUE(target->store(key(path("log"), 5), text("their own").bytes()));
    ASSERT_TRUE(target->store(key(path("log"), 7), text("value 7").bytes()));
    ASSERT_TRUE(target->store(key(path("log"), 100), text("more").bytes()));
    std::vector<std::string> told;
    const auto outcome = StoreTools::copy(
        *store_, *target,
        [&](const std::string& at, const std::string& sentence) { told.push_back(at + " " + sentence); });
    EXPECT_TRUE(outcome.result.durable);
    EXPECT_FALSE(outcome.isSame());
    EXPECT_NE(outcome.checksum, outcome.targetChecksum);
    EXPECT_EQ(outcome.added, 18U);
    EXPECT_EQ(outcome.differing, 1U);
    EXPECT_EQ(outcome.extra, 1U);
    ASSERT_EQ(told.size(), 2U);
    EXPECT_EQ(told[0], "[\"log\",5] has other content at the target, which was left as it is");
    EXPECT_EQ(told[1], "[\"log\",100] is at the target only");
    EXPECT_EQ(target->fetch(key(path("log"), 5)).view(), text("their own").bytes().view());
}

TEST_F(Tools, CopyIsRefusedWhereALogOfThatNameLiesElsewhere) {
    fill(3);
    ASSERT_TRUE(store_->setLog({"audit", path("log"), StoreLog::Kind::central, false}).durable);
    const auto target = other("target");
    ASSERT_TRUE(target->setLog({"audit", path("elsewhere"), StoreLog::Kind::central, false}).durable);
    const auto outcome = StoreTools::copy(*store_, *target);
    EXPECT_NE(outcome.result.reason.find("another log by the name \"audit\", at [\"elsewhere\"]"),
              std::string::npos)
        << outcome.result.reason;
    EXPECT_TRUE(target->fetch(key(path("log"), 1)).isNull());
}

TEST_F(Tools, SourceMayBeWrittenWhileItIsCopied) {
    fill(20000);
    const auto target = other("target");
    std::uint64_t last = 0;
    const auto outcome = StoreTools::copy(*store_, *target, {}, [&](std::uint64_t done) {
        for (std::uint64_t i = last; i < done; i += 1000)
            write(key(path("more"), static_cast<long long>(i)), "meanwhile");
        last = done;
        return true;
    });
    EXPECT_TRUE(outcome.result.durable);
    EXPECT_TRUE(outcome.isSame());
    EXPECT_GE(outcome.entries, 20000U);
}

TEST_F(EmbeddedTools, StoreOfANewerFormatIsRefused) {
    Item identity;
    identity.addInteger(2);
    identity.addInteger(0);
    plant(std::string("\x02i", 2), std::string(identity.bytes().view()));
    std::string reason;
    EXPECT_EQ(ItemStore::open(url(), {}, reason), nullptr);
    EXPECT_NE(reason.find("has format 2; this version reads formats up to 1"), std::string::npos) << reason;
}

TEST_F(EmbeddedTools, AForeignDatabaseIsRefused) {
    close();
    std::filesystem::remove_all(folder_ / "store");
    mkdir((folder_ / "store").c_str(), 0700);
    plant("foreign key", "foreign value");
    std::string reason;
    EXPECT_EQ(ItemStore::open(url(), {}, reason), nullptr);
    EXPECT_NE(reason.find("hold no store of this system"), std::string::npos) << reason;
}
