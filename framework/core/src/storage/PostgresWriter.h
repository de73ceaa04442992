#pragma once

#include <memory>
#include <string>
#include <vector>

#include "storage/Engine.h"
#include "storage/PostgresConnection.h"

namespace qel::storage {

/// A connection for writing: one transaction at a time, sent whole and answered later, so that several writers keep the
/// database busy from one thread.
class PostgresWriter {
  public:
    /// Connects when there is no connection. False with the error.
    bool connect(const PostgresSettings& settings, PostgresError& error);
    void disconnect() { connection_.reset(); }
    bool isConnected() const { return connection_ != nullptr; }

    /// Sends a transaction: the clock's mark first if `mark` is not null, then removes and puts in order of key. Each key
    /// occurs once.
    bool start(const std::vector<const Write*>& writes, const std::string* mark, long long markTime);
    /// Waits for what `start` sent. Afterwards the connection is fit for the next transaction or gone.
    PostgresError finish();

  private:
    bool send(const char* statement, std::initializer_list<const std::string*> parameters);
    void collect(PostgresError& error, bool& committed);
    void rollBack();

    std::unique_ptr<PostgresConnection> connection_;
    BytesArray putKeys_;
    BytesArray putValues_;
    BytesArray removeKeys_;
};

}  // namespace qel::storage
