#include <zel/Vector.h>
#include <gtest/gtest.h>

TEST(VectorTest, FirstPushBackGivesCapacityFour) {
    zel::Vector<int> v;
    v.push_back(1);
    EXPECT_EQ(v.capacity(), 4U);
    for (int i = 0; i < 4; ++i)
        v.push_back(i);
    EXPECT_EQ(v.capacity(), 8U);
}
