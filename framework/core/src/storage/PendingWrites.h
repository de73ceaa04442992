#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "qelCore/StoreOptions.h"
#include "storage/Engine.h"
#include "storage/WriterFirstMutex.h"

namespace qel::storage {

/// What became of a thread's writes since it last asked.
class Fate {
  public:
    void fail(const std::string& reason);
    /// The first failure since the last call, which is forgotten with it.
    CommitResult take();
    CommitResult look() const;

  private:
    mutable std::mutex mutex_;
    CommitResult result_;
};

/// Writes of one thread, in order, with their bytes, until they are durable or lost. Filled by one thread, then read
/// by the one that commits.
class PendingBatch {
  public:
    using Completion = std::function<void(const CommitResult&)>;

    const Write& add(Bytes key, Bytes value, bool removes,
                     const std::shared_ptr<OverwriteGuard>& guard = nullptr);
    /// What one write adds to `bytes`.
    static std::size_t sizeOf(Bytes key, Bytes value);
    const std::vector<Write>& writes() const { return writes_; }
    /// Memory taken, the entries in the overlay included.
    std::size_t bytes() const { return bytes_; }
    bool isEmpty() const { return writes_.empty(); }

    /// Told of failures; those of one thread and of one write batch.
    std::vector<std::shared_ptr<Fate>> fates;
    std::vector<Completion> completions;
    /// May wait for company, and how long.
    bool deferred = false;
    unsigned deferredMilliseconds = 0;

  private:
    char* room(std::size_t bytes);

    std::vector<std::unique_ptr<char[]>> blocks_;
    char* at_ = nullptr;
    std::size_t left_ = 0;
    std::size_t nextBlock_ = 256;
    std::size_t bytes_ = 0;
    std::vector<Write> writes_;
    std::vector<std::shared_ptr<OverwriteGuard>> guards_;
};

/// All writes of this process that are not durable yet, the last one of each key, in order of key: what readers see
/// before the store has it. The bytes belong to the batches, which outlive their entries here. Readers hold `mutex`
/// shared for as long as they look, writers alone.
class Overlay {
  public:
    struct Entry {
        Bytes value;
        bool removes = false;
    };
    using Map = std::map<Bytes, Entry>;

    mutable WriterFirstMutex mutex;

    /// Without locking. Changes with every write of this process and with every commit; never 0. Tells as well whether
    /// something is pending: two looks, one after the other, could meet the time before a write and the time after it.
    std::uint64_t generation() const { return generation_.load(std::memory_order_acquire); }
    /// False only when everything written before that generation is in the engine's newest snapshot.
    static bool isPending(std::uint64_t generation) { return generation % 2 != 0; }
    const Map& entries() const { return entries_; }
    void put(const Write& write);
    /// Takes out what is still the batch's own.
    void drop(const PendingBatch& batch);

  private:
    void nextGeneration();

    Map entries_;
    std::atomic<std::uint64_t> generation_{2};
};

}  // namespace qel::storage
