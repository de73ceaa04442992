#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "qelNet/Limits.h"
#include "session/Counters.h"
#include "session/Executor.h"
#include "session/Link.h"
#include "session/OutputQueue.h"
#include "wire/FrameReader.h"
#include "wire/Handshake.h"

namespace qel {

class ItemStore;
class WriteBatch;

/// What a connection needs from the network around it.
struct ConnectionSetup {
    NetworkLimits limits;
    std::shared_ptr<Executor> executor;
    std::shared_ptr<Counters> counters;
    ItemStore* store = nullptr;  ///< null: the current one, looked up at each callback
    std::string label;           ///< how log lines call the other end
};

/// One connection after TLS: reads bursts of frames into one write batch each, keeps answers behind the commit of what
/// they answer, writes what may leave in large pieces, and watches the time. The two ends differ in who speaks first and
/// what channels lead to, see ServiceConnection and ClientConnection. Everything runs on the executor unless it says
/// otherwise.
class Connection : public std::enable_shared_from_this<Connection>, private FrameReader::Sink {
  public:
    Connection(ConnectionSetup setup, std::unique_ptr<Link> link);
    ~Connection() override;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Begins the handshake.
    virtual void start() = 0;

    /// The link asks to be read, respectively written, again.
    void readable();
    void writable();
    /// A second has passed: on the executor, and from any thread.
    void tick();
    void postTick();

    /// Runs `function` inside a write batch: later, from any thread; at once, on the executor.
    void post(std::function<void()> function);
    void run(const std::function<void()>& function);
    /// Tells the other end the reason and closes; from any thread.
    void disconnect(const std::string& reason);
    /// The same, after what waits for commits has left.
    void finish(const std::string& reason);
    /// Ends it without a word; from any thread.
    void abort();

    /// True when no packet should be sent now; from any thread.
    bool cannotSend() const {
        return !established_ || closing_ || waitingBytes_ >= setup_.limits.outputBytes / 2;
    }
    bool isEstablished() const { return established_; }
    bool isEnded() const { return ended_; }
    /// True while answers wait for a commit.
    bool awaitsCommit() const { return !batchesUnderWay_.empty(); }
    /// Why it ended; empty while it stands.
    const std::string& getReason() const { return reason_; }
    /// What the other end accepts.
    NetworkLimits getRemoteLimits() const;
    const std::string& getLabel() const { return setup_.label; }

    /// Puts an encoded packet into a lane: behind the commit of the running callback when `held`.
    bool sendPacket(const OutputQueue::Lane& lane, std::uint32_t channel, ConstByteSpan packet, bool held);
    bool canSend(const OutputQueue::Lane& lane);
    bool runsHere() const { return setup_.executor->runsHere(); }

  protected:
    /// While it lives, this thread's store writes collect in one batch; the outermost one submits it at its end.
    class Scope;

    virtual bool handshakeReceived(FrameKind kind, ConstByteSpan payload) = 0;
    virtual bool sessionFrameReceived(FrameKind kind, ConstByteSpan payload) = 0;
    /// True when answers of this end stay behind commits.
    virtual bool holdsAnswers() const = 0;
    virtual void burstEnded() {}
    virtual void drained() {}
    virtual void ticked() {}
    /// The handshake is done.
    virtual void establish() {}
    /// The last call, inside a batch: every channel is over.
    virtual void connectionEnded(const std::string& reason) = 0;
    /// After the callback that is running, outside of any batch.
    virtual void afterCallback() {}

    void established(std::uint32_t remoteFrameBytes, std::uint32_t remoteValueBytes,
                     std::uint32_t remoteIdle);
    /// Logs, tells the other end and ends the connection. `kind` is counted. Always false, for handlers to return.
    bool fail(const std::string& reason, const char* kind);
    /// The other end said goodbye.
    bool closedByOther(ConstByteSpan reason);
    /// Tells the other end that a session is refused or over; with a lane, behind what that still holds.
    void sendChannelClose(const OutputQueue::Lane& lane, std::uint32_t channel, std::string_view reason);
    std::string& control() { return output_.control(); }
    void dropLane(const OutputQueue::Lane& lane);

    const NetworkLimits& limits() const { return setup_.limits; }
    Counters& counters() { return *setup_.counters; }
    ItemStore* store() const;

  private:
    bool frameReceived(FrameKind kind, ConstByteSpan payload) override;
    bool dispatch(FrameKind kind, ConstByteSpan payload);
    bool readBurst(Scope& scope);
    void submit(WriteBatch& batch, std::uint64_t number, bool holding, std::size_t bytes);
    void committed(std::uint64_t number, std::size_t bytes, bool durable, const std::string& reason);
    void put(const OutputQueue::Lane& lane, std::string_view frame, bool held);
    void flush();
    void armReading();
    bool mustNotRead();
    void watchHandshake();
    void watchSilence();
    void watchWriting();
    void end(const std::string& reason);
    void closeLinkWhenWritten();
    unsigned idleLimit() const;

    ConnectionSetup setup_;
    std::unique_ptr<Link> link_;
    FrameReader reader_;
    OutputQueue output_;
    std::string chunk_;  // taken from the output, but not taken by the link yet

    Scope* scope_ = nullptr;
    std::uint64_t lastBatch_ = 0;
    std::set<std::uint64_t> batchesUnderWay_;
    std::size_t uncommittedBytes_ = 0;
    std::uint64_t deferredWrites_ = 0;

    std::atomic<bool> established_{false};
    std::atomic<bool> ended_{false};
    std::atomic<std::size_t> waitingBytes_{0};
    std::atomic<std::uint32_t> remoteFrameBytes_{largestHandshakeFrame};
    std::atomic<std::uint32_t> remoteValueBytes_{0};
    std::uint32_t remoteIdleSeconds_ = 0;

    std::atomic<bool> closing_{false};
    bool finishing_ = false;
    bool readingPaused_ = false;
    bool waitingWritable_ = false;
    bool lanesWait_ = false;
    bool moreToRead_ = false;
    unsigned age_ = 0;
    unsigned silent_ = 0;
    unsigned stuck_ = 0;
    unsigned closingFor_ = 0;
    std::string reason_;
    std::string farewell_;  // the close frame, which leaves last
    std::string finishReason_;
};

}  // namespace qel
