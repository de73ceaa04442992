#include "storage/PostgresSchema.h"

#include <chrono>
#include <cstdlib>
#include <iterator>
#include <thread>

#include "qelCore/ItemStore.h"

namespace qel::storage {

namespace {

struct Statement {
    const char* name;
    std::string sql;
};

// A mark that ran wild by more than the bound of the unique clock gives way, so that it does not stay for good.
std::string markStatement() {
    const std::string lead = std::to_string(ItemStore::maxClockLead);
    const std::string isWild = "qel_meta.number > excluded.number + " + lead;
    const std::string isNewer = "excluded.number >= qel_meta.number OR " + isWild;
    return "INSERT INTO qel_meta (name, number, value) VALUES ('clock', $1, $2) ON CONFLICT (name) DO UPDATE "
           "SET "
           "number = CASE WHEN " +
           isWild +
           " THEN excluded.number ELSE greatest(qel_meta.number, excluded.number) END, value = CASE WHEN " +
           isNewer + " THEN excluded.value ELSE qel_meta.value END";
}

template <std::size_t count>
bool prepareAll(PostgresConnection& connection, const Statement (&statements)[count], PostgresError& error) {
    for (const Statement& statement : statements)
        if (!connection.prepare(statement.name, statement.sql.c_str(), error))
            return false;
    return true;
}

constexpr const char* itemsTable =
    "CREATE TABLE IF NOT EXISTS qel_items (key bytea PRIMARY KEY, value bytea NOT NULL)";
constexpr const char* metaTable =
    "CREATE TABLE IF NOT EXISTS qel_meta (name text PRIMARY KEY, number bigint NOT NULL, value bytea NOT "
    "NULL)";
constexpr const char* formatRow =
    "INSERT INTO qel_meta (name, number, value) VALUES ('format', 1, '') ON CONFLICT (name) DO NOTHING";

}  // namespace

bool PostgresSchema::readFormat(PostgresConnection& connection, long long& format, PostgresError& error) {
    const PostgresResult found = connection.run("SELECT number FROM qel_meta WHERE name = 'format'", error);
    if (found == nullptr)
        return false;
    format = PQntuples(found.get()) == 0 ? 0 : std::atoll(PQgetvalue(found.get(), 0, 0));
    return true;
}

bool PostgresSchema::createTables(PostgresConnection& connection, PostgresError& error) {
    for (const char* const sql : {itemsTable, metaTable, formatRow})
        if (connection.run(sql, error) == nullptr)
            return false;
    return true;
}

bool PostgresSchema::prepareTables(PostgresConnection& connection, bool create, PostgresError& error) {
    long long format = 0;
    // Several daemons may make the tables at one moment; all but one are told so in various ways, and find them.
    PostgresError refused;
    for (int tries = 0; tries < 10; ++tries) {
        error = {};
        if (readFormat(connection, format, error) && format != 0)
            break;
        if (error.isSet() && !error.isMissingTable())
            return false;
        if (!create) {
            error = {"", "it holds no store of this system"};
            return false;
        }
        refused = {};
        if (!createTables(connection, refused))
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (format == 0 && refused.isSet()) {
        error = refused;
        return false;
    }
    if (format == currentFormat)
        return true;
    error = {"", "its tables have format " + std::to_string(format) + "; this version reads format " +
                     std::to_string(currentFormat)};
    return false;
}

bool PostgresSchema::prepareReading(PostgresConnection& connection, PostgresError& error) {
    const Statement statements[] = {
        {readFrom, "SELECT key, value FROM qel_items WHERE key >= $1 ORDER BY key LIMIT $2::bigint"},
        {readBefore, "SELECT key, value FROM qel_items WHERE key < $1 ORDER BY key DESC LIMIT $2::bigint"},
    };
    return prepareAll(connection, statements, error);
}

bool PostgresSchema::beginSnapshot(PostgresConnection& connection, PostgresError& error) {
    return connection.run("BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY", error) != nullptr &&
           connection.run("SAVEPOINT qel_snapshot", error) != nullptr;
}

bool PostgresSchema::returnToSnapshot(PostgresConnection& connection, PostgresError& error) {
    return connection.run("ROLLBACK TO SAVEPOINT qel_snapshot", error) != nullptr;
}

bool PostgresSchema::prepareWriting(PostgresConnection& connection, PostgresError& error) {
    const Statement statements[] = {
        {put,
         "INSERT INTO qel_items (key, value) SELECT * FROM unnest($1::bytea[], $2::bytea[]) "
         "ON CONFLICT (key) DO UPDATE SET value = excluded.value WHERE qel_items.value <> excluded.value"},
        // The keys that were not there.
        {putNew,
         "INSERT INTO qel_items (key, value) SELECT * FROM unnest($1::bytea[], $2::bytea[]) "
         "ON CONFLICT (key) DO NOTHING RETURNING key"},
        {lockTaken, "SELECT key, value FROM qel_items WHERE key = ANY($1::bytea[]) FOR UPDATE"},
        {remove, "DELETE FROM qel_items WHERE key = ANY($1::bytea[])"},
        {mark, markStatement()},
        {begin, "BEGIN"},
        {commit, "COMMIT"},
    };
    return prepareAll(connection, statements, error);
}

bool PostgresSchema::prepareExchange(PostgresConnection& connection, PostgresError& error) {
    const Statement statements[] = {
        {insertNew, "INSERT INTO qel_items (key, value) VALUES ($1, $2) ON CONFLICT (key) DO NOTHING"},
        {exchange, "UPDATE qel_items SET value = $2 WHERE key = $1 AND value = $3"},
    };
    return prepareAll(connection, statements, error);
}

bool PostgresSchema::isDurable(PostgresConnection& connection, PostgresError& error) {
    const PostgresResult found = connection.run(
        "SELECT coalesce(current_setting('fsync', true), 'on'), "
        "coalesce(current_setting('synchronous_commit', true), 'on')",
        error);
    if (found == nullptr)
        return false;
    for (int column = 0; column < 2; ++column) {
        if (std::string_view(PQgetvalue(found.get(), 0, column)) != "off")
            continue;
        error.state = "F0000";
        error.sentence = std::string("the server has ") + (column == 0 ? "fsync" : "synchronous_commit") +
                         " = off, so that a crash would take events that were acknowledged; expected on, or "
                         "allow_unsafe_commit=1 in the store URL";
        return false;
    }
    return true;
}

bool PostgresSchema::readClock(PostgresConnection& connection, std::string& record, PostgresError& error) {
    if (!connection.prepare("qel_clock", "SELECT value FROM qel_meta WHERE name = 'clock'", error))
        return false;
    const PostgresResult found = connection.execute("qel_clock", {}, error);
    if (found == nullptr)
        return false;
    if (PQntuples(found.get()) != 0)
        record.assign(PQgetvalue(found.get(), 0, 0),
                      static_cast<std::size_t>(PQgetlength(found.get(), 0, 0)));
    return true;
}

}  // namespace qel::storage
