#include "storage/GroupCommit.h"

#include <algorithm>
#include <utility>

#include "qelCore/ItemStore.h"
#include "qelCore/logging/MessageStream.h"

namespace qel::storage {

namespace {

using namespace std::chrono_literals;

// A snapshot unused for one to two of these is given back.
constexpr auto sweepInterval = 100ms;
constexpr auto idleInterval = 500ms;
// How long a commit waits for the company it may expect, as a part of what the last commit took: small against that, and long
// enough for the writers of the last commit to wake up and write again. Without it they fall into two groups that wait for
// each other's flush by turns.
constexpr int gatherPart = 8;
constexpr auto gatherAtLeast = 30us;
constexpr auto gatherAtMost = 1000us;
// Up to here waiting awake is cheaper than falling asleep.
constexpr auto gatherAwake = 60us;

long long microsecondsNow() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

}  // namespace

GroupCommit::GroupCommit(Engine& engine, Overlay& overlay, const StoreOptions& options)
    : engine_(engine), overlay_(overlay), options_(options), collecting_(std::make_shared<Group>()) {
    thread_ = std::thread([this] { run(); });
}

GroupCommit::~GroupCommit() {
    {
        const std::lock_guard guard(mutex_);
        stopping_ = true;
        engine_.closing = true;
    }
    work_.notify_all();
    thread_.join();
}

bool GroupCommit::reserve(std::size_t bytes) {
    if (pendingBytes_.fetch_add(bytes) + bytes <= options_.pendingLimit)
        return true;
    std::unique_lock lock(mutex_);
    urgent_ = true;
    work_.notify_one();
    const bool found = room_.wait_for(lock, std::chrono::milliseconds(options_.patienceMilliseconds), [&] {
        const std::uint64_t others = pendingBytes_.load() - bytes;
        // A write larger than all the room there is must not wait for ever.
        return others + bytes <= options_.pendingLimit || others == 0;
    });
    if (!found)
        pendingBytes_ -= bytes;
    return found;
}

void GroupCommit::unreserve(std::size_t bytes) {
    pendingBytes_ -= bytes;
    const std::lock_guard guard(mutex_);
    room_.notify_all();
}

void GroupCommit::add(std::unique_ptr<PendingBatch> batch) {
    pendingWrites_ += batch->writes().size();
    collecting_->bytes += batch->bytes();
    collecting_->batches.push_back(std::move(batch));
    const std::size_t count = collecting_->batches.size();
    collected_ = count;
    if (phase_ == Phase::gathering && count == expected_)
        company_.notify_one();
}

void GroupCommit::submit(std::unique_ptr<PendingBatch> batch) {
    const std::lock_guard guard(mutex_);
    bool wakes = true;
    if (batch->deferred && !urgent_) {
        const auto deadline = Clock::now() + std::chrono::milliseconds(batch->deferredMilliseconds);
        wakes = collecting_->batches.empty() || deadline < deadline_;
        if (wakes)
            deadline_ = deadline;
    } else {
        urgent_ = true;
    }
    add(std::move(batch));
    if (wakes)
        work_.notify_one();
}

void GroupCommit::submitAndWait(std::unique_ptr<PendingBatch> batch) {
    std::unique_lock lock(mutex_);
    add(std::move(batch));
    const Ticket ticket = collecting_;
    commitOrWait(lock, ticket);
}

void GroupCommit::commitOrWait(std::unique_lock<std::mutex>& lock, const Ticket& ticket) {
    while (!ticket->isOver()) {
        if (phase_ == Phase::idle && !isComplete()) {
            gather(lock);
            // Whoever came last has taken them all.
            if (ticket != collecting_)
                continue;
        } else if (phase_ == Phase::committing ||
                   (phase_ == Phase::gathering && !isComplete() && Clock::now() < gatherUntil_)) {
            wait(lock, ticket);
            continue;
        }
        takeGroup();
        lock.unlock();
        commitGroup(*ticket);
        return;
    }
}

// Until the writes are durable or lost, or this thread is to commit them. Leaves the mutex unlocked in the first case.
void GroupCommit::wait(std::unique_lock<std::mutex>& lock, const Ticket& ticket) {
    // Somebody else commits already: the call is answered.
    int called = Group::called;
    ticket->stage.compare_exchange_strong(called, Group::waiting);
    ++ticket->waiters;
    lock.unlock();
    ticket->stage.wait(Group::waiting);
    if (ticket->isOver())
        return;
    lock.lock();
    --ticket->waiters;
}

// Waits for the company that is expected; awake for short times, but lets others have the processor.
void GroupCommit::gather(std::unique_lock<std::mutex>& lock) {
    const auto time = std::clamp<Clock::duration>(lastCommit_ / gatherPart, gatherAtLeast, gatherAtMost);
    const auto until = Clock::now() + time;
    const std::uint64_t taken = groupsTaken_;
    phase_ = Phase::gathering;
    gatherUntil_ = until;
    if (time > gatherAwake) {
        company_.wait_until(lock, until, [&] { return isComplete() || groupsTaken_ != taken; });
        return;
    }
    const std::size_t expected = expected_;
    lock.unlock();
    while (collected_ < expected && groupsTaken_ == taken && Clock::now() < until)
        std::this_thread::yield();
    lock.lock();
}

// The caller holds the mutex; the group that was collected becomes the running one.
GroupCommit::Ticket GroupCommit::takeGroup() {
    phase_ = Phase::committing;
    urgent_ = false;
    collected_ = 0;
    ++groupsTaken_;
    running_ = std::exchange(collecting_, std::make_shared<Group>());
    return running_;
}

bool GroupCommit::drain(unsigned milliseconds) {
    std::unique_lock lock(mutex_);
    if (collecting_->batches.empty() && phase_ != Phase::committing)
        return true;
    // Groups are committed one after the other: the last one's end is everyone's.
    const Ticket ticket = collecting_->batches.empty() ? running_ : collecting_;
    if (milliseconds == 0) {
        commitOrWait(lock, ticket);
        return true;
    }
    urgent_ = true;
    work_.notify_one();
    return room_.wait_for(lock, std::chrono::milliseconds(milliseconds), [&] { return ticket->isOver(); });
}

void GroupCommit::snapshotTaken() {
    if (sweeping_.load(std::memory_order_relaxed) || sweeping_.exchange(true))
        return;
    // Once the mutex was free, the thread either sleeps and is woken, or will see that there is something to look for.
    { const std::lock_guard guard(mutex_); }
    work_.notify_one();
}

bool GroupCommit::isDue(Clock::time_point now) const {
    if (phase_ != Phase::idle || collecting_->batches.empty())
        return false;
    return urgent_ || stopping_ || now >= deadline_;
}

void GroupCommit::waitForWork(std::unique_lock<std::mutex>& lock) {
    const auto now = Clock::now();
    auto until = now + (sweeping_ ? Clock::duration(sweepInterval) : Clock::duration(idleInterval));
    if (!collecting_->batches.empty() && phase_ == Phase::idle)
        until = std::min(until, deadline_);
    work_.wait_until(lock, until);
}

void GroupCommit::run() {
    auto lastSweep = Clock::now();
    std::unique_lock lock(mutex_);
    while (!stopping_ || phase_ != Phase::idle || !collecting_->batches.empty()) {
        ++turns_;
        const auto now = Clock::now();
        if (isDue(now)) {
            const Ticket group = takeGroup();
            lock.unlock();
            commitGroup(*group);
            lock.lock();
            continue;
        }
        if (sweeping_ && now - lastSweep >= sweepInterval) {
            lastSweep = now;
            lock.unlock();
            sweeping_ = false;
            if (engine_.sweep() != 0)
                sweeping_ = true;
            lock.lock();
            continue;
        }
        waitForWork(lock);
    }
}

void GroupCommit::commitGroup(Group& group) {
    const auto start = Clock::now();
    std::vector<PendingBatch*> part;
    std::size_t bytes = 0;
    for (const auto& batch : group.batches) {
        if (!part.empty() && bytes + batch->bytes() > WriteBatch::largest) {
            commitPart(part);
            bytes = 0;
        }
        part.push_back(batch.get());
        bytes += batch->bytes();
    }
    commitPart(part);
    {
        const std::lock_guard guard(mutex_);
        expected_ = group.batches.size() + collecting_->batches.size();
        lastCommit_ = Clock::now() - start;
        phase_ = Phase::idle;
        group.stage = Group::over;
        room_.notify_all();
        if (collecting_->waiters != 0) {
            collecting_->stage = Group::called;
            collecting_->stage.notify_one();
        } else if (!collecting_->batches.empty() || stopping_) {
            work_.notify_one();
        }
    }
    group.stage.notify_all();
    group.batches.clear();
}

void GroupCommit::commitPart(std::vector<PendingBatch*>& part) {
    std::vector<const std::vector<Write>*> writes;
    CommitReport told;
    for (const PendingBatch* const batch : part) {
        if (!batch->isEmpty())
            writes.push_back(&batch->writes());
        told.writes += batch->writes().size();
        told.bytes += batch->bytes();
    }
    CommitResult result;
    if (!writes.empty()) {
        const long long start = microsecondsNow();
        commitStart_ = start;
        result = engine_.commit(writes);
        commitStart_ = 0;
        told.durable = result.durable;
        told.microseconds = static_cast<std::uint64_t>(microsecondsNow() - start);
        report(told);
        if (!result)
            logging::MessageStream(3, 2) << result.reason << "; " << told.writes << " writes are lost";
    }
    finish(part, result);
    part.clear();
}

void GroupCommit::finish(const std::vector<PendingBatch*>& part, const CommitResult& result) {
    std::uint64_t bytes = 0;
    for (const PendingBatch* const batch : part) {
        overlay_.drop(*batch);
        bytes += batch->bytes();
        pendingWrites_ -= batch->writes().size();
    }
    pendingBytes_ -= bytes;
    for (PendingBatch* const batch : part) {
        if (!result)
            for (const auto& fate : batch->fates)
                fate->fail(result.reason);
        for (const auto& completion : batch->completions)
            completion(result);
    }
}

void GroupCommit::report(const CommitReport& report) {
    ++(report.durable ? commits_ : failed_);
    if (report.durable) {
        writes_ += report.writes;
        bytes_ += report.bytes;
    }
    const std::lock_guard guard(observing_);
    if (observer_)
        observer_(report);
}

void GroupCommit::setObserver(std::function<void(const CommitReport&)> observer) {
    const std::lock_guard guard(observing_);
    observer_ = std::move(observer);
}

void GroupCommit::fill(StoreStatistics& out) const {
    out.commits = commits_;
    out.failedCommits = failed_;
    out.writes = writes_;
    out.writtenBytes = bytes_;
    out.pendingBytes = pendingBytes_;
    out.pendingWrites = pendingWrites_;
    out.commitThreadTurns = turns_;
    const long long start = commitStart_;
    out.commitRunningMicroseconds =
        start == 0 ? 0 : static_cast<std::uint64_t>(std::max(0LL, microsecondsNow() - start));
}

}  // namespace qel::storage
