#include "support/FaultyLine.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <random>

#include "auditing/AuditClient.h"
#include "auditing/AuditService.h"
#include "qelCore/Packet.h"
#include "qelCore/logging/CaptureSink.h"
#include "qelNet/Network.h"
#include "support/AuditStore.h"
#include "support/EchoService.h"
#include "support/TestSite.h"

namespace qel {
namespace {

using test::AuditStore;
using test::event;
using test::FaultyLine;

/// Packets on their way to the query can be lost or doubled, as by a service that is at fault.
class SwayedQuery : public AuditClient::AuditQuery {
  public:
    using Sway = std::function<int()>;
    SwayedQuery(AuditClient* client, AuditSequence& sequence, Sway sway)
        : AuditQuery(client, sequence), sway_(std::move(sway)) {}

    using AuditQuery::packetReceived;
    bool packetReceived(Peer* peer, Packet* packet) override {
        for (int times = sway_ ? sway_() : 1; times > 0; --times)
            AuditQuery::packetReceived(peer, packet);
        return true;
    }

  private:
    Sway sway_;
};

/// A workstation, a faulty line and the central service, over real sockets and TLS, healed as the agent heals: a new query
/// for each connection, and a connection without progress is given up. The vocabulary: record, run, expectAllOnce.
class FaultyLineTest : public testing::Test {
  protected:
    FaultyLineTest() { queue_.setPath(test::path("queue")); }
    ~FaultyLineTest() override {
        client_->stop();
        query_.reset();
        peer_.reset();
        server_->stop();
    }

    void record(int count) {
        for (int i = 0; i < count; ++i)
            queue_.append(event("E", std::to_string(recorded_++)));
    }

    void serve() {
        Listening listening;
        // After a restart some connection of others may have the port for a moment.
        ASSERT_TRUE(test::eventually([&] {
            listening =
                server_->listen("127.0.0.1:" + std::to_string(port_), {&service_}, serverIs_, limits_);
            return bool(listening);
        })) << listening.error;
        port_ = listening.port;
    }

    void connect(const std::string& address) {
        ConnectOptions options;
        options.limits = limits_;
        options.backoffMilliseconds = 10;
        options.backoffMaxSeconds = 1;
        options.connected = [this](Peer& peer) { open(peer); };
        peer_ = client_->connect({address}, clientIs_, options);
    }

    /// Serves, connects through a line with these faults, and waits until the queue is empty.
    void run(FaultyLine::Chooser faults) {
        serve();
        line_ = std::make_unique<FaultyLine>(port_, std::move(faults));
        connect(line_->address());
        waitForAll();
    }

    void waitForAll(int seconds = 100) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (!store_.times(queue_.getPath()).empty() && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }

    /// Exactly what was recorded is in the log, each once, in the order of recording, and nothing waits.
    void expectAllOnce() {
        EXPECT_TRUE(store_.times(queue_.getPath()).empty());
        const std::vector<Item> lines = store_.central(test::path("central"));
        ASSERT_EQ(lines.size(), static_cast<std::size_t>(recorded_));
        for (std::size_t i = 0; i < lines.size(); ++i)
            ASSERT_EQ(test::texts(lines[i]).at(4), std::to_string(i));
    }

    void open(Peer& peer) {
        ++connects_;
        query_.reset();
        audit_ = std::make_unique<AuditClient>(&peer, "audit");
        query_ = std::make_unique<SwayedQuery>(audit_.get(), queue_, sway_);
        query_->setOpenedHandler([this] { query_->processEvents(); });
        query_->setBurstHandler([this] { query_->processEvents(); });
    }

