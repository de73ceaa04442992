#include "qelNet/MemoryTransport.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <stdexcept>

#include "qelCore/ItemStore.h"
#include "qelCore/logging/CaptureSink.h"
#include "support/EchoService.h"
#include "support/TemporaryFolder.h"
#include "wire/Handshake.h"

namespace qel {
namespace {

using test::EchoQuery;
using test::EchoService;
using test::makeEcho;

/// One client and one service over the in-memory transport.
class SessionTest : public testing::Test {
  protected:
    void send(long long number, std::size_t bytes = 0) { query_->sendPacket(makeEcho(number, bytes).get()); }
    std::vector<long long> answers() { return query_->numbers(); }
    std::unique_ptr<EchoQuery> open(short type = test::echoSession) {
        return std::make_unique<EchoQuery>(&client_, type);
    }

    logging::CaptureSink log_;
    EchoService service_;
    MemoryTransport transport_{{&service_}};
    Client client_{transport_.getPeer(), "echo"};
    std::unique_ptr<EchoQuery> query_ = open();
};

TEST_F(SessionTest, IsConnectedAtOnceAndTakesPackets) {
    EXPECT_TRUE(transport_.isConnected());
    EXPECT_FALSE(transport_.getPeer()->getNetworkPeer()->cannotSend());
    send(1);
    transport_.deliver();
    EXPECT_EQ(answers(), std::vector<long long>{1});
    EXPECT_TRUE(query_->isOpen());
}

TEST_F(SessionTest, NothingMovesWithoutDelivery) {
    send(1);
    EXPECT_GT(transport_.pendingToService(), 0u);
    EXPECT_EQ(service_.received, 0);
    transport_.deliverToService();
    EXPECT_EQ(service_.received, 1);
    EXPECT_TRUE(answers().empty());
    transport_.deliverToClient();
    EXPECT_EQ(answers(), std::vector<long long>{1});
}

TEST_F(SessionTest, SeveralSessionsShareOneConnection) {
    auto second = open();
    send(1);
    second->sendPacket(makeEcho(2).get());
    send(3);
    transport_.deliver();
    EXPECT_EQ(answers(), (std::vector<long long>{1, 3}));
    EXPECT_EQ(second->numbers(), std::vector<long long>{2});
    EXPECT_EQ(service_.attached, 2);
    second.reset();
    transport_.deliver();
    EXPECT_EQ(service_.released, 1);
    send(4);
    transport_.deliver();
    EXPECT_EQ(answers().back(), 4);
}

TEST_F(SessionTest, StateTestIsTrueWhileNotConnected) {
    transport_.deliver();
    transport_.cut();
    EXPECT_TRUE(transport_.getPeer()->getNetworkPeer()->cannotSend());
    EXPECT_FALSE(query_->sendPacket(makeEcho(1).get()));
    EXPECT_TRUE(query_->isClosed());
    EXPECT_EQ(service_.released, 1);
}

TEST_F(SessionTest, StateTestIsTrueWhileOutputIsBackedUp) {
    MemoryTransport::Options options;
    options.pipeBytes = 1000;
    MemoryTransport narrow({&service_}, options);
    Client client(narrow.getPeer(), "echo");
    EchoQuery query(&client);
    for (int i = 0; i < 40; ++i)
        query.sendPacket(makeEcho(i, 10000).get());
    EXPECT_TRUE(narrow.getPeer()->getNetworkPeer()->cannotSend());
    narrow.deliver();
    EXPECT_FALSE(narrow.getPeer()->getNetworkPeer()->cannotSend());
    EXPECT_EQ(query.numbers().size(), 40u);
}

TEST_F(SessionTest, QueryOpenedWhileCutWaitsForTheNextConnection) {
    transport_.cut();
    query_ = open();
    EXPECT_FALSE(query_->isClosed());
    transport_.reconnect();
    transport_.deliver();
    EXPECT_TRUE(query_->isOpen());
    send(8);
    transport_.deliver();
    EXPECT_EQ(answers(), std::vector<long long>{8});
}

TEST_F(SessionTest, QueryOfALostConnectionStaysClosed) {
    std::string reason;
    query_->setClosedHandler([&](const std::string& why) { reason = why; });
    transport_.reconnect();
    transport_.deliver();
    EXPECT_TRUE(query_->isClosed());
    EXPECT_EQ(reason, "the connection was lost");
    EXPECT_TRUE(transport_.isConnected());
}

TEST_F(SessionTest, FrameCutInItsMiddleIsNotHandled) {
    send(1);
    transport_.deliver();
    send(2);
    transport_.cutAfter(transport_.pendingToService() - 1);
    EXPECT_EQ(service_.received, 1);
    EXPECT_FALSE(transport_.isConnected());
}

TEST_F(SessionTest, RefusedSessionIsClosedWithTheReason) {
    std::string reason;
    auto odd = open(42);
    odd->setClosedHandler([&](const std::string& why) { reason = why; });
    transport_.deliver();
    EXPECT_TRUE(odd->isClosed());
    EXPECT_EQ(reason, "the service \"echo\" has no sessions of type 42");
    EXPECT_TRUE(transport_.isConnected());
}

TEST_F(SessionTest, SessionCanEndItselfAfterItsLastAnswer) {
    service_.onPacket = [](Session& session, long long number) {
        if (number == 2)
            session.close("enough");
    };
    std::string reason;
    query_->setClosedHandler([&](const std::string& why) { reason = why; });
    send(1);
    send(2);
    send(3);
    transport_.deliver();
    EXPECT_EQ(answers(), std::vector<long long>{1});
    EXPECT_EQ(reason, "enough");
    EXPECT_EQ(service_.released, 1);
    EXPECT_TRUE(transport_.isConnected());
}

TEST_F(SessionTest, BurstHandlerIsCalledOnceForManyPackets) {
    int bursts = 0;
    query_->setBurstHandler([&] { ++bursts; });
    for (int i = 0; i < 20; ++i)
        send(i);
    transport_.deliver();
    EXPECT_EQ(answers().size(), 20u);
    EXPECT_EQ(bursts, 1);
}

TEST_F(SessionTest, QueryMayBeDestroyedInItsOwnHandler) {
    query_->setClosedHandler([&](const std::string&) { query_.reset(); });
    transport_.cut();
    EXPECT_EQ(query_, nullptr);
}

TEST_F(SessionTest, SilentConnectionIsKeptAliveAndADeadOneEnds) {
    transport_.advance(300);
    EXPECT_TRUE(transport_.isConnected());
    transport_.holdToService(true);
    transport_.holdToClient(true);
    transport_.advance(100);
    EXPECT_FALSE(transport_.isConnected());
    EXPECT_EQ(transport_.getServiceReason(), "nothing came from the other end for 90 seconds");
    EXPECT_EQ(service_.released, 1);
}

TEST_F(SessionTest, ReaderThatTakesNothingIsGivenUp) {
    MemoryTransport::Options options;
    options.pipeBytes = 100;
    MemoryTransport narrow({&service_}, options);
    Client client(narrow.getPeer(), "echo");
    EchoQuery query(&client);
    narrow.deliver();
    narrow.holdToService(true);
    query.sendPacket(makeEcho(1, 10000).get());
    narrow.advance(31);
    EXPECT_EQ(narrow.getClientReason().substr(0, 26), "the other end took none of");
}

TEST_F(SessionTest, PongsForAnEndThatNeverReadsAreBounded) {
    MemoryTransport::Options options;
    options.pipeBytes = 1000;
    MemoryTransport narrow({&service_}, options);
    narrow.holdToClient(true);
    std::string pings;
    for (int i = 0; i < 100000; ++i)
        FrameWriter(pings, FrameKind::ping).bytes("12345678").finish();
    narrow.injectToService(pings);
    narrow.deliver();
    EXPECT_LE(narrow.pendingToClient(), 1000u);
    EXPECT_EQ(narrow.getServiceReason(), "");
    narrow.advance(31);
    EXPECT_EQ(narrow.getServiceReason().substr(0, 26), "the other end took none of");
}

TEST_F(SessionTest, FrameTooLargeClosesTheConnectionWithASentenceAtBothEnds) {
    transport_.injectToService(std::string("\x7f\0\0\0\x05", 5));
    transport_.deliver();
    EXPECT_EQ(transport_.getServiceReason(),
              "a frame of 2130706436 bytes was announced; at most 1048576 are accepted");
    EXPECT_EQ(transport_.getClientReason(), transport_.getServiceReason());
    EXPECT_EQ(service_.released, 1);
}

TEST_F(SessionTest, UnknownFrameKindIsRefused) {
    std::string bytes;
    FrameWriter(bytes, static_cast<FrameKind>(77)).finish();
    transport_.injectToService(bytes);
    transport_.deliver();
    EXPECT_EQ(transport_.getClientReason(), "a frame of kind 77 is not expected here");
}

TEST_F(SessionTest, PacketForASessionThatWasNeverOpenedIsRefused) {
    std::string bytes;
    FrameWriter(bytes, FrameKind::packet).u32(9).bytes("abcd").finish();
    transport_.injectToService(bytes);
    transport_.deliver();
    EXPECT_EQ(transport_.getClientReason(), "a packet arrived for session number 9, which was never opened");
}

TEST_F(SessionTest, TruncatedPacketIsRefused) {
    transport_.deliver();
    std::string bytes;
    FrameWriter(bytes, FrameKind::packet).u32(1).bytes("abc").finish();
    transport_.injectToService(bytes);
    transport_.deliver();
    EXPECT_EQ(transport_.getClientReason(), "a packet of 3 bytes arrived, which is too short for one");
}

TEST_F(SessionTest, PacketThatNobodyWantsIsDroppedWithOneLogLine) {
    class StrangeScheme : public PacketScheme {
      public:
        StrangeScheme() : PacketScheme(999, "TestProtocol", "Strange", "Strange") { NextVersion(); }
    };
    StrangeScheme scheme;
    for (int i = 0; i < 3; ++i)
        query_->sendPacket(makeRef<Packet>(&scheme, short{-1}).get());
    transport_.deliver();
    EXPECT_EQ(log_.count("packets of type 999 from the client are of no use to the service \"echo\""), 1);
    EXPECT_TRUE(transport_.isConnected());
}

TEST_F(SessionTest, TooManySessionsAreRefused) {
    std::vector<std::unique_ptr<EchoQuery>> queries;
    for (int i = 0; i < 70; ++i)
        queries.push_back(open());
    transport_.deliver();
    EXPECT_EQ(service_.attached, 64);
    EXPECT_TRUE(queries.back()->isClosed());
}

TEST_F(SessionTest, HandlerThatThrowsClosesItsConnectionOnly) {
    service_.onPacket = [](Session&, long long) { throw std::runtime_error("no luck"); };
    send(1);
    transport_.deliver();
    EXPECT_EQ(transport_.getClientReason(), "a packet could not be handled: no luck");
    EXPECT_EQ(service_.released, 1);
}

TEST_F(SessionTest, SenderOfLargeDataIsToldToWaitAndToGoOn) {
    service_.answers = false;
    MemoryTransport::Options options;
    options.pipeBytes = 20000;
    MemoryTransport narrow({&service_}, options);
    Client client(narrow.getPeer(), "echo");
    EchoQuery query(&client);
    narrow.deliver();
    narrow.holdToClient(true);
    Session* session = nullptr;
    service_.onPacket = [&](Session& from, long long) { session = &from; };
    query.sendPacket(makeEcho(0).get());
    narrow.deliver();
    int sent = 0;
    const auto pump = [&] {
        while (sent < 200 && session->canSend())
            session->sendPacket(makeEcho(sent++, 10000).get());
    };
    session->setDrainedHandler(pump);
    pump();
    EXPECT_LT(sent, 30);
    narrow.holdToClient(false);
    narrow.deliver();
    EXPECT_EQ(sent, 200);
    EXPECT_EQ(query.numbers().size(), 200u);
}

/// The same with a store: answers stay behind its commits.
class DurabilityTest : public testing::Test {
  protected:
    void SetUp() override {
        std::string error;
        store_ = ItemStore::open("lmdb:" + (folder_ / "store"), StoreOptions(), error);
        ASSERT_TRUE(store_) << error;
        ItemStore::setCurrent(store_.get());
        service_.onPacket = [](Session&, long long number) {
            Item key;
            key.addString("log");
            key.addInteger(number);
            Item value;
            value.addString("event");
            key.store(value);
        };
    }
    void TearDown() override { ItemStore::setCurrent(nullptr); }

