#include "session/Listener.h"

#include <chrono>
#include <cstring>
#include <utility>

#include "qelCore/ItemStore.h"
#include "qelCore/logging/MessageStream.h"
#include "session/CloseOnExec.h"
#include "session/TlsConnectionLink.h"
#include "wire/CredentialsState.h"

namespace qel {
namespace {

using asio::ip::tcp;

// Log lines about strangers per second; the others are only counted, so that nobody fills a disk from outside.
constexpr unsigned refusalLinesPerSecond = 10;
// The pause after a failed accept, which mostly means that this process has no file descriptors left.
constexpr std::chrono::milliseconds acceptPause{100};

std::string faultOf(const std::string& address, const asio::error_code& error) {
    return "cannot listen on " + address + ": " + error.message();
}

bool resolve(asio::io_context& context, const std::string& address, tcp::endpoint& endpoint,
             std::string& error) {
    std::string host;
    std::string port;
    if (!splitAddress(address, host, port)) {
        error = "\"" + address + "\" is no address; HOST:PORT is expected";
        return false;
    }
    asio::error_code code;
    tcp::resolver resolver(context);
    const auto found = resolver.resolve(host, port, tcp::resolver::passive, code);
    if (code || found.empty()) {
        error = faultOf(address, code);
        return false;
    }
    endpoint = found.begin()->endpoint();
    return true;
}

}  // namespace

std::string describeEndpoint(const tcp::endpoint& endpoint) {
    const std::string host = endpoint.address().to_string();
    return (endpoint.address().is_v6() ? "[" + host + "]" : host) + ":" + std::to_string(endpoint.port());
}

bool splitAddress(const std::string& address, std::string& host, std::string& port) {
    const std::size_t colon = address.rfind(':');
    if (colon == std::string::npos || colon + 1 == address.size())
        return false;
    host = address.substr(0, colon);
    port = address.substr(colon + 1);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    else if (host.find(':') != std::string::npos)
        return false;
    const bool digits = port.find_first_not_of("0123456789") == std::string::npos;
    return !host.empty() && digits && port.size() <= 5 && std::stoul(port) <= 65535;
}

Listener::Listener(Setup setup)
    : setup_(std::move(setup)),
      executor_(std::make_shared<AsioExecutor>(setup_.context)),
      acceptor_(executor_->strand()),
      timer_(executor_->strand()),
      pause_(executor_->strand()) {}

Listening Listener::open(const std::string& address) {
    Listening result;
    tcp::endpoint endpoint;
    if (!resolve(*setup_.context, address, endpoint, result.error))
        return result;
    asio::error_code error;
    acceptor_.open(endpoint.protocol(), error);
    if (!error) {
        closeOnExec(acceptor_.native_handle());
        acceptor_.set_option(tcp::acceptor::reuse_address(true), error);
    }
    if (!error)
        acceptor_.bind(endpoint, error);
    if (!error)
        acceptor_.listen(asio::socket_base::max_listen_connections, error);
    if (error) {
        result.error = faultOf(address, error);
        return result;
    }
    const tcp::endpoint bound = acceptor_.local_endpoint(error);
    result.port = bound.port();
    std::string host;
    std::string port;
    splitAddress(address, host, port);
    result.address =
        (host.find(':') == std::string::npos ? host : "[" + host + "]") + ":" + std::to_string(result.port);
    executor_->post([self = shared_from_this()] {
        self->accept();
        self->scheduleTick();
    });
    return result;
}

// ----- strangers

void Listener::accept() {
    if (stopped_)
        return;
    // Each socket belongs to a strand of its own from the start.
    auto executor = std::make_shared<AsioExecutor>(setup_.context);
    auto socket = std::make_shared<tcp::socket>(executor->strand());
    acceptor_.async_accept(*socket, [self = shared_from_this(), socket, executor](asio::error_code error) {
        if (self->stopped_)
            return;
        if (error) {
            logging::MessageStream(3, 2) << "cannot accept a connection: " << error.message();
            return self->acceptLater();
        }
        auto incoming = std::make_shared<Incoming>();
        incoming->executor = executor;
        incoming->credentials = self->setup_.credentials->getState();
        asio::error_code gone;
        incoming->remote = socket->remote_endpoint(gone);
        if (!gone) {
            incoming->socket = std::make_shared<TlsSocket>(std::move(*socket), executor,
                                                           incoming->credentials, std::string());
            self->begin(incoming);
        }
        self->accept();
    });
}

void Listener::acceptLater() {
    pause_.expires_after(acceptPause);
    pause_.async_wait([self = shared_from_this()](asio::error_code error) {
        if (!error)
            self->accept();
    });
}

void Listener::begin(const std::shared_ptr<Incoming>& incoming) {
    setup_.counters->accepted++;
    setup_.counters->handshakesNow++;
    incoming_.push_back(incoming);
    if (incoming_.size() > setup_.limits.handshakes)
        dropOldest();
    incoming->executor->post([self = shared_from_this(), incoming] {
        incoming->socket->handshake(
            [self, weak = std::weak_ptr<Incoming>(incoming)](const std::string& error) {
                self->executor_->post([self, weak, error] {
                    if (const auto done = weak.lock())
                        self->handshakeDone(done, error);
                });
            });
    });
}

bool Listener::forget(const std::shared_ptr<Incoming>& incoming) {
    const std::size_t before = incoming_.size();
    incoming_.remove(incoming);
    if (incoming_.size() == before)
        return false;
    setup_.counters->handshakesNow--;
    return true;
}

void Listener::dropOldest() {
    const auto oldest = incoming_.front();
    forget(oldest);
    setup_.counters->refuse("handshake crowded out");
    logRefusal(oldest->remote, "too many others are in the handshake, and it is the oldest of them");
    oldest->executor->post([oldest] { oldest->socket->abandon(); });
}

void Listener::handshakeDone(const std::shared_ptr<Incoming>& incoming, const std::string& error) {
    if (!forget(incoming))
        return;
    if (stopped_)
        return incoming->executor->post([incoming] { incoming->socket->abandon(); });
    if (error.empty())
        return letIn(incoming);
    const char* kind = incoming->socket->getFailureKind();
    setup_.counters->refuse(kind);
    logRefusal(incoming->remote, error);
    // A certificate's owner is told what is wrong with it; who speaks something else is not listened to any longer.
    const bool tell = std::strcmp(kind, "certificate") == 0;
    incoming->executor->post(
        [incoming, tell] { tell ? incoming->socket->close() : incoming->socket->abandon(); });
}

void Listener::logRefusal(const tcp::endpoint& remote, const std::string& why) {
    if (refusalsLogged_++ < refusalLinesPerSecond)
        logging::MessageStream(2, 2) << "a connection from " << describeEndpoint(remote)
                                     << " is refused: " << why;
    else
        ++refusalsUnlogged_;
}

// ----- peers

std::string Listener::refusalFor(const asio::ip::address& address) const {
    if (connections_.size() >= setup_.limits.connections)
        return "there are " + std::to_string(connections_.size()) +
               " connections already, the limit of this server";
    const auto found = perAddress_.find(address);
    if (found != perAddress_.end() && found->second >= setup_.limits.connectionsPerAddress)
        return "there are " + std::to_string(found->second) + " connections from " + address.to_string() +
               " already, the limit for one address";
    return {};
}

void Listener::letIn(const std::shared_ptr<Incoming>& incoming) {
    Identity client = Identity::make(incoming->socket->getRemoteUser(), incoming->socket->getRemoteDevice(),
                                     incoming->credentials->siteKey());
    const asio::ip::address address = incoming->remote.address();
    const std::string where = describeEndpoint(incoming->remote);
    const std::string label = "\"" + client.user + "\" of \"" + client.device + "\" at " + where;
    auto link = std::make_unique<TlsConnectionLink>(incoming->socket);
    TlsConnectionLink* tied = link.get();
    auto connection = std::make_shared<ServiceConnection>(
        ConnectionSetup{setup_.limits, incoming->executor, setup_.counters, setup_.store, label},
        std::move(link), setup_.services, std::move(client), where, refusalFor(address));
    tied->setConnection(connection);
    connections_.insert(connection);
    ++perAddress_[address];
    setup_.counters->connectionsNow++;
    connection->setEndedHandler(
        [weak = weak_from_this(), raw = std::weak_ptr<ServiceConnection>(connection), address] {
            const auto self = weak.lock();
            const auto ended = raw.lock();
            if (self && ended)
                self->executor_->post([self, ended, address] { self->connectionEnded(ended, address); });
        });
    incoming->executor->post([connection] { connection->start(); });
}

void Listener::connectionEnded(const std::shared_ptr<ServiceConnection>& connection,
                               const asio::ip::address& address) {
    if (connections_.erase(connection) == 0)
        return;
    setup_.counters->connectionsNow--;
    const auto found = perAddress_.find(address);
    if (found != perAddress_.end() && --found->second == 0)
        perAddress_.erase(found);
}

// ----- time

void Listener::scheduleTick() {
    if (stopped_)
        return;
    timer_.expires_after(std::chrono::seconds(1));
    timer_.async_wait([self = shared_from_this()](asio::error_code error) {
        if (!error)
            self->tick();
    });
}

void Listener::tick() {
    const auto waiting = incoming_;
    for (const auto& incoming : waiting) {
        if (++incoming->age < setup_.limits.handshakeSeconds || !forget(incoming))
            continue;
        setup_.counters->refuse("handshake timeout");
        logRefusal(incoming->remote, "it did not finish the TLS handshake within " +
                                         std::to_string(setup_.limits.handshakeSeconds) + " seconds");
        incoming->executor->post([incoming] { incoming->socket->abandon(); });
    }
    for (const auto& connection : connections_)
        connection->postTick();
    if (refusalsUnlogged_ > 0)
        logging::MessageStream(2, 2) << refusalsUnlogged_ << " more connections were refused within a second";
    refusalsLogged_ = refusalsUnlogged_ = 0;
    if (!setup_.ticked.empty()) {
        WriteBatch batch(setup_.store ? setup_.store : ItemStore::current());
        for (Service* service : setup_.ticked)
            service->tick();
    }
    scheduleTick();
}

// ----- end

void Listener::stop(const std::string& reason) {
    executor_->post([self = shared_from_this(), reason] {
        self->stopped_ = true;
        asio::error_code ignored;
        self->acceptor_.close(ignored);
        self->timer_.cancel();
        self->pause_.cancel();
        for (const auto& incoming : self->incoming_) {
            self->setup_.counters->handshakesNow--;
            incoming->executor->post([incoming] { incoming->socket->abandon(); });
        }
        self->incoming_.clear();
        for (const auto& connection : self->connections_)
            connection->finish(reason);
    });
}

void Listener::abort() {
    executor_->post([self = shared_from_this()] {
        for (const auto& connection : self->connections_)
            connection->abort();
    });
}

}  // namespace qel
