#include "qelNet/Authority.h"

#include <arpa/inet.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <sys/stat.h>

#include <algorithm>

#include "qelCore/Export.h"
#include "wire/OpenSsl.h"
#include "wire/SecretFile.h"

namespace qel {

using namespace tls;

namespace {

constexpr long long microsecondsPerDay = 86'400'000'000LL;
constexpr long long authorityDays = 20LL * 365;
// Long enough that nobody renews by hand every year, short enough that platforms which cap lifetimes accept
// it.
constexpr long long leafDays = 825;
// A list that ran out is honoured all the same, so its end only tells other tools when to look for a new one.
constexpr long long listDays = 10LL * 365;
constexpr std::size_t longestName = 64;  // of a common name, by X.520

Validity fill(Validity validity, long long days) {
    if (validity.from == 0)
        validity.from = now() - 3'600'000'000LL;
    if (validity.until == 0)
        validity.until = validity.from + days * microsecondsPerDay;
    return validity;
}

std::string contentOf(BIO* bio) {
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    return std::string(data, static_cast<std::size_t>(length));
}

Bio bioOf(const std::string& text) {
    return Bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

std::string toPem(X509* certificate) {
    Bio bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(bio.get(), certificate);
    return contentOf(bio.get());
}

std::string toPem(EVP_PKEY* key, const std::string& passphrase) {
    Bio bio(BIO_new(BIO_s_mem()));
    const EVP_CIPHER* cipher = passphrase.empty() ? nullptr : EVP_aes_256_cbc();
    PEM_write_bio_PKCS8PrivateKey(bio.get(), key, cipher, passphrase.empty() ? nullptr : passphrase.data(),
                                  static_cast<int>(passphrase.size()), nullptr, nullptr);
    return contentOf(bio.get());
}

PrivateKey makeKey() {
    return PrivateKey(EVP_EC_gen("P-256"));
}

std::size_t countCharacters(const std::string& text) {
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

bool checkName(const char* kind, const std::string& name, std::string& error) {
    if (name.empty() || countCharacters(name) > longestName) {
        error = std::string("the ") + kind + " name \"" + name + "\" has " +
                std::to_string(countCharacters(name)) + " characters; 1 to 64 are possible in a certificate";
        return false;
    }
    const bool control = std::any_of(name.begin(), name.end(), [](char c) {
        return static_cast<unsigned char>(c) < 32 || static_cast<unsigned char>(c) == 127;
    });
    if (control)
        error = std::string("the ") + kind + " name holds control characters";
    return !control;
}

bool addEntry(X509_NAME* name, int nid, const std::string& text) {
    return X509_NAME_add_entry_by_NID(name, nid, MBSTRING_UTF8,
                                      reinterpret_cast<const unsigned char*>(text.data()),
                                      static_cast<int>(text.size()), -1, 0) == 1;
}

bool setName(X509_NAME* name, const std::string& common, const std::string& unit, std::string& error) {
    if (addEntry(name, NID_commonName, common) &&
        (unit.empty() || addEntry(name, NID_organizationalUnitName, unit)))
        return true;
    error = "the name \"" + common + "\"" + (unit.empty() ? "" : " of \"" + unit + "\"") +
            " cannot stand in a certificate: " + takeError();
    return false;
}

void setSerial(X509* certificate) {
    unsigned char bytes[16];
    RAND_bytes(bytes, sizeof bytes);
    bytes[0] = static_cast<unsigned char>((bytes[0] & 0x3F) | 0x40);  // positive and of full length
    std::unique_ptr<BIGNUM, Deleter<BN_free>> number(BN_bin2bn(bytes, sizeof bytes, nullptr));
    BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate));
}

void setValidity(X509* certificate, const Validity& validity) {
    ASN1_TIME_set(X509_getm_notBefore(certificate), validity.from / 1'000'000);
    ASN1_TIME_set(X509_getm_notAfter(certificate), validity.until / 1'000'000);
}

bool addExtension(X509* certificate, X509* issuer, int nid, const std::string& value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
    const bool done = extension && X509_add_ext(certificate, extension, -1) == 1;
    X509_EXTENSION_free(extension);
    return done;
}

bool isAddress(const std::string& host) {
    unsigned char buffer[16];
    return inet_pton(AF_INET, host.c_str(), buffer) == 1 || inet_pton(AF_INET6, host.c_str(), buffer) == 1;
}

bool isHostName(const std::string& host) {
    return !host.empty() && host.size() <= 253 && std::all_of(host.begin(), host.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '.' || c == '_';
    });
}

bool hostList(const std::vector<std::string>& hosts, std::string& list, std::string& error) {
    for (const std::string& host : hosts) {
        if (!Authority::acceptsHost(host, error))
            return false;
        list += (list.empty() ? "" : ",") + std::string(isAddress(host) ? "IP:" : "DNS:") + host;
    }
    if (list.empty())
        error = "a server certificate needs at least one host name or IP address";
    return !list.empty();
}

Certificate readCertificate(const std::string& file, std::string& error) {
    std::string content;
    if (!readFile(file, content, error))
        return nullptr;
    Certificate certificate(PEM_read_bio_X509(bioOf(content).get(), nullptr, nullptr, nullptr));
    if (!certificate)
        error = "there is no certificate in PEM form in " + file;
    return certificate;
}

int giveText(char* buffer, int size, int, void* text) {
    const std::string& given = *static_cast<const std::string*>(text);
    const int length = std::min(size, static_cast<int>(given.size()));
    std::copy_n(given.data(), length, buffer);
    return length;
}

struct Purpose {
    const char* usage;
    const char* hosts;  // null: none
};

}  // namespace

