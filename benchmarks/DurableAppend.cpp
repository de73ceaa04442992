// How many events a second can be recorded so that each is on disk before the call returns: one thread alone, then 8
// and 64 at once. The floor appends the same bytes to a growing raw file: one fdatasync each, or one shared by all
// threads that wait at the moment it starts.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "qelCore/Item.h"
#include "qelCore/ItemStore.h"
#include "qelCore/System.h"
#include "support/Figures.h"
#include "support/TemporaryFolder.h"

namespace {

using Clock = std::chrono::steady_clock;

// A key of 40 and an event of 130 bytes.
constexpr std::size_t recordBytes = 170;

qel::Item sampleEvent() {
    qel::Item event;
    event.addString("SeriesOpened");
    event.addString("1.2.840.113619.2.55.3.604688119.971.1268071029.320");
    event.addString("1.2.840.113619.2.55.3.604688119.971.1268071029.321");
    event.addInteger(42);
    event.addBool(true);
    return event;
}

// Calls `append` from so many threads for a moment; events a second.
template <typename Append>
double rate(int threads, Append append) {
    std::atomic<bool> stop{false};
    std::atomic<long long> done{0};
    std::vector<std::thread> all;
    const auto start = Clock::now();
    for (int i = 0; i < threads; ++i)
        all.emplace_back([&, i] {
            long long mine = 0;
            while (!stop) {
                append(i);
                ++mine;
            }
            done += mine;
        });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    stop = true;
    for (std::thread& thread : all)
        thread.join();
    return static_cast<double>(done) / std::chrono::duration<double>(Clock::now() - start).count();
}

class RawFile {
  public:
    explicit RawFile(const std::string& name)
        : fd_(open(name.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600)) {}
    ~RawFile() { close(fd_); }

    void append() {
        put(1);
        sync();
    }

    // The first thread that finds no flush going on makes one for all whose records were there before.
    void appendShared() {
        std::unique_lock lock(mutex_);
        const long long mine = ++waiting_;
        while (flushed_ < mine) {
            if (flushing_) {
                changed_.wait(lock);
                continue;
            }
            flushing_ = true;
            const long long from = flushed_;
            const long long upTo = waiting_;
            lock.unlock();
            put(static_cast<std::size_t>(upTo - from));
            sync();
            lock.lock();
            flushed_ = upTo;
            flushing_ = false;
            changed_.notify_all();
        }
    }

  private:
    void put(std::size_t records) {
        const std::string bytes(records * recordBytes, 'r');
        if (write(fd_, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
            std::abort();
    }
    void sync() {
        if (fdatasync(fd_) != 0)
            std::abort();
    }

    int fd_;
    std::mutex mutex_;
    std::condition_variable changed_;
    long long waiting_ = 0;
    long long flushed_ = 0;
    bool flushing_ = false;
};

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
    qel::Item log;
    log.addString("audit/interaction/queue");
    const qel::Item event = sampleEvent();
    const auto append = [&](int) {
        qel::Item key = log;
        key.addInteger(qel::System::getUTCDateTimeUnique());
        key.store(event);
    };
    RawFile raw(folder / "raw");
    for (const int threads : {1, 8, 64}) {
        // The two take many short turns, and each is compared with the floor just before it: the disk's speed changes by
        // factors within a second when others use it.
        std::vector<double> floors;
        std::vector<double> rates;
        std::vector<double> ratios;
        for (int turn = 0; turn < 15; ++turn) {
            floors.push_back(rate(threads, [&](int) { threads == 1 ? raw.append() : raw.appendShared(); }));
            rates.push_back(rate(threads, append));
            ratios.push_back(rates.back() / floors.back());
        }
        const std::string name = "durable_append_" + std::to_string(threads);
        qel::bench::print((name + "_floor").c_str(), qel::bench::median(floors), "events/s");
        std::printf("%s %.0f events/s ratio=%.2f\n", name.c_str(), qel::bench::median(rates),
                    qel::bench::median(ratios));
        std::fflush(stdout);
    }
    return 0;
}
