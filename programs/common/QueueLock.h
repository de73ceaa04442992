#pragma once

#include <string>

namespace qel::programs {

/// The right to forward one workstation's queues, which one process at a time has: two would send everything twice.
/// Held while the object lives and given back by the system when the process ends, however it ends.
class QueueLock {
  public:
    /// Throws Failure: 75 with the other's process number when another forwards, 74 when the lock cannot be made.
    explicit QueueLock(const std::string& folder);
    ~QueueLock();
    QueueLock(const QueueLock&) = delete;
    QueueLock& operator=(const QueueLock&) = delete;

    /// The process that holds the lock now, 0 for none.
    static int holder(const std::string& folder);

  private:
    int descriptor_;
};

}  // namespace qel::programs
