#include "qelNet/Network.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include "qelNet/RpcClient.h"
#include "support/NetworkFixture.h"
#include "wire/OpenSsl.h"

namespace qel {
namespace {

using test::eventually;
using test::NetworkTest;
using tls::describeTime;

constexpr long long microsecondsPerDay = 86'400'000'000LL;

long long now() {
    using namespace std::chrono;
    return duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
}

/// A port that answers no call: its queue is full, and nobody accepts.
class SilentPort {
  public:
    SilentPort() {
        socklen_t length = sizeof(place_);
        place_.sin_family = AF_INET;
        place_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* const address = reinterpret_cast<sockaddr*>(&place_);
        EXPECT_EQ(::bind(sockets_[0], address, length), 0);
        EXPECT_EQ(::getsockname(sockets_[0], address, &length), 0);
        EXPECT_EQ(::listen(sockets_[0], 0), 0);
        for (std::size_t i = 1; i < sockets_.size(); ++i)
            (void)::connect(sockets_[i], address, length);
    }
    ~SilentPort() {
        for (const int socket : sockets_)
            ::close(socket);
    }
    SilentPort(const SilentPort&) = delete;
    SilentPort& operator=(const SilentPort&) = delete;

    std::string address() const { return "127.0.0.1:" + std::to_string(ntohs(place_.sin_port)); }

  private:
    static int open() { return ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0); }

