// The disk is full, or fails: every commit that could not be made durable says so, nothing that was durable is lost, and work
// goes on when the cause is gone, without reopening.
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <thread>

#include "DiskTap.h"
#include "qelCore/StoreTools.h"
#include "qelCore/logging/CaptureSink.h"
#include "support/StoreFixture.h"

using namespace qel;
using namespace qel::test;

namespace {

class DiskFault : public StoreTest {
  protected:
    void TearDown() override {
        DiskTap::setBeforeWrite({});
        StoreTest::TearDown();
    }
    std::string halfEmptied();
    int noticeEmptiedPages(std::size_t stride, const std::function<int(ItemStore&, std::size_t)>& use);
};

// What the action returned in a process of its own; 1000 and the number of the signal that ended it otherwise.
int inChild(const std::function<int()>& action) {
    const pid_t child = fork();
    if (child == 0)
        _exit(action());
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

// A small disk: a file system in memory where this user may mount one, else a bound on the size of files.
class SmallDisk {
  public:
    explicit SmallDisk(const std::string& folder) : folder_(folder) {
        mkdir(folder.c_str(), 0700);
        mounted_ = (geteuid() == 0 ? unshare(CLONE_NEWNS) : unshare(CLONE_NEWUSER | CLONE_NEWNS)) == 0 &&
                   mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                   mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=6m") == 0;
        if (mounted_)
            fillBallast();
        else
            limitFiles(2U << 20);
    }
    void makeRoom() const {
        if (mounted_)
            unlink((folder_ + "/ballast").c_str());
        else
            limitFiles(RLIM_INFINITY);
    }

  private:
    void fillBallast() const {
        const int fd = open((folder_ + "/ballast").c_str(), O_CREAT | O_WRONLY, 0600);
        if (fd < 0 || posix_fallocate(fd, 0, 4 << 20) != 0)
            _exit(20);
        close(fd);
    }
    static void limitFiles(rlim_t bytes) {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{bytes, RLIM_INFINITY};
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
            _exit(21);
    }

    std::string folder_;
    bool mounted_ = false;
};

int require(bool holds, int code) {
    if (!holds)
        _exit(code);
    return code;
}

// In a process of its own; its exit code says which step failed.
void fillTheDisk(const std::string& folder) {
    const SmallDisk disk(folder);
    logging::CaptureSink log;
    std::string reason;
    auto store = ItemStore::open("lmdb:" + folder + "/store", {}, reason);
    require(store != nullptr, 1);
    ItemStore::setCurrent(store.get());
    const std::string value(4000, 'v');
    long long durable = 0;
    while (store->store(key(path("log"), durable), text(value).bytes()))
        ++durable;
    require(durable > 20, 2);
    require(log.contains("cannot write to the store"), 3);
    require(!ItemStore::flush().durable, 4);
    // Whoever waits for a batch, an acknowledgement for instance, learns it too; what was there is there.
    std::atomic<int> outcome{0};
    {
        WriteBatch batch;
        for (long long i = 0; i < 400; ++i)
            key(path("batch"), i).store(text(value));
        batch.submit([&](const CommitResult& result) { outcome = result.durable ? 1 : 2; });
    }
    ItemStore::flush();
    require(outcome == 2, 5);
    require(key(path("batch"), 1).fetch().isNull(), 6);
    require(store->statistics().failedCommits >= 2, 7);
    for (long long i = 0; i < durable; ++i)
        require(key(path("log"), i).fetch().size() == value.size() + 2, 8);
    disk.makeRoom();
    require(store->probeCommit().durable, 9);
    require(store->store(key(path("log"), durable), text(value).bytes()), 10);
    require(ItemStore::flush().durable, 11);
    store.reset();
    store = ItemStore::open("lmdb:" + folder + "/store", {}, reason);
    require(store != nullptr, 12);
    for (long long i = 0; i <= durable; ++i)
        require(store->fetch(key(path("log"), i)).size() == value.size() + 2, 13);
    require(StoreTools::verify(*store, {}).faults == 0, 14);
}

// The same for a copy whose target's disk is too small at first.
void copyToTheDisk(const std::string& folder, const std::string& sourceUrl) {
    const SmallDisk disk(folder);
    const logging::CaptureSink log;
    std::string reason;
    const auto source = ItemStore::open(sourceUrl, {}, reason);
    const auto target = ItemStore::open("lmdb:" + folder + "/store", {}, reason);
    require(source != nullptr && target != nullptr, 1);
    const StoreTools::CopyOutcome failed = StoreTools::copy(*source, *target);
    require(!failed.result.durable, 2);
    require(failed.result.reason.find("cannot write to the store") != std::string::npos, 3);
    disk.makeRoom();
    const StoreTools::CopyOutcome done = StoreTools::copy(*source, *target);
    require(done.result.durable, 4);
    require(done.isSame(), 5);
    require(done.entries == 1000, 6);
}

int exitCodeOf(const std::function<void()>& work) {
    const pid_t child = fork();
    if (child == 0) {
        work();
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

TEST_F(DiskFault, FullDiskIsLoudLosesNothingAndPasses) {
    close();
    EXPECT_EQ(exitCodeOf([this] { fillTheDisk(folder_ / "small"); }), 0)
        << "the step with that number failed";
}

TEST_F(DiskFault, CopyToAFullDiskSaysSoAndGoesOnWhenThereIsRoom) {
    {
        WriteBatch batch;
        for (int i = 0; i < 1000; ++i)
            write(key(path("log"), i), std::string(3000, 'v'));
        ASSERT_TRUE(batch.commit().durable);
    }
    close();
    EXPECT_EQ(exitCodeOf([this] { copyToTheDisk(folder_ / "small", url()); }), 0)
        << "the step with that number failed";
}

TEST_F(DiskFault, FullDiskAtOpeningIsASentence) {
    close();
    const pid_t child = fork();
    if (child == 0) {
        mkdir((folder_ / "tiny").c_str(), 0700);
        signal(SIGXFSZ, SIG_IGN);
        const rlimit none{1024, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &none);
        std::string reason;
        const auto store = ItemStore::open("lmdb:" + (folder_ / "tiny/store"), {}, reason);
        _exit(store == nullptr && reason.find("cannot reserve space") != std::string::npos ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(DiskFault, AFailedWriteReachesEveryWaiter) {
    write(path("before"), "v");
    logging::CaptureSink log;
    DiskTap::setBeforeWrite([](bool) { return EIO; });
    EXPECT_FALSE(store_->store(path("key"), text("lost").bytes()));
    const CommitResult flushed = ItemStore::flush();
    EXPECT_FALSE(flushed.durable);
    EXPECT_NE(flushed.reason.find("Input/output error"), std::string::npos) << flushed.reason;
    EXPECT_FALSE(store_->probeCommit().durable);
    DiskTap::setBeforeWrite({});
    EXPECT_EQ(read(path("key")), "(null)");
    EXPECT_EQ(read(path("before")), "v");
    write(path("key"), "kept");
    EXPECT_TRUE(ItemStore::flush().durable);
    reopen();
    EXPECT_EQ(read(path("key")), "kept");
}

TEST_F(DiskFault, NothingIsReportedDurableInAStoreThatWasRemoved) {
    write(path("before"), "v");
    logging::CaptureSink log;
    ASSERT_TRUE(std::filesystem::remove(folder_ / "store/data.mdb"));
    EXPECT_FALSE(store_->store(path("key"), text("lost").bytes()));
    const CommitResult flushed = ItemStore::flush();
    EXPECT_FALSE(flushed.durable);
    EXPECT_NE(flushed.reason.find("was removed"), std::string::npos) << flushed.reason;
    EXPECT_FALSE(store_->probeCommit().durable);
}

TEST_F(DiskFault, AStoreThatWasCutIsTold) {
    for (int i = 0; i < 50; ++i)
        write(key(path("log"), i), std::string(4000, 'v'));
    close();
    const std::string data = folder_ / "store/data.mdb";
    // The root, which was written last, stays where it is.
    const auto size = std::filesystem::file_size(data);
    std::filesystem::resize_file(data, size - 1);
    logging::CaptureSink log;
    reopen();
    EXPECT_TRUE(log.contains(" was cut: it lacks 1 pages in use at its end")) << size;
}

TEST_F(DiskFault, AStoreThatLacksNothingButFreePagesIsWhole) {
    // Free pages at the end of the file: all that was written after the first entry is removed again.
    write(path("first"), "v");
    {
        WriteBatch batch;
        for (int i = 0; i < 300; ++i)
            write(key(path("log"), i), std::string(4000, 'v'));
        ASSERT_TRUE(batch.commit().durable);
    }
    {
        WriteBatch batch;
        for (int i = 0; i < 300; ++i)
            key(path("log"), i).remove();
        ASSERT_TRUE(batch.commit().durable);
    }
    // Some commits more, until the tree has moved to the front.
    for (int i = 0; i < 8; ++i)
        write(path("first"), "again");
    close();
    const std::string data = folder_ / "store/data.mdb";
    const std::string whole = TemporaryFolder::read(data);
    int opened = 0;
    for (std::size_t size = whole.size() - 5000; size > 20 * 4096; size -= 33 * 4096) {
        folder_.write("store/data.mdb", whole.substr(0, size));
        logging::CaptureSink log;
        reopen();
        EXPECT_EQ(read(path("first")), "again");
        EXPECT_FALSE(log.contains("was cut")) << size;
        EXPECT_EQ(StoreTools::verify(*store_, {}).faults, 0U);
        ++opened;
        close();
    }
    EXPECT_GT(opened, 3);
}

// A log of 600 entries of 200 to 3,530 bytes of which every other was removed: the file's bytes.
std::string DiskFault::halfEmptied() {
    for (int i = 0; i < 600;) {
        WriteBatch batch;
        for (const int end = i + 40; i < end; ++i)
            write(key(path("log"), i), std::string(static_cast<std::size_t>(200 + 37 * (i % 90)), 'v'));
    }
    for (int i = 0; i < 600;) {
        WriteBatch batch;
        for (const int end = i + 40; i < end; i += 2)
            key(path("log"), i).remove();
    }
    close();
    return TemporaryFolder::read(folder_ / "store/data.mdb");
}

// Wherever it was cut, it opens or says why not, and silence means that nothing is gone.
TEST_F(DiskFault, OpeningAStoreThatWasCutAnywhereEndsNoProcess) {
    const std::string whole = halfEmptied();
    const std::size_t pages = whole.size() / 4096;
    ASSERT_GT(pages, 200U);
    int told = 0;
    for (std::size_t kept = 2; kept < pages; kept += kept < pages - 20 ? 9 : 1) {
        folder_.write("store/data.mdb", whole.substr(0, kept * 4096 + 100));
        const int code = inChild([this] {
            logging::CaptureSink log;
            std::string reason;
            const auto store = ItemStore::open(url(), {}, reason);
            if (store == nullptr || log.contains("was cut"))
                return 1;
            const auto outcome = StoreTools::verify(*store, {});
            return outcome.result.durable && outcome.faults == 0 && outcome.entries >= 300 ? 0 : 2;
        });
        ASSERT_LE(code, 1) << kept << " of " << pages << " pages";
        told += code;
    }
    EXPECT_GT(told, 20);
}

// Empties every so many pages of the half-emptied log, one at a time, as a disk does that returns zeros: each time a process
// opens the store and gets 0 from `use(store)` if it noticed nothing, else 1. How many noticed.
int DiskFault::noticeEmptiedPages(std::size_t stride,
                                  const std::function<int(ItemStore&, std::size_t)>& use) {
    const std::string whole = halfEmptied();
    const std::size_t pages = whole.size() / 4096;
    int noticed = 0;
    for (std::size_t page = 2; page < pages; page += stride) {
        std::string damaged = whole;
        damaged.replace(page * 4096, 4096, std::string(4096, '\0'));
        folder_.write("store/data.mdb", damaged);
        const int code = inChild([&] {
            const logging::CaptureSink log;
            std::string reason;
            const auto store = ItemStore::open(url(), {}, reason);
            return store == nullptr ? 1 : use(*store, page);
        });
        EXPECT_LE(code, 1) << "page " << page << " of " << pages;
        noticed += code;
    }
    return noticed;
}

// What does not lie on the page can be read, the rest is an error, and so is a write that meets it.
TEST_F(DiskFault, AnEmptiedPageAnywhereEndsNoProcess) {
    const int noticed = noticeEmptiedPages(3, [](ItemStore& store, std::size_t) {
        const auto outcome = StoreTools::verify(store, {});
        std::size_t there = 0;
        for (int i = 0; i < 600; ++i)
            there += !store.fetch(key(path("log"), i)).empty();
        for (int i = 0; i < 600; i += 50)
            store.store(key(path("log"), i), text("new").bytes());
        store.flushThread();
        return outcome.faults == 0 && outcome.entries >= 300 && there == 300 ? 0 : 1;
    });
    EXPECT_GT(noticed, 20);
}

// Removals look at the pages beside the one that they empty.
TEST_F(DiskFault, RemovingBesideAnEmptiedPageEndsNoProcess) {
    const int noticed = noticeEmptiedPages(7, [](ItemStore& store, std::size_t page) {
        // From one end to the other, as a queue is drained, or here and there.
        const int stride = page % 2 == 0 ? 1 : 7;
        for (int i = 0; i < 600;) {
            WriteBatch batch(&store);
            for (const int end = i + 30; i < end; ++i)
                store.remove(key(path("log"), i * stride % 600));
        }
        return store.flushThread() ? 0 : 1;
    });
    EXPECT_GT(noticed, 10);
}

// A compact copy follows every page, and what it leaves out would be missing for good.
TEST_F(DiskFault, ACompactBackupOfAStoreWithAnEmptiedPageIsWholeOrRefused) {
    const int noticed = noticeEmptiedPages(5, [this](ItemStore& store, std::size_t) {
        const std::string file = folder_ / "backup";
        if (!StoreTools::backup(store, file, true).durable)
            return std::filesystem::exists(file) ? 2 : 1;
        const std::string target = folder_ / "restored";
        std::filesystem::remove_all(target);
        if (!StoreTools::restore(file, target, {}).durable)
            return 3;
        std::string reason;
        const auto restored = ItemStore::open("lmdb:" + target, {}, reason);
        const auto outcome = StoreTools::verify(*restored, {});
        std::filesystem::remove(file);
        return outcome.result.durable && outcome.faults == 0 && outcome.entries >= 300 ? 0 : 4;
    });
    EXPECT_GT(noticed, 20);
}

// The environment is gone for good until the folder is back; whoever reads meanwhile finds nothing, and knows.
TEST_F(DiskFault, AStoreThatReopensInVainCanBeAskedAndGoesOnLater) {
    for (int i = 0; i < 100; ++i)
        write(key(path("log"), i), "event");
    const SteadyRead moment(store_.get());
    const std::uint64_t mapBytes = store_->space().mapBytes;
    Item position = key(path("log"), -1);
    ASSERT_TRUE(position.next());
    const logging::CaptureSink log;
    DiskTap::setBeforeWrite([](bool synchronous) { return synchronous ? EIO : 0; });
    EXPECT_FALSE(store_->store(path("key"), text("uncertain").bytes()));
    DiskTap::setBeforeWrite({});
    std::filesystem::rename(folder_ / "store", folder_ / "away");
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(store_->store(path("key"), text("lost").bytes()));
        EXPECT_TRUE(store_->fetch(path("key")).isNull());
        EXPECT_EQ(store_->space().entries, 0U);
    }
    EXPECT_TRUE(log.contains("in vain"));
    EXPECT_FALSE(position.next());
    EXPECT_FALSE(moment.result()) << "what ended early must not pass for the whole";
    std::filesystem::rename(folder_ / "away", folder_ / "store");
    EXPECT_TRUE(store_->store(path("key"), text("kept").bytes()));
    EXPECT_EQ(read(path("key")), "kept");
    EXPECT_TRUE(position.next());
    EXPECT_EQ(store_->space().mapBytes, mapBytes);
}

TEST_F(DiskFault, TheStoreReopensAfterAFatalError) {
    write(path("before"), "v");
    logging::CaptureSink log;
    // The write that would have made the transaction valid: whether it arrived is not known then.
    DiskTap::setBeforeWrite([](bool synchronous) { return synchronous ? EIO : 0; });
    EXPECT_FALSE(store_->store(path("key"), text("uncertain").bytes()));
    std::thread([&] {
        for (int i = 0; i < 1000; ++i)
            store_->fetch(path("before"));
    }).join();
    EXPECT_TRUE(log.contains("cannot read the store"));
    EXPECT_LT(log.count("cannot read the store"), 100) << "one and the same cause is told once a second";
    DiskTap::setBeforeWrite({});
    EXPECT_TRUE(store_->store(path("key"), text("kept").bytes()));
    EXPECT_EQ(store_->statistics().reopened, 1U);
    EXPECT_TRUE(log.contains("was opened again"));
    EXPECT_EQ(read(path("before")), "v");
    EXPECT_EQ(read(path("key")), "kept");
    reopen();
    EXPECT_EQ(read(path("key")), "kept");
}
