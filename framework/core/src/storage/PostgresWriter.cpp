#include "storage/PostgresWriter.h"

#include <algorithm>
#include <iterator>

#include "storage/Navigation.h"
#include "storage/PostgresSchema.h"

namespace qel::storage {

namespace {

Item keyOf(const Write& write) {
    Item key;
    key.setPlain(reinterpret_cast<const unsigned char*>(write.key.data()), write.key.size());
    return key;
}

Bytes field(const PGresult* result, int row, int column) {
    return {PQgetvalue(result, row, column), static_cast<std::size_t>(PQgetlength(result, row, column))};
}

// Of writes in order of key.
const Write* find(const std::vector<const Write*>& writes, Bytes key) {
    const auto at = std::lower_bound(writes.begin(), writes.end(), key,
                                     [](const Write* write, Bytes other) { return write->key < other; });
    return at != writes.end() && (*at)->key == key ? *at : nullptr;
}

}  // namespace

void PostgresTransaction::tellGuards() const {
    for (const Write* const write : repeated)
        write->guard->repeated(keyOf(*write));
    for (const Write* const write : replaced)
        write->guard->replaced(keyOf(*write));
}

bool PostgresWriter::connect(const PostgresSettings& settings, PostgresError& error) {
    if (connection_ != nullptr)
        return true;
    auto fresh = PostgresConnection::open(settings, true, error);
    if (fresh == nullptr)
        return false;
    if (!settings.allowsUnsafeCommit() && !PostgresSchema::isDurable(*fresh, error))
        return false;
    if (!PostgresSchema::prepareWriting(*fresh, error))
        return false;
    if (PQenterPipelineMode(fresh->handle()) != 1) {
        error = fresh->error();
        return false;
    }
    connection_ = std::move(fresh);
    return true;
}

bool PostgresWriter::send(const char* statement, std::initializer_list<const std::string*> parameters) {
    return connection_->send(statement, parameters);
}

bool PostgresWriter::sendWrites(const PostgresTransaction& transaction) {
    // Each kind of write has a statement of its own, in this order.
    struct Kind {
        const char* statement;
        bool (*is)(const Write&);
    };
    static constexpr Kind kinds[] = {
        {PostgresSchema::remove, [](const Write& write) { return write.removes; }},
        {PostgresSchema::put, [](const Write& write) { return !write.removes && write.guard == nullptr; }},
        {PostgresSchema::putNew, [](const Write& write) { return !write.removes && write.guard != nullptr; }},
    };
    for (const Kind& kind : kinds) {
        keys_.clear();
        values_.clear();
        for (const Write* const write : transaction.writes) {
            if (!kind.is(*write))
                continue;
            keys_.add(write->key);
            values_.add(write->value);
        }
        const bool hasValues = kind.statement != PostgresSchema::remove;
        const bool sent =
            keys_.size() == 0 || (hasValues ? send(kind.statement, {&keys_.encoded(), &values_.encoded()})
                                            : send(kind.statement, {&keys_.encoded()}));
        if (!sent)
            return false;
    }
    return true;
}

bool PostgresWriter::sendEnd() {
    return send(PostgresSchema::commit, {}) && sync();
}

bool PostgresWriter::start(PostgresTransaction& transaction, const std::string* mark, long long markTime) {
    error_ = {};
    committed_ = false;
    transaction.kept.clear();
    transaction.replaced.clear();
    transaction.repeated.clear();
    guarded_ = !transaction.superseded.empty() ||
               std::any_of(transaction.writes.begin(), transaction.writes.end(),
                           [](const Write* write) { return write->guard != nullptr; });
    bool sent = send(PostgresSchema::begin, {});
    if (sent && mark != nullptr) {
        const std::string time = encodedInteger(markTime);
        sent = send(PostgresSchema::mark, {&time, mark});
    }
    return sent && sendWrites(transaction) && (guarded_ ? sync() : sendEnd());
}

// Up to the end of what was sent last.
void PostgresWriter::collect(const Row& row) {
    PGconn* const handle = connection_->handle();
    for (int nothing = 0; nothing < 2;) {
        const PostgresResult result(PQgetResult(handle));
        if (result == nullptr) {
            // One ends each statement; two in a row mean that the connection broke.
            ++nothing;
            continue;
        }
        nothing = 0;
        const ExecStatusType status = PQresultStatus(result.get());
        if (status == PGRES_PIPELINE_SYNC)
            return;
        if (status == PGRES_COMMAND_OK)
            committed_ = std::string_view(PQcmdStatus(result.get())) == "COMMIT";
        else if (status == PGRES_TUPLES_OK && row)
            row(result.get());
        else if (status != PGRES_TUPLES_OK && status != PGRES_PIPELINE_ABORTED && !error_.isSet())
            error_ = connection_->errorOf(result.get());
    }
    if (!error_.isSet())
        error_ = connection_->error();
}

std::vector<const Write*> PostgresWriter::collectTaken(const PostgresTransaction& transaction) {
    std::vector<std::string> keys;
    collect([&](const PGresult* result) {
        for (int i = 0; i < PQntuples(result); ++i)
            keys.emplace_back(field(result, i, 0));
    });
    std::sort(keys.begin(), keys.end());
    std::vector<const Write*> taken;
    for (const Write* const write : transaction.writes)
        if (!write->removes && write->guard != nullptr &&
            !std::binary_search(keys.begin(), keys.end(), write->key))
            taken.push_back(write);
    return taken;
}

// The rows stay locked until the end: what is kept is what is replaced.
void PostgresWriter::compareTaken(PostgresTransaction& transaction, const std::vector<const Write*>& taken) {
    keys_.clear();
    for (const Write* const write : taken)
        keys_.add(write->key);
    if (!send(PostgresSchema::lockTaken, {&keys_.encoded()}) || !sync())
        return brokeWhileSending();
    std::vector<std::pair<const Write*, std::string>> differing;
    collect([&](const PGresult* result) {
        for (int i = 0; i < PQntuples(result); ++i) {
            const Write* const write = find(taken, field(result, i, 0));
            if (field(result, i, 1) == write->value)
                transaction.repeated.push_back(write);
            else
                differing.emplace_back(write, field(result, i, 1));
        }
    });
    for (const auto& [write, older] : differing) {
        auto entries = write->guard->keep(keyOf(*write), ConstByteSpan(older));
        std::move(entries.begin(), entries.end(), std::back_inserter(transaction.kept));
        transaction.replaced.push_back(write);
    }
}

void PostgresWriter::replace(PostgresTransaction& transaction) {
    keys_.clear();
    values_.clear();
    for (const auto& [key, value] : transaction.kept) {
        keys_.add(ItemNavigation::bytesOf(key));
        values_.add(ItemNavigation::bytesOf(value));
    }
    bool sent = keys_.size() == 0 || send(PostgresSchema::putNew, {&keys_.encoded(), &values_.encoded()});
    keys_.clear();
    values_.clear();
    for (const Write* const write : transaction.replaced) {
        // What a later write of this commit replaced is not stored at all.
        if (find(transaction.writes, write->key) != write)
            continue;
        keys_.add(write->key);
        values_.add(write->value);
    }
    sent = sent && (keys_.size() == 0 || send(PostgresSchema::put, {&keys_.encoded(), &values_.encoded()})) &&
           sync();
    if (!sent)
        return brokeWhileSending();
    std::size_t inserted = 0;
    collect([&](const PGresult* result) { inserted += static_cast<std::size_t>(PQntuples(result)); });
    // Another daemon kept something under the same place at the same moment: once more, with another one.
    if (!error_.isSet() && inserted != transaction.kept.size())
        error_ = {"40001", "a place for what is kept aside was taken"};
}

void PostgresWriter::settle(PostgresTransaction& transaction) {
    if (!guarded_)
        return;
    const std::vector<const Write*> taken = collectTaken(transaction);
    if (!error_.isSet() && !taken.empty())
        compareTaken(transaction, taken);
    if (error_.isSet())
        return;
    for (const auto& [older, newer] : transaction.superseded) {
        if (older->value == newer->value && older->removes == newer->removes) {
            transaction.repeated.push_back(older);
            continue;
        }
        auto entries = older->guard->keep(keyOf(*older), ConstByteSpan(older->value));
        std::move(entries.begin(), entries.end(), std::back_inserter(transaction.kept));
        transaction.replaced.push_back(older);
    }
    if (!transaction.replaced.empty())
        replace(transaction);
    if (!error_.isSet() && !sendEnd())
        brokeWhileSending();
}

void PostgresWriter::brokeWhileSending() {
    error_ = {"", "the connection broke while a transaction was sent"};
}

PostgresError PostgresWriter::finish() {
    if (!error_.isSet())
        collect();
    if (!error_.isSet() && !committed_)
        error_ = {"40000", "the transaction was rolled back"};
    if (connection_->isBroken() || error_.state.empty() != !error_.isSet())
        disconnect();
    else if (error_.isSet())
        rollBack();
    return error_;
}

// A statement that failed leaves its transaction open, and what was sent behind it undone.
void PostgresWriter::rollBack() {
    PostgresError error;
    PGconn* const handle = connection_->handle();
    if (PQexitPipelineMode(handle) != 1 || connection_->run("ROLLBACK", error) == nullptr ||
        PQenterPipelineMode(handle) != 1)
        disconnect();
}

}  // namespace qel::storage
