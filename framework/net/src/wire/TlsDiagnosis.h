#pragma once

#include <string>

#include "qelNet/Credentials.h"
#include "wire/OpenSsl.h"

namespace qel {

/// Puts into one sentence why a TLS handshake failed: which certificate, which name or date, what was
/// expected and what was found. It belongs to one stream and is used on that stream's strand.
class TlsDiagnosis {
  public:
    /// `expectedHost` is what the other end's certificate must bear; empty at a server.
    TlsDiagnosis(std::shared_ptr<const Credentials::State> own, std::string expectedHost)
        : own_(std::move(own)), expectedHost_(std::move(expectedHost)) {}

    /// From now on this object learns what is found about the other end's certificate on `stream`.
    void attach(SSL* stream);

    /// The sentence for the failure that `code` (of SSL_get_error) and the thread's error queue, which is
    /// emptied, tell.
    std::string explain(SSL* stream, int code);

    /// "certificate", "garbage" or "lost", the kind of the failure explained last, for counting.
    const char* kind() const { return kind_; }

    /// The verification callback of all contexts.
    static int verified(int accepted, X509_STORE_CTX* context);

  private:
    std::string explainCertificate(int code, X509* certificate) const;
    std::string explainAlert(int alert) const;
    std::string explainBadCertificate() const;

    std::shared_ptr<const Credentials::State> own_;
    std::string expectedHost_;
    std::string refusal_;
    const char* kind_ = "lost";
};

}  // namespace qel
