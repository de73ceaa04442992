#pragma once

#include <map>

#include "session/ClientChannel.h"
#include "session/Connection.h"

namespace qel {

/// The client's end of a connection: speaks first, opens channels for queries, never waits for commits to send.
class ClientConnection : public Connection {
  public:
    struct Handlers {
        std::function<void()> established;
        std::function<void(const std::string& reason, bool wasEstablished)> ended;
    };

    ClientConnection(ConnectionSetup setup, std::unique_ptr<Link> link, Peer& peer, Handlers handlers);
    ~ClientConnection() override;

    void start() override;
    /// Asks the service for the session of this channel.
    void open(const std::shared_ptr<ClientChannel>& channel);
    /// The query is done with it.
    void closeChannel(ClientChannel& channel, const std::string& reason);

  private:
    bool handshakeReceived(FrameKind kind, ConstByteSpan payload) override;
    bool sessionFrameReceived(FrameKind kind, ConstByteSpan payload) override;
    bool holdsAnswers() const override { return false; }
    void burstEnded() override;
    void drained() override;
    void ticked() override;
    void establish() override;
    void connectionEnded(const std::string& reason) override;

    bool packetFrameReceived(ConstByteSpan payload);
    bool channelClosed(std::uint32_t id, const std::string& reason);
    std::shared_ptr<ClientChannel> find(std::uint32_t id) const;

    Peer& peer_;
    Handlers handlers_;
    std::map<std::uint32_t, std::shared_ptr<ClientChannel>> channels_;
    std::uint32_t lastChannel_ = 0;
    bool wasEstablished_ = false;
};

}  // namespace qel
