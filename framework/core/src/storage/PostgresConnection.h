#pragma once

#include <libpq-fe.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "storage/Engine.h"
#include "storage/PostgresSettings.h"

namespace qel::storage {

struct ClearResult {
    void operator()(PGresult* result) const { PQclear(result); }
};
using PostgresResult = std::unique_ptr<PGresult, ClearResult>;

/// What the database said when it did not do as told.
struct PostgresError {
    /// Five characters of the standard, empty when the connection broke.
    std::string state;
    std::string sentence;

    bool isSet() const { return !sentence.empty(); }
    /// The same again may succeed, on another connection where this one is gone.
    bool isPassing() const;
    /// The server itself is not there, or does not take changes.
    bool isAway() const { return isPassing() && state.compare(0, 2, "40") != 0 && state != "55P03"; }
    bool isMissingTable() const { return state == "42P01"; }
};

/// Byte strings as one parameter in the binary form of an array.
class BytesArray {
  public:
    BytesArray() { clear(); }
    void clear();
    void add(Bytes element);
    int size() const { return count_; }
    /// Complete with the number of elements.
    const std::string& encoded();

  private:
    std::string bytes_;
    int count_ = 0;
};

/// A 64-bit integer as a binary parameter.
std::string encodedInteger(long long value);
long long decodedInteger(const char* bytes);

/// One session with the database, its statements prepared. Used by one thread at a time.
class PostgresConnection {
  public:
    PostgresConnection(const PostgresConnection&) = delete;
    PostgresConnection& operator=(const PostgresConnection&) = delete;
    ~PostgresConnection();

    /// Null with what went wrong. Where the URL does not say otherwise, to a server that takes changes when
    /// `needsPrimary` is set: others lag behind it.
    static std::unique_ptr<PostgresConnection> open(const PostgresSettings& settings, bool needsPrimary,
                                                    PostgresError& error);

    PGconn* handle() const { return connection_; }
    bool isBroken() const { return PQstatus(connection_) == CONNECTION_BAD; }

    /// One statement without parameters; null with the error.
    PostgresResult run(const char* sql, PostgresError& error);
    bool prepare(const char* name, const char* sql, PostgresError& error);
    /// Hands a prepared statement to the server without waiting; parameters in binary form.
    bool send(const char* statement, std::initializer_list<const std::string*> parameters);
    /// A prepared statement and its result; null with the error.
    PostgresResult execute(const char* statement, std::initializer_list<const std::string*> parameters,
                           PostgresError& error);
    PostgresError errorOf(const PGresult* result) const;
    /// Of the connection itself.
    PostgresError error() const { return errorOf(nullptr); }

  private:
    explicit PostgresConnection(PGconn* connection) : connection_(connection) {}
    PostgresResult checked(PGresult* result, PostgresError& error);

    PGconn* connection_;
};

}  // namespace qel::storage
