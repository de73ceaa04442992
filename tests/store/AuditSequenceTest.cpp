#include "auditing/AuditSequence.h"

#include <gtest/gtest.h>

#include <type_traits>
#include <vector>

#include "qelCore/logging/CaptureSink.h"
#include "support/AuditStore.h"

namespace qel {
namespace {

using test::AuditStore;
using test::event;

class AuditSequenceTest : public ::testing::Test {
  protected:
    AuditSequenceTest() { sequence_.setPath(test::path("queue")); }

    /// Events named by their times.
    void record(long long from, long long to) {
        for (long long time = from; time <= to; ++time)
            store_.put(sequence_.getPath(), time, event(std::to_string(time)));
    }

    AuditStore store_;
    AuditSequence sequence_;
};

TEST_F(AuditSequenceTest, NullSequenceStoresNothing) {
    AuditSequence().append(event("lost"));
    EXPECT_TRUE(store_.isEmpty());
    Item root;
    root.addInteger(1);
    root.store(event("of nobody's queue"));
    AuditSequence().deleteEventsBefore(100);
    EXPECT_EQ(AuditStore::value(root), event("of nobody's queue"));
}

TEST_F(AuditSequenceTest, AppendStoresTheEventAsItIsUnderItsTime) {
    const long long before = System::getUTCDateTime();
    Item parameters = event("SeriesOpened");
    parameters.addString("1.2.3");
    parameters.addInteger(7);
    sequence_.append(parameters);
    const std::vector<long long> times = store_.times(sequence_.getPath());
    ASSERT_EQ(times.size(), 1U);
    EXPECT_GE(times[0], before);
    EXPECT_EQ(store_.get(sequence_.getPath(), times[0]), parameters);
}

TEST_F(AuditSequenceTest, AnyItemIsStoredWithoutALookAtItsShape) {
    Item nested;
    nested.addItem(event("inside"));
    sequence_.append(nested);
    sequence_.append(Item());
    EXPECT_EQ(store_.times(sequence_.getPath()).size(), 2U);
}

TEST_F(AuditSequenceTest, AppendsInQuickSuccessionGetDifferentAscendingTimes) {
    for (int i = 0; i < 500; ++i)
        sequence_.append(event(std::to_string(i)));
    const std::vector<long long> times = store_.times(sequence_.getPath());
    ASSERT_EQ(times.size(), 500U);
    for (std::size_t i = 0; i < times.size(); ++i)
        EXPECT_EQ(store_.get(sequence_.getPath(), times[i]), event(std::to_string(i)));
}

TEST_F(AuditSequenceTest, DeletingRemovesTheNewest64OfTheOlderOnesPerCall) {
    record(1, 100);
    sequence_.deleteEventsBefore(101);
    std::vector<long long> left = store_.times(sequence_.getPath());
    ASSERT_EQ(left.size(), 36U);
    EXPECT_EQ(left.front(), 1);
    EXPECT_EQ(left.back(), 36);
    sequence_.deleteEventsBefore(101);
    EXPECT_TRUE(store_.times(sequence_.getPath()).empty());
}

TEST_F(AuditSequenceTest, EventAtExactlyThatTimeSurvives) {
    record(1, 3);
    sequence_.deleteEventsBefore(2);
    EXPECT_EQ(store_.times(sequence_.getPath()), (std::vector<long long>{2, 3}));
}

TEST_F(AuditSequenceTest, TimesBeforeTheEpochAreOlder) {
    record(-2, 2);
    sequence_.deleteEventsBefore(0);
    EXPECT_EQ(store_.times(sequence_.getPath()), (std::vector<long long>{0, 1, 2}));
}

TEST_F(AuditSequenceTest, DeletingLeavesACentralLogAlone) {
    store_.putCentral(sequence_.getPath(), 1, 77, event("kept"));
    record(5, 6);
    sequence_.deleteEventsBefore(100);
    EXPECT_EQ(store_.centralCount(sequence_.getPath()), 1U);
    EXPECT_TRUE(store_.times(sequence_.getPath()).empty());
}

TEST_F(AuditSequenceTest, DeletingLeavesNeighbouringPathsAlone) {
    store_.put(test::path("queu"), 1, event("before"));
    store_.put(test::path("queue2"), 1, event("behind"));
    record(5, 6);
    sequence_.deleteEventsBefore(100);
    EXPECT_EQ(store_.times(test::path("queu")).size(), 1U);
    EXPECT_EQ(store_.times(test::path("queue2")).size(), 1U);
}

TEST_F(AuditSequenceTest, ClearedPathHidesTheEventsAndTheOldPathShowsThemAgain) {
    record(1, 3);
    const Item path = sequence_.getPath();
    sequence_.clearPath();
    EXPECT_TRUE(sequence_.isNullSequence());
    EXPECT_EQ(store_.times(path).size(), 3U);
    sequence_.setPath(path);
    EXPECT_FALSE(sequence_.isNullSequence());
    sequence_.deleteEventsBefore(100);
    EXPECT_TRUE(store_.times(path).empty());
}

TEST_F(AuditSequenceTest, SettingItsOwnPathChangesNothing) {
    const Item path = sequence_.getPath();
    sequence_.setPath(sequence_.getPath());
    EXPECT_EQ(sequence_.getPath(), path);
}

TEST_F(AuditSequenceTest, CopiesAndMovesTakeThePathAndLeaveTheEvents) {
    record(1, 1);
    AuditSequence copy(sequence_);
    EXPECT_EQ(copy.getPath(), sequence_.getPath());
    AuditSequence assigned;
    assigned = copy;
    EXPECT_EQ(assigned.getPath(), sequence_.getPath());
    AuditSequence moved(std::move(copy));
    EXPECT_EQ(moved.getPath(), sequence_.getPath());
    AuditSequence moveAssigned;
    moveAssigned = std::move(moved);
    EXPECT_EQ(moveAssigned.getPath(), sequence_.getPath());
    AuditSequence& itself = assigned;
    assigned = itself;
    EXPECT_EQ(assigned.getPath(), sequence_.getPath());
    EXPECT_EQ(store_.times(sequence_.getPath()).size(), 1U);
}

TEST_F(AuditSequenceTest, HasNoVirtualOperationsAndHoldsThePathOnly) {
    EXPECT_FALSE(std::is_polymorphic_v<AuditSequence>);
    EXPECT_EQ(sizeof(AuditSequence), sizeof(Item));
    EXPECT_STREQ(AuditSequence::getStaticClassName(), "AuditSequence");
}

// What a static initialiser of another module would see: the answer was there before main began.
AuditSequence* const interactionAtStart = &AuditSequence::Interaction();
const bool nullAtStart = interactionAtStart->isNullSequence();

TEST_F(AuditSequenceTest, InteractionIsANullSequenceUntilOneIsRegistered) {
    EXPECT_TRUE(nullAtStart);
    interactionAtStart->append(event("lost"));
    EXPECT_TRUE(store_.isEmpty());

    AuditSequence::setInteraction(sequence_);
    EXPECT_EQ(&AuditSequence::Interaction(), &sequence_);
    AuditSequence::Interaction().append(event("kept"));
    EXPECT_EQ(store_.times(sequence_.getPath()).size(), 1U);

    AuditSequence::setInteraction(*interactionAtStart);
    EXPECT_EQ(&AuditSequence::Interaction(), interactionAtStart);
}

// Once per process, so in a process of its own.
TEST(AuditSequenceDeathTest, DebugBuildTellsOnceThatNobodyRegisteredTheInteractionSequence) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
#ifdef NDEBUG
    constexpr int expected = 0;
#else
    constexpr int expected = 1;
#endif
    EXPECT_EXIT(
        {
            logging::CaptureSink log;
            AuditSequence().append(event("E"));
            for (int i = 0; i < 3; ++i)
                AuditSequence::Interaction().append(event("E"));
            std::_Exit(log.count("before setInteraction") == expected ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace qel
