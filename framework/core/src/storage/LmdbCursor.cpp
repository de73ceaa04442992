#include "storage/LmdbCursor.h"

#include <algorithm>
#include <string>

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
    runAt_ = runEnd_ = 0;
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
    ++engine_.readFaults;
    engine_.tellReadFault(error);
    return Refreshed::failed;
}

bool LmdbCursor::begin(int& error) {
    if (engine_.environment() == nullptr) {
        error = MDB_PANIC;
    } else if (transaction_ == nullptr) {
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

namespace {

// The engine reads a page of zeros as entries with empty keys, which it never stores.
int checked(int error, const MDB_val& key) {
    return error == 0 && key.mv_size == 0 ? MDB_CORRUPTED : error;
}

Bytes bytesOf(const MDB_val& value) {
    return {static_cast<const char*>(value.mv_data), value.mv_size};
}

}  // namespace

bool LmdbCursor::place(MDB_val& key, MDB_cursor_op op) {
    runAt_ = runEnd_ = 0;
    runLength_ = 1;
    // A damaged page has ended the transaction.
    if (cursor_ == nullptr)
        return false;
    MDB_val value;
    const int error = checked(unlessDamaged([&] { return mdb_cursor_get(cursor_, &key, &value, op); }), key);
    if (error == 0) {
        key_ = bytesOf(key);
        value_ = bytesOf(value);
    }
    return settle(error);
}

bool LmdbCursor::settle(int error) {
    positioned_ = error == 0;
    if (error != 0 && error != MDB_NOTFOUND) {
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
    MDB_val found;
    return place(found, seek(key) ? MDB_PREV : MDB_LAST);
}

bool LmdbCursor::stepBack() {
    // The engine's cursor stands ahead, at the end of what was read.
    if (runAt_ != runEnd_)
        return seekBefore(key_);
    MDB_val found;
    return place(found, MDB_PREV);
}

// A walk steps on and on: each time twice as many are read, since most of what a step costs comes once for all of them.
bool LmdbCursor::stepFurther() {
    if (cursor_ == nullptr)
        return positioned_ = false;
    const unsigned length = runLength_;
    runLength_ = std::min(2 * length, longestRun);
    runAt_ = runEnd_ = 0;
    const int error = unlessDamaged([&] { return readRun(length); });
    if (error != 0 && error != MDB_NOTFOUND && length != 1)
        return stepPastFault();
    return settle(runEnd_ == 0 ? error : 0) && step();
}

int LmdbCursor::readRun(unsigned length) {
    MDB_val key;
    MDB_val value;
    for (runEnd_ = 0; runEnd_ != length; ++runEnd_) {
        const int error = checked(mdb_cursor_get(cursor_, &key, &value, MDB_NEXT), key);
        if (error != 0)
            return error;
        run_[runEnd_] = {bytesOf(key), bytesOf(value)};
        // Small entries are on their way from memory by the time the walk comes to them.
        for (std::size_t line = 0; line < 192; line += 64)
            __builtin_prefetch(static_cast<const char*>(key.mv_data) + line);
    }
    return 0;
}

// What could be read before a damaged page is still to be found, one by one.
bool LmdbCursor::stepPastFault() {
    const std::string here(key_);
    drop();
    int error = 0;
    if (!begin(error))
        return settle(error);
    // Others may have removed it meanwhile: then the next one is where the step leads.
    return seek(here) && (key_ != here || step());
}

}  // namespace qel::storage
