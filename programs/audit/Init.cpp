#include "audit/Commands.h"
#include "common/Failure.h"
#include "common/Output.h"
#include "common/Site.h"
#include "qelCore/ItemStore.h"
#include "qelNet/Authority.h"

namespace qel::programs {

int runInit(CommandLine& line) {
    std::string folder;
    std::string server;
    std::string join;
    std::string state;
    std::string store;
    AuthorityKey key;
    line.describe(
        "Makes the folder of a site: its authority, the site key, the identity of a server and "
        "qel-auditd.toml, ready "
        "for 'qel-auditd --config'. The folder is created; one that exists must be empty.");
    line.describe(
        "The authority's key is needed by 'init --join', 'enroll', 'renew' and 'revoke' only. Keep it away "
        "from the server: "
        "--authority-key "
        "lets it live elsewhere, and it is encrypted when a passphrase is given.");
    line.position("DIR", folder, "folder of the site");
    line.requiredText("--server", "HOST", server, "name or IP address that workstations reach the server by");
    line.text("--join", "DIR0", join, "make one more server of the site in DIR0, with the same site key",
              "none, a new site");
    line.text("--state", "DIR1", state, "folder of what the server writes, its store above all", "DIR");
    line.text("--store", "URL", store,
              "store of the server: lmdb:PATH or postgresql://…, whose files lie relative to DIR",
              "an embedded one in DIR or DIR1");
    line.text("--authority-key", "FILE", key.file, "where the authority's key lives",
              "authority.key in DIR, with --join in DIR0");
    line.text("--passphrase-file", "FILE", key.passphraseFile,
              "file with the passphrase of the authority's key", "none, the key is not encrypted");
    line.example("qel-audit init /etc/qel --server audit.hospital.example");
    line.example("qel-audit init /etc/qel-auditd --server audit.example --state /var/lib/qel");
    line.example(
        "qel-audit init site2 --server audit2.example --join site --store "
        "postgresql://qel@db/audit?password_file=db.password");
    if (const auto code = line.parse())
        return *code;
    std::string reason;
    if (!Authority::acceptsHost(server, reason))
        return line.usageError("--server " + reason);
    if (!store.empty() && !ItemStore::checkUrl(store, reason))
        return line.usageError("--store: " + reason);

    Output output(line.name(), line.quiet(), line.json());
    const Site site(folder);
    if (join.empty())
        site.create(server, key, state, store);
    else
        site.join(Site(join), server, key, state, store);
    output.message("the site lies in " + folder + "; start its server with 'qel-auditd --config " +
                   site.configuration() + "'");
    output.result().add("folder", folder);
    output.result().add("server", server);
    output.result().add("configuration", site.configuration());
    output.finish();
    return exitDone;
}

}  // namespace qel::programs
