#include "qelCore/System.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <limits>
#include <mutex>
#include <utility>

namespace qel {

namespace {

struct State {
    std::mutex clockMutex;
    std::shared_ptr<Clock> clock;
    std::atomic<bool> clockReplaced{false};

    std::mutex uniqueMutex;
    std::shared_ptr<UniqueTimeSource> source;
    UTCDateTime last = std::numeric_limits<UTCDateTime>::min();
};

// Never destroyed: other static objects may ask for the time while they end.
State& state() {
    static State* const instance = new State;
    return *instance;
}

UTCDateTime machineTime() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

UTCDateTime following(UTCDateTime time) {
    return time == std::numeric_limits<UTCDateTime>::max() ? time : time + 1;
}

}  // namespace

Clock::~Clock() = default;
UniqueTimeSource::~UniqueTimeSource() = default;

System& System::instance() {
    static System* const system = new System;
    return *system;
}

UTCDateTime System::getUTCDateTime() {
    State& shared = state();
    if (!shared.clockReplaced.load(std::memory_order_acquire))
        return machineTime();
    std::unique_lock lock(shared.clockMutex);
    const std::shared_ptr<Clock> clock = shared.clock;
    lock.unlock();
    return clock == nullptr ? machineTime() : clock->now();
}

UTCDateTime System::getUTCDateTimeUnique() {
    const UTCDateTime now = getUTCDateTime();
    State& shared = state();
    const std::lock_guard lock(shared.uniqueMutex);
    const UTCDateTime atLeast = following(shared.last);
    const UTCDateTime offered = shared.source == nullptr ? now : shared.source->next(now, atLeast);
    return shared.last = std::max(offered, atLeast);
}

void System::setClock(std::shared_ptr<Clock> clock) {
    State& shared = state();
    const std::lock_guard lock(shared.clockMutex);
    shared.clock = std::move(clock);
    shared.clockReplaced.store(shared.clock != nullptr, std::memory_order_release);
}

void System::setUniqueTimeSource(std::shared_ptr<UniqueTimeSource> source) {
    State& shared = state();
    const std::lock_guard lock(shared.uniqueMutex);
    shared.source.swap(source);
}

std::shared_ptr<UniqueTimeSource> System::getUniqueTimeSource() {
    State& shared = state();
    const std::lock_guard lock(shared.uniqueMutex);
    return shared.source;
}

}  // namespace qel
