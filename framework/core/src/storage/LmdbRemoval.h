#pragma once

#include <lmdb.h>

#include <cstddef>

namespace qel::storage {

/// Removes entries in a writing transaction. The engine joins a page that becomes too empty with one beside it and trusts what
/// it finds there: a page of zeros makes it write where nothing is its own. So both pages beside an entry are read before the
/// entry goes, once for all entries of a page. Owns nothing, for a guard over it may be left at any time: the cursors end
/// with the transaction.
class LmdbRemoval {
  public:
    LmdbRemoval(MDB_txn* transaction, MDB_dbi database) : transaction_(transaction), database_(database) {}

    /// Zero as well when there is no such entry.
    int remove(MDB_cursor* cursor, MDB_val key);

  private:
    /// An entry of the next page, or none.
    struct Bound {
        MDB_val get() const { return {size, const_cast<char*>(bytes)}; }
        char bytes[512]{};
        std::size_t size = 0;
    };

    int look(MDB_val key);
    int lookBeside(MDB_val key, MDB_cursor_op step, std::size_t pageBytes, Bound& bound);
    bool isLookedAt(MDB_val key) const;

    MDB_txn* const transaction_;
    const MDB_dbi database_;
    MDB_cursor* beside_ = nullptr;
    // What was looked at, as long as the tree has that many pages; 0 for nothing.
    std::size_t pages_ = 0;
    Bound low_;
    Bound high_;
};

}  // namespace qel::storage
