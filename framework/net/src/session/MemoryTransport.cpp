#include "qelNet/MemoryTransport.h"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <utility>

#include "qelCore/Export.h"
#include "session/ClientPeer.h"
#include "session/ServiceConnection.h"

namespace qel {
namespace {

/// Runs what is posted when the test says so, on the test's thread.
class ManualExecutor : public Executor {
  public:
    void post(std::function<void()> function) override {
        const std::lock_guard<std::mutex> lock(mutex_);
        functions_.push_back(std::move(function));
        posted_.notify_one();
    }
    bool runsHere() const override { return true; }

    /// False when there was nothing to run.
    bool runAll() {
        bool any = false;
        while (auto function = next()) {
            function();
            any = true;
        }
        return any;
    }

    void waitForPost() {
        std::unique_lock<std::mutex> lock(mutex_);
        posted_.wait(lock, [this] { return !functions_.empty(); });
    }

  private:
    std::function<void()> next() {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (functions_.empty())
            return nullptr;
        auto function = std::move(functions_.front());
        functions_.pop_front();
        return function;
    }

    std::mutex mutex_;
    std::condition_variable posted_;
    std::deque<std::function<void()>> functions_;
};

/// One direction: bytes sent, and how many of them may be read.
struct Pipe {
    std::string bytes;
    std::size_t visible = 0;
    std::size_t capacity = 0;
    bool cut = false;
    bool held = false;
};

class MemoryLink : public Link {
  public:
    MemoryLink(std::shared_ptr<Pipe> in, std::shared_ptr<Pipe> out)
        : in_(std::move(in)), out_(std::move(out)) {}

    Result read(unsigned char* buffer, std::size_t size) override {
        const std::size_t count = std::min(size, in_->visible);
        if (count == 0)
            return {in_->cut && in_->bytes.empty() ? State::lost : State::wait, 0};
        std::memcpy(buffer, in_->bytes.data(), count);
        in_->bytes.erase(0, count);
        in_->visible -= count;
        return {State::done, count};
    }

    Result write(const char* data, std::size_t size) override {
        if (out_->cut)
            return {State::lost, 0};
        const std::size_t count =
            std::min(size, out_->capacity - std::min(out_->capacity, out_->bytes.size()));
        if (count == 0)
            return {State::wait, 0};
        out_->bytes.append(data, count);
        return {State::done, count};
    }

    void waitReadable() override { wantsRead_ = true; }
    void waitWritable() override { wantsWrite_ = true; }
    std::string getFailure() const override { return "the connection was lost"; }
    void close() override { out_->cut = true; }

    bool takeRead() {
        return (in_->visible > 0 || (in_->cut && in_->bytes.empty())) && std::exchange(wantsRead_, false);
    }
    bool takeWrite() {
        return (out_->bytes.size() < out_->capacity || out_->cut) && std::exchange(wantsWrite_, false);
    }

  private:
    std::shared_ptr<Pipe> in_;
    std::shared_ptr<Pipe> out_;
    bool wantsRead_ = false;
    bool wantsWrite_ = false;
};

}  // namespace

class QEL_HIDDEN MemoryTransport::Inner {
  public:
    Inner(std::vector<Service*> services, Options options)
        : services_(std::move(services)),
          options_(std::move(options)),
          network_(std::make_shared<ClientNetworkPeer>(clientExecutor_, nullptr)),
          peer_(network_) {}

    void connect();
    void cut();
    void deliver();
    bool deliverTo(Pipe& pipe, Connection& connection, MemoryLink& link);
    bool settle();
    void show(Pipe& pipe) const {
        if (!pipe.held)
            pipe.visible = pipe.bytes.size();
    }

