#pragma once

#include <array>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "auditing/AuditClient.h"
#include "common/Workstation.h"
#include "qelNet/Network.h"

namespace qel::programs {

/// Where a forwarder stands; a copy that anybody may keep.
struct ForwardState {
    bool connected = false;
    bool drained = false;    ///< both queues are empty and nothing is in flight
    std::uint64_t sent = 0;  ///< events, retransmissions included
    std::uint64_t acknowledged = 0;
    std::uint64_t damaged = 0;
    std::uint64_t parked = 0;
    std::uint64_t inFlight = 0;
    std::uint64_t reconnects = 0;   ///< connections established after the first
    std::uint64_t stalls = 0;       ///< connections given up because acknowledgements stayed away
    std::uint64_t failedTries = 0;  ///< since the last acknowledgement or drained queue
    std::string trouble;            ///< the last reason for not being connected or for a refused session
};

/// Drains the queues of a workstation to its service over one connection, and heals that connection: a lost one is
/// renewed with back-off, one without acknowledgements is given up and renewed. All operations are called on one
/// thread; the connection's callbacks run on the network's.
class Forwarder {
  public:
    /// `workstation` must outlive the forwarder.
    explicit Forwarder(Workstation& workstation);
    ~Forwarder();
    Forwarder(const Forwarder&) = delete;
    Forwarder& operator=(const Forwarder&) = delete;

    void start();
    /// Lets the connection look at the queues again, and at its acknowledgements; returns at once.
    void poke();
    /// Waits until something happened or the time is over, and tells the state.
    ForwardState wait(std::chrono::milliseconds time);
    ForwardState state() const;

  private:
    /// One queue and the session that drains it. Touched on the connection's strand only.
    struct Lane {
        Lane(Forwarder& owner, Peer& peer, AuditSequence& sequence, const std::string& service);
        AuditClient client;
        AuditClient::AuditQuery query;
        AuditSequence& sequence;
    };

    void connected(Peer& peer);
    void lost(const std::string& reason);
    void refused(const std::string& service, const std::string& reason);
    void look();
    void renewRefused(Peer& peer);
    bool isStalled() const;
    void addUp(const Lane& lane);
    void dropLanes();
    const std::string& serviceOf(std::size_t index) const;

    Workstation& workstation_;
    Network network_;
    std::shared_ptr<Peer> peer_;

    // On the strand only.
    std::array<std::unique_ptr<Lane>, 2> lanes_;  // interaction, audit
    AuditQueryStatistics earlier_;                // of lanes that are gone
    std::uint64_t acknowledgedBefore_ = 0;
    std::chrono::steady_clock::time_point refusedAt_;
    std::chrono::milliseconds refusedPause_;
    bool established_ = false;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    ForwardState state_;
    bool news_ = false;
    bool stopping_ = false;
    bool lanesGone_ = false;
};

}  // namespace qel::programs
