#include "qelCore/logging/CaptureSink.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "qelCore/Export.h"
#include "qelCore/logging/Log.h"

namespace qel::logging {

class QEL_HIDDEN CaptureSink::Collector final : public Sink {
  public:
    void write(const Line& line) override {
        {
            const std::lock_guard lock(mutex);
            entries.push_back({line.level, line.channel, std::string(line.text)});
        }
        added.notify_all();
    }

    int count(std::string_view part) const {
        return static_cast<int>(std::count_if(entries.begin(), entries.end(), [part](const Entry& entry) {
            return entry.text.find(part) != std::string::npos;
        }));
    }

    mutable std::mutex mutex;
    mutable std::condition_variable added;
    std::vector<Entry> entries;
};

CaptureSink::CaptureSink() : collector_(std::make_shared<Collector>()), levelBefore_(getLevel()) {
    before_ = setSink(collector_);
    setLevel(levelDebug);
}

CaptureSink::~CaptureSink() {
    setLevel(levelBefore_);
    setSink(before_);
}

std::vector<CaptureSink::Entry> CaptureSink::entries() const {
    const std::lock_guard lock(collector_->mutex);
    return collector_->entries;
}

std::vector<std::string> CaptureSink::texts(int level) const {
    std::vector<std::string> texts;
    for (Entry& entry : entries())
        if (level < 0 || entry.level == level)
            texts.push_back(std::move(entry.text));
    return texts;
}

int CaptureSink::count(std::string_view part) const {
    const std::lock_guard lock(collector_->mutex);
    return collector_->count(part);
}

bool CaptureSink::waitFor(std::string_view part, int milliseconds) const {
    std::unique_lock lock(collector_->mutex);
    return collector_->added.wait_for(lock, std::chrono::milliseconds(milliseconds),
                                      [&] { return collector_->count(part) > 0; });
}

void CaptureSink::clear() {
    const std::lock_guard lock(collector_->mutex);
    collector_->entries.clear();
}

}  // namespace qel::logging
