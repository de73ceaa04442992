#include "qelNet/Authority.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "support/TestSite.h"

namespace qel {
namespace {

using test::TestSite;

unsigned modeOf(const std::string& file) {
    struct stat status {};
    EXPECT_EQ(::stat(file.c_str(), &status), 0);
    return status.st_mode & 07777u;
}

TEST(Authority, IssuedWorkstationIsNamedInItsCertificate) {
    TestSite site;
    const auto credentials = site.workstation("Dr. Müller", "Befundraum 3");
    EXPECT_EQ(credentials->getUserName(), "Dr. Müller");
    EXPECT_EQ(credentials->getDeviceName(), "Befundraum 3");
}

TEST(Authority, RenewedCertificateBelongsToTheSameKeyAndNamesAndLastsAnew) {
    TestSite site;
    const CredentialFiles files = site.workstationFiles("anna", "ws-01");
    std::string error;
    const auto before = Credentials::load(files, error);
    ASSERT_TRUE(before) << error;
    ASSERT_TRUE(
        site.authority().renew(files.certificate, error, {0, before->getValidUntil() + 86'400'000'000}))
        << error;
    const auto after = Credentials::load(files, error);
    ASSERT_TRUE(after) << error;
    EXPECT_EQ(after->getUserName(), "anna");
    EXPECT_EQ(after->getDeviceName(), "ws-01");
    EXPECT_EQ(after->getValidUntil(), before->getValidUntil() + 86'400'000'000);
}

TEST(Authority, CertificateOfAnotherAuthorityIsNotRenewed) {
    TestSite site;
    TestSite other;
    const CredentialFiles files = other.workstationFiles("anna", "ws-01");
    std::string error;
    EXPECT_FALSE(site.authority().renew(files.certificate, error));
    EXPECT_NE(error.find("was not issued by this authority"), std::string::npos) << error;
}

TEST(Authority, KeysAreForTheirOwnerOnly) {
    TestSite site;
    EXPECT_EQ(modeOf(site.serverFiles().key), 0600u);
    EXPECT_EQ(modeOf(site.folder() / "authority.key"), 0600u);
}

TEST(Authority, NamesThatACertificateCannotHoldAreRefused) {
    TestSite site;
    std::string error;
    const std::string out = site.folder() / "x";
    EXPECT_FALSE(site.authority().issueWorkstation(std::string(65, 'a'), "d", out, out, error));
    EXPECT_NE(error.find("has 65 characters; 1 to 64 are possible"), std::string::npos) << error;
    EXPECT_FALSE(site.authority().issueWorkstation("a\nb", "d", out, out, error));
    EXPECT_NE(error.find("control characters"), std::string::npos) << error;
    EXPECT_FALSE(site.authority().issueWorkstation("", "d", out, out, error));
    EXPECT_FALSE(site.authority().issueServer({"no host/name"}, out, out, error));
    EXPECT_NE(error.find("neither a host name nor an IP address"), std::string::npos) << error;
}

TEST(Authority, SixtyFourCharactersOfSeveralBytesFit) {
    TestSite site;
    std::string name;
    for (int i = 0; i < 64; ++i)
        name += "ü";
    EXPECT_EQ(site.workstation(name, "d")->getUserName(), name);
}

TEST(Authority, EncryptedKeyNeedsItsPassphrase) {
    const test::TemporaryFolder folder;
    std::string error;
    ASSERT_TRUE(Authority::create("Locked", folder / "a.crt", folder / "a.key", error, "secret")) << error;
    EXPECT_TRUE(Authority::load(folder / "a.crt", folder / "a.key", error, "secret")) << error;
    EXPECT_FALSE(Authority::load(folder / "a.crt", folder / "a.key", error));
    EXPECT_NE(error.find("without its passphrase"), std::string::npos) << error;
    EXPECT_FALSE(Authority::load(folder / "a.crt", folder / "a.key", error, "wrong"));
    EXPECT_NE(error.find("with the passphrase given"), std::string::npos) << error;
}

TEST(Authority, RequestIsSignedForTheKeyThatNeverLeftItsMachine) {
    TestSite site;
    std::string error;
    std::string request;
    CredentialFiles files;
    files.key = site.folder() / "own.key";
    ASSERT_TRUE(Authority::createRequest("remote", "WS-99", files.key, request, error)) << error;
    const std::string certificate = site.authority().signRequest(request, error);
    ASSERT_FALSE(certificate.empty()) << error;
    files.certificate = site.folder().write("own.crt", certificate);
    files.authority = site.authorityFile();
    EXPECT_EQ(TestSite::load(files)->getUserName(), "remote");
    EXPECT_EQ(site.authority().signRequest("no request", error), "");
}

TEST(Authority, OnlyItsOwnCertificatesCanBeRevoked) {
    TestSite site;
    TestSite other("Other authority");
    std::string error;
    EXPECT_FALSE(
        site.authority().revoke(other.workstationFiles().certificate, site.folder() / "revoked.crl", error));
    EXPECT_NE(error.find("was not issued by this authority, but by \"Other authority\""), std::string::npos)
        << error;
}

TEST(Credentials, KeyOfAnotherCertificateIsRefused) {
    TestSite site;
    CredentialFiles files = site.workstationFiles();
    files.key = site.workstationFiles("other", "WS-2").key;
    std::string error;
    EXPECT_FALSE(Credentials::load(files, error));
    EXPECT_NE(error.find("does not belong to the certificate \"mueller\" of \"WS-07\""), std::string::npos)
        << error;
}

TEST(Credentials, LoadingInTheMidstOfARenewalWaitsForItsSecondFile) {
    TestSite site;
    const CredentialFiles files = site.workstationFiles();
    const CredentialFiles renewed = site.workstationFiles("mueller", "WS-07-renewed");
    std::filesystem::rename(renewed.key, files.key);
    std::thread renewal([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        std::filesystem::rename(renewed.certificate, files.certificate);
    });
    std::string error;
    const auto credentials = Credentials::load(files, error);
    renewal.join();
    ASSERT_TRUE(credentials) << error;
    EXPECT_EQ(credentials->getDeviceName(), "WS-07-renewed");
    EXPECT_EQ(error, "");
}

TEST(Credentials, MissingFileIsNamed) {
    TestSite site;
    CredentialFiles files = site.workstationFiles();
    files.authority = "/no/such/file";
    std::string error;
    EXPECT_FALSE(Credentials::load(files, error));
    EXPECT_EQ(error, "cannot open /no/such/file: No such file or directory");
}

TEST(Credentials, FaultyReloadLeavesEverythingAsItWas) {
    TestSite site;
    const CredentialFiles files = site.workstationFiles();
    const auto credentials = TestSite::load(files);
    const long long validUntil = credentials->getValidUntil();
    site.folder().write(files.certificate.substr(site.folder().path().size() + 1), "no certificate");
    std::string error;
    EXPECT_FALSE(credentials->reloadIfChanged(error));
    EXPECT_NE(error.find("there is no certificate in PEM form"), std::string::npos) << error;
    // cppcheck-suppress knownConditionTrueFalse ; the reload might have changed it
    EXPECT_EQ(credentials->getValidUntil(), validUntil);
    EXPECT_EQ(credentials->getUserName(), "mueller");
}

TEST(Credentials, UnchangedFilesAreNotReadAgain) {
    TestSite site;
    const auto credentials = site.workstation();
    std::string error;
    EXPECT_FALSE(credentials->reloadIfChanged(error));
    EXPECT_EQ(error, "");
}

TEST(Credentials, ExpiryIsAnnouncedThirtyDaysBefore) {
    TestSite site;
    const auto credentials = site.workstation();
    constexpr long long day = 86'400'000'000LL;
    const long long end = credentials->getValidUntil();
    EXPECT_EQ(credentials->describeExpiry(end - 31 * day), "");
    EXPECT_NE(credentials->describeExpiry(end - 29 * day).find("ends in 29 days"), std::string::npos);
    EXPECT_NE(credentials->describeExpiry(end + day).find("ended at"), std::string::npos);
}

}  // namespace
}  // namespace qel
