#include "storage/PostgresConnection.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

namespace qel::storage {

namespace {

constexpr std::uint32_t byteaType = 17;
// Dimensions, flags, element type, number of elements, first index.
constexpr std::size_t arrayHeader = 20;
constexpr std::size_t arrayCountAt = 12;

void appendInt(std::string& out, std::uint32_t value) {
    const std::uint32_t swapped = htonl(value);
    out.append(reinterpret_cast<const char*>(&swapped), sizeof swapped);
}

void ignoreNotice(void*, const PGresult*) {}

// The library's texts end in a line break and may have several lines; a log line is one.
std::string oneLine(const char* text) {
    std::string out(text == nullptr ? "" : text);
    while (!out.empty() && (out.back() == '\n' || out.back() == ' '))
        out.pop_back();
    std::replace(out.begin(), out.end(), '\n', ' ');
    return out.empty() ? "the connection broke" : out;
}

}  // namespace

bool PostgresError::isPassing() const {
    // Serialization failure, deadlock, shutdown or crash of the server, starting up, a standby where a primary was
    // wanted, no connection left, and every breakdown of the connection itself.
    static constexpr std::string_view passing[] = {"40001", "40P01", "40003", "57P01", "57P02",
                                                   "57P03", "57P05", "25006", "53300", "55P03"};
    return state.empty() || state.compare(0, 2, "08") == 0 ||
           std::find(std::begin(passing), std::end(passing), state) != std::end(passing);
}

void BytesArray::clear() {
    bytes_.clear();
    count_ = 0;
    appendInt(bytes_, 1);
    appendInt(bytes_, 0);
    appendInt(bytes_, byteaType);
    appendInt(bytes_, 0);
    appendInt(bytes_, 1);
}

void BytesArray::add(Bytes element) {
    appendInt(bytes_, static_cast<std::uint32_t>(element.size()));
    bytes_.append(element);
    ++count_;
}

const std::string& BytesArray::encoded() {
    static_assert(arrayCountAt + 8 == arrayHeader);
    const std::uint32_t count = htonl(static_cast<std::uint32_t>(count_));
    std::memcpy(bytes_.data() + arrayCountAt, &count, sizeof count);
    return bytes_;
}

std::string encodedInteger(long long value) {
    const auto bits = static_cast<std::uint64_t>(value);
    std::string out;
    appendInt(out, static_cast<std::uint32_t>(bits >> 32));
    appendInt(out, static_cast<std::uint32_t>(bits));
    return out;
}

long long decodedInteger(const char* bytes) {
    std::uint32_t high = 0;
    std::uint32_t low = 0;
    std::memcpy(&high, bytes, sizeof high);
    std::memcpy(&low, bytes + sizeof high, sizeof low);
    return static_cast<long long>((std::uint64_t{ntohl(high)} << 32) | ntohl(low));
}

PostgresConnection::~PostgresConnection() {
    PQfinish(connection_);
}

std::unique_ptr<PostgresConnection> PostgresConnection::open(const PostgresSettings& settings,
                                                             bool needsPrimary, PostgresError& error) {
    std::vector<const char*> names;
    std::vector<const char*> values;
    bool choosesServer = false;
    for (const auto& [name, value] : settings.parameters()) {
        names.push_back(name.c_str());
        values.push_back(value.c_str());
        choosesServer = choosesServer || name == "target_session_attrs";
    }
    if (needsPrimary && !choosesServer) {
        names.push_back("target_session_attrs");
        values.push_back("read-write");
    }
    names.push_back(nullptr);
    values.push_back(nullptr);
    std::unique_ptr<PostgresConnection> out(
        new PostgresConnection(PQconnectdbParams(names.data(), values.data(), 0)));
    if (out->connection_ == nullptr || out->isBroken()) {
        error = out->error();
        return nullptr;
    }
    PQsetNoticeReceiver(out->connection_, ignoreNotice, nullptr);
    return out;
}

PostgresError PostgresConnection::errorOf(const PGresult* result) const {
    const char* const state = PQresultErrorField(result, PG_DIAG_SQLSTATE);
    const char* const message = PQresultErrorField(result, PG_DIAG_MESSAGE_PRIMARY);
    PostgresError out;
    if (state != nullptr)
        out.state = state;
    if (message != nullptr)
        out.sentence = oneLine(message);
    else
        out.sentence = oneLine(connection_ == nullptr ? "no memory" : PQerrorMessage(connection_));
    return out;
}

PostgresResult PostgresConnection::checked(PGresult* result, PostgresError& error) {
    PostgresResult owned(result);
    const ExecStatusType status = PQresultStatus(result);
    if (status == PGRES_TUPLES_OK || status == PGRES_COMMAND_OK)
        return owned;
    error = errorOf(result);
    return nullptr;
}

PostgresResult PostgresConnection::run(const char* sql, PostgresError& error) {
    return checked(PQexec(connection_, sql), error);
}

bool PostgresConnection::prepare(const char* name, const char* sql, PostgresError& error) {
    return checked(PQprepare(connection_, name, sql, 0, nullptr), error) != nullptr;
}

bool PostgresConnection::send(const char* statement, std::initializer_list<const std::string*> parameters) {
    const char* values[4];
    int lengths[4];
    int formats[4];
    int count = 0;
    for (const std::string* const parameter : parameters) {
        values[count] = parameter->data();
        lengths[count] = static_cast<int>(parameter->size());
        formats[count++] = 1;
    }
    return PQsendQueryPrepared(connection_, statement, count, values, lengths, formats, 1) == 1;
}

PostgresResult PostgresConnection::execute(const char* statement,
                                           std::initializer_list<const std::string*> parameters,
                                           PostgresError& error) {
    if (!send(statement, parameters)) {
        error = this->error();
        return nullptr;
    }
    PostgresResult last;
    while (PGresult* const result = PQgetResult(connection_)) {
        if (error.isSet())
            PQclear(result);
        else
            last = checked(result, error);
    }
    return error.isSet() ? nullptr : std::move(last);
}

}  // namespace qel::storage
