#pragma once

#include <mutex>
#include <string>

#include "support/StoreFixture.h"

namespace qel::test {

/// Keeps what writes replace under ["kept", 0], ["kept", 1], …, or the keys of another parent, and notes what it is told.
class KeepingGuard final : public OverwriteGuard {
  public:
    explicit KeepingGuard(Item parent = path("kept")) : parent_(std::move(parent)) {}

    Entries keep(const Item&, ConstByteSpan older) override {
        const std::lock_guard guard(mutex_);
        Item value;
        value.setPlain(older);
        return {{key(parent_, next_++), value}};
    }
    void replaced(const Item&) override { note("replaced "); }
    void repeated(const Item&) override { note("repeated "); }

    std::string told() const {
        const std::lock_guard guard(mutex_);
        return told_;
    }

  private:
    void note(const char* what) {
        const std::lock_guard guard(mutex_);
        told_ += what;
    }

    const Item parent_;
    mutable std::mutex mutex_;
    long long next_ = 0;
    std::string told_;
};

}  // namespace qel::test
