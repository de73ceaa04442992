#include "auditing/AuditAside.h"

#include <gtest/gtest.h>

#include "support/AuditStore.h"

namespace qel {
namespace {

using test::AuditStore;

ConstByteSpan span(const std::string& bytes) {
    return ConstByteSpan(std::string_view(bytes));
}

class AuditAsideTest : public ::testing::Test {
  protected:
    std::vector<AsideEntry> kept(AsideReason reason) const {
        std::vector<AsideEntry> found;
        AuditAside::walk(reason, log_, [&](const AsideEntry& entry) {
            found.push_back(entry);
            return true;
        });
        return found;
    }

    AuditStore store_;
    Item log_ = test::path("queue");
    Item key_ = test::queueKey(log_, 5);
};

TEST_F(AuditAsideTest, RawBytesAreKeptAsTheyWereWithTheirKey) {
    const std::string raw("\0\xff;no item", 10);
    const long long before = System::getUTCDateTime();
    EXPECT_TRUE(AuditAside::keep(AsideReason::damaged, log_, key_, span(raw)));
    const std::vector<AsideEntry> found = kept(AsideReason::damaged);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].value, raw);
    EXPECT_EQ(found[0].key, key_);
    EXPECT_GE(found[0].keptAt, before);
}

TEST_F(AuditAsideTest, ReasonsAndLogsAreCountedApart) {
    AuditAside::keep(AsideReason::damaged, log_, key_, span("a"));
    AuditAside::keep(AsideReason::damaged, log_, key_, span("b"));
    AuditAside::keep(AsideReason::parked, log_, key_, span("c"));
    EXPECT_EQ(AuditAside::count(AsideReason::damaged, log_), 2);
    EXPECT_EQ(AuditAside::count(AsideReason::parked, log_), 1);
    EXPECT_EQ(AuditAside::count(AsideReason::overwritten, log_), 0);
    EXPECT_EQ(AuditAside::count(AsideReason::damaged, test::path("queue2")), 0);
}

TEST_F(AuditAsideTest, NothingKeptAsideAppearsInALog) {
    AuditAside::keep(AsideReason::damaged, log_, key_, span("a"));
    EXPECT_TRUE(store_.isEmpty());
}

TEST_F(AuditAsideTest, OnlyTheFirstThousandAreKept) {
    for (long long i = 0; i < AuditAside::limit; ++i)
        ASSERT_TRUE(AuditAside::keep(AsideReason::damaged, log_, key_, span(std::to_string(i))));
    EXPECT_FALSE(AuditAside::keep(AsideReason::damaged, log_, key_, span("one too many")));
    EXPECT_EQ(AuditAside::count(AsideReason::damaged, log_), AuditAside::limit);
    EXPECT_EQ(kept(AsideReason::damaged).back().value, "999");
}

TEST_F(AuditAsideTest, EveryParkedEventIsKept) {
    for (long long i = 0; i <= AuditAside::limit; ++i)
        ASSERT_TRUE(AuditAside::keep(AsideReason::parked, log_, key_, span(std::to_string(i))));
    EXPECT_EQ(AuditAside::count(AsideReason::parked, log_), AuditAside::limit + 1);
    EXPECT_EQ(kept(AsideReason::parked).back().value, "1000");
}

TEST_F(AuditAsideTest, ParkedEventsReturnToTheirPlacesAndLeaveNothingBehind) {
    store_.store().setValueLimit(2000);
    const std::string large(1900, 'x');
    const std::string pieces(7000, 'y');
    AuditAside::keep(AsideReason::parked, log_, key_, span(pieces));
    AuditAside::keep(AsideReason::parked, log_, test::queueKey(log_, 6), span("small"));
    AuditAside::keep(AsideReason::parked, log_, test::queueKey(log_, 7), span(large));
    AuditAside::keep(AsideReason::parked, test::path("other"), test::queueKey(test::path("other"), 7),
                     span("not asked for"));
    AuditAside::keep(AsideReason::damaged, log_, test::queueKey(log_, 8), span("damaged"));
    // What the store does not take stays where it is.
    EXPECT_EQ(AuditAside::returnParked(log_), 2);
    EXPECT_EQ(store_.times(log_), (std::vector<long long>{6, 7}));
    ASSERT_EQ(kept(AsideReason::parked).size(), 1U);
    EXPECT_EQ(AuditAside::count(AsideReason::parked, log_), 1);
    EXPECT_EQ(kept(AsideReason::parked)[0].value, pieces);
    EXPECT_TRUE(ItemStore::flush()) << "nothing was refused";
    store_.store().setValueLimit(20000);
    EXPECT_EQ(AuditAside::returnParked(log_), 1);
    EXPECT_EQ(store_.times(log_), (std::vector<long long>{5, 6, 7}));
    EXPECT_EQ(test::queueKey(log_, 5).fetch().view(), pieces);
    EXPECT_EQ(test::queueKey(log_, 6).fetch().view(), "small");
    EXPECT_EQ(test::queueKey(log_, 7).fetch().view(), large);
    EXPECT_EQ(AuditAside::count(AsideReason::parked, log_), 0);
    EXPECT_EQ(AuditAside::returnParked(log_), 0);
    EXPECT_EQ(AuditAside::count(AsideReason::parked, test::path("other")), 1);
    EXPECT_EQ(AuditAside::count(AsideReason::damaged, log_), 1);
    Item folder = ItemStore::sidePath("aside");
    folder.addString("parked");
    folder.addItem(log_);
    Item left;
    EXPECT_FALSE(folder.child(left)) << left.asString();
}

TEST_F(AuditAsideTest, AParkedEventThatIsStillQueuedIsNotReplaced) {
    key_.store(test::event("whole"));
    AuditAside::keep(AsideReason::parked, log_, key_, span("the first piece"));
    EXPECT_EQ(AuditAside::returnParked(log_), 1);
    EXPECT_EQ(AuditStore::value(key_), test::event("whole"));
    EXPECT_EQ(AuditAside::count(AsideReason::parked, log_), 0);
}

TEST_F(AuditAsideTest, ValueLargerThanTheStoreTakesIsKeptInPieces) {
    store_.store().setValueLimit(2000);
    std::string raw;
    for (int i = 0; i < 3000; ++i)
        raw += std::to_string(i) + ",";
    EXPECT_TRUE(AuditAside::keep(AsideReason::parked, log_, key_, span(raw)));
    EXPECT_TRUE(AuditAside::keep(AsideReason::parked, log_, key_, span("small")));
    const std::vector<AsideEntry> found = kept(AsideReason::parked);
    ASSERT_EQ(found.size(), 2U);
    EXPECT_EQ(found[0].value, raw);
    EXPECT_EQ(found[1].value, "small");
}

TEST_F(AuditAsideTest, VisitorEndsTheWalk) {
    for (int i = 0; i < 5; ++i)
        AuditAside::keep(AsideReason::damaged, log_, key_, span("x"));
    int visits = 0;
    AuditAside::walk(AsideReason::damaged, log_, [&](const AsideEntry&) { return ++visits < 2; });
    EXPECT_EQ(visits, 2);
}

TEST_F(AuditAsideTest, BytesOfAFetchMayBeGivenDirectly) {
    key_.store(test::event("fetched"));
    AuditAside::keep(AsideReason::overwritten, log_, key_, key_.fetch());
    EXPECT_EQ(kept(AsideReason::overwritten).at(0).value, test::event("fetched").bytes().view());
}

}  // namespace
}  // namespace qel
