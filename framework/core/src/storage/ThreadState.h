#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "storage/Engine.h"
#include "storage/PendingWrites.h"

namespace qel::storage {

/// What one thread has in one store: its place in a snapshot, the value it fetched last, its open write batch, and what
/// became of its writes.
struct ThreadState {
    ~ThreadState();

    std::shared_ptr<EngineCursor> cursor;
    std::vector<unsigned char> fetched;

    std::shared_ptr<Fate> fate = std::make_shared<Fate>();
    // Of the open write batch; null outside of one.
    std::unique_ptr<PendingBatch> batch;
    std::shared_ptr<Fate> batchFate;
    std::vector<std::function<void(const CommitResult&)>> joined;
    int depth = 0;
    // Parts of the open write batch are on their way already.
    bool passedOn = false;
};

/// Numbers stores so that a thread finds its state in each; a number is never used twice.
std::uint64_t nextStoreNumber();
/// This thread's state in the store of that number; made on first use, gone with the thread or when the store is.
ThreadState& threadState(std::uint64_t store);

}  // namespace qel::storage
