#pragma once

#include <cstdint>
#include <string>

namespace qel::programs {

/// What a certificate file says and proves. Plain record.
struct CertificateFacts {
    std::string fault;  ///< why it could not be read; the rest is empty then
    std::string user;   ///< common name
    std::string device;
    std::int64_t from = 0;  ///< microseconds since 1970 UTC
    std::int64_t until = 0;
    bool matchesKey = false;
    std::string chainFault;  ///< why it does not lead to the authority, dates left aside; empty when it does
    bool revoked = false;
    std::string listFault;  ///< why the revocation list is of no use; empty when there is none or it is good
};

/// Reads a certificate, PEM, against its key, the authority and a revocation list; empty names are not looked at.
CertificateFacts examineCertificate(const std::string& certificate, const std::string& key,
                                    const std::string& authority, const std::string& revoked);

/// Whether the certificate in the file bears the name or IP address.
bool certificateBears(const std::string& certificate, const std::string& host);

}  // namespace qel::programs
