#include "auditing/AuditService.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "auditing/AuditAside.h"
#include "auditing/AuditClient.h"
#include "qelCore/logging/CaptureSink.h"
#include "qelCore/util/Crc32c.h"
#include "qelNet/RecordingPeer.h"
#include "support/AuditPackets.h"
#include "support/AuditStore.h"
#include "transport/AuditSession.h"

namespace qel {
namespace {

using test::AuditStore;
using test::event;

const SiteKey siteKey = SiteKey::fromBytes(std::vector<unsigned char>(32, 9));

Identity identity(const std::string& user, const std::string& device) {
    return Identity::make(user, device, siteKey);
}

/// The origin checksum as it stands in keys and pseudonyms, worked out here once more.
unsigned checksum(const Identity& peer) {
    const unsigned first = util::crc32c(0xFFFFFFFFU, peer.userBlock.data(), 32);
    return util::crc32c(first, peer.deviceBlock.data(), 32);
}

/// One session of a service, fed packet by packet.
class AttachedSession {
  public:
    AttachedSession(AuditService& service, const Identity& peer) : peer_(peer) {
        session_ = peer_.attach(service, 3);
    }
    ~AttachedSession() { session_->release(); }
    AttachedSession(const AttachedSession&) = delete;
    AttachedSession& operator=(const AttachedSession&) = delete;

    bool receive(const Ref<Packet>& packet) { return session_->packetReceived(packet.get()); }
    bool record(long long time, const Item& what) { return receive(test::dataPacket(time, what)); }

    /// The times acknowledged so far.
    std::vector<long long> acknowledged() const { return test::ackTimes(peer_.getSent()); }

    Session& session() { return *session_; }

  private:
    RecordingPeer peer_;
    Session* session_;
};

class AuditServiceTest : public ::testing::Test {
  protected:
    std::vector<std::string> lines() const {
        std::vector<std::string> found;
        for (const Item& line : store_.central(path_))
            found.push_back(line.asString().str());
        return found;
    }

    static std::string line(long long time, const Identity& peer, const std::string& rest) {
        return "[[" + std::to_string(time) + "," + std::to_string(checksum(peer)) + "]," + rest + "]";
    }

