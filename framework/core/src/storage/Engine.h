#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "item/ItemCodec.h"
#include "qelCore/StoreOptions.h"

namespace qel {
class OverwriteGuard;
}

namespace qel::storage {

struct ClockPage;

/// Keys and values as the engine sees them; compared as unsigned bytes.
using Bytes = std::string_view;

/// The store's own records have keys that begin with this byte, which begins no element of an item: navigation never
/// meets them.
constexpr char ownRecords = 0x02;

/// One write; the bytes belong to the batch it lies in.
struct Write {
    Bytes key;
    Bytes value;
    bool removes = false;
    /// Of the batch too; null when what stands under the key is of no interest.
    OverwriteGuard* guard = nullptr;
};

/// Held for the length of one read; waiting for it is rare and short.
class SpinLock {
  public:
    void lock() {
        while (held_.exchange(true, std::memory_order_acquire))
            while (held_.load(std::memory_order_relaxed))
                std::this_thread::yield();
    }
    bool try_lock() { return !held_.exchange(true, std::memory_order_acquire); }
    void unlock() { held_.store(false, std::memory_order_release); }

  private:
    std::atomic<bool> held_{false};
};

enum class Refreshed {
    ok,
    /// Another process has made the map larger: unlock, call `Engine::adoptGrowth`, try again.
    grown,
    failed,
};

/// A thread's place in a snapshot of the engine. Used by one thread at a time, under its `lock`; the engine and the
/// sweep for idle snapshots take the lock too.
class EngineCursor {
  public:
    virtual ~EngineCursor() = default;

    SpinLock lock;
    /// Set by every use, cleared by the sweep.
    std::atomic<bool> touched{false};
    /// Retired; nothing else may be called.
    bool closed = false;
    /// The overlay's, when the snapshot was last known to be the newest.
    std::uint64_t generation = 0;

    /// Makes the snapshot the newest. Forgets the position when the snapshot changes.
    virtual Refreshed refresh() = 0;
    /// Gives the snapshot back; `refresh` takes another.
    virtual void rest() = 0;
    /// Of a cursor that keeps to one snapshot: that is gone, and nothing more is found.
    virtual bool isLost() const { return false; }
    /// True while a snapshot is held.
    bool isLive() const { return live_; }
    /// For good: the thread ends, or the engine does. Under `lock`.
    virtual void retire() = 0;

    /// To the first key not less than `key`; false when there is none. Keys and values found stay valid until the
    /// next `refresh` or `rest`.
    virtual bool seek(Bytes key) = 0;
    /// To the last key less than `key`.
    virtual bool seekBefore(Bytes key) = 0;
    /// To exactly this key; false when it does not exist, and then the position is anywhere.
    bool find(Bytes key) { return seek(key) && key_ == key; }
    struct Entry {
        Bytes key;
        Bytes value;
    };
    /// From a position that the last operation found: to the neighbour.
    bool step() {
        if (runAt_ == runEnd_)
            return stepFurther();
        const Entry& next = run_[runAt_++];
        key_ = next.key;
        value_ = next.value;
        return true;
    }
    /// What `step` would find without a look at the engine; null when it would have to look.
    const Entry* ahead() const { return runAt_ == runEnd_ ? nullptr : &run_[runAt_]; }
    virtual bool stepBack() = 0;

    bool positioned() const { return positioned_; }
    Bytes key() const { return key_; }
    Bytes value() const { return value_; }
    bool isAt(Bytes key) const {
        return positioned_ && key_.size() == key.size() &&
               codec::areEqual(key_.data(), key.data(), key.size());
    }

  protected:
    static constexpr unsigned longestRun = 16;

    /// A step for which nothing was read ahead.
    virtual bool stepFurther() = 0;

    Bytes key_;
    Bytes value_;
    bool positioned_ = false;
    bool live_ = false;
    // What lies behind the position and was read ahead in the snapshot, for who wants to.
    unsigned runAt_ = 0;
    unsigned runEnd_ = 0;
    std::array<Entry, longestRun> run_;
};

/// What keeps the entries. Cursors come from any thread; `commit`, `adoptGrowth` are called by one thread at a time.
class Engine {
  public:
    virtual ~Engine() = default;

    virtual std::shared_ptr<EngineCursor> makeCursor() = 0;
    /// A cursor that keeps to the snapshot of its first use for good; null from engines whose walks go on behind their key.
    virtual std::shared_ptr<EngineCursor> makeSteadyCursor() { return nullptr; }
    virtual void adoptGrowth() = 0;
    /// All live cursors give up what nobody used since the last call. Returns how many stay live.
    virtual unsigned sweep() = 0;

    /// Makes the writes durable in one transaction, in order, the clock's mark with them.
    virtual CommitResult commit(const std::vector<const std::vector<Write>*>& writes) = 0;
    /// True when `commit` itself tells the guards of writes what they meet: other processes write the same keys, and only
    /// the transaction knows.
    virtual bool tellsGuards() const { return false; }
    /// Changes a record of the store's own durably from `before` (empty: it does not exist) to `after`, unless others have
    /// changed it: then `exchanged` is false. Null from engines whose users agree in another way.
    virtual std::optional<CommitResult> exchange(Bytes /*key*/, Bytes /*before*/, Bytes /*after*/,
                                                 bool& /*exchanged*/) {
        return std::nullopt;
    }
    /// Set when the store closes: a `commit` that waits for another process gives up after the store's patience.
    std::atomic<bool> closing{false};

    virtual std::size_t keyLimit() const = 0;
    virtual void space(StoreSpace& out) = 0;
    /// A consistent copy of everything at this moment, as one file that `restore` takes.
    virtual CommitResult copyTo(const std::string& file, bool compact) = 0;
    virtual ClockPage& clockPage() = 0;
    virtual const std::string& folder() const = 0;

    /// Reads that failed for another reason than an absent key.
    std::atomic<std::uint64_t> readFaults{0};
    std::atomic<std::uint64_t> reopened{0};
    std::atomic<std::uint64_t> mapGrown{0};
    /// The last try to reach the database was in vain.
    std::atomic<bool> unreachable{false};
};

}  // namespace qel::storage