    sockaddr_in place_{};
    std::array<int, 4> sockets_{open(), open(), open(), open()};
};

TEST_F(NetworkTest, PacketsGoThereAndBack) {
    const auto station = connect({listen()});
    ASSERT_TRUE(eventually([&] { return station->connects == 1; })) << station->lastReason();
    for (long long number = 1; number <= 100; ++number)
        station->send(number);
    ASSERT_TRUE(station->waitFor(100));
    std::vector<long long> expected;
    for (long long number = 1; number <= 100; ++number)
        expected.push_back(number);
    EXPECT_EQ(station->numbers(), expected);
    EXPECT_EQ(service_.users, std::vector<std::string>{"mueller@WS-07"});
}

TEST_F(NetworkTest, PacketAsLargeAsAFrameArrives) {
    const auto station = connect({listen()});
    ASSERT_TRUE(eventually([&] { return station->connects == 1; }));
    station->send(1, 1024 * 1024 - 100);
    station->send(2, 1024 * 1024);
    station->send(3);
    ASSERT_TRUE(station->waitFor(2));
    EXPECT_EQ(station->numbers(), (std::vector<long long>{1, 3}));
    EXPECT_TRUE(log_.contains("was not sent; it accepts at most 1048576"));
}

TEST_F(NetworkTest, ClientWithoutCertificateOfTheAuthorityIsRefusedWithAReason) {
    test::TestSite other("Foreign authority");
    CredentialFiles files = other.workstationFiles("intruder", "elsewhere");
    files.authority = site_.authorityFile();
    const auto station = connect({listen()}, test::TestSite::load(files));
    ASSERT_TRUE(log_.waitFor(
        "is refused: the certificate \"intruder\" of \"elsewhere\" of the other end was issued by "
        "\"Foreign authority\"; expected the authority \"Test authority\""));
    ASSERT_TRUE(eventually([&] {
        return station->lastReason().find("refuses our certificate \"intruder\" of \"elsewhere\"") !=
               std::string::npos;
    })) << station->lastReason();
    EXPECT_EQ(service_.attached, 0);
    EXPECT_EQ(station->connects, 0);
}

TEST_F(NetworkTest, ExpiredCertificateIsNamedWithItsDatesAtBothEnds) {
    const Validity past{now() - 10 * microsecondsPerDay, now() - microsecondsPerDay};
    const auto station = connect({listen()}, site_.workstation("late", "WS-01", past));
    ASSERT_TRUE(log_.waitFor("the certificate \"late\" of \"WS-01\" of the other end expired at "));
    ASSERT_TRUE(eventually([&] {
        return station->lastReason().find("as out of its dates; it is valid from ") != std::string::npos;
    })) << station->lastReason();
}

TEST_F(NetworkTest, CertificateOfTomorrowIsNamedWithItsDateAtBothEnds) {
    const Validity future{now() + microsecondsPerDay, now() + 10 * microsecondsPerDay};
    const std::string begins = describeTime(future.from);
    const auto station = connect({listen()}, site_.workstation("early", "WS-01", future));
    ASSERT_TRUE(log_.waitFor("the certificate \"early\" of \"WS-01\" of the other end is valid only from " +
                             begins + "; this machine's clock says "));
    ASSERT_TRUE(eventually([&] {
        return station->lastReason().find(
                   "the other end refuses our certificate \"early\" of \"WS-01\": it is valid only from " +
                   begins + ", and this machine's clock says ") != std::string::npos;
    })) << station->lastReason();
}

TEST_F(NetworkTest, ServerCertificateOfTomorrowIsNamedWithItsDateAtBothEnds) {
    const Validity future{now() + microsecondsPerDay, now() + 10 * microsecondsPerDay};
    const std::string begins = describeTime(future.from);
    const auto station = connect({listen(site_.server("127.0.0.1", future))});
    ASSERT_TRUE(eventually([&] {
        return station->lastReason().find("\"127.0.0.1\" of the other end is valid only from " + begins) !=
               std::string::npos;
    })) << station->lastReason();
    EXPECT_TRUE(log_.waitFor("the other end refuses our certificate \"127.0.0.1\": it is valid only from " +
                             begins + ", and this machine's clock says "));
}

TEST_F(NetworkTest, ServerOfAnotherNameIsRefused) {
    const auto station = connect({listen(site_.server("server.example"))});
    ASSERT_TRUE(eventually([&] {
        return station->lastReason().find(
                   "is for DNS:server.example, DNS:localhost; expected \"127.0.0.1\"") != std::string::npos;
    })) << station->lastReason();
    EXPECT_TRUE(log_.waitFor(
        "the other end refuses our certificate \"server.example\": it is for DNS:server.example"));
    EXPECT_EQ(service_.attached, 0);
}

TEST_F(NetworkTest, ConfiguredServerNameIsExpectedInsteadOfTheAddress) {
    ConnectOptions options;
    options.serverName = "server.example";
    const auto station = connect({listen(site_.server("server.example"))}, nullptr, options);
    EXPECT_TRUE(eventually([&] { return station->connects == 1; })) << station->lastReason();
}

TEST_F(NetworkTest, ServerThatDoesNotBearTheConfiguredNameIsRefused) {
    ConnectOptions options;
    options.serverName = "other.example";
    const auto station = connect({listen(site_.server("server.example"))}, nullptr, options);
    ASSERT_TRUE(eventually([&] {
        return station->lastReason().find("expected \"other.example\"") != std::string::npos;
    })) << station->lastReason();
    EXPECT_EQ(service_.attached, 0);
}

TEST_F(NetworkTest, WorkstationCertificateDoesNotPassForAServer) {
    CredentialFiles files = site_.workstationFiles("127.0.0.1", "localhost");
    const auto station = connect({listen(test::TestSite::load(files))});
    ASSERT_TRUE(eventually([&] {
        return station->lastReason().find("is not meant for this end") != std::string::npos;
    })) << station->lastReason();
}

TEST_F(NetworkTest, RevokedCertificateIsRefusedAfterReload) {
    const CredentialFiles files = site_.serverFiles();
    const auto credentials = test::TestSite::load(files);
    const std::string address = listen(credentials);
    const CredentialFiles mine = site_.workstationFiles("gone", "WS-13");
    {
        const auto station = connect({address}, test::TestSite::load(mine));
        ASSERT_TRUE(eventually([&] { return station->connects == 1; }));
    }
    std::string error;
    ASSERT_TRUE(site_.authority().revoke(mine.certificate, files.revoked, error)) << error;
    EXPECT_TRUE(credentials->reloadIfChanged(error)) << error;
    const auto station = connect({address}, test::TestSite::load(mine));
    ASSERT_TRUE(log_.waitFor("the certificate \"gone\" of \"WS-13\" of the other end was revoked"));
    EXPECT_TRUE(eventually([&] { return station->lastReason().find("as revoked") != std::string::npos; }));
    const auto innocent = connect({address});
    EXPECT_TRUE(eventually([&] { return innocent->connects == 1; }));
}

TEST_F(NetworkTest, CertificateIsRenewedInPlaceWithoutClosingConnections) {
    const CredentialFiles files = site_.serverFiles();
    const auto credentials = test::TestSite::load(files);
    const std::string address = listen(credentials);
    const auto before = connect({address});
    ASSERT_TRUE(eventually([&] { return before->connects == 1; }));
    const long long validUntil = credentials->getValidUntil();
    std::string error;
    ASSERT_TRUE(site_.authority().issueServer({"127.0.0.1"}, files.certificate, files.key, error,
                                              {0, now() + 30 * microsecondsPerDay}));
    ASSERT_TRUE(credentials->reload(error)) << error;
    // cppcheck-suppress knownConditionTrueFalse ; the reload changes it
    EXPECT_LT(credentials->getValidUntil(), validUntil);
    const auto after = connect({address});
    ASSERT_TRUE(eventually([&] { return after->connects == 1; }));
    before->send(7);
    EXPECT_TRUE(before->waitFor(1));
    EXPECT_EQ(before->losses, 0);
}

TEST_F(NetworkTest, UnknownServiceAndSessionTypeAreRefusedWithASentenceAtBothEnds) {
    const std::string address = listen();
    const auto lost = connect({address}, nullptr, {}, "nowhere");
    EXPECT_TRUE(eventually([&] { return lost->lastReason() == "there is no service \"nowhere\" here"; }));
    const auto odd = connect({address}, nullptr, {}, "echo", 77);
    EXPECT_TRUE(
        eventually([&] { return odd->lastReason() == "the service \"echo\" has no sessions of type 77"; }));
    EXPECT_EQ(log_.count("there is no service \"nowhere\" here"), 2);
    EXPECT_EQ(log_.count("the service \"echo\" has no sessions of type 77"), 2);
    EXPECT_EQ(lost->losses, 0);
}

TEST_F(NetworkTest, ClientConnectsAgainWhenTheServerComesBack) {
    auto first = std::make_unique<Network>();
    const auto credentials = site_.server();
    const Listening listening = first->listen("127.0.0.1:0", {&service_}, credentials);
    ASSERT_TRUE(listening) << listening.error;
    const auto station = connect({listening.address});
    ASSERT_TRUE(eventually([&] { return station->connects == 1; }));
    first->stop("closed for the night");
    EXPECT_TRUE(log_.waitFor("closed for the night"));
    ASSERT_TRUE(eventually([&] { return station->losses >= 1; }));
    EXPECT_TRUE(station->peer->getNetworkPeer()->cannotSend());
    // Nobody keeps the port free meanwhile: some connection of others may have it for a moment.
    ASSERT_TRUE(
        eventually([&] { return bool(server_.listen(listening.address, {&service_}, credentials)); }));
    ASSERT_TRUE(eventually([&] { return station->connects == 2; })) << station->lastReason();
    station->send(5);
    EXPECT_TRUE(station->waitFor(1));
    first.reset();
}

// Nothing of it is left then, or the leak detector would tell.
TEST_F(NetworkTest, AClientOfRemoteCallsMayGoAfterItsNetwork) {
    auto network = std::make_unique<Network>();
    const auto peer = network->connect({listen()}, site_.workstation(), {});
    auto calls = std::make_unique<RpcClient>(peer.get(), "echo");
    std::string reason;
    EXPECT_FALSE(calls->open(60000, reason));
    EXPECT_NE(reason.find("has no sessions of type"), std::string::npos) << reason;
    network.reset();
    calls.reset();
}

/// A name that is none is not asked of any name server.
TEST_F(NetworkTest, ServersAreTriedInOrder) {
    const auto station = connect({"127.0.0.1:1", "no..such.host:1", listen()});
    EXPECT_TRUE(eventually([&] { return station->connects == 1; })) << station->lastReason();
    EXPECT_TRUE(log_.contains("127.0.0.1:1 cannot be reached"));
    EXPECT_TRUE(log_.contains("the name of no..such.host:1 cannot be resolved"));
}

TEST_F(NetworkTest, TriesAreGivenUpWhileTheyStillConnect) {
    const SilentPort silent;
    ConnectOptions options;
    options.limits.handshakeSeconds = 1;
    {
        const auto station = connect({silent.address()}, nullptr, options);
        EXPECT_TRUE(eventually([&] { return station->losses >= 2; }));
        EXPECT_EQ(station->lastReason(), silent.address() + " did not answer within 1 seconds");
    }
    const auto station = connect({silent.address(), listen()}, nullptr, options);
    EXPECT_TRUE(eventually([&] { return station->connects == 1; })) << station->lastReason();
}

TEST_F(NetworkTest, ConnectionsOverTheLimitAreToldSo) {
    NetworkLimits limits;
    limits.connectionsPerAddress = 1;
    const std::string address = listen(nullptr, limits);
    const auto first = connect({address});
    ASSERT_TRUE(eventually([&] { return first->connects == 1; }));
    const auto second = connect({address});
    EXPECT_TRUE(eventually(
        [&] { return second->lastReason().find("the limit for one address") != std::string::npos; }));
    EXPECT_EQ(second->connects, 0);
    first->send(1);
    EXPECT_TRUE(first->waitFor(1));
}

TEST_F(NetworkTest, SessionsAreReleasedWhenTheClientGoes) {
    {
        const auto station = connect({listen()});
        ASSERT_TRUE(eventually([&] { return service_.attached == 1; }));
    }
    EXPECT_TRUE(eventually([&] { return service_.released == 1; }));
    EXPECT_TRUE(eventually([&] { return server_.getStatistics().connectionsNow == 0; }));
    EXPECT_EQ(server_.getStatistics().sessionsNow, 0u);
}

TEST_F(NetworkTest, ServiceIsTicked) {
    listen();
    EXPECT_TRUE(eventually([&] { return service_.ticks >= 1; }));
}

TEST_F(NetworkTest, ProgramsThatTheHostStartsGetNoCopyOfASocket) {
    const std::string address = listen();
    const auto station = connect({address});
    ASSERT_TRUE(eventually([&] { return station->connects == 1; })) << station->lastReason();
    int sockets = 0;
    for (int descriptor = 3; descriptor < 1000; ++descriptor) {
        int listens = 0;
        socklen_t size = sizeof listens;
        if (::getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) != 0)
            continue;
        ++sockets;
        EXPECT_NE(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0)
            << (listens ? "the listener" : "a connection");
    }
    EXPECT_GE(sockets, 3) << "the listener and both ends of a connection";
}

}  // namespace
}  // namespace qel
