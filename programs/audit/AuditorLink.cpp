#include "audit/AuditorLink.h"

#include <algorithm>
#include <chrono>

#include "common/ConfigFile.h"
#include "common/LogPath.h"
#include "common/RemoteCalls.h"

namespace qel::programs {

namespace {

// A server that restarts deserves more than one try; a person who waits for an answer does not want many.
constexpr std::size_t leastTries = 3;
constexpr auto longestWait = std::chrono::seconds(30);
constexpr auto turn = std::chrono::milliseconds(100);
constexpr unsigned sessionMilliseconds = 15000;

}  // namespace

AuditorLink::AuditorLink(const std::string& configFile, const ServiceManager& manager) : manager_(manager) {
    readConfig(configFile, config_);
    const std::shared_ptr<Credentials> credentials = loadCredentials(config_, config_.tls);
    ConnectOptions options;
    options.serverName = config_.serverName;
    options.connected = [this](Peer&) {
        const std::lock_guard lock(mutex_);
        connected_ = true;
        changed_.notify_all();
    };
    options.lost = [this](Peer&, const std::string& reason, bool) {
        const std::lock_guard lock(mutex_);
        ++failedTries_;
        trouble_ = reason;
        changed_.notify_all();
    };
    peer_ = network_.connect(config_.addresses, credentials, options);
    waitUntilConnected();
    openSession();
}

AuditorLink::~AuditorLink() {
    client_.reset();
    network_.stop("the command is done");
}

void AuditorLink::waitUntilConnected() {
    const auto end = std::chrono::steady_clock::now() + longestWait;
    const std::size_t tries = std::max(leastTries, config_.addresses.size());
    std::unique_lock lock(mutex_);
    while (!connected_) {
        changed_.wait_for(lock, turn);
        // cppcheck-suppress knownConditionTrueFalse ; another thread sets it while this one waits
        if (connected_)
            return;
        if (failedTries_ >= tries || std::chrono::steady_clock::now() > end)
            throw Failure(exitUnavailable, trouble_.empty() ? "the service cannot be reached" : trouble_);
        if (manager_.wait(std::chrono::milliseconds(0)) == ServiceManager::Wish::stop)
            throw Failure(exitTemporary, "stopped before the service was reached");
    }
}

void AuditorLink::openSession() {
    client_ = std::make_unique<RpcClient>(peer_.get(), remoteCallService);
    std::string reason;
    if (!client_->open(sessionMilliseconds, reason))
        throw Failure(exitUnavailable, "the service takes no remote calls: " + reason);
}

RpcReply AuditorLink::call(const RpcRequest& request, const RpcClient::Progress& progress) {
    return client_->call(request, [&](const RpcProgress& state) {
        if (manager_.wait(std::chrono::milliseconds(0)) == ServiceManager::Wish::stop)
            return false;
        return !progress || progress(state);
    });
}

Failure failureOf(const RpcReply& reply) {
    switch (reply.error) {
        case RpcError::notPermitted:
            return {exitNoPermission, "not permitted: " + reply.sentence};
        case RpcError::noSuchCall:
        case RpcError::noConnection:
            return {exitUnavailable, reply.sentence};
        case RpcError::refusedByClient:
            return {exitBadData, reply.sentence + "; nothing of it was kept"};
        case RpcError::cannotCreateFile:
            return {exitCannotCreate, reply.sentence};
        case RpcError::cannotWriteFile:
            return {exitInputOutput, reply.sentence};
        default:
            return {exitTemporary, reply.sentence};
    }
}

}  // namespace qel::programs
