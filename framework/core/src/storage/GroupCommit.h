#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "storage/Engine.h"
#include "storage/PendingWrites.h"

namespace qel::storage {

/// Makes all that is pending durable in as few transactions as possible. One thread commits; a writer that finds nothing
/// going on commits for itself, which spares two changes of thread. Any thread may submit.
class GroupCommit {
  public:
    /// Batches committed together. `done` is set when they are durable or lost.
    struct Group {
        std::vector<std::unique_ptr<PendingBatch>> batches;
        std::size_t bytes = 0;
        std::atomic<std::uint32_t> done{0};
    };
    using Ticket = std::shared_ptr<Group>;

    GroupCommit(Engine& engine, Overlay& overlay, const StoreOptions& options);
    ~GroupCommit();
    GroupCommit(const GroupCommit&) = delete;
    GroupCommit& operator=(const GroupCommit&) = delete;

    /// Waits for room, then accounts for the bytes; false when there was none within the patience.
    bool reserve(std::size_t bytes);
    void unreserve(std::size_t bytes);
    Ticket submit(std::unique_ptr<PendingBatch> batch);
    /// Submits and returns when it is durable or lost.
    void submitAndWait(std::unique_ptr<PendingBatch> batch);
    /// Until everything submitted so far is durable or lost; false when that took longer than `milliseconds`, unless 0.
    bool drain(unsigned milliseconds = 0);
    /// A snapshot was taken after a time without any: idle ones have to be looked for.
    void snapshotTaken();

    void setObserver(std::function<void(const CommitReport&)> observer);
    void fill(StoreStatistics& out) const;
    std::uint64_t pendingBytes() const { return pendingBytes_.load(std::memory_order_relaxed); }

  private:
    using Clock = std::chrono::steady_clock;

    void run();
    void gather(std::unique_lock<std::mutex>& lock);
    void waitForWork(std::unique_lock<std::mutex>& lock);
    bool isDue(Clock::time_point now) const;
    Ticket takeGroup();
    void commitGroup(Group& group);
    void commitPart(std::vector<PendingBatch*>& part);
    void finish(const std::vector<PendingBatch*>& part, const CommitResult& result);
    void report(const CommitReport& report);

    Engine& engine_;
    Overlay& overlay_;
    const StoreOptions& options_;

    mutable std::mutex mutex_;
    std::condition_variable work_;
    std::condition_variable room_;
    Ticket collecting_;
    Ticket running_;
    // Batches of the last group: so many writers are likely to come back at once.
    std::size_t lastCount_ = 0;
    Clock::time_point deadline_;
    bool urgent_ = false;
    bool committing_ = false;
    bool stopping_ = false;
    std::function<void(const CommitReport&)> observer_;

    std::atomic<bool> sweeping_{false};
    std::atomic<std::uint64_t> pendingBytes_{0};
    std::atomic<std::uint64_t> pendingWrites_{0};
    std::atomic<std::uint64_t> commits_{0};
    std::atomic<std::uint64_t> failed_{0};
    std::atomic<std::uint64_t> writes_{0};
    std::atomic<std::uint64_t> bytes_{0};
    std::atomic<std::uint64_t> turns_{0};
    std::atomic<long long> commitStart_{0};
    std::thread thread_;
};

}  // namespace qel::storage
