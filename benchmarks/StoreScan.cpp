// How fast a log of five million events is walked in order, each key's time decoded and each value fetched, as an
// export does it. The floor is a bare cursor of the engine over the same file.
#include <lmdb.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "qelCore/Item.h"
#include "qelCore/ItemStore.h"
#include "support/Figures.h"
#include "support/TemporaryFolder.h"

namespace {

constexpr long long entries = 5000000;

double since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void fill(const qel::Item& log) {
    qel::Item event;
    for (const char* const text : {"user.name", "WORKSTATION-17", "SeriesOpened"})
        event.addString(text);
    event.addString("1.2.840.113619.2.55.3.604688119.971.1268071029.320.77.42.11.9.8");
    event.addInteger(7);
    event.addBool(true);
    qel::WriteBatch batch;
    for (long long i = 0; i < entries; ++i) {
        qel::Item moment;
        moment.addInteger(1700000000000000 + i * 1000);
        moment.addInteger(0xcafebabeLL - i % 7);
        qel::Item key = log;
        key.addItem(moment);
        key.store(event);
    }
    batch.commit();
}

long long walk(const qel::Item& log, unsigned long long& sum) {
    long long count = 0;
    qel::Item at;
    qel::Item moment;
    for (bool found = log.child(at); found; found = at.next()) {
        const qel::ConstByteSpan value = at.fetch();
        long long time = 0;
        if (value.isNull() || !at.trail().decodeElementAsItem(moment) || !moment.decodeElementAsInteger(time))
            return -1;
        sum += static_cast<unsigned long long>(time) + value[0];
        ++count;
    }
    return count;
}

long long walkBare(const std::string& folder, unsigned long long& sum, double& took) {
    MDB_env* environment = nullptr;
    MDB_txn* transaction = nullptr;
    MDB_cursor* cursor = nullptr;
    MDB_dbi database = 0;
    mdb_env_create(&environment);
    mdb_env_set_mapsize(environment, std::size_t{1} << 40);
    if (mdb_env_open(environment, folder.c_str(), MDB_RDONLY, 0) != 0 ||
        mdb_txn_begin(environment, nullptr, MDB_RDONLY, &transaction) != 0 ||
        mdb_dbi_open(transaction, nullptr, 0, &database) != 0 ||
        mdb_cursor_open(transaction, database, &cursor) != 0)
        return -1;
    long long count = 0;
    MDB_val key;
    MDB_val value;
    const auto start = std::chrono::steady_clock::now();
    while (mdb_cursor_get(cursor, &key, &value, MDB_NEXT) == 0) {
        sum += *static_cast<const unsigned char*>(key.mv_data) + value.mv_size;
        ++count;
    }
    took = since(start);
    mdb_cursor_close(cursor);
    mdb_txn_abort(transaction);
    mdb_env_close(environment);
    return count;
}

}  // namespace

int main() {
    const qel::test::TemporaryFolder folder;
    const std::string path = folder / "store";
    std::string reason;
    unsigned long long sum = 0;
    double best = 1e9;
    double floor = 1e9;
    for (int turn = 0; turn < 4; ++turn) {
        auto store = qel::ItemStore::open("lmdb:" + path, {}, reason);
        if (store == nullptr) {
            std::fprintf(stderr, "%s\n", reason.c_str());
            return 1;
        }
        qel::ItemStore::setCurrent(store.get());
        qel::Item log;
        log.addString("audit/interaction");
        if (turn == 0) {
            const auto start = std::chrono::steady_clock::now();
            fill(log);
            qel::bench::print("store_fill", entries / since(start), "entries/s");
            qel::bench::print("store_bytes_per_entry",
                              static_cast<double>(store->space().fileBytes) / entries, "bytes");
        }
        const auto start = std::chrono::steady_clock::now();
        if (walk(log, sum) != entries)
            return 1;
        best = std::min(best, since(start));
        store.reset();
        double took = 0;
        if (walkBare(path, sum, took) < entries)
            return 1;
        floor = std::min(floor, took);
    }
    qel::bench::print("store_scan_floor", entries / floor, "entries/s");
    qel::bench::print("store_scan", entries / best, "entries/s", entries / floor);
    return sum == 0;
}
