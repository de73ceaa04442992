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

/// Makes all that is pending durable in as few transactions as possible. A thread of its own commits what nobody waits for;
/// of the writers that wait, whoever runs first when the last commit is over commits for all, so that no commit waits for
/// a certain thread to be scheduled. Any thread may submit.
class GroupCommit {
  public:
    /// Batches committed together. Guarded by the mutex but for `stage`, which its waiters sleep on, so that all of them
    /// are woken at once and none has to queue for the mutex to learn that its writes are durable or lost.
    struct Group {
        /// `called`: one of those that wait is to commit.
        enum Stage { waiting, called, over };
        std::vector<std::unique_ptr<PendingBatch>> batches;
        std::size_t bytes = 0;
        unsigned waiters = 0;
        std::atomic<int> stage{waiting};
        bool isOver() const { return stage.load(std::memory_order_acquire) == over; }
    };
    using Ticket = std::shared_ptr<Group>;

    GroupCommit(Engine& engine, Overlay& overlay, const StoreOptions& options);
    ~GroupCommit();
    GroupCommit(const GroupCommit&) = delete;
    GroupCommit& operator=(const GroupCommit&) = delete;

    /// Waits for room, then accounts for the bytes; false when there was none within the patience.
    bool reserve(std::size_t bytes);
    void unreserve(std::size_t bytes);
    void submit(std::unique_ptr<PendingBatch> batch);
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
    void add(std::unique_ptr<PendingBatch> batch);
    void commitOrWait(std::unique_lock<std::mutex>& lock, const Ticket& ticket);
    void wait(std::unique_lock<std::mutex>& lock, const Ticket& ticket);
    void gather(std::unique_lock<std::mutex>& lock);
    bool isComplete() const { return collecting_->batches.size() >= expected_; }
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
    std::condition_variable company_;
    Ticket collecting_;
    Ticket running_;
    // Batches in `collecting_`, and how many writers took part in the last commit or came while it ran.
    std::atomic<std::size_t> collected_{0};
    std::size_t expected_ = 0;
    /// While a writer gathers, the next that comes takes its place when the company is complete or the time is over.
    enum class Phase { idle, gathering, committing };
    Phase phase_ = Phase::idle;
    Clock::time_point gatherUntil_;
    std::atomic<std::uint64_t> groupsTaken_{0};
    Clock::duration lastCommit_{};
    Clock::time_point deadline_;
    bool urgent_ = false;
    bool stopping_ = false;
    // Held while the observer runs, so that none does once it has been taken away.
    std::mutex observing_;
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
