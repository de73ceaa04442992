#include <atomic>
#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>

#include "storage/PendingWrites.h"
#include "support/StoreFixture.h"

using namespace qel;
using namespace qel::test;

namespace {

using PendingReads = StoreTest;

std::string walk(const Item& parent, bool forward) {
    std::string out;
    Item at;
    if (forward) {
        for (bool found = parent.child(at); found; found = at.next())
            out += at.trail().asString().str();
        return out;
    }
    at = key(parent, 1LL << 60);
    while (at.prev())
        out += at.trail().asString().str();
    return out;
}

std::string walkModel(const std::map<long long, std::string>& model, bool forward) {
    std::string out;
    for (const auto& [number, value] : model) {
        const std::string shown = "[" + std::to_string(number) + "]";
        out = forward ? out + shown : shown + out;
    }
    return out;
}

}  // namespace

// A reader keeps what it found as long as the generation is the same: if it took the one of a write without going among what
// is pending, it would keep what the write has replaced.
TEST(PendingOverlay, EveryGenerationTellsWhetherSomethingIsPendingInIt) {
    storage::Overlay overlay;
    std::set<std::uint64_t> whilePending;
    std::set<std::uint64_t> empty;
    std::set<std::uint64_t> looks;
    std::atomic<bool> over{false};
    std::thread reader([&] {
        while (!over)
            looks.insert(overlay.generation());
    });
    for (int i = 0; i < 2000; ++i) {
        storage::PendingBatch older;
        storage::PendingBatch newer;
        for (storage::PendingBatch* batch : {&older, &newer}) {
            overlay.put(batch->add("key", "value", false));
            whilePending.insert(overlay.generation());
        }
        overlay.drop(older);
        whilePending.insert(overlay.generation());
        overlay.drop(newer);
        empty.insert(overlay.generation());
    }
    over = true;
    reader.join();
    ASSERT_EQ(whilePending.size(), 6000U);
    ASSERT_EQ(empty.size(), 2000U);
    looks.insert(whilePending.begin(), whilePending.end());
    looks.insert(empty.begin(), empty.end());
    EXPECT_FALSE(looks.contains(0));
    for (const std::uint64_t generation : looks)
        ASSERT_EQ(storage::Overlay::isPending(generation), whilePending.contains(generation)) << generation;
}

TEST_F(PendingReads, AnOpenBatchIsSeenByItsProcess) {
    write(key(path("log"), 1), "old");
    WriteBatch batch;
    write(key(path("log"), 1), "new");
    write(key(path("log"), 2), "two");
    EXPECT_EQ(read(key(path("log"), 1)), "new");
    EXPECT_EQ(walk(path("log"), true), "[1][2]");
    key(path("log"), 1).remove();
    EXPECT_EQ(read(key(path("log"), 1)), "(null)");
    EXPECT_EQ(walk(path("log"), true), "[2]");
}

// Random writes, some committed, some pending, against a plain map.
TEST_F(PendingReads, AgreeWithAModelWhateverIsCommitted) {
    const Item log = path("log");
    std::mt19937 random(17);
    std::map<long long, std::string> model;
    for (int round = 0; round < 60; ++round) {
        WriteBatch batch;
        for (int i = 0; i < 12; ++i) {
            const long long number = static_cast<long long>(random() % 40);
            if (random() % 2 == 0) {
                const std::string value = std::to_string(random() % 1000);
                write(key(log, number), value);
                model[number] = value;
            } else {
                key(log, number).remove();
                model.erase(number);
            }
            ASSERT_EQ(walk(log, true), walkModel(model, true));
            ASSERT_EQ(walk(log, false), walkModel(model, false));
        }
        for (const auto& [number, value] : model)
            ASSERT_EQ(read(key(log, number)), value);
        if (round % 3 == 0)
            batch.submit({});
    }
    reopen();
    EXPECT_EQ(walk(log, true), walkModel(model, true));
}
