#pragma once

#include <memory>
#include <string>
#include <vector>

#include "qelNet/Export.h"

namespace qel {

/// First and last moment of a certificate's validity, microseconds since 1970 UTC. Zero: from an hour ago,
/// and for the usual span (authority 20 years, server and workstation 825 days).
struct QELNET_EXPORT Validity {
    long long from = 0;
    long long until = 0;
};

/// The certificate authority of one site (EC P-256): it issues the identities of servers and workstations.
/// Used by the commands that set a site up and by tests; daemons and agents never hold its key. One object is
/// used by one thread at a time. Every operation that can fail returns false (or null, or an empty text) and
/// says why in one sentence. Private keys are written with mode 0600, existing files are replaced by a swap.
class QELNET_EXPORT Authority {
  public:
    /// Makes a new authority. With a passphrase its key is encrypted.
    static std::unique_ptr<Authority> create(const std::string& name, const std::string& certificateFile,
                                             const std::string& keyFile, std::string& error,
                                             const std::string& passphrase = {}, Validity validity = {});
    static std::unique_ptr<Authority> load(const std::string& certificateFile, const std::string& keyFile,
                                           std::string& error, const std::string& passphrase = {});
    ~Authority();

    /// Whether a server certificate can bear this name: a DNS name or an IP address. Otherwise says why not.
    static bool acceptsHost(const std::string& host, std::string& error);
    /// Whether a workstation's certificate can bear these names, see issueWorkstation. Otherwise says why
    /// not.
    static bool acceptsNames(const std::string& user, const std::string& device, std::string& error);
    /// Whether that file holds a certificate of this authority. Otherwise says what it is.
    bool hasIssued(const std::string& certificateFile, std::string& error) const;

    /// Issues a server certificate and its key. Each host is a DNS name or an IP address; clients check it.
    bool issueServer(const std::vector<std::string>& hosts, const std::string& certificateFile,
                     const std::string& keyFile, std::string& error, Validity validity = {});

    /// Issues a workstation's certificate and key for a user (common name) at a device (organizational unit):
    /// UTF-8, 1 to 64 characters each, no control characters.
    bool issueWorkstation(const std::string& user, const std::string& device,
                          const std::string& certificateFile, const std::string& keyFile, std::string& error,
                          Validity validity = {});

    /// Makes a key and a certificate request for it, for machines whose key never leaves them. Needs no
    /// authority.
    static bool createRequest(const std::string& user, const std::string& device, const std::string& keyFile,
                              std::string& requestPem, std::string& error);
    /// Signs such a request; the names are taken from it. Returns the certificate as PEM text.
    std::string signRequest(const std::string& requestPem, std::string& error, Validity validity = {});

    /// Replaces a certificate of this authority by one of the same names and for the same key, so that nobody
    /// needs the key and whatever was made from the names stays as it is.
    bool renew(const std::string& certificateFile, std::string& error, Validity validity = {});

    /// Adds the certificate to the revocation list in `listFile` (made when missing) and signs it anew.
    bool revoke(const std::string& certificateFile, const std::string& listFile, std::string& error);
    /// Writes a revocation list without entries.
    bool writeEmptyRevocationList(const std::string& listFile, std::string& error);

  private:
    Authority();
    struct Inner;
    std::unique_ptr<Inner> inner_;
};

}  // namespace qel