    test::TemporaryFolder folder_;
    std::unique_ptr<ItemStore> store_;
    EchoService service_;
    logging::CaptureSink log_;
};

TEST_F(DurabilityTest, AnswersLeaveOnlyWhenTheirBurstIsDurable) {
    MemoryTransport transport({&service_});
    Client client(transport.getPeer(), "echo");
    EchoQuery query(&client);
    transport.deliver();
    const auto commits = store_->statistics().commits;
    bool durable = true;
    service_.onPacket = [&, keep = service_.onPacket](Session& session, long long number) {
        keep(session, number);
        durable = durable && transport.pendingToClient() == 0;
    };
    for (int i = 0; i < 64; ++i)
        query.sendPacket(makeEcho(i).get());
    transport.deliver();
    EXPECT_TRUE(durable);
    EXPECT_EQ(query.numbers().size(), 64u);
    EXPECT_EQ(store_->statistics().pendingWrites, 0u);
    EXPECT_LE(store_->statistics().commits - commits, 3u);
}

/// While it lives no file of this process can grow: a full disk, as the store sees it.
class FullDisk {
  public:
    FullDisk() {
        ::signal(SIGXFSZ, SIG_IGN);
        ::getrlimit(RLIMIT_FSIZE, &before_);
        rlimit none = before_;
        none.rlim_cur = 0;
        ::setrlimit(RLIMIT_FSIZE, &none);
    }
    ~FullDisk() { ::setrlimit(RLIMIT_FSIZE, &before_); }

  private:
    rlimit before_{};
};

TEST_F(DurabilityTest, FailedCommitDropsTheAnswersAndClosesTheConnection) {
    MemoryTransport transport({&service_});
    Client client(transport.getPeer(), "echo");
    EchoQuery query(&client);
    transport.deliver();
    query.sendPacket(makeEcho(1).get());
    {
        const FullDisk full;
        transport.deliver();
    }
    EXPECT_TRUE(query.numbers().empty());
    EXPECT_FALSE(transport.isConnected());
    EXPECT_EQ(transport.getClientReason().find("what was received could not be stored: "), 0u)
        << transport.getClientReason();
    transport.reconnect();
    EchoQuery again(&client);
    again.sendPacket(makeEcho(1).get());
    transport.deliver();
    EXPECT_EQ(again.numbers(), std::vector<long long>{1});
}

}  // namespace
}  // namespace qel
