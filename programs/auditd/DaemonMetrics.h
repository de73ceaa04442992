#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "auditing/AuditService.h"
#include "common/MetricsServer.h"
#include "qelCore/ItemStore.h"
#include "qelNet/Network.h"
#include "qelNet/RpcService.h"

namespace qel::programs {

/// What the daemon tells Prometheus and health checks. Made before the network listens, on the main thread; figures
/// arrive from the threads of store and network, answers are given on the server's own.
class DaemonMetrics {
  public:
    struct Sources {
        ItemStore* store = nullptr;
        AuditService* audit = nullptr;
        AuditService* interaction = nullptr;
        const Credentials* credentials = nullptr;
        const RpcService* remoteCalls = nullptr;
    };

    /// Begins to watch commits and events. The sources must outlive it.
    explicit DaemonMetrics(const Sources& sources);
    ~DaemonMetrics();
    DaemonMetrics(const DaemonMetrics&) = delete;
    DaemonMetrics& operator=(const DaemonMetrics&) = delete;

    /// Answers /metrics, /-/ready (a probe commit succeeds) and /-/healthy (the commit thread turns). `network` must
    /// outlive it. Throws Failure(75). Returns the address.
    std::string listen(const std::string& endpoint, const Network& network);

    /// Adds the figures of remote calls; before `listen`.
    void watch(const RpcService& remoteCalls) { sources_.remoteCalls = &remoteCalls; }

    /// Tells how long ago the commit thread turned last, as the main thread saw it.
    void setAlive(bool alive);

  private:
    class CommitFigures;

    MetricsServer::Answer ready() const;
    MetricsServer::Answer healthy() const;
    std::string metrics() const;
    void eventStored(const Item& origin, long long time);

    Sources sources_;
    const Network* network_ = nullptr;
    std::unique_ptr<CommitFigures> commits_;
    std::atomic<bool> alive_{true};
    mutable std::mutex mutex_;
    std::map<std::string, long long, std::less<>> lastSeen_;  // device or pseudonym: time of its newest event
    std::unique_ptr<MetricsServer> server_;                   // last: its thread ends first
};

}  // namespace qel::programs
