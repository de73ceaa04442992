#include "qelNet/Network.h"

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>

#include <algorithm>
#include <chrono>
#include <future>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <utility>

#include "qelCore/Export.h"
#include "qelCore/logging/MessageStream.h"
#include "session/Connector.h"
#include "session/Listener.h"

namespace qel {

class QEL_HIDDEN Network::Core : public std::enable_shared_from_this<Network::Core> {
  public:
    explicit Core(const Options& options);
    ~Core();

    Listening listen(const std::string& address, const std::vector<Service*>& services,
                     std::shared_ptr<Credentials> credentials, const NetworkLimits& limits);
    std::shared_ptr<Peer> connect(const std::vector<std::string>& servers,
                                  std::shared_ptr<Credentials> credentials, ConnectOptions options);
    void stop(const std::string& reason, unsigned milliseconds);
    NetworkStatistics getStatistics() const { return counters_->read(); }

  private:
    using Guard = asio::executor_work_guard<asio::io_context::executor_type>;

    void runThread();
    void stopConnector(const std::shared_ptr<Connector>& connector, const std::string& reason);
    void waitForConnections(unsigned milliseconds) const;
    std::vector<Service*> servicesToTick(const std::vector<Service*>& services);

    Options options_;
    std::shared_ptr<asio::io_context> context_;
    std::shared_ptr<Counters> counters_ = std::make_shared<Counters>();
    std::optional<Guard> guard_;
    std::vector<std::thread> threads_;
    std::mutex mutex_;
    std::vector<std::shared_ptr<Listener>> listeners_;
    std::set<std::shared_ptr<Connector>> connectors_;
    std::set<Service*> ticked_;
    bool stopped_ = false;
};

Network::Core::Core(const Options& options)
    : options_(options),
      context_(std::make_shared<asio::io_context>(static_cast<int>(std::max(1u, options.threads)))),
      guard_(asio::make_work_guard(*context_)) {
    for (unsigned i = 0; i < std::max(1u, options.threads); ++i)
        threads_.emplace_back([this] { runThread(); });
}

Network::Core::~Core() {
    stop("this end is gone", 0);
}

void Network::Core::runThread() {
    for (;;) {
        try {
            context_->run();
            return;
        } catch (const std::exception& fault) {
            logging::MessageStream(3, 2) << "a network callback failed: " << fault.what();
        }
    }
}

std::vector<Service*> Network::Core::servicesToTick(const std::vector<Service*>& services) {
    std::vector<Service*> mine;
    for (Service* service : services)
        if (ticked_.insert(service).second)
            mine.push_back(service);
    return mine;
}

Listening Network::Core::listen(const std::string& address, const std::vector<Service*>& services,
                                std::shared_ptr<Credentials> credentials, const NetworkLimits& limits) {
    const std::lock_guard<std::mutex> lock(mutex_);
    Listening result;
    if (stopped_ || !credentials) {
        result.error = stopped_ ? "the network has stopped" : "there are no credentials to listen with";
        return result;
    }
    Listener::Setup setup;
    setup.services = services;
    setup.ticked = servicesToTick(services);
    setup.credentials = std::move(credentials);
    setup.limits = limits;
    setup.limits.frameBytes = std::max(limits.frameBytes, largestHandshakeFrame);
    setup.context = context_;
    setup.counters = counters_;
    setup.store = options_.store;
    auto listener = std::make_shared<Listener>(std::move(setup));
    result = listener->open(address);
    if (result)
        listeners_.push_back(std::move(listener));
    return result;
}

std::shared_ptr<Peer> Network::Core::connect(const std::vector<std::string>& servers,
                                             std::shared_ptr<Credentials> credentials,
                                             ConnectOptions options) {
    Connector::Setup setup;
    setup.servers = servers.empty() ? std::vector<std::string>{""} : servers;
    setup.credentials = std::move(credentials);
    setup.options = std::move(options);
    setup.options.limits.frameBytes = std::max(setup.options.limits.frameBytes, largestHandshakeFrame);
    setup.context = context_;
    setup.counters = counters_;
    setup.store = options_.store;
    auto connector = std::make_shared<Connector>(std::move(setup));
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!stopped_) {
            connectors_.insert(connector);
            connector->start();
        }
    }
    return std::shared_ptr<Peer>(&connector->getPeer(), [weak = weak_from_this(), connector](Peer*) {
        if (const auto core = weak.lock())
            core->stopConnector(connector, "the client is done");
    });
}

void Network::Core::stopConnector(const std::shared_ptr<Connector>& connector, const std::string& reason) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (connectors_.erase(connector) == 0)
            return;
    }
    if (connector->getExecutor()->runsHere())
        return connector->stop(reason);
    // The caller may free what its handlers use as soon as this returns, so wait until none is running.
    std::promise<void> done;
    connector->getExecutor()->post([&] {
        connector->stop(reason);
        done.set_value();
    });
    done.get_future().wait();
}

void Network::Core::waitForConnections(unsigned milliseconds) const {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (counters_->connectionsNow > 0 && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
}

void Network::Core::stop(const std::string& reason, unsigned milliseconds) {
    std::vector<std::shared_ptr<Listener>> listeners;
    std::set<std::shared_ptr<Connector>> connectors;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (std::exchange(stopped_, true))
            return;
        listeners.swap(listeners_);
        connectors = connectors_;
    }
    for (const auto& connector : connectors)
        stopConnector(connector, reason);
    for (const auto& listener : listeners)
        listener->stop(reason);
    // Connections count from TLS on; those whose answers wait for a commit get this long.
    if (!listeners.empty())
        waitForConnections(std::max(1u, milliseconds));
    for (const auto& listener : listeners)
        listener->abort();
    guard_.reset();
    for (std::thread& thread : threads_)
        thread.join();
}

Network::Network() : Network(Options()) {}
Network::Network(const Options& options) : core_(std::make_shared<Core>(options)) {}
Network::~Network() {
    core_->stop("the other end is shutting down", 2000);
}

Listening Network::listen(const std::string& address, const std::vector<Service*>& services,
                          std::shared_ptr<Credentials> credentials, const NetworkLimits& limits) {
    return core_->listen(address, services, std::move(credentials), limits);
}

std::shared_ptr<Peer> Network::connect(const std::vector<std::string>& servers,
                                       std::shared_ptr<Credentials> credentials, ConnectOptions options) {
    return core_->connect(servers, std::move(credentials), std::move(options));
}

void Network::stop(const std::string& reason, unsigned milliseconds) {
    core_->stop(reason, milliseconds);
}

NetworkStatistics Network::getStatistics() const {
    return core_->getStatistics();
}

}  // namespace qel
