#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>

#include "qelNet/Network.h"

namespace qel {

/// The counters of one network, advanced from all strands.
class Counters {
  public:
    using Count = std::atomic<unsigned long long>;
    Count accepted{0};
    Count authenticated{0};
    Count connectionsNow{0};
    Count handshakesNow{0};
    Count sessionsNow{0};
    Count packetsReceived{0};
    Count packetsSent{0};
    Count bytesReceived{0};
    Count bytesSent{0};
    Count bursts{0};
    Count commitsFailed{0};
    Count reconnects{0};

    void refuse(const std::string& reason);
    NetworkStatistics read() const;

  private:
    mutable std::mutex mutex_;
    std::map<std::string, unsigned long long> refused_;
};

}  // namespace qel