    std::vector<Service*> services_;
    Options options_;
    std::shared_ptr<ManualExecutor> serviceExecutor_ = std::make_shared<ManualExecutor>();
    std::shared_ptr<ManualExecutor> clientExecutor_ = std::make_shared<ManualExecutor>();
    std::shared_ptr<Counters> counters_ = std::make_shared<Counters>();
    std::shared_ptr<Pipe> toService_;
    std::shared_ptr<Pipe> toClient_;
    std::shared_ptr<ServiceConnection> service_;
    std::shared_ptr<ClientConnection> client_;
    MemoryLink* serviceLink_ = nullptr;
    MemoryLink* clientLink_ = nullptr;
    std::shared_ptr<ClientNetworkPeer> network_;
    ClientPeer peer_;
};

void MemoryTransport::Inner::connect() {
    const bool heldToService = toService_ && toService_->held;
    const bool heldToClient = toClient_ && toClient_->held;
    toService_ = std::make_shared<Pipe>();
    toClient_ = std::make_shared<Pipe>();
    toService_->capacity = toClient_->capacity = options_.pipeBytes;
    auto serviceLink = std::make_unique<MemoryLink>(toService_, toClient_);
    auto clientLink = std::make_unique<MemoryLink>(toClient_, toService_);
    serviceLink_ = serviceLink.get();
    clientLink_ = clientLink.get();
    service_ = std::make_shared<ServiceConnection>(
        ConnectionSetup{options_.serverLimits, serviceExecutor_, counters_, nullptr, "the client"},
        std::move(serviceLink), services_, options_.client, "memory:1");
    ClientConnection::Handlers handlers;
    handlers.established = [this] { network_->attach(client_); };
    handlers.ended = [this](const std::string&, bool) { network_->detach(); };
    client_ = std::make_shared<ClientConnection>(
        ConnectionSetup{options_.clientLimits, clientExecutor_, counters_, nullptr, "the service"},
        std::move(clientLink), peer_, std::move(handlers));
    peer_.setIdentity(options_.server, "memory:2");
    service_->start();
    client_->start();
    deliver();
    toService_->held = heldToService;
    toClient_->held = heldToClient;
}

bool MemoryTransport::Inner::deliverTo(Pipe& pipe, Connection& connection, MemoryLink& link) {
    show(pipe);
    if (connection.isEnded() || !link.takeRead())
        return false;
    connection.readable();
    return true;
}

/// Runs what was posted, commits included, until there is nothing more to run.
bool MemoryTransport::Inner::settle() {
    bool any = false;
    for (;;) {
        bool ran = serviceExecutor_->runAll();
        ran = clientExecutor_->runAll() || ran;
        if (service_->awaitsCommit()) {
            serviceExecutor_->waitForPost();
            continue;
        }
        if (!service_->isEnded() && serviceLink_->takeWrite()) {
            service_->writable();
            ran = true;
        }
        if (!client_->isEnded() && clientLink_->takeWrite()) {
            client_->writable();
            ran = true;
        }
        any = any || ran;
        if (!ran)
            return any;
    }
}

void MemoryTransport::Inner::deliver() {
    for (;;) {
        bool moved = settle();
        moved = deliverTo(*toService_, *service_, *serviceLink_) || moved;
        moved = settle() || moved;
        moved = deliverTo(*toClient_, *client_, *clientLink_) || moved;
        if (!moved)
            return;
    }
}

void MemoryTransport::Inner::cut() {
    for (Pipe* pipe : {toService_.get(), toClient_.get()}) {
        pipe->bytes.resize(pipe->visible);
        pipe->cut = true;
        pipe->held = false;
    }
    deliver();
    // A link that waits for nothing learns of the end with its next read.
    if (!service_->isEnded())
        service_->readable();
    if (!client_->isEnded())
        client_->readable();
    settle();
}

MemoryTransport::MemoryTransport(const std::vector<Service*>& services)
    : MemoryTransport(services, Options()) {}

MemoryTransport::MemoryTransport(const std::vector<Service*>& services, const Options& options)
    : inner_(std::make_unique<Inner>(services, options)) {
    inner_->connect();
}

MemoryTransport::~MemoryTransport() {
    cut();
    inner_->network_->stop("the transport is gone");
}

Peer* MemoryTransport::getPeer() const {
    return &inner_->peer_;
}

void MemoryTransport::deliver() {
    inner_->deliver();
}

void MemoryTransport::deliverToService() {
    inner_->settle();
    inner_->deliverTo(*inner_->toService_, *inner_->service_, *inner_->serviceLink_);
    inner_->settle();
}

void MemoryTransport::deliverToClient() {
    inner_->settle();
    inner_->deliverTo(*inner_->toClient_, *inner_->client_, *inner_->clientLink_);
    inner_->settle();
}

void MemoryTransport::holdToService(bool hold) {
    inner_->toService_->held = hold;
}
void MemoryTransport::holdToClient(bool hold) {
    inner_->toClient_->held = hold;
}

std::size_t MemoryTransport::pendingToService() const {
    return inner_->toService_->bytes.size();
}
std::size_t MemoryTransport::pendingToClient() const {
    return inner_->toClient_->bytes.size();
}

void MemoryTransport::injectToService(const std::string& bytes) {
    inner_->toService_->bytes += bytes;
}
void MemoryTransport::injectToClient(const std::string& bytes) {
    inner_->toClient_->bytes += bytes;
}

void MemoryTransport::cut() {
    cutAfter(0);
}

void MemoryTransport::cutAfter(std::size_t bytesToService) {
    inner_->toService_->visible = std::min(bytesToService, inner_->toService_->bytes.size());
    inner_->toClient_->visible = 0;
    inner_->cut();
}

void MemoryTransport::reconnect() {
    cut();
    inner_->connect();
}

bool MemoryTransport::isConnected() const {
    return inner_->client_->isEstablished() && inner_->service_->isEstablished();
}

std::string MemoryTransport::getServiceReason() const {
    return inner_->service_->getReason();
}
std::string MemoryTransport::getClientReason() const {
    return inner_->client_->getReason();
}

void MemoryTransport::advance(unsigned seconds) {
    for (unsigned i = 0; i < seconds; ++i) {
        inner_->service_->tick();
        inner_->client_->tick();
        inner_->deliver();
    }
}

}  // namespace qel
