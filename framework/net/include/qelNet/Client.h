#pragma once

#include <functional>
#include <memory>
#include <string>

#include "qelNet/Export.h"
#include "qelNet/Service.h"

namespace qel {

class Packet;
class Peer;

/// The client's end of one service of a peer. It only names both; its queries do the talking. A small value
/// that does not own the peer, which must outlive it.
class QELNET_EXPORT Client : public Object {
    QEL_CLASS(Client, Object)

    class Query;

    /// `name` is the name of the service at the peer; it is copied.
    Client(Peer* peer, const char* name);
    Client(const Client&);
    Client(Client&&) noexcept;
    Client& operator=(const Client&);
    Client& operator=(Client&&) noexcept;

    ~Client() override;

    Peer* getPeer() const { return peer_; }
    const std::string& getName() const { return name_; }

  private:
    Peer* peer_;
    std::string name_;
};

/// One session as the client sees it, opened at the service that its client names. It lives on one
/// connection: opened while the peer is not connected it waits for the next connection, and once that is lost
/// the query is closed for good and the host makes a new one. Packets of the other end, ticks and handlers
/// come on the strand of the peer; post there what must not run at the same time. Make queries and set their
/// handlers on the strand too (in ConnectOptions::connected or a posted function), or before the peer is
/// connected. Destroying a query waits for a callback of it that is running on another thread, and none
/// follows.
class QELNET_EXPORT Client::Query : public Service {
    QEL_CLASS(Query, Service)

    /// Opens a session of that type. `client` must outlive the query.
    Query(Client* client, short sessionType);
    ~Query() override;
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;

    /// Handles one packet of the service; it is offered here first. The base declines.
    bool packetReceived(Peer* peer, Packet* packet) override;
    /// Handles a packet that the first one declined; declined again, it is dropped with a log line.
    virtual bool packetReceived(Packet* packet);

    Client* getClient() const { return client_; }
    short getSessionType() const { return sessionType_; }

    /// Encodes and queues a packet; the caller keeps its reference. It does not wait for any commit. False
    /// when the query is closed or the packet is larger than the other end accepts (logged).
    bool sendPacket(Packet* packet);

    /// True once the service has accepted the session, until it or the connection ends.
    bool isOpen() const;
    /// True when the session is over: refused, closed by the service, or its connection lost.
    bool isClosed() const;

    /// False while a sender of large data must pause until the drained handler is called.
    bool canSend() const;
    /// Called on the strand when canSend has become true again after it was false.
    void setDrainedHandler(std::function<void()> handler);
    /// Called on the strand when the service has accepted the session.
    void setOpenedHandler(std::function<void()> handler);
    /// Called on the strand, once, when the session is over, with the reason in one sentence.
    void setClosedHandler(std::function<void(const std::string&)> handler);
    /// Called on the strand after all packets of one burst have been handled, so that an answer to all of
    /// them is made once: the place to send further events from.
    void setBurstHandler(std::function<void()> handler);

  private:
    class Listener;

    Client* client_;
    short sessionType_;
    std::unique_ptr<Listener> listener_;
    std::shared_ptr<Channel> channel_;
};

}  // namespace qel
