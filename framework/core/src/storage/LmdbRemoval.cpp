#include "storage/LmdbRemoval.h"

#include <cstdint>
#include <cstring>

namespace qel::storage {

namespace {

// No page holds more.
constexpr int mostEntries = 512;

std::size_t distance(const void* a, const void* b) {
    const auto x = reinterpret_cast<std::uintptr_t>(a);
    const auto y = reinterpret_cast<std::uintptr_t>(b);
    return x < y ? y - x : x - y;
}

}  // namespace

int LmdbRemoval::remove(MDB_cursor* cursor, MDB_val key) {
    MDB_val value;
    int error = mdb_cursor_get(cursor, &key, &value, MDB_SET);
    if (error == MDB_NOTFOUND)
        return 0;
    if (error == 0)
        error = look(key);
    return error == 0 ? mdb_cursor_del(cursor, 0) : error;
}

int LmdbRemoval::look(MDB_val key) {
    MDB_stat stat;
    int error = mdb_stat(transaction_, database_, &stat);
    // Pages that were split or joined have other neighbours.
    const std::size_t pages = stat.ms_leaf_pages + stat.ms_branch_pages;
    if (error != 0 || (pages == pages_ && isLookedAt(key)))
        return error;
    if (beside_ == nullptr)
        error = mdb_cursor_open(transaction_, database_, &beside_);
    pages_ = pages;
    if (error == 0)
        error = lookBeside(key, MDB_PREV, stat.ms_psize, low_);
    return error == 0 ? lookBeside(key, MDB_NEXT, stat.ms_psize, high_) : error;
}

bool LmdbRemoval::isLookedAt(MDB_val key) const {
    MDB_val low = low_.get();
    MDB_val high = high_.get();
    return (low.mv_size == 0 || mdb_cmp(transaction_, database_, &low, &key) < 0) &&
           (high.mv_size == 0 || mdb_cmp(transaction_, database_, &key, &high) < 0);
}

// Entries that lie further apart than a page is long do not lie in one. Pages being written may lie side by side, and then
// the step from one to the other is not seen: some more entries are read, up to the next such step.
int LmdbRemoval::lookBeside(MDB_val key, MDB_cursor_op step, std::size_t pageBytes, Bound& bound) {
    MDB_val value;
    int error = mdb_cursor_get(beside_, &key, &value, MDB_SET_KEY);
    bound.size = 0;
    for (int steps = 0; error == 0 && steps < mostEntries; ++steps) {
        const void* const before = key.mv_data;
        error = mdb_cursor_get(beside_, &key, &value, step);
        if (error == MDB_NOTFOUND)
            return 0;
        // The engine reads a page of zeros as entries with empty keys, which it never stores.
        if (error == 0 && (key.mv_size == 0 || key.mv_size > sizeof bound.bytes))
            error = MDB_CORRUPTED;
        if (error == 0 && distance(before, key.mv_data) >= pageBytes) {
            std::memcpy(bound.bytes, key.mv_data, key.mv_size);
            bound.size = key.mv_size;
            return 0;
        }
    }
    // Far enough for this entry, but where its page ends is not known.
    pages_ = 0;
    return error;
}

}  // namespace qel::storage
