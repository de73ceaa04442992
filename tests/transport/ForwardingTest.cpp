#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "auditing/AuditAside.h"
#include "auditing/AuditClient.h"
#include "auditing/AuditService.h"
#include "qelCore/ItemStore.h"
#include "qelCore/logging/CaptureSink.h"
#include "qelNet/MemoryTransport.h"
#include "support/AuditStore.h"

namespace qel {
namespace {

using test::AuditStore;
using test::event;

MemoryTransport::Options ends() {
    const SiteKey key = SiteKey::fromBytes(std::vector<unsigned char>(32, 5));
    MemoryTransport::Options options;
    options.client = Identity::make("anna", "viewer-1", key);
    options.server = Identity::make("server", "central", key);
    return options;
}

/// A workstation and the central service in one process: queue and log are two paths of one store. The vocabulary:
/// record, forward, cut, reconnect, arrived.
class ForwardingTest : public ::testing::Test {
  protected:
    ForwardingTest() {
        sequence_.setPath(test::path("queue"));
        open();
    }

    /// A new query, as the agent makes one whenever it is connected.
    void open() {
        query_.reset();
        query_ = std::make_unique<AuditClient::AuditQuery>(&client_, sequence_);
        AuditClient::AuditQuery* query = query_.get();
        query->setBurstHandler([query] { query->processEvents(); });
        query->setOpenedHandler([query] { query->processEvents(); });
    }
    void record(int count) {
        for (int i = 0; i < count; ++i)
            sequence_.append(event("E", std::to_string(recorded_++)));
    }
    /// Runs until nothing moves any more.
    void forward() {
        transport_.deliver();
        query_->processEvents();
        transport_.deliver();
    }
    void reconnect() {
        transport_.reconnect();
        transport_.deliver();
        open();
    }

    std::size_t queued() const { return store_.times(sequence_.getPath()).size(); }

    /// Every recorded event is in the log exactly once, in the order of recording.
    void expectAllArrivedOnce() const {
        const std::vector<Item> lines = store_.central(test::path("central"));
        ASSERT_EQ(lines.size(), static_cast<std::size_t>(recorded_));
        for (std::size_t i = 0; i < lines.size(); ++i) {
            const std::vector<std::string> texts = test::texts(lines[i]);
            ASSERT_EQ(texts.size(), 5U);
            EXPECT_EQ(texts[1], "anna");
            EXPECT_EQ(texts[4], std::to_string(i));
        }
    }

