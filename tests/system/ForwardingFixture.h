#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/FaultyLine.h"
#include "support/Site.h"

namespace qel::test {

/// The fields of an exported line.
inline std::vector<std::string> fields(const std::string& line) {
    std::vector<std::string> found(1);
    for (const char c : line)
        if (c == ';')
            found.emplace_back();
        else
            found.back() += c;
    return found;
}

/// Workstations whose numbered events have to reach the central log, through whatever stands between. Each test makes its
/// site with makeSite.
class ForwardingFixture : public ::testing::Test {
  protected:
    /// How long a fault may take to heal.
    static constexpr std::chrono::seconds healing{90};

    void makeSite() { site_ = std::make_unique<Site>(); }

    /// Records events that carry the next `count` numbers of that workstation.
    void record(const Workstation& workstation, int count) {
        const std::string file = workstation.folder + "/events.jsonl";
        // cppcheck-suppress variableScope ; looked up once
        int& number = recorded_[workstation.folder];
        {
            std::ofstream out(file, std::ios::trunc);
            for (const int end = number + count; number < end; ++number)
                out << "[\"SeriesOpened\",\"1.2.840.113619.2.55.3.604688119.971\"," << number << "]\n";
        }
        const ProcessResult result = site_->audit(
            {"record", "--config", workstation.config(), "--log", "interaction", "--from", file});
        ASSERT_EQ(result.code, 0) << result.err;
    }

    std::unique_ptr<Process> startAgent(const Workstation& workstation) {
        return site_->agent({"forward", "--config", workstation.config()},
                            "agent-" + std::to_string(agents_++));
    }

    /// Waits until fewer than `count` events are queued. The daemon, which stands still whenever that is asked, since asking
    /// may take longer than emptying the queue, goes on.
    bool beginsToEmpty(const Workstation& workstation, long long count) {
        return waitFor(
            [&] {
                site_->daemon().signal(SIGSTOP);
                const bool begun = queued(*site_, workstation) < count;
                site_->daemon().signal(SIGCONT);
                if (!begun)
                    std::this_thread::sleep_for(std::chrono::milliseconds(30));
                return begun;
            },
            healing);
    }
    bool empties(const Workstation& workstation) {
        return waitFor([&] { return queued(*site_, workstation) == 0; }, healing);
    }

    /// A workstation whose agent does not wait long before it tries again.
    Workstation enrollImpatient() {
        Workstation anna = site_->enroll("anna", "pc-1");
        setKey(anna.config(), "stall_seconds", "2");
        setKey(anna.config(), "backoff_max_seconds", "1");
        return anna;
    }
    /// The same, and it reaches the daemon through that line only.
    Workstation enrollBehind(const FaultyLine& line) {
        Workstation anna = enrollImpatient();
        setKey(anna.config(), "address", "\"" + line.address() + "\"");
        return anna;
    }

    /// The users of the exported lines in their order. Each user's numbers from 0 to `count` (not included) are there once,
    /// in the order of recording.
    std::vector<std::string> expectEachOnce(const std::vector<std::string>& users, int count) {
        std::map<std::string, int> next;
        std::vector<std::string> order;
        for (const std::string& line : site_->exportedLines("interaction")) {
            const std::vector<std::string> parts = fields(line);
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
    std::map<std::string, int> recorded_;
    int agents_ = 0;
};

}  // namespace qel::test
