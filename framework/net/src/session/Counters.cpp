#include "session/Counters.h"

namespace qel {

void Counters::refuse(const std::string& reason) {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++refused_[reason];
}

NetworkStatistics Counters::read() const {
    NetworkStatistics now;
    now.accepted = accepted;
    now.authenticated = authenticated;
    now.connectionsNow = connectionsNow;
    now.handshakesNow = handshakesNow;
    now.sessionsNow = sessionsNow;
    now.packetsReceived = packetsReceived;
    now.packetsSent = packetsSent;
    now.bytesReceived = bytesReceived;
    now.bytesSent = bytesSent;
    now.bursts = bursts;
    now.commitsFailed = commitsFailed;
    now.reconnects = reconnects;
    const std::lock_guard<std::mutex> lock(mutex_);
    now.refused = refused_;
    return now;
}

}  // namespace qel
