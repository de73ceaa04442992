#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "auditing/AuditProtocol.h"
#include "auditing/AuditService.h"
#include "qelCore/ItemStore.h"
#include "qelCore/Packet.h"
#include "qelCore/Ref.h"
#include "qelCore/logging/CaptureSink.h"
#include "qelNet/Network.h"
#include "store/AuditRecord.h"
#include "system/ForwardingFixture.h"

namespace qel {
namespace {

using test::Process;
using test::queued;
using test::waitFor;
using test::Workstation;

enum class Fault {
    silent,   ///< stores and never acknowledges
    twice,    ///< acknowledges each event twice at once and once more much later
    strange,  ///< acknowledges first what was never sent, and then in turned order
};

/// What sessions of one faulty service share.
struct FaultyState {
    const Fault fault;
    std::atomic<int> sessions{0};
    std::atomic<int> received{0};
};

/// Stores as it must, and acknowledges as it must not.
class FaultySession : public Session {
    QEL_CLASS(FaultySession, Session)

    FaultySession(const Item& path, FaultyState& state) : path_(path), state_(state) { ++state_.sessions; }

    bool packetReceived(Packet* packet) override {
        if (!packet->fit(AuditProtocol::AuditSession::AuditData))
            return false;
        ++state_.received;
        const auto time = packet->singleGet<long long>("time");
        store(time, packet->getItem("event"));
        if (state_.fault == Fault::twice)
            acknowledgeAgainAndAgain(time);
        if (state_.fault == Fault::strange)
            acknowledgeInTurnedOrder(time);
        return true;
    }

  private:
    void store(long long time, const Item& event) {
        const auto checksum =
            record::originChecksum(getPeer()->getUserBlock().data(), getPeer()->getDeviceBlock().data());
        const Item origin = record::origin(getPeer()->getUserName().c_str(),
                                           getPeer()->getDeviceName().c_str(), checksum, false);
        const Item value = record::centralValue(origin, event);
        ItemStore::current()->store(record::centralKey(path_, time, checksum), value.bytes());
    }
    void acknowledge(long long time) {
        const auto packet = Ref<Packet>::adopt(new Packet(AuditProtocol::AuditSession::AuditDataAck, -1));
        packet->singleSet<long long>("time", time);
        sendPacket(packet.get());
    }
    void acknowledgeAgainAndAgain(long long time) {
        constexpr std::size_t later = 300;
        acknowledge(time);
        acknowledge(time);
        earlier_.push_back(time);
        if (earlier_.size() < later)
            return;
        acknowledge(earlier_.front());
        earlier_.pop_front();
    }
    void acknowledgeInTurnedOrder(long long time) {
        acknowledge(1);
        acknowledge(time + 1'000'000'000LL * 3600);
        // Half a window at a time; what a smaller burst leaves behind is waited for in vain and sent again.
        constexpr std::size_t half = 32;
        earlier_.push_front(time);
        if (earlier_.size() < half)
            return;
        for (const long long each : earlier_)
            acknowledge(each);
        earlier_.clear();
    }

    const Item path_;
    FaultyState& state_;
    std::deque<long long> earlier_;
};

class FaultyFactory : public Service::SessionFactoryBase {
  public:
    FaultyFactory(const Item& path, FaultyState& state) : path_(path), state_(state) {}
    Session* createSession() override { return new FaultySession(path_, state_); }

  private:
    const Item path_;
    FaultyState& state_;
};

/// A service of the site in the daemon's place, at its address, with its certificate and its store, but not to be trusted.
class FaultyDaemon {
  public:
    FaultyDaemon(const test::Site& site, Fault fault) : state_{fault} {
        std::string error;
        store_ = ItemStore::open(site.storeUrl(), {}, error);
        EXPECT_TRUE(store_) << error;
        ItemStore::setCurrent(store_.get());
        for (Service* const service : {&interaction_, &audit_}) {
            Item path;
            path.addString(service->getName());
            auto* const factory = new FaultyFactory(path, state_);
            service->registerSessionFactory(AuditProtocol::AuditSession::sessionType, factory);
            factory->decreaseReferenceCount();
        }
        const std::string& folder = site.siteFolder();
        const auto credentials = Credentials::load({folder + "/server.crt", folder + "/server.key",
                                                    folder + "/authority.crt", "", folder + "/site.key"},
                                                   error);
        EXPECT_TRUE(credentials) << error;
        const Listening listening = network_.listen(site.address(), {&interaction_, &audit_}, credentials);
        EXPECT_TRUE(listening) << listening.error;
    }
    ~FaultyDaemon() {
        network_.stop("no more of this");
        ItemStore::setCurrent(nullptr);
    }
    FaultyDaemon(const FaultyDaemon&) = delete;
    FaultyDaemon& operator=(const FaultyDaemon&) = delete;

