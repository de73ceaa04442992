#pragma once

#include <memory>
#include <string>
#include <vector>

#include "qelNet/Authority.h"

namespace qel::programs {

/// Where the authority's key lies and what it is encrypted with, as given on the command line.
struct AuthorityKey {
    std::string file;            // empty: authority.key in the site's folder
    std::string passphraseFile;  // empty: not encrypted
};

/// The folder that `init` makes: the authority, the site key, one server's identity and its configuration.
/// Used by one thread; every operation throws Failure.
class Site {
  public:
    explicit Site(std::string folder) : folder_(std::move(folder)) {}

    const std::string& folder() const { return folder_; }
    std::string authorityCertificate() const { return folder_ + "/authority.crt"; }
    std::string siteKey() const { return folder_ + "/site.key"; }
    std::string revocationList() const { return folder_ + '/' + listName; }
    std::string serverCertificate() const { return folder_ + "/server.crt"; }
    std::string configuration() const { return folder_ + "/qel-auditd.toml"; }

    /// A new site with a server of that name or address. The folder must be new or empty.
    /// `state`: folder of what the server writes, when that is not the site's own; relative to the current one.
    /// `store`: URL of its store, when that is not an embedded one there.
    void create(const std::string& host, const AuthorityKey& key, const std::string& state = {},
                const std::string& store = {}) const;
    /// One more server of the site in `first`, with the same authority and site key.
    void join(const Site& first, const std::string& host, const AuthorityKey& key,
              const std::string& state = {}, const std::string& store = {}) const;

    /// Adds the certificate to the site's revocation list, and names that list in the configuration if none is named yet:
    /// whether it had to, and the server has to be restarted. Fails behind the list if another one is named there.
    bool revoke(const std::string& certificate, const AuthorityKey& key) const;

    std::unique_ptr<Authority> loadAuthority(const AuthorityKey& key) const;
    /// "HOST:PORT" of this server and of those that joined it, in that order.
    std::vector<std::string> addresses() const;

  private:
    void writeConfiguration(const std::string& host, const std::string& state,
                            const std::string& store) const;
    bool nameList() const;
    void makeFolder(const std::string& state) const;
    std::string keyFile(const AuthorityKey& key) const;
    void createInFolder(const std::string& host, const AuthorityKey& key, const std::string& state,
                        const std::string& store, const std::string& passphrase) const;
    void issueServer(Authority& authority, const std::string& host) const;

    static constexpr const char* listName = "revoked.crl";

    std::string folder_;
};

/// Makes one identity: `folder` gets certificate, key, the authority's certificate and qel-audit.toml. `state`: folder
/// of the queue as the workstation will see it, when that is not the identity's own.
void enrollIdentity(const Site& site, Authority& authority, const std::string& user,
                    const std::string& device, const std::string& folder, const std::string& state = {});

/// The same for a request made elsewhere ('qel-audit request'): `folder` gets everything but the key, which stays there.
void enrollRequest(const Site& site, Authority& authority, const std::string& requestPem,
                   const std::string& folder, const std::string& state = {});

/// "U@D" as the name of a folder; throws Failure(65) when the names cannot be one.
std::string identityFolder(const std::string& user, const std::string& device);

}  // namespace qel::programs
