#include "qelNet/Session.h"

#include <utility>

#include "qelCore/Packet.h"
#include "session/Channel.h"

namespace qel {

Session::Session() = default;
Session::~Session() = default;

void Session::peerAttached() {}

void Session::release() {
    decreaseReferenceCount();
}

void Session::tick() {}

bool Session::packetReceived(Packet*) {
    return false;
}

bool Session::sendPacket(Packet* packet) {
    const auto channel = channel_;
    return channel && packet && channel->send(*packet);
}

bool Session::canSend() const {
    return channel_ && channel_->canSend();
}

void Session::setDrainedHandler(std::function<void()> handler) {
    drained_ = std::move(handler);
}

void Session::close(const char* reason) {
    if (const auto channel = channel_)
        channel->close(reason ? reason : "");
}

}  // namespace qel
