#include <string>
#include <thread>
#include <vector>

#include "support/StoreFixture.h"

using namespace qel;
using namespace qel::test;

namespace {

// Every test runs twice: on what is committed, and on what is pending in an open batch over a store with other content.
class Navigation : public StoreTest, public ::testing::WithParamInterface<bool> {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        if (GetParam())
            batch_ = std::make_unique<WriteBatch>();
    }
    void TearDown() override {
        batch_.reset();
        StoreTest::TearDown();
    }

    static std::string children(const Item& parent) {
        std::string out;
        Item at;
        for (bool found = parent.child(at); found; found = at.next())
            out += at.trail().asString().str() + " ";
        return out;
    }
    static std::string childrenBackwards(const Item& parent) {
        std::string out;
        Item at = key(parent, 1LL << 62);
        while (at.prev())
            out += at.trail().asString().str() + " ";
        return out;
    }

    std::unique_ptr<WriteBatch> batch_;
};

}  // namespace

TEST_P(Navigation, ChildrenComeInOrder) {
    const Item log = path("log");
    for (const long long number : {5LL, -3LL, 1LL << 40, 0LL, 300LL})
        write(key(log, number), "v");
    EXPECT_EQ(children(log), "[-3] [0] [5] [300] [1099511627776] ");
    EXPECT_EQ(childrenBackwards(log), "[1099511627776] [300] [5] [0] [-3] ");
}

// As a damaged store may hold them: bytes behind a whole key that begin no element.
TEST_P(Navigation, WalksPassBytesThatAreNoElementsAndComeToAnEnd) {
    const Item log = path("log");
    for (const long long number : {3LL, 255LL, 70000LL})
        for (const char* const behind : {"\x01", "\x0c\x01", "\xff\xff"}) {
            std::string bytes(key(log, number).bytes().view());
            bytes += behind;
            Item damaged;
            damaged.setPlain(ConstByteSpan(bytes));
            write(damaged, "v");
        }
    std::vector<std::string> met;
    Item at;
    for (bool found = log.child(at); found && met.size() < 10; found = at.next())
        met.push_back(at.trail().asString().str());
    EXPECT_EQ(met, (std::vector<std::string>{"[3]", "[255]", "[70000]"}));
}

TEST_P(Navigation, NoChildrenNoMovement) {
    Item at = path("untouched");
    EXPECT_FALSE(path("log").child(at));
    EXPECT_EQ(at, path("untouched"));
    Item position = key(path("log"), 7);
    EXPECT_FALSE(position.next());
    EXPECT_FALSE(position.prev());
    EXPECT_EQ(position, key(path("log"), 7));
}

TEST_P(Navigation, PathThatBeginsLikeAnotherDoesNotLeakIntoIt) {
    write(key(path("a"), 1), "v");
    write(key(path("ab"), 2), "v");
    write(key(path(std::string_view("a\0", 2)), 3), "v");
    EXPECT_EQ(children(path("a")), "[1] ");
    EXPECT_EQ(children(path("ab")), "[2] ");
    EXPECT_EQ(children(Item()), "[\"a\"] [\"a\\x00\"] [\"ab\"] ");
}

TEST_P(Navigation, PathWithoutChildrenDoesNotReachThoseOfTheNext) {
    write(key(path("left"), 1), "v");
    write(key(path("right"), 2), "v");
    Item at = path("untouched");
    EXPECT_FALSE(path("log").child(at));
    EXPECT_FALSE(path("lef").child(at));
    EXPECT_EQ(at, path("untouched"));
}

TEST_P(Navigation, SiblingsSkipDescendants) {
    const Item log = path("log");
    write(key(log, 1), "one");
    for (long long below = 0; below < 100; ++below)
        write(key(key(log, 1), below), "below");
    write(key(log, 2), "two");
    EXPECT_EQ(children(log), "[1] [2] ");
    EXPECT_EQ(childrenBackwards(log), "[2] [1] ");
    Item at = key(log, 2);
    ASSERT_TRUE(at.prev());
    EXPECT_EQ(read(at), "one");
}

TEST_P(Navigation, SiblingThatExistsThroughDescendantsIsVisited) {
    const Item log = path("log");
    write(key(key(log, 1), 10), "below");
    write(key(key(log, 3), 10), "below");
    write(key(log, 2), "two");
    EXPECT_EQ(children(log), "[1] [2] [3] ");
    EXPECT_EQ(childrenBackwards(log), "[3] [2] [1] ");
    Item at;
    ASSERT_TRUE(log.child(at));
    EXPECT_TRUE(at.fetch().isNull());
}

