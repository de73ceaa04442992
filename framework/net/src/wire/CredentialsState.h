#pragma once

#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

#include "qelCore/Export.h"
#include "qelNet/Credentials.h"
#include "wire/OpenSsl.h"

namespace qel {

/// One reading of all credential files: immutable, so that a reload swaps it as a whole while handshakes that
/// began with the older one end with it.
class QEL_HIDDEN Credentials::State {
  public:
    /// `apart` is set when key and certificate are sound, but do not belong together.
    static std::shared_ptr<const State> read(const CredentialFiles& files, std::string& error, bool& apart);

    /// A fresh TLS stream for an accepted, respectively a connecting, socket.
    tls::Stream makeServerStream() const;
    /// The server's certificate must bear `host`, a DNS name or an IP address.
    tls::Stream makeClientStream(const std::string& host) const;

    /// True when a file differs from what was read.
    bool isOutdated() const;

    const std::string& user() const { return user_; }
    const std::string& device() const { return device_; }
    const X509* certificate() const { return certificate_.get(); }
    const std::string& authorityNames() const { return authorityNames_; }
    const SiteKey& siteKey() const { return siteKey_; }

  private:
    struct Stamp {
        std::string file;
        struct timespec changed {};
        off_t size = 0;
        ino_t node = 0;
    };

    static Stamp stampOf(const std::string& file);
    bool readCertificate(const CredentialFiles& files, std::string& error);
    bool readKey(const CredentialFiles& files, std::string& error, bool& apart);
    bool readAuthority(const CredentialFiles& files, std::string& error);
    bool readRevoked(const CredentialFiles& files, std::string& error);
    bool makeContext(tls::Context& context, bool server, std::string& error) const;

    std::vector<Stamp> stamps_;
    tls::Certificate certificate_;
    std::vector<tls::Certificate> chain_;
    tls::PrivateKey key_;
    std::unique_ptr<X509_STORE, tls::Deleter<X509_STORE_free>> trusted_;
    tls::Context server_;
    tls::Context client_;
    SiteKey siteKey_;
    std::string user_;
    std::string device_;
    std::string authorityNames_;
};

}  // namespace qel
