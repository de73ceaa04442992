#include "qelCore/System.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

#include "support/FixedClock.h"

namespace qel {
namespace {

TEST(System, TimeIsMicrosecondsSince1970) {
    const auto before = std::chrono::system_clock::now();
    const UTCDateTime now = System::getUTCDateTime();
    const auto after = std::chrono::system_clock::now();
    const auto count = [](auto time) {
        return std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
    };
    EXPECT_LE(count(before), now);
    EXPECT_LE(now, count(after));
}

TEST(System, ObjectOfTheProcessIsOne) {
    EXPECT_EQ(&System::instance(), &System::instance());
    EXPECT_GT(System::instance().getUTCDateTime(), 0);
    EXPECT_STREQ(System::getStaticClassName(), "System");
}

TEST(System, ClockIsReplaceable) {
    {
        const test::FixedClock clock(42);
        EXPECT_EQ(System::getUTCDateTime(), 42);
        clock.set(43);
        EXPECT_EQ(System::getUTCDateTime(), 43);
    }
    EXPECT_GT(System::getUTCDateTime(), 1000000000000000);
}

TEST(UniqueTime, IncreasesOnAClockThatStands) {
    const UTCDateTime first = System::getUTCDateTimeUnique();
    const test::FixedClock clock(first + 1000000);
    EXPECT_EQ(System::getUTCDateTimeUnique(), first + 1000000);
    EXPECT_EQ(System::getUTCDateTimeUnique(), first + 1000001);
    EXPECT_EQ(System::getUTCDateTimeUnique(), first + 1000002);
}

TEST(UniqueTime, IncreasesWhenTheClockStepsBack) {
    const UTCDateTime first = System::getUTCDateTimeUnique();
    const test::FixedClock clock(first - 3600000000);
    EXPECT_EQ(System::getUTCDateTimeUnique(), first + 1);
    EXPECT_EQ(System::getUTCDateTimeUnique(), first + 2);
}

TEST(UniqueTime, ThreadsNeverMeet) {
    constexpr int each = 200000;
    std::vector<std::vector<UTCDateTime>> times(2);
    std::vector<std::thread> threads;
    for (auto& mine : times)
        threads.emplace_back([&mine] {
            mine.reserve(each);
            for (int i = 0; i < each; ++i)
                mine.push_back(System::getUTCDateTimeUnique());
        });
    for (std::thread& thread : threads)
        thread.join();
    std::vector<UTCDateTime> all;
    for (const auto& mine : times) {
        EXPECT_TRUE(std::is_sorted(mine.begin(), mine.end()));
        all.insert(all.end(), mine.begin(), mine.end());
    }
    std::sort(all.begin(), all.end());
    EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end());
}

class CountingSource : public UniqueTimeSource {
  public:
    explicit CountingSource(UTCDateTime first) : next_(first) {}
    UTCDateTime next(UTCDateTime now, UTCDateTime atLeast) override {
        ++asked;
        next_ = std::max({next_ + 1, now, atLeast});
        return next_;
    }
    int asked = 0;

  private:
    UTCDateTime next_;
};

class UniqueTimeSourceTest : public testing::Test {
  protected:
    ~UniqueTimeSourceTest() override { System::setUniqueTimeSource(nullptr); }
};

TEST_F(UniqueTimeSourceTest, GivesTheTimesWhileInstalled) {
    const UTCDateTime ahead = System::getUTCDateTimeUnique() + 5000000;
    const auto source = std::make_shared<CountingSource>(ahead);
    System::setUniqueTimeSource(source);
    EXPECT_EQ(System::getUniqueTimeSource(), source);
    EXPECT_EQ(System::getUTCDateTimeUnique(), ahead + 1);
    EXPECT_EQ(System::getUTCDateTimeUnique(), ahead + 2);
    System::setUniqueTimeSource(nullptr);
    EXPECT_EQ(System::getUTCDateTimeUnique(), ahead + 3);
    EXPECT_EQ(source->asked, 2);
}

TEST_F(UniqueTimeSourceTest, FirstTimeFollowsAllThatWereGivenOutBefore) {
    const test::FixedClock clock(1000);
    const UTCDateTime before = System::getUTCDateTimeUnique();
    System::setUniqueTimeSource(std::make_shared<CountingSource>(0));
    EXPECT_EQ(System::getUTCDateTimeUnique(), before + 1);
}

}  // namespace
}  // namespace qel
