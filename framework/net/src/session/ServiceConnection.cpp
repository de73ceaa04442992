#include "session/ServiceConnection.h"

#include <utility>

#include "qelCore/Packet.h"
#include "qelCore/Ref.h"
#include "qelCore/logging/MessageStream.h"
#include "session/Channel.h"
#include "session/ConnectionScope.h"
#include "session/SessionBinding.h"

namespace qel {

/// The state of the connection as its sessions see it.
class ServicePeer : public NetworkPeer {
  public:
    explicit ServicePeer(ServiceConnection& connection) : connection_(connection) {}
    bool cannotSend() const override { return connection_.cannotSend(); }
    bool isConnected() const override { return connection_.isEstablished(); }
    NetworkLimits getRemoteLimits() const override { return connection_.getRemoteLimits(); }
    void post(std::function<void()> function) override { connection_.post(std::move(function)); }
    void disconnect(const std::string& reason) override { connection_.disconnect(reason); }
    std::shared_ptr<Channel> openChannel(const std::string&, short, ChannelListener&) override {
        return nullptr;
    }

  private:
    ServiceConnection& connection_;
};

/// What a session sends through. It outlives the connection if the session is kept; then nothing is sent.
class ServiceChannel : public Channel {
  public:
    ServiceChannel(std::weak_ptr<Connection> connection, std::uint32_t id)
        : connection_(std::move(connection)), id_(id), lane_(std::make_shared<OutputLane>()) {}

    bool send(Packet& packet) override {
        const auto connection = connection_.lock();
        if (!connection || closed_)
            return false;
        if (connection->runsHere())
            return connection->sendPacket(lane_, id_, packet.getEncoded(), true);
        connection->post(
            [weak = connection_, lane = lane_, id = id_, bytes = std::string(packet.getEncoded().view())] {
                if (const auto here = weak.lock())
                    here->sendPacket(lane, id, ConstByteSpan(bytes), true);
            });
        return true;
    }

    bool canSend() override {
        const auto connection = connection_.lock();
        return connection && !closed_ && connection->canSend(lane_);
    }

    bool isOpen() const override { return !closed_; }
    bool isClosed() const override { return closed_; }

    void close(const std::string& reason) override {
        const auto connection = std::static_pointer_cast<ServiceConnection>(connection_.lock());
        if (!connection || closed_)
            return;
        if (connection->runsHere())
            connection->closeSession(id_, reason);
        else
            connection->post([weak = std::weak_ptr<ServiceConnection>(connection), id = id_, reason] {
                if (const auto here = weak.lock())
                    here->closeSession(id, reason);
            });
    }

    void forgetListener() override {}

    void setClosed() { closed_ = true; }
    const OutputQueue::Lane& lane() const { return lane_; }

