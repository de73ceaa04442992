#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <mutex>

#include "auditing/AuditClient.h"
#include "common/Failure.h"
#include "common/LogPath.h"
#include "common/RemoteCalls.h"
#include "common/Times.h"
#include "doctor/Checks.h"
#include "qelNet/Network.h"
#include "qelNet/RpcClient.h"

namespace qel::programs {
namespace {

constexpr auto turn = std::chrono::milliseconds(20);
constexpr auto patience = std::chrono::seconds(10);
constexpr unsigned sessionMilliseconds = 10000;

/// Why no socket can be connected to "HOST:PORT"; empty when it can. `resolved` tells whether the name was found.
std::string reachFault(const std::string& endpoint, bool& resolved) {
    std::string host;
    std::uint16_t port = 0;
    splitEndpoint(endpoint, host, port);
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int error = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    resolved = error == 0;
    if (!resolved)
        return host + ": " + gai_strerror(error);
    int reason = ECONNREFUSED;
    for (const addrinfo* one = found; one; one = one->ai_next) {
        const int descriptor = ::socket(one->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        pollfd ready{descriptor, POLLOUT, 0};
        socklen_t size = sizeof reason;
        reason = 0;
        if (::connect(descriptor, one->ai_addr, one->ai_addrlen) != 0)
            reason = errno;
        if (reason == EINPROGRESS) {
            reason = ETIMEDOUT;
            if (::poll(&ready, 1, std::chrono::milliseconds(patience).count()) == 1)
                ::getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &reason, &size);
        }
        ::close(descriptor);
        if (reason == 0)
            break;
    }
    ::freeaddrinfo(found);
    return reason == 0 ? std::string() : endpoint + ": " + std::strerror(reason);
}

/// One connection to the service, made for looking.
class Probe {
  public:
    Probe(const WorkstationConfig& config, const std::shared_ptr<Credentials>& credentials)
        : network_(Network::Options{1, nullptr}) {
        ConnectOptions options;
        options.serverName = config.serverName;
        options.connected = [this](Peer&) { settle(true, {}); };
        options.lost = [this](Peer&, const std::string& reason, bool) { settle(false, reason); };
        peer_ = network_.connect(config.addresses, credentials, std::move(options));
    }
    ~Probe() { network_.stop("the look is over"); }
    Probe(const Probe&) = delete;
    Probe& operator=(const Probe&) = delete;

    /// Why there is no connection; empty when there is one.
    std::string wait() {
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, patience, [this] { return settled_; }))
            return "no connection was made in time";
        return connected_ ? std::string() : reason_;
    }

    /// Why the service of that name opens no session for events; empty when it does.
    std::string sessionFault(const std::string& service) {
        AuditSequence nothing;
        std::unique_ptr<AuditClient> client;
        std::unique_ptr<AuditClient::AuditQuery> query;
        std::string reason;
        onPeer([&] {
            client = std::make_unique<AuditClient>(peer_.get(), service.c_str());
            query = std::make_unique<AuditClient::AuditQuery>(client.get(), nothing);
            query->setClosedHandler([&](const std::string& why) {
                const std::lock_guard lock(mutex_);
                reason = why.empty() ? "closed" : why;
                changed_.notify_all();
            });
        });
        const auto end = std::chrono::steady_clock::now() + patience;
        bool open = false;
        bool closed = false;
        while (!open && !closed && std::chrono::steady_clock::now() < end) {
            onPeer([&] {
                open = query->isOpen();
                closed = query->isClosed();
            });
            // The closing may have been before anybody could be told of it.
            std::unique_lock lock(mutex_);
            if (!open && changed_.wait_for(lock, turn, [&] { return !reason.empty(); }))
                closed = true;
        }
        onPeer([&] {
            query.reset();
            client.reset();
        });
        return reason.empty() && !open ? "it did not answer" : reason;
    }

    Peer* peer() { return peer_.get(); }

  private:
    /// Does something where the peer's callbacks run, and returns when it is done.
    void onPeer(const std::function<void()>& action) {
        std::promise<void> done;
        peer_->getNetworkPeer()->post([&] {
            action();
            done.set_value();
        });
        done.get_future().wait();
    }

