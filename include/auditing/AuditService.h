#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "auditing/Export.h"
#include "qelCore/Item.h"
#include "qelCore/Object.h"
#include "qelNet/Service.h"

namespace qel {

/// What the sessions of one service have done since it was constructed. Each figure only grows; any thread
/// may read.
struct AuditServiceStatistics {
    std::atomic<unsigned long long> stored{0};         ///< events written, retransmissions included
    std::atomic<unsigned long long> retransmitted{0};  ///< of these: the same event was already there
    std::atomic<unsigned long long> overwritten{0};  ///< of these: other content was there and was kept aside
    std::atomic<unsigned long long> malformed{0};    ///< audit packets that did not fit their scheme, dropped
    std::atomic<unsigned long long> refused{0};      ///< events the store did not take, not acknowledged
};

/// The server side of the audit transport: a service that writes every event it receives into one central
/// log, stamped with the identity of the sending peer, and acknowledges it once it is durable. Construct and
/// configure it on one thread before it is offered; afterwards the network's threads use it through the
/// sessions they create.
///
/// A record is stored under the path followed by the nested item [time, origin checksum]; its value is
/// [user, device, event, parameter, …]. An event sent again by the same origin with the same time lands on
/// the same key, so a retransmission leaves one record. Other content found under such a key is kept aside
/// first (AuditAside). An event that the store refuses, for it exceeds the limits told in the handshake, is
/// neither stored nor acknowledged, and those around it are: it stays with its sender, who keeps such an
/// event aside once the limit is known there.
class QELAUDITING_EXPORT AuditService : public Service {
    QEL_CLASS(AuditService, Service)
    /// Called after each stored event, before it is durable, on the network thread of its connection; must
    /// not block. `origin` is [user, device], or [pseudonym, "***"] when the service is anonymous.
    using Listener = std::function<void(const Item& origin, long long time)>;

    /// Copies `path`; `name` is what clients ask for. Registers the factory of audit sessions (session type
    /// 3).
    AuditService(const Item& path, const char* name, bool anonymous);

    /// Copies have a path, a flag and a listener of their own, and share their session factories and
    /// statistics.
    AuditService(const AuditService& other);
    AuditService(AuditService&& other) noexcept;
    AuditService& operator=(const AuditService& other);
    AuditService& operator=(AuditService&& other) noexcept;

    ~AuditService() override;

    const Item& getPath() const { return path_; }

    /// Whether sessions record a pseudonym and "***" in place of the peer's user and device.
    bool isAnonymous() const { return anonymous_; }

    /// Set before the service is offered; an empty function (as constructed) is not called.
    void setListener(Listener listener) { listener_ = std::move(listener); }
    const Listener& getListener() const { return listener_; }

    AuditServiceStatistics& getStatistics() const { return *statistics_; }

  private:
    friend class AuditSession;

    Item path_;
    bool anonymous_;
    Listener listener_;
    std::shared_ptr<AuditServiceStatistics> statistics_;
};

}  // namespace qel
