#include <csignal>
#include <fstream>
#include <memory>
#include <string>

#include "qelCore/ItemStore.h"
#include "system/ForwardingFixture.h"

namespace qel {
namespace {

using test::Process;
using test::queued;
using test::waitFor;
using test::Workstation;

/// The daemon and its agents as everybody uses them.
class ForwardingSystemTest : public test::ForwardingFixture {
  protected:
    ForwardingSystemTest() { makeSite(); }
};

TEST_F(ForwardingSystemTest, HundredThousandEventsArriveOnceThoughDaemonAndAgentAreKilled) {
    constexpr int each = 50000;
    const Workstation anna = site_->enroll("anna", "pc-1");
    const Workstation bert = site_->enroll("bert", "pc-2");
    record(anna, each);
    record(bert, each);
    ASSERT_EQ(queued(*site_, anna), each);
    site_->startDaemon();
    std::unique_ptr<Process> annaAgent = startAgent(anna);

    ASSERT_TRUE(beginsToEmpty(anna, each));
    site_->killDaemon();
    const long long leftAtKill = queued(*site_, anna);
    EXPECT_GT(leftAtKill, 0) << "the daemon was killed too late to prove anything";
    site_->startDaemon();

    ASSERT_TRUE(beginsToEmpty(anna, leftAtKill));
    annaAgent->kill();
    annaAgent = startAgent(anna);

    std::unique_ptr<Process> bertAgent = startAgent(bert);
    ASSERT_TRUE(beginsToEmpty(bert, each));
    bertAgent->kill();
    const long long leftWithBert = queued(*site_, bert);
    EXPECT_GT(leftWithBert, 0) << "the agent was killed too late to prove anything";
    bertAgent = startAgent(bert);

    EXPECT_TRUE(waitFor([&] { return queued(*site_, anna) == 0 && queued(*site_, bert) == 0; },
                        std::chrono::seconds(180)));
    annaAgent->kill();
    bertAgent->kill();
    expectEachOnce({"anna", "bert"}, each);
    EXPECT_EQ(site_->stopDaemon(), 0);
    expectEachOnce({"anna", "bert"}, each);
}

TEST_F(ForwardingSystemTest, OnceEndsWhenTheQueueIsEmpty) {
    const Workstation anna = site_->enroll("anna", "pc-1");
    record(anna, 1000);
    site_->startDaemon();
    const test::ProcessResult result = site_->audit({"forward", "--config", anna.config(), "--once"});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(queued(*site_, anna), 0);
    expectEachOnce({"anna"}, 1000);
}

TEST_F(ForwardingSystemTest, EventsRecordedWhileTheDaemonIsAwayArriveWhenItReturns) {
    const Workstation anna = site_->enroll("anna", "pc-1");
    const std::unique_ptr<Process> agent = startAgent(anna);
    record(anna, 500);
    EXPECT_EQ(queued(*site_, anna), 500);
    site_->startDaemon();
    EXPECT_TRUE(waitFor([&] { return queued(*site_, anna) == 0; }, std::chrono::seconds(60)));
    expectEachOnce({"anna"}, 500);
}

TEST_F(ForwardingSystemTest, DaemonThatStopsAnsweringIsGivenUpAndNothingIsLostOrDoubled) {
    const Workstation anna = site_->enroll("anna", "pc-1");
    test::setKey(anna.config(), "stall_seconds", "1");
    test::setKey(anna.config(), "backoff_max_seconds", "1");
    site_->startDaemon();
    const std::unique_ptr<Process> agent = startAgent(anna);
    record(anna, 10);
    ASSERT_TRUE(waitFor([&] { return queued(*site_, anna) == 0; }));
    site_->daemon().signal(SIGSTOP);
    record(anna, 490);
    EXPECT_TRUE(waitFor([&] { return agent->err().find("no acknowledgement") != std::string::npos; }))
        << agent->err();
    site_->daemon().signal(SIGCONT);
    EXPECT_TRUE(waitFor([&] { return queued(*site_, anna) == 0; }, std::chrono::seconds(90))) << agent->err();
    expectEachOnce({"anna"}, 500);
}

TEST_F(ForwardingSystemTest, QueueOfAnotherIdentityIsNotForwarded) {
    const Workstation anna = site_->enroll("anna", "pc-1");
    const Workstation bert = site_->enroll("bert", "pc-2");
    record(anna, 3);
    site_->startDaemon();
    test::setKey(bert.config(), "url", "\"lmdb:" + anna.folder + "/queue\"");
    const test::ProcessResult result = site_->audit({"forward", "--config", bert.config(), "--once"});
    EXPECT_EQ(result.code, 78) << result.err;
    EXPECT_EQ(queued(*site_, anna), 3);
    EXPECT_TRUE(site_->exportedLines("interaction").empty());
}

/// One moment of two people is two records; the same moment of one person, told again otherwise, is the newer one, and the
/// older is kept aside.
TEST_F(ForwardingSystemTest, EventsOfOneTimeAreKeptApartByTheirOriginOnly) {
    const Workstation anna = site_->enroll("anna", "pc-1");
    const Workstation bert = site_->enroll("bert", "pc-2");
    site_->startDaemon();
    const auto replay = [&](const Workstation& workstation, const std::string& event) {
        const std::string file = workstation.folder + "/past.jsonl";
        std::ofstream(file, std::ios::trunc)
            << "{\"time\":\"2026-03-01T08:00:00.000001Z\",\"event\":[\"" << event << "\"]}\n";
        const test::ProcessResult recorded = site_->audit(
            {"record", "--config", workstation.config(), "--log", "interaction", "--replay", "--from", file});
        ASSERT_EQ(recorded.code, 0) << recorded.err;
        const test::ProcessResult sent =
            site_->audit({"forward", "--config", workstation.config(), "--once"});
        ASSERT_EQ(sent.code, 0) << sent.err;
    };
    replay(anna, "First");
    replay(bert, "First");
    EXPECT_EQ(site_->exportedLines("interaction").size(), 2U);
    replay(anna, "First");
    EXPECT_EQ(site_->exportedLines("interaction").size(), 2U);
    EXPECT_EQ(site_->daemonLog().find("record overwritten"), std::string::npos);
    replay(anna, "Second");
    EXPECT_NE(site_->daemonLog().find("record overwritten with other content"), std::string::npos);
    std::map<std::string, std::string> events;
    for (const std::string& line : site_->exportedLines("interaction"))
        events[test::fields(line).at(1)] = test::fields(line).at(3);
    EXPECT_EQ(events, (std::map<std::string, std::string>{{"anna", "Second"}, {"bert", "First"}}));
}

TEST_F(ForwardingSystemTest, DamagedEntriesAreToldAndHoldUpNothing) {
    const Workstation anna = site_->enroll("anna", "pc-1");
    record(anna, 20);
    {
        std::string reason;
        const auto store = ItemStore::open("lmdb:" + anna.folder + "/queue", {}, reason);
        ASSERT_TRUE(store) << reason;
        WriteBatch batch(store.get());
        Item noTime;
        noTime.addString("interaction");
        noTime.addString("no time");
        ASSERT_TRUE(store->store(noTime, noTime.bytes()));
        Item noEvent;
        noEvent.addString("interaction");
        noEvent.addInteger(1);
        ASSERT_TRUE(store->store(noEvent, ConstByteSpan(std::string(5, '\xff'))));
        ASSERT_TRUE(batch.commit());
    }
    site_->startDaemon();
    const test::ProcessResult result = site_->audit({"forward", "--config", anna.config(), "--once"});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_NE(result.err.find("invalid entry in audit log: "), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("failed reading entry in audit log: "), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("2 damaged events were kept aside"), std::string::npos) << result.err;
    EXPECT_EQ(queued(*site_, anna), 0);
    expectEachOnce({"anna"}, 20);
}

TEST_F(ForwardingSystemTest, CertificatesAreRenewedAndRevokedWithoutClosingAConnection) {
    const Workstation anna = site_->enroll("anna", "pc-1");
    const Workstation bert = site_->enroll("bert", "pc-2");
    const auto revoke = [&](const Workstation& whose) {
        return std::vector<std::string>{"revoke", site_->siteFolder(), "--certificate",
                                        whose.folder + "/workstation.crt"};
    };
    site_->startDaemon();
    const std::unique_ptr<Process> agent = startAgent(anna);
    record(anna, 10);
    ASSERT_TRUE(empties(anna)) << agent->err();
    const auto reload = [&](const std::vector<std::string>& command) {
        const std::size_t before = site_->daemonLog().size();
        const test::ProcessResult result = site_->audit(command);
        EXPECT_EQ(result.code, 0) << result.err;
        site_->daemon().signal(SIGHUP);
        EXPECT_TRUE(waitFor([&] {
            return site_->daemonLog().find("reloaded certificates", before) != std::string::npos;
        })) << site_->daemonLog();
    };
    reload({"renew", site_->siteFolder()});
    reload(revoke(bert));
    record(bert, 10);
    const test::ProcessResult refused = site_->audit({"forward", "--config", bert.config(), "--once"});
    EXPECT_EQ(refused.code, 69) << refused.err;
    EXPECT_NE(refused.err.find("revoked"), std::string::npos) << refused.err;
    EXPECT_NE(site_->daemonLog().find("revoked"), std::string::npos) << site_->daemonLog();
    EXPECT_EQ(queued(*site_, bert), 10);
    record(anna, 10);
    EXPECT_TRUE(empties(anna)) << agent->err();
    EXPECT_EQ(agent->err().find("connection lost"), std::string::npos) << agent->err();
    expectEachOnce({"anna"}, 20);
}

}  // namespace
}  // namespace qel
