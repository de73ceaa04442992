#pragma once

#include <memory>

#include "qelCore/Item.h"
#include "qelCore/ItemStore.h"
#include "qelCore/Object.h"
#include "qelNet/Session.h"

namespace qel {

class AuditService;

/// The service's end of one connection that carries events: stamps each with the identity of the peer, stores it and
/// acknowledges it. Made by the session factory of AuditService only, and driven on the strand of its connection.
class AuditSession : public Session {
    QEL_CLASS(AuditSession, Session)
    AuditSession();

    ~AuditSession() override;

    /// Works out the origin checksum and the origin from the peer's identity.
    void peerAttached() override;
    bool packetReceived(Packet* packet) override;

  private:
    AuditService& auditService() const;
    /// False when the store refused it, which concerns no other event.
    bool store(long long time, const Item& event);
    void acknowledge(long long time);

    unsigned originChecksum_ = 0;
    Item origin_;
    std::shared_ptr<OverwriteGuard> guard_;
};

}  // namespace qel
