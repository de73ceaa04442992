#include "common/Site.h"

#include <unistd.h>

#include <filesystem>
#include <functional>
#include <sstream>

#include "common/ConfigFile.h"
#include "common/Failure.h"
#include "common/Folders.h"
#include "common/SecretFile.h"
#include "qelNet/Identity.h"

namespace qel::programs {
namespace {

constexpr const char* usualPort = "7443";

std::string passphraseOf(const AuthorityKey& key) {
    if (key.passphraseFile.empty())
        return {};
    requireSecretFile(key.passphraseFile);
    std::string passphrase = readTextFile(key.passphraseFile);
    while (!passphrase.empty() && (passphrase.back() == '\n' || passphrase.back() == '\r'))
        passphrase.pop_back();
    if (passphrase.empty())
        throw Failure(exitBadData, key.passphraseFile + ": is empty, expected a passphrase on one line");
    return passphrase;
}

/// A host as it stands before ":PORT".
std::string bracketed(const std::string& host) {
    return host.find(':') == std::string::npos ? host : '[' + host + ']';
}

void requireSite(const Site& site) {
    for (const std::string& file : {site.configuration(), site.authorityCertificate(), site.siteKey()})
        if (!std::filesystem::exists(file))
            throw Failure(exitInputMissing,
                          file + ": is missing, expected a folder made by 'qel-audit init'");
}

/// What every identity gets beside its certificate: the authority's, and a configuration for this site.
void writeIdentity(const Site& site, const std::string& folder, const std::string& state) {
    writeNewFile(folder + "/authority.crt", readTextFile(site.authorityCertificate()));
    DaemonConfig server;
    readConfig(site.configuration(), server);
    WorkstationConfig config;
    if (!state.empty())
        config.storeUrl = "lmdb:" + state + "/queue";
    config.addresses = site.addresses();
    config.audit = server.audit;
    config.interaction = server.interaction;
    writeNewFile(folder + "/qel-audit.toml", printConfig(config, true));
}

/// Runs `write`, which fills the new folder of an identity; when it fails, a second attempt shall not stumble over the rest.
void wholeOrNothing(const std::string& folder, const std::function<void()>& write) {
    try {
        write();
    } catch (...) {
        std::error_code ignored;
        for (const char* file : {"workstation.crt", "workstation.key", "authority.crt", "qel-audit.toml"})
            std::filesystem::remove(folder + '/' + file, ignored);
        std::filesystem::remove(folder, ignored);
        throw;
    }
}

}  // namespace

std::string Site::keyFile(const AuthorityKey& key) const {
    return key.file.empty() ? folder_ + "/authority.key" : key.file;
}

void Site::create(const std::string& host, const AuthorityKey& key, const std::string& state,
                  const std::string& store) const {
    const std::string passphrase = passphraseOf(key);
    if (std::filesystem::exists(keyFile(key)) && !key.file.empty())
        throw Failure(exitCannotCreate, key.file + ": exists, an authority's key is never replaced");
    makeFolder(state);
    try {
        createInFolder(host, key, state, store, passphrase);
    } catch (...) {
        // The folder was empty: a second attempt must not stumble over what the first one left. An authority's key that lives
        // elsewhere stays, whoever made it.
        std::error_code ignored;
        for (const std::string& file :
             {folder_ + "/authority.key", authorityCertificate(), siteKey(), revocationList(),
              configuration(), folder_ + "/server.crt", folder_ + "/server.key"})
            std::filesystem::remove(file, ignored);
        std::filesystem::remove(folder_, ignored);
        throw;
    }
}

void Site::createInFolder(const std::string& host, const AuthorityKey& key, const std::string& state,
                          const std::string& store, const std::string& passphrase) const {
    std::string error;
    const std::unique_ptr<Authority> authority = Authority::create(
        "Auditing authority of " + host, authorityCertificate(), keyFile(key), error, passphrase);
    if (!authority)
        throw Failure(exitCannotCreate, error);
    if (!SiteKey::create(siteKey(), error) || !authority->writeEmptyRevocationList(revocationList(), error))
        throw Failure(exitCannotCreate, error);
    issueServer(*authority, host);
    writeConfiguration(host, state, store);
}

void Site::join(const Site& first, const std::string& host, const AuthorityKey& key, const std::string& state,
                const std::string& store) const {
    requireSite(first);
    const std::unique_ptr<Authority> authority = first.loadAuthority(key);
    makeFolder(state);
    writeNewFile(authorityCertificate(), readTextFile(first.authorityCertificate()));
    writeSecretFile(siteKey(), readTextFile(first.siteKey()));
    std::string error;
    if (std::filesystem::exists(first.revocationList()))
        writeNewFile(revocationList(), readTextFile(first.revocationList()));
    else if (!authority->writeEmptyRevocationList(revocationList(), error))
        throw Failure(exitCannotCreate, error);
    issueServer(*authority, host);
    writeConfiguration(host, state, store);
    // Workstations that are enrolled from now on know both servers.
    const std::string others = first.folder() + "/servers.txt";
    std::string lines = std::filesystem::exists(others) ? readTextFile(others) : std::string();
    replaceFile(others, lines + bracketed(host) + ':' + usualPort + '\n');
}

void Site::makeFolder(const std::string& state) const {
    createNewFolder(folder_);
    // A service that keeps its state elsewhere runs as a user of its own, who reads the configuration and the certificates
    // here; the secrets among them stay their owner's.
    if (!state.empty())
        std::filesystem::permissions(folder_, std::filesystem::perms(0755));
}

void Site::issueServer(Authority& authority, const std::string& host) const {
    std::string error;
    if (!authority.issueServer({host}, folder_ + "/server.crt", folder_ + "/server.key", error))
        throw Failure(exitCannotCreate, error);
}

void Site::writeConfiguration(const std::string& host, const std::string& state,
                              const std::string& store) const {
    DaemonConfig config;
    if (!state.empty()) {
        const std::string folder = std::filesystem::absolute(state).lexically_normal().string();
        config.storeUrl = "lmdb:" + folder + "/store";
        config.transferDirectory = folder + "/transfer";
    }
    if (!store.empty())
        config.storeUrl = store;
    config.name = host;
    config.tls.revoked = listName;
    config.listen = std::string(host.find(':') == std::string::npos ? "0.0.0.0" : "[::]") + ':' + usualPort;
    writeNewFile(configuration(), printConfig(config, true));
}

bool Site::revoke(const std::string& certificate, const AuthorityKey& key) const {
    const std::unique_ptr<Authority> authority = loadAuthority(key);
    std::string error;
    if (!authority->hasIssued(certificate, error))
        throw Failure(exitBadData, error);
    if (!authority->revoke(certificate, revocationList(), error))
        throw Failure(exitInputOutput, error);
    return nameList();
}

bool Site::nameList() const {
    DaemonConfig config;
    readConfig(configuration(), config);
    const std::string named = config.resolve(config.tls.revoked);
    if (!named.empty() &&
        std::filesystem::weakly_canonical(named) == std::filesystem::weakly_canonical(revocationList()))
        return false;
    std::string text = readTextFile(configuration());
    const std::string none = "\nrevoked = \"\"\n";
    const std::size_t place = text.find(none);
    if (!named.empty() || place == std::string::npos)
        throw Failure(exitConfiguration,
                      configuration() + ": names " + (named.empty() ? "no list" : named + " as the list") +
                          " of whom to shut out, expected revoked = \"" + listName + "\" in [tls]; " +
                          revocationList() + " is written, but does not count before that");
    text.replace(place, none.size(), std::string("\nrevoked = \"") + listName + "\"\n");
    replaceFile(configuration(), text);
    return true;
}

std::unique_ptr<Authority> Site::loadAuthority(const AuthorityKey& key) const {
    requireSite(*this);
    const std::string file = keyFile(key);
    if (!std::filesystem::exists(file))
        throw Failure(exitInputMissing,
                      file + ": is missing; --authority-key names the key of the site's authority");
    requireSecretFile(file);
    std::string error;
    std::unique_ptr<Authority> authority =
        Authority::load(authorityCertificate(), file, error, passphraseOf(key));
    if (!authority)
        throw Failure(exitConfiguration, error);
    return authority;
}

std::vector<std::string> Site::addresses() const {
    DaemonConfig config;
    readConfig(configuration(), config);
    std::string host;
    std::uint16_t port = 0;
    splitEndpoint(config.listen, host, port);
    std::vector<std::string> all{bracketed(config.name) + ':' +
                                 (port == 0 ? usualPort : std::to_string(port))};
    const std::string others = folder_ + "/servers.txt";
    if (std::filesystem::exists(others)) {
        std::istringstream lines(readTextFile(others));
        for (std::string line; std::getline(lines, line);)
            if (!line.empty())
                all.push_back(line);
    }
    return all;
}

std::string identityFolder(const std::string& user, const std::string& device) {
    for (const std::string& name : {user, device}) {
        if (name.empty())
            throw Failure(exitBadData, "a user or device without a name cannot be enrolled");
        if (name.find('/') != std::string::npos || name.front() == '.')
            throw Failure(exitBadData,
                          '"' + name + "\" cannot name a folder, expected no \"/\" and no leading \".\"");
    }
    return user + '@' + device;
}

void enrollIdentity(const Site& site, Authority& authority, const std::string& user,
                    const std::string& device, const std::string& folder, const std::string& state) {
    std::string error;
    if (!Authority::acceptsNames(user, device, error))
        throw Failure(exitBadData, error);
    createNewFolder(folder);
    wholeOrNothing(folder, [&] {
        if (!authority.issueWorkstation(user, device, folder + "/workstation.crt",
                                        folder + "/workstation.key", error))
            throw Failure(exitCannotCreate, error);
        writeIdentity(site, folder, state);
    });
}

void enrollRequest(const Site& site, Authority& authority, const std::string& requestPem,
                   const std::string& folder, const std::string& state) {
    std::string error;
    const std::string certificate = authority.signRequest(requestPem, error);
    if (certificate.empty())
        throw Failure(exitBadData, error);
    createNewFolder(folder);
    wholeOrNothing(folder, [&] {
        writeNewFile(folder + "/workstation.crt", certificate);
        writeIdentity(site, folder, state);
    });
}

}  // namespace qel::programs
