#include "qelCore/System.h"
#include "qelNet/Authority.h"
#include "system/AuditorFixture.h"

namespace qel {
namespace {

using test::ProcessResult;
using test::Site;
using test::Workstation;

constexpr const char* secret = "1.2.840.99999.1";

/// Everybody here asks for the log that holds the secret.
class RefusedReadersTest : public AuditorTest {
  protected:
    void SetUp() override {
        fill("interaction", past, 100, secret);
        site.startDaemon();
    }

    /// Speaks TLS with the given identity and sends what a call begins with; returns all that came back.
    std::string speak(const std::vector<std::string>& identity) const {
        std::string command =
            "{ printf 'get_audit_log'; sleep 1; } | timeout 10 openssl s_client -tls1_3 -connect " +
            site.address() + " -CAfile " + site.siteFolder() + "/authority.crt";
        for (const std::string& argument : identity)
            command += " " + argument;
        const ProcessResult result = test::runProgram({"sh", "-c", command}, site.folder());
        return result.out + result.err;
    }
    std::string newLog(std::size_t before) const { return site.daemonLog().substr(before); }

    void expectRefusal(const std::vector<std::string>& identity, const std::string& word) {
        const std::size_t before = site.daemonLog().size();
        const std::string heard = speak(identity);
        EXPECT_EQ(heard.find(secret), std::string::npos);
        EXPECT_TRUE(test::waitFor([&] { return newLog(before).find(word) != std::string::npos; }))
            << word << " is not in: " << newLog(before);
    }
    static std::vector<std::string> certificateOf(const Workstation& workstation) {
        return {"-cert", workstation.folder + "/workstation.crt", "-key",
                workstation.folder + "/workstation.key"};
    }
};

TEST_F(RefusedReadersTest, WithoutACertificate) {
    expectRefusal({}, "certificate");
}

TEST_F(RefusedReadersTest, WithACertificateOfAnotherAuthority) {
    Site stranger;
    expectRefusal(certificateOf(stranger.enroll("anna", "desk-1")), "certificate");
}

TEST_F(RefusedReadersTest, WithAnExpiredCertificate) {
    std::string error;
    const std::string& folder = site.siteFolder();
    const auto authority = Authority::load(folder + "/authority.crt", folder + "/authority.key", error);
    ASSERT_TRUE(authority) << error;
    constexpr long long day = 24LL * 3600 * microsecondsPerSecond;
    const long long now = System::getUTCDateTime();
    const Workstation expired{site.folder() + "/expired"};
    std::filesystem::create_directory(expired.folder);
    ASSERT_TRUE(authority->issueWorkstation("anna", "desk-1", expired.folder + "/workstation.crt",
                                            expired.folder + "/workstation.key", error,
                                            {now - 30 * day, now - day}))
        << error;
    expectRefusal(certificateOf(expired), "expired");
}

TEST_F(RefusedReadersTest, WithAValidCertificateButWithoutTheRole) {
    const Workstation mallory = site.enroll("mallory", "laptop");
    // Words that are no protocol come to nothing, also with a certificate.
    EXPECT_EQ(speak(certificateOf(mallory)).find(secret), std::string::npos);
    CallLink link(site, mallory);
    Item arguments;
    arguments.addInteger(1);
    arguments.addInteger(past);
    arguments.addInteger(past + 100);
    const RpcReply reply = link.call("get_audit_log", arguments);
    EXPECT_EQ(reply.error, RpcError::notPermitted);
    EXPECT_TRUE(reply.result.isEmpty());
    EXPECT_TRUE(logs("get_audit_log is not permitted to user mallory at device laptop, address 127.0.0.1:"));
}

}  // namespace
}  // namespace qel
