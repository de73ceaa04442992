#include "storage/LmdbCursor.h"

#include "storage/LmdbEngine.h"
#include "storage/LmdbGuard.h"

namespace qel::storage {

void LmdbCursor::retire() {
    // In a child of `fork` everything here belongs to the parent.
    if (!closed && !engine_.isForeignProcess())
        drop();
    closed = true;
}

void LmdbCursor::drop() {
    rest();
    if (cursor_ != nullptr)
        mdb_cursor_close(cursor_);
    if (transaction_ != nullptr)
        mdb_txn_abort(transaction_);
    cursor_ = nullptr;
    transaction_ = nullptr;
}

void LmdbCursor::rest() {
    positioned_ = false;
    if (live_)
        mdb_txn_reset(transaction_);
    live_ = false;
}

Refreshed LmdbCursor::refresh() {
    touched.store(true, std::memory_order_relaxed);
    if (live_) {
        MDB_envinfo info;
        mdb_env_info(engine_.environment(), &info);
        if (info.me_last_txnid == snapshot_)
            return Refreshed::ok;
        rest();
    }
    int error = 0;
    if (begin(error))
        return Refreshed::ok;
    if (error == MDB_MAP_RESIZED)
        return Refreshed::grown;
    engine_.tellReadFault(error);
    return Refreshed::failed;
}

bool LmdbCursor::begin(int& error) {
    if (transaction_ == nullptr) {
        error = mdb_txn_begin(engine_.environment(), nullptr, MDB_RDONLY, &transaction_);
        // The places of killed processes are taken back when they are needed.
        int dead = 0;
        if (error == MDB_READERS_FULL && mdb_reader_check(engine_.environment(), &dead) == 0 && dead > 0)
            error = mdb_txn_begin(engine_.environment(), nullptr, MDB_RDONLY, &transaction_);
        if (error != 0)
            transaction_ = nullptr;
    } else {
        error = mdb_txn_renew(transaction_);
    }
    if (error != 0)
        return false;
    live_ = true;
    snapshot_ = mdb_txn_id(transaction_);
    error = cursor_ == nullptr ? mdb_cursor_open(transaction_, engine_.database(), &cursor_)
                               : mdb_cursor_renew(transaction_, cursor_);
    if (error == 0)
        return true;
    drop();
    return false;
}

bool LmdbCursor::place(MDB_val& key, MDB_cursor_op op) {
    // A damaged page has ended the transaction.
    if (cursor_ == nullptr)
        return false;
    MDB_val value;
    int error = unlessDamaged([&] { return mdb_cursor_get(cursor_, &key, &value, op); });
    // The engine reads a page of zeros as entries with empty keys, which it never stores.
    if (error == 0 && key.mv_size == 0)
        error = MDB_CORRUPTED;
    positioned_ = error == 0;
    if (positioned_) {
        key_ = {static_cast<const char*>(key.mv_data), key.mv_size};
        value_ = {static_cast<const char*>(value.mv_data), value.mv_size};
    } else if (error != MDB_NOTFOUND) {
        drop();
        ++engine_.readFaults;
        engine_.tellReadFault(error);
    }
    return positioned_;
}

bool LmdbCursor::seek(Bytes key) {
    MDB_val wanted{key.size(), const_cast<char*>(key.data())};
    return place(wanted, MDB_SET_RANGE);
}

bool LmdbCursor::seekBefore(Bytes key) {
    return seek(key) ? move(MDB_PREV) : move(MDB_LAST);
}

bool LmdbCursor::move(MDB_cursor_op op) {
    MDB_val key;
    const char* const last = key_.data();
    if (!place(key, op))
        return false;
    // Entries that were written in order lie at even distances: the one after the next is asked for in time.
    const std::uintptr_t at = reinterpret_cast<std::uintptr_t>(key_.data());
    const std::uintptr_t ahead = at + 3 * (at - reinterpret_cast<std::uintptr_t>(last));
    for (std::uintptr_t line = 0; line < 192; line += 64)
        __builtin_prefetch(reinterpret_cast<const void*>(ahead + line));
    return true;
}

}  // namespace qel::storage
