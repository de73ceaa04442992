#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "auditing/AuditClient.h"
#include "qelCore/ItemStore.h"
#include "qelCore/logging/CaptureSink.h"
#include "qelNet/Network.h"
#include "support/OwnMemory.h"
#include "support/RawClient.h"
#include "system/ForwardingFixture.h"

namespace qel {
namespace {

using test::ownMemory;
using test::PeakMemory;
using test::Process;
using test::RawClient;
using test::waitFor;
using test::Workstation;

[[maybe_unused]] constexpr long long mebibyte = 1LL << 20;  // sanitizers need memory of their own

/// The short form goes with every run of the tests, the long one is the size of a large hospital.
int sized(int shortly, int longly) {
    return std::getenv("QEL_LONG_TESTS") ? longly : shortly;
}

/// Many workstations of one process: each with its identity, its connection and its queue.
class Agents {
  public:
    explicit Agents(const std::string& store) {
        std::string reason;
        store_ = ItemStore::open("lmdb:" + store, {}, reason);
        EXPECT_TRUE(store_) << reason;
        ItemStore::setCurrent(store_.get());
    }
    ~Agents() {
        network_.stop();
        agents_.clear();
        ItemStore::setCurrent(nullptr);
    }
    Agents(const Agents&) = delete;
    Agents& operator=(const Agents&) = delete;

    static std::shared_ptr<Credentials> load(const std::string& folder) {
        std::string error;
        auto credentials = Credentials::load(
            {folder + "/workstation.crt", folder + "/workstation.key", folder + "/authority.crt", "", ""},
            error);
        EXPECT_TRUE(credentials) << error;
        return credentials;
    }

    void add(const std::string& address, std::shared_ptr<Credentials> credentials) {
        agents_.push_back(std::make_unique<Agent>());
        Agent* const agent = agents_.back().get();
        Item path;
        path.addString("queue " + std::to_string(agents_.size()));
        agent->queue.setPath(path);
        ConnectOptions options;
        options.limits.handshakeSeconds = 60;
        options.connected = [agent](Peer& peer) {
            agent->query.reset();
            agent->client = std::make_unique<AuditClient>(&peer, "interaction");
            agent->query = std::make_unique<AuditClient::AuditQuery>(agent->client.get(), agent->queue);
            agent->query->setOpenedHandler([agent] { agent->isOpen = true; });
            agent->query->setBurstHandler([agent] { agent->query->processEvents(); });
        };
        agent->peer = network_.connect({address}, std::move(credentials), options);
    }

    bool areAllOpen() const {
        return std::all_of(agents_.begin(), agents_.end(),
                           [](const auto& agent) { return agent->isOpen.load(); });
    }

    /// Appends events with the numbers from 0 to `count` (not included) to every queue, one agent after the other.
    void record(int count) {
        for (const auto& agent : agents_) {
            WriteBatch batch;
            for (int i = 0; i < count; ++i) {
                Item event;
                event.addString("SeriesOpened");
                event.addString("1.2.840.113619.2.55.3.604688119.971.1325667231.457.2.55.3.604688119");
                event.addInteger(i);
                agent->queue.append(event);
            }
            EXPECT_TRUE(batch.commit());
        }
    }

    /// All at once.
    void forward() {
        for (const auto& agent : agents_)
            agent->peer->getNetworkPeer()->post([each = agent.get()] { each->query->processEvents(); });
    }

    bool areAllQueuesEmpty() const {
        return std::all_of(agents_.begin(), agents_.end(), [](const auto& agent) {
            Item first;
            return !agent->queue.getPath().child(first);
        });
    }

  private:
    struct Agent {
        AuditSequence queue;
        std::shared_ptr<Peer> peer;
        std::unique_ptr<AuditClient> client;
        std::unique_ptr<AuditClient::AuditQuery> query;
        std::atomic<bool> isOpen{false};
    };

    std::unique_ptr<ItemStore> store_;
    Network network_;
    std::vector<std::unique_ptr<Agent>> agents_;
};

/// The real daemon and more at its door than it ever has to bear.
class CrowdTest : public test::ForwardingFixture {
  protected:
    CrowdTest() {
        rlimit files{};
        ::getrlimit(RLIMIT_NOFILE, &files);
        files.rlim_cur = files.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &files);
        makeSite();
    }

