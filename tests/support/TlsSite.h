#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "qelNet/Authority.h"
#include "qelNet/Credentials.h"
#include "support/TemporaryFolder.h"

namespace qel::test {

/// An authority in a temporary folder that issues credentials for a server on the loopback address and for
/// workstations, ready to use.
class TlsSite {
  public:
    TlsSite() {
        authority_ = Authority::create("Test site", folder_ / "ca.crt", folder_ / "ca.key", error_);
        require(authority_ != nullptr);
        require(SiteKey::create(folder_ / "site.key", error_));
    }

    std::shared_ptr<Credentials> server() {
        require(authority_->issueServer({"127.0.0.1", "localhost"}, folder_ / "server.crt",
                                        folder_ / "server.key", error_));
        return load(
            {folder_ / "server.crt", folder_ / "server.key", folder_ / "ca.crt", "", folder_ / "site.key"});
    }

    std::shared_ptr<Credentials> workstation(const std::string& user, const std::string& device) {
        const std::string name = folder_ / (user + "@" + device);
        require(authority_->issueWorkstation(user, device, name + ".crt", name + ".key", error_));
        return load({name + ".crt", name + ".key", folder_ / "ca.crt", "", ""});
    }

  private:
    void require(bool done) const {
        if (!done)
            throw std::runtime_error(error_);
    }
    std::shared_ptr<Credentials> load(const CredentialFiles& files) {
        std::shared_ptr<Credentials> loaded = Credentials::load(files, error_);
        require(loaded != nullptr);
        return loaded;
    }

    TemporaryFolder folder_;
    std::string error_;
    std::unique_ptr<Authority> authority_;
};

}  // namespace qel::test
