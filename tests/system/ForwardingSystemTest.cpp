#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/Site.h"

namespace qel {
namespace {

using test::Process;
using test::queued;
using test::Site;
using test::waitFor;
using test::Workstation;

std::string writeEvents(const Site& site, const std::string& name, int count) {
    const std::string file = site.folder() + "/" + name + ".jsonl";
    std::ofstream out(file);
    for (int i = 0; i < count; ++i)
        out << "[\"SeriesOpened\",\"1.2.840.113619.2.55.3.604688119.971\"," << i << "]\n";
    return file;
}

/// The fields of a line.
std::vector<std::string> fields(const std::string& line) {
    std::vector<std::string> found(1);
    for (const char c : line)
        if (c == ';')
            found.emplace_back();
        else
            found.back() += c;
    return found;
}

class ForwardingSystemTest : public ::testing::Test {
  protected:
    void record(const Workstation& workstation, const std::string& file) {
        const test::ProcessResult result =
            site_.audit({"record", "--config", workstation.config(), "--log", "interaction", "--from", file});
        ASSERT_EQ(result.code, 0) << result.err;
    }
    std::unique_ptr<Process> startAgent(const Workstation& workstation) {
        return site_.agent({"forward", "--config", workstation.config()},
                           "agent-" + std::to_string(agents_++));
    }

    /// Every number from 0 to `count` (not included) is there once per user, in the order of their times.
    void expectEachOnce(const std::vector<std::string>& users, int count) {
        std::map<std::string, int> next;
        const std::vector<std::string> lines = site_.exportedLines("interaction");
        EXPECT_EQ(lines.size(), users.size() * static_cast<std::size_t>(count));
        for (const std::string& line : lines) {
            const std::vector<std::string> parts = fields(line);
            ASSERT_GE(parts.size(), 12U) << line;
            ASSERT_EQ(parts[5], std::to_string(next[parts[1]]++)) << line;
        }
        for (const std::string& user : users)
            EXPECT_EQ(next[user], count) << user;
    }

    Site site_;
    int agents_ = 0;
};

TEST_F(ForwardingSystemTest, HundredThousandEventsArriveOnceThoughDaemonAndAgentAreKilled) {
    constexpr int each = 50000;
    const Workstation anna = site_.enroll("anna", "pc-1");
    const Workstation bert = site_.enroll("bert", "pc-2");
    const std::string file = writeEvents(site_, "events", each);
    record(anna, file);
    record(bert, file);
    ASSERT_EQ(queued(site_, anna), each);
    site_.startDaemon();
    std::unique_ptr<Process> annaAgent = startAgent(anna);

    ASSERT_TRUE(waitFor([&] { return queued(site_, anna) < each; }));
    site_.killDaemon();
    const long long leftAtKill = queued(site_, anna);
    EXPECT_GT(leftAtKill, 0) << "the daemon was killed too late to prove anything";
    site_.startDaemon();

    ASSERT_TRUE(waitFor([&] { return queued(site_, anna) < leftAtKill; }, std::chrono::seconds(90)));
    annaAgent->kill();
    annaAgent = startAgent(anna);

    std::unique_ptr<Process> bertAgent = startAgent(bert);
    ASSERT_TRUE(waitFor([&] { return queued(site_, bert) < each; }));
    bertAgent->kill();
    const long long leftWithBert = queued(site_, bert);
    EXPECT_GT(leftWithBert, 0) << "the agent was killed too late to prove anything";
    bertAgent = startAgent(bert);

    EXPECT_TRUE(waitFor([&] { return queued(site_, anna) == 0 && queued(site_, bert) == 0; },
                        std::chrono::seconds(180)));
    annaAgent->kill();
    bertAgent->kill();
    expectEachOnce({"anna", "bert"}, each);
    EXPECT_EQ(site_.stopDaemon(), 0);
    expectEachOnce({"anna", "bert"}, each);
}

TEST_F(ForwardingSystemTest, OnceEndsWhenTheQueueIsEmpty) {
    const Workstation anna = site_.enroll("anna", "pc-1");
    record(anna, writeEvents(site_, "events", 1000));
    site_.startDaemon();
    const test::ProcessResult result = site_.audit({"forward", "--config", anna.config(), "--once"});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(queued(site_, anna), 0);
    expectEachOnce({"anna"}, 1000);
}

TEST_F(ForwardingSystemTest, EventsRecordedWhileTheDaemonIsAwayArriveWhenItReturns) {
    const Workstation anna = site_.enroll("anna", "pc-1");
    const std::unique_ptr<Process> agent = startAgent(anna);
    record(anna, writeEvents(site_, "events", 500));
    EXPECT_EQ(queued(site_, anna), 500);
    site_.startDaemon();
    EXPECT_TRUE(waitFor([&] { return queued(site_, anna) == 0; }, std::chrono::seconds(60)));
    expectEachOnce({"anna"}, 500);
}

TEST_F(ForwardingSystemTest, DaemonThatStopsAnsweringIsGivenUpAndNothingIsLostOrDoubled) {
    const Workstation anna = site_.enroll("anna", "pc-1");
    test::setKey(anna.config(), "stall_seconds", "1");
    test::setKey(anna.config(), "backoff_max_seconds", "1");
    site_.startDaemon();
    const std::unique_ptr<Process> agent = startAgent(anna);
    record(anna, writeEvents(site_, "first", 10));
    ASSERT_TRUE(waitFor([&] { return queued(site_, anna) == 0; }));
    site_.daemon().signal(SIGSTOP);
    const std::string second = site_.folder() + "/second.jsonl";
    {
        std::ofstream out(second);
        for (int i = 10; i < 500; ++i)
            out << "[\"SeriesOpened\",\"1.2\"," << i << "]\n";
    }
    record(anna, second);
    EXPECT_TRUE(waitFor([&] { return agent->err().find("no acknowledgement") != std::string::npos; }))
        << agent->err();
    site_.daemon().signal(SIGCONT);
    EXPECT_TRUE(waitFor([&] { return queued(site_, anna) == 0; }, std::chrono::seconds(90))) << agent->err();
    expectEachOnce({"anna"}, 500);
}

TEST_F(ForwardingSystemTest, QueueOfAnotherIdentityIsNotForwarded) {
    const Workstation anna = site_.enroll("anna", "pc-1");
    const Workstation bert = site_.enroll("bert", "pc-2");
    record(anna, writeEvents(site_, "events", 3));
    site_.startDaemon();
    test::setKey(bert.config(), "url", "\"lmdb:" + anna.folder + "/queue\"");
    const test::ProcessResult result = site_.audit({"forward", "--config", bert.config(), "--once"});
    EXPECT_EQ(result.code, 78) << result.err;
    EXPECT_EQ(queued(site_, anna), 3);
    EXPECT_TRUE(site_.exportedLines("interaction").empty());
}

}  // namespace
}  // namespace qel
