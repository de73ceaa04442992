#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string_view>

#include "qelCore/logging/Log.h"

namespace qel::logging {

/// The one place that every line of the process passes through: level, escaping, the sink. Any thread.
class Output {
  public:
    /// Made at first use and never destroyed: other static objects may log while they begin or end.
    static Output& instance();

    bool wants(int level) const noexcept { return level >= level_.load(std::memory_order_relaxed); }
    void setLevel(int level) noexcept { level_.store(level, std::memory_order_relaxed); }
    int getLevel() const noexcept { return level_.load(std::memory_order_relaxed); }

    std::shared_ptr<Sink> setSink(std::shared_ptr<Sink> sink);
    std::shared_ptr<Sink> getSink() const;

    void write(int level, int channel, std::string_view text);

  private:
    Output();

    std::atomic<int> level_{levelInformation};
    mutable std::mutex sinkMutex_;
    std::mutex writeMutex_;
    std::shared_ptr<Sink> sink_;
};

}  // namespace qel::logging
