#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "support/Site.h"

namespace qel {
namespace {

using test::Site;
using test::Workstation;

/// Large enough that the packets which carry these events cannot be mistaken for anything else on the connection.
constexpr std::size_t eventBytes = 30000;

enum class Step { eventReceived, dataFlushed, metaWritten, sent };

/// One system call of the daemon. What goes out counts from its beginning, everything else from its end.
void addStep(const std::string& call, bool begins, bool ends, std::vector<Step>& steps) {
    static const std::regex received("^(?:read|readv|recvfrom|recvmsg)\\([0-9]+<TCP.* = ([0-9]+)$");
    static const std::regex flushed("^(?:fdatasync|fsync)\\([0-9]+<[^>]*data\\.mdb>.* = 0$");
    static const std::regex written("^pwrite64\\([0-9]+<[^>]*data\\.mdb>, .*, ([0-9]+), [0-9]+\\) = [0-9]+$");
    static const std::regex sent("^(?:write|writev|sendto|sendmsg)\\([0-9]+<TCP");
    // A meta page is never written whole, pages of data always are.
    constexpr long page = 4096;
    constexpr long large = 4000;
    std::smatch match;
    if (begins && std::regex_search(call, sent))
        steps.push_back(Step::sent);
    if (!ends)
        return;
    if (std::regex_search(call, match, received) && std::stol(match[1]) > large)
        steps.push_back(Step::eventReceived);
    else if (std::regex_search(call, flushed))
        steps.push_back(Step::dataFlushed);
    else if (std::regex_search(call, match, written) && std::stol(match[1]) % page != 0)
        steps.push_back(Step::metaWritten);
}

/// The steps of all threads in the order of a trace; calls that the trace shows in two halves are put together.
std::vector<Step> stepsOf(const std::string& trace) {
    static const std::string unfinished = " <unfinished ...>";
    static const std::string resumed = " resumed>";
    std::map<std::string, std::string> halves;
    std::vector<Step> steps;
    std::istringstream lines(trace);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t space = line.find(' ');
        const std::string thread = line.substr(0, space);
        std::string call = line.substr(line.find_first_not_of(' ', space));
        if (call.ends_with(unfinished)) {
            halves[thread] = call.substr(0, call.size() - unfinished.size());
            addStep(halves[thread], true, false, steps);
        } else if (call.starts_with("<... ") && call.find(resumed) != std::string::npos) {
            call = halves[thread] + call.substr(call.find(resumed) + resumed.size());
            addStep(call, false, true, steps);
        } else {
            addStep(call, true, true, steps);
        }
    }
    return steps;
}

TEST(DurabilitySystemTest, NoAcknowledgementLeavesBeforeItsTransactionIsDurable) {
    Site site;
    const Workstation anna = site.enroll("anna", "pc-1");
    const std::string trace = site.folder() + "/trace";
    site.startDaemon(
        {"strace", "-f", "-yy", "-s", "0", "-o", trace, "-e",
         "trace=read,readv,recvfrom,recvmsg,write,writev,sendto,sendmsg,pwrite64,pwritev,fsync,fdatasync,"
         "msync"});
    constexpr int events = 5;
    for (int i = 0; i < events; ++i) {
        const std::string payload(eventBytes, static_cast<char>('a' + i));
        ASSERT_EQ(
            site.audit({"record", "--config", anna.config(), "--log", "interaction", "Large", payload}).code,
            0);
        const test::ProcessResult forwarded = site.audit({"forward", "--config", anna.config(), "--once"});
        ASSERT_EQ(forwarded.code, 0) << forwarded.err;
    }
    EXPECT_EQ(site.exportedLines("interaction").size(), static_cast<std::size_t>(events));
    site.stopDaemon();

    const std::vector<Step> steps = stepsOf(test::TemporaryFolder::read(trace));
    // The store flushes the pages of a transaction and then writes its meta page, synchronously: that makes it durable.
    int answered = 0;
    bool pending = false;
    bool flushed = false;
    bool durable = false;
    for (const Step step : steps) {
        switch (step) {
            case Step::eventReceived:
                pending = true;
                flushed = durable = false;
                break;
            case Step::dataFlushed:
                flushed = true;
                break;
            case Step::metaWritten:
                durable = flushed;
                break;
            case Step::sent:
                EXPECT_TRUE(!pending || durable) << "something was sent between an event and its commit";
                answered += pending ? 1 : 0;
                pending = false;
                break;
        }
    }
    EXPECT_GE(answered, events);
}

}  // namespace
}  // namespace qel
