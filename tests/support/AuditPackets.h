#pragma once

#include <vector>

#include "auditing/AuditProtocol.h"
#include "qelCore/Item.h"
#include "qelCore/Packet.h"
#include "qelCore/Ref.h"

namespace qel::test {

inline Ref<Packet> dataPacket(long long time, const Item& event) {
    auto packet = makeRef<Packet>(AuditProtocol::AuditSession::AuditData, short{-1});
    packet->singleSet<long long>("time", time);
    packet->setItem("event", event);
    return packet;
}

inline Ref<Packet> ackPacket(long long time) {
    auto packet = makeRef<Packet>(AuditProtocol::AuditSession::AuditDataAck, short{-1});
    packet->singleSet<long long>("time", time);
    return packet;
}

/// A packet of that type as it might come from anywhere: it fits no scheme.
inline Ref<Packet> foreignPacket(short type) {
    const auto number = static_cast<unsigned short>(type);
    const unsigned char bytes[] = {static_cast<unsigned char>(number >> 8),
                                   static_cast<unsigned char>(number & 0xFF),
                                   0,
                                   1,
                                   'x',
                                   'y',
                                   'z'};
    auto packet = Ref<Packet>::adopt(Packet::decode(ConstByteSpan(bytes, sizeof bytes)));
    packet->ownBytes();
    return packet;
}

inline std::vector<long long> timesOf(const std::vector<Packet*>& packets, short type) {
    std::vector<long long> times;
    for (const Packet* packet : packets)
        if (packet->getType() == type)
            times.push_back(packet->singleGet<long long>("time"));
    return times;
}
inline std::vector<long long> dataTimes(const std::vector<Packet*>& packets) {
    return timesOf(packets, 301);
}
inline std::vector<long long> ackTimes(const std::vector<Packet*>& packets) {
    return timesOf(packets, 302);
}

}  // namespace qel::test
