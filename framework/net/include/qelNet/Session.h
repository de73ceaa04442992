#pragma once

#include <functional>
#include <memory>

#include "qelCore/Object.h"
#include "qelNet/Export.h"

namespace qel {

class Channel;
class Packet;
class Peer;
class Service;
class SessionBinding;

/// The service's end of one session of one connection. The framework makes it through the service's session
/// factory, binds it to service and peer, and releases it when the session or its connection ends. All its
/// operations run on the strand of its connection, never two at a time, each inside a write batch: what they
/// store is committed together, and packets sent with sendPacket leave only when that is durable.
class QELNET_EXPORT Session : public Object {
    QEL_CLASS(Session, Object)

    ~Session() override;

    /// Called once, when service and peer are bound and before the first packet.
    virtual void peerAttached();
    /// The last call: the session is over. Gives up the reference its creator held, which destroys the
    /// session; overriders call the base at their end.
    virtual void release();
    /// Called about once a second.
    virtual void tick();
    /// Handles one packet; the packet belongs to the framework and is valid during the call (take a reference
    /// to keep it). False declines it: the framework then offers it to the service, and drops it with a log
    /// line when that declines too.
    virtual bool packetReceived(Packet* packet);

    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// Null until bound.
    Service* getService() const { return service_; }
    Peer* getPeer() const { return peer_; }

    /// Encodes and queues a packet; the caller keeps its reference. Inside a callback that stored something
    /// it stays behind the commit; when the commit fails it is dropped and the connection closed. Packets of
    /// one session keep their order. False when the session is over or the packet is larger than the other
    /// end accepts (logged).
    bool sendPacket(Packet* packet);

    /// False while so much output of this session waits that a sender of large data must pause: it then waits
    /// for the drained handler. Acknowledgements need not ask. Sessions of one connection get equal shares of
    /// it.
    bool canSend() const;

    /// Called, like all else, on the strand, when canSend has become true again after it was false.
    void setDrainedHandler(std::function<void()> handler);

    /// Ends this session and tells the other end why; release follows after the running callback has
    /// returned.
    void close(const char* reason);

  protected:
    Session();

  private:
    friend class SessionBinding;

    Service* service_ = nullptr;
    Peer* peer_ = nullptr;
    std::shared_ptr<Channel> channel_;
    std::function<void()> drained_;
};

}  // namespace qel
