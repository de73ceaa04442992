#include "session/ClientConnection.h"

#include <utility>
#include <vector>

#include "qelCore/Packet.h"
#include "qelCore/Ref.h"
#include "qelCore/logging/MessageStream.h"
#include "session/ConnectionScope.h"

namespace qel {

ClientConnection::ClientConnection(ConnectionSetup setup, std::unique_ptr<Link> link, Peer& peer,
                                   Handlers handlers)
    : Connection(std::move(setup), std::move(link)), peer_(peer), handlers_(std::move(handlers)) {}

ClientConnection::~ClientConnection() = default;

void ClientConnection::start() {
    run([this] {
        Hello hello;
        hello.frameBytes = limits().frameBytes;
        hello.valueBytes = limits().valueBytes;
        hello.idleSeconds = limits().idleSeconds;
        hello.write(control());
    });
    readable();
}

bool ClientConnection::handshakeReceived(FrameKind kind, ConstByteSpan payload) {
    if (kind != FrameKind::welcome)
        return fail("the first frame is of kind " + std::to_string(static_cast<int>(kind)) +
                        "; a welcome is expected",
                    "garbage");
    Welcome welcome;
    std::string error;
    if (!welcome.read(payload, error))
        return fail(error, "version");
    established(welcome.frameBytes, welcome.valueBytes, welcome.idleSeconds);
    return true;
}

void ClientConnection::establish() {
    wasEstablished_ = true;
    if (handlers_.established)
        handlers_.established();
}

void ClientConnection::open(const std::shared_ptr<ClientChannel>& channel) {
    const std::uint32_t id = ++lastChannel_;
    channels_[id] = channel;
    channel->assign(std::static_pointer_cast<ClientConnection>(shared_from_this()), id);
    run([&] {
        Open open;
        open.channel = id;
        open.sessionType = channel->getType();
        open.service = channel->getService().substr(0, longestServiceName);
        open.write(control());
    });
}

void ClientConnection::closeChannel(ClientChannel& channel, const std::string& reason) {
    run([&] {
        sendChannelClose(channel.lane(), channel.getId(), reason);
        channels_.erase(channel.getId());
    });
}

std::shared_ptr<ClientChannel> ClientConnection::find(std::uint32_t id) const {
    const auto found = channels_.find(id);
    return found == channels_.end() ? nullptr : found->second;
}

bool ClientConnection::sessionFrameReceived(FrameKind kind, ConstByteSpan payload) {
    PayloadReader reader(payload);
    switch (kind) {
        case FrameKind::opened:
            if (const auto channel = find(reader.u32()))
                channel->opened();
            return true;
        case FrameKind::packet:
            return packetFrameReceived(payload);
        case FrameKind::closeChannel: {
            const std::uint32_t id = reader.u32();
            return channelClosed(id, std::string(limitReason(reader.rest().view())));
        }
        default:
            return fail("a frame of kind " + std::to_string(static_cast<int>(kind)) + " is not expected here",
                        "garbage");
    }
}

bool ClientConnection::packetFrameReceived(ConstByteSpan payload) {
    PayloadReader reader(payload);
    const std::uint32_t id = reader.u32();
    const auto packet = Ref<Packet>::adopt(Packet::decode(reader.rest()));
    if (!reader.ok() || !packet || id > lastChannel_)
        return fail("a malformed packet arrived", "garbage");
    counters().packetsReceived++;
    const auto channel = find(id);
    if (!channel)
        return true;
    const bool wanted = channel->packetReceived(peer_, *packet);
    if (packet->getReferenceCount() > 1)
        packet->ownBytes();
    if (!wanted)
        logging::MessageStream(2, 2) << "a packet of type " << packet->getType() << " from " << getLabel()
                                     << " is of no use to its query and dropped";
    return true;
}

bool ClientConnection::channelClosed(std::uint32_t id, const std::string& reason) {
    const auto channel = find(id);
    if (!channel)
        return true;
    channels_.erase(id);
    dropLane(channel->lane());
    logging::MessageStream(2, 2) << getLabel() << " ended or refused the session of type "
                                 << channel->getType() << " at its service \"" << channel->getService()
                                 << "\": " << reason;
    channel->closed(reason);
    return true;
}

void ClientConnection::burstEnded() {
    const auto channels = channels_;
    for (const auto& [id, channel] : channels)
        channel->burstEnded();
}

void ClientConnection::drained() {
    const auto channels = channels_;
    for (const auto& [id, channel] : channels)
        channel->drained();
}

void ClientConnection::ticked() {
    const auto channels = channels_;
    for (const auto& [id, channel] : channels)
        channel->tick();
}

void ClientConnection::connectionEnded(const std::string& reason) {
    for (const auto& [id, channel] : std::exchange(channels_, {}))
        channel->closed(reason);
    if (const auto handler = std::exchange(handlers_.ended, nullptr))
        handler(reason, wasEstablished_);
}

}  // namespace qel
