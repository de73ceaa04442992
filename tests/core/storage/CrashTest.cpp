// Processes are killed at random moments, without warning, while they write; whatever they reported durable must be there,
// whole and in order, and the store must open without repair. QEL_CRASH_ROUNDS sets the number of kills.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

#include "DiskTap.h"
#include "qelCore/StoreTools.h"
#include "qelCore/logging/CaptureSink.h"
#include "support/StoreFixture.h"

using namespace qel;
using namespace qel::test;

namespace {

int rounds(int usual) {
    const char* const asked = std::getenv("QEL_CRASH_ROUNDS");
    return asked == nullptr ? usual : std::atoi(asked);
}

// A process of its own with a pipe through which it tells numbers.
class Child {
  public:
    template <typename Work>
    explicit Child(Work work) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            std::abort();
        id_ = fork();
        if (id_ == 0) {
            tell_ = ends[1];
            work(*this);
            _exit(0);
        }
        ::close(ends[1]);
        hear_ = ends[0];
    }
    ~Child() {
        if (id_ > 0)
            end(SIGKILL);
        ::close(hear_);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    void tell(long long number) const {
        if (write(tell_, &number, sizeof number) != sizeof number)
            _exit(9);
    }
    // The next number; false when the process is gone.
    bool hear(long long& number) const { return ::read(hear_, &number, sizeof number) == sizeof number; }
    long long hearLast(long long none) const {
        long long last = none;
        while (hear(last)) {
        }
        return last;
    }
    void signal(int number) const { kill(id_, number); }
    // Returns the exit code, or minus the signal.
    int end(int number = 0) {
        if (number != 0)
            kill(id_, number);
        int status = 0;
        waitpid(id_, &status, 0);
        id_ = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

  private:
    pid_t id_ = 0;
    int tell_ = -1;
    int hear_ = -1;
};

class Crash : public StoreTest {
  protected:
    void SetUp() override {}

    std::unique_ptr<ItemStore> openHere() const {
        std::string reason;
        auto store = ItemStore::open(url(), {}, reason);
        EXPECT_NE(store, nullptr) << reason;
        ItemStore::setCurrent(store.get());
        return store;
    }

    static std::string valueOf(long long number) {
        return std::to_string(number) + std::string(static_cast<std::size_t>(number * 37 % 900), 'x');
    }

    // Appends from `from` on and tells each number that is durable. The newest number is kept under a key of its own, in the
    // same transaction.
    void appendForEver(const Child& child, const Item& log, long long from) const {
        const auto store = openHere();
        if (store == nullptr)
            _exit(3);
        for (long long i = from;; ++i) {
            WriteBatch batch;
            write(key(log, i), valueOf(i));
            write(path("newest"), std::to_string(i));
            if (!batch.commit().durable)
                _exit(4);
            child.tell(i);
        }
    }

    // Numbers 0 to the last one, without a gap; the last one.
    static long long checkAll(const Item& log) {
        long long expected = 0;
        Item at;
        for (bool found = log.child(at); found; found = at.next(), ++expected) {
            long long number = -1;
            EXPECT_TRUE(at.trail().decodeElementAsInteger(number));
            EXPECT_EQ(number, expected);
            EXPECT_EQ(read(at), valueOf(number));
            if (number != expected)
                break;
        }
        return expected - 1;
    }

    void sleepUpTo(unsigned microseconds) {
        std::this_thread::sleep_for(std::chrono::microseconds(random_() % microseconds));
    }

    std::mt19937 random_{42};
};

}  // namespace

TEST_F(Crash, WhatWasReportedDurableIsThereAfterEveryKill) {
    const Item log = path("log");
    long long stored = -1;
    // A busy machine needs more rounds before enough is stored.
    for (int round = 0; round < rounds(300) || (stored <= 50 && round < 10000); ++round) {
        Child child([&](const Child& self) { appendForEver(self, log, stored + 1); });
        long long reported = stored;
        // However slow the machine, there is something to lose.
        if (round % 5 == 1) {
            ASSERT_TRUE(child.hear(reported));
        }
        // Sometimes before the store is open, mostly in the middle of commits.
        sleepUpTo(round % 10 == 0 ? 3000 : 25000);
        child.signal(SIGKILL);
        reported = child.hearLast(reported);
        ASSERT_EQ(child.end(), -SIGKILL);
        const auto store = openHere();
        ASSERT_NE(store, nullptr);
        ItemStore& opened = *store;
        long long found = reported;
        while (!opened.fetch(key(log, found + 1)).isNull())
            ++found;
        ASSERT_LE(found, reported + 1);
        for (long long i = stored + 1; i <= found; ++i)
            ASSERT_EQ(read(key(log, i)), valueOf(i)) << "of " << reported << " in round " << round;
        ASSERT_EQ(read(path("newest")), found < 0 ? "(null)" : std::to_string(found));
        if (round % 50 == 49) {
            ASSERT_EQ(checkAll(log), found);
            ASSERT_EQ(StoreTools::verify(opened, {}).faults, 0U);
        }
        stored = found;
    }
    EXPECT_GT(stored, 50);
}

TEST_F(Crash, TwoWritersAndAReaderOutliveEachOther) {
    const Item logs[] = {path("left"), path("right")};
    long long stored[] = {-1, -1};
    { const auto made = openHere(); }
    for (int round = 0; round < rounds(300) / 10; ++round) {
        Child left([&](const Child& self) { appendForEver(self, logs[0], stored[0] + 1); });
        Child right([&](const Child& self) { appendForEver(self, logs[1], stored[1] + 1); });
        Child reader([&](const Child& self) {
            const auto store = openHere();
            for (;;) {
                long long count = 0;
                for (const Item& log : logs)
                    count += checkAll(log);
                if (HasFailure())
                    _exit(5);
                self.tell(count);
            }
        });
        long long number = 0;
        ASSERT_TRUE(reader.hear(number));
        sleepUpTo(20000);
        Child& victim = round % 2 == 0 ? left : right;
        Child& other = round % 2 == 0 ? right : left;
        victim.signal(SIGKILL);
        // The others go on: the lock of the dead one is taken over, its place among the readers given back.
        const int side = round % 2;
        const long long reported = victim.hearLast(stored[side]);
        for (int i = 0; i < 20; ++i)
            ASSERT_TRUE(other.hear(number)) << "the other writer ended in round " << round;
        for (int i = 0; i < 3; ++i)
            ASSERT_TRUE(reader.hear(number)) << "the reader found a fault in round " << round;
        other.signal(SIGKILL);
        reader.signal(SIGKILL);
        const long long othersLast = other.hearLast(stored[1 - side]);
        victim.end();
        other.end();
        reader.end();
        const auto store = openHere();
        stored[0] = checkAll(logs[0]);
        stored[1] = checkAll(logs[1]);
        ASSERT_GE(stored[side], reported);
        ASSERT_GE(stored[1 - side], othersLast);
        ASSERT_FALSE(HasFailure());
    }
}

TEST_F(Crash, KilledWriterLeavesItsLockToTheNext) {
    const Item log = path("log");
    Child holder([&](const Child& self) {
        const auto store = openHere();
        // In the middle of the transaction, with the lock held.
        DiskTap::setBeforeWrite([&](bool) {
            self.tell(1);
            pause();
            return 0;
        });
        write(key(log, 0), "never");
    });
    long long number = 0;
    ASSERT_TRUE(holder.hear(number));
    const auto store = openHere();
    std::thread later([&] { holder.end(SIGKILL); });
    EXPECT_TRUE(store->store(key(log, 1), text("mine").bytes()));
    later.join();
    EXPECT_EQ(read(key(log, 1)), "mine");
    EXPECT_EQ(read(key(log, 0)), "(null)");
}

TEST_F(Crash, StoppedWriterInAnotherProcessBoundsMemoryHere) {
    const Item log = path("log");
    Child holder([&](const Child& self) {
        const auto store = openHere();
        bool once = false;
        DiskTap::setBeforeWrite([&](bool) {
            if (!std::exchange(once, true)) {
                self.tell(1);
                raise(SIGSTOP);
            }
            return 0;
        });
        write(key(log, 0), "held up");
        self.tell(2);
        pause();
    });
    long long number = 0;
    ASSERT_TRUE(holder.hear(number));
    StoreOptions options;
    options.durability = Durability::deferred;
    options.pendingLimit = 64 << 10;
    options.patienceMilliseconds = 100;
    std::string reason;
    auto store = ItemStore::open(url(), options, reason);
    ASSERT_NE(store, nullptr) << reason;
    ItemStore::setCurrent(store.get());
    {
        logging::CaptureSink told;
        long long accepted = 1;
        while (store->store(key(log, accepted), text(std::string(1000, 'v')).bytes()))
            ++accepted;
        EXPECT_LE(store->pendingBytes(), 64U << 10);
        EXPECT_GT(accepted, 20);
        EXPECT_TRUE(told.contains("too much is waiting to be written"));
        EXPECT_FALSE(store->probeCommit().durable);
    }
    // The other goes on, and so does everything here.
    holder.signal(SIGCONT);
    ASSERT_TRUE(holder.hear(number));
    EXPECT_FALSE(ItemStore::flush().durable) << "one write was refused";
    EXPECT_EQ(store->pendingBytes(), 0U);
    EXPECT_TRUE(store->store(key(log, 0), text("after").bytes()));
    EXPECT_TRUE(ItemStore::flush().durable);
    EXPECT_EQ(read(key(log, 20)), std::string(1000, 'v'));
}
