#include "qelNet/Client.h"

#include <utility>

#include "qelCore/Packet.h"
#include "qelNet/Peer.h"
#include "session/Channel.h"

namespace qel {

Client::Client(Peer* peer, const char* name) : peer_(peer), name_(name ? name : "") {}
Client::Client(const Client&) = default;
Client::Client(Client&&) noexcept = default;
Client& Client::operator=(const Client&) = default;
Client& Client::operator=(Client&&) noexcept = default;
Client::~Client() = default;

/// Turns what happens on the channel into the calls of the query. Handlers are copied before they are called, so that
/// one may destroy the query.
class Client::Query::Listener : public ChannelListener {
  public:
    explicit Listener(Query& query) : query_(query) {}

    void channelOpened() override { call(opened); }
    bool packetReceived(Peer& peer, Packet& packet) override {
        return query_.packetReceived(&peer, &packet) || query_.packetReceived(&packet);
    }
    void burstEnded() override { call(burst); }
    void drained() override { call(drainedHandler); }
    void tick() override { query_.tick(); }
    void channelClosed(const std::string& reason) override {
        if (const auto handler = closed)
            handler(reason);
    }

    std::function<void()> opened;
    std::function<void()> burst;
    std::function<void()> drainedHandler;
    std::function<void(const std::string&)> closed;

  private:
    static void call(const std::function<void()>& function) {
        if (const auto handler = function)
            handler();
    }

    Query& query_;
};

Client::Query::Query(Client* client, short sessionType)
    : Service(client->getName().c_str()),
      client_(client),
      sessionType_(sessionType),
      listener_(std::make_unique<Listener>(*this)) {
    Peer* peer = client->getPeer();
    NetworkPeer* network = peer ? peer->getNetworkPeer() : nullptr;
    if (network)
        channel_ = network->openChannel(client->getName(), sessionType, *listener_);
}

Client::Query::~Query() {
    if (!channel_)
        return;
    channel_->forgetListener();
    channel_->close("the query is done");
}

bool Client::Query::packetReceived(Peer*, Packet*) {
    return false;
}
bool Client::Query::packetReceived(Packet*) {
    return false;
}

bool Client::Query::sendPacket(Packet* packet) {
    return channel_ && packet && channel_->send(*packet);
}
bool Client::Query::isOpen() const {
    return channel_ && channel_->isOpen();
}
bool Client::Query::isClosed() const {
    return !channel_ || channel_->isClosed();
}
bool Client::Query::canSend() const {
    return channel_ && channel_->canSend();
}

void Client::Query::setDrainedHandler(std::function<void()> handler) {
    listener_->drainedHandler = std::move(handler);
}
void Client::Query::setOpenedHandler(std::function<void()> handler) {
    listener_->opened = std::move(handler);
}
void Client::Query::setClosedHandler(std::function<void(const std::string&)> handler) {
    listener_->closed = std::move(handler);
}
void Client::Query::setBurstHandler(std::function<void()> handler) {
    listener_->burst = std::move(handler);
}

}  // namespace qel
