#pragma once

#include <cstdint>

#include "common/Times.h"

namespace qel::programs {

/// Cuts a time range into slices that hold about as many rows as one answer should: the whole range first, and once
/// that was too much, by what the slices before held.
/// Microseconds since 1970; starts included, ends not. One thread.
class RangeSlices {
  public:
    /// Rows of one answer that are asked for at most: some ten megabytes, so little memory at either end.
    static constexpr std::uint64_t mostRows = 100000;

    struct Slice {
        std::int64_t start = 0;
        std::int64_t end = 0;
    };

    RangeSlices(std::int64_t start, std::int64_t end);

    /// The slice to fetch now, the same until `done` or `halve`; false when the range is through. A range without any
    /// time in it gives one empty slice, so that permission is asked all the same.
    bool next(Slice& slice) const;
    /// The slice held so many rows; on to the next one.
    void done(std::uint64_t rows);
    /// The slice held too many rows; false when it cannot be shortened any more.
    bool halve();

  private:
    std::int64_t start_;
    const std::int64_t end_;
    std::uint64_t length_;
    bool asked_ = false;
};

/// The end of a range that excludes the instant of its end: the instant itself, or the microsecond behind a named
/// period.
std::int64_t endOf(const TimeSpan& span);

}  // namespace qel::programs
