#include "qelNet/RpcClient.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>

#include "qelCore/Export.h"
#include "qelCore/Packet.h"
#include "qelCore/Ref.h"
#include "qelNet/Client.h"
#include "qelNet/Peer.h"
#include "rpc/ClientCall.h"

namespace qel {

namespace {

using SteadyClock = std::chrono::steady_clock;

// How often the waiting thread looks up to tell progress and to see whether it is cancelled.
constexpr std::chrono::milliseconds beat{100};

// What may wait for the thread of the call: the largest window, doubled by escaped zeros, and packets without data. A
// service that keeps to the credit it is given never gets there.
constexpr std::size_t largestBacklog = std::size_t{48} << 20;

/// What the connection's strand leaves for the waiting thread.
class Inbox {
  public:
    void opened() {
        change([this] { open_ = true; });
    }
    void closed(const std::string& reason) {
        change([&] {
            closed_ = true;
            reason_ = reason;
        });
    }
    void add(Packet& packet) {
        packet.ownBytes();
        change([&] {
            bytes_ += packet.getEncoded().size();
            if (bytes_ <= largestBacklog && !closed_)
                packets_.push_back(Ref<Packet>::share(&packet));
            else
                overflown_ = true;
        });
    }
    /// True, once, when the service sent more ahead than it may.
    bool takeOverflow() {
        const std::lock_guard lock(mutex_);
        return std::exchange(overflown_, false);
    }
    /// Forgets what belongs to calls that are over.
    void clear() {
        const std::lock_guard lock(mutex_);
        packets_.clear();
        bytes_ = 0;
        overflown_ = false;
    }

    /// Waits for the session; false when it is closed or time is over.
    bool waitOpen(std::chrono::milliseconds most, std::string& reason) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, most, [this] { return open_ || closed_; });
        if (!open_ || closed_)
            reason = closed_ ? reason_ : "no answer came in time";
        return open_ && !closed_;
    }
    /// The next packet; none after a beat, or when the session is closed and all has been taken.
    Ref<Packet> take(bool& closed, std::string& reason) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, beat, [this] { return closed_ || !packets_.empty(); });
        closed = closed_ && packets_.empty();
        reason = reason_;
        if (packets_.empty())
            return {};
        Ref<Packet> packet = std::move(packets_.front());
        packets_.pop_front();
        bytes_ -= packet->getEncoded().size();
        return packet;
    }

  private:
    template <class F>
    void change(F&& function) {
        {
            const std::lock_guard lock(mutex_);
            function();
        }
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Ref<Packet>> packets_;
    std::size_t bytes_ = 0;
    std::string reason_;
    bool overflown_ = false;
    bool open_ = false;
    bool closed_ = false;
};

class RpcQuery : public Client::Query {
  public:
    RpcQuery(Client* client, std::shared_ptr<Inbox> inbox)
        : Client::Query(client, rpcSessionType), inbox_(std::move(inbox)) {
        setOpenedHandler([box = inbox_] { box->opened(); });
        setClosedHandler([box = inbox_](const std::string& reason) { box->closed(reason); });
        if (isOpen())
            inbox_->opened();
        if (isClosed())
            inbox_->closed("the session is closed");
    }

    using Client::Query::packetReceived;
    bool packetReceived(Packet* packet) override {
        inbox_->add(*packet);
        return true;
    }

  private:
    std::shared_ptr<Inbox> inbox_;
};

}  // namespace

/// The query and what it needs. It is made on the peer's strand, so that no handler is called before it is set, and may
/// be made after its client has gone already.
class QEL_HIDDEN RpcClient::Inner {
  public:
    Inner(Peer* peer, const std::string& service) : client(peer, service.c_str()) {}

    static void openOn(const std::shared_ptr<Inner>& self) {
        self->network()->post([self] {
            const std::lock_guard lock(self->mutex);
            if (!self->over)
                self->query = std::make_shared<RpcQuery>(&self->client, self->inbox);
        });
    }
    static void send(const std::shared_ptr<Inner>& self, const Ref<Packet>& packet) {
        self->network()->post([self, packet] {
            const std::lock_guard lock(self->mutex);
            if (self->query != nullptr)
                self->query->sendPacket(packet.get());
        });
    }
    // The query goes where its packets arrive: it may be receiving one.
    static void close(const std::shared_ptr<Inner>& self) {
        std::shared_ptr<RpcQuery> last;
        {
            const std::lock_guard lock(self->mutex);
            self->over = true;
            last.swap(self->query);
        }
        if (last != nullptr)
            self->network()->post([self, last = std::move(last)]() mutable { last.reset(); });
    }

    NetworkPeer* network() const { return client.getPeer()->getNetworkPeer(); }

    Client client;
    const std::shared_ptr<Inbox> inbox = std::make_shared<Inbox>();
    std::mutex mutex;  // for the two below
    std::shared_ptr<RpcQuery> query;
    bool over = false;
    std::atomic<bool> cancelled{false};
    long long lastCall = 0;
};

RpcClient::RpcClient(Peer* peer, const std::string& service)
    : inner_(std::make_shared<Inner>(peer, service)) {
    Inner::openOn(inner_);
}
RpcClient::~RpcClient() {
    Inner::close(inner_);
}

bool RpcClient::open(unsigned milliseconds, std::string& reason) {
    return inner_->inbox->waitOpen(std::chrono::milliseconds(milliseconds), reason);
}

void RpcClient::cancel() {
    inner_->cancelled = true;
}

RpcReply RpcClient::call(const RpcRequest& request, const Progress& progress) {
    rpc::ClientCall call(++inner_->lastCall, request,
                         [this](const Ref<Packet>& packet) { Inner::send(inner_, packet); });
    inner_->inbox->clear();
    call.start();
    auto lastSign = SteadyClock::now();
    auto lastTold = lastSign;
    while (!call.isOver()) {
        bool closed = false;
        std::string reason;
        const Ref<Packet> packet = inner_->inbox->take(closed, reason);
        const auto now = SteadyClock::now();
        if (packet) {
            call.packetReceived(*packet);
            lastSign = now;
        } else if (closed) {
            call.end(RpcError::connectionLost,
                     "the connection was lost before the call was answered: " + reason);
        } else if (now - lastSign > std::chrono::seconds(request.silenceSeconds)) {
            call.end(RpcError::notAnswered,
                     "the server did not answer this call: it gave no sign of it for " +
                         std::to_string(request.silenceSeconds) + " seconds");
        }
        if (inner_->inbox->takeOverflow())
            call.refuse("the server sent more ahead than it was allowed to");
        if (inner_->cancelled)
            call.cancel("the call was cancelled");
        if (progress && now - lastTold >= beat) {
            lastTold = now;
            if (!call.isOver() && !progress(call.progress()))
                call.cancel("the call was cancelled");
        }
    }
    return call.takeReply();
}

}  // namespace qel
