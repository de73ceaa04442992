// How fast a queue of one million events is emptied, the 64 oldest at a time in one durable transaction, and whether it
// slows down on the way: the ratio is the rate of the last tenth to that of the first.
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "qelCore/Item.h"
#include "qelCore/ItemStore.h"
#include "support/Figures.h"
#include "support/TemporaryFolder.h"

namespace {

constexpr long long events = 1000000;
constexpr int window = 64;

double since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void fill(const qel::Item& queue) {
    qel::Item event;
    event.addString("SeriesOpened");
    event.addString("1.2.840.113619.2.55.3.604688119.971.1268071029.320.77.42.11.9.8.7.6");
    qel::WriteBatch batch;
    for (long long i = 0; i < events; ++i) {
        qel::Item key = queue;
        key.addInteger(1700000000000000 + i * 1000);
        key.store(event);
    }
    batch.commit();
}

// Removes the oldest events; how many there were.
int drainOnce(const qel::Item& queue) {
    qel::WriteBatch batch;
    int count = 0;
    qel::Item at;
    for (bool found = queue.child(at); found && count < window; found = at.next()) {
        if (at.fetch().isNull())
            return 0;
        at.remove();
        ++count;
    }
    return batch.commit().durable ? count : 0;
}

}  // namespace

int main() {
    const qel::test::TemporaryFolder folder;
    std::string reason;
    const auto store = qel::ItemStore::open("lmdb:" + (folder / "store"), {}, reason);
    if (store == nullptr) {
        std::fprintf(stderr, "%s\n", reason.c_str());
        return 1;
    }
    qel::ItemStore::setCurrent(store.get());
    qel::Item queue;
    queue.addString("audit/interaction/queue");
    fill(queue);
    std::vector<double> tenths;
    const auto start = std::chrono::steady_clock::now();
    auto tenthStart = start;
    long long done = 0;
    while (const int count = drainOnce(queue)) {
        done += count;
        if (done >= static_cast<long long>(tenths.size() + 1) * (events / 10)) {
            tenths.push_back(since(tenthStart));
            tenthStart = std::chrono::steady_clock::now();
        }
    }
    if (done != events || tenths.size() != 10)
        return 1;
    qel::bench::print("queue_drain", events / since(start), "events/s");
    qel::bench::print("queue_drain_last_tenth", events / 10 / tenths.back(), "events/s",
                      events / 10 / tenths.front());
    return 0;
}
