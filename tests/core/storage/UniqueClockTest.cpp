#include "storage/UniqueClock.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <string_view>
#include <thread>
#include <vector>

#include "qelCore/System.h"
#include "qelCore/logging/CaptureSink.h"
#include "support/FixedClock.h"
#include "support/StoreFixture.h"

using namespace qel;
using namespace qel::test;

namespace {

constexpr long long second = 1000000;
constexpr long long day = 24 * 3600 * second;
constexpr long long start = 1760000000LL * second;

using Unique = StoreTest;

long long perProcess() {
    const char* const asked = std::getenv("QEL_UNIQUE_EVENTS");
    return asked == nullptr ? 20000 : std::atoll(asked);
}

}  // namespace

TEST_F(Unique, NeverTheSameTwiceWhateverTheClockDoes) {
    FixedClock clock(start);
    reopen();
    long long last = 0;
    for (int i = 0; i < 1000; ++i) {
        if (i % 7 == 0)
            clock.set(start + (i % 2 == 0 ? i : -i) * second);
        const long long time = System::getUTCDateTimeUnique();
        ASSERT_GT(time, last);
        last = time;
    }
}

TEST_F(Unique, ThreadsShareOneCounter) {
    FixedClock clock(start);
    reopen();
    std::vector<std::vector<long long>> times(4);
    std::vector<std::thread> threads;
    for (auto& mine : times)
        threads.emplace_back([&] {
            for (int i = 0; i < 5000; ++i)
                mine.push_back(store_->uniqueTime());
        });
    std::set<long long> all;
    for (std::size_t i = 0; i < threads.size(); ++i) {
        threads[i].join();
        EXPECT_TRUE(std::is_sorted(times[i].begin(), times[i].end()));
        all.insert(times[i].begin(), times[i].end());
    }
    EXPECT_EQ(all.size(), 20000U);
}

TEST_F(Unique, ClockSetBackByADayBetweenTwoRunsKeepsTheOrder) {
    FixedClock clock(start);
    reopen();
    const long long first = System::getUTCDateTimeUnique();
    write(key(path("queue"), first), "first");
    close();
    clock.set(start - day);
    System::setUniqueTimeSource(nullptr);
    reopen();
    const long long later = store_->uniqueTime();
    EXPECT_GT(later, first);
    EXPECT_LT(later, first + 3 * second);
    EXPECT_GT(store_->clock().lead, day - 3 * second);
}

TEST_F(Unique, TimesThatWereHandedOutButNeverStoredAreNotHandedOutAgain) {
    FixedClock clock(start);
    reopen();
    const long long handedOut = store_->uniqueTime();
    close();
    clock.set(start - day);
    reopen();
    EXPECT_GT(store_->uniqueTime(), handedOut);
}

TEST_F(Unique, ProcessesThatFollowEachOtherQuicklyStayAtThePresent) {
    FixedClock clock(start);
    for (int i = 0; i < 20; ++i) {
        clock.advance(1000);
        reopen();
        const long long time = store_->uniqueTime();
        EXPECT_EQ(time, System::getUTCDateTime());
        write(key(path("queue"), time), "event");
        close();
    }
}

TEST_F(Unique, TheMarkCoversEveryStoredTimeAndIsNotWrittenWithEach) {
    FixedClock clock(start);
    reopen();
    std::set<long long> marks;
    for (int i = 0; i < 300; ++i) {
        clock.advance(300);
        const long long time = store_->uniqueTime();
        write(key(path("queue"), time), "event");
        const long long mark = store_->clock().committed;
        ASSERT_GE(mark, time);
        ASSERT_LE(mark, System::getUTCDateTime() + storage::UniqueClock::markLead);
        marks.insert(mark);
    }
    EXPECT_LE(marks.size(), 12U);
}

TEST_F(Unique, ProcessesThatCommitOftenAndFollowEachOtherQuicklyDoNotDrift) {
    FixedClock clock(start);
    for (int i = 0; i < 100; ++i) {
        clock.advance(1000);
        reopen();
        for (int j = 0; j < 5; ++j) {
            const long long time = store_->uniqueTime();
            EXPECT_LE(time, System::getUTCDateTime() + storage::UniqueClock::markLead + 5);
            write(key(path("queue"), time), "event");
        }
        close();
    }
}

// Times of the true present are written while the clock is wild: the mark must not lead where no time was handed out.
TEST_F(Unique, AMarkThatIsWrittenWhileTheClockIsWildStaysAtTheTimesHandedOut) {
    FixedClock clock(start);
    reopen();
    for (int i = 0; i < 2; ++i) {
        clock.set(start + i * 1000);
        const long long time = store_->uniqueTime();
        clock.set(start + 400 * day + i * 1000);
        write(key(path("queue"), time), "event");
        EXPECT_LT(store_->clock().committed, start + second);
    }
    clock.set(start + second);
    reopen();
    EXPECT_LT(store_->uniqueTime(), start + 2 * second);
}

