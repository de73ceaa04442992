#include "transport/AuditSession.h"

#include <utility>

#include "auditing/AuditProtocol.h"
#include "auditing/AuditService.h"
#include "qelCore/ItemStore.h"
#include "qelCore/Packet.h"
#include "qelCore/Ref.h"
#include "qelCore/logging/MessageStream.h"
#include "qelNet/Peer.h"
#include "store/AuditRecord.h"
#include "store/RecordGuard.h"

namespace qel {

AuditSession::AuditSession() = default;
AuditSession::~AuditSession() = default;

AuditService& AuditSession::auditService() const {
    return *static_cast<AuditService*>(getService());
}

void AuditSession::peerAttached() {
    const Peer& peer = *getPeer();
    originChecksum_ = record::originChecksum(peer.getUserBlock().data(), peer.getDeviceBlock().data());
    origin_ = record::origin(peer.getUserName().c_str(), peer.getDeviceName().c_str(), originChecksum_,
                             auditService().isAnonymous());
    guard_ = std::make_shared<RecordGuard>(
        auditService().getPath(), [statistics = auditService().statistics_](RecordGuard::Met met) {
            statistics->retransmitted.fetch_add(1, std::memory_order_relaxed);
            if (met == RecordGuard::Met::other)
                statistics->overwritten.fetch_add(1, std::memory_order_relaxed);
        });
}

bool AuditSession::packetReceived(Packet* packet) {
    if (packet->getType() != AuditProtocol::AuditSession::auditDataType)
        return false;
    if (!packet->fit(AuditProtocol::AuditSession::AuditData)) {
        auditService().getStatistics().malformed.fetch_add(1, std::memory_order_relaxed);
        return true;
    }
    const long long time = packet->singleGet<long long>("time");
    if (store(time, packet->getItem("event")))
        acknowledge(time);
    return true;
}

bool AuditSession::store(long long time, const Item& event) {
    AuditService& service = auditService();
    const Item key = record::centralKey(service.getPath(), time, originChecksum_);
    const Item value = record::centralValue(origin_, event);
    ItemStore* const store = ItemStore::current();
    if (store == nullptr || !store->store(key, value.bytes(), guard_)) {
        service.getStatistics().refused.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    service.getStatistics().stored.fetch_add(1, std::memory_order_relaxed);
    if (service.getListener())
        service.getListener()(origin_, time);
    return true;
}

void AuditSession::acknowledge(long long time) {
    const auto packet = Ref<Packet>::adopt(new Packet(AuditProtocol::AuditSession::AuditDataAck, -1));
    packet->singleSet<long long>("time", time);
    sendPacket(packet.get());
}

}  // namespace qel
