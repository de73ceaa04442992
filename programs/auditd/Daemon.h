#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "auditing/AuditService.h"
#include "common/Configs.h"
#include "qelCore/ItemStore.h"
#include "qelCore/RpcProvider.h"
#include "qelNet/Network.h"
#include "qelNet/RpcService.h"

namespace qel::programs {

class AuditGuard;
class DaemonMetrics;
class ServiceManager;

/// The central daemon: store, services and network wired together from one configuration. Made, run and destroyed on
/// the main thread; what it wires runs on the threads of network and store.
class Daemon {
  public:
    /// Opens the store and reads the credentials. Throws Failure: 78 for a configuration that cannot work, 74 for a
    /// store that cannot be opened.
    explicit Daemon(const std::string& configFile);
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    /// Listens until the service manager or a signal wants it to stop. Throws Failure(75) when the address is taken.
    int run(const ServiceManager& manager);

  private:
    void checkConfig() const;
    void openStore();
    void rememberLog(const char* name, const LogConfig& log);
    void offerRemoteCalls();
    void listen();
    void reload();
    void housekeep();
    void watchCommitThread(const ServiceManager& manager);

    std::string configFile_;
    DaemonConfig config_;
    std::shared_ptr<Credentials> credentials_;
    std::unique_ptr<ItemStore> store_;
    std::unique_ptr<AuditService> audit_;
    std::unique_ptr<AuditService> interaction_;
    RpcProvider calls_;
    std::unique_ptr<AuditGuard> guard_;
    std::unique_ptr<RpcService> remoteCalls_;
    std::unique_ptr<Network> network_;
    std::unique_ptr<DaemonMetrics> metrics_;
    std::uint64_t lastTurns_ = 0;
    std::chrono::steady_clock::time_point lastTurnAt_;
    long long nextLook_ = 0;
    long long nextWarning_ = 0;
};

}  // namespace qel::programs