  private:
    std::weak_ptr<Connection> connection_;
    std::uint32_t id_;
    OutputQueue::Lane lane_;
    std::atomic<bool> closed_{false};
};

ServiceConnection::ServiceConnection(ConnectionSetup setup, std::unique_ptr<Link> link,
                                     std::vector<Service*> services, Identity client, std::string address,
                                     std::string refusal)
    : Connection(std::move(setup), std::move(link)),
      services_(std::move(services)),
      networkPeer_(std::make_unique<ServicePeer>(*this)),
      peer_(std::make_unique<Peer>(std::move(client), std::move(address), networkPeer_.get())),
      refusal_(std::move(refusal)) {}

ServiceConnection::~ServiceConnection() = default;

Peer& ServiceConnection::getPeer() {
    return *peer_;
}

void ServiceConnection::start() {
    readable();
}

bool ServiceConnection::handshakeReceived(FrameKind kind, ConstByteSpan payload) {
    if (kind != FrameKind::hello)
        return fail(
            "the first frame is of kind " + std::to_string(static_cast<int>(kind)) + "; a hello is expected",
            "garbage");
    Hello hello;
    std::string error;
    if (!hello.read(payload, error))
        return fail(error, "garbage");
    Welcome welcome;
    welcome.version = hello.chooseVersion(error);
    if (welcome.version == 0)
        return fail(error, "version");
    if (!refusal_.empty())
        return fail(refusal_, "limit");
    welcome.frameBytes = limits().frameBytes;
    welcome.valueBytes = limits().valueBytes;
    welcome.idleSeconds = limits().idleSeconds;
    welcome.write(control());
    counters().authenticated++;
    established(hello.frameBytes, hello.valueBytes, hello.idleSeconds);
    return true;
}

bool ServiceConnection::sessionFrameReceived(FrameKind kind, ConstByteSpan payload) {
    switch (kind) {
        case FrameKind::open:
            return openReceived(payload);
        case FrameKind::packet:
            return packetFrameReceived(payload);
        case FrameKind::closeChannel:
            return closeChannelReceived(payload);
        default:
            return fail("a frame of kind " + std::to_string(static_cast<int>(kind)) + " is not expected here",
                        "garbage");
    }
}

bool ServiceConnection::openReceived(ConstByteSpan payload) {
    Open open;
    std::string error;
    if (!open.read(payload, error))
        return fail(error, "garbage");
    if (open.channel <= highestChannel_)
        return fail("session number " + std::to_string(open.channel) + " was used before", "garbage");
    highestChannel_ = open.channel;
    const std::string refusal = openSession(open.channel, open.sessionType, open.service);
    if (!refusal.empty()) {
        logging::MessageStream(2, 2) << "a session is refused to " << getLabel() << ": " << refusal;
        counters().refuse("session");
        sendChannelClose(nullptr, open.channel, refusal);
    }
    return true;
}

std::string ServiceConnection::openSession(std::uint32_t channel, short type, const std::string& name) {
    if (sessions_.size() >= limits().sessionsPerConnection)
        return "at most " + std::to_string(limits().sessionsPerConnection) +
               " sessions are possible at a time";
    Service* service = nullptr;
    for (Service* offered : services_)
        if (offered->getName() == name)
            service = offered;
    if (!service)
        return "there is no service \"" + name + "\" here";
    Session* session = service->createSession(type);
    if (!session)
        return "the service \"" + name + "\" has no sessions of type " + std::to_string(type);
    Entry& entry = sessions_[channel];
    entry.channel = std::make_shared<ServiceChannel>(weak_from_this(), channel);
    entry.session = session;
    entry.service = service;
    counters().sessionsNow++;
    FrameWriter(control(), FrameKind::opened).u32(channel).finish();
    SessionBinding::attach(*session, *service, *peer_, entry.channel);
    return {};
}

bool ServiceConnection::packetFrameReceived(ConstByteSpan payload) {
    PayloadReader reader(payload);
    const std::uint32_t channel = reader.u32();
    if (!reader.ok() || channel > highestChannel_)
        return fail(
            "a packet arrived for session number " + std::to_string(channel) + ", which was never opened",
            "garbage");
    const auto found = sessions_.find(channel);
    // Packets that crossed the end of their session on the way are of no interest any more.
    if (found != sessions_.end())
        handlePacket(found->second, reader.rest());
    return true;
}

void ServiceConnection::handlePacket(Entry& entry, ConstByteSpan bytes) {
    const auto packet = Ref<Packet>::adopt(Packet::decode(bytes));
    if (!packet) {
        fail("a packet of " + std::to_string(bytes.size()) + " bytes arrived, which is too short for one",
             "garbage");
        return;
    }
    counters().packetsReceived++;
    const bool wanted = entry.session->packetReceived(packet.get()) ||
                        entry.service->packetReceived(peer_.get(), packet.get());
    if (packet->getReferenceCount() > 1)
        packet->ownBytes();
    if (!wanted && !std::exchange(warnedOfPacket_, true))
        logging::MessageStream(2, 2) << "packets of type " << packet->getType() << " from " << getLabel()
                                     << " are of no use to the service \"" << entry.service->getName()
                                     << "\" and dropped";
}

bool ServiceConnection::closeChannelReceived(ConstByteSpan payload) {
    PayloadReader reader(payload);
    const auto found = sessions_.find(reader.u32());
    if (found != sessions_.end())
        retire(found);
    return true;
}

void ServiceConnection::closeSession(std::uint32_t channel, const std::string& reason) {
    const auto found = sessions_.find(channel);
    if (found == sessions_.end())
        return;
    sendChannelClose(found->second.channel->lane(), channel, reason);
    found->second.channel->setClosed();
    retired_.push_back(found->second.session);
    counters().sessionsNow--;
    sessions_.erase(found);
}

void ServiceConnection::retire(std::map<std::uint32_t, Entry>::iterator entry) {
    entry->second.channel->setClosed();
    dropLane(entry->second.channel->lane());
    retired_.push_back(entry->second.session);
    counters().sessionsNow--;
    sessions_.erase(entry);
}

void ServiceConnection::afterCallback() {
    while (!retired_.empty()) {
        Session* session = retired_.back();
        retired_.pop_back();
        SessionBinding::release(*session);
    }
}

void ServiceConnection::drained() {
    for (const auto& [channel, entry] : std::map<std::uint32_t, Entry>(sessions_))
        if (entry.channel->isOpen() && std::exchange(entry.channel->lane()->wantsDrained, false))
            SessionBinding::drained(*entry.session);
}

void ServiceConnection::ticked() {
    for (const auto& [channel, entry] : std::map<std::uint32_t, Entry>(sessions_))
        if (entry.channel->isOpen())
            entry.session->tick();
}

void ServiceConnection::connectionEnded(const std::string&) {
    while (!sessions_.empty())
        retire(sessions_.begin());
    if (const auto handler = std::exchange(endedHandler_, nullptr))
        handler();
}

}  // namespace qel
