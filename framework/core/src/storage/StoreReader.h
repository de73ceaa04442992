#pragma once

#include <shared_mutex>

#include "storage/Engine.h"
#include "storage/PendingWrites.h"
#include "storage/ThreadState.h"

namespace qel::storage {

/// One read operation of one thread: the engine's newest snapshot with the pending writes laid over it, as one ordered
/// map. Keys found are valid until the object goes.
class StoreReader {
  public:
    /// Takes the thread's cursor for the object's lifetime, and the overlay from the first operation on that has to look
    /// into it.
    StoreReader(Engine& engine, const Overlay& overlay, ThreadState& state, bool& snapshotTaken)
        : engine_(engine),
          overlay_(overlay),
          state_(state),
          // First the overlay, then the snapshot: what leaves the overlay meanwhile is in the snapshot.
          generation_(overlay.generation()),
          somePending_(!state.steady && Overlay::isPending(generation_)) {
        if (state.cursor == nullptr)
            state.cursor = engine.makeCursor();
        cursor_ = state.cursor.get();
        state.room.forget();
        if (somePending_ && state.nearPending)
            lockOverlay();
        cursor_->lock.lock();
        const bool wasLive = cursor_->isLive();
        ready_ = !cursor_->closed && (cursor_->refresh() == Refreshed::ok || refreshAgain(engine));
        snapshotTaken = !wasLive;
        cursor_->generation = generation_;
    }
    ~StoreReader() { cursor_->lock.unlock(); }
    StoreReader(const StoreReader&) = delete;
    StoreReader& operator=(const StoreReader&) = delete;

    /// False when the engine cannot be read.
    bool isReady() const { return ready_; }
    /// To the first key not less than `key`.
    bool atLeast(Bytes key);
    /// To the first key greater than `key`, or the last one less.
    bool behind(Bytes key);
    bool before(Bytes key);
    /// To exactly this key.
    bool exactly(Bytes key);

    Bytes key() const { return key_; }
    Bytes value() const { return value_; }
    /// Copies the value that was found to the thread's room.
    ConstByteSpan hold() { return state_.room.hold(value_); }
    /// The same for the next `fetch`, where a move came to a key of so many bytes.
    void holdForFetch(std::size_t size) { state_.room.holdForFetch(key_, value_, size, generation_); }

  private:
    bool refreshAgain(Engine& engine);
    bool engineAtLeast(Bytes key);
    bool engineBehind(Bytes key);
    bool engineBefore(Bytes key);
    void lockOverlay();
    /// Locks the overlay and takes a newer snapshot: what has left the overlay is in it. False when it is locked already.
    bool lockPending();
    /// Learns the gap around `key`, unless it is known.
    void findGap(Bytes key);
    bool isInGap(Bytes key) const;
    /// The end of an operation that had to look: whether the next one will have to.
    bool settle(bool result, Overlay::Map::const_iterator pending);
    bool mergeForward(bool inEngine, Overlay::Map::const_iterator pending);
    bool mergeBackward(bool inEngine, Overlay::Map::const_iterator pending);
    bool found(Bytes key, Bytes value);

    Engine& engine_;
    const Overlay& overlay_;
    ThreadState& state_;
    std::uint64_t generation_;
    const bool somePending_;
    EngineCursor* cursor_ = nullptr;
    const Overlay::Map* pending_ = nullptr;
    std::shared_lock<WriterFirstMutex> overlayLock_;
    Bytes key_;
    Bytes value_;
    bool ready_ = false;
};

}  // namespace qel::storage
