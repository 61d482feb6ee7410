#include <zel/Range.h>

#include <gtest/gtest.h>

#include <limits>
#include <typeinfo>

namespace {

TEST(IndexRangeTest, IsEmptyByDefault) {
    const zel::IndexRange range;
    EXPECT_EQ(range.begin(), 0U);
    EXPECT_EQ(range.end(), 0U);
    EXPECT_EQ(range.size(), 0U);
    EXPECT_TRUE(range.empty());
}

TEST(IndexRangeTest, HoldsItsBeginAndNotItsEnd) {
    const zel::IndexRange range(3, 7);
    EXPECT_EQ(range.size(), 4U);
    EXPECT_FALSE(range.contains(2));
    EXPECT_TRUE(range.contains(3));
    EXPECT_TRUE(range.contains(6));
    EXPECT_FALSE(range.contains(7));
}

TEST(IndexRangeTest, AdjacentRangesShareNoIndex) {
    EXPECT_FALSE(zel::IndexRange(0, 4).intersects({4, 8}));
    EXPECT_TRUE(zel::IndexRange(0, 5).intersects({4, 8}));
    EXPECT_FALSE(zel::IndexRange(5, 5).intersects({0, 8}));
}

TEST(IndexRangeTest, WidensImplicitlyAndNarrowsByName) {
    static_assert(std::is_convertible_v<zel::IndexRangeT<zel::uint32>, zel::IndexRange>);
    static_assert(!std::is_convertible_v<zel::IndexRange, zel::IndexRangeT<zel::uint32>>);
    const zel::IndexRange wide = zel::IndexRangeT<zel::uint32>(1, 2);
    EXPECT_EQ(wide, zel::IndexRange(1, 2));
    EXPECT_EQ(zel::IndexRangeT<zel::uint32>(zel::IndexRange(8, 9)).begin(), 8U);
}

TEST(IndexRangeTest, TypeNameIsTheOneThatJournalsStore) {
    EXPECT_STREQ(typeid(zel::IndexRangeT<zel::uint32>).name(), "N3zel11IndexRangeTIjEE");
    EXPECT_STREQ(typeid(zel::IndexRange).name(), "N3zel11IndexRangeTImEE");
}

TEST(RangeTest, HoldsBothEnds) {
    const zel::Range<double> range(1.0, 2.5);
    EXPECT_TRUE(range.contains(1.0));
    EXPECT_TRUE(range.contains(2.5));
    EXPECT_FALSE(range.contains(0.999));
    EXPECT_FALSE(range.contains(2.501));
    EXPECT_DOUBLE_EQ(range.length(), 1.5);
}

TEST(RangeTest, RangesThatTouchIntersect) {
    EXPECT_TRUE(zel::Range<double>(0, 1).intersects({1, 2}));
    EXPECT_FALSE(zel::Range<double>(0, 1).intersects({1.5, 2}));
}

TEST(RangeTest, HoldsNothingWhereAnEndIsNotANumber) {
    const zel::Range<double> range(0, std::numeric_limits<double>::quiet_NaN());
    EXPECT_FALSE(range.contains(0));
}

TEST(Range6Test, KeepsSixValuesInOrder) {
    zel::Range6T<float> range(1, 2, 3, 4, 5, 6);
    for (size_t i = 0; i < 6; ++i)
        EXPECT_EQ(range[i], static_cast<float>(i + 1));
    range[5] = 9;
    EXPECT_EQ(range.data()[5], 9);
    EXPECT_EQ(zel::Range6T<double>()[3], 0.0);
}

} // namespace
