#include "storage/PendingWrites.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace qel::storage {

namespace {

// What a write takes besides its bytes: its place in the batch and its entry in the overlay.
constexpr std::size_t overheadPerWrite = 128;
constexpr std::size_t largestBlock = std::size_t{64} << 10;

}  // namespace

void Fate::fail(const std::string& reason) {
    const std::lock_guard guard(mutex_);
    if (result_.durable)
        result_ = {false, reason};
}

CommitResult Fate::take() {
    const std::lock_guard guard(mutex_);
    return std::exchange(result_, CommitResult());
}

CommitResult Fate::look() const {
    const std::lock_guard guard(mutex_);
    return result_;
}

char* PendingBatch::room(std::size_t bytes) {
    if (bytes > left_) {
        const std::size_t size = std::max(bytes, nextBlock_);
        nextBlock_ = std::min(nextBlock_ * 4, largestBlock);
        blocks_.emplace_back(new char[size]);
        at_ = blocks_.back().get();
        left_ = size;
    }
    left_ -= bytes;
    return std::exchange(at_, at_ + bytes);
}

std::size_t PendingBatch::sizeOf(Bytes key, Bytes value) {
    return key.size() + value.size() + overheadPerWrite;
}

const Write& PendingBatch::add(Bytes key, Bytes value, bool removes,
                               const std::shared_ptr<OverwriteGuard>& guard) {
    // A connection's writes have one guard in common.
    if (guard != nullptr && (guards_.empty() || guards_.back() != guard))
        guards_.push_back(guard);
    char* const at = room(key.size() + value.size());
    std::memcpy(at, key.data(), key.size());
    if (!value.empty())
        std::memcpy(at + key.size(), value.data(), value.size());
    bytes_ += sizeOf(key, value);
    writes_.push_back({{at, key.size()}, {at + key.size(), value.size()}, removes, guard.get()});
    return writes_.back();
}

// Under the mutex, by one thread at a time.
void Overlay::nextGeneration() {
    const std::uint64_t even = (generation_.load(std::memory_order_relaxed) | 1) + 1;
    generation_.store(even + (entries_.empty() ? 0 : 1), std::memory_order_release);
}

void Overlay::put(const Write& write) {
    const std::lock_guard guard(mutex);
    const auto [at, isNew] = entries_.try_emplace(write.key, Entry{write.value, write.removes});
    if (!isNew) {
        at->second = {write.value, write.removes};
        // The same bytes in the newer batch: the older one may go before the entry does.
        const_cast<Bytes&>(at->first) = write.key;
    }
    nextGeneration();
}

void Overlay::drop(const PendingBatch& batch) {
    const std::lock_guard guard(mutex);
    for (const Write& write : batch.writes()) {
        const auto at = entries_.find(write.key);
        if (at != entries_.end() && at->first.data() == write.key.data())
            entries_.erase(at);
    }
    nextGeneration();
}

}  // namespace qel::storage
