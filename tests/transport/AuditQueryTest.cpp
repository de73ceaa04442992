#include <gtest/gtest.h>

#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "auditing/AuditAside.h"
#include "auditing/AuditClient.h"
#include "qelCore/logging/CaptureSink.h"
#include "qelNet/RecordingPeer.h"
#include "support/AuditPackets.h"
#include "support/AuditStore.h"

namespace qel {
namespace {

using test::AuditStore;
using test::event;

std::vector<long long> fromTo(long long first, long long last) {
    std::vector<long long> times(static_cast<std::size_t>(last - first + 1));
    std::iota(times.begin(), times.end(), first);
    return times;
}

class AuditQueryTest : public ::testing::Test {
  protected:
    AuditQueryTest() {
        sequence_.setPath(path_);
        query_ = std::make_unique<AuditClient::AuditQuery>(&client_, sequence_);
    }

    void queue(long long from, long long to) {
        for (long long time = from; time <= to; ++time)
            store_.put(path_, time, event("E" + std::to_string(time)));
    }
    /// Processes and returns the times that were sent.
    std::vector<long long> process() {
        peer_.clearSent();
        query_->processEvents();
        return test::dataTimes(peer_.getSent());
    }
    bool receive(const Ref<Packet>& packet) { return query_->packetReceived(&peer_, packet.get()); }
    void acknowledge(long long from, long long to) {
        for (long long time = from; time <= to; ++time)
            EXPECT_TRUE(receive(test::ackPacket(time)));
    }
    std::vector<long long> queued() const { return store_.times(path_); }

