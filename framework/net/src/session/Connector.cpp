#include "session/Connector.h"

#include <asio/connect.hpp>

#include <algorithm>
#include <chrono>
#include <utility>

#include "qelCore/logging/MessageStream.h"
#include "session/Listener.h"
#include "session/TlsConnectionLink.h"
#include "wire/CredentialsState.h"

namespace qel {

using asio::ip::tcp;

Connector::Connector(Setup setup)
    : setup_(std::move(setup)),
      executor_(std::make_shared<AsioExecutor>(setup_.context)),
      resolver_(executor_->strand()),
      deadline_(executor_->strand()),
      pause_(executor_->strand()),
      ticker_(executor_->strand()),
      peer_(std::make_unique<ClientPeer>(std::make_shared<ClientNetworkPeer>(executor_, setup_.store))) {}

void Connector::start() {
    executor_->post([self = shared_from_this()] {
        self->scheduleTick();
        self->tryServer();
    });
}

std::string Connector::expectedName() const {
    std::string host;
    std::string port;
    splitAddress(server(), host, port);
    return setup_.options.serverName.empty() ? host : setup_.options.serverName;
}

// ----- one try

void Connector::tryServer() {
    if (stopped_)
        return;
    if (attempt_++ > 0)
        setup_.counters->reconnects++;
    std::string host;
    std::string port;
    if (!splitAddress(server(), host, port))
        return failed("\"" + server() + "\" is no address; HOST:PORT is expected", false);
    watchTry();
    resolver_.async_resolve(
        host, port,
        [self = shared_from_this(), attempt = attempt_](asio::error_code error,
                                                        const tcp::resolver::results_type& endpoints) {
            if (self->stopped_ || attempt != self->attempt_)
                return;
            if (error)
                return self->failed(
                    "the name of " + self->server() + " cannot be resolved: " + error.message(), false);
            self->resolved(endpoints);
        });
}

void Connector::watchTry() {
    deadline_.expires_after(std::chrono::seconds(std::max(1u, setup_.options.limits.handshakeSeconds)));
    deadline_.async_wait([self = shared_from_this(), attempt = attempt_](asio::error_code error) {
        if (!error && !self->stopped_ && attempt == self->attempt_ && !self->connection_)
            self->failed(self->server() + " did not answer within " +
                             std::to_string(self->setup_.options.limits.handshakeSeconds) + " seconds",
                         false);
    });
}

void Connector::resolved(const tcp::resolver::results_type& results) {
    // A host may have an address that swallows everything until the try is over: the next round begins with the next one.
    std::vector<tcp::endpoint> endpoints;
    for (const auto& result : results)
        endpoints.push_back(result.endpoint());
    if (!endpoints.empty())
        std::rotate(endpoints.begin(),
                    endpoints.begin() + static_cast<std::ptrdiff_t>(round_ % endpoints.size()),
                    endpoints.end());
    socket_ = std::make_shared<tcp::socket>(executor_->strand());
    // The operation looks at the socket once more when it was given up, so the socket lives as long as its handler.
    const auto handler = [self = shared_from_this(), socket = socket_, attempt = attempt_](
                             asio::error_code error, const tcp::endpoint&) {
        if (self->stopped_ || attempt != self->attempt_)
            return;
        if (error)
            return self->failed(self->server() + " cannot be reached: " + error.message(), false);
        self->connected();
    };
    asio::async_connect(*socket_, endpoints, handler);
}

void Connector::connected() {
    credentials_ = setup_.credentials->getState();
    tls_ = std::make_shared<TlsSocket>(std::move(*socket_), executor_, credentials_, expectedName());
    socket_.reset();
    tls_->handshake([self = shared_from_this(), attempt = attempt_](const std::string& error) {
        if (!self->stopped_ && attempt == self->attempt_)
            self->secured(error);
    });
}

void Connector::secured(const std::string& error) {
    if (!error.empty())
        return failed(server() + ": " + error, false);
    peer_->setIdentity(
        Identity::make(tls_->getRemoteUser(), tls_->getRemoteDevice(), credentials_->siteKey()), server());
    auto link = std::make_unique<TlsConnectionLink>(tls_);
    TlsConnectionLink* tied = link.get();
    ClientConnection::Handlers handlers;
    handlers.established = [this] { established(); };
    handlers.ended = [this](const std::string& reason, bool wasEstablished) {
        ended(reason, wasEstablished);
    };
    connection_ = std::make_shared<ClientConnection>(
        ConnectionSetup{setup_.options.limits, executor_, setup_.counters, setup_.store, server()},
        std::move(link), *peer_, std::move(handlers));
    tied->setConnection(connection_);
    tls_.reset();
    deadline_.cancel();
    const auto starting = connection_;
    starting->start();
}

// ----- what becomes of it

void Connector::established() {
    logging::MessageStream(1, 2) << "connected to " << server();
    round_ = 0;
    lastReason_.clear();
    peer_->getNetwork()->attach(connection_);
    if (const auto handler = setup_.options.connected)
        handler(*peer_);
}

void Connector::ended(const std::string& reason, bool wasEstablished) {
    // Called by the connection that is ending: it must survive its own call.
    const auto over = std::exchange(connection_, nullptr);
    peer_->getNetwork()->detach();
    if (stopped_)
        return;
    executor_->post([self = shared_from_this(), over, reason, wasEstablished] {
        self->failed(self->server() + ": " + reason, wasEstablished);
    });
}

void Connector::failed(const std::string& reason, bool wasConnected) {
    if (stopped_)
        return;
    ++attempt_;  // whatever still belongs to this try is of no interest any more
    deadline_.cancel();
    resolver_.cancel();
    closeSocket();
    if (tls_)
        std::exchange(tls_, nullptr)->close();
    tellLost(reason, wasConnected);
    if (stopped_)
        return;
    index_ = wasConnected ? 0 : (index_ + 1) % setup_.servers.size();
    if (index_ == 0)
        pauseThenTry();
    else
        tryServer();
}

void Connector::closeSocket() {
    asio::error_code ignored;
    if (const auto socket = std::exchange(socket_, nullptr))
        socket->close(ignored);
}

void Connector::tellLost(const std::string& reason, bool wasConnected) {
    // A server that is away for a night is worth one line, not one for each try.
    if (wasConnected || reason != lastReason_)
        logging::MessageStream(2, 2) << (wasConnected ? "connection lost: " : "cannot connect: ") << reason;
    lastReason_ = reason;
    if (const auto handler = setup_.options.lost)
        peer_->getNetwork()->run([&] { handler(*peer_, reason, wasConnected); });
}

void Connector::pauseThenTry() {
    const unsigned long long longest = std::max(1u, setup_.options.backoffMaxSeconds) * 1000ULL;
    const unsigned long long shortest = std::max(1u, setup_.options.backoffMilliseconds);
    const unsigned long long whole = std::min(longest, shortest << std::min(round_, 20u));
    ++round_;
    std::uniform_int_distribution<unsigned long long> draw(whole / 2, whole);
    pause_.expires_after(std::chrono::milliseconds(draw(random_)));
    pause_.async_wait([self = shared_from_this()](asio::error_code error) {
        if (!error)
            self->tryServer();
    });
}

void Connector::scheduleTick() {
    if (stopped_)
        return;
    ticker_.expires_after(std::chrono::seconds(1));
    ticker_.async_wait([self = shared_from_this()](asio::error_code error) {
        if (error || self->stopped_)
            return;
        if (const auto connection = self->connection_)
            connection->tick();
        self->scheduleTick();
    });
}

void Connector::stop(const std::string& reason) {
    if (std::exchange(stopped_, true))
        return;
    deadline_.cancel();
    pause_.cancel();
    ticker_.cancel();
    resolver_.cancel();
    closeSocket();
    if (tls_)
        std::exchange(tls_, nullptr)->abandon();
    if (const auto connection = connection_) {
        connection->disconnect(reason);
        // Behind the farewell, which disconnect posts in its turn; both of us live until then.
        executor_->post([self = shared_from_this(), connection] {
            self->executor_->post([self, connection] { connection->abort(); });
        });
    }
    peer_->getNetwork()->stop(reason);
    setup_.options.connected = nullptr;
    setup_.options.lost = nullptr;
}

}  // namespace qel
