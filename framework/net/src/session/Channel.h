#pragma once

#include <functional>
#include <memory>
#include <string>

namespace qel {

class Packet;
class Peer;

/// Who is told what happens on a channel. Called on the connection's executor, inside a write batch.
class ChannelListener {
  public:
    virtual ~ChannelListener() = default;
    virtual void channelOpened() {}
    /// False: nobody wanted the packet.
    virtual bool packetReceived(Peer& peer, Packet& packet) = 0;
    /// All packets of one burst have been handled.
    virtual void burstEnded() {}
    virtual void drained() {}
    virtual void tick() {}
    /// The last call.
    virtual void channelClosed(const std::string& reason) = 0;
};

/// One end of one session on a connection. From any thread, but in order only from one at a time.
class Channel {
  public:
    virtual ~Channel() = default;
    virtual bool send(Packet& packet) = 0;
    virtual bool canSend() = 0;
    virtual bool isOpen() const = 0;
    virtual bool isClosed() const = 0;
    virtual void close(const std::string& reason) = 0;
    /// After this the listener is never called again; waits for a call that is under way on another thread.
    virtual void forgetListener() = 0;
};

}  // namespace qel
