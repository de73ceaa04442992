// Random operations of one thread against a plain map, in a tree of keys, while a second thread changes entries between a
// step and its fetch and a third one writes elsewhere: whatever a walk has kept or read ahead must not be seen.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <iterator>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/StoreFixture.h"

using namespace qel;
using namespace qel::test;

namespace {

/// A key below the path, as its numbers; their order is the order of the keys.
using Place = std::vector<long long>;

/// What the store must say.
class Model {
  public:
    std::map<Place, std::string> entries;

    const std::string* find(const Place& at) const {
        const auto found = entries.find(at);
        return found == entries.end() ? nullptr : &found->second;
    }
    bool next(Place& at) const {
        Place behind = at;
        ++behind.back();
        return moveTo(entries.lower_bound(behind), at);
    }
    bool prev(Place& at) const {
        const auto here = entries.lower_bound(at);
        return here != entries.begin() && moveTo(std::prev(here), at);
    }
    bool child(Place& at) const {
        Place below = at;
        below.push_back(0);
        const auto found = entries.lower_bound(below);
        if (found == entries.end() || !isBelow(found->first, at, at.size()))
            return false;
        at = Place(found->first.begin(), found->first.begin() + static_cast<long>(at.size()) + 1);
        return true;
    }

  private:
    static bool isBelow(const Place& place, const Place& parent, std::size_t size) {
        return place.size() > size &&
               std::equal(parent.begin(), parent.begin() + static_cast<long>(size), place.begin());
    }
    // To the ancestor of the found key that is a sibling.
    bool moveTo(std::map<Place, std::string>::const_iterator found, Place& at) const {
        if (found == entries.end() || !isBelow(found->first, at, at.size() - 1))
            return false;
        at = Place(found->first.begin(), found->first.begin() + static_cast<long>(at.size()));
        return true;
    }
};

/// A thread that does one thing at a time, when it is told to.
class Helper {
  public:
    Helper() : thread_([this] { run(); }) {}
    ~Helper() {
        give({});
        thread_.join();
    }
    Helper(const Helper&) = delete;
    Helper& operator=(const Helper&) = delete;