struct QEL_HIDDEN Authority::Inner {
    Certificate certificate;
    PrivateKey key;

    Certificate issue(X509_NAME* subject, EVP_PKEY* subjectKey, const Purpose& purpose, Validity validity,
                      std::string& error);
    bool issueFiles(const std::string& common, const std::string& unit, const Purpose& purpose,
                    const std::string& certificateFile, const std::string& keyFile, Validity validity,
                    std::string& error);
    bool hasIssued(X509* issued, const std::string& file, std::string& error) const;
    bool signList(X509_CRL* list, const std::string& file, std::string& error);
    RevocationList openList(const std::string& file, std::string& error);
};

Certificate Authority::Inner::issue(X509_NAME* subject, EVP_PKEY* subjectKey, const Purpose& purpose,
                                    Validity validity, std::string& error) {
    Certificate issued(X509_new());
    X509_set_version(issued.get(), X509_VERSION_3);
    setSerial(issued.get());
    setValidity(issued.get(), fill(validity, leafDays));
    X509_set_subject_name(issued.get(), subject);
    X509_set_issuer_name(issued.get(), X509_get_subject_name(certificate.get()));
    X509_set_pubkey(issued.get(), subjectKey);
    X509* issuer = certificate.get();
    const bool done =
        addExtension(issued.get(), issuer, NID_basic_constraints, "critical,CA:FALSE") &&
        addExtension(issued.get(), issuer, NID_key_usage, "critical,digitalSignature") &&
        addExtension(issued.get(), issuer, NID_ext_key_usage, purpose.usage) &&
        addExtension(issued.get(), issuer, NID_subject_key_identifier, "hash") &&
        addExtension(issued.get(), issuer, NID_authority_key_identifier, "keyid:always") &&
        (!purpose.hosts || addExtension(issued.get(), issuer, NID_subject_alt_name, purpose.hosts)) &&
        X509_sign(issued.get(), key.get(), EVP_sha256()) > 0;
    if (done)
        return issued;
    error = "cannot sign the certificate: " + takeError();
    return nullptr;
}

bool Authority::Inner::issueFiles(const std::string& common, const std::string& unit, const Purpose& purpose,
                                  const std::string& certificateFile, const std::string& keyFile,
                                  Validity validity, std::string& error) {
    std::unique_ptr<X509_NAME, Deleter<X509_NAME_free>> subject(X509_NAME_new());
    if (!setName(subject.get(), common, unit, error))
        return false;
    const PrivateKey fresh = makeKey();
    const Certificate issued = issue(subject.get(), fresh.get(), purpose, validity, error);
    return issued && writeFile(keyFile, toPem(fresh.get(), {}), 0600, error) &&
           writeFile(certificateFile, toPem(issued.get()), 0644, error);
}

Authority::Authority() : inner_(std::make_unique<Inner>()) {}
Authority::~Authority() = default;

std::unique_ptr<Authority> Authority::create(const std::string& name, const std::string& certificateFile,
                                             const std::string& keyFile, std::string& error,
                                             const std::string& passphrase, Validity validity) {
    if (!checkName("authority's", name, error))
        return nullptr;
    std::unique_ptr<Authority> authority(new Authority());
    authority->inner_->key = makeKey();
    Certificate made(X509_new());
    X509_set_version(made.get(), X509_VERSION_3);
    setSerial(made.get());
    setValidity(made.get(), fill(validity, authorityDays));
    X509_set_pubkey(made.get(), authority->inner_->key.get());
    if (!setName(X509_get_subject_name(made.get()), name, {}, error))
        return nullptr;
    X509_set_issuer_name(made.get(), X509_get_subject_name(made.get()));
    const bool done =
        addExtension(made.get(), made.get(), NID_basic_constraints, "critical,CA:TRUE,pathlen:0") &&
        addExtension(made.get(), made.get(), NID_key_usage, "critical,keyCertSign,cRLSign") &&
        addExtension(made.get(), made.get(), NID_subject_key_identifier, "hash") &&
        X509_sign(made.get(), authority->inner_->key.get(), EVP_sha256()) > 0;
    if (!done) {
        error = "cannot make the authority's certificate: " + takeError();
        return nullptr;
    }
    if (!writeFile(keyFile, toPem(authority->inner_->key.get(), passphrase), 0600, error) ||
        !writeFile(certificateFile, toPem(made.get()), 0644, error))
        return nullptr;
    authority->inner_->certificate = std::move(made);
    return authority;
}

