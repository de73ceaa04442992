#include "audit/RangeSlices.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

namespace qel::programs {
namespace {

using Slice = RangeSlices::Slice;

TEST(RangeSlices, AShortLogIsOneSlice) {
    RangeSlices slices(100, 900);
    Slice slice;
    ASSERT_TRUE(slices.next(slice));
    EXPECT_EQ(slice.start, 100);
    EXPECT_EQ(slice.end, 900);
    slices.done(12);
    EXPECT_FALSE(slices.next(slice));
}

TEST(RangeSlices, AnEmptyRangeIsAskedOnce) {
    RangeSlices slices(100, 100);
    Slice slice;
    ASSERT_TRUE(slices.next(slice));
    EXPECT_EQ(slice.start, slice.end);
    slices.done(0);
    EXPECT_FALSE(slices.next(slice));
}

TEST(RangeSlices, SlicesJoinWithoutGapOrOverlap) {
    RangeSlices slices(0, 10000000);
    Slice slice;
    std::int64_t at = 0;
    int count = 0;
    // Ten rows in each microsecond, so a hundred million in all.
    while (slices.next(slice)) {
        ASSERT_EQ(slice.start, at);
        ASSERT_GT(slice.end, slice.start);
        const auto rows = static_cast<std::uint64_t>(slice.end - slice.start) * 10;
        if (rows > RangeSlices::mostRows) {
            ASSERT_TRUE(slices.halve());
            continue;
        }
        slices.done(rows);
        at = slice.end;
        ++count;
    }
    EXPECT_EQ(at, 10000000);
    EXPECT_LT(count, 4000);
}

TEST(RangeSlices, OneMicrosecondCannotBeHalved) {
    RangeSlices slices(5, 6);
    EXPECT_FALSE(slices.halve());
    Slice slice;
    ASSERT_TRUE(slices.next(slice));
    EXPECT_EQ(slice.end, 6);
}

TEST(RangeSlices, AllOfTimeIsARange) {
    constexpr std::int64_t lowest = std::numeric_limits<std::int64_t>::min();
    constexpr std::int64_t highest = std::numeric_limits<std::int64_t>::max();
    RangeSlices slices(lowest, highest);
    Slice slice;
    ASSERT_TRUE(slices.next(slice));
    EXPECT_EQ(slice.start, lowest);
    EXPECT_EQ(slice.end, highest);
    ASSERT_TRUE(slices.halve());
    std::int64_t at = lowest;
    int count = 0;
    while (slices.next(slice)) {
        ASSERT_EQ(slice.start, at);
        slices.done(1);
        at = slice.end;
        ASSERT_LT(++count, 100);
    }
    EXPECT_EQ(at, highest);
}

TEST(RangeSlices, AnInstantIsExcludedAndAPeriodIncludedWhole) {
    EXPECT_EQ(endOf({500, 500}), 500);
    EXPECT_EQ(endOf({500, 999}), 1000);
}

}  // namespace
}  // namespace qel::programs