    void make(std::function<void()> action) {
        give(std::move(action));
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return !busy_; });
    }

  private:
    void give(std::function<void()> action) {
        const std::lock_guard guard(mutex_);
        action_ = std::move(action);
        busy_ = true;
        changed_.notify_all();
    }
    void run() {
        std::unique_lock lock(mutex_);
        for (;;) {
            changed_.wait(lock, [this] { return busy_; });
            if (!action_)
                return;
            action_();
            busy_ = false;
            changed_.notify_all();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::function<void()> action_;
    bool busy_ = false;
    std::thread thread_;
};

/// Writes elsewhere, now and then: in between, the walks of others may keep what they have read.
class Neighbour {
  public:
    Neighbour() : thread_([this] { run(); }) {}
    ~Neighbour() {
        stop_ = true;
        thread_.join();
    }
    Neighbour(const Neighbour&) = delete;
    Neighbour& operator=(const Neighbour&) = delete;

  private:
    void run() {
        const Item before = path("a");
        const Item behind = path("z");
        for (int i = 0; !stop_; ++i) {
            key(i % 2 == 0 ? before : behind, i % 100).store(text("elsewhere"));
            std::this_thread::sleep_for(std::chrono::milliseconds(i % 4));
        }
    }

    std::atomic<bool> stop_{false};
    std::thread thread_;
};

class StoreModel : public StoreTest, public testing::WithParamInterface<unsigned> {
  protected:
    using Random = std::mt19937;

    static Item keyOf(const Place& place) {
        Item out = path("m");
        for (const long long number : place)
            out.addInteger(number);
        return out;
    }
    unsigned below(unsigned bound) { return static_cast<unsigned>(random_() % bound); }
    Place anyPlace() {
        Place out{below(60)};
        if (below(4) == 0)
            out.push_back(below(5));
        return out;
    }
    // Around the sizes from which on values are kept in another way.
    std::string anyValue() {
        static constexpr std::size_t sizes[] = {0, 1, 20, 150, 1022, 1023, 1024, 1025, 3000, 9000};
        const std::size_t size = below(200) == 0 ? 70000 : sizes[below(10)];
        std::string out(size, static_cast<char>('a' + below(26)));
        const std::string number = std::to_string(++written_);
        return size < number.size() ? out : out.replace(0, number.size(), number);
    }

    void put(const Place& at) {
        const std::string value = anyValue();
        EXPECT_TRUE(store_->store(keyOf(at), ConstByteSpan(value)));
        model_.entries[at] = value;
    }
    void remove(const Place& at) {
        EXPECT_TRUE(store_->remove(keyOf(at)));
        model_.entries.erase(at);
    }
    void change(const Place& at) {
        if (below(3) == 0)
            remove(at);
        else
            put(at);
    }
    void expectValue(const Place& at, ConstByteSpan found) const {
        const std::string* const value = model_.find(at);
        ASSERT_EQ(found.isNull(), value == nullptr) << keyOf(at).asString().str();
        ASSERT_TRUE(value == nullptr || found.view() == *value)
            << keyOf(at).asString().str() << ": " << std::string(found.view().substr(0, 20));
    }
    void checkMoved(bool moved, const Item& found, bool expected, const Place& at) {
        ASSERT_EQ(moved, expected) << found.asString().str() << " " << keyOf(at).asString().str();
        ASSERT_EQ(found.asString().str(), keyOf(at).asString().str());
    }

    /// Some steps of a walk, forwards for the most part, with all that may come between.
    void walk() {
        Place at = anyPlace();
        Item position = keyOf(at);
        for (unsigned steps = below(40); steps != 0 && !HasFailure(); --steps) {
            step(at, position);
            if (below(16) == 0)
                meddle(at);
            if (below(4) != 0)
                expectValue(at, position.fetch());
            if (below(24) == 0)
                meddle(at);
        }
    }
    void step(Place& at, Item& position) {
        Place expected = at;
        ConstByteSpan value;
        bool moved = false;
        switch (below(16)) {
            case 0:
                moved = model_.prev(expected);
                checkMoved(position.prev(), position, moved, expected);
                break;
            case 1:
                moved = at.size() < 2 && model_.child(expected);
                if (at.size() < 2)
                    checkMoved(position.child(position), position, moved, expected);
                break;
            case 2:
            case 3:
            case 4:
                moved = model_.next(expected);
                checkMoved(position.next(value), position, moved, expected);
                if (moved)
                    expectValue(expected, value);
                break;
            default:
                moved = model_.next(expected);
                checkMoved(position.next(), position, moved, expected);
        }
        if (moved)
            at = expected;
        else if (at.size() == 2)
            position = keyOf(at = {at.front()});
    }
    /// Here or nearby, by this thread or by another one.
    void meddle(const Place& at) {
        Place where = at;
        where.back() += below(4);
        // What an open batch holds comes behind whatever others write meanwhile.
        if (batchIsOpen_ || below(2) == 0)
            change(where);
        else
            helper_.make([this, where] { change(where); });
    }
    void batch() {
        WriteBatch writes;
        batchIsOpen_ = true;
        for (unsigned i = below(6); i != 0; --i) {
            change(anyPlace());
            if (below(2) == 0)
                walk();
        }
        if (below(2) == 0)
            EXPECT_TRUE(writes.commit());
        else
            writes.submit({});
        batchIsOpen_ = false;
    }

    Random random_{GetParam()};
    Model model_;
    Helper helper_;
    int written_ = 0;
    bool batchIsOpen_ = false;
};

TEST_P(StoreModel, SaysTheSameAsTheStoreWhateverIsKeptOrReadAhead) {
    options_.durability = GetParam() % 2 == 0 ? Durability::deferred : Durability::commit;
    options_.deferredMilliseconds = 2;
    reopen(options_);
    {
        WriteBatch writes;
        for (long long i = 0; i < 60; i += 2)
            put({i});
        ASSERT_TRUE(writes.commit());
    }
    const Neighbour neighbour;
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(400);
    for (int i = 0; i < 400 && !HasFailure() && std::chrono::steady_clock::now() < until; ++i) {
        walk();
        if (i % 16 == 0)
            batch();
        // Long enough for the snapshot to be given back.
        if (i == 40)
            std::this_thread::sleep_for(std::chrono::milliseconds(250));
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, StoreModel, testing::Values(1U, 2U, 3U, 4U));

}  // namespace
