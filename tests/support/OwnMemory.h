#pragma once

#include <sys/types.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <sstream>
#include <string>
#include <thread>

#include "support/TemporaryFolder.h"

namespace qel::test {

/// Memory that a process has for itself, in bytes: pages of its store, which the system can take back, not included.
inline long long ownMemory(pid_t pid) {
    std::istringstream lines(TemporaryFolder::read("/proc/" + std::to_string(pid) + "/status"));
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with("RssAnon:"))
            return std::stoll(line.substr(8)) * 1024;
    return 0;
}

/// Looks at a process's memory all the time and remembers the most.
class PeakMemory {
  public:
    explicit PeakMemory(pid_t pid)
        : watcher_([this, pid] {
              while (!stopped_) {
                  most_ = std::max(most_.load(), ownMemory(pid));
                  std::this_thread::sleep_for(std::chrono::milliseconds(10));
              }
          }) {}
    ~PeakMemory() {
        stopped_ = true;
        watcher_.join();
    }
    PeakMemory(const PeakMemory&) = delete;
    PeakMemory& operator=(const PeakMemory&) = delete;

    long long get() const { return most_; }

  private:
    std::atomic<bool> stopped_{false};
    std::atomic<long long> most_{0};
    std::thread watcher_;
};

}  // namespace qel::test
