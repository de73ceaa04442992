#include "auditing/AuditAside.h"
#include "auditing/AuditClient.h"
#include "auditing/AuditProtocol.h"
#include "qelCore/ItemStore.h"
#include "qelCore/Packet.h"
#include "qelCore/Ref.h"
#include "qelCore/logging/MessageStream.h"
#include "qelNet/Peer.h"
#include "store/AuditRecord.h"

namespace qel {

AuditClient::AuditQuery::AuditQuery(AuditClient* client, AuditSequence& sequence)
    : Query(client, AuditProtocol::AuditSession::sessionType),
      sequence_(sequence),
      lastProgress_(std::chrono::steady_clock::now()) {}

AuditClient::AuditQuery::~AuditQuery() = default;

bool AuditClient::AuditQuery::packetReceived(Peer*, Packet* packet) {
    if (packet->getType() != AuditProtocol::AuditSession::auditDataAckType)
        return false;
    if (packet->fit(AuditProtocol::AuditSession::AuditDataAck))
        acknowledged(packet->singleGet<long long>("time"));
    return true;
}

void AuditClient::AuditQuery::acknowledged(long long time) {
    if (inFlight_.erase(time) != 0) {
        ++statistics_.acknowledged;
        lastProgress_ = std::chrono::steady_clock::now();
    }
    if (!sequence_.isNullSequence())
        record::queueKey(sequence_.getPath(), time).remove();
}

bool AuditClient::AuditQuery::connectionTakesPackets() const {
    const NetworkPeer* network = getClient()->getPeer()->getNetworkPeer();
    return network != nullptr && !network->cannotSend();
}

void AuditClient::AuditQuery::processEvents() {
    if (sequence_.isNullSequence() || inFlight_.size() >= window || !connectionTakesPackets())
        return;
    Item position;
    if (!sequence_.getPath().child(position))
        return;
    WriteBatch batch;
    // One for all, so that its memory is taken once.
    Item event;
    while (processEntry(position, event) && inFlight_.size() < window && !hasParkedEnough() &&
           position.next()) {
    }
    if (!parking_.empty())
        removeParked(batch.commit());
}

/// What one walk parks is made durable at once, while the connection waits.
bool AuditClient::AuditQuery::hasParkedEnough() const {
    constexpr std::size_t mostParked = 1000;
    constexpr std::size_t mostBytes = WriteBatch::largest / 2;
    return parking_.size() >= mostParked || parkingBytes_ >= mostBytes;
}

/// Only what is safe in the other place leaves this one.
void AuditClient::AuditQuery::removeParked(const CommitResult& kept) {
    for (const auto& [key, size] : parking_) {
        if (!kept)
            break;
        logging::MessageStream(3, 2) << "event is larger than the service takes (" << size
                                     << " bytes), kept aside: " << key.asString();
        ++statistics_.parked;
        key.remove();
    }
    if (!kept) {
        constexpr std::chrono::seconds pause{10};
        nextParking_ = std::chrono::steady_clock::now() + pause;
        logging::MessageStream(3, 2)
            << parking_.size()
            << " events that are larger than the service takes stay in the queue: they "
               "could not be kept aside: "
            << kept.reason;
    }
    parking_.clear();
    parkingBytes_ = 0;
}

/// False when the walk must end because the session is over.
bool AuditClient::AuditQuery::processEntry(Item& position, Item& event) {
    long long time = 0;
    if (!record::readQueueTime(position, sequence_.getPath().size(), time)) {
        removeDamaged(position, "invalid entry in audit log: ");
        return true;
    }
    if (inFlight_.contains(time))
        return true;
    if (!readEvent(position, event)) {
        removeDamaged(position, "failed reading entry in audit log: ");
        return true;
    }
    return send(position, time, event);
}

bool AuditClient::AuditQuery::readEvent(Item& position, Item& event) {
    const ConstByteSpan stored = position.fetch();
    if (stored.isNull())
        return false;
    event.setPlain(stored.data(), stored.size());
    return event.isWellFormed();
}

bool AuditClient::AuditQuery::send(Item& position, long long time, const Item& event) {
    if (isTooLarge(event)) {
        park(position, event);
        return true;
    }
    const auto packet = Ref<Packet>::adopt(new Packet(AuditProtocol::AuditSession::AuditData, -1));
    packet->singleSet<long long>("time", time);
    packet->setItem("event", event);
    if (!sendPacket(packet.get())) {
        if (isClosed())
            return false;
        park(position, event);
        return true;
    }
    if (inFlight_.empty())
        lastProgress_ = std::chrono::steady_clock::now();
    inFlight_.insert(time);
    ++statistics_.sent;
    return true;
}

void AuditClient::AuditQuery::removeDamaged(Item& position, const char* message) {
    const ConstByteSpan stored = position.fetch();
    if (stored.isNull() && !reportOnce(position))
        return;
    logging::MessageStream(3, 2) << message << position.asString();
    ++statistics_.damaged;
    if (!stored.isNull())
        AuditAside::keep(AsideReason::damaged, sequence_.getPath(), position, stored);
    position.remove();
}

/// A key without a value is only the parent of deeper keys, which are not this queue's to remove: it is met again in
/// every walk, and reported in the first.
bool AuditClient::AuditQuery::reportOnce(const Item& position) {
    constexpr std::size_t mostReported = 1000;
    return reported_.size() < mostReported && reported_.insert(std::string(position.bytes().view())).second;
}

bool AuditClient::AuditQuery::isTooLarge(const Item& event) const {
    const std::uint32_t most = getClient()->getPeer()->getNetworkPeer()->getRemoteLimits().valueBytes;
    return most != 0 && event.bytes().size() > most;
}

/// An event that the service can never take must not hold up those behind it.
void AuditClient::AuditQuery::park(const Item& position, const Item& event) {
    if (std::chrono::steady_clock::now() < nextParking_)
        return;
    const std::size_t size = event.bytes().size();
    if (AuditAside::keep(AsideReason::parked, sequence_.getPath(), position, event.bytes())) {
        parking_.emplace_back(position, size);
        parkingBytes_ += size;
    } else if (reportOnce(position)) {
        logging::MessageStream(3, 2) << "event is larger than the service takes (" << size
                                     << " bytes) and cannot be kept aside, it stays in the queue: "
                                     << position.asString();
    }
}

}  // namespace qel
