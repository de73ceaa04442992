#pragma once

#include <functional>
#include <memory>
#include <string>

#include "qelNet/Export.h"
#include "qelNet/Identity.h"
#include "qelNet/Limits.h"

namespace qel {

class Channel;
class ChannelListener;

/// The connection under a peer: its state, its limits and the strand on which its callbacks run. Every
/// operation may be called from any thread unless it says otherwise.
class QELNET_EXPORT NetworkPeer {
  public:
    virtual ~NetworkPeer() = default;

    /// The state test: true when the connection can NOT take packets now, because it is not established or
    /// its output is backed up. Senders skip their round then.
    virtual bool cannotSend() const = 0;

    /// True from the end of the handshake until the connection is lost.
    virtual bool isConnected() const = 0;

    /// What the other end accepts, as told in the handshake; the defaults while not connected.
    virtual NetworkLimits getRemoteLimits() const = 0;

    /// Runs `function` on the connection's strand, that is never at the same time as another callback of this
    /// connection, inside a write batch of its own. Packets sent there leave as one gathered write. The
    /// strand of a client's peer lives through reconnections; on a closed connection the function is dropped.
    virtual void post(std::function<void()> function) = 0;

    /// Closes the connection and tells the other end the reason. A client's peer connects again after its
    /// back-off.
    virtual void disconnect(const std::string& reason) = 0;

    /// Opens a channel for a session of `type` at the service of that name. Used by Client::Query only.
    virtual std::shared_ptr<Channel> openChannel(const std::string& service, short type,
                                                 ChannelListener& listener) = 0;
};

/// The other end of a connection: who it is and where. A service's peer lives as long as its connection, a
/// client's peer as long as the host keeps it, through all reconnections. Names and blocks of a client's peer
/// are those of the server connected last; read them on its strand.
class QELNET_EXPORT Peer {
  public:
    /// `networkPeer` is not owned and may be null: such a peer is not connected.
    Peer(Identity identity, std::string address, NetworkPeer* networkPeer);
    virtual ~Peer();
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    /// From the authenticated certificate: the common name is the user, the organizational unit the device.
    const std::string& getUserName() const { return identity_.user; }
    const std::string& getDeviceName() const { return identity_.device; }

    /// The first and the second 32-byte identity block.
    const IdentityBlock& getUserBlock() const { return identity_.userBlock; }
    const IdentityBlock& getDeviceBlock() const { return identity_.deviceBlock; }

    /// "ADDRESS:PORT" of the other end, IPv6 addresses in brackets.
    const std::string& getAddress() const { return address_; }

    NetworkPeer* getNetworkPeer() const { return networkPeer_; }

  protected:
    void setIdentity(Identity identity, std::string address);

  private:
    Identity identity_;
    std::string address_;
    NetworkPeer* networkPeer_;
};

}  // namespace qel