    AuditStore store_;
    test::TestSite site_;
    std::shared_ptr<Credentials> serverIs_ = site_.server();
    std::shared_ptr<Credentials> clientIs_ = site_.workstation();
    AuditService service_{test::path("central"), "audit", false};
    AuditSequence queue_;
    NetworkLimits limits_;
    std::unique_ptr<Network> server_ = std::make_unique<Network>();
    std::unique_ptr<Network> client_ = std::make_unique<Network>();
    std::unique_ptr<FaultyLine> line_;
    std::unique_ptr<AuditClient> audit_;
    std::unique_ptr<SwayedQuery> query_;
    std::shared_ptr<Peer> peer_;
    SwayedQuery::Sway sway_;
    std::atomic<int> connects_{0};
    int port_ = 0;
    int recorded_ = 0;
    logging::CaptureSink log_;
};

TEST_F(FaultyLineTest, CutsInTheMiddleOfFramesLoseAndDoubleNothing) {
    record(3000);
    run([random = std::minstd_rand(7)](int connection) mutable {
        FaultyLine::Fault fault;
        if (connection <= 25)
            fault.cutAfter = 200 + random() % 40000;
        return fault;
    });
    EXPECT_GT(connects_, 5);
    expectAllOnce();
}

TEST_F(FaultyLineTest, HalfOpenConnectionIsGivenUpAndHealed) {
    limits_.idleSeconds = 3;
    limits_.handshakeSeconds = 3;
    record(2000);
    run([](int connection) {
        FaultyLine::Fault fault;
        if (connection == 1)
            fault.swallowAfter = 60000;
        if (connection == 2)
            fault.swallowAfter = 100;
        return fault;
    });
    EXPECT_TRUE(log_.contains("nothing came from the other end for 3 seconds"));
    // The second one stands still in the handshake; whichever end is first gives it up.
    EXPECT_TRUE(log_.contains("did not answer within 3 seconds") ||
                log_.contains("it did not finish the TLS handshake within 3 seconds"));
    expectAllOnce();
}

TEST_F(FaultyLineTest, LongDelayOnlyTakesTime) {
    record(256);
    run([](int) {
        FaultyLine::Fault fault;
        fault.delayMilliseconds = 250;
        return fault;
    });
    EXPECT_EQ(connects_, 1);
    expectAllOnce();
}

TEST_F(FaultyLineTest, DoubledAcknowledgementsRemoveNothingElse) {
    sway_ = [] { return 2; };
    record(500);
    run([](int) { return FaultyLine::Fault(); });
    expectAllOnce();
}

TEST_F(FaultyLineTest, EventsWithoutAcknowledgementAreSentAgainOnTheNextConnection) {
    std::atomic<int> lost{0};
    sway_ = [&] { return connects_ <= 3 && ++lost > 0 ? 0 : 1; };
    record(500);
    serve();
    connect("127.0.0.1:" + std::to_string(port_));
    for (int connection = 1; connection <= 3; ++connection) {
        // The window fills, nothing comes back: the agent's watchdog gives the connection up.
        ASSERT_TRUE([&] {
            const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
            while (lost < 64 * connection && std::chrono::steady_clock::now() < end)
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            return lost >= 64 * connection;
        }());
        peer_->getNetworkPeer()->disconnect("no acknowledgement came back");
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (connects_ == connection && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    waitForAll();
    expectAllOnce();
    EXPECT_EQ(service_.getStatistics().overwritten, 0U);
}

TEST_F(FaultyLineTest, RestartsOfEitherSideLoseAndDoubleNothing) {
    record(4000);
    serve();
    const std::string address = "127.0.0.1:" + std::to_string(port_);
    connect(address);
    for (int restart = 0; restart < 6; ++restart) {
        std::this_thread::sleep_for(std::chrono::milliseconds(15));
        if (restart % 2 == 0) {
            server_->stop("restart", 1);
            server_ = std::make_unique<Network>();
            serve();
        } else {
            client_->stop();
            query_.reset();
            peer_.reset();
            client_ = std::make_unique<Network>();
            connect(address);
        }
    }
    waitForAll();
    expectAllOnce();
}

/// Run once more by itself where packets are lost, see tests/transport/lossy-network.
TEST_F(FaultyLineTest, StraightLineCarriesEverything) {
    record(640);
    serve();
    connect("127.0.0.1:" + std::to_string(port_));
    waitForAll();
    expectAllOnce();
}

}  // namespace
}  // namespace qel
