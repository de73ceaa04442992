#include "doctor/CertificateFacts.h"

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cerrno>
#include <ctime>
#include <memory>

#include "common/Failure.h"
#include "common/Folders.h"

namespace qel::programs {
namespace {

template <auto Free>
struct Deleter {
    template <class T>
    void operator()(T* object) const {
        Free(object);
    }
};
using Bio = std::unique_ptr<BIO, Deleter<BIO_free_all>>;
using Certificate = std::unique_ptr<X509, Deleter<X509_free>>;
using Key = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using List = std::unique_ptr<X509_CRL, Deleter<X509_CRL_free>>;
using Store = std::unique_ptr<X509_STORE, Deleter<X509_STORE_free>>;
using Context = std::unique_ptr<X509_STORE_CTX, Deleter<X509_STORE_CTX_free>>;

/// The first object of a PEM file; null, and a sentence, when there is none.
template <class Pointer, class Read>
Pointer readPem(const std::string& file, Read read, const char* what, std::string& fault) {
    std::string text;
    try {
        text = readTextFile(file);
    } catch (const Failure& failure) {
        fault = failure.what();
        return nullptr;
    }
    const Bio bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    Pointer object(read(bio.get(), nullptr, nullptr, nullptr));
    if (!object)
        fault = file + ": holds no " + what + " in PEM form";
    return object;
}

Certificate readCertificate(const std::string& file, std::string& fault) {
    return readPem<Certificate>(file, PEM_read_bio_X509, "certificate", fault);
}

std::string nameEntry(X509* certificate, int id) {
    const X509_NAME* name = X509_get_subject_name(certificate);
    const int at = X509_NAME_get_index_by_NID(name, id, -1);
    if (at < 0)
        return {};
    unsigned char* text = nullptr;
    const int size = ASN1_STRING_to_UTF8(&text, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, at)));
    std::string value =
        size > 0 ? std::string(reinterpret_cast<char*>(text), static_cast<std::size_t>(size)) : "";
    OPENSSL_free(text);
    return value;
}

std::int64_t microsecondsOf(const ASN1_TIME* time) {
    std::tm fields{};
    if (ASN1_TIME_to_tm(time, &fields) != 1)
        return 0;
    return static_cast<std::int64_t>(timegm(&fields)) * 1000000;
}

std::string chainFaultOf(X509* certificate, X509* authority) {
    const Store store(X509_STORE_new());
    X509_STORE_add_cert(store.get(), authority);
    // Dates have checks of their own: an expired certificate is one fault, not two.
    X509_STORE_set_flags(store.get(), X509_V_FLAG_NO_CHECK_TIME);
    const Context context(X509_STORE_CTX_new());
    X509_STORE_CTX_init(context.get(), store.get(), certificate, nullptr);
    if (X509_verify_cert(context.get()) == 1)
        return {};
    return X509_verify_cert_error_string(X509_STORE_CTX_get_error(context.get()));
}

void examineList(const std::string& file, X509* certificate, X509* authority, CertificateFacts& facts) {
    const List list = readPem<List>(file, PEM_read_bio_X509_CRL, "revocation list", facts.listFault);
    if (!list)
        return;
    const Key key(authority ? X509_get_pubkey(authority) : nullptr);
    if (key && X509_CRL_verify(list.get(), key.get()) != 1)
        facts.listFault = file + ": is not signed by the authority";
    X509_REVOKED* entry = nullptr;
    facts.revoked = X509_CRL_get0_by_cert(list.get(), &entry, certificate) == 1;
}

}  // namespace

CertificateFacts examineCertificate(const std::string& certificateFile, const std::string& keyFile,
                                    const std::string& authorityFile, const std::string& revokedFile) {
    CertificateFacts facts;
    const Certificate certificate = readCertificate(certificateFile, facts.fault);
    if (!certificate)
        return facts;
    facts.user = nameEntry(certificate.get(), NID_commonName);
    facts.device = nameEntry(certificate.get(), NID_organizationalUnitName);
    facts.from = microsecondsOf(X509_get0_notBefore(certificate.get()));
    facts.until = microsecondsOf(X509_get0_notAfter(certificate.get()));
    std::string keyFault;
    const Key key = readPem<Key>(keyFile, PEM_read_bio_PrivateKey, "private key", keyFault);
    facts.matchesKey = key && X509_check_private_key(certificate.get(), key.get()) == 1;
    const Certificate authority = readCertificate(authorityFile, facts.chainFault);
    if (authority)
        facts.chainFault = chainFaultOf(certificate.get(), authority.get());
    if (!revokedFile.empty())
        examineList(revokedFile, certificate.get(), authority.get(), facts);
    return facts;
}

bool certificateBears(const std::string& file, const std::string& host) {
    std::string fault;
    const Certificate certificate = readCertificate(file, fault);
    return certificate && (X509_check_host(certificate.get(), host.c_str(), host.size(), 0, nullptr) == 1 ||
                           X509_check_ip_asc(certificate.get(), host.c_str(), 0) == 1);
}

}  // namespace qel::programs
