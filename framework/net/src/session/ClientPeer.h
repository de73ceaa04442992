#pragma once

#include <list>
#include <memory>
#include <mutex>

#include "qelNet/Peer.h"
#include "session/ClientChannel.h"
#include "session/ClientConnection.h"

namespace qel {

/// The connection of a client's peer, now this one, now that: what is opened meanwhile waits for the next.
class ClientNetworkPeer : public NetworkPeer, public std::enable_shared_from_this<ClientNetworkPeer> {
  public:
    ClientNetworkPeer(std::shared_ptr<Executor> executor, ItemStore* store)
        : executor_(std::move(executor)), store_(store) {}

    bool cannotSend() const override;
    bool isConnected() const override;
    NetworkLimits getRemoteLimits() const override;
    void post(std::function<void()> function) override;
    void disconnect(const std::string& reason) override;
    std::shared_ptr<Channel> openChannel(const std::string& service, short type,
                                         ChannelListener& listener) override;

    // On the executor.
    void attach(std::shared_ptr<ClientConnection> connection);
    void detach();
    void run(const std::function<void()>& function);
    /// The network has stopped: what waits will never be opened.
    void stop(const std::string& reason);

    std::shared_ptr<ClientConnection> getConnection() const;

  private:
    void open(const std::shared_ptr<ClientChannel>& channel);

    std::shared_ptr<Executor> executor_;
    ItemStore* store_;
    mutable std::mutex mutex_;
    std::shared_ptr<ClientConnection> connection_;
    std::list<std::shared_ptr<ClientChannel>> waiting_;
};

/// A client's peer. Its identity is that of the server connected last.
class ClientPeer : public Peer {
  public:
    explicit ClientPeer(std::shared_ptr<ClientNetworkPeer> network)
        : Peer({}, {}, network.get()), network_(std::move(network)) {}
    using Peer::setIdentity;
    const std::shared_ptr<ClientNetworkPeer>& getNetwork() const { return network_; }

  private:
    std::shared_ptr<ClientNetworkPeer> network_;
};

}  // namespace qel