TEST_P(Navigation, KeyEndingInIntegerNeverReachesNestedItemsBackwards) {
    Item central = path("log");
    central.addItem(key(Item(), 17));
    write(central, "central");
    Item at = key(path("log"), 1LL << 62);
    EXPECT_FALSE(at.prev());
    Item forward = key(path("log"), 0);
    EXPECT_TRUE(forward.next());
    EXPECT_EQ(forward, central);
}

TEST_P(Navigation, RemoveThenNextAdvances) {
    const Item log = path("log");
    for (long long number = 0; number < 10; ++number)
        write(key(log, number), "v");
    std::string seen;
    Item at;
    for (bool found = log.child(at); found; found = at.next()) {
        seen += at.trail().asString().str();
        at.remove();
        EXPECT_EQ(read(at), "(null)");
    }
    EXPECT_EQ(seen, "[0][1][2][3][4][5][6][7][8][9]");
    EXPECT_EQ(children(log), "");
}

TEST_P(Navigation, StepsFromPositionsThatDoNotExist) {
    const Item log = path("log");
    write(key(log, 10), "v");
    write(key(log, 20), "v");
    Item at = key(log, 15);
    Item back = at;
    EXPECT_TRUE(at.next());
    EXPECT_EQ(at, key(log, 20));
    EXPECT_TRUE(back.prev());
    EXPECT_EQ(back, key(log, 10));
}

TEST_P(Navigation, PositionsAreIndependentOfEachOther) {
    const Item log = path("log");
    for (long long number = 0; number < 6; ++number)
        write(key(log, number), "v");
    Item a;
    ASSERT_TRUE(log.child(a));
    Item b = a;
    ASSERT_TRUE(b.next());
    ASSERT_TRUE(b.next());
    ASSERT_TRUE(a.next());
    EXPECT_EQ(a, key(log, 1));
    EXPECT_EQ(b, key(log, 2));
}

TEST_P(Navigation, LongestKeysAndSeekBounds) {
    Item longest = path("log");
    longest.addString(std::string(511 - longest.size() - 2, 'x'));
    ASSERT_EQ(longest.size(), 511U);
    write(longest, "v");
    Item at;
    ASSERT_TRUE(path("log").child(at));
    EXPECT_EQ(at, longest);
    EXPECT_FALSE(at.next());
    EXPECT_FALSE(at.child(at));
    EXPECT_EQ(read(longest), "v");
}

INSTANTIATE_TEST_SUITE_P(Store, Navigation, ::testing::Bool(),
                         [](const auto& param) { return param.param ? "Pending" : "Committed"; });

namespace {

using Walk = StoreTest;

}  // namespace

TEST_F(Walk, LongReaderNeverPinsTheStore) {
    const Item log = path("log");
    {
        WriteBatch batch;
        for (long long i = 0; i < 300; ++i)
            write(key(log, i), "v");
        ASSERT_TRUE(batch.commit().durable);
    }
    long long seen = 0;
    Item at;
    for (bool found = log.child(at); found; found = at.next(), ++seen) {
        EXPECT_EQ(at, key(log, seen));
        // Somebody writes between any two steps; what the walk holds is at most one commit old.
        if (seen % 10 == 0)
            write(path("other"), std::to_string(seen));
        ASSERT_LE(store_->space().oldestReaderLag, 1U);
    }
    EXPECT_EQ(seen, 300);
}

TEST_F(Walk, SeesWhatComesBehindItAndNotWhatIsGone) {
    const Item log = path("log");
    for (const long long i : {1LL, 2LL, 3LL})
        write(key(log, i), "v");
    Item at;
    ASSERT_TRUE(log.child(at));
    std::thread([&] {
        key(log, 2).remove();
        write(key(log, 4), "v");
    }).join();
    ASSERT_TRUE(at.next());
    EXPECT_EQ(at, key(log, 3));
    ASSERT_TRUE(at.next());
    EXPECT_EQ(at, key(log, 4));
    EXPECT_FALSE(at.next());
}

TEST_F(Walk, FetchAfterAStepSeesWhatAnotherThreadWroteSince) {
    write(key(path("log"), 1), "old");
    Item at;
    ASSERT_TRUE(path("log").child(at));
    std::thread([&] { write(at, "new"); }).join();
    EXPECT_EQ(read(at), "new");
}
