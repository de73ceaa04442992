#pragma once

#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "qelNet/Network.h"
#include "session/AsioExecutor.h"
#include "session/ClientPeer.h"
#include "session/Counters.h"
#include "session/TlsSocket.h"

namespace qel {

/// Keeps one client's peer connected: tries the servers in order, each with names resolved anew, waits longer after each
/// round that failed, and begins again when a connection is lost. No fault is final. Used on its strand.
class Connector : public std::enable_shared_from_this<Connector> {
  public:
    struct Setup {
        std::vector<std::string> servers;
        std::shared_ptr<Credentials> credentials;
        ConnectOptions options;
        std::shared_ptr<asio::io_context> context;
        std::shared_ptr<Counters> counters;
        ItemStore* store = nullptr;
    };

    explicit Connector(Setup setup);

    ClientPeer& getPeer() { return *peer_; }
    const std::shared_ptr<AsioExecutor>& getExecutor() const { return executor_; }

    void start();
    /// Ends the connection and all tries; nothing is called afterwards. On the strand.
    void stop(const std::string& reason);

  private:
    void tryServer();
    void resolved(const asio::ip::tcp::resolver::results_type& results);
    void connected();
    void secured(const std::string& error);
    void established();
    void ended(const std::string& reason, bool wasEstablished);
    /// This try is over; the next server follows, or a pause.
    void failed(const std::string& reason, bool wasConnected);
    void closeSocket();
    void tellLost(const std::string& reason, bool wasConnected);
    void pauseThenTry();
    void watchTry();
    void scheduleTick();
    std::string expectedName() const;
    const std::string& server() const { return setup_.servers[index_]; }

    Setup setup_;
    std::shared_ptr<AsioExecutor> executor_;
    asio::ip::tcp::resolver resolver_;
    asio::steady_timer deadline_;
    asio::steady_timer pause_;
    asio::steady_timer ticker_;
    std::unique_ptr<ClientPeer> peer_;
    std::shared_ptr<asio::ip::tcp::socket> socket_;
    std::shared_ptr<const Credentials::State> credentials_;
    std::shared_ptr<TlsSocket> tls_;
    std::shared_ptr<ClientConnection> connection_;
    std::size_t index_ = 0;
    unsigned round_ = 0;
    unsigned long long attempt_ = 0;
    std::string lastReason_;
    std::minstd_rand random_{std::random_device{}()};
    bool stopped_ = false;
};

}  // namespace qel
