#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "SiteFixture.h"
#include "common/MetricsServer.h"

namespace qel::programs {
namespace {

/// What a server on loopback answers to the bytes, until it closes.
std::string askPort(const std::string& port, const std::string& request) {
    const int descriptor = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(port)));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string answer;
    if (::connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        ::send(descriptor, request.data(), request.size(), MSG_NOSIGNAL);
        char bytes[4096];
        for (ssize_t count; (count = ::recv(descriptor, bytes, sizeof bytes, 0)) > 0;)
            answer.append(bytes, static_cast<std::size_t>(count));
    }
    ::close(descriptor);
    return answer;
}

std::string get(const std::string& port, const std::string& path) {
    return askPort(port, "GET " + path + " HTTP/1.1\r\nHost: localhost\r\n\r\n");
}

std::string portOf(const std::string& address) {
    return address.substr(address.rfind(':') + 1);
}

/// The port in a log line "metrics at http://HOST:PORT/metrics".
std::string metricsPort(test::Program& program) {
    EXPECT_TRUE(program.waitFor("/metrics")) << program.err();
    const std::string& text = program.err();
    const std::size_t end = text.find("/metrics");
    const std::size_t colon = text.rfind(':', end);
    return text.substr(colon + 1, end - colon - 1);
}

TEST(MetricsServer, AnswersGetAndRefusesEverythingElse) {
    MetricsServer server("127.0.0.1:0", {[] { return std::string("the body\n"); },
                                         [] {
                                             return MetricsServer::Answer{503, "not yet\n"};
                                         },
                                         [] {
                                             return MetricsServer::Answer{200, "alive\n"};
                                         }});
    const std::string port = portOf(server.address());
    const std::string good = get(port, "/metrics");
    EXPECT_EQ(good.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << good;
    EXPECT_NE(good.find("Content-Length: 9\r\n"), std::string::npos) << good;
    EXPECT_EQ(good.substr(good.size() - 13), "\r\n\r\nthe body\n");
    EXPECT_EQ(get(port, "/-/ready").rfind("HTTP/1.1 503 Service Unavailable\r\n", 0), 0u);
    EXPECT_NE(get(port, "/-/healthy").find("\r\n\r\nalive\n"), std::string::npos);
    EXPECT_EQ(get(port, "/other").rfind("HTTP/1.1 404 ", 0), 0u);
    EXPECT_EQ(askPort(port, "POST /metrics HTTP/1.1\r\n\r\n").rfind("HTTP/1.1 405 ", 0), 0u);
    EXPECT_EQ(askPort(port, "\r\n\r\n").rfind("HTTP/1.1 400 ", 0), 0u);
    EXPECT_EQ(askPort(port, std::string(20000, 'x')).rfind("HTTP/1.1 400 ", 0), 0u);
    EXPECT_EQ(get(port, "/metrics"), good) << "it serves on after bad requests";
}

class MetricsTest : public SiteFixture {
  protected:
    void SetUp() override {
        SiteFixture::SetUp();
        edit(site() + "/qel-auditd.toml", "listen = \"\"", "listen = \"127.0.0.1:0\"");
    }
};

TEST_F(MetricsTest, DaemonCountsWhatItStores) {
    serve();
    const std::string port = metricsPort(*daemon_);
    record("anna", "[\"A\"]\n[\"B\"]\n");
    ASSERT_EQ(forward("anna").code, 0);
    const std::string text = get(port, "/metrics");
    EXPECT_NE(text.find("qel_events_stored_total{log=\"interaction\"} 2\n"), std::string::npos) << text;
    EXPECT_NE(text.find("qel_events_stored_total{log=\"audit\"} 0\n"), std::string::npos) << text;
    EXPECT_NE(text.find("qel_last_event_timestamp_seconds{device=\"ws-01\"} "), std::string::npos) << text;
    EXPECT_NE(text.find("qel_commit_seconds_bucket{le=\""), std::string::npos) << text;
    EXPECT_NE(text.find("qel_connections_authenticated_total 1\n"), std::string::npos) << text;
    EXPECT_NE(text.find("qel_certificate_expires_timestamp_seconds "), std::string::npos) << text;
    EXPECT_EQ(get(port, "/-/ready").rfind("HTTP/1.1 200 ", 0), 0u);
    EXPECT_EQ(get(port, "/-/healthy").rfind("HTTP/1.1 200 ", 0), 0u);
}

TEST_F(MetricsTest, FiguresOfAnAnonymousLogHoldNoName) {
    const std::string log = "path = \"interaction\"";
    edit(site() + "/qel-auditd.toml", log, "anonymous = true\n" + log);
    std::string text = test::TemporaryFolder::read(site() + "/qel-auditd.toml");
    text.erase(text.rfind("anonymous = false"), std::string("anonymous = false").size());
    std::ofstream(site() + "/qel-auditd.toml", std::ios::trunc) << text;
    serve();
    const std::string port = metricsPort(*daemon_);
    record("anna", "[\"A\"]\n");
    ASSERT_EQ(forward("anna").code, 0);
    const std::string figures = get(port, "/metrics");
    EXPECT_NE(figures.find("qel_last_event_timestamp_seconds{device=\""), std::string::npos) << figures;
    EXPECT_EQ(figures.find("anna"), std::string::npos) << figures;
    EXPECT_EQ(figures.find("ws-01"), std::string::npos) << figures;
}

TEST_F(MetricsTest, AgentTellsItsQueuesAndWhetherItIsConnected) {
    record("anna", "[\"A\"]\n[\"B\"]\n");
    record("anna", "[\"C\"]\n", "audit");
    edit(config("anna"), "listen = \"\"", "listen = \"127.0.0.1:0\"");
    edit(config("anna"), "localhost:7443", "localhost:1");
    test::Program agent({QEL_PROGRAMS_DIR "/qel-audit", "forward", "--config", config("anna")});
    const std::string port = metricsPort(agent);
    const std::string text = get(port, "/metrics");
    EXPECT_NE(text.find("qel_queue_events{log=\"interaction\"} 2\n"), std::string::npos) << text;
    EXPECT_NE(text.find("qel_queue_events{log=\"audit\"} 1\n"), std::string::npos) << text;
    EXPECT_NE(text.find("qel_queue_oldest_seconds{log=\"audit\"} "), std::string::npos) << text;
    EXPECT_NE(text.find("qel_agent_connected 0\n"), std::string::npos) << text;
    ASSERT_TRUE(agent.waitFor("cannot connect: ")) << agent.err();
    EXPECT_EQ(get(port, "/-/ready").rfind("HTTP/1.1 503 ", 0), 0u);
    agent.signal(SIGTERM);
    EXPECT_EQ(agent.wait().code, 0);
}

TEST_F(MetricsTest, AddressThatIsTakenIsATemporaryFailure) {
    serve();
    edit(config("anna"), "listen = \"\"", "listen = \"127.0.0.1:" + port_ + '"');
    EXPECT_EQ(audit({"forward", "--config", config("anna")}).code, 75);
}

}  // namespace
}  // namespace qel::programs
