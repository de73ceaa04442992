#pragma once

#include <string>

#include "storage/PostgresConnection.h"

namespace qel::storage {

/// The tables in the database: `qel_items (key, value)` and `qel_meta (name, number, value)` for the format and the
/// unique clock. packaging/postgresql/schema.sql makes the same ones.
class PostgresSchema {
  public:
    /// Raised when versions before could no longer read the tables.
    static constexpr long long currentFormat = 1;

    static constexpr const char* readFrom = "qel_from";
    static constexpr const char* readBefore = "qel_before";
    static constexpr const char* put = "qel_put";
    static constexpr const char* putNew = "qel_put_new";
    static constexpr const char* lockTaken = "qel_lock_taken";
    static constexpr const char* remove = "qel_remove";
    static constexpr const char* insertNew = "qel_insert_new";
    static constexpr const char* exchange = "qel_exchange";
    static constexpr const char* mark = "qel_mark";
    static constexpr const char* begin = "qel_begin";
    static constexpr const char* commit = "qel_commit";

    /// Finds the tables or, when `create` is set and there are none, makes them. False with a sentence in `error`.
    static bool prepareTables(PostgresConnection& connection, bool create, PostgresError& error);
    static bool prepareReading(PostgresConnection& connection, PostgresError& error);
    /// Everything that the connection reads from here on is of one moment; and back to it after an error.
    static bool beginSnapshot(PostgresConnection& connection, PostgresError& error);
    static bool returnToSnapshot(PostgresConnection& connection, PostgresError& error);
    static bool prepareWriting(PostgresConnection& connection, PostgresError& error);
    static bool prepareExchange(PostgresConnection& connection, PostgresError& error);
    /// False when a commit of this server could be lost in a crash.
    static bool isDurable(PostgresConnection& connection, PostgresError& error);
    /// The record of the unique clock, empty when there is none yet.
    static bool readClock(PostgresConnection& connection, std::string& record, PostgresError& error);

  private:
    static bool readFormat(PostgresConnection& connection, long long& format, PostgresError& error);
    static bool createTables(PostgresConnection& connection, PostgresError& error);
};

}  // namespace qel::storage
