#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "qelCore/Export.h"
#include "qelCore/logging/Log.h"

namespace qel::logging {

/// Collects the process's log lines, of every level, while it lives, instead of their being written; for
/// tests. Puts sink and level back at its end, so captures may nest, the inner one ending first. Lines may
/// come from any thread, and be asked for from any.
class QELCORE_EXPORT CaptureSink {
  public:
    struct Entry {
        int level;
        int channel;
        std::string text;
    };

    CaptureSink();
    ~CaptureSink();
    CaptureSink(const CaptureSink&) = delete;
    CaptureSink& operator=(const CaptureSink&) = delete;

    /// All lines so far, in the order of writing.
    std::vector<Entry> entries() const;
    /// The texts of the lines of one level, or of all when `level` is negative.
    std::vector<std::string> texts(int level = -1) const;
    /// How many lines hold `part`.
    int count(std::string_view part) const;
    bool contains(std::string_view part) const { return count(part) > 0; }
    /// Waits until a line holds `part`; false when none does within the time.
    bool waitFor(std::string_view part, int milliseconds = 30000) const;
    void clear();

  private:
    class Collector;
    std::shared_ptr<Collector> collector_;
    std::shared_ptr<Sink> before_;
    int levelBefore_;
};

}  // namespace qel::logging
