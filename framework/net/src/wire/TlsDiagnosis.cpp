#include "wire/TlsDiagnosis.h"

#include <openssl/err.h>

#include <cerrno>
#include <cstring>

#include "wire/CredentialsState.h"

namespace qel {

using namespace tls;

namespace {

int dataIndex() {
    static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
}

std::string timeOfThisMachine() {
    return "this machine's clock says " + describeTime(now());
}

}  // namespace

void TlsDiagnosis::attach(SSL* stream) {
    SSL_set_ex_data(stream, dataIndex(), this);
}

int TlsDiagnosis::verified(int accepted, X509_STORE_CTX* context) {
    const int code = X509_STORE_CTX_get_error(context);
    if (accepted)
        return 1;
    // A list that ran out still names the right certificates, and an authority without a list revoked
    // nothing. To refuse everybody on the day somebody forgot to renew it would help nobody.
    if (code == X509_V_ERR_CRL_HAS_EXPIRED || code == X509_V_ERR_UNABLE_TO_GET_CRL) {
        X509_STORE_CTX_set_error(context, X509_V_OK);
        return 1;
    }
    auto* stream =
        static_cast<SSL*>(X509_STORE_CTX_get_ex_data(context, SSL_get_ex_data_X509_STORE_CTX_idx()));
    auto* diagnosis = stream ? static_cast<TlsDiagnosis*>(SSL_get_ex_data(stream, dataIndex())) : nullptr;
    if (diagnosis && diagnosis->refusal_.empty())
        diagnosis->refusal_ = diagnosis->explainCertificate(code, X509_STORE_CTX_get_current_cert(context));
    return 0;
}

std::string TlsDiagnosis::explainCertificate(int code, X509* certificate) const {
    if (!certificate)
        return std::string("the other end's certificate is refused: ") + X509_verify_cert_error_string(code);
    const std::string name = "the certificate " + describe(certificate) + " of the other end ";
    switch (code) {
        case X509_V_ERR_CERT_HAS_EXPIRED:
            return name + "expired at " + describeTime(X509_get0_notAfter(certificate)) + "; " +
                   timeOfThisMachine();
        case X509_V_ERR_CERT_NOT_YET_VALID:
            return name + "is valid only from " + describeTime(X509_get0_notBefore(certificate)) + "; " +
                   timeOfThisMachine();
        case X509_V_ERR_HOSTNAME_MISMATCH:
        case X509_V_ERR_IP_ADDRESS_MISMATCH:
            return name + "is for " + describeHosts(certificate) + "; expected \"" + expectedHost_ + "\"";
        case X509_V_ERR_CERT_REVOKED:
            return name + "was revoked";
        case X509_V_ERR_INVALID_PURPOSE:
            return name + "is not meant for this end of a connection";
        default:
            break;
    }
    return name + "was issued by " + describeIssuer(certificate) + "; expected the authority " +
           own_->authorityNames() + " (" + X509_verify_cert_error_string(code) + ")";
}

// "bad certificate" is all that TLS has for a certificate whose time has not begun, for a wrong name and for a damaged one.
std::string TlsDiagnosis::explainBadCertificate() const {
    const X509* certificate = own_->certificate();
    const std::string begins = describeTime(X509_get0_notBefore(certificate));
    if (now() < toMicroseconds(X509_get0_notBefore(certificate)))
        return ": it is valid only from " + begins + ", and " + timeOfThisMachine();
    if (hasHosts(certificate))
        return ": it is for " + describeHosts(certificate) +
               ", and the other end expected another name or found it damaged; or the other end's clock is "
               "before " +
               begins + ", from when it is valid, while " + timeOfThisMachine();
    return ": it is valid from " + begins + ", which the other end's clock has not reached while " +
           timeOfThisMachine() + ", or the other end found it damaged";
}

std::string TlsDiagnosis::explainAlert(int alert) const {
    const X509* certificate = own_->certificate();
    const std::string refused = "the other end refuses our certificate " + describe(certificate);
    switch (alert) {
        case SSL3_AD_CERTIFICATE_EXPIRED:
            return refused + " as out of its dates; it is valid from " +
                   describeTime(X509_get0_notBefore(certificate)) + " to " +
                   describeTime(X509_get0_notAfter(certificate)) + ", and " + timeOfThisMachine();
        case SSL3_AD_CERTIFICATE_REVOKED:
            return refused + " as revoked";
        case TLS1_AD_UNKNOWN_CA:
            return refused + ": it does not know the authority " + describeIssuer(certificate);
        case SSL3_AD_BAD_CERTIFICATE:
            return refused + explainBadCertificate();
        case SSL3_AD_UNSUPPORTED_CERTIFICATE:
            return refused + " as not meant for this end of a connection";
        case TLS13_AD_CERTIFICATE_REQUIRED:
            return "the other end asks for a certificate and got none";
        case TLS1_AD_PROTOCOL_VERSION:
            return "the other end does not speak TLS 1.3";
        default:
            return std::string("the other end ended the TLS handshake: ") + SSL_alert_desc_string_long(alert);
    }
}

std::string TlsDiagnosis::explain(SSL* stream, int code) {
    const int system = errno;
    const unsigned long error = ERR_get_error();
    ERR_clear_error();
    const int reason = ERR_GET_REASON(error);
    kind_ = "lost";
    if (code == SSL_ERROR_ZERO_RETURN)
        return "the other end closed the connection";
    if (error == 0 || ERR_GET_LIB(error) == ERR_LIB_SYS) {
        if (code == SSL_ERROR_SYSCALL && system != 0 && error != 0)
            return std::string("the connection was lost: ") + std::strerror(reason);
        return system != 0 && code == SSL_ERROR_SYSCALL
                   ? std::string("the connection was lost: ") + std::strerror(system)
                   : "the connection was lost: the other end is gone";
    }
    if (reason == SSL_R_UNEXPECTED_EOF_WHILE_READING)
        return "the connection was lost: the other end closed it without a word";
    kind_ = "certificate";
    if (!refusal_.empty() && reason == SSL_R_CERTIFICATE_VERIFY_FAILED)
        return refusal_;
    if (reason == SSL_R_PEER_DID_NOT_RETURN_A_CERTIFICATE)
        return "the other end presents no certificate; one of the authority " + own_->authorityNames() +
               " is expected";
    if (reason >= SSL_AD_REASON_OFFSET && reason < SSL_AD_REASON_OFFSET + 256)
        return explainAlert(reason - SSL_AD_REASON_OFFSET);
    kind_ = "garbage";
    const char* text = ERR_reason_error_string(error);
    const std::string detail = text ? text : "unknown reason";
    if (SSL_in_init(stream))
        return "the other end does not speak TLS 1.3 as expected: " + detail;
    return "the TLS stream is damaged: " + detail;
}

}  // namespace qel