    AuditStore store_;
    Item path_ = test::path("queue");
    AuditSequence sequence_;
    RecordingPeer peer_;
    AuditClient client_{&peer_, "audit"};
    std::unique_ptr<AuditClient::AuditQuery> query_;
};

TEST_F(AuditQueryTest, WindowHoldsThe64OldestAndMovesWithTheAcknowledgements) {
    queue(1, 100);
    EXPECT_EQ(process(), fromTo(1, 64));
    EXPECT_EQ(query_->getInFlightCount(), 64U);
    EXPECT_TRUE(process().empty());
    acknowledge(1, 10);
    EXPECT_EQ(process(), fromTo(65, 74));
    EXPECT_TRUE(process().empty());
}

TEST_F(AuditQueryTest, PacketCarriesTheEventAsItIsQueued) {
    Item what = event("SeriesOpened", "1.2.3");
    what.addInteger(-7);
    what.addBool(true);
    store_.put(path_, 5, what);
    process();
    ASSERT_EQ(peer_.getSent().size(), 1U);
    EXPECT_EQ(peer_.getSent()[0]->getItem("event"), what);
}

TEST_F(AuditQueryTest, EventsAddedLaterAreSentAndNoneTwice) {
    queue(10, 12);
    EXPECT_EQ(process(), fromTo(10, 12));
    queue(13, 14);
    EXPECT_EQ(process(), fromTo(13, 14));
    queue(5, 5);
    EXPECT_EQ(process(), fromTo(5, 5));
}

TEST_F(AuditQueryTest, AcknowledgementRemovesExactlyItsOwnEventInAnyOrder) {
    queue(1, 5);
    process();
    acknowledge(4, 4);
    acknowledge(2, 2);
    EXPECT_EQ(queued(), (std::vector<long long>{1, 3, 5}));
    EXPECT_EQ(query_->getInFlightCount(), 3U);
}

TEST_F(AuditQueryTest, AcknowledgementOfATimeNeverSentRemovesItsEntry) {
    queue(1, 3);
    acknowledge(2, 2);
    EXPECT_EQ(queued(), (std::vector<long long>{1, 3}));
    acknowledge(99, 99);
    EXPECT_EQ(queued(), (std::vector<long long>{1, 3}));
}

TEST_F(AuditQueryTest, SecondAcknowledgementHasNoEffect) {
    queue(1, 3);
    process();
    acknowledge(1, 1);
    acknowledge(1, 1);
    EXPECT_EQ(queued(), (std::vector<long long>{2, 3}));
    EXPECT_EQ(query_->getInFlightCount(), 2U);
    EXPECT_EQ(query_->getStatistics().acknowledged, 1U);
}

TEST_F(AuditQueryTest, UnacknowledgedEventsAreSentAgainByANewQueryOnly) {
    queue(1, 3);
    process();
    EXPECT_TRUE(process().empty());
    query_ = std::make_unique<AuditClient::AuditQuery>(&client_, sequence_);
    EXPECT_EQ(process(), fromTo(1, 3));
}

TEST_F(AuditQueryTest, NothingIsSentWhileTheConnectionCannotTakePackets) {
    queue(1, 3);
    peer_.setCannotSend(true);
    EXPECT_TRUE(process().empty());
    EXPECT_EQ(query_->getInFlightCount(), 0U);
    peer_.setCannotSend(false);
    EXPECT_EQ(process(), fromTo(1, 3));
}

TEST_F(AuditQueryTest, EmptyQueueSendsNothing) {
    EXPECT_TRUE(process().empty());
}

TEST_F(AuditQueryTest, KeyWithoutATimeIsLoggedKeptAsideRemovedAndPassedOver) {
    logging::CaptureSink log;
    queue(1, 1);
    Item odd(path_);
    odd.addString("odd");
    odd.store(event("lost"));
    test::centralKey(path_, 7, 8).store(event("nested"));
    EXPECT_EQ(process(), fromTo(1, 1));
    EXPECT_EQ(log.texts(logging::levelError),
              (std::vector<std::string>{R"(invalid entry in audit log: ["queue","odd"])",
                                        R"(invalid entry in audit log: ["queue",[7,8]])"}));
    EXPECT_FALSE(odd.fetch());
    EXPECT_EQ(AuditAside::count(AsideReason::damaged, path_), 2);
    EXPECT_EQ(query_->getStatistics().damaged, 2U);
}

TEST_F(AuditQueryTest, DamagedEntryInFrontDoesNotHoldUpWhatFollows) {
    logging::CaptureSink log;
    Item odd(path_);
    odd.addBool(true);
    odd.store(event("lost"));
    queue(1, 3);
    EXPECT_EQ(process(), fromTo(1, 3));
    EXPECT_TRUE(log.contains("invalid entry in audit log: "));
}

TEST_F(AuditQueryTest, ValueThatDoesNotDecodeIsLoggedKeptAsideAndRemoved) {
    logging::CaptureSink log;
    const std::string raw = "\xff\xfe no event";
    Item broken;
    broken.setPlain(reinterpret_cast<const unsigned char*>(raw.data()), raw.size());
    store_.put(path_, 1, broken);
    queue(2, 2);
    EXPECT_EQ(process(), fromTo(2, 2));
    EXPECT_EQ(log.texts(logging::levelError),
              (std::vector<std::string>{R"(failed reading entry in audit log: ["queue",1])"}));
    EXPECT_EQ(queued(), fromTo(2, 2));
    std::string kept;
    AuditAside::walk(AsideReason::damaged, path_, [&](const AsideEntry& entry) {
        kept = entry.value;
        return true;
    });
    EXPECT_EQ(kept, raw);
}

TEST_F(AuditQueryTest, EntryWithoutValueIsLoggedOnceAndPassedOver) {
    logging::CaptureSink log;
    Item below = test::queueKey(path_, 1);
    below.addString("below");
    below.store(event("not this queue's"));
    queue(2, 2);
    EXPECT_EQ(process(), fromTo(2, 2));
    EXPECT_TRUE(process().empty());
    EXPECT_EQ(log.texts(logging::levelError),
              (std::vector<std::string>{R"(failed reading entry in audit log: ["queue",1])"}));
    EXPECT_TRUE(below.fetch());
}

TEST_F(AuditQueryTest, EventLargerThanTheServiceTakesIsParkedAndHoldsUpNothing) {
    logging::CaptureSink log;
    const std::string large(NetworkLimits().valueBytes + 1U, 'x');
    store_.put(path_, 1, event(large));
    queue(2, 2);
    EXPECT_EQ(process(), fromTo(2, 2));
    EXPECT_EQ(queued(), fromTo(2, 2));
    EXPECT_TRUE(log.contains("event is larger than the service takes ("));
    EXPECT_EQ(query_->getStatistics().parked, 1U);
    std::string kept;
    AuditAside::walk(AsideReason::parked, path_, [&](const AsideEntry& entry) {
        kept = entry.value;
        return true;
    });
    EXPECT_EQ(kept, event(large).bytes().view());
}

TEST_F(AuditQueryTest, NullSequenceSendsNothingAndRemovesNothing) {
    queue(1, 3);
    Item root;
    root.addInteger(1);
    root.store(event("of nobody's queue"));
    sequence_.clearPath();
    const logging::CaptureSink log;
    EXPECT_TRUE(process().empty());
    EXPECT_TRUE(receive(test::ackPacket(1)));
    EXPECT_EQ(AuditStore::value(root), event("of nobody's queue"));
    EXPECT_EQ(queued(), fromTo(1, 3));
    EXPECT_TRUE(log.entries().empty());
    EXPECT_EQ(query_->getStatistics().damaged, 0U);
}

TEST_F(AuditQueryTest, HoweverManyAreParkedNoneIsGivenUp) {
    for (long long i = 0; i < AuditAside::limit; ++i)
        ASSERT_TRUE(AuditAside::keep(AsideReason::parked, path_, test::queueKey(path_, i),
                                     ConstByteSpan(std::string_view("an earlier one"))));
    const Item large = event(std::string(NetworkLimits().valueBytes + 1U, 'x'));
    store_.put(path_, 5000, large);
    queue(5001, 5001);
    EXPECT_EQ(process(), fromTo(5001, 5001));
    EXPECT_EQ(AuditAside::count(AsideReason::parked, path_), AuditAside::limit + 1);
    AsideEntry last;
    AuditAside::walk(AsideReason::parked, path_, [&](const AsideEntry& entry) {
        last = entry;
        return true;
    });
    EXPECT_EQ(last.key, test::queueKey(path_, 5000));
    EXPECT_EQ(last.value, large.bytes().view());
}

TEST_F(AuditQueryTest, AnEventThatCannotBeKeptAsideStaysInItsQueue) {
    const Item large = event(std::string(NetworkLimits().valueBytes + 1U, 'x'));
    store_.put(path_, 1, large);
    queue(2, 2);
    const std::size_t usual = store_.store().valueLimit();
    store_.store().setValueLimit(500);
    logging::CaptureSink log;
    EXPECT_EQ(process(), fromTo(2, 2));
    EXPECT_TRUE(process().empty());
    EXPECT_EQ(queued(), fromTo(1, 2));
    EXPECT_EQ(store_.get(path_, 1), large);
    EXPECT_EQ(query_->getStatistics().parked, 0U);
    EXPECT_EQ(AuditAside::count(AsideReason::parked, path_), 0);
    EXPECT_EQ(log.count("cannot be kept aside, it stays in the queue"), 1);
    store_.store().setValueLimit(usual);
    process();
    EXPECT_EQ(queued(), fromTo(2, 2));
    EXPECT_EQ(query_->getStatistics().parked, 1U);
    EXPECT_EQ(AuditAside::count(AsideReason::parked, path_), 1);
}

TEST_F(AuditQueryTest, AWalkThatParksMuchGoesOnInTheNextOne) {
    const Item large = event(std::string(NetworkLimits().valueBytes + 1U, 'x'));
    const long long many = static_cast<long long>(WriteBatch::largest / NetworkLimits().valueBytes);
    for (long long time = 1; time <= many; ++time)
        store_.put(path_, time, large);
    queue(many + 1, many + 1);
    EXPECT_TRUE(process().empty());
    EXPECT_GT(query_->getStatistics().parked, 0U);
    EXPECT_LT(query_->getStatistics().parked, static_cast<unsigned long long>(many));
    std::vector<long long> sent;
    for (int walks = 0; walks < 10 && sent.empty(); ++walks)
        sent = process();
    EXPECT_EQ(sent, fromTo(many + 1, many + 1));
    EXPECT_EQ(query_->getStatistics().parked, static_cast<unsigned long long>(many));
    EXPECT_EQ(AuditAside::count(AsideReason::parked, path_), many);
    EXPECT_EQ(queued(), fromTo(many + 1, many + 1));
}

TEST_F(AuditQueryTest, PacketsOfOtherTypesAreDeclined) {
    EXPECT_FALSE(receive(test::dataPacket(1, event("E"))));
    EXPECT_FALSE(receive(test::foreignPacket(303)));
}

TEST_F(AuditQueryTest, AcknowledgementThatDoesNotFitIsSwallowedWithoutEffect) {
    queue(1, 3);
    process();
    EXPECT_TRUE(receive(test::foreignPacket(302)));
    EXPECT_EQ(query_->getInFlightCount(), 3U);
    EXPECT_EQ(queued(), fromTo(1, 3));
}

TEST_F(AuditQueryTest, QueueOutlivesTheQuery) {
    queue(1, 3);
    process();
    query_.reset();
    EXPECT_EQ(queued(), fromTo(1, 3));
}

TEST_F(AuditQueryTest, SessionOfTypeThreeIsAskedFor) {
    EXPECT_EQ(query_->getSessionType(), 3);
    EXPECT_EQ(query_->getClient(), &client_);
}

TEST_F(AuditQueryTest, ClassNamesAndChainsEndInTheClassItself) {
    EXPECT_STREQ(query_->getDynamicClassName(), "AuditQuery");
    const std::array<const char*, 16> chain = query_->getDynamicClassChain();
    EXPECT_STREQ(chain[0], "Object");
    EXPECT_STREQ(chain[1], "Service");
    EXPECT_STREQ(chain[2], "Query");
    EXPECT_STREQ(chain[3], "AuditQuery");
    EXPECT_EQ(chain[4], nullptr);
    EXPECT_STREQ(client_.getDynamicClassName(), "AuditClient");
    EXPECT_STREQ(client_.getDynamicClassChain()[0], "Object");
    EXPECT_STREQ(client_.getDynamicClassChain()[1], "Client");
    EXPECT_STREQ(client_.getDynamicClassChain()[2], "AuditClient");
    EXPECT_EQ(client_.getDynamicClassChain()[3], nullptr);
}

TEST_F(AuditQueryTest, ClientsCopyAndMoveTheirPeerAndName) {
    AuditClient copy(client_);
    EXPECT_EQ(copy.getPeer(), &peer_);
    EXPECT_EQ(copy.getName(), "audit");
    AuditClient assigned(nullptr, "other");
    assigned = std::move(copy);
    EXPECT_EQ(assigned.getPeer(), &peer_);
    EXPECT_EQ(assigned.getName(), "audit");
}

}  // namespace
}  // namespace qel
