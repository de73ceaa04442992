#pragma once

#include <functional>

#include "qelCore/Item.h"
#include "qelCore/ItemStore.h"

namespace qel {

/// Guards the records of one central log. A record under the same key is usually the same event, sent again because its
/// acknowledgement was lost. Any other content is evidence of a fault (a restored queue, a doubled identity) and must not
/// vanish under the newer one: it is kept aside and logged.
class RecordGuard final : public OverwriteGuard {
  public:
    /// What stood there.
    enum class Met { same, other };
    /// Any thread; quick, and without using the store.
    using Count = std::function<void(Met)>;

    /// `count` may be empty.
    explicit RecordGuard(Item log, Count count = {});

    Entries keep(const Item& key, ConstByteSpan older) override;
    void replaced(const Item& key) override;
    void repeated(const Item& key) override;

  private:
    const Item log_;
    const Count count_;
};

}  // namespace qel
