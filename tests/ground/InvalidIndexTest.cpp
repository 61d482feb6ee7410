#include <zel/Integers.h>
#include <zel/InvalidIndex.h>

#include <gtest/gtest.h>

namespace {

TEST(InvalidIndexTest, IsTheLargestValueOfEachUnsignedInteger) {
    const zel::uint8 a = zel::InvalidIndex;
    const zel::uint16 b = zel::InvalidIndex;
    const zel::uint32 c = zel::InvalidIndex;
    const zel::uint64 d = zel::InvalidIndex;
    EXPECT_EQ(a, 0xFFU);
    EXPECT_EQ(b, 0xFFFFU);
    EXPECT_EQ(c, 0xFFFFFFFFU);
    EXPECT_EQ(d, 0xFFFFFFFFFFFFFFFFU);
}

TEST(InvalidIndexTest, ComparesAtTheWidthOfTheOtherSide) {
    EXPECT_TRUE(zel::uint32{0xFFFFFFFFU} == zel::InvalidIndex);
    EXPECT_TRUE(zel::InvalidIndex == zel::uint16{0xFFFFU});
    EXPECT_FALSE(zel::uint64{0xFFFFFFFFU} == zel::InvalidIndex);
    EXPECT_TRUE(zel::uint64{0} != zel::InvalidIndex);
    EXPECT_TRUE(zel::uint32{7} < zel::InvalidIndex);
    EXPECT_TRUE(zel::InvalidIndex > zel::uint32{7});
    EXPECT_TRUE(zel::InvalidIndex <= zel::uint8{0xFFU});
}

TEST(InvalidIndexTest, IsEmptyAndConstant) {
    static_assert(std::is_empty_v<zel::InvalidIndexT>);
    static_assert(zel::uint32{zel::InvalidIndex} == 0xFFFFFFFFU);
    static_assert(!std::is_convertible_v<zel::InvalidIndexT, bool>);
    static_assert(!std::is_convertible_v<zel::InvalidIndexT, int>);
}

} // namespace
