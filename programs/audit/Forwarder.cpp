#include "audit/Forwarder.h"

#include <algorithm>

#include "common/Failure.h"
#include "common/ServiceManager.h"

namespace qel::programs {
namespace {

// A refused session is asked for again after this pause, doubled up to the longest back-off.
constexpr auto firstRefusedPause = std::chrono::milliseconds(1000);

constexpr const char* logNames[] = {"interaction", "audit"};

void add(AuditQueryStatistics& sum, const AuditQueryStatistics& more) {
    sum.sent += more.sent;
    sum.acknowledged += more.acknowledged;
    sum.damaged += more.damaged;
    sum.parked += more.parked;
}

}  // namespace

Forwarder::Lane::Lane(Forwarder& owner, Peer& peer, AuditSequence& source, const std::string& service)
    : client(&peer, service.c_str()), query(&client, source), sequence(source) {
    AuditClient::AuditQuery* mine = &query;
    query.setOpenedHandler([mine] { mine->processEvents(); });
    query.setBurstHandler([mine, &owner] {
        mine->processEvents();
        // The last acknowledgement is news; the ones before only keep the stream going.
        if (mine->getInFlightCount() == 0)
            owner.look();
    });
    query.setClosedHandler([service, &owner](const std::string& reason) { owner.refused(service, reason); });
}

Forwarder::Forwarder(Workstation& workstation)
    : workstation_(workstation), network_(Network::Options{1, nullptr}), refusedPause_(firstRefusedPause) {}

Forwarder::~Forwarder() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    // Nothing is made any more; what is there goes on its own strand, or here when the connection is gone already.
    if (peer_) {
        peer_->getNetworkPeer()->post([this] {
            dropLanes();
            const std::lock_guard lock(mutex_);
            lanesGone_ = true;
            changed_.notify_all();
        });
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, std::chrono::seconds(2), [this] { return lanesGone_; });
    }
    network_.stop("the agent is stopping");
    dropLanes();
    peer_.reset();
}

const std::string& Forwarder::serviceOf(std::size_t index) const {
    return workstation_.logConfig(logNames[index]).service;
}

void Forwarder::start() {
    const WorkstationConfig& config = workstation_.config();
    ConnectOptions options;
    options.serverName = config.serverName;
    options.backoffMaxSeconds = static_cast<unsigned>(config.backoffMaxSeconds);
    options.connected = [this](Peer& peer) { connected(peer); };
    options.lost = [this](Peer&, const std::string& reason, bool) { lost(reason); };
    peer_ = network_.connect(config.addresses, workstation_.credentials(), std::move(options));
    if (!peer_)
        throw Failure(exitUnavailable, "no connection can be made to " + config.addresses.front());
}

void Forwarder::connected(Peer& peer) {
    {
        const std::lock_guard lock(mutex_);
        if (stopping_)
            return;
        state_.connected = true;
        state_.trouble.clear();
        state_.reconnects += established_ ? 1 : 0;
        established_ = true;
    }
    for (std::size_t i = 0; i < lanes_.size(); ++i)
        lanes_[i] = std::make_unique<Lane>(*this, peer, workstation_.sequence(logNames[i]), serviceOf(i));
}

void Forwarder::lost(const std::string& reason) {
    dropLanes();
    const std::lock_guard lock(mutex_);
    if (stopping_)
        return;
    state_.connected = false;
    state_.trouble = reason;
    state_.inFlight = 0;
    ++state_.failedTries;
    news_ = true;
    changed_.notify_all();
}

void Forwarder::refused(const std::string& service, const std::string& reason) {
    const std::lock_guard lock(mutex_);
    if (stopping_ || !state_.connected)
        return;
    state_.trouble = "the service \"" + service + "\" closed the session: " + reason;
    refusedAt_ = std::chrono::steady_clock::now();
}

void Forwarder::poke() {
    peer_->getNetworkPeer()->post([this] {
        if (isStalled()) {
            logWarning("no acknowledgement for " + std::to_string(workstation_.config().stallSeconds) +
                       " seconds, the connection is renewed");
            {
                const std::lock_guard lock(mutex_);
                ++state_.stalls;
            }
            peer_->getNetworkPeer()->disconnect("no acknowledgement came");
            return;
        }
        renewRefused(*peer_);
        for (const std::unique_ptr<Lane>& lane : lanes_)
            if (lane && lane->query.isOpen())
                lane->query.processEvents();
        look();
    });
}

bool Forwarder::isStalled() const {
    const auto limit = std::chrono::seconds(workstation_.config().stallSeconds);
    const auto now = std::chrono::steady_clock::now();
    return std::any_of(lanes_.begin(), lanes_.end(), [&](const std::unique_ptr<Lane>& lane) {
        return lane && lane->query.getInFlightCount() > 0 && now - lane->query.getLastProgress() > limit;
    });
}

void Forwarder::renewRefused(Peer& peer) {
    if (std::chrono::steady_clock::now() - refusedAt_ < refusedPause_)
        return;
    bool renewed = false;
    for (std::size_t i = 0; i < lanes_.size(); ++i) {
        if (!lanes_[i] || !lanes_[i]->query.isClosed())
            continue;
        add(earlier_, lanes_[i]->query.getStatistics());
        lanes_[i] = std::make_unique<Lane>(*this, peer, workstation_.sequence(logNames[i]), serviceOf(i));
        renewed = true;
    }
    if (!renewed)
        return;
    refusedPause_ = std::min<std::chrono::milliseconds>(
        refusedPause_ * 2, std::chrono::seconds(workstation_.config().backoffMaxSeconds));
    const std::lock_guard lock(mutex_);
    ++state_.failedTries;
}

void Forwarder::look() {
    AuditQueryStatistics sum = earlier_;
    std::uint64_t inFlight = 0;
    bool drained = true;
    for (const std::unique_ptr<Lane>& lane : lanes_) {
        if (!lane) {
            drained = false;
            continue;
        }
        add(sum, lane->query.getStatistics());
        inFlight += lane->query.getInFlightCount();
        Item first;
        drained = drained && lane->query.getInFlightCount() == 0 && !lane->sequence.getPath().child(first);
    }
    const std::lock_guard lock(mutex_);
    if (sum.acknowledged != acknowledgedBefore_ || drained) {
        state_.failedTries = 0;
        refusedPause_ = firstRefusedPause;
    }
    acknowledgedBefore_ = sum.acknowledged;
    news_ = news_ || drained != state_.drained;
    state_.drained = drained;
    state_.sent = sum.sent;
    state_.acknowledged = sum.acknowledged;
    state_.damaged = sum.damaged;
    state_.parked = sum.parked;
    state_.inFlight = inFlight;
    changed_.notify_all();
}

void Forwarder::dropLanes() {
    for (std::unique_ptr<Lane>& lane : lanes_) {
        if (lane)
            add(earlier_, lane->query.getStatistics());
        lane.reset();
    }
}

ForwardState Forwarder::wait(std::chrono::milliseconds time) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, time, [this] { return news_; });
    news_ = false;
    return state_;
}

ForwardState Forwarder::state() const {
    const std::lock_guard lock(mutex_);
    return state_;
}

}  // namespace qel::programs
