#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <set>
#include <thread>

#include "postgres/system/SharedSite.h"

namespace qel::test {
namespace {

// With QEL_FAILOVER_EVENTS=1000000 the long form.
int eventCount() {
    const char* const wanted = std::getenv("QEL_FAILOVER_EVENTS");
    return wanted == nullptr ? 24000 : std::atoi(wanted);
}

double metric(const SharedDaemon& daemon, const std::string& name) {
    const std::string text = daemon.get("/metrics");
    const std::size_t at = text.find("\n" + name + " ");
    return at == std::string::npos ? -1 : std::atof(text.c_str() + at + name.size() + 2);
}

// Two daemons, a primary and its synchronous standby, eight agents. The primary is killed under load, the standby
// promoted: every event arrives, and once.
TEST(Failover, NothingIsLostAndNothingDoubledWhenThePrimaryDies) {
    constexpr int agents = 8;
    const int perAgent = std::max(1, eventCount() / agents);
    const TemporaryFolder folder;
    auto primary = std::make_unique<PostgresServer>();
    primary->sql("CREATE SCHEMA site");
    const auto standby = PostgresServer::standbyOf(*primary);
    const std::string url = PostgresServer::storeUrl({primary.get(), standby.get()}, "site");
    SharedDaemon one(folder.path(), "one", url);
    SharedDaemon two(folder.path(), "two", url, &one);
    ASSERT_TRUE(one.start()) << one.log();
    ASSERT_TRUE(two.start()) << two.log();

    std::vector<Workstation> stations;
    std::vector<std::unique_ptr<Process>> running;
    for (int i = 0; i < agents; ++i) {
        const auto order = i % 2 == 0 ? std::vector<const SharedDaemon*>{&one, &two}
                                      : std::vector<const SharedDaemon*>{&two, &one};
        stations.push_back(enrollFor(folder.path(), one, "user" + std::to_string(i), order));
        setKey(stations.back().config(), "backoff_max_seconds", "1");
        record(folder.path(), stations.back(), i * perAgent, perAgent);
    }
    for (int i = 0; i < agents; ++i)
        running.push_back(std::make_unique<Process>(
            std::vector<std::string>{program("qel-audit"), "forward", "--config",
                                     stations[static_cast<std::size_t>(i)].config()},
            folder.path(), "agent" + std::to_string(i)));
    const auto stored = [&](const PostgresServer& server) {
        return std::atoi(
            server.sql("SELECT count(*) FROM site.qel_items WHERE get_byte(key, 0) <> 2").c_str());
    };
    ASSERT_TRUE(waitFor([&] { return stored(*primary) > perAgent; }));
    primary->kill();
    EXPECT_EQ(one.get("/-/ready").rfind("503", 0), 0U);
    EXPECT_TRUE(waitFor(
        [&] { return metric(one, "qel_store_reachable") == 0 || metric(two, "qel_store_reachable") == 0; }));
    const int atFailure = stored(*standby);
    EXPECT_LT(atFailure, agents * perAgent);
    standby->promote();
    EXPECT_TRUE(waitFor([&] { return stored(*standby) == agents * perAgent; }, std::chrono::seconds(240)))
        << stored(*standby) << one.log();
    EXPECT_TRUE(waitFor([&] { return one.get("/-/ready") == "ready\n\n"; }));
    EXPECT_EQ(metric(one, "qel_store_reachable"), 1);
    EXPECT_GT(metric(one, "qel_store_reopened_total") + metric(two, "qel_store_reopened_total"), 0);
    for (const auto& agent : running)
        agent->kill();

    std::set<std::string> different;
    const auto lines = exportLines(folder.path(), url, "interaction");
    // A line ends in the event's name and its number; what stands before it differs for one and the same event.
    for (const std::string& line : lines)
        different.insert(line.substr(line.find("Event;")));
    EXPECT_EQ(lines.size(), static_cast<std::size_t>(agents * perAgent));
    EXPECT_EQ(different.size(), lines.size());
}

}  // namespace
}  // namespace qel::test