    /// Users user-0, user-1, …, in folders of their own below the one that is returned.
    std::string enrollMany(int count) {
        const std::string list = site_->folder() + "/identities.txt";
        {
            std::ofstream out(list);
            for (int i = 0; i < count; ++i)
                out << "user-" << i << ";pc\n";
        }
        const test::ProcessResult result = site_->audit(
            {"enroll", site_->siteFolder(), "--list", list, "--out", site_->folder() + "/stations"});
        EXPECT_EQ(result.code, 0) << result.err;
        return site_->folder() + "/stations";
    }

    logging::CaptureSink log_;
};

TEST_F(CrowdTest, ManyAgentsAtOnceLoseAndDoubleNothingAndTakeLittleMemory) {
    const int count = sized(40, 200);
    const int each = sized(500, 5000);
    const std::string folder = enrollMany(count);
    site_->startDaemon();
    std::vector<std::string> users;
    {
        Agents agents(site_->folder() + "/queues");
        for (int i = 0; i < count; ++i) {
            users.push_back("user-" + std::to_string(i));
            agents.add(site_->address(), Agents::load(folder + "/" + users.back() + "@pc"));
        }
        agents.record(each);
        ASSERT_TRUE(waitFor([&] { return agents.areAllOpen(); }, healing));
        const PeakMemory memory(site_->daemon().pid());
        agents.forward();
        EXPECT_TRUE(
            waitFor([&] { return agents.areAllQueuesEmpty(); }, std::chrono::seconds(sized(90, 400))));
#ifndef QEL_SANITIZED
        EXPECT_LT(memory.get(), 256 * mebibyte);
#endif
        RecordProperty("daemon_most_bytes", std::to_string(memory.get()));
    }
    EXPECT_EQ(site_->stopDaemon(), 0);
    expectEachOnce(users, each);
}

TEST_F(CrowdTest, IdleConnectionsAreSmall) {
    const int count = sized(300, 1000);
    constexpr int first = 20;
    const auto credentials = Agents::load(site_->enroll("anna", "pc-1").folder);
    site_->startDaemon();
    Agents agents(site_->folder() + "/queues");
    const auto add = [&](int more) {
        for (int i = 0; i < more; ++i)
            agents.add(site_->address(), credentials);
        return waitFor([&] { return agents.areAllOpen(); }, healing);
    };
    // What the first ones cost is not theirs alone.
    ASSERT_TRUE(add(first));
    const long long before = ownMemory(site_->daemon().pid());
    ASSERT_TRUE(add(count));
    const long long one = (ownMemory(site_->daemon().pid()) - before) / count;
#ifndef QEL_SANITIZED
    EXPECT_LT(one, 100 * 1024);
#endif
    EXPECT_GT(one, 1024) << "that is not the memory of a connection";
    RecordProperty("bytes_of_one", std::to_string(one));
}

TEST_F(CrowdTest, StrangersWhoSpeakGarbageOrStopInTheHandshakeKeepNoAgentFromBeingServed) {
    const int count = sized(1000, 10000);
    const Workstation anna = site_->enroll("anna", "pc-1");
    site_->startDaemon();
    const PeakMemory memory(site_->daemon().pid());
    const std::unique_ptr<Process> agent = startAgent(anna);
    ASSERT_TRUE(waitFor([&] { return agent->err().find("connected to ") != std::string::npos; }))
        << agent->err();
    std::vector<std::unique_ptr<RawClient>> strangers;
    // The beginning of a hello of TLS, and no more of it.
    const std::string hello("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11);
    for (int i = 0; i < count; ++i) {
        strangers.push_back(std::make_unique<RawClient>(site_->address()));
        ASSERT_TRUE(strangers.back()->isConnected()) << i;
        if (i % 3 == 0)
            strangers.back()->send("GET / HTTP/1.1\r\n\r\n");
        if (i % 3 == 1)
            strangers.back()->send(hello);
        if (i % (count / 10) == 0)
            record(anna, 100);
    }
    EXPECT_TRUE(empties(anna)) << agent->err();
    // Who comes among them is let in, too.
    const Workstation bert = site_->enroll("bert", "pc-2");
    record(bert, 1000);
    const test::ProcessResult result = site_->audit({"forward", "--config", bert.config(), "--once"});
    EXPECT_EQ(result.code, 0) << result.err;
#ifndef QEL_SANITIZED
    EXPECT_LT(memory.get(), 256 * mebibyte);
#endif
    RecordProperty("daemon_most_bytes", std::to_string(memory.get()));
    EXPECT_EQ(agent->err().find("connection lost"), std::string::npos) << agent->err();
    expectEachOnce({"anna", "bert"}, 1000);
}

}  // namespace
}  // namespace qel
