#include "common/Configs.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>

namespace qel::programs {
namespace {

// Upper bounds that keep a slip of the pen (milliseconds for seconds, say) from passing as a setting.
constexpr std::int64_t mostSeconds = 24L * 3600;
constexpr std::int64_t mostConnections = 1000000;
constexpr std::int64_t mostFrameBytes = 64 << 20;
constexpr std::int64_t mostRows = 100000000;

void bindLogs(ConfigBinder& binder, LogConfig& audit, LogConfig& interaction, const char* anonymousHelp) {
    binder.section("logs.audit", "The audit trail.");
    binder.text("path", audit.path, "Where its events lie in the store; parts are separated by /");
    binder.text("service", audit.service, "Name of the service that receives it");
    binder.flag("anonymous", audit.anonymous, anonymousHelp);
    binder.section("logs.interaction", "The interaction log.");
    binder.text("path", interaction.path, "Where its events lie in the store; parts are separated by /");
    binder.text("service", interaction.service, "Name of the service that receives it");
    binder.flag("anonymous", interaction.anonymous, anonymousHelp);
}

void bindTls(ConfigBinder& binder, TlsConfig& tls) {
    binder.section("tls", "Both ends of a connection show certificates of the site's authority.");
    binder.path("certificate", tls.certificate,
                "Own certificate, PEM, followed by intermediate ones if there are any");
    binder.path("key", tls.key, "Own private key, PEM, readable by its owner only");
    binder.path("authority", tls.authority, "Certificate of the site's authority, PEM");
    binder.path("revoked", tls.revoked, "Revocation list of the authority, PEM; empty for none");
}

}  // namespace

namespace {

// The value of one parameter behind the question mark of a URL.
template <typename Change>
void replaceParameter(std::string& url, const std::string& name, Change change) {
    const std::size_t question = url.find('?');
    for (std::size_t at = question; at != std::string::npos; at = url.find('&', at + 1)) {
        if (url.compare(at + 1, name.size() + 1, name + '=') != 0)
            continue;
        const std::size_t begin = at + name.size() + 2;
        const std::size_t end = std::min(url.find('&', begin), url.size());
        url.replace(begin, end - begin, change(url.substr(begin, end - begin)));
        return;
    }
}

}  // namespace

std::string ConfigBase::resolve(const std::string& path) const {
    if (path.empty())
        return path;
    return (std::filesystem::path(folder) / path).lexically_normal().string();
}

std::string ConfigBase::resolveSecret(const std::string& path) const {
    const char* directory = std::getenv("CREDENTIALS_DIRECTORY");
    if (!directory || !*directory || path.empty())
        return resolve(path);
    const std::filesystem::path copy = directory / std::filesystem::path(path).filename();
    std::error_code ignored;
    return std::filesystem::exists(copy, ignored) ? copy.string() : resolve(path);
}

std::string ConfigBase::resolveUrl(const std::string& url) const {
    constexpr std::string_view embedded = "lmdb:";
    if (url.compare(0, embedded.size(), embedded) == 0)
        return std::string(embedded) + resolve(url.substr(embedded.size()));
    std::string out = url;
    replaceParameter(out, "password_file", [this](const std::string& file) { return resolveSecret(file); });
    replaceParameter(out, "sslrootcert", [this](const std::string& file) { return resolve(file); });
    return out;
}

void DaemonConfig::bind(ConfigBinder& binder) {
    binder.section("service", "Where workstations and auditors reach this daemon.");
    binder.endpoint("listen", listen, false,
                    "Address and port to accept connections on; port 0 picks a free one");
    binder.text("name", name,
                "Name or address that workstations reach this server by, as in its certificate");
    binder.section("store", "The central logs.");
    binder.text("url", storeUrl, "lmdb:PATH for the embedded store or postgresql://… for a shared database");
    bindLogs(binder, audit, interaction, "Keep a pseudonym in place of the names of user and device");
    bindTls(binder, tls);
    binder.section("identity", "The secret that turns names into the origins of events.");
    binder.path("site_key", siteKey,
                "File with the site key, the same on every server of the site, readable by its owner only");
    binder.section("access", "Who may do what.");
    binder.list("auditors", auditors, "Users who may read the logs by remote call");
    binder.section("transfer", "Files on their way to an auditor.");
    binder.path("directory", transferDirectory, "Private folder for them");
    binder.integer("keep_minutes", keepMinutes, 1, 7L * 24 * 60,
                   "How long a file may wait for its transfer, in minutes");
    binder.section("limits", "What one peer may cost.");
    binder.integer("connections", connections, 1, mostConnections, "Connections at a time");
    binder.integer("connections_per_address", connectionsPerAddress, 1, mostConnections,
                   "Connections at a time from one network address");
    binder.integer("frame_bytes", frameBytes, 4096, mostFrameBytes, "Largest packet, in bytes");
    binder.integer("value_bytes", valueBytes, 256, mostFrameBytes, "Largest stored event, in bytes");
    binder.integer("handshake_seconds", handshakeSeconds, 1, mostSeconds,
                   "Time to prove an identity, in seconds");
    binder.integer("idle_seconds", idleSeconds, 1, mostSeconds,
                   "Silence after which a connection is closed, in seconds");
    binder.integer("rows_per_call", rowsPerCall, 1, mostRows, "Most log lines in one answer");
    binder.integer("call_seconds", callSeconds, 1, mostSeconds,
                   "Time after which an unanswered call is ended, in seconds");
    binder.section("metrics",
                   "Figures for Prometheus at /metrics, readiness at /-/ready, life at /-/healthy.");
    binder.endpoint("listen", metricsListen, true, "Address and port, best a loopback one; empty for none");
}

void WorkstationConfig::bind(ConfigBinder& binder) {
    binder.section("store", "The queue of events that wait for the service.");
    binder.text("url", storeUrl, "lmdb:PATH");
    binder.choice("durability", durability, {"commit", "deferred"},
                  "commit: an event is on disk when recording returns; deferred: within a second");
    binder.section("server", "The service to forward to.");
    binder.endpoints("address", addresses,
                     "Where it listens, or an array of servers that are tried in order");
    binder.text("name", serverName, "Name expected in its certificate; empty for the host of the address");
    bindLogs(binder, audit, interaction,
             "Whether its service keeps pseudonyms; told to people, decided by the service");
    bindTls(binder, tls);
    binder.section("forward", "How the agent heals a connection.");
    binder.integer("stall_seconds", stallSeconds, 1, mostSeconds,
                   "Time without an acknowledgement after which the connection is renewed, in seconds");
    binder.integer("backoff_max_seconds", backoffMaxSeconds, 1, mostSeconds,
                   "Longest wait between two tries to connect, in seconds");
    binder.section(
        "metrics",
        "Figures of the agent for Prometheus at /metrics, readiness at /-/ready, life at /-/healthy.");
    binder.endpoint("listen", metricsListen, true, "Address and port, best a loopback one; empty for none");
}

}  // namespace qel::programs
