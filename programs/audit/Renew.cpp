#include <filesystem>

#include "audit/Commands.h"
#include "common/Failure.h"
#include "common/Output.h"
#include "common/Site.h"
#include "qelCore/System.h"

namespace qel::programs {
namespace {

constexpr std::int64_t usualDays = 825;  // as init and enroll give
constexpr std::int64_t mostDays = 3650;

}  // namespace

int runRenew(CommandLine& line) {
    std::string folder;
    std::string certificate;
    std::int64_t days = usualDays;
    AuthorityKey key;
    line.describe(
        "Replaces a certificate by one of the same names for the same key. The key need not be at hand: a "
        "workstation's certificate is renewed from a copy, which then goes back to it. Running programs "
        "notice within a "
        "minute and close no connection.");
    line.position("DIR", folder, "folder of the site, as made by 'init'");
    line.text("--certificate", "FILE", certificate, "certificate to replace", "the server's, DIR/server.crt");
    line.number("--days", "N", "days", days, 1, mostDays, "how long the new one is valid");
    line.text("--authority-key", "FILE", key.file, "where the authority's key lives", "DIR/authority.key");
    line.text("--passphrase-file", "FILE", key.passphraseFile,
              "file with the passphrase of the authority's key", "none, the key is not encrypted");
    line.example("qel-audit renew /etc/qel");
    line.example("qel-audit renew /etc/qel --certificate anna/workstation.crt");
    if (const auto code = line.parse())
        return *code;

    Output output(line.name(), line.quiet(), line.json());
    const Site site(folder);
    if (certificate.empty())
        certificate = site.serverCertificate();
    if (!std::filesystem::exists(certificate))
        throw Failure(exitInputMissing, certificate + ": is missing, expected a certificate of this site");
    constexpr long long microsecondsPerDay = 24LL * 3600 * 1000000;
    const long long until = System::getUTCDateTime() + days * microsecondsPerDay;
    std::string error;
    const std::unique_ptr<Authority> authority = site.loadAuthority(key);
    if (!authority->hasIssued(certificate, error))
        throw Failure(exitBadData, error);
    if (!authority->renew(certificate, error, {0, until}))
        throw Failure(exitInputOutput, error);
    output.message(certificate + " is valid until " + formatUtc(until));
    output.result().add("certificate", certificate);
    output.result().add("until", formatUtc(until));
    output.finish();
    return exitDone;
}

}  // namespace qel::programs
