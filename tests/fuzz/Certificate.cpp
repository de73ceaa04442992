// Any bytes as the certificate of the other end: the names and dates that log lines, doctor and attribution take from it
// are texts, and whoever describes it comes to an end.

#include <openssl/err.h>

#include <cstdint>
#include <string>

#include "fuzz/Check.h"
#include "qelNet/Identity.h"
#include "wire/OpenSsl.h"

using namespace qel;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const unsigned char* at = data;
    const tls::Certificate certificate(d2i_X509(nullptr, &at, static_cast<long>(size)));
    ERR_clear_error();
    if (!certificate)
        return 0;
    const std::string user = tls::subjectEntry(certificate.get(), NID_commonName);
    const std::string device = tls::subjectEntry(certificate.get(), NID_organizationalUnitName);
    const Identity identity = Identity::make(user, device, SiteKey());
    const Identity again = Identity::make(user, device, SiteKey());
    fuzz::check(identity.userBlock == again.userBlock && identity.deviceBlock == again.deviceBlock,
                "the same names give the same blocks");
    fuzz::check(!tls::describe(certificate.get()).empty(), "a certificate can be named");
    fuzz::check(!tls::describeIssuer(certificate.get()).empty(), "an issuer can be named");
    fuzz::check(!tls::describeHosts(certificate.get()).empty(), "the hosts can be named");
    tls::hasHosts(certificate.get());
    for (const ASN1_TIME* time :
         {X509_get0_notBefore(certificate.get()), X509_get0_notAfter(certificate.get())})
        fuzz::check(!tls::describeTime(time).empty(), "a date can be written");
    ERR_clear_error();
    return 0;
}
