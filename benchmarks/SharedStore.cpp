// How fast is a log in a shared database, against the database itself? Eight sessions commit batches of 64 guarded events each,
// as the daemon does; the peer inserts the same rows in transactions of 64 from eight connections. Then a walk over all
// entries, against COPY in order of key in the binary form, which is the faster one; and an export of them as CSV in one snapshot,
// a file flushed line by line, against COPY as text that is thrown away, and in the last line against the binary one.

#include <libpq-fe.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

#include "auditing/AuditExport.h"
#include "qelCore/ItemStore.h"
#include "qelCore/logging/Log.h"
#include "support/Figures.h"
#include "support/PostgresServer.h"
#include "support/TemporaryFolder.h"

namespace {

using namespace qel;

constexpr int sessions = 8;
constexpr int perBatch = 64;
constexpr int rounds = 5;
// QEL_SHARED_BATCHES=1954 makes a million entries.
const int batches = static_cast<int>(bench::sizeFrom("QEL_SHARED_BATCHES", 200));
const int events = sessions * batches * perBatch;

Item keyOf(int session, int number) {
    Item last;
    last.addInteger(1790000000000000 + (number * sessions + session) * 1000LL);
    last.addInteger(100000 + session);
    Item key;
    key.addString("interaction");
    key.addItem(last);
    return key;
}

Item valueOf(int session, int number) {
    Item value;
    value.addString("user" + std::to_string(session));
    value.addString("workstation-" + std::to_string(session));
    value.addString("SeriesOpened");
    value.addString("1.2.276.0.7230010.3.1.4.8323329.1234." + std::to_string(number));
    value.addString("CT");
    value.addInteger(number);
    return value;
}

void inParallel(const std::function<void(int)>& work) {
    std::vector<std::thread> threads;
    for (int session = 0; session < sessions; ++session)
        threads.emplace_back(work, session);
    for (std::thread& thread : threads)
        thread.join();
}

void require(bool done, const std::string& what) {
    if (done)
        return;
    std::fprintf(stderr, "%s\n", what.c_str());
    std::exit(1);
}

/// Every event may meet another under its key; these meet none.
class Guard final : public OverwriteGuard {
  public:
    Entries keep(const Item&, ConstByteSpan) override { return {}; }
    void replaced(const Item&) override { require(false, "an event met another"); }
    void repeated(const Item&) override { require(false, "an event was there"); }
};

void ingest(ItemStore& store, int session) {
    const auto guard = std::make_shared<Guard>();
    for (int batch = 0; batch < batches; ++batch) {
        WriteBatch writes(&store);
        for (int i = 0; i < perBatch; ++i) {
            const int number = batch * perBatch + i;
            store.store(keyOf(session, number), valueOf(session, number).bytes(), guard);
        }
        const CommitResult result = writes.commit();
        require(result.durable, result.reason);
    }
}

class Peer {
  public:
    Peer(const test::PostgresServer& server, const std::string& password)
        : connection_(PQsetdbLogin("localhost", std::to_string(server.port()).c_str(), nullptr, nullptr,
                                   "postgres", "qel", password.c_str())) {
        run("SET search_path = peer");
    }
    ~Peer() { PQfinish(connection_); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    void run(const char* sql) { check(PQexec(connection_, sql)); }
    void insertAll(int session) {
        check(PQprepare(connection_, "i", "INSERT INTO qel_items (key, value) VALUES ($1, $2)", 0, nullptr));
        for (int batch = 0; batch < batches; ++batch) {
            run("BEGIN");
            for (int i = 0; i < perBatch; ++i)
                insert(session, batch * perBatch + i);
            run("COMMIT");
        }
    }
    std::size_t copyOut(const char* format) {
        const std::string copy = "COPY (SELECT key, value FROM qel_items ORDER BY key) TO STDOUT (FORMAT ";
        check(PQexec(connection_, (copy + format + ")").c_str()));
        std::size_t bytes = 0;
        char* row = nullptr;
        for (int size = 0; (size = PQgetCopyData(connection_, &row, 0)) > 0; PQfreemem(row))
            bytes += static_cast<std::size_t>(size);
        return bytes;
    }

  private:
    void insert(int session, int number) {
        const Item key = keyOf(session, number);
        const Item value = valueOf(session, number);
        const char* const values[] = {reinterpret_cast<const char*>(key.data()),
                                      reinterpret_cast<const char*>(value.data())};
        const int lengths[] = {static_cast<int>(key.size()), static_cast<int>(value.size())};
        const int formats[] = {1, 1};
        check(PQexecPrepared(connection_, "i", 2, values, lengths, formats, 1));
    }
    void check(PGresult* result) {
        const ExecStatusType status = PQresultStatus(result);
        require(status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK || status == PGRES_COPY_OUT,
                PQerrorMessage(connection_));
        PQclear(result);
    }
    PGconn* connection_;
};

std::size_t walk(ItemStore& store) {
    std::size_t bytes = 0;
    int count = 0;
    Item at;
    Item parent;
    parent.addString("interaction");
    for (bool found = store.child(parent, at); found; found = store.next(at)) {
        bytes += at.size() + store.fetch(at).size();
        ++count;
    }
    require(count == events, "the walk found " + std::to_string(count) + " entries");
    return bytes;
}

void exportAll(ItemStore& store) {
    const test::TemporaryFolder folder;
    const std::string file = folder / "export.csv";
    Item log;
    log.addString("interaction");
    ItemStore::setCurrent(&store);
    AuditExport::exportCSV(file.c_str(), log, 0, std::numeric_limits<long long>::max());
    ItemStore::setCurrent(nullptr);
    const std::string text = test::TemporaryFolder::read(file);
    require(std::count(text.begin(), text.end(), '\n') == events + 1, "the export is not whole");
}

}  // namespace

int main() {
    test::PostgresServer server({"synchronous_commit = on"});
    std::string reason;
    const auto store = ItemStore::open(server.storeUrl("bench"), StoreOptions(), reason);
    require(store != nullptr, reason);
    const std::string password = "only for tests";
    server.sql(
        "CREATE SCHEMA peer; CREATE TABLE peer.qel_items (key bytea PRIMARY KEY, value bytea NOT NULL)");

    const double ours = bench::seconds([&] { inParallel([&](int session) { ingest(*store, session); }); });
    const double theirs =
        bench::seconds([&] { inParallel([&](int session) { Peer(server, password).insertAll(session); }); });
    bench::print("shared_store_ingest", events / ours, "events/s", events / theirs);

    Peer peer(server, password);
    std::vector<double> walks;
    std::vector<double> exports;
    std::vector<double> copies;
    std::vector<double> texts;
    for (int round = 0; round < rounds; ++round) {
        std::size_t bytes = 0;
        walks.push_back(bench::seconds([&] { bytes = walk(*store); }));
        exports.push_back(bench::seconds([&] { exportAll(*store); }));
        copies.push_back(
            bench::seconds([&] { require(peer.copyOut("binary") > bytes, "the copy is too short"); }));
        texts.push_back(
            bench::seconds([&] { require(peer.copyOut("text") > bytes, "the copy is too short"); }));
    }
    const double binary = events / bench::median(copies);
    const double exported = events / bench::median(exports);
    bench::print("shared_store_walk", events / bench::median(walks), "entries/s", binary);
    bench::print("shared_store_export", exported, "entries/s", events / bench::median(texts));
    bench::print("shared_store_export_to_binary", exported, "entries/s", binary);
}
