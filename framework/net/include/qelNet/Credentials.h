#pragma once

#include <memory>
#include <string>

#include "qelNet/Export.h"
#include "qelNet/Identity.h"

namespace qel {

/// Where the credentials of one end lie. Paths as the process sees them; the last two may be empty.
struct QELNET_EXPORT CredentialFiles {
    std::string certificate;  ///< PEM: own certificate, intermediate ones after it
    std::string key;          ///< PEM: its private key; refused when others (or the group) may read it
    std::string authority;  ///< PEM: the certificates of the authorities that the other end may be issued by
    std::string revoked;    ///< PEM: revocation lists of the authorities; empty: nothing is revoked
    std::string siteKey;    ///< the site key (daemons); empty: identity blocks are made without a secret
};

/// Own certificate and key, the trusted authority, and the revocation list of one end, all of which can be
/// renewed in place: connections that exist go on, new ones use the new files. All operations may be called
/// from any thread.
class QELNET_EXPORT Credentials {
  public:
    /// Reads all files. Null, and one sentence in `error`, when one is missing, unreadable, too readable,
    /// malformed, or key and certificate do not belong together. A certificate out of its dates is accepted
    /// here: the handshake says so at either end, and renewing it heals without a restart. A key that
    /// does not belong to its certificate is read again for two seconds when one of them was replaced that
    /// lately: whoever renews an identity replaces them one by one.
    static std::shared_ptr<Credentials> load(const CredentialFiles& files, std::string& error);
    ~Credentials();

    /// Reads all files again. When one is at fault everything stays as it was and false is returned.
    bool reload(std::string& error);
    /// Reloads when a file changed since it was read. True when something new is in use; `error` tells a
    /// fault.
    bool reloadIfChanged(std::string& error);

    /// Names in the own certificate.
    std::string getUserName() const;
    std::string getDeviceName() const;
    /// First and last moment at which the own certificate is valid, microseconds since 1970 UTC.
    long long getValidFrom() const;
    long long getValidUntil() const;
    /// One sentence when the certificate ends within `days` days of `now` (or has ended), else empty.
    std::string describeExpiry(long long now, int days = 30) const;
    SiteKey getSiteKey() const;

    class State;
    /// The state in use now; for the framework itself.
    std::shared_ptr<const State> getState() const;

  private:
    Credentials();
    struct Inner;
    std::unique_ptr<Inner> inner_;
};

}  // namespace qel
