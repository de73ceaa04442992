#pragma once

#include <lmdb.h>

#include "storage/Engine.h"

namespace qel::storage {

class LmdbEngine;

/// A read transaction and a cursor of the engine; kept and renewed rather than made anew.
class LmdbCursor final : public EngineCursor {
  public:
    explicit LmdbCursor(LmdbEngine& engine) : engine_(engine) {}

    Refreshed refresh() override;
    void rest() override;
    bool seek(Bytes key) override;
    bool seekBefore(Bytes key) override;
    bool step() override { return move(MDB_NEXT); }
    bool stepBack() override { return move(MDB_PREV); }

    void retire() override;
    /// Gives up everything that belongs to the environment, which is about to go.
    void drop();

  private:
    bool begin(int& error);
    bool move(MDB_cursor_op op);
    bool place(MDB_val& key, MDB_cursor_op op);

    LmdbEngine& engine_;
    MDB_txn* transaction_ = nullptr;
    MDB_cursor* cursor_ = nullptr;
    std::size_t snapshot_ = 0;
};

}  // namespace qel::storage
