#pragma once

#include <memory>
#include <string>

#include "audit/Forwarder.h"
#include "common/MetricsServer.h"

namespace qel::programs {

/// What an agent tells Prometheus and health checks: its queues and how forwarding goes. Answers on a thread of its own.
class AgentMetrics {
  public:
    /// Answers /metrics, /-/ready (connected) and /-/healthy (the agent looks at its queues). Both must outlive it.
    /// Throws Failure(75) when the address cannot be had.
    AgentMetrics(Workstation& workstation, const Forwarder& forwarder);

    const std::string& address() const { return server_.address(); }

  private:
    MetricsServer::Answer ready() const;
    std::string metrics() const;

    Workstation& workstation_;
    const Forwarder& forwarder_;
    MetricsServer server_;
};

}  // namespace qel::programs
