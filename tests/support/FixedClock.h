#pragma once

#include <atomic>
#include <memory>

#include "qelCore/System.h"

namespace qel::test {

/// Makes the process's clock stand at a time, which the test moves, until it goes out of scope.
class FixedClock {
  public:
    explicit FixedClock(UTCDateTime time) : hands_(std::make_shared<Hands>()) {
        hands_->time = time;
        System::setClock(hands_);
    }
    ~FixedClock() { System::setClock(nullptr); }
    FixedClock(const FixedClock&) = delete;
    FixedClock& operator=(const FixedClock&) = delete;

    void set(UTCDateTime time) const { hands_->time = time; }
    void advance(UTCDateTime microseconds) const { hands_->time += microseconds; }

  private:
    struct Hands : Clock {
        UTCDateTime now() override { return time; }
        std::atomic<UTCDateTime> time{0};
    };

    std::shared_ptr<Hands> hands_;
};

}  // namespace qel::test