    AuditStore store_;
    Item path_ = test::path("central");
    AuditService service_{path_, "audit", false};
    AuditService anonymous_{path_, "audit", true};
    Identity anna_ = identity("anna", "viewer-1");
    Identity bert_ = identity("bert", "viewer-2");
};

TEST_F(AuditServiceTest, EventIsStoredWithUserAndDeviceInFrontAndAcknowledged) {
    AttachedSession session(service_, anna_);
    EXPECT_TRUE(session.record(17, event("SeriesOpened", "1.2.3")));
    EXPECT_EQ(lines(),
              (std::vector<std::string>{line(17, anna_, R"("anna","viewer-1","SeriesOpened","1.2.3")")}));
    EXPECT_EQ(session.acknowledged(), (std::vector<long long>{17}));
}

TEST_F(AuditServiceTest, EveryEventIsAcknowledgedOnce) {
    AttachedSession session(service_, anna_);
    for (long long time = 1; time <= 100; ++time)
        session.record(time, event("E"));
    const std::vector<long long> times = session.acknowledged();
    ASSERT_EQ(times.size(), 100U);
    for (std::size_t i = 0; i < times.size(); ++i)
        EXPECT_EQ(times[i], static_cast<long long>(i) + 1);
}

TEST_F(AuditServiceTest, OriginChecksumContinuesOverBothBlocksWithoutInversion) {
    AttachedSession session(service_, anna_);
    session.record(1, event("E"));
    EXPECT_TRUE(test::centralKey(path_, 1, checksum(anna_)).fetch());
}

TEST_F(AuditServiceTest, AnonymousServiceRecordsThePseudonymAndStars) {
    const std::string pseudonym = std::to_string(checksum(anna_));
    AttachedSession session(anonymous_, anna_);
    session.record(5, event("E"));
    EXPECT_EQ(lines(), (std::vector<std::string>{line(5, anna_, "\"" + pseudonym + "\",\"***\",\"E\"")}));
}

TEST_F(AuditServiceTest, TwoConnectionsOfOneIdentityHaveOnePseudonym) {
    AttachedSession first(anonymous_, anna_);
    AttachedSession second(anonymous_, identity("anna", "viewer-1"));
    first.record(1, event("E"));
    second.record(2, event("E"));
    const std::vector<Item> found = store_.central(path_);
    ASSERT_EQ(found.size(), 2U);
    EXPECT_EQ(test::texts(found[0]).at(1), test::texts(found[1]).at(1));
    EXPECT_EQ(test::texts(found[1]).at(2), "***");
}

TEST_F(AuditServiceTest, NoNameOfThePeerAppearsInAnAnonymousRecord) {
    AttachedSession session(anonymous_, anna_);
    session.record(1, event("E"));
    for (const std::string& found : lines()) {
        EXPECT_EQ(found.find("anna"), std::string::npos);
        EXPECT_EQ(found.find("viewer"), std::string::npos);
    }
}

TEST_F(AuditServiceTest, SameTimeOfTwoIdentitiesGivesTwoRecords) {
    AttachedSession anna(service_, anna_);
    AttachedSession bert(service_, bert_);
    anna.record(7, event("E"));
    bert.record(7, event("E"));
    EXPECT_EQ(lines().size(), 2U);
}

TEST_F(AuditServiceTest, RetransmissionLeavesOneRecordAndIsAcknowledgedAgain) {
    AttachedSession first(service_, anna_);
    first.record(7, event("E", "p"));
    AttachedSession second(service_, anna_);
    second.record(7, event("E", "p"));
    EXPECT_EQ(lines().size(), 1U);
    EXPECT_EQ(second.acknowledged(), (std::vector<long long>{7}));
    EXPECT_EQ(service_.getStatistics().stored, 2U);
    EXPECT_EQ(service_.getStatistics().retransmitted, 1U);
    EXPECT_EQ(service_.getStatistics().overwritten, 0U);
    EXPECT_EQ(AuditAside::count(AsideReason::overwritten, path_), 0);
}

TEST_F(AuditServiceTest, OtherContentOverwritesAndTheOlderIsKeptAsideLoggedAndCounted) {
    logging::CaptureSink log;
    AttachedSession session(service_, anna_);
    session.record(7, event("older"));
    session.record(7, event("newer"));
    EXPECT_EQ(lines(), (std::vector<std::string>{line(7, anna_, R"("anna","viewer-1","newer")")}));
    EXPECT_EQ(service_.getStatistics().overwritten, 1U);
    EXPECT_TRUE(
        log.contains("record overwritten with other content, the older one is kept aside: [\"central\",[7,"));
    std::vector<AsideEntry> kept;
    AuditAside::walk(AsideReason::overwritten, path_, [&](const AsideEntry& entry) {
        kept.push_back(entry);
        return true;
    });
    ASSERT_EQ(kept.size(), 1U);
    EXPECT_EQ(kept[0].key, test::centralKey(path_, 7, checksum(anna_)));
    EXPECT_EQ(kept[0].value, event("anna", "viewer-1", "older").bytes().view());
}

TEST_F(AuditServiceTest, EmptyEventGivesARecordOfUserAndDeviceOnly) {
    AttachedSession session(service_, anna_);
    session.record(3, Item());
    EXPECT_EQ(lines(), (std::vector<std::string>{line(3, anna_, R"("anna","viewer-1")")}));
    EXPECT_EQ(session.acknowledged(), (std::vector<long long>{3}));
}

TEST_F(AuditServiceTest, PacketsOfOtherTypesAreDeclined) {
    AttachedSession session(service_, anna_);
    EXPECT_FALSE(session.receive(test::ackPacket(1)));
    EXPECT_FALSE(session.receive(test::foreignPacket(300)));
    EXPECT_FALSE(session.receive(test::foreignPacket(303)));
    EXPECT_TRUE(store_.isEmpty());
}

TEST_F(AuditServiceTest, AuditDataThatDoesNotFitIsSwallowedWithoutRecordOrAcknowledgement) {
    AttachedSession session(service_, anna_);
    EXPECT_TRUE(session.receive(test::foreignPacket(301)));
    EXPECT_TRUE(store_.isEmpty());
    EXPECT_TRUE(session.acknowledged().empty());
    EXPECT_EQ(service_.getStatistics().malformed, 1U);
}

TEST_F(AuditServiceTest, EventThatTheStoreRefusesIsNotAcknowledgedAndHarmsNoOther) {
    logging::CaptureSink log;
    ItemStore::current()->setValueLimit(1000);
    AttachedSession session(service_, anna_);
    session.record(5, event("before"));
    bool durable = false;
    {
        WriteBatch burst;
        session.record(4, event("E"));
        session.record(5, event(std::string(2000, 'x')));
        session.record(6, event("E"));
        burst.submit([&](const CommitResult& result) { durable = result.durable; });
    }
    EXPECT_FALSE(ItemStore::flush());
    EXPECT_TRUE(durable);
    EXPECT_EQ(session.acknowledged(), (std::vector<long long>{5, 4, 6}));
    EXPECT_EQ(lines().size(), 3U);
    EXPECT_EQ(lines()[1], line(5, anna_, R"("anna","viewer-1","before")"));
    EXPECT_EQ(service_.getStatistics().refused, 1U);
    EXPECT_EQ(service_.getStatistics().stored, 3U);
    EXPECT_EQ(service_.getStatistics().overwritten, 0U) << "what stood there stands there still";
    EXPECT_TRUE(log.contains("bytes is over the limit of 1000"));
}

TEST_F(AuditServiceTest, ListenerHearsTheOriginAndTimeOfEachStoredEvent) {
    std::vector<std::string> heard;
    service_.setListener([&](const Item& origin, long long time) {
        heard.push_back(origin.asString().str() + "@" + std::to_string(time));
    });
    AttachedSession session(service_, anna_);
    session.record(4, event("E"));
    EXPECT_EQ(heard, (std::vector<std::string>{R"(["anna","viewer-1"]@4)"}));
}

TEST_F(AuditServiceTest, TimesAtBothEndsOfTheirRangeAreTaken) {
    AttachedSession session(service_, anna_);
    const long long lowest = std::numeric_limits<long long>::min();
    const long long highest = std::numeric_limits<long long>::max();
    session.record(highest, event("E"));
    session.record(lowest, event("E"));
    EXPECT_EQ(session.acknowledged(), (std::vector<long long>{highest, lowest}));
    EXPECT_EQ(lines().size(), 2U);
}

TEST_F(AuditServiceTest, OneFactoryOfSessionTypeThreeIsRegistered) {
    const Service::SessionFactories& factories = service_.getSessionFactories();
    ASSERT_EQ(factories.size(), 1U);
    EXPECT_EQ(factories.begin()->first, 3);
    EXPECT_STREQ(factories.begin()->second->getDynamicClassName(), "SessionFactory");
    EXPECT_EQ(factories.begin()->second->getReferenceCount(), 1);
}

TEST_F(AuditServiceTest, ReplacedFactoryLosesItsReference) {
    auto replacement = makeRef<Service::SessionFactory<AuditSession>>();
    Ref<Service::SessionFactoryBase> before =
        Ref<Service::SessionFactoryBase>::share(service_.getSessionFactories().at(3));
    service_.registerSessionFactory(3, replacement.get());
    EXPECT_EQ(before->getReferenceCount(), 1);
    EXPECT_EQ(replacement->getReferenceCount(), 2);
}

TEST_F(AuditServiceTest, RegisteringTheSameFactoryAgainKeepsIt) {
    Service::SessionFactoryBase* const factory = service_.getSessionFactories().at(3);
    service_.registerSessionFactory(3, factory);
    EXPECT_EQ(service_.getSessionFactories().at(3), factory);
    EXPECT_EQ(factory->getReferenceCount(), 1);
}

/// Whether code outside of a class can fill a chain from its middle.
template <class T>
concept FillsForEverybody = requires(std::array<const char*, 16>& chain) {
    T::fillClassChain(chain, 0);
};

TEST_F(AuditServiceTest, OnlyDerivedClassesFillAChain) {
    EXPECT_FALSE(FillsForEverybody<AuditService>);
    EXPECT_FALSE(FillsForEverybody<AuditSession>);
    EXPECT_FALSE(FillsForEverybody<AuditClient>);
    EXPECT_FALSE(FillsForEverybody<AuditClient::AuditQuery>);
}

TEST_F(AuditServiceTest, CopiesAndMovesTakeNamePathAndFlag) {
    AuditService copy(anonymous_);
    EXPECT_EQ(copy.getName(), "audit");
    EXPECT_EQ(copy.getPath(), path_);
    EXPECT_TRUE(copy.isAnonymous());
    AuditService assigned(Item(), "other", false);
    assigned = copy;
    EXPECT_EQ(assigned.getPath(), path_);
    EXPECT_TRUE(assigned.isAnonymous());
    AuditService moved(std::move(copy));
    EXPECT_EQ(moved.getPath(), path_);
    AuditService moveAssigned(Item(), "other", false);
    moveAssigned = std::move(moved);
    EXPECT_EQ(moveAssigned.getName(), "audit");
    AttachedSession session(moveAssigned, anna_);
    EXPECT_TRUE(session.record(1, event("E")));
    EXPECT_EQ(lines().size(), 1U);
}

TEST_F(AuditServiceTest, ClassNamesAndChainsEndInTheClassItself) {
    EXPECT_STREQ(AuditService::getStaticClassName(), "AuditService");
    EXPECT_STREQ(service_.getDynamicClassName(), "AuditService");
    const std::array<const char*, 16> chain = service_.getDynamicClassChain();
    EXPECT_STREQ(chain[0], "Object");
    EXPECT_STREQ(chain[1], "Service");
    EXPECT_STREQ(chain[2], "AuditService");
    EXPECT_EQ(chain[3], nullptr);
    EXPECT_EQ(chain, AuditService::getStaticClassChain());
    AttachedSession session(service_, anna_);
    EXPECT_STREQ(session.session().getDynamicClassName(), "AuditSession");
    EXPECT_STREQ(session.session().getDynamicClassChain()[0], "Object");
    EXPECT_STREQ(session.session().getDynamicClassChain()[1], "Session");
    EXPECT_STREQ(session.session().getDynamicClassChain()[2], "AuditSession");
    EXPECT_EQ(session.session().getDynamicClassChain()[3], nullptr);
}

}  // namespace
}  // namespace qel
