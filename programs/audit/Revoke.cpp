#include <filesystem>

#include "audit/Commands.h"
#include "common/Failure.h"
#include "common/Output.h"
#include "common/Site.h"

namespace qel::programs {

int runRevoke(CommandLine& line) {
    std::string folder;
    std::string certificate;
    AuthorityKey key;
    line.describe(
        "Puts a certificate on the site's revocation list, DIR/revoked.crl: its holder cannot connect again. "
        "The server notices the longer list by itself within a minute, or at once when it is told to reload. "
        "Where its configuration names no list, the list is named there, and the server must be restarted; "
        "where it names another one, the command ends with 78. "
        "Further servers of the site need a copy of the list.");
    line.position("DIR", folder, "folder of the site, as made by 'init'");
    line.requiredText("--certificate", "FILE", certificate, "certificate to shut out; a copy serves");
    line.text("--authority-key", "FILE", key.file, "where the authority's key lives", "DIR/authority.key");
    line.text("--passphrase-file", "FILE", key.passphraseFile,
              "file with the passphrase of the authority's key", "none, the key is not encrypted");
    line.example("qel-audit revoke /etc/qel --certificate lost/workstation.crt");
    if (const auto code = line.parse())
        return *code;

    Output output(line.name(), line.quiet(), line.json());
    const Site site(folder);
    if (!std::filesystem::exists(certificate))
        throw Failure(exitInputMissing, certificate + ": is missing, expected a certificate of this site");
    const bool isNamedNow = site.revoke(certificate, key);
    output.message("the holder of " + certificate + " is on the list " + site.revocationList());
    if (isNamedNow)
        output.message(site.configuration() + " named no list before: restart the server");
    output.result().add("list", site.revocationList());
    output.finish();
    return exitDone;
}

}  // namespace qel::programs
