#include "auditing/AuditLogTools.h"

#include <gtest/gtest.h>

#include <limits>

#include "auditing/AuditAside.h"
#include "support/AuditStore.h"
#include "support/FixedClock.h"

namespace qel {
namespace {

using test::AuditStore;
using test::event;

class AuditLogToolsTest : public ::testing::Test {
  protected:
    void fill(long long from, long long to) {
        for (long long time = from; time <= to; ++time)
            store_.putCentral(log_, time, 7, event("u", "d", std::to_string(time)));
    }

    std::vector<std::string> faults(LogShape shape) const {
        std::vector<std::string> found;
        AuditLogTools::verify(log_, shape, [&](const std::string& key, const std::string& sentence) {
            found.push_back(key + ": " + sentence);
        });
        return found;
    }

    AuditStore store_;
    Item log_ = test::path("log");
};

TEST_F(AuditLogToolsTest, SummaryOfAnEmptyLogIsAllZero) {
    const LogSummary summary = AuditLogTools::summarize(log_, LogShape::central);
    EXPECT_EQ(summary.events, 0U);
    EXPECT_EQ(summary.oldest, 0);
    EXPECT_EQ(summary.newest, 0);
    long long time = 0;
    EXPECT_FALSE(AuditLogTools::oldest(log_, LogShape::central, time));
    EXPECT_FALSE(AuditLogTools::newest(log_, LogShape::queue, time));
    EXPECT_EQ(AuditLogTools::summarize(Item(), LogShape::queue).events, 0U);
}

TEST_F(AuditLogToolsTest, SummaryCountsAndTellsBothEnds) {
    fill(-5, 20);
    const LogSummary summary = AuditLogTools::summarize(log_, LogShape::central);
    EXPECT_EQ(summary.events, 26U);
    EXPECT_EQ(summary.oldest, -5);
    EXPECT_EQ(summary.newest, 20);
    long long time = 0;
    EXPECT_TRUE(AuditLogTools::oldest(log_, LogShape::central, time));
    EXPECT_EQ(time, -5);
    EXPECT_TRUE(AuditLogTools::newest(log_, LogShape::central, time));
    EXPECT_EQ(time, 20);
}

TEST_F(AuditLogToolsTest, QueueHasItsEndsToo) {
    store_.put(log_, 3, event("a"));
    store_.put(log_, std::numeric_limits<long long>::max(), event("b"));
    long long time = 0;
    EXPECT_TRUE(AuditLogTools::oldest(log_, LogShape::queue, time));
    EXPECT_EQ(time, 3);
    EXPECT_TRUE(AuditLogTools::newest(log_, LogShape::queue, time));
    EXPECT_EQ(time, std::numeric_limits<long long>::max());
    EXPECT_EQ(AuditLogTools::summarize(log_, LogShape::queue).events, 2U);
}

TEST_F(AuditLogToolsTest, PruningRemovesAllOlderThanTheTimeAndNoneAtIt) {
    fill(1, 10000);
    EXPECT_EQ(AuditLogTools::pruneCentral(log_, 9998, false), 9997U);
    EXPECT_EQ(AuditLogTools::summarize(log_, LogShape::central).oldest, 9998);
    EXPECT_EQ(store_.centralCount(log_), 3U);
}

TEST_F(AuditLogToolsTest, DryRunCountsAndRemovesNothing) {
    fill(1, 20);
    EXPECT_EQ(AuditLogTools::pruneCentral(log_, 11, true), 10U);
    EXPECT_EQ(store_.centralCount(log_), 20U);
}

TEST_F(AuditLogToolsTest, PruningLeavesQueuesAndNeighboursAlone) {
    store_.put(log_, 1, event("queued"));
    store_.putCentral(test::path("log2"), 1, 1, event("u", "d", "e"));
    fill(1, 3);
    EXPECT_EQ(AuditLogTools::pruneCentral(log_, 100, false), 3U);
    EXPECT_EQ(store_.times(log_).size(), 1U);
    EXPECT_EQ(store_.centralCount(test::path("log2")), 1U);
}

TEST_F(AuditLogToolsTest, PruningEndedEarlyLeavesALogWithoutHoles) {
    fill(1, 10000);
    const unsigned long long removed =
        AuditLogTools::pruneCentral(log_, 10001, false, [](unsigned long long) { return false; });
    EXPECT_GT(removed, 0U);
    EXPECT_LT(removed, 10000U);
    const LogSummary left = AuditLogTools::summarize(log_, LogShape::central);
    EXPECT_EQ(left.events, 10000U - removed);
    EXPECT_EQ(left.oldest, static_cast<long long>(removed) + 1);
}

TEST_F(AuditLogToolsTest, SoundLogHasNoFaults) {
    fill(1, 10);
    EXPECT_TRUE(faults(LogShape::central).empty());
    EXPECT_EQ(AuditLogTools::verify(log_, LogShape::central, {}), 10U);
}

TEST_F(AuditLogToolsTest, EachFaultIsToldWithItsKey) {
    fill(1, 1);
    store_.put(log_, 9, event("u", "d", "e"));
    store_.putCentral(log_, 2, -1, event("u", "d", "e"));
    store_.putCentral(log_, 3, 1, event("only the user"));
    Item broken;
    broken.setPlain(reinterpret_cast<const unsigned char*>("\xff\xff"), 2);
    store_.putCentral(log_, 4, 1, broken);
    EXPECT_EQ(faults(LogShape::central),
              (std::vector<std::string>{R"(["log",9]: the key does not end in [time, origin checksum])",
                                        R"(["log",[2,-1]]: the origin checksum is outside 0 to 4294967295)",
                                        R"(["log",[3,1]]: the value does not begin with user and device)",
                                        R"(["log",[4,1]]: the value does not decode)"}));
}

TEST_F(AuditLogToolsTest, QueueMustEndInTimes) {
    store_.put(log_, 1, event("fine"));
    Item key(log_);
    key.addString("name");
    key.store(event("odd"));
    EXPECT_EQ(faults(LogShape::queue),
              (std::vector<std::string>{
                  R"(["log","name"]: the key does not end in an integer, the event's time)"}));
}

TEST_F(AuditLogToolsTest, CentralEventCarriesItsOriginAndThePresent) {
    const long long before = System::getUTCDateTime();
    AuditLogTools::appendCentral(log_, AuditLogTools::origin("anna", "pc", 5, false), 5,
                                 event("AuditLogUsed"));
    const std::vector<Item> lines = store_.central(log_);
    ASSERT_EQ(lines.size(), 1U);
    long long time = 0;
    EXPECT_TRUE(test::items(lines[0]).at(0).decodeElementAsInteger(time));
    EXPECT_GE(time, before);
    EXPECT_EQ(test::texts(lines[0]).at(1), "anna");
    EXPECT_EQ(test::texts(lines[0]).at(2), "pc");
    EXPECT_EQ(test::texts(lines[0]).at(3), "AuditLogUsed");
}

TEST_F(AuditLogToolsTest, AnonymousOriginIsTheChecksumAndStars) {
    EXPECT_EQ(AuditLogTools::origin("anna", "pc", 4294967295U, true), event("4294967295", "***"));
    EXPECT_EQ(AuditLogTools::origin("anna", "pc", 0, true), event("0", "***"));
}

// Two daemons on one database may give one auditor's uses the same time.
TEST_F(AuditLogToolsTest, RecordThatStandsUnderTheSameTimeAndOriginIsKeptAside) {
    const test::FixedClock clock(System::getUTCDateTimeUnique() + 1000000);
    const long long next = System::getUTCDateTimeUnique() + 1;
    store_.putCentral(log_, next, 5, event("anna", "pc", "of the other daemon"));
    AuditLogTools::appendCentral(log_, AuditLogTools::origin("anna", "pc", 5, false), 5,
                                 event("of this one"));
    ASSERT_FALSE(test::centralKey(log_, next, 5).fetch().isNull());
    ASSERT_EQ(AuditAside::count(AsideReason::overwritten, log_), 1);
    AuditAside::walk(AsideReason::overwritten, log_, [&](const AsideEntry& entry) {
        EXPECT_NE(entry.value.find("of the other daemon"), std::string::npos);
        EXPECT_EQ(entry.key, test::centralKey(log_, next, 5));
        return true;
    });
}

}  // namespace
}  // namespace qel
