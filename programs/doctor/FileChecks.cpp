#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "common/Failure.h"
#include "common/Folders.h"
#include "common/SecretFile.h"
#include "common/Times.h"
#include "doctor/CertificateFacts.h"
#include "doctor/Checks.h"
#include "qelNet/Identity.h"

namespace qel::programs {
namespace {

constexpr long long microsecondsPerDay = 86400LL * 1000000;
// As the daemon warns in its log.
constexpr long long soonDays = 30;

constexpr const char* renewCure = "renew it with 'qel-audit renew'";

void checkDates(Diagnosis& diagnosis, const std::string& file, const CertificateFacts& facts, long long now) {
    if (facts.until < now)
        diagnosis.fault("certificate dates", file + ": ended on " + formatUtc(facts.until), renewCure);
    else if (facts.from > now)
        diagnosis.fault("certificate dates", file + ": begins only on " + formatUtc(facts.from),
                        "set the clock of this machine, or wait");
    else if (facts.until - now < soonDays * microsecondsPerDay)
        diagnosis.fault("certificate dates",
                        file + ": ends in " + std::to_string((facts.until - now) / microsecondsPerDay) +
                            " days, on " + formatUtc(facts.until),
                        renewCure);
    else
        diagnosis.well("certificate dates");
}

std::string hostOf(const std::string& endpoint) {
    std::string host;
    std::uint16_t port = 0;
    splitEndpoint(endpoint, host, port);
    return host;
}

}  // namespace

void checkIdentity(Diagnosis& diagnosis, const ConfigBase& config, const TlsConfig& tls, long long now) {
    const std::string certificate = config.resolve(tls.certificate);
    const std::string key = config.resolveSecret(tls.key);
    const std::string keyFault = secretFileFault(key);
    diagnosis.judge("private key", keyFault,
                    "give the file to the user that the program runs as, with mode 0600");
    const CertificateFacts facts =
        examineCertificate(certificate, key, config.resolve(tls.authority), config.resolve(tls.revoked));
    diagnosis.judge("certificate", facts.fault, "let 'qel-audit enroll' or 'qel-audit init' make one");
    if (!facts.fault.empty())
        return;
    if (keyFault.empty())
        diagnosis.judge("key of the certificate",
                        facts.matchesKey ? "" : key + ": does not belong to " + certificate,
                        "put the key beside the certificate that was made with it");
    checkDates(diagnosis, certificate, facts, now);
    diagnosis.judge("authority",
                    facts.chainFault.empty()
                        ? ""
                        : certificate + ": does not lead to the authority (" + facts.chainFault + ')',
                    "use authority.crt of the site that made the certificate");
    diagnosis.judge("revocation", facts.revoked ? certificate + ": has been revoked" : facts.listFault,
                    facts.revoked ? "enroll the identity anew" : "copy the authority's list to this place");
}

void checkServerName(Diagnosis& diagnosis, const DaemonConfig& config) {
    const std::string file = config.resolve(config.tls.certificate);
    diagnosis.judge("server name",
                    certificateBears(file, config.name)
                        ? ""
                        : file + ": does not bear the name \"" + config.name + "\" of [service] name",
                    "set [service] name to what workstations dial, or make a certificate for it");
}

void checkSiteKey(Diagnosis& diagnosis, const DaemonConfig& config) {
    const std::string file = config.resolveSecret(config.siteKey);
    std::string fault = secretFileFault(file);
    SiteKey key;
    if (fault.empty())
        key.load(file, fault);
    diagnosis.judge("site key", fault, "copy site.key from another server of the site, with mode 0600");
}

void checkFolders(Diagnosis& diagnosis, const DaemonConfig& config) {
    const std::string folder = config.resolve(config.transferDirectory);
    struct stat status {};
    std::string fault;
    if (::stat(folder.c_str(), &status) != 0) {
        const std::string parent = std::filesystem::path(folder).parent_path().string();
        if (::access(parent.c_str(), W_OK | X_OK) != 0)
            fault = systemFailure(exitCannotCreate, folder, errno).what();
    } else if (!S_ISDIR(status.st_mode)) {
        fault = folder + ": is no folder";
    } else if ((status.st_mode & 077) != 0) {
        fault = folder + ": others may look into it";
    } else if (::access(folder.c_str(), W_OK | X_OK) != 0) {
        fault = systemFailure(exitCannotCreate, folder, errno).what();
    }
    diagnosis.judge("transfer folder", fault, "make it a folder of the daemon's user with mode 0700");
}

void checkExposure(Diagnosis& diagnosis, const DaemonConfig& config) {
    if (config.metricsListen.empty())
        return;
    const std::string host = hostOf(config.metricsListen);
    const bool local = host == "localhost" || host == "::1" || host.rfind("127.", 0) == 0;
    diagnosis.judge(
        "metrics",
        local ? "" : "[metrics] listen = \"" + config.metricsListen + "\" shows the figures to the network",
        "listen on 127.0.0.1 and let a proxy that asks for names stand before it");
}

void checkGroups(Diagnosis& diagnosis, const std::string& file) {
    if (file.empty())
        return;
    std::string fault;
    try {
        const std::string text = readTextFile(file);
        if (text.find('\0') != std::string::npos)
            fault = file + ": is no text";
        else if (!text.empty() && text.find(';') == std::string::npos)
            fault = file + ": holds no line like user;group";
    } catch (const Failure& failure) {
        fault = failure.what();
    }
    diagnosis.judge("groups file", fault, "write one user;group1;group2 per line, readable to this user");
}

}  // namespace qel::programs
