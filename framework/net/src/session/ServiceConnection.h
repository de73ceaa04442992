#pragma once

#include <map>
#include <vector>

#include "qelNet/Peer.h"
#include "qelNet/Service.h"
#include "session/Connection.h"

namespace qel {

class ServiceChannel;
class ServicePeer;

/// The service's end of a connection: answers the handshake, makes a session for each one that the client opens, and
/// keeps every answer of a session behind the commit of what it answers.
class ServiceConnection : public Connection {
  public:
    /// `refusal` is empty, or why this client is let in no further than to be told so.
    ServiceConnection(ConnectionSetup setup, std::unique_ptr<Link> link, std::vector<Service*> services,
                      Identity client, std::string address, std::string refusal = {});
    ~ServiceConnection() override;

    void start() override;
    /// Called once, when the connection is over.
    void setEndedHandler(std::function<void()> handler) { endedHandler_ = std::move(handler); }
    Peer& getPeer();

  private:
    friend class ServiceChannel;
    struct Entry {
        std::shared_ptr<ServiceChannel> channel;
        Session* session = nullptr;
        Service* service = nullptr;
    };

    bool handshakeReceived(FrameKind kind, ConstByteSpan payload) override;
    bool sessionFrameReceived(FrameKind kind, ConstByteSpan payload) override;
    bool holdsAnswers() const override { return true; }
    void drained() override;
    void ticked() override;
    void connectionEnded(const std::string& reason) override;
    void afterCallback() override;

    bool openReceived(ConstByteSpan payload);
    bool packetFrameReceived(ConstByteSpan payload);
    bool closeChannelReceived(ConstByteSpan payload);
    std::string openSession(std::uint32_t channel, short type, const std::string& service);
    void handlePacket(Entry& entry, ConstByteSpan bytes);
    void closeSession(std::uint32_t channel, const std::string& reason);
    void retire(std::map<std::uint32_t, Entry>::iterator entry);

    std::vector<Service*> services_;
    std::unique_ptr<ServicePeer> networkPeer_;
    std::unique_ptr<Peer> peer_;
    std::string refusal_;
    std::function<void()> endedHandler_;
    std::map<std::uint32_t, Entry> sessions_;
    std::vector<Session*> retired_;
    std::uint32_t highestChannel_ = 0;
    bool warnedOfPacket_ = false;
};

}  // namespace qel
