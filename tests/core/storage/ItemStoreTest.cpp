#include "qelCore/ItemStore.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "qelCore/logging/CaptureSink.h"
#include "storage/StoreFolder.h"
#include "support/KeepingGuard.h"
#include "support/StoreFixture.h"

using namespace qel;
using namespace qel::test;

namespace {

using Store = StoreTest;
// What only the embedded engine has: files, a map, one environment per process.
using EmbeddedStore = StoreTest;

std::string openFailure(const std::string& url, StoreOptions options = {}) {
    std::string reason;
    const auto store = ItemStore::open(url, options, reason);
    return store != nullptr ? "(opened)" : reason;
}

bool contains(const std::string& text, const char* part) {
    return text.find(part) != std::string::npos;
}

}  // namespace

TEST_F(Store, KeepsValuesOverReopening) {
    write(key(path("log"), 1), "one");
    write(key(path("log"), 1), "uno");
    write(key(path("log"), 2), "two");
    key(path("log"), 2).remove();
    reopen();
    EXPECT_EQ(read(key(path("log"), 1)), "uno");
    EXPECT_EQ(read(key(path("log"), 2)), "(null)");
}

TEST_F(Store, GuardIsToldWhatAWriteMeetsAndKeepsIt) {
    const auto guard = std::make_shared<KeepingGuard>();
    const auto record = [&](const char* value) {
        WriteBatch batch;
        store_->store(path("key"), text(value).bytes(), guard);
        return batch.commit().durable;
    };
    EXPECT_TRUE(record("older"));
    EXPECT_EQ(guard->told(), "");
    EXPECT_TRUE(record("older"));
    EXPECT_EQ(guard->told(), "repeated ");
    EXPECT_TRUE(record("newer"));
    EXPECT_EQ(guard->told(), "repeated replaced ");
    EXPECT_EQ(read(path("key")), "newer");
    EXPECT_EQ(read(key(path("kept"), 0)), "older");
    EXPECT_TRUE(key(path("kept"), 1).fetch().isNull());
}

TEST_F(Store, GuardIsToldOfWritesOfOneBatch) {
    const auto guard = std::make_shared<KeepingGuard>();
    {
        WriteBatch batch;
        for (const char* const value : {"first", "second", "second", "third"})
            store_->store(path("key"), text(value).bytes(), guard);
        ASSERT_TRUE(batch.commit().durable);
    }
    EXPECT_EQ(read(path("key")), "third");
    const std::set<std::string> kept{read(key(path("kept"), 0)), read(key(path("kept"), 1))};
    EXPECT_EQ(kept.count("first") + kept.count("second"), 2U);
}

TEST_F(Store, EmptyValueIsThere) {
    path("key").store(Item());
    EXPECT_FALSE(path("key").fetch().isNull());
    EXPECT_EQ(path("key").fetch().size(), 0U);
    reopen();
    EXPECT_FALSE(path("key").fetch().isNull());
}

TEST_F(Store, LargeValuesComeBackWhole) {
    for (const std::size_t size : {100U, 2000U, 5000U, 70000U, 1000000U}) {
        const std::string value(size, 'v');
        write(path("large"), value);
        EXPECT_EQ(read(path("large")), value);
    }
}

TEST_F(Store, OverLimitIsRefusedWithASentenceAndHarmsNoOther) {
    logging::CaptureSink log;
    store_->setValueLimit(1000);
    {
        WriteBatch batch;
        write(key(path("log"), 1), "good");
        write(key(path("log"), 2), std::string(2000, 'x'));
        write(path(std::string(600, 'k')), "long key");
        write(key(path("log"), 3), "good too");
        EXPECT_TRUE(batch.commit().durable);
    }
    EXPECT_TRUE(log.contains("a value of 2002 bytes is over the limit of 1000"));
    EXPECT_TRUE(log.contains("a key of 602 bytes is over the limit of 511"));
    EXPECT_EQ(store_->statistics().refusedWrites, 2U);
    EXPECT_FALSE(ItemStore::flush().durable);
    EXPECT_TRUE(ItemStore::flush().durable);
    reopen();
    EXPECT_EQ(read(key(path("log"), 1)), "good");
    EXPECT_EQ(read(key(path("log"), 2)), "(null)");
    EXPECT_EQ(read(key(path("log"), 3)), "good too");
}

