#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "qelNet/Credentials.h"
#include "qelNet/Export.h"
#include "qelNet/Limits.h"
#include "qelNet/Peer.h"

namespace qel {

class ItemStore;
class Service;

/// What Network::listen did: the address that is listened on, or why not.
struct QELNET_EXPORT Listening {
    std::string address;  ///< "HOST:PORT" with the port in use; empty when it failed
    unsigned short port = 0;
    std::string error;  ///< one sentence when it failed
    explicit operator bool() const { return error.empty(); }
};

/// How Network::connect behaves and whom it tells. The handlers run on the strand of the peer, inside a write
/// batch.
struct QELNET_EXPORT ConnectOptions {
    NetworkLimits limits;
    /// The name that the server's certificate must bear; empty: the host part of the address that was
    /// dialled.
    std::string serverName;
    /// Pause before the second try, doubled for each further one, each drawn between half and the whole of
    /// it.
    unsigned backoffMilliseconds = 500;
    unsigned backoffMaxSeconds = 60;
    /// The connection is established: the moment to make new queries.
    std::function<void(Peer&)> connected;
    /// An established connection is lost, or a try failed; the sentence says why. The next try follows by
    /// itself.
    std::function<void(Peer&, const std::string& reason, bool wasConnected)> lost;
};

/// Counters since the start of a network, and what is open now.
struct QELNET_EXPORT NetworkStatistics {
    unsigned long long accepted = 0;       ///< sockets accepted
    unsigned long long authenticated = 0;  ///< of these, completed handshakes
    unsigned long long connectionsNow = 0;
    unsigned long long handshakesNow = 0;
    unsigned long long sessionsNow = 0;
    unsigned long long packetsReceived = 0;
    unsigned long long packetsSent = 0;
    unsigned long long bytesReceived = 0;
    unsigned long long bytesSent = 0;
    unsigned long long bursts = 0;         ///< read bursts handled, each one write batch
    unsigned long long commitsFailed = 0;  ///< batches whose answers were dropped
    unsigned long long reconnects = 0;     ///< tries to connect after the first
    /// Refused or closed connections by short reason: "certificate", "garbage", "handshake timeout", "limit",
    /// …
    std::map<std::string, unsigned long long> refused;
};

/// The network of one process: its I/O threads, listeners and outgoing connections, TLS 1.3 with certificates
/// at both ends. All operations may be called from any thread, `stop` not from a callback. Callbacks of one
/// connection never run at the same time; each runs inside a write batch of the store, so none waits for a
/// disk.
class QELNET_EXPORT Network {
  public:
    struct Options {
        /// I/O threads. Two serve hundreds of connections: they only decode, and the store's own thread
        /// commits.
        unsigned threads = 2;
        /// The store whose write batches the callbacks run in; null: the process's current one, looked up at
        /// each callback. Without any store answers leave at once.
        ItemStore* store = nullptr;
    };

    Network();
    explicit Network(const Options& options);
    ~Network();
    Network(const Network&) = delete;
    Network& operator=(const Network&) = delete;

    /// Listens on "HOST:PORT" (IPv6 hosts in brackets, port 0 picks a free one) and offers the services,
    /// which the caller owns and keeps until `stop`.
    Listening listen(const std::string& address, const std::vector<Service*>& services,
                     std::shared_ptr<Credentials> credentials, const NetworkLimits& limits = {});

    /// Connects to the first of the servers ("HOST:PORT", in order) that answers, and again whenever the
    /// connection is lost, resolving names anew at each try. Returns at once. The connection ends when the
    /// last reference to the peer is gone or the network stops; clients and queries of it must be gone
    /// before.
    std::shared_ptr<Peer> connect(const std::vector<std::string>& servers,
                                  std::shared_ptr<Credentials> credentials, ConnectOptions options = {});

    /// Stops accepting, closes every connection with the reason (answers that wait for a commit are given up
    /// to `milliseconds` to become durable and leave), releases all sessions and ends the threads. A second
    /// call does nothing.
    void stop(const std::string& reason = "the other end is shutting down", unsigned milliseconds = 2000);

    NetworkStatistics getStatistics() const;

    class Core;

  private:
    std::shared_ptr<Core> core_;
};

}  // namespace qel
