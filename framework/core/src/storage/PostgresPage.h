#pragma once

#include <chrono>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "storage/Engine.h"

namespace qel::storage {

/// A stretch of neighbouring entries read at one moment, and the bounds of the keys that it says something about.
class PostgresPage {
  public:
    using Clock = std::chrono::steady_clock;

    /// Begins a stretch that nothing is known of yet.
    void clear();
    void add(Bytes key, Bytes value);
    /// After reading upwards from `from`: everything up to the last entry is known, or all that follows.
    void endForward(Bytes from, bool reachedEnd);
    /// After reading downwards from below `before`, which added the entries from the last to the first.
    void endBackward(Bytes before, bool reachedStart);

    std::size_t size() const { return rows_.size(); }
    std::size_t bytes() const { return bytes_.size(); }
    Bytes key(std::size_t row) const { return {bytes_.data() + rows_[row].at, rows_[row].keySize}; }
    Bytes value(std::size_t row) const {
        return {bytes_.data() + rows_[row].at + rows_[row].keySize, rows_[row].valueSize};
    }
    /// First row not less than `key`, or `size`.
    std::size_t lowerBound(Bytes key) const;

    bool knows(Bytes key) const { return known_ && low_ <= key && (endless_ || key < high_); }
    /// True when the entry before `key` is known, or that there is none.
    bool knowsBefore(Bytes key) const { return known_ && low_ < key && (endless_ || key <= high_); }
    bool isEndless() const { return endless_; }
    bool isFromStart() const { return low_.empty(); }
    Bytes low() const { return low_; }
    Bytes high() const { return high_; }

    /// This process has written the key since; what the page says about it and about its neighbourhood is over.
    void noteWritten(Bytes key);
    bool isStale() const { return !written_.empty(); }
    bool wasWritten(Bytes key) const { return !written_.empty() && written_.count(key) != 0; }

    /// When the reading began, and how many commits of this process were over by then.
    Clock::time_point readAt;
    std::uint64_t commits = 0;

  private:
    struct Row {
        std::size_t at;
        std::size_t keySize;
        std::size_t valueSize;
    };

    std::string bytes_;
    std::vector<Row> rows_;
    std::string low_;
    std::string high_;
    std::set<std::string, std::less<>> written_;
    bool known_ = false;
    bool endless_ = false;
};

}  // namespace qel::storage
