#pragma once

#include <cstdlib>

#include "support/AuditStore.h"

namespace qel::fuzz {

/// One store for all inputs of a process, in memory where the machine has a file system for that: opening one for each
/// would be most of the work.
inline test::AuditStore& sharedStore() {
    static test::AuditStore* const store = [] {
        ::setenv("TMPDIR", "/dev/shm", 0);
        static test::AuditStore made;
        return &made;
    }();
    return *store;
}

/// Leaves the store as it was before the input.
inline void emptyStore(ItemStore& store) {
    Item key;
    while (store.nextKey(key))
        store.remove(key);
}

}  // namespace qel::fuzz
