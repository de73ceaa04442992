#include <sys/stat.h>

#include <algorithm>

#include "SiteFixture.h"
#include "common/ConfigFile.h"
#include "common/Folders.h"
#include "common/Site.h"
#include "common/Times.h"

namespace qel::programs {
namespace {

constexpr long long day = 86400LL * 1000000;

/// A site that is well; each test plants one fault and asks for its sentence.
class DoctorTest : public SiteFixture {
  protected:
    std::string daemonConfig() const { return site() + "/qel-auditd.toml"; }

    /// A served site with an identity that has recorded and forwarded something.
    void beWell() {
        serve();
        ASSERT_EQ(record("anna", "[\"A\"]\n").code, 0);
        ASSERT_EQ(forward("anna").code, 0);
        edit(daemonConfig(), "listen = \"127.0.0.1:0\"", "listen = \"127.0.0.1:" + port_ + '"');
    }
    std::string doctor(const std::string& file, std::vector<std::string> more = {}) {
        std::vector<std::string> arguments{"doctor", "--config", file, "--quiet"};
        // Only where a test asks for it is the room on this machine's disk a fault.
        if (std::find(more.begin(), more.end(), "--least-free") == more.end())
            arguments.insert(arguments.end(), {"--least-free", "1"});
        arguments.insert(arguments.end(), more.begin(), more.end());
        const test::ProgramResult result = audit(arguments);
        EXPECT_EQ(result.code, result.out.empty() ? 0 : 1) << result.out << result.err;
        EXPECT_EQ(result.err, "");
        return result.out;
    }
    /// Exactly this fault is found, with a cure.
    void expectFault(const std::string& found, const std::string& cause, const std::string& cure) {
        EXPECT_NE(found.find(cause), std::string::npos) << found;
        EXPECT_NE(found.find("Cure: " + cure), std::string::npos) << found;
        EXPECT_EQ(found.find("Cure: "), found.rfind("Cure: ")) << "more than the planted fault: " << found;
    }
    void expectFaultAmong(const std::string& found, const std::string& cause, const std::string& cure) {
        EXPECT_NE(found.find(cause), std::string::npos) << found;
        EXPECT_NE(found.find("Cure: " + cure), std::string::npos) << found;
    }
    /// Gives anna a certificate of the site's authority with these dates.
    void redate(long long from, long long until) {
        std::string error;
        const auto authority = Site(site()).loadAuthority({});
        const std::string folder = workstation("anna");
        ASSERT_TRUE(authority->issueWorkstation("anna", "ws-01", folder + "/workstation.crt",
                                                folder + "/workstation.key", error, {from, until}))
            << error;
    }
};

TEST_F(DoctorTest, NothingIsFoundWhereAllIsWell) {
    beWell();
    EXPECT_EQ(doctor(daemonConfig()), "");
    EXPECT_EQ(doctor(config("anna")), "");
    const test::ProgramResult json =
        audit({"doctor", "--config", config("anna"), "--least-free", "1", "--json"});
    EXPECT_EQ(json.out.rfind("{\"faults\":0,\"findings\":[{\"check\":\"configuration\",\"well\":true}", 0),
              0u)
        << json.out;
}

TEST_F(DoctorTest, FaultsOfTheConfigurationAreToldAsTheProgramsTellThem) {
    edit(daemonConfig(), "[limits]", "[limit]");
    expectFault(doctor(daemonConfig()), "[limit]: unknown section", "correct the line");
    EXPECT_EQ(audit({"doctor", "--config", folder_ / "no"}).code, 66);
}

TEST_F(DoctorTest, KeyThatOthersMayRead) {
    beWell();
    ::chmod((workstation("anna") + "/workstation.key").c_str(), 0644);
    expectFault(doctor(config("anna")), "others may touch it (mode 0644)", "give the file to the user");
}

TEST_F(DoctorTest, KeyOfAnotherCertificate) {
    beWell();
    std::filesystem::copy_file(workstation("paul") + "/workstation.key",
                               workstation("anna") + "/workstation.key",
                               std::filesystem::copy_options::overwrite_existing);
    expectFault(doctor(config("anna")), "does not belong to", "put the key beside the certificate");
}

TEST_F(DoctorTest, CertificateThatHasEndedEndsSoonOrHasNotBegun) {
    beWell();
    const long long now = wallClock();
    redate(now - 10 * day, now - day);
    expectFaultAmong(doctor(config("anna")), "workstation.crt: ended on ", "renew it with 'qel-audit renew'");
    redate(now - 10 * day, now + 5 * day + day / 2);
    expectFault(doctor(config("anna")), "workstation.crt: ends in 5 days", "renew it with 'qel-audit renew'");
    redate(now + day, now + 10 * day);
    expectFaultAmong(doctor(config("anna")), "workstation.crt: begins only on ", "set the clock");
}

TEST_F(DoctorTest, CertificateOfAnotherAuthority) {
    beWell();
    ASSERT_EQ(audit({"init", folder_ / "other", "--server", "localhost"}).code, 0);
    std::filesystem::copy_file(folder_ / "other/authority.crt", workstation("anna") + "/authority.crt",
                               std::filesystem::copy_options::overwrite_existing);
    expectFaultAmong(doctor(config("anna")), "does not lead to the authority",
                     "use authority.crt of the site");
}

TEST_F(DoctorTest, CertificateThatIsMissingOrRevoked) {
    beWell();
    std::string error;
    ASSERT_TRUE(Site(site()).loadAuthority({})->revoke(workstation("anna") + "/workstation.crt",
                                                       workstation("anna") + "/revoked.pem", error))
        << error;
    edit(config("anna"), "revoked = \"\"", "revoked = \"revoked.pem\"");
    expectFault(doctor(config("anna")), "has been revoked", "enroll the identity anew");
    edit(config("anna"), "revoked = \"revoked.pem\"", "revoked = \"no.pem\"");
    expectFault(doctor(config("anna")), "no.pem: No such file", "copy the authority's list");
    edit(config("anna"), "revoked = \"no.pem\"", "revoked = \"\"");
    std::filesystem::remove(workstation("anna") + "/workstation.crt");
    expectFault(doctor(config("anna")), "workstation.crt: No such file", "let 'qel-audit enroll'");
}

TEST_F(DoctorTest, ServerNameThatTheCertificateDoesNotBear) {
    beWell();
    edit(daemonConfig(), "name = \"localhost\"", "name = \"audit.example\"");
    expectFault(doctor(daemonConfig()), "does not bear the name \"audit.example\"", "set [service] name");
}

TEST_F(DoctorTest, SiteKeyThatIsMissingOrNotTheStores) {
    beWell();
    const std::string key = site() + "/site.key";
    std::filesystem::remove(key);
    expectFault(doctor(daemonConfig()), "site.key: No such file", "copy site.key from another server");
    std::ofstream(key) << std::string(64, 'a') << '\n';
    ::chmod(key.c_str(), 0600);
    expectFault(doctor(daemonConfig()), "the store was made with the site key", "use the site key that");
}

TEST_F(DoctorTest, QueueOfAnotherIdentity) {
    beWell();
    edit(config("paul"), "url = \"lmdb:queue\"", "url = \"lmdb:" + workstation("anna") + "/queue\"");
    edit(config("paul"), "localhost:7443", "localhost:" + port_);
    expectFault(doctor(config("paul")), "was filled by another identity than paul at ws-01",
                "give each identity a queue of its own");
}

TEST_F(DoctorTest, StoreThatIsMissing) {
    serve();
    edit(config("anna"), "localhost:7443", "localhost:" + port_);
    expectFault(doctor(config("anna")), "queue: No such file", "start the program once");
}

TEST_F(DoctorTest, LogThatLiesElsewhereThanTheConfigurationSays) {
    beWell();
    edit(config("anna"), "path = \"audit\"", "path = \"site/audit\"");
    expectFault(doctor(config("anna")),
                "keeps the log \"audit\" at [\"audit\"], the configuration says \"site/audit\"",
                "start the program with this configuration once");
}

TEST_F(DoctorTest, DiskThatIsNearlyFull) {
    beWell();
    expectFault(doctor(config("anna"), {"--least-free", "2000000000"}),
                "MiB left, expected at least 2,000,000,000", "make room");
}

TEST_F(DoctorTest, EventsThatWaitTooLong) {
    beWell();
    record("anna", "{\"time\":\"2020-01-01T00:00:00Z\",\"event\":[\"A\"]}\n", "interaction", true);
    expectFault(doctor(config("anna")),
                "an event of 2020-01-01T00:00:00.000000Z still waits in the interaction queue",
                "see whether 'qel-audit forward' runs");
}

TEST_F(DoctorTest, ServerThatCannotBeFoundOrReached) {
    beWell();
    const std::string address = "address = \"localhost:" + port_ + '"';
    edit(config("anna"), address, "address = \"no-such-host.invalid:7443\"");
    expectFault(doctor(config("anna")), "no-such-host.invalid: ", "correct [server] address");
    edit(config("anna"), "address = \"no-such-host.invalid:7443\"", "address = \"localhost:1\"");
    expectFault(doctor(config("anna")), "localhost:1: Connection refused", "start the service there");
    stop();
    expectFault(doctor(daemonConfig()), "no daemon listens", "start qel-auditd");
}

TEST_F(DoctorTest, ServerOfAnotherName) {
    beWell();
    edit(config("anna"), "name = \"\"", "name = \"audit.example\"");
    expectFault(doctor(config("anna")), "audit.example", "see which name, date or authority");
}

TEST_F(DoctorTest, ServiceThatTheServerDoesNotOffer) {
    beWell();
    edit(config("anna"), "service = \"audit\"", "service = \"other\"");
    expectFault(doctor(config("anna")), "the service \"other\" opens no session",
                "name the service in [logs]");
}

TEST_F(DoctorTest, RoleThatIsMissing) {
    beWell();
    expectFault(doctor(config("anna"), {"--auditor"}), "this user may not read the logs",
                "name the user in [access]");
    edit(daemonConfig(), "auditors = []", "auditors = [\"anna\"]");
    daemon_->signal(SIGHUP);
    ASSERT_TRUE(daemon_->waitFor("reloaded certificates"));
    EXPECT_EQ(doctor(config("anna"), {"--auditor"}), "");
}

TEST_F(DoctorTest, GroupsFileThatCannotBeUsed) {
    beWell();
    expectFault(doctor(config("anna"), {"--groups", folder_ / "no"}), "no: No such file",
                "write one user;group1");
    expectFault(doctor(config("anna"), {"--groups", folder_.write("g", "anna\n")}),
                "holds no line like user;group", "write one user;group1");
    EXPECT_EQ(doctor(config("anna"), {"--groups", folder_.write("g", "anna;Radiology\n")}), "");
}

TEST_F(DoctorTest, FoldersAndFiguresThatOthersCanSee) {
    beWell();
    ::chmod((site() + "/transfer").c_str(), 0755);
    expectFault(doctor(daemonConfig()), "transfer: others may look into it",
                "make it a folder of the daemon's user");
    ::chmod((site() + "/transfer").c_str(), 0700);
    edit(daemonConfig(), "listen = \"\"", "listen = \"0.0.0.0:9100\"");
    expectFault(doctor(daemonConfig()), "shows the figures to the network", "listen on 127.0.0.1");
}

TEST_F(DoctorTest, PortThatChangesAtEachStart) {
    serve();
    expectFault(doctor(daemonConfig()), "picks another port at each start", "name a fixed port");
}

}  // namespace
}  // namespace qel::programs
