#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "common/Configs.h"
#include "common/Failure.h"
#include "common/ServiceManager.h"
#include "qelNet/Network.h"
#include "qelNet/RpcClient.h"

namespace qel::programs {

/// An auditor's way to the remote calls of the service that a workstation's configuration names: one connection, made
/// when this object is made. Used by one thread.
class AuditorLink {
  public:
    /// Connects. Throws Failure: 78 for a configuration that cannot work, 69 when the service cannot be reached or
    /// offers no remote calls.
    AuditorLink(const std::string& configFile, const ServiceManager& manager);
    ~AuditorLink();
    AuditorLink(const AuditorLink&) = delete;
    AuditorLink& operator=(const AuditorLink&) = delete;

    /// Makes a call and waits for its end; SIGINT and SIGTERM cancel it. Failures are in the reply.
    RpcReply call(const RpcRequest& request, const RpcClient::Progress& progress);

  private:
    void waitUntilConnected();
    void openSession();

    const ServiceManager& manager_;
    WorkstationConfig config_;

    // Before the network, whose handlers touch them until it is gone.
    std::mutex mutex_;
    std::condition_variable changed_;
    bool connected_ = false;
    unsigned failedTries_ = 0;
    std::string trouble_;

    Network network_;
    std::shared_ptr<Peer> peer_;
    std::unique_ptr<RpcClient> client_;
};

/// The failure of a call as a command's end: sentence and exit code.
Failure failureOf(const RpcReply& reply);

}  // namespace qel::programs
