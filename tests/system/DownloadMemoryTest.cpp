#include <chrono>
#include <cstdlib>
#include <thread>

#include "support/OwnMemory.h"
#include "system/AuditorFixture.h"

namespace qel {
namespace {

using test::ownMemory;

class DownloadMemoryTest : public AuditorTest {};

TEST_F(DownloadMemoryTest, ALargeDownloadCostsLittleMemoryAtEitherEnd) {
    const bool longForm = std::getenv("QEL_LONG_TESTS") != nullptr;
    const int count = longForm ? 5000000 : 600000;
    constexpr long long most = 64LL << 20;
    fill("interaction", past, count, std::string(90, 'x'));
    site.startDaemon();
    // A first small one, so that what every download costs once is there.
    ASSERT_EQ(download(into(), {"--log", "audit"}).code, 0);
    const long long before = ownMemory(site.daemon().pid());
    ASSERT_GT(before, 0);
    const auto client = site.agent(downloadArguments(into(), {"--log", "interaction"}), "client");
    long long daemonMost = 0;
    long long clientMost = 0;
    while (client->isRunning()) {
        daemonMost = std::max(daemonMost, ownMemory(site.daemon().pid()));
        clientMost = std::max(clientMost, ownMemory(client->pid()));
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ASSERT_EQ(client->wait(std::chrono::seconds(10)), 0) << client->err();
    const auto bytes = std::filesystem::file_size(into() + "/constancy_export.csv");
    EXPECT_GT(static_cast<long long>(bytes), longForm ? 10 * most : most);
#ifndef QEL_SANITIZED  // sanitizers need memory of their own
    EXPECT_LT(daemonMost - before, most);
    EXPECT_LT(clientMost, most);
#endif
    RecordProperty("daemon_growth_bytes", std::to_string(daemonMost - before));
    RecordProperty("client_bytes", std::to_string(clientMost));
    RecordProperty("file_bytes", std::to_string(bytes));
}

}  // namespace
}  // namespace qel