std::unique_ptr<Authority> Authority::load(const std::string& certificateFile, const std::string& keyFile,
                                           std::string& error, const std::string& passphrase) {
    std::unique_ptr<Authority> authority(new Authority());
    authority->inner_->certificate = readCertificate(certificateFile, error);
    std::string content;
    if (!authority->inner_->certificate || !readSecretFile(keyFile, content, error))
        return nullptr;
    std::string given = passphrase;
    authority->inner_->key.reset(PEM_read_bio_PrivateKey(bioOf(content).get(), nullptr, giveText, &given));
    if (!authority->inner_->key) {
        error = "the authority's key in " + keyFile + " cannot be read" +
                (content.find("ENCRYPTED") == std::string::npos ? ": "
                 : passphrase.empty()                           ? " without its passphrase: "
                                                                : " with the passphrase given: ") +
                takeError();
        return nullptr;
    }
    if (X509_check_private_key(authority->inner_->certificate.get(), authority->inner_->key.get()) != 1) {
        error =
            "the key in " + keyFile + " does not belong to the authority's certificate in " + certificateFile;
        takeError();
        return nullptr;
    }
    return authority;
}

bool Authority::acceptsHost(const std::string& host, std::string& error) {
    if (isAddress(host) || isHostName(host))
        return true;
    error = "\"" + host + "\" is neither a host name nor an IP address";
    return false;
}

bool Authority::acceptsNames(const std::string& user, const std::string& device, std::string& error) {
    return checkName("user's", user, error) && checkName("device's", device, error);
}

bool Authority::hasIssued(const std::string& certificateFile, std::string& error) const {
    const Certificate certificate = readCertificate(certificateFile, error);
    return certificate && inner_->hasIssued(certificate.get(), certificateFile, error);
}

bool Authority::issueServer(const std::vector<std::string>& hosts, const std::string& certificateFile,
                            const std::string& keyFile, std::string& error, Validity validity) {
    std::string list;
    if (!hostList(hosts, list, error))
        return false;
    // The common name only labels a server; what clients check are the alternative names.
    const std::string label = hosts.front().substr(0, longestName);
    return inner_->issueFiles(label, {}, {"serverAuth", list.c_str()}, certificateFile, keyFile, validity,
                              error);
}

bool Authority::issueWorkstation(const std::string& user, const std::string& device,
                                 const std::string& certificateFile, const std::string& keyFile,
                                 std::string& error, Validity validity) {
    return acceptsNames(user, device, error) && inner_->issueFiles(user, device, {"clientAuth", nullptr},
                                                                   certificateFile, keyFile, validity, error);
}

bool Authority::createRequest(const std::string& user, const std::string& device, const std::string& keyFile,
                              std::string& requestPem, std::string& error) {
    if (!acceptsNames(user, device, error))
        return false;
    const PrivateKey key = makeKey();
    Request request(X509_REQ_new());
    X509_REQ_set_pubkey(request.get(), key.get());
    if (!setName(X509_REQ_get_subject_name(request.get()), user, device, error))
        return false;
    if (X509_REQ_sign(request.get(), key.get(), EVP_sha256()) <= 0) {
        error = "cannot sign the certificate request: " + takeError();
        return false;
    }
    Bio bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509_REQ(bio.get(), request.get());
    requestPem = contentOf(bio.get());
    return writeFile(keyFile, toPem(key.get(), {}), 0600, error);
}

std::string Authority::signRequest(const std::string& requestPem, std::string& error, Validity validity) {
    Request request(PEM_read_bio_X509_REQ(bioOf(requestPem).get(), nullptr, nullptr, nullptr));
    if (!request) {
        error = "that is no certificate request in PEM form: " + takeError();
        return {};
    }
    EVP_PKEY* key = X509_REQ_get0_pubkey(request.get());
    if (!key || X509_REQ_verify(request.get(), key) != 1) {
        error = "the certificate request is not signed by its own key";
        takeError();
        return {};
    }
    Certificate names(X509_new());
    X509_set_subject_name(names.get(), X509_REQ_get_subject_name(request.get()));
    const std::string user = subjectEntry(names.get(), NID_commonName);
    const std::string device = subjectEntry(names.get(), NID_organizationalUnitName);
    if (!acceptsNames(user, device, error))
        return {};
    std::unique_ptr<X509_NAME, Deleter<X509_NAME_free>> subject(X509_NAME_new());
    if (!setName(subject.get(), user, device, error))
        return {};
    const Certificate issued = inner_->issue(subject.get(), key, {"clientAuth", nullptr}, validity, error);
    return issued ? toPem(issued.get()) : std::string();
}

