#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/FaultyLine.h"
#include "support/Site.h"

namespace qel {
namespace {

using test::FaultyLine;
using test::Process;
using test::queued;
using test::Site;
using test::waitFor;
using test::Workstation;

constexpr std::chrono::seconds healing(90);

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
class FaultyWorldTest : public ::testing::Test {
  protected:
    void record(const Workstation& workstation, int count) {
        const std::string file = workstation.folder + "/events.jsonl";
        {
            std::ofstream out(file);
            for (int i = 0; i < count; ++i)
                out << "[\"SeriesOpened\",\"1.2.840.113619.2.55.3.604688119.971\"," << i << "]\n";
        }
        const test::ProcessResult result = site_->audit(
            {"record", "--config", workstation.config(), "--log", "interaction", "--from", file});
        ASSERT_EQ(result.code, 0) << result.err;
    }

    std::unique_ptr<Process> startAgent(const Workstation& workstation) {
        return site_->agent({"forward", "--config", workstation.config()},
                            "agent-" + std::to_string(agents_++));
    }

    bool empties(const Workstation& workstation) {
        return waitFor([&] { return queued(*site_, workstation) == 0; }, healing);
    }

    /// A workstation whose agent reaches the daemon through that line only, and does not wait long.
    Workstation enrollBehind(const FaultyLine& line) {
        Workstation anna = site_->enroll("anna", "pc-1");
        test::setKey(anna.config(), "address", "\"" + line.address() + "\"");
        test::setKey(anna.config(), "stall_seconds", "2");
        test::setKey(anna.config(), "backoff_max_seconds", "1");
        return anna;
    }

    /// The users of the exported lines in their order. Each user's numbers from 0 to `count` (not included) are there once,
    /// in the order of recording.
    std::vector<std::string> expectEachOnce(const std::vector<std::string>& users, int count) {
        std::map<std::string, int> next;
        std::vector<std::string> order;
        for (const std::string& line : site_->exportedLines("interaction")) {
            std::vector<std::string> parts(1);
            for (const char c : line)
                if (c == ';')
                    parts.emplace_back();
                else
                    parts.back() += c;
            EXPECT_GE(parts.size(), 6U) << line;
            if (parts.size() < 6)
                return order;
            EXPECT_EQ(parts[5], std::to_string(next[parts[1]]++)) << line;
            order.push_back(parts[1]);
        }
        for (const std::string& user : users)
            EXPECT_EQ(next[user], count) << user;
        EXPECT_EQ(order.size(), users.size() * static_cast<std::size_t>(count));
        return order;
    }

    std::unique_ptr<Site> site_;
    int agents_ = 0;
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
        site_ = std::make_unique<Site>();
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
    site_ = std::make_unique<Site>();
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
    site_ = std::make_unique<Site>();
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
    site_ = std::make_unique<Site>();
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
    EXPECT_EQ(line.connections(), cuts + 1) << agent->err();
    expectEachOnce({"anna"}, 3000);
}

TEST_F(FaultyWorldTest, ServiceThatStoresButIsNotHeardIsGivenUpAndDoublesNothing) {
    site_ = std::make_unique<Site>();
    FaultyLine line(site_->port(), [](int connection) {
        FaultyLine::Fault fault;
        if (connection <= 2)
            fault.muteAfter = 6000;
        return fault;
    });
    const Workstation anna = enrollBehind(line);
    record(anna, 1000);
    site_->startDaemon();
    const std::unique_ptr<Process> agent = startAgent(anna);
    EXPECT_TRUE(empties(anna)) << agent->err();
    EXPECT_EQ(line.connections(), 3) << agent->err();
    EXPECT_NE(agent->err().find("no acknowledgement"), std::string::npos) << agent->err();
    expectEachOnce({"anna"}, 1000);
}

}  // namespace
}  // namespace qel
