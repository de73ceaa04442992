#pragma once

#include <cstddef>

#include "qelCore/Item.h"

namespace qel {

/// Walks the entries of a central log whose times lie in a range, in key order: the one home of both its ends. Bounds
/// at the ends of the 64-bit range saturate. One thread per object.
class LogRange {
  public:
    /// From `startTime` (included) to `endTime` (included).
    static LogRange including(const Item& log, long long startTime, long long endTime);
    /// From `startTime` (included) to `endTime` (not included).
    static LogRange excluding(const Item& log, long long startTime, long long endTime);

    /// Moves to the first or next entry; false behind the last.
    bool next();

    /// Where the walk stands: the key of the entry.
    const Item& position() const { return position_; }

    /// The value stored there; null when there is none. Valid until the next store operation of this thread.
    ConstByteSpan value() const { return value_; }

    /// The time in that key; 0 when it does not hold one.
    long long time() const;

  private:
    LogRange(const Item& log, long long startTime, Item stop);

    Item position_;
    Item stop_;
    ConstByteSpan value_;
    std::size_t pathSize_;
};

}  // namespace qel
