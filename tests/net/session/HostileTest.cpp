#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <vector>

#include "support/NetworkFixture.h"
#include "support/RawClient.h"

namespace qel {
namespace {

using test::eventually;
using test::RawClient;

/// What strangers do to the port while honest workstations are served.
class HostileTest : public test::NetworkTest {
  protected:
    unsigned long long refused(const char* reason) {
        const auto statistics = server_.getStatistics();
        const auto found = statistics.refused.find(reason);
        return found == statistics.refused.end() ? 0 : found->second;
    }

    /// One packet there and back proves that the station is served.
    bool isServed(Workstation& station) {
        const std::size_t before = station.numbers().size();
        station.send(1);
        return station.waitFor(before + 1);
    }
};

TEST_F(HostileTest, GarbageIsRefusedWithASentenceAndNothingElseHappens) {
    const std::string address = listen();
    for (const char* garbage :
         {"GET / HTTP/1.1\r\nHost: x\r\n\r\n", "\x16\x03\x01\xff\xff garbage", "QELN"}) {
        RawClient stranger(address);
        stranger.send(garbage + std::string(64, '\xa5'));
        EXPECT_TRUE(stranger.isClosedWithin(30000));
    }
    EXPECT_TRUE(eventually([&] { return refused("garbage") == 3; }));
    EXPECT_TRUE(log_.contains("is refused: the other end does not speak TLS 1.3 as expected"));
    EXPECT_EQ(service_.attached, 0);
    EXPECT_EQ(server_.getStatistics().authenticated, 0u);
}

TEST_F(HostileTest, WhoStopsInTheHandshakeIsClosedInTime) {
    NetworkLimits limits;
    limits.handshakeSeconds = 1;
    RawClient silent(listen(nullptr, limits));
    EXPECT_TRUE(silent.isClosedWithin(30000));
    EXPECT_TRUE(log_.waitFor("it did not finish the TLS handshake within 1 seconds"));
    EXPECT_EQ(refused("handshake timeout"), 1u);
}

TEST_F(HostileTest, OneByteAfterTheOtherIsStillTooSlow) {
    NetworkLimits limits;
    limits.handshakeSeconds = 2;
    RawClient slow(listen(nullptr, limits));
    const std::string begin("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11);
    bool closed = false;
    for (std::size_t i = 0; i < 1200 && !closed; ++i) {
        slow.send(begin.substr(std::min(i, begin.size() - 1), 1));
        closed = slow.isClosedWithin(50);
    }
    EXPECT_TRUE(closed);
}

TEST_F(HostileTest, TheOldestHandshakeMakesRoomForNewOnes) {
    NetworkLimits limits;
    limits.handshakes = 8;
    const std::string address = listen(nullptr, limits);
    std::vector<std::unique_ptr<RawClient>> idlers;
    for (int i = 0; i < 50; ++i)
        idlers.push_back(std::make_unique<RawClient>(address));
    const auto station = connect({address});
    EXPECT_TRUE(eventually([&] { return station->connects == 1; })) << station->lastReason();
    EXPECT_TRUE(idlers.front()->isClosedWithin(30000));
    EXPECT_LE(server_.getStatistics().handshakesNow, 8u);
}

TEST_F(HostileTest, ThousandsOfStrangersKeepNoWorkstationFromBeingServed) {
    const auto begin = std::chrono::steady_clock::now();
    const std::string address = listen();
    const auto station = connect({address});
    ASSERT_TRUE(eventually([&] { return station->connects == 1; })) << station->lastReason();
    std::vector<std::unique_ptr<RawClient>> idlers;
    for (int i = 0; i < 2000; ++i) {
        RawClient stranger(address);
        stranger.send(std::string(200, static_cast<char>(i)));
        if (i % 10 == 0)
            idlers.push_back(std::make_unique<RawClient>(address));
        if (i % 100 == 0) {
            ASSERT_TRUE(isServed(*station)) << i;
        }
    }
    const auto another = connect({address});
    EXPECT_TRUE(eventually([&] { return another->connects == 1; })) << another->lastReason();
    EXPECT_EQ(station->losses, 0);
    EXPECT_EQ(server_.getStatistics().authenticated, 2u);
    // Ten lines a second at most, however many they are; the first second and the last one may be parts.
    const int lines = log_.count("is refused");
    const auto passed = std::chrono::steady_clock::now() - begin;
    EXPECT_LE(lines, 10 * (std::chrono::duration_cast<std::chrono::seconds>(passed).count() + 2));
}

/// Memory of this process in bytes; signed, as it may have become less between two looks.
long long residentBytes() {
    std::FILE* file = std::fopen("/proc/self/statm", "r");
    long pages = 0;
    long resident = 0;
    EXPECT_EQ(std::fscanf(file, "%ld %ld", &pages, &resident), 2);
    std::fclose(file);
    return static_cast<long long>(resident) * 4096;
}

TEST_F(HostileTest, IdleConnectionsAreSmall) {
    const std::string address = listen();
    const auto credentials = site_.workstation();
    std::vector<std::unique_ptr<Workstation>> stations;
    const auto add = [&](std::size_t count) {
        while (stations.size() < count)
            stations.push_back(connect({address}, credentials));
        return eventually([&] { return server_.getStatistics().sessionsNow == count; });
    };
    ASSERT_TRUE(add(20));
    [[maybe_unused]] const long long before = residentBytes();
    ASSERT_TRUE(add(120));
#ifndef QEL_SANITIZED  // A sanitizer's own memory is several times the program's.
    // Both ends live in this process, so each of a hundred pairs may take twice the 100 KiB of one end.
    EXPECT_LT((residentBytes() - before) / 100, 200 * 1024);
#endif
}

}  // namespace
}  // namespace qel
