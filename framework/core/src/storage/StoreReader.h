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
    /// Takes the thread's cursor and, when anything is pending, the overlay, for the object's lifetime.
    StoreReader(Engine& engine, const Overlay& overlay, ThreadState& state, bool& snapshotTaken);
    ~StoreReader();
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
    bool open(Engine& engine, bool& snapshotTaken);
    bool mergeForward(bool inEngine, Overlay::Map::const_iterator pending);
    bool mergeBackward(bool inEngine, Overlay::Map::const_iterator pending);
    bool isRemoved(Bytes key) const;
    bool found(Bytes key, Bytes value);

    EngineCursor* cursor_ = nullptr;
    const Overlay::Map* pending_ = nullptr;
    std::shared_lock<std::shared_mutex> overlayLock_;
    Bytes key_;
    Bytes value_;
    bool ready_ = false;
};

}  // namespace qel::storage
