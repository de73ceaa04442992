#include "storage/PostgresWriter.h"

#include "storage/PostgresSchema.h"

namespace qel::storage {

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

bool PostgresWriter::start(const std::vector<const Write*>& writes, const std::string* mark,
                           long long markTime) {
    putKeys_.clear();
    putValues_.clear();
    removeKeys_.clear();
    for (const Write* const write : writes) {
        if (write->removes) {
            removeKeys_.add(write->key);
            continue;
        }
        putKeys_.add(write->key);
        putValues_.add(write->value);
    }
    bool sent = send(PostgresSchema::begin, {});
    if (sent && mark != nullptr) {
        const std::string time = encodedInteger(markTime);
        sent = send(PostgresSchema::mark, {&time, mark});
    }
    if (sent && removeKeys_.size() != 0)
        sent = send(PostgresSchema::remove, {&removeKeys_.encoded()});
    if (sent && putKeys_.size() != 0)
        sent = send(PostgresSchema::put, {&putKeys_.encoded(), &putValues_.encoded()});
    return sent && send(PostgresSchema::commit, {}) && PQpipelineSync(connection_->handle()) == 1;
}

void PostgresWriter::collect(PostgresError& error, bool& committed) {
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
            committed = std::string_view(PQcmdStatus(result.get())) == "COMMIT";
        else if (status != PGRES_PIPELINE_ABORTED && !error.isSet())
            error = connection_->errorOf(result.get());
    }
    if (!error.isSet())
        error = connection_->error();
}

PostgresError PostgresWriter::finish() {
    PostgresError error;
    bool committed = false;
    collect(error, committed);
    if (!error.isSet() && !committed)
        error = {"40000", "the transaction was rolled back"};
    if (connection_->isBroken() || error.state.empty() != !error.isSet())
        disconnect();
    else if (error.isSet())
        rollBack();
    return error;
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
