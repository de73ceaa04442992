// The plug is pulled: everything that the engine wrote to its file is recorded, and the file is put together again as a disk
// may hold it at any moment. What was flushed is there; what was not may be there, be missing, or be there in part, in units of
// a sector. Whatever was reported durable before the moment must be found, whole, by a store that opens without repair.
#include <algorithm>
#include <fstream>
#include <random>

#include "DiskTap.h"
#include "qelCore/StoreTools.h"
#include "qelCore/System.h"
#include "support/FixedClock.h"
#include "support/StoreFixture.h"

using namespace qel;
using namespace qel::test;

namespace {

using Event = DiskTap::Event;

constexpr std::size_t sectorBytes = 512;

class PowerCut : public StoreTest {
  protected:
    std::string dataFile() const { return folder_ / "store/data.mdb"; }

    static void apply(std::string& image, std::uint64_t offset, std::string_view bytes) {
        if (image.size() < offset + bytes.size())
            image.resize(offset + bytes.size());
        image.replace(offset, bytes.size(), bytes);
    }

    // Any selection of the sectors of the unflushed writes, in any order.
    void applyUnflushed(std::string& image, std::vector<Event> unflushed) {
        std::shuffle(unflushed.begin(), unflushed.end(), random_);
        const unsigned keep = random_() % 4;  // none, a third, two thirds, all
        for (const Event& event : unflushed)
            for (std::size_t at = 0; at < event.bytes.size(); at += sectorBytes)
                if (random_() % 3 < keep)
                    apply(image, event.offset + at, std::string_view(event.bytes).substr(at, sectorBytes));
    }

    std::unique_ptr<ItemStore> openImage(const std::string& image) {
        const std::string name = "cut" + std::to_string(cuts_++);
        mkdir((folder_ / name).c_str(), 0700);
        folder_.write(name + "/data.mdb", image);
        std::string reason;
        StoreOptions options;
        options.create = false;
        auto store = ItemStore::open("lmdb:" + (folder_ / name), options, reason);
        EXPECT_NE(store, nullptr) << reason;
        return store;
    }

    // Calls `check(image, last note)` for the disk as it may be after every single event.
    template <typename Check>
    void pullEverywhere(std::string image, const std::vector<Event>& events, int variants, Check check) {
        std::vector<Event> unflushed;
        long long noted = -1;
        for (const Event& event : events) {
            switch (event.kind) {
                case Event::Kind::note:
                    noted = event.number;
                    break;
                case Event::Kind::write:
                    unflushed.push_back(event);
                    break;
                case Event::Kind::synchronousWrite:
                    apply(image, event.offset, event.bytes);
                    break;
                case Event::Kind::flush:
                    for (const Event& write : unflushed)
                        apply(image, write.offset, write.bytes);
                    unflushed.clear();
                    break;
            }
            for (int variant = 0; variant < (unflushed.empty() ? 1 : variants); ++variant) {
                std::string cut = image;
                applyUnflushed(cut, unflushed);
                check(cut, noted);
                if (HasFatalFailure())
                    return;
                removeImage();
            }
        }
    }
    void removeImage() { std::filesystem::remove_all(folder_ / ("cut" + std::to_string(cuts_ - 1))); }

    std::mt19937 random_{20260301};
    int cuts_ = 0;
};

}  // namespace

TEST_F(PowerCut, EverythingReportedDurableIsThereAtEveryMoment) {
    const Item log = path("log");
    const std::string before = TemporaryFolder::read(dataFile());
    DiskTap tap(dataFile());
    for (long long i = 0; i < 24; ++i) {
        WriteBatch batch;
        for (long long part = 0; part < 1 + i % 4; ++part)
            write(key(key(log, i), part), std::string(static_cast<std::size_t>(50 + 400 * part), 'v'));
        if (i % 5 == 4)
            key(key(log, i - 3), 0).remove();
        ASSERT_TRUE(batch.commit().durable);
        tap.note(i);
    }
    const std::vector<Event> events = tap.take();
    ASSERT_GT(events.size(), 24U * 4U);
    const auto check = [&](const std::string& image, long long noted) {
        const auto store = openImage(image);
        ASSERT_NE(store, nullptr);
        ASSERT_EQ(StoreTools::verify(*store, {}).faults, 0U);
        for (long long i = 0; i <= noted; ++i) {
            for (long long part = 0; part < 1 + i % 4; ++part) {
                const bool removed = part == 0 && i % 5 == 1 && noted >= i + 3;
                const bool mayBeRemoved = part == 0 && i % 5 == 1 && noted == i + 2;
                const ConstByteSpan value = store->fetch(key(key(log, i), part));
                ASSERT_TRUE(mayBeRemoved || value.isNull() == removed) << i << " " << part << " of " << noted;
                ASSERT_TRUE(value.isNull() || value.size() == static_cast<std::size_t>(50 + 400 * part + 2));
            }
        }
        // A transaction is there whole or not at all.
        const long long next = noted + 1;
        int parts = 0;
        for (long long part = 0; part < 1 + next % 4; ++part)
            parts += !store->fetch(key(key(log, next), part)).isNull();
        ASSERT_TRUE(parts == 0 || parts == 1 + next % 4) << parts << " of " << next;
    };
    pullEverywhere(before, events, 2, check);
    EXPECT_GT(cuts_, 100);
}

TEST_F(PowerCut, TheClocksMarkSurvivesWithAnEmptiedQueueAndTheClockSetBack) {
    constexpr long long day = 24LL * 3600 * 1000000;
    constexpr long long start = 1760000000LL * 1000000;
    FixedClock clock(start);
    reopen();
    const Item queue = path("queue");
    const std::string before = TemporaryFolder::read(dataFile());
    DiskTap tap(dataFile());
    std::vector<long long> times;
    for (long long i = 0; i < 6; ++i) {
        clock.advance(700000);
        times.push_back(System::getUTCDateTimeUnique());
        write(key(queue, times.back()), "event");
        tap.note(i);
        key(queue, times.back()).remove();
    }
    const std::vector<Event> events = tap.take();
    close();
    clock.set(start - day);
    pullEverywhere(before, events, 1, [&](const std::string& image, long long noted) {
        const auto store = openImage(image);
        ASSERT_NE(store, nullptr);
        ASSERT_GT(store->uniqueTime(), noted < 0 ? 0 : times[static_cast<std::size_t>(noted)]);
    });
}
