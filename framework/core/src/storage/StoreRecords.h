#pragma once

#include <string>
#include <vector>

#include "qelCore/StoreOptions.h"
#include "storage/StoreCore.h"

namespace qel::storage {

/// The store's records about itself, under keys of its own. docs/store.md describes them.
class StoreRecords {
  public:
    /// Raised when versions before could no longer read the store.
    static constexpr int currentFormat = 1;

    explicit StoreRecords(StoreCore& core) : core_(core) {}

    /// Writes the identity of a new store, or checks that of an old one. False with a sentence.
    bool prepare(std::string& reason);
    StoreIdentity identity();
    CommitResult write(const StoreIdentity& identity);
    /// The same, unless another process has changed it since `before` was read: then `written` is false.
    CommitResult exchange(const StoreIdentity& before, const StoreIdentity& after, bool& written);
    std::vector<StoreLog> logs();
    CommitResult write(const StoreLog& log);

  private:
    bool read(Bytes key, Item& out);
    bool checkFormat(const Item& record, std::string& reason) const;
    StoreCore& core_;
};

}  // namespace qel::storage
