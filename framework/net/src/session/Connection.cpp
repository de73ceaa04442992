#include "session/Connection.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <utility>

#include "qelCore/logging/MessageStream.h"
#include "session/ConnectionScope.h"

namespace qel {
namespace {

// One TLS record of the largest size: what leaves together, arrives together.
constexpr std::size_t chunkBytes = 16UL * 1024;
constexpr std::size_t readBytes = 64UL * 1024;
// A client's writes wait for company so long, or until there are so many: each flush of a workstation that is spared is one
// more for the service where both share a disk, and the reader of the queue steps over removals that are not committed yet.
constexpr unsigned clientDeferMilliseconds = 50;
constexpr std::uint64_t clientDeferWrites = 1024;
// Seconds in which the reason of a closed connection must have left.
constexpr unsigned closeSeconds = 3;

}  // namespace

Connection::Connection(ConnectionSetup setup, std::unique_ptr<Link> link)
    : setup_(std::move(setup)), link_(std::move(link)), reader_(largestHandshakeFrame) {}

Connection::~Connection() = default;

ItemStore* Connection::store() const {
    return setup_.store ? setup_.store : ItemStore::current();
}

NetworkLimits Connection::getRemoteLimits() const {
    NetworkLimits remote;
    remote.frameBytes = remoteFrameBytes_;
    remote.valueBytes = remoteValueBytes_;
    return remote;
}

void Connection::established(std::uint32_t remoteFrameBytes, std::uint32_t remoteValueBytes,
                             std::uint32_t remoteIdle) {
    remoteFrameBytes_ = remoteFrameBytes;
    remoteValueBytes_ = remoteValueBytes;
    remoteIdleSeconds_ = remoteIdle;
    reader_.setLargestFrame(setup_.limits.frameBytes);
    established_ = true;
    establish();
}

// ----- reading

void Connection::readable() {
    if (ended_ || closing_)
        return;
    const auto self = shared_from_this();
    bool lost = false;
    {
        Scope scope(*this);
        lost = !readBurst(scope);
    }
    setup_.counters->bursts++;
    if (lost)
        return end(link_->getFailure());
    if (!ended_ && !closing_ && !holdsAnswers()) {
        Scope scope(*this);
        burstEnded();
    }
    flush();
    armReading();
}

bool Connection::readBurst(Scope& scope) {
    thread_local unsigned char buffer[readBytes];
    moreToRead_ = true;
    std::size_t total = 0;
    while (total < setup_.limits.burstBytes && !closing_ && !ended_) {
        const Link::Result result = link_->read(buffer, sizeof buffer);
        if (result.state == Link::State::lost)
            return false;
        if (result.state == Link::State::wait) {
            moreToRead_ = false;
            break;
        }
        silent_ = 0;
        total += result.bytes;
        if (!reader_.feed(ConstByteSpan(buffer, result.bytes), *this) && !reader_.getError().empty())
            fail(reader_.getError(), "garbage");
    }
    setup_.counters->bytesReceived += total;
    scope.addReceived(total);
    return true;
}

bool Connection::mustNotRead() {
    // Pongs for an end that asks without ever reading, at either end.
    if (output_.control().size() > largestHandshakeFrame)
        return true;
    if (!holdsAnswers())
        return false;
    const ItemStore* current = store();
    return uncommittedBytes_ > setup_.limits.uncommittedBytes ||
           output_.waitingBytes() > setup_.limits.outputBytes ||
           (current && current->pendingBytes() > current->options().pendingLimit / 2);
}

void Connection::armReading() {
    if (ended_ || closing_ || finishing_)
        return;
    readingPaused_ = mustNotRead();
    if (readingPaused_)
        return;
    if (moreToRead_)
        setup_.executor->post([self = shared_from_this()] { self->readable(); });
    else
        link_->waitReadable();
}

bool Connection::frameReceived(FrameKind kind, ConstByteSpan payload) {
    try {
        return dispatch(kind, payload);
    } catch (const std::exception& fault) {
        return fail(std::string("a packet could not be handled: ") + fault.what(), "handler");
    }
}

bool Connection::dispatch(FrameKind kind, ConstByteSpan payload) {
    if (kind == FrameKind::close)
        return closedByOther(payload);
    if (!established_)
        return handshakeReceived(kind, payload) && !closing_ && !ended_;
    if (kind == FrameKind::ping) {
        FrameWriter(control(), FrameKind::pong).bytes(payload.view().substr(0, 8)).finish();
        return true;
    }
    if (kind == FrameKind::pong)
        return true;
    return sessionFrameReceived(kind, payload) && !closing_ && !ended_;
}

bool Connection::closedByOther(ConstByteSpan reason) {
    const std::string text(limitReason(reason.view()));
    logging::MessageStream(established_ ? 1 : 2, 2)
        << "connection with " << setup_.label << " was closed by the other end: " << text;
    end(text);
    return false;
}

// ----- batches

void Connection::submit(WriteBatch& batch, std::uint64_t number, bool holding, std::size_t bytes) {
    if (!holdsAnswers() || (!holding && batch.writes() == 0)) {
        // What a client stores while it handles packets removes what was acknowledged; lost, it is sent again.
        deferredWrites_ += batch.writes();
        if (deferredWrites_ < clientDeferWrites) {
            batch.submitDeferred(clientDeferMilliseconds);
        } else {
            deferredWrites_ = 0;
            batch.submit({});
        }
        flush();
        return;
    }
    const std::size_t counted = batch.writes() > 0 ? bytes : 0;
    uncommittedBytes_ += counted;
    batchesUnderWay_.insert(number);
    batch.submit(
        [executor = setup_.executor, weak = weak_from_this(), number, counted](const CommitResult& result) {
            executor->post([weak, number, counted, durable = result.durable, reason = result.reason] {
                if (const auto self = weak.lock())
                    self->committed(number, counted, durable, reason);
            });
        });
    flush();
}

void Connection::committed(std::uint64_t number, std::size_t bytes, bool durable, const std::string& reason) {
    batchesUnderWay_.erase(number);
    uncommittedBytes_ -= bytes;
    // Once it is closing, also what a later batch would let go stays here: it may stand behind a lost one.
    if (ended_ || closing_)
        return;
    if (!durable) {
        setup_.counters->commitsFailed++;
        fail("what was received could not be stored: " + reason, "commit");
        return;
    }
    // An empty batch may be done before a full one that went ahead of it: nothing overtakes what is still under way.
    output_.release(batchesUnderWay_.empty() ? lastBatch_ : *batchesUnderWay_.begin() - 1);
    flush();
    if (finishing_ && batchesUnderWay_.empty())
        fail(finishReason_, "");
    else if (readingPaused_)
        armReading();
}

// ----- writing

bool Connection::sendPacket(const OutputQueue::Lane& lane, std::uint32_t channel, ConstByteSpan packet,
                            bool held) {
    if (!established_ || ended_ || closing_)
        return false;
    thread_local std::string frame;
    frame.clear();
    FrameWriter(frame, FrameKind::packet).u32(channel).bytes(packet.view()).finish();
    if (frame.size() > remoteFrameBytes_) {
        logging::MessageStream(3, 2) << "a packet of " << frame.size() << " bytes for " << setup_.label
                                     << " was not sent; it accepts at most " << remoteFrameBytes_.load();
        return false;
    }
    setup_.counters->packetsSent++;
    put(lane, frame, held);
    return true;
}

void Connection::put(const OutputQueue::Lane& lane, std::string_view frame, bool held) {
    if (held && scope_) {
        output_.hold(lane, scope_->number(), frame);
        scope_->setHolding();
    } else if (held && !batchesUnderWay_.empty()) {
        output_.hold(lane, lastBatch_, frame);
    } else {
        output_.add(lane, frame);
    }
    waitingBytes_ = output_.waitingBytes();
    if (!scope_)
        flush();
}

bool Connection::canSend(const OutputQueue::Lane& lane) {
    if (!established_ || ended_ || closing_)
        return false;
    const bool can = lane->waitingBytes() < setup_.limits.outputBytes / 4;
    lane->wantsDrained = lane->wantsDrained || !can;
    lanesWait_ = lanesWait_ || !can;
    return can;
}

void Connection::writable() {
    waitingWritable_ = false;
    const auto self = shared_from_this();
    flush();
    if (readingPaused_)
        armReading();
}

void Connection::flush() {
    if (ended_ || waitingWritable_)
        return;
    // What leaves at once never belongs to the connection: an idle one keeps no buffer.
    thread_local std::string fresh;
    std::string_view rest = chunk_;
    for (;;) {
        if (rest.empty()) {
            fresh.clear();
            if (!output_.take(fresh, chunkBytes))
                fresh.swap(farewell_);
            rest = fresh;
            if (rest.empty())
                break;
        }
        const Link::Result result = link_->write(rest.data(), rest.size());
        if (result.state == Link::State::lost)
            return end(link_->getFailure());
        if (result.state == Link::State::wait) {
            waitingWritable_ = true;
            break;
        }
        stuck_ = 0;
        rest.remove_prefix(result.bytes);
        setup_.counters->bytesSent += result.bytes;
    }
    chunk_ = std::string(rest);
    waitingBytes_ = output_.waitingBytes() + chunk_.size();
    if (waitingWritable_)
        link_->waitWritable();
    closeLinkWhenWritten();
    if (lanesWait_ && waitingBytes_ < setup_.limits.outputBytes / 8) {
        lanesWait_ = false;
        post([self = shared_from_this()] { self->drained(); });
    }
}

void Connection::dropLane(const OutputQueue::Lane& lane) {
    output_.drop(lane);
}

void Connection::sendChannelClose(const OutputQueue::Lane& lane, std::uint32_t channel,
                                  std::string_view reason) {
    std::string frame;
    FrameWriter(frame, FrameKind::closeChannel).u32(channel).bytes(limitReason(reason)).finish();
    if (lane)
        put(lane, frame, holdsAnswers());
    else
        control() += frame;
}

// ----- time

void Connection::tick() {
    if (ended_)
        return;
    const auto self = shared_from_this();
    if (closing_) {
        if (++closingFor_ >= closeSeconds)
            end(reason_);
        return;
    }
    watchHandshake();
    watchSilence();
    watchWriting();
    if (ended_ || closing_)
        return;
    if (established_) {
        Scope scope(*this);
        ticked();
    }
    if (readingPaused_)
        armReading();
}

void Connection::watchHandshake() {
    if (!established_ && ++age_ >= setup_.limits.handshakeSeconds)
        fail("the handshake was not done within " + std::to_string(setup_.limits.handshakeSeconds) +
                 " seconds",
             "handshake timeout");
}

unsigned Connection::idleLimit() const {
    const unsigned own = std::max(3u, setup_.limits.idleSeconds);
    return remoteIdleSeconds_ ? std::min(own, std::max(3u, remoteIdleSeconds_)) : own;
}

void Connection::watchSilence() {
    if (!established_ || closing_ || readingPaused_)
        return;
    const unsigned limit = idleLimit();
    if (++silent_ >= limit) {
        fail("nothing came from the other end for " + std::to_string(silent_) + " seconds", "idle timeout");
        return;
    }
    if (silent_ % std::max(1u, limit / 3) == 0) {
        FrameWriter(control(), FrameKind::ping).u32(0).u32(silent_).finish();
        flush();
    }
}

void Connection::watchWriting() {
    if (ended_ || !waitingWritable_ || ++stuck_ < setup_.limits.writeSeconds)
        return;
    const std::string reason = "the other end took none of " + std::to_string(waitingBytes_) +
                               " waiting bytes for " + std::to_string(stuck_) + " seconds";
    logging::MessageStream(2, 2) << "connection with " << setup_.label << " is given up: " << reason;
    counters().refuse("write timeout");
    end(reason);
}

// ----- ending

void Connection::post(std::function<void()> function) {
    setup_.executor->post([weak = weak_from_this(), function = std::move(function)] {
        const auto self = weak.lock();
        if (!self || self->ended_)
            return;
        self->run(function);
    });
}

void Connection::run(const std::function<void()>& function) {
    const auto self = shared_from_this();
    Scope scope(*this);
    function();
}

void Connection::disconnect(const std::string& reason) {
    setup_.executor->post([weak = weak_from_this(), reason] {
        if (const auto self = weak.lock())
            self->fail(reason, "");
    });
}

void Connection::finish(const std::string& reason) {
    setup_.executor->post([weak = weak_from_this(), reason] {
        const auto self = weak.lock();
        if (!self || self->ended_)
            return;
        self->finishing_ = true;
        self->finishReason_ = reason;
        if (self->batchesUnderWay_.empty())
            self->fail(reason, "");
    });
}

void Connection::abort() {
    setup_.executor->post([weak = weak_from_this()] {
        if (const auto self = weak.lock())
            self->end("this end is shutting down");
    });
}

void Connection::postTick() {
    setup_.executor->post([weak = weak_from_this()] {
        if (const auto self = weak.lock())
            self->tick();
    });
}

bool Connection::fail(const std::string& reason, const char* kind) {
    if (closing_ || ended_)
        return false;
    if (*kind) {
        counters().refuse(kind);
        logging::MessageStream(2, 2) << "connection with " << setup_.label << " is closed: " << reason;
    }
    closing_ = true;
    reason_ = reason;
    // Answers that may leave already do so; those behind a commit are given up, the sender still has its events.
    FrameWriter(farewell_, FrameKind::close).bytes(limitReason(reason)).finish();
    setup_.executor->post([self = shared_from_this()] {
        self->flush();
        self->closeLinkWhenWritten();
    });
    return false;
}

void Connection::closeLinkWhenWritten() {
    if (closing_ && !ended_ && !waitingWritable_ && !scope_)
        end(reason_);
}

void Connection::end(const std::string& reason) {
    if (ended_)
        return;
    const auto self = shared_from_this();
    ended_ = true;
    established_ = false;
    if (reason_.empty())
        reason_ = reason;
    {
        Scope scope(*this);
        connectionEnded(reason_);
    }
    output_.clear();
    waitingBytes_ = 0;
    link_->close();
}

}  // namespace qel