TEST_F(Store, CompletionSpeaksOfTheWritesThatWereTaken) {
    store_->setValueLimit(1000);
    std::promise<bool> done;
    {
        WriteBatch batch;
        EXPECT_FALSE(store_->store(path("large"), text(std::string(2000, 'x')).bytes()));
        EXPECT_TRUE(store_->store(path("small"), text("v").bytes()));
        batch.submit([&](const CommitResult& result) { done.set_value(result.durable); });
    }
    EXPECT_TRUE(done.get_future().get());
    const CommitResult told = ItemStore::flush();
    EXPECT_FALSE(told.durable);
    EXPECT_TRUE(contains(told.reason, "a value of 2002 bytes is over the limit of 1000")) << told.reason;
    EXPECT_EQ(read(path("small")), "v");
}

TEST_F(Store, BatchWhoseWriteFoundNoRoomFails) {
    StoreOptions options;
    options.pendingLimit = 64 << 10;
    options.patienceMilliseconds = 50;
    reopen(options);
    std::promise<void> refused;
    std::shared_future<void> goOn = refused.get_future().share();
    // Who holds the commit up holds what is pending.
    store_->setCommitObserver([goOn](const CommitReport&) { goOn.wait(); });
    std::promise<bool> done;
    {
        WriteBatch holding;
        write(path("holding"), std::string(60000, 'h'));
        holding.submit({});
        write(path("too much"), std::string(60000, 'x'));
        holding.submit([&](const CommitResult& result) { done.set_value(result.durable); });
    }
    refused.set_value();
    EXPECT_FALSE(done.get_future().get());
    EXPECT_TRUE(contains(ItemStore::flush().reason, "too much is waiting to be written"));
    store_->setCommitObserver({});
    EXPECT_EQ(read(path("holding")), std::string(60000, 'h'));
}

TEST_F(Store, AnObserverThatIsTakenAwayIsNotRunningAnyMore) {
    std::promise<void> running;
    std::promise<void> goOn;
    std::atomic<bool> ended{false};
    store_->setCommitObserver([&](const CommitReport&) {
        running.set_value();
        goOn.get_future().wait();
        ended = true;
    });
    std::thread writer([] { write(path("key"), "v"); });
    running.get_future().wait();
    std::thread later([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        goOn.set_value();
    });
    store_->setCommitObserver({});
    EXPECT_TRUE(ended);
    writer.join();
    later.join();
    write(path("key"), "unobserved");
}

TEST_F(Store, BatchCompletesOnceItIsDurable) {
    std::promise<bool> done;
    const std::uint64_t writesBefore = store_->statistics().writes;
    {
        WriteBatch batch;
        for (long long i = 0; i < 100; ++i)
            write(key(path("log"), i), "v");
        EXPECT_EQ(batch.writes(), 100U);
        EXPECT_GT(store_->pendingBytes(), 0U);
        batch.submit([&](const CommitResult& result) { done.set_value(result.durable); });
    }
    EXPECT_TRUE(done.get_future().get());
    EXPECT_EQ(store_->statistics().writes, writesBefore + 100U);
    ASSERT_TRUE(ItemStore::flush().durable);
    EXPECT_EQ(store_->pendingBytes(), 0U);
}

TEST_F(Store, InnerBatchJoinsTheOuterOne) {
    std::atomic<int> completed{0};
    std::promise<void> last;
    {
        WriteBatch outer;
        {
            WriteBatch inner;
            write(path("inner"), "v");
            inner.submit([&](const CommitResult&) { ++completed; });
        }
        EXPECT_EQ(completed, 0);
        EXPECT_EQ(outer.writes(), 1U);
        outer.submit([&](const CommitResult&) {
            ++completed;
            last.set_value();
        });
    }
    last.get_future().wait();
    EXPECT_EQ(completed, 2);
}

