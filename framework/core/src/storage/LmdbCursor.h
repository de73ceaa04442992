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
    bool stepBack() override;

    void retire() override;
    /// Gives up everything that belongs to the environment, which is about to go.
    void drop();

  private:
    bool begin(int& error);
    bool stepFurther() override;
    int readRun(unsigned length);
    bool stepPastFault();
    bool place(MDB_val& key, MDB_cursor_op op);
    bool settle(int error);

    LmdbEngine& engine_;
    MDB_txn* transaction_ = nullptr;
    MDB_cursor* cursor_ = nullptr;
    std::size_t snapshot_ = 0;
    unsigned runLength_ = 1;
};

}  // namespace qel::storage
