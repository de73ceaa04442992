#include <gtest/gtest.h>

#include "support/AuditStore.h"

namespace qel {
namespace {

using test::AuditStore;
using test::event;

/// A walk that takes keys and values together sees what single look-ups see.
class WalkTest : public ::testing::Test {
  protected:
    void expectSameAsFetch() const {
        Item together = test::centralKey(log_, 0, 0);
        Item apart = together;
        ConstByteSpan value;
        int steps = 0;
        while (together.next(value)) {
            ++steps;
            const std::string taken(value.view());
            const bool isNull = value.isNull();
            ASSERT_TRUE(apart.next());
            EXPECT_EQ(together, apart);
            EXPECT_EQ(apart.fetch().isNull(), isNull);
            EXPECT_EQ(apart.fetch().view(), taken);
        }
        EXPECT_FALSE(apart.next());
        EXPECT_EQ(steps, expected_);
    }

    AuditStore store_;
    Item log_ = test::path("log");
    int expected_ = 0;
};

TEST_F(WalkTest, ValuesComeWithTheirKeysCommittedOrNot) {
    for (int i = 1; i <= 20; ++i)
        store_.putCentral(log_, i, 7, event("committed", std::to_string(i)));
    store_.flush();
    const WriteBatch batch;
    for (int i = 10; i <= 30; ++i)
        store_.putCentral(log_, i, 7, event("pending", std::to_string(i)));
    test::centralKey(log_, 5, 7).remove();
    expected_ = 29;
    expectSameAsFetch();
}

TEST_F(WalkTest, PlaceWithoutAValueHasNoneThere) {
    Item below = test::centralKey(log_, 1, 1);
    below.addString("below");
    below.store(event("deep"));
    store_.putCentral(log_, 2, 1, Item());
    expected_ = 2;
    expectSameAsFetch();
}

}  // namespace
}  // namespace qel
