#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>

#include "support/Site.h"

namespace qel {
namespace {

using test::queued;
using test::Site;
using test::waitFor;
using test::Workstation;

/// Sends bytes to the port and reads until the other end closes; true when it did so within ten seconds.
bool sendAndWaitForClose(int port, const std::string& bytes) {
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const timeval limit{10, 0};
    setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    if (connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) {
        close(descriptor);
        return false;
    }
    char buffer[4096];
    ssize_t got = 0;
    do
        got = recv(descriptor, buffer, sizeof buffer, 0);
    while (got > 0);
    const bool closed = got == 0 || errno == ECONNRESET;
    close(descriptor);
    return closed;
}

class RefusalSystemTest : public ::testing::Test {
  protected:
    RefusalSystemTest() { site_.startDaemon(); }

    /// Speaks TLS to the daemon with the given identity and sends a line behind the handshake.
    void speak(const std::vector<std::string>& identity) {
        std::string command =
            "printf 'GET / HTTP/1.0\\r\\n\\r\\n' | timeout 10 openssl s_client -tls1_3 -quiet -connect " +
            site_.address() + " -CAfile " + site_.siteFolder() + "/authority.crt";
        for (const std::string& argument : identity)
            command += " " + argument;
        test::runProgram({"sh", "-c", command}, site_.folder());
    }
    bool logs(const std::string& text) {
        return waitFor([&] { return site_.daemonLog().find(text) != std::string::npos; });
    }
    /// The daemon is unharmed: an event still goes through, and it is the only one in the log.
    void expectOnlyHonestEvents() {
        const Workstation anna = site_.enroll("anna", "pc-1");
        EXPECT_EQ(site_.audit({"record", "--config", anna.config(), "--log", "interaction", "Honest"}).code,
                  0);
        const test::ProcessResult forwarded = site_.audit({"forward", "--config", anna.config(), "--once"});
        EXPECT_EQ(forwarded.code, 0) << forwarded.err;
        const std::vector<std::string> lines = site_.exportedLines("interaction");
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_NE(lines[0].find(";anna;pc-1;Honest;"), std::string::npos);
    }

    Site site_;
};

TEST_F(RefusalSystemTest, ClientWithoutCertificateIsRefusedWithASentence) {
    speak({});
    EXPECT_TRUE(logs("certificate")) << site_.daemonLog();
    expectOnlyHonestEvents();
}

TEST_F(RefusalSystemTest, ClientOfAnotherAuthorityIsRefusedWithASentence) {
    Site stranger;
    const Workstation mallory = stranger.enroll("mallory", "pc-9");
    speak({"-cert", mallory.folder + "/workstation.crt", "-key", mallory.folder + "/workstation.key"});
    EXPECT_TRUE(logs("certificate")) << site_.daemonLog();
    expectOnlyHonestEvents();
}

TEST_F(RefusalSystemTest, GarbageOnThePortIsRefusedAndNothingElseHappens) {
    std::string zeros(1000, '\0');
    std::string noise;
    for (int i = 0; i < 20000; ++i)
        noise += static_cast<char>((i * 7919 + i / 3) % 251);
    EXPECT_TRUE(sendAndWaitForClose(site_.port(), zeros));
    EXPECT_TRUE(sendAndWaitForClose(site_.port(), noise));
    EXPECT_TRUE(sendAndWaitForClose(site_.port(), "GET / HTTP/1.1\r\nHost: x\r\n\r\n"));
    EXPECT_TRUE(logs("127.0.0.1")) << site_.daemonLog();
    expectOnlyHonestEvents();
}

TEST_F(RefusalSystemTest, ServerOfAnotherAuthorityGetsNoEvent) {
    Site stranger;
    const Workstation mallory = stranger.enroll("mallory", "pc-9");
    test::setKey(mallory.config(), "address", "\"" + site_.address() + "\"");
    EXPECT_EQ(site_.audit({"record", "--config", mallory.config(), "--log", "interaction", "Secret"}).code,
              0);
    const auto agent = site_.agent({"forward", "--config", mallory.config()}, "stranger");
    EXPECT_TRUE(waitFor([&] { return agent->err().find("certificate") != std::string::npos; }))
        << agent->err();
    agent->kill();
    EXPECT_EQ(queued(site_, mallory), 1);
    expectOnlyHonestEvents();
}

}  // namespace
}  // namespace qel