TEST_F(Store, BatchWithNothingToWaitForCompletesAtOnce) {
    WriteBatch batch;
    bool called = false;
    batch.submit([&](const CommitResult& result) { called = result.durable; });
    EXPECT_TRUE(called);
}

TEST_F(Store, HugeBatchIsSplitAndCompletesAsOne) {
    const std::string value(100000, 'v');
    {
        WriteBatch batch;
        for (long long i = 0; i < 400; ++i)
            write(key(path("log"), i), value);
        EXPECT_TRUE(batch.commit().durable);
    }
    EXPECT_GE(store_->statistics().commits, 3U);
    EXPECT_EQ(read(key(path("log"), 399)), value);
}

TEST_F(Store, ManyThreadsShareCommits) {
    constexpr int threads = 16;
    constexpr int each = 50;
    std::vector<std::thread> writers;
    for (int t = 0; t < threads; ++t)
        writers.emplace_back([t] {
            for (int i = 0; i < each; ++i)
                write(key(key(path("log"), t), i), "v");
        });
    for (std::thread& writer : writers)
        writer.join();
    const StoreStatistics statistics = store_->statistics();
    EXPECT_GE(statistics.writes, std::uint64_t{threads * each});
    EXPECT_LT(statistics.commits, std::uint64_t{threads * each});
    reopen();
    for (int t = 0; t < threads; ++t)
        for (int i = 0; i < each; ++i)
            ASSERT_EQ(read(key(key(path("log"), t), i)), "v");
}

TEST_F(Store, DeferredWritesAreDurableSoonAndAtFlush) {
    options_.durability = Durability::deferred;
    options_.deferredMilliseconds = 20;
    reopen();
    const auto before = store_->statistics().commits;
    for (long long i = 0; i < 500; ++i)
        write(key(path("log"), i), "v");
    EXPECT_EQ(read(key(path("log"), 499)), "v");
    ASSERT_TRUE(ItemStore::flush().durable);
    EXPECT_EQ(store_->pendingBytes(), 0U);
    EXPECT_LT(store_->statistics().commits - before, 100U);
    write(path("late"), "v");
    while (store_->pendingBytes() != 0)
        std::this_thread::yield();
    reopen();
    EXPECT_EQ(read(path("late")), "v");
}

TEST_F(Store, ClosingCommitsWhatIsPending) {
    options_.durability = Durability::deferred;
    options_.deferredMilliseconds = 60000;
    reopen();
    write(path("key"), "v");
    reopen();
    EXPECT_EQ(read(path("key")), "v");
}

TEST_F(Store, PendingMemoryIsBounded) {
    options_.pendingLimit = 64 << 10;
    reopen();
    WriteBatch batch;
    std::uint64_t most = 0;
    for (long long i = 0; i < 2000; ++i) {
        write(key(path("log"), i), std::string(500, 'v'));
        most = std::max(most, store_->pendingBytes());
    }
    EXPECT_TRUE(batch.commit().durable);
    EXPECT_LE(most, 64U << 10);
    EXPECT_EQ(read(key(path("log"), 1999)), std::string(500, 'v'));
}

TEST_F(Store, IdleThreadsPinNoSnapshot) {
    write(path("key"), "one");
    EXPECT_EQ(read(path("key")), "one");
    // What a held snapshot shows as lag is gone once it is given back.
    while (true) {
        std::thread([] { write(path("other"), "v"); }).join();
        if (store_->space().oldestReaderLag == 0)
            break;
        std::this_thread::yield();
    }
    EXPECT_EQ(read(path("key")), "one");
}

TEST_F(Store, ReadersSeeWhatOtherThreadsCommitted) {
    EXPECT_EQ(read(path("key")), "(null)");
    std::thread([] { write(path("key"), "theirs"); }).join();
    EXPECT_EQ(read(path("key")), "theirs");
}

