#include "session/ClientChannel.h"

#include <utility>

#include "qelCore/Packet.h"
#include "session/ClientConnection.h"

namespace qel {

ClientChannel::ClientChannel(std::shared_ptr<Executor> executor, std::string service, short type,
                             ChannelListener& listener)
    : executor_(std::move(executor)), service_(std::move(service)), type_(type), listener_(&listener) {}

struct ClientChannel::CallEnd {
    std::shared_ptr<ClientChannel> channel;
    ~CallEnd() { channel->endCall(); }
};

ChannelListener* ClientChannel::beginCall() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (listener_) {
        ++calls_;
        caller_ = std::this_thread::get_id();
    }
    return listener_;
}

void ClientChannel::endCall() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (--calls_ == 0)
        callEnded_.notify_all();
}

template <class Call>
auto ClientChannel::tell(Call call) -> decltype(call(std::declval<ChannelListener&>())) {
    ChannelListener* const listener = beginCall();
    if (!listener)
        return decltype(call(std::declval<ChannelListener&>()))();
    const CallEnd end{shared_from_this()};
    return call(*listener);
}

bool ClientChannel::send(Packet& packet) {
    if (isClosed())
        return false;
    if (executor_->runsHere())
        return sendHere(packet.getEncoded());
    executor_->post([self = shared_from_this(), bytes = std::string(packet.getEncoded().view())] {
        self->sendHere(ConstByteSpan(bytes));
    });
    return true;
}

bool ClientChannel::sendHere(ConstByteSpan packet) {
    const auto connection = connection_.lock();
    return connection && !isClosed() && connection->sendPacket(lane_, id_, packet, false);
}

bool ClientChannel::canSend() {
    const auto connection = connection_.lock();
    return connection && !isClosed() && connection->canSend(lane_);
}

void ClientChannel::close(const std::string& reason) {
    if (isClosed())
        return;
    if (executor_->runsHere())
        closeHere(reason);
    else
        executor_->post([self = shared_from_this(), reason] { self->closeHere(reason); });
}

void ClientChannel::closeHere(const std::string& reason) {
    if (isClosed())
        return;
    if (const auto connection = connection_.lock())
        connection->closeChannel(*this, reason);
    closed(reason);
}

void ClientChannel::forgetListener() {
    std::unique_lock<std::mutex> lock(mutex_);
    listener_ = nullptr;
    callEnded_.wait(lock, [this] { return calls_ == 0 || caller_ == std::this_thread::get_id(); });
}

void ClientChannel::assign(std::weak_ptr<ClientConnection> connection, std::uint32_t id) {
    connection_ = std::move(connection);
    id_ = id;
    state_ = State::opening;
}

void ClientChannel::opened() {
    if (state_ != State::opening)
        return;
    state_ = State::open;
    tell([](ChannelListener& listener) { listener.channelOpened(); });
}

bool ClientChannel::packetReceived(Peer& peer, Packet& packet) {
    inBurst_ = true;
    return tell([&](ChannelListener& listener) { return listener.packetReceived(peer, packet); });
}

void ClientChannel::burstEnded() {
    if (std::exchange(inBurst_, false))
        tell([](ChannelListener& listener) { listener.burstEnded(); });
}

void ClientChannel::drained() {
    if (std::exchange(lane_->wantsDrained, false))
        tell([](ChannelListener& listener) { listener.drained(); });
}

void ClientChannel::tick() {
    tell([](ChannelListener& listener) { listener.tick(); });
}

void ClientChannel::closed(const std::string& reason) {
    if (state_.exchange(State::closed) == State::closed)
        return;
    connection_.reset();
    tell([&](ChannelListener& listener) { listener.channelClosed(reason); });
}

}  // namespace qel
