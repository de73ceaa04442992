#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "qelCore/Item.h"
#include "qelCore/ItemStore.h"
#include "support/TemporaryFolder.h"

namespace qel {
namespace {

class WalkBesideWriters : public testing::Test {
  protected:
    WalkBesideWriters() {
        std::string reason;
        store = ItemStore::open("lmdb:" + (folder / "store"), {}, reason);
        ItemStore::setCurrent(store.get());
    }
    ~WalkBesideWriters() override { ItemStore::setCurrent(nullptr); }

    static Item keyOf(const char* path, long long number) {
        Item key;
        key.addString(path);
        key.addInteger(number);
        return key;
    }
    static Item valueOf(long long number) {
        Item value;
        value.addInteger(number);
        return value;
    }
    static void fill(const char* path, int count) {
        WriteBatch batch;
        for (int i = 0; i < count; ++i)
            keyOf(path, i).store(valueOf(i));
        ASSERT_TRUE(batch.commit());
    }
    /// Walks a whole path and says how many entries of what value it saw.
    static int walk(const char* path) {
        Item position = keyOf(path, -1);
        int count = 0;
        long long expected = 0;
        while (position.next()) {
            Item value;
            value.setPlain(position.fetch());
            long long number = -1;
            if (!value.decodeElementAsInteger(number) || number < expected)
                return -1;
            expected = number + 1;
            ++count;
        }
        return count;
    }

    test::TemporaryFolder folder;
    std::unique_ptr<ItemStore> store;
};

TEST_F(WalkBesideWriters, WalksSeeEveryEntryWhileOthersWriteBeforeAndBehindThem) {
    constexpr int entries = 20000;
    fill("m", entries);
    std::atomic<bool> stop{false};
    std::vector<std::thread> writers;
    for (const char* path : {"a", "z"})
        writers.emplace_back([&stop, path] {
            for (int i = 0; !stop; ++i) {
                WriteBatch batch;
                for (int j = 0; j < 20; ++j)
                    keyOf(path, i * 20 + j).store(valueOf(j));
                batch.commit();
            }
        });
    std::vector<std::thread> walkers;
    std::atomic<int> wrong{0};
    for (int i = 0; i < 2; ++i)
        walkers.emplace_back([&wrong] {
            for (int round = 0; round < 10; ++round)
                wrong += walk("m") == entries ? 0 : 1;
        });
    for (std::thread& each : walkers)
        each.join();
    stop = true;
    for (std::thread& each : writers)
        each.join();
    EXPECT_EQ(wrong, 0);
}

TEST_F(WalkBesideWriters, AWalkSeesItsOwnPendingWritesAmongStoredOnes) {
    fill("m", 10);
    WriteBatch batch;
    Item position = keyOf("m", -1);
    ASSERT_TRUE(position.next());
    // Behind the place of the walk, between two stored keys' values, and one that is taken away.
    keyOf("m", 20).store(valueOf(20));
    keyOf("m", 4).remove();
    keyOf("a", 1).store(valueOf(1));
    std::vector<long long> seen;
    do {
        long long number = -1;
        position.trail().decodeElementAsInteger(number);
        seen.push_back(number);
        if (number == 6)
            keyOf("m", 7).store(valueOf(70));
        Item value;
        value.setPlain(position.fetch());
        long long stored = -1;
        value.decodeElementAsInteger(stored);
        EXPECT_EQ(stored, number == 7 ? 70 : number);
    } while (position.next());
    EXPECT_EQ(seen, (std::vector<long long>{0, 1, 2, 3, 5, 6, 7, 8, 9, 20}));
}

TEST_F(WalkBesideWriters, AnEntryCommittedDuringAWalkIsNeverMissedByWhoeverWroteItBefore) {
    fill("m", 100);
    // Writes and reads back at once, while commits take the write out of what is pending at any moment.
    for (int i = 0; i < 3000; ++i) {
        WriteBatch batch;
        Item far = keyOf("m", 50);
        ASSERT_TRUE(far.next());
        keyOf("q", i).store(valueOf(i));
        batch.submit({});
        ASSERT_FALSE(keyOf("q", i).fetch().isNull()) << i;
        Item position = keyOf("q", i - 1);
        ASSERT_TRUE(position.next()) << i;
    }
}

TEST_F(WalkBesideWriters, AWriterIsNotKeptOutByThreadsThatReadWithoutPause) {
    fill("m", 1000);
    std::atomic<bool> stop{false};
    std::atomic<long> walks{0};
    std::vector<std::thread> walkers;
    for (int i = 0; i < 4; ++i)
        walkers.emplace_back([&] {
            while (!stop) {
                walk("m");
                ++walks;
            }
        });
    // Pending writes among what is being walked, so that every step has to look at them.
    for (int i = 0; i < 200; ++i) {
        WriteBatch batch;
        for (int j = 0; j < 50; ++j)
            keyOf("m", 2000 + (i * 50 + j) % 500).store(valueOf(2000 + (i * 50 + j) % 500));
        ASSERT_TRUE(batch.commit());
    }
    stop = true;
    for (std::thread& each : walkers)
        each.join();
    EXPECT_GT(walks, 0);
}

}  // namespace
}  // namespace qel