TEST_F(EmbeddedStore, OneEnvironmentPerProcessAndPath) {
    EXPECT_TRUE(contains(openFailure(url()), "is open in this process already"));
    symlink((folder_ / "store").c_str(), (folder_ / "other").c_str());
    EXPECT_TRUE(contains(openFailure("lmdb:" + (folder_ / "other")), "is open in this process already"));
}

TEST_F(Store, SeveralStoresAreOpenAtOnce) {
    std::string reason;
    const auto other = ItemStore::open(storeUrlOf()(folder_ / "second"), {}, reason);
    ASSERT_NE(other, nullptr) << reason;
    EXPECT_TRUE(other->store(path("key"), text("second").bytes()));
    write(path("key"), "first");
    EXPECT_EQ(read(path("key")), "first");
    EXPECT_EQ(other->fetch(path("key")).view(), text("second").bytes().view());
}

TEST_F(Store, AChildOfForkIsRefused) {
    write(path("key"), "parent");
    const pid_t child = fork();
    if (child == 0) {
        logging::CaptureSink log;
        Item position = path("a");
        const bool refused =
            path("key").fetch().isNull() && !position.next() && log.count("before fork") == 2;
        store_.reset();
        _exit(refused ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(read(path("key")), "parent");
}

TEST_F(EmbeddedStore, NewFilesHaveTheStatedMode) {
    options_.fileMode = 0640;
    close();
    std::string reason;
    const auto store = ItemStore::open("lmdb:" + (folder_ / "shared"), options_, reason);
    ASSERT_NE(store, nullptr) << reason;
    struct stat found {};
    for (const char* const name : {"data.mdb", "lock.mdb", "shared"}) {
        ASSERT_EQ(stat(((folder_ / "shared/") + name).c_str(), &found), 0) << name;
        EXPECT_EQ(found.st_mode & 0777, 0640U) << name;
    }
    ASSERT_EQ(stat((folder_ / "shared").c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 0777, 0750U);
}

TEST_F(EmbeddedStore, SideFilesHaveBlocksOfTheirOwn) {
    struct stat found {};
    for (const char* const name : {"store/lock.mdb", "store/shared"}) {
        ASSERT_EQ(stat((folder_ / name).c_str(), &found), 0);
        EXPECT_GE(found.st_blocks * 512, found.st_size) << name;
    }
}

TEST_F(Store, KnowsItsSiteItsKeyAndItsLogs) {
    std::string reason;
    EXPECT_EQ(store_->identity().format, 1);
    EXPECT_GT(store_->identity().created, 1600000000000000LL);
    EXPECT_TRUE(store_->setSite("Klinik Nord").durable);
    EXPECT_TRUE(store_->bindSiteKey("ab12", reason));
    EXPECT_TRUE(store_->setLog({"interaction", path("interaction"), StoreLog::Kind::central, false}).durable);
    EXPECT_TRUE(store_->setLog({"audit", path("audit"), StoreLog::Kind::queue, true}).durable);
    reopen();
    EXPECT_EQ(store_->identity().site, "Klinik Nord");
    EXPECT_TRUE(store_->bindSiteKey("ab12", reason));
    EXPECT_FALSE(store_->bindSiteKey("cd34", reason));
    EXPECT_TRUE(contains(reason, "belongs to the site key ab12, not to cd34"));
    EXPECT_TRUE(store_->bindQueueIdentity("me", reason));
    EXPECT_FALSE(store_->bindQueueIdentity("you", reason));
    ASSERT_EQ(store_->logs().size(), 2U);
    EXPECT_EQ(store_->logs()[0].name, "audit");
    EXPECT_EQ(store_->logs()[0].kind, StoreLog::Kind::queue);
    EXPECT_TRUE(store_->logs()[0].anonymous);
    StoreLog found;
    EXPECT_TRUE(store_->findLog("interaction", found));
    EXPECT_EQ(found.path, path("interaction"));
    EXPECT_FALSE(store_->findLog("nothing", found));
    Item top;
    EXPECT_FALSE(Item().child(top)) << "the store's own records are no items: " << top.asString().str();
}

TEST_F(Store, SidePathsLieOutsideOfEveryLog) {
    Item side = ItemStore::sidePath("parked");
    write(key(side, 1), "v");
    EXPECT_TRUE(ItemStore::isSideKey(key(side, 1)));
    EXPECT_FALSE(ItemStore::isSideKey(path("log")));
    EXPECT_EQ(read(key(side, 1)), "v");
}

TEST_F(EmbeddedStore, WhatCannotBeOpenedIsToldInASentence) {
    EXPECT_TRUE(contains(openFailure("file:/x"), "expected lmdb:PATH"));
    EXPECT_TRUE(contains(openFailure("lmdb:"), "names no folder"));
    StoreOptions existing;
    existing.create = false;
    EXPECT_TRUE(contains(openFailure("lmdb:" + (folder_ / "none"), existing), "there is no store"));
    folder_.write("plain", "text");
    EXPECT_TRUE(contains(openFailure("lmdb:" + (folder_ / "plain")), "expected a folder"));
    mkdir((folder_ / "bad").c_str(), 0700);
    folder_.write("bad/data.mdb", std::string(100000, 'x'));
    EXPECT_TRUE(contains(openFailure("lmdb:" + (folder_ / "bad")), "cannot open the store"));
}

TEST_F(EmbeddedStore, AFolderThatMayNotBeWrittenIsRefused) {
    close();
    ASSERT_EQ(chmod(folder_.path().c_str(), 0755), 0);
    ASSERT_EQ(chmod((folder_ / "store").c_str(), 0555), 0);
    const pid_t child = fork();
    if (child == 0) {
        constexpr uid_t nobody = 65534;
        const bool changed = geteuid() != 0 || setuid(nobody) == 0;
        const std::string reason = openFailure(url());
        std::fprintf(stderr, "%s\n", reason.c_str());
        _exit(changed && contains(reason, "may not be written by this user") ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    chmod((folder_ / "store").c_str(), 0755);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(EmbeddedStore, NetworkFileSystemsAreKnown) {
    EXPECT_STREQ(storage::StoreFolder::networkFileSystem(0x6969), "NFS");
    EXPECT_STREQ(storage::StoreFolder::networkFileSystem(static_cast<long>(0xfe534d42UL)), "SMB2");
    EXPECT_EQ(storage::StoreFolder::networkFileSystem(0xef53), nullptr);
}

TEST_F(Store, ReadOnlyRefusesWrites) {
    write(path("key"), "v");
    options_.readOnly = true;
    reopen();
    logging::CaptureSink log;
    write(path("key"), "changed");
    EXPECT_EQ(read(path("key")), "v");
    EXPECT_TRUE(log.contains("for reading only"));
    EXPECT_FALSE(ItemStore::flush().durable);
}

TEST_F(EmbeddedStore, TheMapGrowsWhenItIsFull) {
    options_.mapBytes = 1;  // the smallest there is
    reopen();
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        while (!stop)
            read(key(path("log"), 3));
    });
    const std::string value(1000000, 'v');
    for (long long i = 0; i < 100; ++i)
        ASSERT_TRUE(store_->store(key(path("log"), i), text(value).bytes()));
    stop = true;
    reader.join();
    EXPECT_GE(store_->statistics().mapGrown, 1U);
    EXPECT_EQ(read(key(path("log"), 99)), value);
}

TEST_F(Store, ProbeAndStatisticsTellThatItLives) {
    EXPECT_TRUE(store_->probeCommit().durable);
    std::atomic<int> reports{0};
    store_->setCommitObserver(
        [&](const CommitReport& report) { reports += report.durable && report.microseconds > 0; });
    write(path("key"), "v");
    EXPECT_EQ(reports, 1);
    const auto turns = store_->statistics().commitThreadTurns;
    while (store_->statistics().commitThreadTurns == turns)
        std::this_thread::yield();
    const StoreSpace space = store_->space();
    EXPECT_GE(space.entries, 2U);
    EXPECT_GT(space.fileBytes, 0U);
}

TEST_F(EmbeddedStore, TellsTheRoomOnItsFileSystem) {
    EXPECT_GT(store_->space().diskFreeBytes, 0U);
}
