#pragma once

#include <string>

#include "qelCore/Item.h"
#include "storage/StoreReader.h"

namespace qel {

/// Moves items from key to key. Keys form a tree by their elements; since no element's code is the beginning of another
/// one, the keys below a key are exactly those that begin with its bytes.
class ItemNavigation {
  public:
    static bool child(storage::StoreReader& reader, const Item& parent, Item& out);
    static bool next(storage::StoreReader& reader, Item& position);
    /// `next` where the cursor has read ahead and the sibling is the next entry; false, and nothing done, where not.
    static bool stepAhead(storage::EngineCursor& cursor, Item& position);
    static bool prev(storage::StoreReader& reader, Item& position);
    static bool nextKey(storage::StoreReader& reader, Item& position);

    static storage::Bytes bytesOf(const Item& item) {
        return {reinterpret_cast<const char*>(item.data()), item.size()};
    }

  private:
    static bool moveTo(Item& position, storage::Bytes key, std::size_t parent);
};

}  // namespace qel
