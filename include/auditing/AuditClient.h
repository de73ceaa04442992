#pragma once

#include <chrono>
#include <cstddef>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "auditing/AuditSequence.h"
#include "auditing/Export.h"
#include "qelCore/Object.h"
#include "qelNet/Client.h"

namespace qel {

struct CommitResult;

/// The client end of the audit transport, bound to one peer, the audit service. It may carry several queries,
/// one per queue. Used on the thread that delivers its peer's packets.
class QELAUDITING_EXPORT AuditClient : public Client {
    QEL_CLASS(AuditClient, Client)
    class AuditQuery;

    /// `peer` is not owned and must outlive the client; `name` is the service to ask for.
    AuditClient(Peer* peer, const char* name);
    AuditClient(const AuditClient& other);
    AuditClient(AuditClient&& other) noexcept;
    AuditClient& operator=(const AuditClient& other);
    AuditClient& operator=(AuditClient&& other) noexcept;

    ~AuditClient() override;
};

/// What one query has done since it was constructed; read it on the query's thread.
struct AuditQueryStatistics {
    unsigned long long sent = 0;
    unsigned long long acknowledged = 0;
    unsigned long long damaged = 0;  ///< queue entries that could not be read: kept aside, then removed
    unsigned long long parked =
        0;  ///< events larger than the service takes: kept aside on disk, then removed
};

/// Drains one queue to the service: sends its events oldest first, keeps at most `window` of them
/// unacknowledged, and removes each from the queue when its acknowledgement arrives. Nothing is lost when the
/// connection or the process ends: what was not acknowledged is still queued, and the next query sends it. A
/// query never sends an event twice; whoever finds that acknowledgements stay away closes the connection and
/// makes a new query.
///
/// processEvents and packetReceived must not run at the same time: call processEvents on the thread that
/// delivers the client's packets (post it there).
class QELAUDITING_EXPORT AuditClient::AuditQuery : public Client::Query {
    QEL_CLASS(AuditQuery, Client::Query)
    /// How many events may be unacknowledged at a time.
    static constexpr std::size_t window = 64;

    /// Opens a session of type 3. `client` and `sequence` are not owned and must outlive the query.
    AuditQuery(AuditClient* client, AuditSequence& sequence);
    AuditQuery(const AuditQuery&) = delete;
    AuditQuery& operator=(const AuditQuery&) = delete;

    /// The queue stays as it is.
    ~AuditQuery() override;

    using Client::Query::packetReceived;
    /// Takes acknowledgements, in any order; each removes exactly its own event. False for packets of other
    /// types.
    bool packetReceived(Peer* peer, Packet* packet) override;

    /// Sends what the window allows, oldest first. Does nothing while the connection cannot take packets.
    /// Call it after an append, behind each burst of acknowledgements (setBurstHandler), and now and then.
    void processEvents();

    std::size_t getInFlightCount() const { return inFlight_.size(); }

    /// When the window last moved: the last acknowledgement, or the last sending into an empty window. In
    /// flight and long past means that the service has stalled.
    std::chrono::steady_clock::time_point getLastProgress() const { return lastProgress_; }

    const AuditQueryStatistics& getStatistics() const { return statistics_; }

  private:
    bool connectionTakesPackets() const;
    bool processEntry(Item& position, Item& event);
    bool hasParkedEnough() const;
    void removeParked(const CommitResult& kept);
    bool readEvent(Item& position, Item& event);
    bool send(Item& position, long long time, const Item& event);
    void removeDamaged(Item& position, const char* message);
    bool reportOnce(const Item& position);
    bool isTooLarge(const Item& event) const;
    void park(const Item& position, const Item& event);
    void acknowledged(long long time);

    AuditSequence& sequence_;
    std::set<long long> inFlight_;
    std::set<std::string> reported_;
    std::chrono::steady_clock::time_point lastProgress_;
    AuditQueryStatistics statistics_;
    // Kept aside in this walk, with their sizes, and to be removed from the queue when that is durable.
    std::vector<std::pair<Item, std::size_t>> parking_;
    std::size_t parkingBytes_ = 0;
    std::chrono::steady_clock::time_point nextParking_;
};

}  // namespace qel