    void settle(bool connected, const std::string& reason) {
        const std::lock_guard lock(mutex_);
        settled_ = true;
        connected_ = connected;
        reason_ = reason;
        changed_.notify_all();
    }

    Network network_;
    std::shared_ptr<Peer> peer_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool settled_ = false;
    bool connected_ = false;
    std::string reason_;
};

void checkCalls(Diagnosis& diagnosis, Probe& probe, const DoctorWishes& wishes) {
    RpcClient client(probe.peer(), remoteCallService);
    std::string reason;
    if (!client.open(sessionMilliseconds, reason)) {
        diagnosis.fault("remote calls", "the service takes no remote calls: " + reason, "update the service");
        return;
    }
    RpcRequest request;
    request.name = statusCall;
    const long long before = wallClock();
    const RpcReply reply = client.call(request);
    const long long after = wallClock();
    long long now = 0;
    bool mayRead = false;
    Item::Iterator elements(reply.result);
    if (!reply || !elements.decodeElementAsInteger(now) || !elements.decodeElementAsBool(mayRead)) {
        diagnosis.fault("remote calls", "the service does not tell its state: " + reply.sentence,
                        "update the service");
        return;
    }
    diagnosis.well("remote calls");
    // The service looked at its clock between the two looks at ours.
    const long long off = now < before ? before - now : now > after ? now - after : 0;
    diagnosis.judge("clock",
                    off <= wishes.clockSeconds * 1000000
                        ? ""
                        : "this machine's clock differs from the service's by " +
                              std::to_string(off / 1000000) + " seconds",
                    "set the clocks of both machines by a time service");
    if (wishes.auditor)
        diagnosis.judge("role", mayRead ? "" : "this user may not read the logs",
                        "name the user in [access] auditors of the service and reload it");
}

}  // namespace

void checkListening(Diagnosis& diagnosis, const DaemonConfig& config) {
    std::string host;
    std::uint16_t port = 0;
    splitEndpoint(config.listen, host, port);
    if (port == 0) {
        diagnosis.fault("listening",
                        "[service] listen = \"" + config.listen + "\" picks another port at each start",
                        "name a fixed port, which workstations can be told");
        return;
    }
    const bool any = host == "0.0.0.0" || host == "::";
    const std::string local = host == "0.0.0.0" ? "127.0.0.1" : host == "::" ? "::1" : host;
    bool resolved = false;
    const std::string fault = reachFault(
        (local.find(':') == std::string::npos ? local : '[' + local + ']') + ':' + std::to_string(port),
        resolved);
    diagnosis.judge("listening", fault.empty() ? "" : "no daemon listens (" + fault + ')',
                    any ? "start qel-auditd, and see its log"
                        : "start qel-auditd, and see whether this machine has that address");
}

void checkService(Diagnosis& diagnosis, const WorkstationConfig& config, const DoctorWishes& wishes) {
    bool reachable = false;
    for (const std::string& address : config.addresses) {
        bool resolved = false;
        const std::string fault = reachFault(address, resolved);
        diagnosis.judge("server " + address, fault,
                        resolved ? "start the service there, and open the port in the firewalls between"
                                 : "correct [server] address, or the name service");
        reachable = reachable || fault.empty();
    }
    if (!reachable)
        return;
    std::shared_ptr<Credentials> credentials;
    try {
        credentials = loadCredentials(config, config.tls);
    } catch (const Failure&) {
        return;  // the identity's own checks have told it
    }
    Probe probe(config, credentials);
    const std::string fault = probe.wait();
    diagnosis.judge("connection", fault,
                    "see which name, date or authority the sentence tells, and correct that");
    if (!fault.empty())
        return;
    for (const LogConfig* log : {&config.interaction, &config.audit}) {
        const std::string refused = probe.sessionFault(log->service);
        diagnosis.judge(
            "service " + log->service,
            refused.empty() ? "" : "the service \"" + log->service + "\" opens no session: " + refused,
            "name the service in [logs] as the server's configuration does");
    }
    checkCalls(diagnosis, probe, wishes);
}

}  // namespace qel::programs
