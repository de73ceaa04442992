#include <gtest/gtest.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "auditing/AuditClient.h"
#include "auditing/AuditService.h"
#include "qelNet/Network.h"
#include "support/AuditStore.h"
#include "support/TlsSite.h"

namespace qel {
namespace {

using test::AuditStore;
using test::event;

/// A workstation's forwarding as the agent does it: a new query on each connection, driven by its bursts.
class Forwarder {
  public:
    Forwarder(Network& network, const std::string& server, std::shared_ptr<Credentials> credentials,
              AuditSequence& sequence)
        : sequence_(sequence) {
        ConnectOptions options;
        options.backoffMilliseconds = 10;
        options.connected = [this](Peer& peer) { open(peer); };
        peer_ = network.connect({server}, std::move(credentials), options);
    }
    Forwarder(const Forwarder&) = delete;
    Forwarder& operator=(const Forwarder&) = delete;
    ~Forwarder() {
        // Destroying the query waits for a callback of it, which may be waiting for the mutex: so not under it.
        std::unique_lock lock(mutex_);
        const std::unique_ptr<AuditClient> client = std::move(client_);
        const std::unique_ptr<AuditClient::AuditQuery> query = std::move(query_);
        lock.unlock();
    }

    void wake() {
        peer_->getNetworkPeer()->post([this] {
            const std::lock_guard lock(mutex_);
            if (query_)
                query_->processEvents();
        });
    }

    /// Waits until that many events have been acknowledged.
    bool waitForAcknowledgements(unsigned long long count) {
        std::unique_lock lock(mutex_);
        return moved_.wait_for(lock, std::chrono::seconds(60), [&] { return acknowledged_ >= count; });
    }

  private:
    void open(Peer& peer) {
        const std::lock_guard lock(mutex_);
        query_.reset();
        client_ = std::make_unique<AuditClient>(&peer, "audit");
        query_ = std::make_unique<AuditClient::AuditQuery>(client_.get(), sequence_);
        query_->setBurstHandler([this] { drive(); });
        query_->setOpenedHandler([this] { drive(); });
    }
    void drive() {
        const std::lock_guard lock(mutex_);
        if (!query_)
            return;
        query_->processEvents();
        acknowledged_ = query_->getStatistics().acknowledged;
        moved_.notify_all();
    }

    AuditSequence& sequence_;
    std::mutex mutex_;
    std::condition_variable moved_;
    unsigned long long acknowledged_ = 0;
    std::unique_ptr<AuditClient> client_;
    std::unique_ptr<AuditClient::AuditQuery> query_;
    std::shared_ptr<Peer> peer_;
};

TEST(TlsForwarding, EventsOfTwoWorkstationsArriveOnceUnderTheNamesInTheirCertificates) {
    AuditStore store;
    test::TlsSite site;
    AuditService service(test::path("central"), "audit", false);
    Network server;
    const Listening listening = server.listen("127.0.0.1:0", {&service}, site.server());
    ASSERT_TRUE(listening) << listening.error;

    AuditSequence queues[2];
    for (int i = 0; i < 2; ++i) {
        queues[i].setPath(test::path("queue" + std::to_string(i)));
        for (int k = 0; k < 2000; ++k)
            queues[i].append(event("E", std::to_string(k)));
    }
    {
        Network client;
        {
            Forwarder anna(client, listening.address, site.workstation("anna", "pc-1"), queues[0]);
            Forwarder bert(client, listening.address, site.workstation("bert", "pc-2"), queues[1]);
            EXPECT_TRUE(anna.waitForAcknowledgements(2000));
            EXPECT_TRUE(bert.waitForAcknowledgements(2000));
            client.stop();
        }
    }
    server.stop();
    store.flush();

    int next[2] = {0, 0};
    for (const Item& line : store.central(test::path("central"))) {
        const std::vector<std::string> texts = test::texts(line);
        const int who = texts.at(1) == "anna" ? 0 : 1;
        EXPECT_EQ(texts.at(1), who == 0 ? "anna" : "bert");
        EXPECT_EQ(texts.at(2), who == 0 ? "pc-1" : "pc-2");
        EXPECT_EQ(texts.at(4), std::to_string(next[who]++));
    }
    EXPECT_EQ(next[0], 2000);
    EXPECT_EQ(next[1], 2000);
    EXPECT_TRUE(store.times(queues[0].getPath()).empty());
    EXPECT_TRUE(store.times(queues[1].getPath()).empty());
}

}  // namespace
}  // namespace qel