    AuditStore store_;
    AuditSequence sequence_;
    AuditService service_{test::path("central"), "audit", false};
    MemoryTransport transport_{{&service_}, ends()};
    AuditClient client_{transport_.getPeer(), "audit"};
    std::unique_ptr<AuditClient::AuditQuery> query_;
    int recorded_ = 0;
};

TEST_F(ForwardingTest, RecordedEventsArriveInOrderAndLeaveTheQueue) {
    record(1000);
    forward();
    EXPECT_EQ(queued(), 0U);
    expectAllArrivedOnce();
    EXPECT_EQ(service_.getStatistics().retransmitted, 0U);
    EXPECT_EQ(query_->getStatistics().sent, 1000U);
    EXPECT_EQ(query_->getStatistics().acknowledged, 1000U);
}

TEST_F(ForwardingTest, NoMoreThanTheWindowIsUnacknowledged) {
    transport_.deliver();
    record(200);
    transport_.holdToClient(true);
    query_->processEvents();
    transport_.deliver();
    EXPECT_EQ(query_->getInFlightCount(), 64U);
    EXPECT_EQ(store_.centralCount(test::path("central")), 64U);
    EXPECT_EQ(queued(), 200U);
    transport_.holdToClient(false);
    forward();
    EXPECT_EQ(queued(), 0U);
    expectAllArrivedOnce();
}

TEST_F(ForwardingTest, LostAcknowledgementsLeaveOneRecordEach) {
    transport_.deliver();
    record(50);
    transport_.holdToClient(true);
    query_->processEvents();
    transport_.deliver();
    transport_.cut();
    transport_.holdToClient(false);
    reconnect();
    forward();
    EXPECT_EQ(queued(), 0U);
    expectAllArrivedOnce();
    EXPECT_EQ(service_.getStatistics().retransmitted, 50U);
    EXPECT_EQ(service_.getStatistics().overwritten, 0U);
}

TEST_F(ForwardingTest, CutAtAnyByteLosesAndDoublesNothing) {
    for (std::size_t bytes = 0; bytes < 2000; bytes += 61) {
        record(7);
        transport_.deliver();
        transport_.holdToService(true);
        query_->processEvents();
        transport_.cutAfter(bytes);
        transport_.holdToService(false);
        transport_.deliver();
        reconnect();
        forward();
        ASSERT_EQ(queued(), 0U) << "cut after " << bytes;
    }
    expectAllArrivedOnce();
}

TEST_F(ForwardingTest, TwoQueuesShareOneConnection) {
    AuditService trail(test::path("trail"), "trail", true);
    MemoryTransport transport({&service_, &trail}, ends());
    AuditClient first(transport.getPeer(), "audit");
    AuditClient second(transport.getPeer(), "trail");
    AuditSequence other;
    other.setPath(test::path("other"));
    AuditClient::AuditQuery queries[] = {{&first, sequence_}, {&second, other}};
    record(10);
    for (int i = 0; i < 20; ++i)
        other.append(event("T"));
    for (int round = 0; round < 3; ++round) {
        transport.deliver();
        for (AuditClient::AuditQuery& query : queries)
            query.processEvents();
    }
    transport.deliver();
    EXPECT_EQ(store_.centralCount(test::path("central")), 10U);
    EXPECT_EQ(store_.centralCount(test::path("trail")), 20U);
    EXPECT_TRUE(store_.times(other.getPath()).empty());
}

TEST_F(ForwardingTest, NothingLeavesWhileTheConnectionIsDown) {
    transport_.deliver();
    transport_.cut();
    transport_.deliver();
    record(3);
    query_->processEvents();
    EXPECT_EQ(query_->getInFlightCount(), 0U);
    EXPECT_EQ(queued(), 3U);
    reconnect();
    forward();
    expectAllArrivedOnce();
}

TEST_F(ForwardingTest, EventThatTheStoreRefusesStaysQueuedAndTheOthersArrive) {
    logging::CaptureSink log;
    record(20);
    sequence_.append(event("E", std::string(2000, 'x')));
    record(100);
    ItemStore::flush();
    ItemStore::current()->setValueLimit(1000);
    forward();
    EXPECT_TRUE(transport_.isConnected()) << "one bad value must not end the connection";
    EXPECT_EQ(queued(), 1U);
    expectAllArrivedOnce();
    EXPECT_EQ(service_.getStatistics().refused, 1U);
    EXPECT_EQ(service_.getStatistics().retransmitted, 0U);

    // A connection whose handshake tells that limit lets the workstation keep the event aside.
    ItemStore::current()->setValueLimit(4000);
    MemoryTransport::Options told = ends();
    told.serverLimits.valueBytes = 900;
    MemoryTransport transport({&service_}, told);
    AuditClient client(transport.getPeer(), "audit");
    query_ = std::make_unique<AuditClient::AuditQuery>(&client, sequence_);
    transport.deliver();
    query_->processEvents();
    EXPECT_EQ(queued(), 0U);
    EXPECT_EQ(query_->getStatistics().parked, 1U);
    EXPECT_EQ(AuditAside::count(AsideReason::parked, sequence_.getPath()), 1);
    expectAllArrivedOnce();
    query_.reset();
}

TEST_F(ForwardingTest, EventOfEveryElementTypeArrivesAsItWas) {
    Item what = event("All");
    what.addInteger(std::numeric_limits<long long>::min());
    what.addBool(false);
    what.addBytes("\0\xff", 2);
    what.addItem(event("nested"));
    what.addString(std::string_view("a\0b", 3));
    sequence_.append(what);
    forward();
    const std::vector<Item> lines = store_.central(test::path("central"));
    ASSERT_EQ(lines.size(), 1U);
    Item expected = lines[0];
    expected.clear();
    expected.addItem(test::items(lines[0]).at(0));
    expected.concatItem(event("anna", "viewer-1"));
    expected.concatItem(what);
    EXPECT_EQ(lines[0], expected);
}

TEST_F(ForwardingTest, ServiceOfAnotherNameRefusesTheQueryAndTheQueueKeepsItsEvents) {
    logging::CaptureSink log;
    transport_.deliver();
    AuditClient stranger(transport_.getPeer(), "no such service");
    AuditClient::AuditQuery query(&stranger, sequence_);
    record(5);
    transport_.deliver();
    query.processEvents();
    transport_.deliver();
    EXPECT_TRUE(query.isClosed());
    EXPECT_EQ(queued(), 5U);
}

}  // namespace
}  // namespace qel
