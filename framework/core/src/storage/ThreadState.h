#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "storage/Engine.h"
#include "storage/FetchRoom.h"
#include "storage/PendingWrites.h"

namespace qel::storage {

/// What one thread has in one store: its place in a snapshot, the value it fetched last, its open write batch, and what
/// became of its writes.
struct ThreadState {
    /// Keys between which nothing was pending when the overlay had that generation; an end that is not there has no
    /// limit. While nothing changes, a walk between them need not lock the overlay, and a thread that walks may lose its
    /// processor at any moment, with all writers waiting for what it holds.
    struct Gap {
        std::uint64_t generation = 0;
        std::string low;
        std::string high;
        bool hasLow = false;
        bool hasHigh = false;
    };

    ~ThreadState();

    std::shared_ptr<EngineCursor> cursor;
    // While reads keep to one snapshot: how many ask for that, and the cursor that waits meanwhile.
    int steadyDepth = 0;
    bool steady = false;
    std::shared_ptr<EngineCursor> parked;
    FetchRoom room;
    Gap gap;
    // The last read went among what is pending, and so will the next: it locks the overlay at once.
    bool nearPending = false;

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

// The store used last. Plain data at a fixed offset from the thread's base: two loads at every operation.
extern thread_local constinit std::uint64_t lastStore __attribute__((tls_model("initial-exec")));
extern thread_local constinit ThreadState* lastState __attribute__((tls_model("initial-exec")));

ThreadState& findThreadState(std::uint64_t store);

/// This thread's state in the store of that number; made on first use, gone with the thread or when the store is.
inline ThreadState& threadState(std::uint64_t store) {
    return lastStore == store ? *lastState : findThreadState(store);
}

}  // namespace qel::storage
