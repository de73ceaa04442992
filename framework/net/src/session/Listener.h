#pragma once

#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "qelNet/Network.h"
#include "session/AsioExecutor.h"
#include "session/Counters.h"
#include "session/ServiceConnection.h"
#include "session/TlsSocket.h"

namespace qel {

/// One listening address: accepts sockets, lets TLS decide who they are, and makes connections of those it may let in.
/// Who only stops in the handshake costs one socket and is pushed out by the next ones. Used on its strand.
class Listener : public std::enable_shared_from_this<Listener> {
  public:
    struct Setup {
        std::vector<Service*> services;
        std::vector<Service*> ticked;  ///< those of them that this listener ticks
        std::shared_ptr<Credentials> credentials;
        NetworkLimits limits;
        std::shared_ptr<asio::io_context> context;
        std::shared_ptr<Counters> counters;
        ItemStore* store = nullptr;
    };

    explicit Listener(Setup setup);

    /// Binds and begins to accept. From any thread, once.
    Listening open(const std::string& address);
    /// Accepts no more and closes every connection after what waits for commits has left. From any thread.
    void stop(const std::string& reason);
    /// Ends what is still there at once. From any thread.
    void abort();

  private:
    struct Incoming {
        std::shared_ptr<TlsSocket> socket;
        std::shared_ptr<AsioExecutor> executor;
        std::shared_ptr<const Credentials::State> credentials;
        asio::ip::tcp::endpoint remote;
        unsigned age = 0;
    };
    using IncomingList = std::list<std::shared_ptr<Incoming>>;

    void accept();
    void accepted(asio::ip::tcp::socket socket);
    void acceptLater();
    void begin(const std::shared_ptr<Incoming>& incoming);
    void handshakeDone(const std::shared_ptr<Incoming>& incoming, const std::string& error);
    bool forget(const std::shared_ptr<Incoming>& incoming);
    void dropOldest();
    void letIn(const std::shared_ptr<Incoming>& incoming);
    std::string refusalFor(const asio::ip::address& address) const;
    void connectionEnded(const std::shared_ptr<ServiceConnection>& connection,
                         const asio::ip::address& address);
    void scheduleTick();
    void tick();
    void logRefusal(const asio::ip::tcp::endpoint& remote, const std::string& why);

    Setup setup_;
    std::shared_ptr<AsioExecutor> executor_;
    asio::ip::tcp::acceptor acceptor_;
    asio::steady_timer timer_;
    asio::steady_timer pause_;
    IncomingList incoming_;
    std::unordered_set<std::shared_ptr<ServiceConnection>> connections_;
    std::map<asio::ip::address, unsigned> perAddress_;
    unsigned refusalsLogged_ = 0;
    unsigned refusalsUnlogged_ = 0;
    bool stopped_ = false;
};

/// "1.2.3.4:5", "[::1]:5".
std::string describeEndpoint(const asio::ip::tcp::endpoint& endpoint);

/// Splits "HOST:PORT"; hosts of colons stand in brackets. False when it is none.
bool splitAddress(const std::string& address, std::string& host, std::string& port);

}  // namespace qel