    const FaultyState& state() const { return state_; }

  private:
    FaultyState state_;
    std::unique_ptr<ItemStore> store_;
    Service interaction_{"interaction"};
    Service audit_{"audit"};
    Network network_;
};

/// The real agent and a service at fault; then the real daemon takes over its place and its store.
class FaultyServiceTest : public test::ForwardingFixture {
  protected:
    FaultyServiceTest() {
        makeSite();
        anna_ = enrollImpatient();
        // The daemon makes its store and names its logs in it.
        site_->startDaemon();
        EXPECT_EQ(site_->stopDaemon(), 0);
    }

    Workstation anna_;
    logging::CaptureSink log_;
};

TEST_F(FaultyServiceTest, EventsThatAreStoredButNeverAcknowledgedStayQueuedAndArriveOnce) {
    record(anna_, 500);
    std::unique_ptr<Process> agent;
    {
        const FaultyDaemon faulty(*site_, Fault::silent);
        agent = startAgent(anna_);
        // The window fills, nothing comes, the connection is renewed, and the same window is sent again.
        EXPECT_TRUE(waitFor([&] { return faulty.state().received >= 3 * 64; }, healing)) << agent->err();
        EXPECT_EQ(faulty.state().received % 64, 0) << "more than the window was sent unacknowledged";
        EXPECT_NE(agent->err().find("no acknowledgement for 2 seconds"), std::string::npos) << agent->err();
        EXPECT_EQ(queued(*site_, anna_), 500) << "an event left its queue unacknowledged";
    }
    EXPECT_EQ(site_->exportedLines("interaction").size(), 64U);
    site_->startDaemon();
    EXPECT_TRUE(empties(anna_)) << agent->err();
    expectEachOnce({"anna"}, 500);
    EXPECT_EQ(site_->daemonLog().find("record overwritten"), std::string::npos);
}

TEST_F(FaultyServiceTest, EventsThatAreAcknowledgedTwiceAndAgainMuchLaterArriveOnceAndNoOtherIsRemoved) {
    // A service that is only slow is no reason to send anything again.
    test::setKey(anna_.config(), "stall_seconds", "30");
    record(anna_, 2000);
    std::unique_ptr<Process> agent;
    {
        const FaultyDaemon faulty(*site_, Fault::twice);
        agent = startAgent(anna_);
        EXPECT_TRUE(empties(anna_)) << agent->err();
        EXPECT_EQ(faulty.state().received, 2000) << "an event was sent again";
        EXPECT_EQ(faulty.state().sessions, 2) << "one for each log, on one connection";
    }
    record(anna_, 100);
    site_->startDaemon();
    EXPECT_TRUE(empties(anna_)) << agent->err();
    expectEachOnce({"anna"}, 2100);
}

TEST_F(FaultyServiceTest, AcknowledgementsInTurnedOrderAndOfWhatWasNeverSentRemoveExactlyTheirOwn) {
    record(anna_, 1000);
    std::unique_ptr<Process> agent;
    {
        const FaultyDaemon faulty(*site_, Fault::strange);
        agent = startAgent(anna_);
        EXPECT_TRUE(waitFor([&] { return queued(*site_, anna_) < 64; }, healing)) << agent->err();
    }
    site_->startDaemon();
    EXPECT_TRUE(empties(anna_)) << agent->err();
    expectEachOnce({"anna"}, 1000);
}

}  // namespace
}  // namespace qel
