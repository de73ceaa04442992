#include <filesystem>
#include <set>
#include <utility>

#include "audit/Commands.h"
#include "common/Failure.h"
#include "common/Folders.h"
#include "common/LineReader.h"
#include "common/Output.h"
#include "common/Progress.h"
#include "common/Site.h"

namespace qel::programs {
namespace {

struct Candidate {
    std::string user;
    std::string device;
    std::string folder;
};

/// Reads the whole list before anything is made, so that a bad line leaves nothing half done.
std::vector<Candidate> readList(const std::string& file, const std::string& out) {
    std::vector<Candidate> candidates;
    std::set<std::string> seen;
    LineReader lines(file);
    std::string_view line;
    const auto fault = [&](const std::string& sentence) {
        return Failure(exitBadData, lines.place() + ": " + sentence);
    };
    while (lines.next(line)) {
        if (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        if (line.empty())
            continue;
        const std::size_t separator = line.find(';');
        if (separator == std::string_view::npos || line.find(';', separator + 1) != std::string_view::npos)
            throw fault('"' + std::string(line) + "\", expected user;device");
        const std::string user(line.substr(0, separator));
        const std::string device(line.substr(separator + 1));
        std::string name;
        try {
            name = identityFolder(user, device);
        } catch (const Failure& failure) {
            throw fault(failure.what());
        }
        if (!seen.insert(name).second)
            throw fault(name + " stands in the list already");
        std::string folder = out;
        folder.append(1, '/').append(name);
        candidates.push_back({user, device, folder});
    }
    return candidates;
}

}  // namespace

int runEnroll(CommandLine& line) {
    std::string folder;
    std::string user;
    std::string device;
    std::string list;
    std::string request;
    std::string out;
    std::string state;
    AuthorityKey key;
    line.describe(
        "Makes the identity of a user at a device: certificate, key, the authority's certificate and "
        "qel-audit.toml, "
        "together in a folder that is ready to use. With --list many are made, each in its own folder U@D.");
    line.position("DIR", folder, "folder of the site, as made by 'init'");
    line.text("--user", "U", user, "name of the user, 1 to 64 characters",
              "none; required without --list and --csr");
    line.text("--device", "D", device, "name of the device, 1 to 64 characters",
              "none; required without --list and --csr");
    line.text("--list", "FILE", list, "enroll one user;device per line", "none");
    line.text("--csr", "FILE", request,
              "sign the request of 'qel-audit request', whose key stays where it is; wants --out", "none");
    line.text("--out", "DIR2", out, "folder of the identity, with --list the folder above them all",
              "DIR/U@D, with --list DIR");
    line.text("--state", "DIR3", state, "folder that will hold the queue on the workstation",
              "the identity's own");
    line.text("--authority-key", "FILE", key.file, "where the authority's key lives", "DIR/authority.key");
    line.text("--passphrase-file", "FILE", key.passphraseFile,
              "file with the passphrase of the authority's key", "none, the key is not encrypted");
    line.example("qel-audit enroll /etc/qel --user anna --device ws-01 --out anna");
    line.example("qel-audit enroll /etc/qel --csr workstation.csr --out anna");
    line.example("qel-audit enroll /etc/qel --list identities.txt --out workstations");
    if (const auto code = line.parse())
        return *code;
    if (!list.empty() && (!user.empty() || !device.empty()))
        return line.usageError("--list does not go together with --user and --device");
    if (!request.empty() && (!user.empty() || !device.empty() || !list.empty()))
        return line.usageError(
            "--csr brings the names along; it does not go together with --user, --device and --list");
    if (!request.empty() && out.empty())
        return line.usageError("--csr needs --out, the folder for the certificate and the configuration");
    if (!state.empty() && state.front() != '/')
        return line.usageError("--state " + state +
                               ": expected an absolute path, as the workstation will see it");
    if (request.empty() && list.empty() && (user.empty() || device.empty()))
        return line.usageError("--user and --device, or --list, or --csr, are required");

    Output output(line.name(), line.quiet(), line.json());
    const Site site(folder);
    if (!request.empty()) {
        const std::string pem = readTextFile(request);
        enrollRequest(site, *site.loadAuthority(key), pem, out, state);
        output.message("the certificate and the configuration lie in " + out + "; bring them to the key");
        output.result().add("enrolled", std::int64_t{1});
        output.result().add("folder", out);
        output.finish();
        return exitDone;
    }
    std::vector<Candidate> candidates;
    if (!list.empty()) {
        candidates = readList(list, out.empty() ? folder : out);
    } else {
        const std::string name = out.empty() ? folder + '/' + identityFolder(user, device) : out;
        candidates.push_back({user, device, name});
    }
    const std::unique_ptr<Authority> authority = site.loadAuthority(key);
    Progress progress("enrolling", candidates.size(), line.quiet());
    std::uint64_t done = 0;
    for (const Candidate& candidate : candidates) {
        enrollIdentity(site, *authority, candidate.user, candidate.device, candidate.folder, state);
        progress.update(++done);
    }
    output.message(done == 1 ? "the identity lies in " + candidates.front().folder
                             : grouped(done) + " identities enrolled");
    output.result().add("enrolled", static_cast<std::int64_t>(done));
    if (done == 1)
        output.result().add("folder", candidates.front().folder);
    output.finish();
    return exitDone;
}

}  // namespace qel::programs
