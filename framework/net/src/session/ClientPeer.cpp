#include "session/ClientPeer.h"

#include <utility>

#include "qelCore/ItemStore.h"

namespace qel {

std::shared_ptr<ClientConnection> ClientNetworkPeer::getConnection() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return connection_;
}

bool ClientNetworkPeer::cannotSend() const {
    const auto connection = getConnection();
    return !connection || connection->cannotSend();
}

bool ClientNetworkPeer::isConnected() const {
    const auto connection = getConnection();
    return connection && connection->isEstablished();
}

NetworkLimits ClientNetworkPeer::getRemoteLimits() const {
    const auto connection = getConnection();
    return connection ? connection->getRemoteLimits() : NetworkLimits();
}

void ClientNetworkPeer::post(std::function<void()> function) {
    executor_->post([self = shared_from_this(), function = std::move(function)] { self->run(function); });
}

void ClientNetworkPeer::run(const std::function<void()>& function) {
    if (const auto connection = getConnection())
        return connection->run(function);
    WriteBatch batch(store_ ? store_ : ItemStore::current());
    function();
}

void ClientNetworkPeer::disconnect(const std::string& reason) {
    if (const auto connection = getConnection())
        connection->disconnect(reason);
}

std::shared_ptr<Channel> ClientNetworkPeer::openChannel(const std::string& service, short type,
                                                        ChannelListener& listener) {
    auto channel = std::make_shared<ClientChannel>(executor_, service, type, listener);
    if (executor_->runsHere())
        open(channel);
    else
        executor_->post([self = shared_from_this(), channel] { self->open(channel); });
    return channel;
}

void ClientNetworkPeer::open(const std::shared_ptr<ClientChannel>& channel) {
    if (channel->isClosed())
        return;
    const auto connection = getConnection();
    if (connection && connection->isEstablished())
        connection->open(channel);
    else
        waiting_.push_back(channel);
}

void ClientNetworkPeer::attach(std::shared_ptr<ClientConnection> connection) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        connection_ = std::move(connection);
    }
    for (const auto& channel : std::exchange(waiting_, {}))
        open(channel);
}

void ClientNetworkPeer::detach() {
    const std::lock_guard<std::mutex> lock(mutex_);
    connection_.reset();
}

void ClientNetworkPeer::stop(const std::string& reason) {
    for (const auto& channel : std::exchange(waiting_, {}))
        channel->closed(reason);
}

}  // namespace qel
