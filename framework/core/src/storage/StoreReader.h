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
    /// A `fetch` may follow a move in the move's snapshot, when this process changed nothing in between.
    enum class Use { move, fetch };

    /// Takes the thread's cursor and, when anything is pending, the overlay, for the object's lifetime.
    StoreReader(Engine& engine, const Overlay& overlay, ThreadState& state, Use use, bool& snapshotTaken) {
        if (state.cursor == nullptr)
            state.cursor = engine.makeCursor();
        cursor_ = state.cursor.get();
        const std::uint64_t generation = overlay.generation();
        const bool follows = use == Use::fetch && state.movedAt == generation;
        state.movedAt = use == Use::move ? generation : 0;
        // First the overlay, then the snapshot: what leaves the overlay meanwhile is in the snapshot.
        if (!overlay.isEmpty()) {
            overlayLock_ = std::shared_lock(overlay.mutex);
            pending_ = &overlay.entries();
        }
        cursor_->lock.lock();
        const bool wasLive = cursor_->isLive();
        ready_ = !cursor_->closed &&
                 ((follows && wasLive) || cursor_->refresh() == Refreshed::ok || refreshAgain(engine));
        snapshotTaken = !wasLive;
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

  private:
    bool refreshAgain(Engine& engine);
    bool mergeForward(bool inEngine, Overlay::Map::const_iterator pending);
    bool mergeBackward(bool inEngine, Overlay::Map::const_iterator pending);
    bool found(Bytes key, Bytes value);

    EngineCursor* cursor_ = nullptr;
    const Overlay::Map* pending_ = nullptr;
    std::shared_lock<std::shared_mutex> overlayLock_;
    Bytes key_;
    Bytes value_;
    bool ready_ = false;
};

}  // namespace qel::storage
