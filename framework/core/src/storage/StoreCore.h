#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "qelCore/Item.h"
#include "qelCore/ItemStore.h"
#include "storage/Engine.h"
#include "storage/GroupCommit.h"
#include "storage/PendingWrites.h"
#include "storage/StoreReader.h"
#include "storage/ThreadState.h"
#include "storage/UniqueClock.h"

namespace qel {

/// The parts of an open store and what its operations have in common.
class StoreCore {
  public:
    StoreCore(std::unique_ptr<storage::Engine> engine, std::string url, const StoreOptions& options);
    ~StoreCore();

    storage::Engine& engine() { return *engine_; }
    storage::GroupCommit& commits() { return *commits_; }
    storage::ThreadState& thread() { return storage::threadState(number_); }
    storage::UniqueClock& clock() { return clock_; }
    const std::shared_ptr<storage::StoreTimeSource>& timeSource() { return timeSource_; }

    /// Runs `action(reader)` on the newest state; false when the store cannot be read.
    template <typename Action>
    bool read(Action action) {
        if (!isUsable())
            return false;
        storage::ThreadState& state = thread();
        bool snapshotTaken = false;
        bool result = false;
        {
            storage::StoreReader reader(*engine_, overlay_, state, snapshotTaken);
            result = reader.isReady() && action(reader);
        }
        if (snapshotTaken)
            commits_->snapshotTaken();
        return result;
    }

    /// `action(cursor, room)` where a walk of this thread goes on in what it has read ahead: nothing is pending, this process
    /// has committed nothing since, and the snapshot was in use a moment ago. False where it has to look.
    template <typename Action>
    bool readAhead(Action action) {
        storage::ThreadState& state = thread();
        const std::uint64_t generation = overlay_.generation();
        if (isForeignProcess() || state.cursor == nullptr || storage::Overlay::isPending(generation))
            return false;
        storage::EngineCursor& cursor = *state.cursor;
        const std::lock_guard guard(cursor.lock);
        return cursor.generation == generation && action(cursor, state.room);
    }

    /// The value of this thread's last move, once, while its snapshot lives and this process has written nothing since.
    bool takeHeld(storage::Bytes key, ConstByteSpan& value) {
        storage::ThreadState& state = thread();
        if (!state.room.holds(key, overlay_.generation()) ||
            !state.cursor->touched.load(std::memory_order_relaxed))
            return false;
        state.room.forget();
        value = state.room.value();
        return true;
    }

    /// The next read of this thread sees what all others have committed, however recently.
    void forgetSnapshot();

    /// Checks, collects or commits one write.
    bool write(storage::Bytes key, storage::Bytes value, bool removes,
               const std::shared_ptr<OverwriteGuard>& guard = nullptr);
    /// Writes of the store's own records: no limits, always durable on return. `reason` says why not.
    CommitResult writeOwn(storage::Bytes key, storage::Bytes value);
    bool accepts(std::size_t keySize, std::size_t valueSize, std::string& reason) const;
    CommitResult flush();
    CommitResult probe(unsigned milliseconds);
    /// This thread's reads keep to one snapshot until as many ends came.
    void beginSteady();
    void endSteady();
    bool isSteadyLost();

    void openBatch();
    /// Submits what is collected; `done` may be empty.
    void submitBatch(WriteBatch::Completion done, bool joined);
    void closeBatch();
    CommitResult commitBatch();

    /// False, with a log line, in a child of `fork`.
    bool isUsable() const { return !isForeignProcess() || reportForeign(); }
    bool isForeignProcess() const { return forks_ != forksSeen.load(std::memory_order_relaxed); }

    const std::string url;
    StoreOptions options;
    std::atomic<std::size_t> valueLimit;
    std::atomic<std::uint64_t> refused{0};

  private:
    // Forks of this process and of its forebears; a store is of use only where it was opened.
    static std::atomic<std::uint32_t> forksSeen;
    static std::uint32_t watchForks();
    bool reportForeign() const;
    /// How far a refusal reaches: what is wrong with one write is not the fault of those that share its batch.
    enum class Harms { oneWrite, wholeBatch };
    bool refuse(storage::ThreadState& state, Harms harms, const std::string& reason);
    void passOn(storage::ThreadState& state);

    const std::uint64_t number_;
    const std::uint32_t forks_;
    std::unique_ptr<storage::Engine> engine_;
    storage::Overlay overlay_;
    storage::UniqueClock clock_;
    std::shared_ptr<storage::StoreTimeSource> timeSource_;
    std::unique_ptr<storage::GroupCommit> commits_;
};

}  // namespace qel
