#include <zel/Line.h>

#include <gtest/gtest.h>

namespace {

using Line = zel::LineT<double>;
using zel::Vec3d;

const Line AlongX({0, 0, 0}, {4, 0, 0});

TEST(LineTest, RunsFromStartToEnd) {
    EXPECT_EQ(AlongX.at(0), AlongX.start());
    EXPECT_EQ(AlongX.at(1), AlongX.end());
    EXPECT_EQ(AlongX.at(0.25), Vec3d(1, 0, 0));
    EXPECT_EQ(AlongX.direction(), Vec3d(4, 0, 0));
    EXPECT_EQ(AlongX.length(), 4);
}

TEST(LineTest, TheNearestPointLiesBetweenStartAndEnd) {
    EXPECT_EQ(AlongX.closestPoint({3, 5, 0}), Vec3d(3, 0, 0));
    EXPECT_EQ(AlongX.closestPoint({-3, 5, 0}), Vec3d(0, 0, 0));
    EXPECT_EQ(AlongX.closestPoint({7, 5, 0}), Vec3d(4, 0, 0));
    EXPECT_EQ(AlongX.distance({7, 4, 0}), 5);
}

TEST(LineTest, WithoutLengthItIsItsStart) {
    const Line point({1, 2, 3}, {1, 2, 3});
    EXPECT_EQ(point.closestPoint({9, 9, 9}), Vec3d(1, 2, 3));
    EXPECT_EQ(point.length(), 0);
}

} // namespace
