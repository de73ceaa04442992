#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "qelCore/ItemStore.h"
#include "storage/Engine.h"
#include "storage/PostgresConnection.h"

namespace qel::storage {

/// What one connection writes in one transaction: first `start`, then `settle`, then `finish`, each for all connections
/// before the next, so that several transactions are under way from one thread.
class PostgresTransaction {
  public:
    /// Each key once, in order of key.
    std::vector<const Write*> writes;
    /// Guarded writes to keys that a later write of the same commit has as well.
    std::vector<std::pair<const Write*, const Write*>> superseded;
    bool done = false;

    /// What the guards had kept, stored by the transaction too.
    OverwriteGuard::Entries kept;
    std::vector<const Write*> replaced;
    std::vector<const Write*> repeated;

    void tellGuards() const;
};

/// A connection for writing: one transaction at a time, sent whole and answered later.
class PostgresWriter {
  public:
    /// Connects when there is no connection. False with the error.
    bool connect(const PostgresSettings& settings, PostgresError& error);
    void disconnect() { connection_.reset(); }
    bool isConnected() const { return connection_ != nullptr; }

    /// Sends a transaction: the clock's mark first if `mark` is not null, then removes and puts in order of key. Where all
    /// writes are without guards, its end too.
    bool start(PostgresTransaction& transaction, const std::string* mark, long long markTime);
    /// Waits for what the guarded writes met, keeps what they replace, and sends the end. Nothing without guarded writes.
    void settle(PostgresTransaction& transaction);
    /// Waits for the end. Afterwards the connection is fit for the next transaction or gone.
    PostgresError finish();

  private:
    using Row = std::function<void(const PGresult* result)>;

    bool send(const char* statement, std::initializer_list<const std::string*> parameters);
    bool sendWrites(const PostgresTransaction& transaction);
    bool sendEnd();
    bool sync() { return PQpipelineSync(connection_->handle()) == 1; }
    void collect(const Row& row = {});
    /// Those of the guarded writes whose keys were taken.
    std::vector<const Write*> collectTaken(const PostgresTransaction& transaction);
    void compareTaken(PostgresTransaction& transaction, const std::vector<const Write*>& taken);
    void replace(PostgresTransaction& transaction);
    void brokeWhileSending();
    void rollBack();

    std::unique_ptr<PostgresConnection> connection_;
    BytesArray keys_;
    BytesArray values_;
    bool guarded_ = false;
    PostgresError error_;
    bool committed_ = false;
};

}  // namespace qel::storage
