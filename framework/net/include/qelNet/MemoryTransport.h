#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "qelNet/Export.h"
#include "qelNet/Peer.h"

namespace qel {

class Service;

/// A client and a service connected inside one process without sockets or threads: handshake, frames,
/// sessions, batches and held-back answers are those of the real network, only TLS is left out. Nothing moves
/// until the test says so; all callbacks run on the thread that calls `deliver`. For tests.
class QELNET_EXPORT MemoryTransport {
  public:
    struct Options {
        Identity client;  ///< as the service sees the client
        Identity server;  ///< as the client sees the service
        NetworkLimits clientLimits;
        NetworkLimits serverLimits;
        std::size_t pipeBytes =
            16UL * 1024 * 1024;  ///< bytes that a direction takes before its writer must wait
    };

    /// Connected at once; the handshake happens with the first `deliver`. The services are not owned.
    explicit MemoryTransport(const std::vector<Service*>& services);
    MemoryTransport(const std::vector<Service*>& services, const Options& options);
    ~MemoryTransport();
    MemoryTransport(const MemoryTransport&) = delete;
    MemoryTransport& operator=(const MemoryTransport&) = delete;

    /// The peer to make a Client with. It lives as long as the transport, through `cut` and `reconnect`.
    Peer* getPeer() const;

    /// Moves bytes both ways, runs callbacks and waits for commits until nothing moves any more.
    void deliver();
    /// Moves what waits for the service, respectively for the client, once, and runs what follows from it
    /// there.
    void deliverToService();
    void deliverToClient();

    /// While held, bytes of that direction stay where they are, also in `deliver`.
    void holdToService(bool hold);
    void holdToClient(bool hold);

    /// Bytes that wait in a direction.
    std::size_t pendingToService() const;
    std::size_t pendingToClient() const;

    /// Gives the other end bytes as if they had come from the wire.
    void injectToService(const std::string& bytes);
    void injectToClient(const std::string& bytes);

    /// Cuts the connection; bytes under way are lost. With a number, the service still receives that many of
    /// them first, as when a cable is pulled in the middle of a frame.
    void cut();
    void cutAfter(std::size_t bytesToService);
    /// A new connection between the same two ends; the old one is cut when it still stands.
    void reconnect();
    /// True while both ends hold the connection for established.
    bool isConnected() const;

    /// Why the connection ended, as the service and as the client put it; empty while it stands.
    std::string getServiceReason() const;
    std::string getClientReason() const;

    /// Lets time pass for keep-alives, timeouts and ticks, in whole seconds.
    void advance(unsigned seconds);

  private:
    class Inner;
    std::unique_ptr<Inner> inner_;
};

}  // namespace qel
