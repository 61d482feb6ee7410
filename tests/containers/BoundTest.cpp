#include <zel/Bound.h>

#include <gtest/gtest.h>

#include <typeinfo>

namespace {

using Interval = zel::BoundT<double>;
using IntInterval = zel::BoundT<zel::int32>;
using Box = zel::BoundT<zel::Vec3d>;
using zel::Vec3d;

const Box Unit({0, 0, 0}, {1, 1, 1});

TEST(BoundTest, IsEmptyByDefault) {
    EXPECT_TRUE(Interval().empty());
    EXPECT_TRUE(Box().empty());
    EXPECT_TRUE(zel::BoundT<zel::uint8>().empty());
    EXPECT_FALSE(Box().contains(Vec3d()));
}

TEST(BoundTest, HoldsBothEnds) {
    const Interval bound(1, 2);
    EXPECT_TRUE(bound.contains(1));
    EXPECT_TRUE(bound.contains(2));
    EXPECT_FALSE(bound.contains(2.1));
    EXPECT_FALSE(Unit.contains(Vec3d(0.5, 0.5, 1.5)));
    EXPECT_TRUE(Unit.contains(Vec3d(1, 0, 1)));
}

TEST(BoundTest, ContainsEmptyBoundsAndItself) {
    EXPECT_TRUE(Unit.contains(Unit));
    EXPECT_TRUE(Unit.contains(Box()));
    EXPECT_FALSE(Box().contains(Unit));
    EXPECT_FALSE(Unit.contains(Box({0, 0, 0}, {1, 1, 2})));
}

TEST(BoundTest, UnitingWithAPointGrowsByComponent) {
    Box box;
    box.unite(Vec3d(1, 5, -2));
    EXPECT_EQ(box, Box(Vec3d(1, 5, -2)));
    box.unite(Vec3d(0, 7, -3));
    EXPECT_EQ(box, Box({0, 5, -3}, {1, 7, -2}));
}

TEST(BoundTest, UnitingWithAnEmptyBoundChangesNothing) {
    EXPECT_EQ(unionOf(Unit, Box()), Unit);
    EXPECT_EQ(unionOf(Box(), Unit), Unit);
    // Empty in one direction alone, and far out in the others.
    EXPECT_EQ(unionOf(Unit, Box({9, 9, 9}, {10, 10, 8})), Unit);
    EXPECT_EQ(unionOf(Box({9, 9, 9}, {10, 10, 8}), Unit), Unit);
}

TEST(BoundTest, IntersectionsAreWhatLiesInBoth) {
    EXPECT_EQ(intersection(Unit, Box({0.5, -1, 0}, {2, 0.5, 1})), Box({0.5, 0, 0}, {1, 0.5, 1}));
    EXPECT_TRUE(intersection(Unit, Box({2, 0, 0}, {3, 1, 1})).empty());
    EXPECT_TRUE(Unit.intersects(Box({1, 1, 1}, {2, 2, 2})));
    EXPECT_FALSE(Unit.intersects(Box({0, 0, 1.1}, {1, 1, 2})));
    EXPECT_FALSE(Unit.intersects(Box()));
}

TEST(BoundTest, ExtentAndCenter) {
    EXPECT_EQ(Unit.extent(), Vec3d(1, 1, 1));
    EXPECT_EQ(Unit.center(), Vec3d(0.5, 0.5, 0.5));
    EXPECT_EQ(IntInterval(-3, 4).center(), 0);
    EXPECT_EQ(zel::BoundT<zel::uint32>(0, 0xFFFFFFFFU).center(), 0x7FFFFFFFU);
    EXPECT_EQ(zel::BoundT<zel::int8>(1, 6).center(), 3);
}

TEST(BoundTest, WorksOverIntegerVectors) {
    using Cells = zel::BoundT<zel::Vec2T<zel::int32>>;
    Cells cells({0, 0}, {3, 3});
    cells.unite(zel::Vec2T<zel::int32>(-1, 5));
    EXPECT_EQ(cells, Cells({-1, 0}, {3, 5}));
}

} // namespace
