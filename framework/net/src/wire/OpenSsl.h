#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>
#include <string>

namespace qel::tls {

template <auto Free>
struct Deleter {
    template <class T>
    void operator()(T* object) const {
        Free(object);
    }
};

inline void freeGeneralNames(GENERAL_NAMES* names) {
    GENERAL_NAMES_free(names);
}
inline void freeBio(BIO* bio) {
    BIO_free_all(bio);
}

using Certificate = std::unique_ptr<X509, Deleter<X509_free>>;
using RevocationList = std::unique_ptr<X509_CRL, Deleter<X509_CRL_free>>;
using Request = std::unique_ptr<X509_REQ, Deleter<X509_REQ_free>>;
using PrivateKey = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using Bio = std::unique_ptr<BIO, Deleter<freeBio>>;
using Context = std::unique_ptr<SSL_CTX, Deleter<SSL_CTX_free>>;
using Stream = std::unique_ptr<SSL, Deleter<SSL_free>>;
using AlternativeNames = std::unique_ptr<GENERAL_NAMES, Deleter<freeGeneralNames>>;

/// The text of the oldest error in this thread's queue, which is emptied.
std::string takeError();

/// The first entry of that kind in the subject, as UTF-8; empty when there is none.
std::string subjectEntry(const X509* certificate, int nid);

/// `"user" of "device"` or `"name"`: how log lines call a certificate.
std::string describe(const X509* certificate);
std::string describeIssuer(const X509* certificate);

/// "DNS:a, IP:b", the names that a server certificate is for.
std::string describeHosts(const X509* certificate);
/// True for a certificate with alternative names, as servers have them.
bool hasHosts(const X509* certificate);

/// "2026-03-01 08:00:00 UTC".
std::string describeTime(const ASN1_TIME* time);
std::string describeTime(long long microseconds);
long long toMicroseconds(const ASN1_TIME* time);

/// Microseconds since 1970 UTC by the machine's clock.
long long now();

}  // namespace qel::tls