RevocationList Authority::Inner::openList(const std::string& file, std::string& error) {
    struct stat status {};
    if (::stat(file.c_str(), &status) != 0) {
        RevocationList list(X509_CRL_new());
        X509_CRL_set_version(list.get(), X509_CRL_VERSION_2);
        X509_CRL_set_issuer_name(list.get(), X509_get_subject_name(certificate.get()));
        return list;
    }
    std::string content;
    if (!readFile(file, content, error))
        return nullptr;
    RevocationList list(PEM_read_bio_X509_CRL(bioOf(content).get(), nullptr, nullptr, nullptr));
    if (!list)
        error = "there is no revocation list in PEM form in " + file;
    else if (X509_CRL_verify(list.get(), key.get()) != 1) {
        error = "the revocation list in " + file + " is not signed by this authority";
        list.reset();
    }
    takeError();
    return list;
}

bool Authority::Inner::signList(X509_CRL* list, const std::string& file, std::string& error) {
    const time_t seconds = now() / 1'000'000;
    std::unique_ptr<ASN1_TIME, Deleter<ASN1_TIME_free>> from(ASN1_TIME_set(nullptr, seconds - 3600));
    std::unique_ptr<ASN1_TIME, Deleter<ASN1_TIME_free>> until(
        ASN1_TIME_set(nullptr, seconds + listDays * 86400));
    X509_CRL_set1_lastUpdate(list, from.get());
    X509_CRL_set1_nextUpdate(list, until.get());
    X509_CRL_sort(list);
    if (X509_CRL_sign(list, key.get(), EVP_sha256()) <= 0) {
        error = "cannot sign the revocation list: " + takeError();
        return false;
    }
    Bio bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509_CRL(bio.get(), list);
    return writeFile(file, contentOf(bio.get()), 0644, error);
}

bool Authority::Inner::hasIssued(X509* issued, const std::string& file, std::string& error) const {
    if (X509_verify(issued, key.get()) == 1)
        return true;
    takeError();
    error =
        "the certificate in " + file + " was not issued by this authority, but by " + describeIssuer(issued);
    return false;
}

bool Authority::renew(const std::string& certificateFile, std::string& error, Validity validity) {
    const Certificate old = readCertificate(certificateFile, error);
    if (!old || !inner_->hasIssued(old.get(), certificateFile, error))
        return false;
    const bool server = X509_get_ext_by_NID(old.get(), NID_subject_alt_name, -1) >= 0;
    const std::string hosts = describeHosts(old.get());
    const Purpose purpose = server ? Purpose{"serverAuth", hosts.c_str()} : Purpose{"clientAuth", nullptr};
    const Certificate fresh = inner_->issue(X509_get_subject_name(old.get()), X509_get0_pubkey(old.get()),
                                            purpose, validity, error);
    return fresh && writeFile(certificateFile, toPem(fresh.get()), 0644, error);
}

bool Authority::revoke(const std::string& certificateFile, const std::string& listFile, std::string& error) {
    const Certificate certificate = readCertificate(certificateFile, error);
    if (!certificate || !inner_->hasIssued(certificate.get(), certificateFile, error))
        return false;
    const RevocationList list = inner_->openList(listFile, error);
    if (!list)
        return false;
    X509_REVOKED* known = nullptr;
    if (X509_CRL_get0_by_serial(list.get(), &known, X509_get_serialNumber(certificate.get())) != 1) {
        X509_REVOKED* entry = X509_REVOKED_new();
        std::unique_ptr<ASN1_TIME, Deleter<ASN1_TIME_free>> time(ASN1_TIME_set(nullptr, now() / 1'000'000));
        X509_REVOKED_set_serialNumber(entry, X509_get_serialNumber(certificate.get()));
        X509_REVOKED_set_revocationDate(entry, time.get());
        X509_CRL_add0_revoked(list.get(), entry);
    }
    return inner_->signList(list.get(), listFile, error);
}

bool Authority::writeEmptyRevocationList(const std::string& listFile, std::string& error) {
    RevocationList list(X509_CRL_new());
    X509_CRL_set_version(list.get(), X509_CRL_VERSION_2);
    X509_CRL_set_issuer_name(list.get(), X509_get_subject_name(inner_->certificate.get()));
    return inner_->signList(list.get(), listFile, error);
}

}  // namespace qel
