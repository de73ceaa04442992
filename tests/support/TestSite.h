#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "qelNet/Authority.h"
#include "qelNet/Credentials.h"
#include "support/TemporaryFolder.h"

namespace qel::test {

/// A site of its own for one test: an authority, a site key, and identities as the test asks for them.
class TestSite {
  public:
    explicit TestSite(const std::string& name = "Test authority") {
        std::string error;
        authority_ = Authority::create(name, folder_ / "authority.crt", folder_ / "authority.key", error);
        EXPECT_TRUE(authority_) << error;
        EXPECT_TRUE(SiteKey::create(folder_ / "site.key", error)) << error;
        EXPECT_TRUE(authority_->writeEmptyRevocationList(folder_ / "revoked.crl", error)) << error;
    }

    Authority& authority() { return *authority_; }
    const TemporaryFolder& folder() const { return folder_; }
    std::string authorityFile() const { return folder_ / "authority.crt"; }

    CredentialFiles serverFiles(const std::string& host = "127.0.0.1", Validity validity = {}) {
        std::string error;
        const std::string stem = "server-" + std::to_string(++count_);
        EXPECT_TRUE(authority_->issueServer({host, "localhost"}, folder_ / (stem + ".crt"),
                                            folder_ / (stem + ".key"), error, validity))
            << error;
        return files(stem, true);
    }

    CredentialFiles workstationFiles(const std::string& user = "mueller", const std::string& device = "WS-07",
                                     Validity validity = {}) {
        std::string error;
        const std::string stem = "workstation-" + std::to_string(++count_);
        EXPECT_TRUE(authority_->issueWorkstation(user, device, folder_ / (stem + ".crt"),
                                                 folder_ / (stem + ".key"), error, validity))
            << error;
        return files(stem, false);
    }

    static std::shared_ptr<Credentials> load(const CredentialFiles& files) {
        std::string error;
        auto credentials = Credentials::load(files, error);
        EXPECT_TRUE(credentials) << error;
        return credentials;
    }

    std::shared_ptr<Credentials> server(const std::string& host = "127.0.0.1", Validity validity = {}) {
        return load(serverFiles(host, validity));
    }
    std::shared_ptr<Credentials> workstation(const std::string& user = "mueller",
                                             const std::string& device = "WS-07", Validity validity = {}) {
        return load(workstationFiles(user, device, validity));
    }

  private:
    CredentialFiles files(const std::string& stem, bool server) const {
        CredentialFiles files;
        files.certificate = folder_ / (stem + ".crt");
        files.key = folder_ / (stem + ".key");
        files.authority = authorityFile();
        if (server) {
            files.revoked = folder_ / "revoked.crl";
            files.siteKey = folder_ / "site.key";
        }
        return files;
    }

    TemporaryFolder folder_;
    std::unique_ptr<Authority> authority_;
    int count_ = 0;
};

}  // namespace qel::test