// The page that the processes of a store share, without a store.
class UniqueClockPage : public testing::Test {
  protected:
    void SetUp() override {
        std::string reason;
        ASSERT_TRUE(shared_.open(folder_ / "shared", 0600, reason)) << reason;
    }

    const TemporaryFolder folder_;
    storage::SharedPage shared_;
};

// A commit that began while the clock was wild ends when the counter has gone back to the present.
TEST_F(UniqueClockPage, AMarkOfAWildClockThatIsLateDoesNotCoverThePresent) {
    storage::ClockPage& page = shared_.clock();
    storage::UniqueClock clock(page);
    ASSERT_EQ(clock.next(start, 0), start);
    ASSERT_EQ(clock.next(start + 400 * day, 0), start + 400 * day);
    std::string record;
    long long mark = 0;
    ASSERT_TRUE(storage::UniqueClock::dueMark(page, start + 400 * day, record, mark));
    const long long present = start + second;
    ASSERT_EQ(clock.next(present, 0), present);
    storage::UniqueClock::markCommitted(page, mark);
    EXPECT_TRUE(storage::UniqueClock::dueMark(page, present, record, mark));
    EXPECT_EQ(mark, present);
}

TEST_F(UniqueClockPage, ADamagedMarkIsToldAndCostsNoMoreThanItsOwnPart) {
    storage::ClockPage& page = shared_.clock();
    ASSERT_EQ(storage::UniqueClock(page).next(start, 0), start);
    std::string record;
    long long mark = 0;
    ASSERT_TRUE(storage::UniqueClock::dueMark(page, start, record, mark));
    {
        const logging::CaptureSink log;
        storage::UniqueClock::load(page, {});
        storage::UniqueClock::load(page, record);
        EXPECT_FALSE(log.contains("damaged")) << "a store without a mark is a new one";
        EXPECT_EQ(storage::UniqueClock(page).next(start, 0), mark + 1);
    }
    for (const std::size_t kept : {std::size_t{3}, record.size() - 1}) {
        const logging::CaptureSink log;
        storage::UniqueClock::load(page, std::string_view(record).substr(0, kept));
        EXPECT_TRUE(log.contains("the store's record of the unique clock is damaged")) << kept;
        EXPECT_EQ(storage::UniqueClock(page).next(start, 0), kept == 3 ? start : mark + 1);
    }
    Item wild;
    wild.addInteger(start + 400 * day);
    storage::UniqueClock::load(page, wild.bytes().view());
    EXPECT_EQ(storage::UniqueClock(page).next(start, 0), start);
}

TEST_F(Unique, AWildClockDoesNotPoisonTheStoreAndNoTimeComesTwice) {
    std::set<long long> handedOut;
    const auto take = [&](long long now) {
        FixedClock clock(now);
        reopen();
        for (int i = 0; i < 50; ++i)
            EXPECT_TRUE(handedOut.insert(store_->uniqueTime()).second);
        const long long last = store_->uniqueTime();
        handedOut.insert(last);
        write(key(path("queue"), last), "v");
        return last;
    };
    take(start);
    const long long wild = take(start + 4000 * day);
    EXPECT_GE(wild, start + 4000 * day);
    // Back in the present: events carry the present again, not the wild time.
    EXPECT_LT(take(start + day), start + day + 5 * second);
    EXPECT_LT(take(start + 2 * day), start + 2 * day + 5 * second);
    // And when the wild hour comes, what was handed out then is passed over.
    const long long later = take(start + 4000 * day);
    EXPECT_GT(later, wild);
    EXPECT_LT(later, wild + 5 * second);
}

TEST_F(Unique, TwoProcessesAppendToOneQueueWithoutMeeting) {
    const Item queue = path("queue");
    const long long each = perProcess();
    close();
    std::vector<pid_t> writers;
    for (int w = 0; w < 2; ++w) {
        writers.push_back(fork());
        if (writers.back() != 0)
            continue;
        reopen();
        long long last = 0;
        for (long long done = 0; done < each;) {
            WriteBatch batch;
            for (int i = 0; i < 100 && done < each; ++i, ++done) {
                const long long time = System::getUTCDateTimeUnique();
                if (time <= last)
                    _exit(1);
                last = time;
                write(key(queue, time), std::to_string(w));
            }
            if (!batch.commit().durable)
                _exit(2);
        }
        close();
        _exit(0);
    }
    for (const pid_t writer : writers) {
        int status = 0;
        waitpid(writer, &status, 0);
        ASSERT_TRUE(WIFEXITED(status));
        ASSERT_EQ(WEXITSTATUS(status), 0);
    }
    reopen();
    long long count = 0;
    long long last = 0;
    Item at;
    for (bool found = queue.child(at); found; found = at.next(), ++count) {
        long long time = 0;
        ASSERT_TRUE(at.trail().decodeElementAsInteger(time));
        ASSERT_GT(time, last);
        last = time;
    }
    EXPECT_EQ(count, 2 * each);
}
