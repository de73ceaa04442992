#include "auditd/Daemon.h"

#include "auditd/AuditGuard.h"
#include "auditd/DaemonMetrics.h"
#include "auditing/AuditExport.h"
#include "common/CentralStore.h"
#include "common/ConfigFile.h"
#include "common/Failure.h"
#include "common/LogPath.h"
#include "common/RemoteCalls.h"
#include "common/SecretFile.h"
#include "common/ServiceManager.h"
#include "common/Times.h"
#include "qelCore/System.h"

namespace qel::programs {
namespace {

// An event grows by its origin, two names of at most 64 characters, when it enters the central log.
constexpr std::size_t originBytes = 1024;
// Room in a packet for what surrounds the event.
constexpr std::int64_t packetBytes = 4096;

// The commit thread turns once a second; this much silence is no load, it hangs.
constexpr auto longestTurn = std::chrono::seconds(15);

constexpr auto turn = std::chrono::milliseconds(500);
constexpr long long lookAtFilesEvery = 60 * microsecondsPerSecond;
constexpr long long warnEvery = 24LL * 3600 * microsecondsPerSecond;

}  // namespace

Daemon::Daemon(const std::string& configFile) : configFile_(configFile) {
    readConfig(configFile, config_);
    checkConfig();
    requireSecretFile(config_.resolveSecret(config_.siteKey));
    credentials_ = loadCredentials(config_, config_.tls, config_.siteKey);
    openStore();
    audit_ = std::make_unique<AuditService>(logPath(config_.audit.path), config_.audit.service.c_str(),
                                            config_.audit.anonymous);
    interaction_ =
        std::make_unique<AuditService>(logPath(config_.interaction.path), config_.interaction.service.c_str(),
                                       config_.interaction.anonymous);
    if (!config_.metricsListen.empty())
        metrics_ = std::make_unique<DaemonMetrics>(
            DaemonMetrics::Sources{store_.get(), audit_.get(), interaction_.get(), credentials_.get()});
}

Daemon::~Daemon() {
    if (network_)
        network_->stop();
    metrics_.reset();
    network_.reset();
    remoteCalls_.reset();
    guard_.reset();
    interaction_.reset();
    audit_.reset();
    ItemStore::setCurrent(nullptr);
}

void Daemon::checkConfig() const {
    const auto refuse = [this](const std::string& sentence) {
        throw Failure(exitConfiguration, configFile_ + ": " + sentence);
    };
    if (logPath(config_.audit.path) == logPath(config_.interaction.path))
        refuse("[logs.audit] path and [logs.interaction] path are both \"" + config_.audit.path +
               "\", expected two places");
    if (config_.audit.service == config_.interaction.service)
        refuse("[logs.audit] service and [logs.interaction] service are both \"" + config_.audit.service +
               "\", expected two names");
    for (const LogConfig* log : {&config_.audit, &config_.interaction})
        if (log->service == remoteCallService)
            refuse("[logs] service = \"" + log->service +
                   "\": expected another name, remote calls have this one");
    if (config_.frameBytes < config_.valueBytes + packetBytes)
        refuse("[limits] frame_bytes = " + std::to_string(config_.frameBytes) +
               ": expected at least value_bytes and " + std::to_string(packetBytes) + " more");
}

void Daemon::openStore() {
    StoreOptions options;
    options.valueLimit = static_cast<std::size_t>(config_.valueBytes) + originBytes;
    std::string reason;
    store_ = ItemStore::open(config_.resolveUrl(config_.storeUrl), options, reason);
    if (!store_)
        throw Failure(outOfReach(reason) ? exitUnavailable : exitInputOutput, reason);
    ItemStore::setCurrent(store_.get());
    if (!store_->bindSiteKey(credentials_->getSiteKey().getFingerprint(), reason))
        throw Failure(exitConfiguration,
                      configFile_ + ": [identity] site_key = \"" + config_.siteKey + "\": " + reason);
    rememberLog("audit", config_.audit);
    rememberLog("interaction", config_.interaction);
}

void Daemon::rememberLog(const char* name, const LogConfig& settings) {
    const StoreLog wanted{name, logPath(settings.path), StoreLog::Kind::central, settings.anonymous};
    StoreLog known;
    if (store_->findLog(name, known) && known.path == wanted.path && known.kind == wanted.kind &&
        known.anonymous == wanted.anonymous)
        return;
    if (const CommitResult result = store_->setLog(wanted); !result)
        throw Failure(exitInputOutput, result.reason);
}

void Daemon::offerRemoteCalls() {
    const Item auditTrail = logPath(config_.audit.path);
    const Item interactionLog = logPath(config_.interaction.path);
    AuditExport::registerRpcCalls(&calls_, auditTrail, interactionLog);
    guard_ = std::make_unique<AuditGuard>(
        AuditGuard::Logs{auditTrail, interactionLog, config_.audit.anonymous}, config_.auditors);
    calls_.groupName = statusGroup;
    calls_.addRPC(
        statusCall,
        [guard = guard_.get()](const RpcContext& context) {
            context.getResult().addInteger(System::getUTCDateTime());
            context.getResult().addBool(guard->mayRead(context.getUser().str()));
            context.finish();
        },
        "() : UTCDateTime now, Bool mayReadLogs",
        "The clock of the service, and whether the caller may read the logs.");
    calls_.groupName = nullptr;
    RpcServiceOptions options;
    options.directory = config_.resolve(config_.transferDirectory);
    options.callSeconds = static_cast<unsigned>(config_.callSeconds);
    options.keepSeconds = static_cast<unsigned>(config_.keepMinutes * 60);
    options.rowsPerCall = static_cast<std::uint64_t>(config_.rowsPerCall);
    std::string error;
    remoteCalls_ = std::make_unique<RpcService>(remoteCallService, &calls_, guard_.get(), options, error);
    if (metrics_)
        metrics_->watch(*remoteCalls_);
    // Events go on being received: only downloads need the directory.
    if (!error.empty())
        logError("[transfer] directory: " + error + "; logs cannot be downloaded");
}

void Daemon::listen() {
    NetworkLimits limits;
    limits.frameBytes = static_cast<std::uint32_t>(config_.frameBytes);
    limits.valueBytes = static_cast<std::uint32_t>(config_.valueBytes);
    limits.connections = static_cast<unsigned>(config_.connections);
    limits.connectionsPerAddress = static_cast<unsigned>(config_.connectionsPerAddress);
    limits.handshakeSeconds = static_cast<unsigned>(config_.handshakeSeconds);
    limits.idleSeconds = static_cast<unsigned>(config_.idleSeconds);
    network_ = std::make_unique<Network>();
    const Listening listening = network_->listen(
        config_.listen, {audit_.get(), interaction_.get(), remoteCalls_.get()}, credentials_, limits);
    if (!listening)
        throw Failure(exitTemporary, "cannot listen on " + config_.listen + ": " + listening.error);
    if (metrics_)
        logInformation("metrics at http://" + metrics_->listen(config_.metricsListen, *network_) +
                       "/metrics");
    logInformation("listening on " + listening.address);
}

int Daemon::run(const ServiceManager& manager) {
    offerRemoteCalls();
    listen();
    manager.ready("serving workstations");
    lastTurnAt_ = std::chrono::steady_clock::now();
    while (true) {
        const ServiceManager::Wish wish = manager.wait(turn);
        if (wish == ServiceManager::Wish::stop)
            break;
        if (wish == ServiceManager::Wish::reload)
            reload();
        watchCommitThread(manager);
        housekeep();
    }
    manager.stopping();
    logInformation("stopping");
    network_->stop();
    return exitDone;
}

void Daemon::watchCommitThread(const ServiceManager& manager) {
    // A full disk or an idle night lets the commit thread turn all the same; a thread that hangs does not.
    const std::uint64_t turns = store_->statistics().commitThreadTurns;
    const auto now = std::chrono::steady_clock::now();
    const bool turned = turns != lastTurns_;
    lastTurns_ = turns;
    if (turned)
        lastTurnAt_ = now;
    if (turned && manager.watchdogInterval())
        manager.alive();
    if (metrics_)
        metrics_->setAlive(now - lastTurnAt_ < longestTurn);
}

void Daemon::reload() {
    DaemonConfig fresh;
    try {
        readConfig(configFile_, fresh);
    } catch (const Failure& failure) {
        logError(std::string("not reloaded: ") + failure.what());
        return;
    }
    std::string error;
    if (!credentials_->reload(error)) {
        logError("not reloaded: " + error);
        return;
    }
    config_.auditors = fresh.auditors;
    guard_->setAuditors(fresh.auditors);
    nextWarning_ = 0;
    logInformation("reloaded certificates, key and access lists; connections go on");
}

void Daemon::housekeep() {
    const long long now = wallClock();
    if (now >= nextLook_) {
        nextLook_ = now + lookAtFilesEvery;
        std::string error;
        if (credentials_->reloadIfChanged(error))
            logInformation("certificates changed on disk are in use now");
        else if (!error.empty())
            logWarning(error);
    }
    if (now >= nextWarning_) {
        nextWarning_ = now + warnEvery;
        const std::string expiry = credentials_->describeExpiry(now);
        if (!expiry.empty())
            logWarning(expiry);
    }
}

}  // namespace qel::programs
