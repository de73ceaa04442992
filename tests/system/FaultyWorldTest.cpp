#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "system/ForwardingFixture.h"

namespace qel {
namespace {

using test::FaultyLine;
using test::Process;
using test::queued;
using test::waitFor;
using test::Workstation;

/// While it lives, programs that the test starts see their clock so much ahead or behind. Their timers are not bent: no
/// machine's monotonic clock jumps.
class BentClock {
  public:
    explicit BentClock(const std::string& lead) {
        setenv("LD_PRELOAD", "/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1", 1);
        setenv("FAKETIME", lead.c_str(), 1);
        setenv("FAKETIME_DONT_FAKE_MONOTONIC", "1", 1);
        setenv("DONT_FAKE_MONOTONIC", "1", 1);
    }
    ~BentClock() {
        for (const char* const name :
             {"LD_PRELOAD", "FAKETIME", "FAKETIME_DONT_FAKE_MONOTONIC", "DONT_FAKE_MONOTONIC"})
            unsetenv(name);
    }
    BentClock(const BentClock&) = delete;
    BentClock& operator=(const BentClock&) = delete;
};

/// The real daemon and the real agent, with clocks and lines at fault between them.
class FaultyWorldTest : public test::ForwardingFixture {
  protected:
    /// Sends so many events over the line; what its first two connections do is noticed by the agent alone.
    void expectHealedByTheThirdConnection(const FaultyLine::Chooser& chooser, int events) {
        makeSite();
        FaultyLine line(site_->port(), chooser);
        const Workstation anna = enrollBehind(line);
        record(anna, events);
        site_->startDaemon();
        const std::unique_ptr<Process> agent = startAgent(anna);
        EXPECT_TRUE(empties(anna)) << agent->err();
        EXPECT_GE(line.connections(), 3) << agent->err();
        EXPECT_NE(agent->err().find("no acknowledgement"), std::string::npos) << agent->err();
        expectEachOnce({"anna"}, events);
    }
};

// A sanitizer insists on being the first library of a process, and so does what bends the clock.
#ifndef QEL_SANITIZED
TEST_F(FaultyWorldTest, ClocksADayOffInEitherDirectionOnlyMoveTheTimes) {
    constexpr int each = 300;
    Workstation ahead;
    Workstation behind;
    {
        // The certificates are older than the clock that is behind.
        const BentClock clock("-3d");
        makeSite();
        ahead = site_->enroll("ahead", "pc-1");
        behind = site_->enroll("behind", "pc-2");
    }
    site_->startDaemon();
    std::vector<std::unique_ptr<Process>> agents;
    {
        const BentClock clock("+1d");
        record(ahead, each);
        agents.push_back(startAgent(ahead));
    }
    {
        const BentClock clock("-1d");
        record(behind, each);
        agents.push_back(startAgent(behind));
    }
    EXPECT_TRUE(empties(ahead)) << agents[0]->err();
    EXPECT_TRUE(empties(behind)) << agents[1]->err();
    const std::vector<std::string> order = expectEachOnce({"ahead", "behind"}, each);
    std::vector<std::string> byTime(each, "behind");
    byTime.insert(byTime.end(), each, "ahead");
    EXPECT_EQ(order, byTime) << "recorded later, but two days earlier by its own clock";
}

TEST_F(FaultyWorldTest, ClockBeforeTheCertificateIsExplainedAndHealsWithTheClock) {
    makeSite();
    const Workstation anna = site_->enroll("anna", "pc-1");
    record(anna, 20);
    site_->startDaemon();
    {
        const BentClock clock("-1d");
        const std::unique_ptr<Process> agent = startAgent(anna);
        EXPECT_TRUE(waitFor([&] {
            return agent->err().find("of the other end is valid only from ") != std::string::npos;
        })) << agent->err();
        EXPECT_TRUE(waitFor([&] {
            return site_->daemonLog().find("which the other end's clock has not reached") !=
                       std::string::npos ||
                   site_->daemonLog().find("or the other end's clock is before ") != std::string::npos;
        })) << site_->daemonLog();
        EXPECT_TRUE(agent->isRunning()) << "a clock is set right some day";
    }
    EXPECT_EQ(queued(*site_, anna), 20);
    const std::unique_ptr<Process> agent = startAgent(anna);
    EXPECT_TRUE(empties(anna)) << agent->err();
    expectEachOnce({"anna"}, 20);
}
#endif

TEST_F(FaultyWorldTest, HalfASecondOfDelayOnlyTakesTime) {
    makeSite();
    FaultyLine line(site_->port(), [](int) {
        FaultyLine::Fault fault;
        fault.delayMilliseconds = 500;
        return fault;
    });
    const Workstation anna = enrollBehind(line);
    test::setKey(anna.config(), "stall_seconds", "30");
    record(anna, 300);
    site_->startDaemon();
    const std::unique_ptr<Process> agent = startAgent(anna);
    EXPECT_TRUE(empties(anna)) << agent->err();
    EXPECT_EQ(line.connections(), 1) << agent->err();
    expectEachOnce({"anna"}, 300);
}

TEST_F(FaultyWorldTest, CutsInTheMiddleOfFramesLoseAndDoubleNothing) {
    makeSite();
    constexpr int cuts = 8;
    FaultyLine line(site_->port(), [](int connection) {
        FaultyLine::Fault fault;
        if (connection <= cuts)
            fault.cutAfter = 3000 + 2741U * static_cast<unsigned>(connection);
        return fault;
    });
    const Workstation anna = enrollBehind(line);
    record(anna, 3000);
    site_->startDaemon();
    const std::unique_ptr<Process> agent = startAgent(anna);
    EXPECT_TRUE(empties(anna)) << agent->err();
    EXPECT_GE(line.connections(), cuts + 1) << agent->err();
    expectEachOnce({"anna"}, 3000);
}

TEST_F(FaultyWorldTest, ServiceThatStoresButIsNotHeardIsGivenUpAndDoublesNothing) {
    const auto chooser = [](int connection) {
        FaultyLine::Fault fault;
        if (connection <= 2)
            fault.muteAfter = 6000;
        return fault;
    };
    expectHealedByTheThirdConnection(chooser, 1000);
}

/// The firewall forgets the connection while the agent waits for acknowledgements.
TEST_F(FaultyWorldTest, HalfOpenLineInTheMiddleOfAStreamIsGivenUpAndHealed) {
    const auto chooser = [](int connection) {
        FaultyLine::Fault fault;
        if (connection <= 2)
            fault.swallowAfter = 40000U * static_cast<unsigned>(connection);
        return fault;
    };
    expectHealedByTheThirdConnection(chooser, 3000);
}

/// The firewall forgets the connection while there is nothing to send: what is recorded later must still arrive.
TEST_F(FaultyWorldTest, HalfOpenLineOfAnIdleAgentIsNoticedByBothEnds) {
    makeSite();
    test::setKey(site_->config(), "idle_seconds", "3");
    std::atomic<bool> forgotten{false};
    FaultyLine line(site_->port(), [&](int connection) {
        FaultyLine::Fault fault;
        fault.swallowWhen = connection == 1 ? &forgotten : nullptr;
        return fault;
    });
    const Workstation anna = enrollBehind(line);
    site_->startDaemon();
    const std::unique_ptr<Process> agent = startAgent(anna);
    record(anna, 10);
    ASSERT_TRUE(empties(anna)) << agent->err();
    forgotten = true;
    const auto isNoticed = [](const std::string& log) {
        return log.find("nothing came from the other end for 3 seconds") != std::string::npos;
    };
    EXPECT_TRUE(waitFor([&] { return isNoticed(agent->err()); })) << agent->err();
    EXPECT_TRUE(waitFor([&] { return isNoticed(site_->daemonLog()); })) << site_->daemonLog();
    record(anna, 10);
    EXPECT_TRUE(empties(anna)) << agent->err();
    EXPECT_GE(line.connections(), 2) << agent->err();
    expectEachOnce({"anna"}, 20);
}

/// Daemon and agent go down and come up in every order, asked to or killed, in the middle of a stream.
TEST_F(FaultyWorldTest, RestartsInAnyOrderLoseAndDoubleNothing) {
    makeSite();
    constexpr int each = 1000;
    FaultyLine line(site_->port(), [](int) {
        FaultyLine::Fault fault;
        fault.delayMilliseconds = 50;
        return fault;
    });
    const Workstation anna = enrollBehind(line);
    site_->startDaemon();
    std::unique_ptr<Process> agent = startAgent(anna);
    const auto endDaemon = [&](bool kindly) {
        if (kindly)
            EXPECT_EQ(site_->stopDaemon(), 0);
        else
            site_->killDaemon();
    };
    const auto endAgent = [&](bool kindly) {
        if (!kindly)
            return agent->kill();
        agent->signal(SIGTERM);
        EXPECT_EQ(agent->wait(std::chrono::seconds(30)), 0) << agent->err();
    };
    int rounds = 0;
    for (const bool daemonEndsFirst : {true, false})
        for (const bool daemonStartsFirst : {true, false})
            for (const bool kindly : {true, false}) {
                record(anna, each);
                const long long before = queued(*site_, anna);
                ASSERT_TRUE(waitFor([&] { return queued(*site_, anna) < before; }, healing)) << agent->err();
                daemonEndsFirst ? endDaemon(kindly) : endAgent(kindly);
                daemonEndsFirst ? endAgent(kindly) : endDaemon(kindly);
                EXPECT_GT(queued(*site_, anna), 0)
                    << "everything had arrived: round " << rounds << " proves nothing";
                if (daemonStartsFirst)
                    site_->startDaemon();
                agent = startAgent(anna);
                if (!daemonStartsFirst)
                    site_->startDaemon();
                ++rounds;
            }
    EXPECT_TRUE(empties(anna)) << agent->err();
    expectEachOnce({"anna"}, each * rounds);
}

/// The agent sees a hosts file of its own, as a name server that the test can change.
TEST_F(FaultyWorldTest, AServerThatMovedIsFoundUnderItsNameByTheNextTry) {
    site_ = std::make_unique<test::Site>("audit.test");
    const Workstation anna = enrollImpatient();
    test::setKey(anna.config(), "address", "\"audit.test:" + std::to_string(site_->port()) + "\"");
    record(anna, 20);
    site_->startDaemon();
    const std::string hosts = site_->folder() + "/hosts";
    std::ofstream(hosts) << "127.0.0.9 audit.test\n";
    std::vector<std::string> command{"unshare", "--mount"};
    if (geteuid() != 0)
        command.emplace_back("--map-root-user");
    command.insert(command.end(), {"sh", "-c", "mount --bind \"$0\" /etc/hosts && exec \"$@\"", hosts,
                                   test::program("qel-audit"), "forward", "--config", anna.config()});
    Process agent(command, site_->folder(), "agent");
    EXPECT_TRUE(waitFor([&] { return agent.err().find("refused") != std::string::npos; })) << agent.err();
    EXPECT_EQ(queued(*site_, anna), 20);
    std::ofstream(hosts) << "127.0.0.1 audit.test\n";
    EXPECT_TRUE(empties(anna)) << agent.err();
    expectEachOnce({"anna"}, 20);
}

/// Run once more by itself where packets are lost, see tests/transport/lossy-network.
TEST_F(FaultyWorldTest, AgentAndDaemonNeedNothingButALine) {
    makeSite();
    const Workstation anna = enrollImpatient();
    test::setKey(anna.config(), "stall_seconds", "30");
    record(anna, 2000);
    site_->startDaemon();
    const std::unique_ptr<Process> agent = startAgent(anna);
    EXPECT_TRUE(empties(anna)) << agent->err();
    expectEachOnce({"anna"}, 2000);
}

}  // namespace
}  // namespace qel
