#include "wire/CredentialsState.h"

#include <arpa/inet.h>
#include <openssl/pem.h>

#include "qelCore/logging/MessageStream.h"
#include "wire/SecretFile.h"
#include "wire/TlsDiagnosis.h"

namespace qel {

using namespace tls;

namespace {

Bio bioOf(const std::string& text) {
    return Bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

std::vector<Certificate> certificatesIn(const std::string& text) {
    std::vector<Certificate> found;
    const Bio bio = bioOf(text);
    while (Certificate certificate{PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)}) {
        // Parses the extensions now. Handshakes on several threads share the certificate, and would otherwise find out
        // there which of them is the first.
        X509_check_purpose(certificate.get(), -1, 0);
        found.push_back(std::move(certificate));
    }
    takeError();
    return found;
}

int refusePassphrase(char*, int, int, void*) {
    return 0;
}

bool isAddress(const std::string& host) {
    unsigned char buffer[16];
    return inet_pton(AF_INET, host.c_str(), buffer) == 1 || inet_pton(AF_INET6, host.c_str(), buffer) == 1;
}

void warnOfOldList(const X509_CRL* list, const std::string& file) {
    const ASN1_TIME* until = X509_CRL_get0_nextUpdate(list);
    if (until && toMicroseconds(until) < now())
        logging::MessageStream(2, 2) << "the revocation list in " << file << " should have been renewed by "
                                     << describeTime(until) << "; it is honoured all the same";
}

}  // namespace

Credentials::State::Stamp Credentials::State::stampOf(const std::string& file) {
    Stamp stamp;
    stamp.file = file;
    struct stat status {};
    if (::stat(file.c_str(), &status) == 0) {
        stamp.changed = status.st_mtim;
        stamp.size = status.st_size;
        stamp.node = status.st_ino;
    }
    return stamp;
}

bool Credentials::State::isOutdated() const {
    for (const Stamp& known : stamps_) {
        const Stamp current = stampOf(known.file);
        if (current.changed.tv_sec != known.changed.tv_sec ||
            current.changed.tv_nsec != known.changed.tv_nsec || current.size != known.size ||
            current.node != known.node)
            return true;
    }
    return false;
}

std::shared_ptr<const Credentials::State> Credentials::State::read(const CredentialFiles& files,
                                                                   std::string& error, bool& apart) {
    auto state = std::make_shared<State>();
    // Stamps come first: what changes while the files are read is seen as a change afterwards.
    for (const std::string& file :
         {files.certificate, files.key, files.authority, files.revoked, files.siteKey})
        if (!file.empty())
            state->stamps_.push_back(stampOf(file));
    if (!state->readCertificate(files, error) || !state->readKey(files, error, apart) ||
        !state->readAuthority(files, error) || !state->readRevoked(files, error))
        return nullptr;
    if (!files.siteKey.empty() && !state->siteKey_.load(files.siteKey, error))
        return nullptr;
    if (!state->makeContext(state->server_, true, error) || !state->makeContext(state->client_, false, error))
        return nullptr;
    return state;
}

bool Credentials::State::readCertificate(const CredentialFiles& files, std::string& error) {
    std::string content;
    if (!readFile(files.certificate, content, error))
        return false;
    std::vector<Certificate> found = certificatesIn(content);
    if (found.empty()) {
        error = "there is no certificate in PEM form in " + files.certificate;
        return false;
    }
    certificate_ = std::move(found.front());
    found.erase(found.begin());
    chain_ = std::move(found);
    user_ = subjectEntry(certificate_.get(), NID_commonName);
    device_ = subjectEntry(certificate_.get(), NID_organizationalUnitName);
    return true;
}

bool Credentials::State::readKey(const CredentialFiles& files, std::string& error, bool& apart) {
    std::string content;
    if (!readSecretFile(files.key, content, error))
        return false;
    key_.reset(PEM_read_bio_PrivateKey(bioOf(content).get(), nullptr, refusePassphrase, nullptr));
    if (!key_) {
        error = "there is no private key in PEM form without a passphrase in " + files.key;
        takeError();
        return false;
    }
    if (X509_check_private_key(certificate_.get(), key_.get()) == 1)
        return true;
    apart = true;
    error = "the key in " + files.key + " does not belong to the certificate " +
            describe(certificate_.get()) + " in " + files.certificate;
    takeError();
    return false;
}

bool Credentials::State::readAuthority(const CredentialFiles& files, std::string& error) {
    std::string content;
    if (!readFile(files.authority, content, error))
        return false;
    trusted_.reset(X509_STORE_new());
    for (const Certificate& authority : certificatesIn(content)) {
        X509_STORE_add_cert(trusted_.get(), authority.get());
        authorityNames_ += (authorityNames_.empty() ? "" : " or ") + describe(authority.get());
    }
    if (authorityNames_.empty())
        error = "there is no authority's certificate in PEM form in " + files.authority;
    return !authorityNames_.empty();
}

bool Credentials::State::readRevoked(const CredentialFiles& files, std::string& error) {
    if (files.revoked.empty())
        return true;
    std::string content;
    if (!readFile(files.revoked, content, error))
        return false;
    const Bio bio = bioOf(content);
    int count = 0;
    while (RevocationList list{PEM_read_bio_X509_CRL(bio.get(), nullptr, nullptr, nullptr)}) {
        warnOfOldList(list.get(), files.revoked);
        X509_STORE_add_crl(trusted_.get(), list.get());
        ++count;
    }
    takeError();
    if (count == 0) {
        error = "there is no revocation list in PEM form in " + files.revoked;
        return false;
    }
    X509_STORE_set_flags(trusted_.get(), X509_V_FLAG_CRL_CHECK);
    return true;
}

bool Credentials::State::makeContext(Context& context, bool server, std::string& error) const {
    context.reset(SSL_CTX_new(server ? TLS_server_method() : TLS_client_method()));
    SSL_CTX* made = context.get();
    SSL_CTX_set_min_proto_version(made, TLS1_3_VERSION);
    SSL_CTX_set_max_proto_version(made, TLS1_3_VERSION);
    // No resumption: each connection proves its identity against the revocation list of that moment.
    SSL_CTX_set_session_cache_mode(made, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_options(made, SSL_OP_NO_TICKET);
    SSL_CTX_set_num_tickets(made, 0);
    SSL_CTX_set_mode(
        made, SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_read_ahead(made, 1);
    SSL_CTX_set1_cert_store(made, trusted_.get());
    SSL_CTX_set_verify(made, SSL_VERIFY_PEER | (server ? SSL_VERIFY_FAIL_IF_NO_PEER_CERT : 0),
                       TlsDiagnosis::verified);
    bool done = SSL_CTX_use_certificate(made, certificate_.get()) == 1 &&
                SSL_CTX_use_PrivateKey(made, key_.get()) == 1;
    for (const Certificate& intermediate : chain_)
        done = done && SSL_CTX_add1_chain_cert(made, intermediate.get()) == 1;
    if (!done)
        error =
            "the TLS library refuses the certificate " + describe(certificate_.get()) + ": " + takeError();
    return done;
}

Stream Credentials::State::makeServerStream() const {
    return Stream(SSL_new(server_.get()));
}

Stream Credentials::State::makeClientStream(const std::string& host) const {
    Stream stream(SSL_new(client_.get()));
    X509_VERIFY_PARAM* wanted = SSL_get0_param(stream.get());
    // A person's common name is chosen by nobody in particular and must never pass for a host.
    X509_VERIFY_PARAM_set_hostflags(
        wanted, X509_CHECK_FLAG_NEVER_CHECK_SUBJECT | X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    if (isAddress(host)) {
        X509_VERIFY_PARAM_set1_ip_asc(wanted, host.c_str());
    } else {
        X509_VERIFY_PARAM_set1_host(wanted, host.data(), host.size());
        SSL_set_tlsext_host_name(stream.get(), host.c_str());
    }
    return stream;
}

}  // namespace qel
