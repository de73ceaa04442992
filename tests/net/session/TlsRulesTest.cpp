#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include "support/NetworkFixture.h"
#include "support/RawClient.h"

namespace qel {
namespace {

using test::eventually;

/// A TLS client of its own, with rules that the system's client never has.
class TlsRulesTest : public test::NetworkTest {
  protected:
    /// Handshakes with at most that version of TLS and without a certificate, then reads. True when it got through.
    bool getsThrough(const std::string& address, int newest) {
        const test::RawClient raw(address);
        SSL_CTX* context = SSL_CTX_new(TLS_client_method());
        SSL_CTX_set_max_proto_version(context, newest);
        SSL* stream = SSL_new(context);
        SSL_set_fd(stream, raw.getSocket());
        char byte = 0;
        const bool through = SSL_connect(stream) == 1 && SSL_read(stream, &byte, 1) > 0;
        SSL_free(stream);
        SSL_CTX_free(context);
        return through;
    }
};

TEST_F(TlsRulesTest, ClientWithoutACertificateIsRefusedBeforeAnythingIsRead) {
    EXPECT_FALSE(getsThrough(listen(), TLS1_3_VERSION));
    EXPECT_TRUE(
        log_.waitFor("is refused: the other end presents no certificate; one of the authority "
                     "\"Test authority\" is expected"));
    EXPECT_EQ(server_.getStatistics().authenticated, 0u);
    EXPECT_EQ(service_.attached, 0);
}

TEST_F(TlsRulesTest, OlderTlsIsNotSpoken) {
    EXPECT_FALSE(getsThrough(listen(), TLS1_2_VERSION));
    EXPECT_TRUE(log_.waitFor("is refused: the other end does not speak TLS 1.3 as expected"));
}

TEST_F(TlsRulesTest, IPv6AddressesAreListenedOnAndDialled) {
    const Listening listening = server_.listen("[::1]:0", {&service_}, site_.server("::1"));
    ASSERT_TRUE(listening) << listening.error;
    EXPECT_EQ(listening.address, "[::1]:" + std::to_string(listening.port));
    const auto station = connect({listening.address});
    EXPECT_TRUE(eventually([&] { return station->connects == 1; })) << station->lastReason();
}

TEST_F(TlsRulesTest, AddressInUseAndNonsenseAreExplained) {
    const std::string address = listen();
    EXPECT_EQ(server_.listen(address, {&service_}, site_.server()).error,
              "cannot listen on " + address + ": Address already in use");
    for (const char* nonsense : {"", "host", "host:", ":1", "::1:80", "host:99999", "host:1x"})
        EXPECT_EQ(server_.listen(nonsense, {&service_}, site_.server()).error,
                  "\"" + std::string(nonsense) + "\" is no address; HOST:PORT is expected");
}

}  // namespace
}  // namespace qel
