#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/ConfigBinder.h"

namespace qel::programs {

/// One log: its place in the store and the service that it is reached by. Plain record.
struct LogConfig {
    std::string path;
    std::string service;
    bool anonymous = false;
};

struct TlsConfig {
    std::string certificate;
    std::string key;
    std::string authority;
    std::string revoked;  // empty: no revocation list
};

/// What both programs' configurations share: where the file lies, so that its relative paths can be resolved.
struct ConfigBase {
    std::string folder = ".";

    /// `path` made absolute by the configuration's folder; an empty one stays empty.
    std::string resolve(const std::string& path) const;
    /// The same for a secret, of which the service manager may have handed this process a copy of the same name below
    /// $CREDENTIALS_DIRECTORY: then that one, because the original need not be readable.
    std::string resolveSecret(const std::string& path) const;
    /// The same for the path inside an `lmdb:PATH` store URL, and for the files that a `postgresql://…` URL names.
    std::string resolveUrl(const std::string& url) const;
};

/// The configuration of the central daemon, with its defaults.
struct DaemonConfig : ConfigBase {
    std::string listen = "0.0.0.0:7443";
    std::string name = "audit";
    std::string storeUrl = "lmdb:store";
    LogConfig audit{"audit", "audit", false};
    LogConfig interaction{"interaction", "interaction", false};
    TlsConfig tls{"server.crt", "server.key", "authority.crt", ""};
    std::string siteKey = "site.key";
    std::vector<std::string> auditors;
    std::string transferDirectory = "transfer";
    std::int64_t keepMinutes = 60;
    std::int64_t connections = 2048;
    std::int64_t connectionsPerAddress = 1024;
    std::int64_t frameBytes = 1 << 20;
    std::int64_t valueBytes = 60L * 1024;
    std::int64_t handshakeSeconds = 10;
    std::int64_t idleSeconds = 90;
    std::int64_t rowsPerCall = 1000000;
    std::int64_t callSeconds = 600;
    std::string metricsListen;

    void bind(ConfigBinder& binder);
};

/// The configuration of a workstation: one identity, its queue and the service it forwards to.
struct WorkstationConfig : ConfigBase {
    std::string storeUrl = "lmdb:queue";
    std::string durability = "commit";
    std::vector<std::string> addresses{"localhost:7443"};
    std::string serverName;
    LogConfig audit{"audit", "audit", false};
    LogConfig interaction{"interaction", "interaction", false};
    TlsConfig tls{"workstation.crt", "workstation.key", "authority.crt", ""};
    std::int64_t stallSeconds = 30;
    std::int64_t backoffMaxSeconds = 60;
    std::string metricsListen;

    void bind(ConfigBinder& binder);
};

}  // namespace qel::programs
