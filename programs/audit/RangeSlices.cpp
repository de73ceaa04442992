#include "audit/RangeSlices.h"

#include <algorithm>
#include <limits>

namespace qel::programs {

namespace {

// Half of what an answer may hold, so that a busier hour seldom makes a slice too large.
constexpr std::uint64_t wantedRows = RangeSlices::mostRows / 2;
// Nights and weekends say little about the day behind them.
constexpr std::uint64_t mostGrowth = 8;

std::uint64_t distance(std::int64_t from, std::int64_t to) {
    return from >= to ? 0 : static_cast<std::uint64_t>(to) - static_cast<std::uint64_t>(from);
}

}  // namespace

RangeSlices::RangeSlices(std::int64_t start, std::int64_t end)
    : start_(start), end_(end), length_(distance(start, end)) {}

bool RangeSlices::next(Slice& slice) const {
    const std::uint64_t left = distance(start_, end_);
    if (left == 0 && asked_)
        return false;
    slice.start = start_;
    slice.end = static_cast<std::int64_t>(static_cast<std::uint64_t>(start_) + std::min(left, length_));
    return true;
}

void RangeSlices::done(std::uint64_t rows) {
    const std::uint64_t left = distance(start_, end_);
    const std::uint64_t taken = std::min(left, length_);
    start_ = static_cast<std::int64_t>(static_cast<std::uint64_t>(start_) + taken);
    asked_ = true;
    const double fitting = static_cast<double>(taken) * static_cast<double>(wantedRows) /
                           static_cast<double>(std::max<std::uint64_t>(rows, 1));
    const double most = static_cast<double>(taken) * static_cast<double>(mostGrowth);
    // Below 2^62, so that nothing overflows.
    length_ = static_cast<std::uint64_t>(std::clamp(std::min(fitting, most), 1.0, 4.6e18));
}

bool RangeSlices::halve() {
    length_ = std::min(length_, distance(start_, end_)) / 2;
    if (length_ > 0)
        return true;
    length_ = 1;
    return false;
}

std::int64_t endOf(const TimeSpan& span) {
    return span.first == span.last || span.last == std::numeric_limits<std::int64_t>::max() ? span.last
                                                                                            : span.last + 1;
}

}  // namespace qel::programs
