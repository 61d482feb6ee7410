#include <zel/Plane.h>

#include <gtest/gtest.h>

namespace {

using Segment = zel::LineT<double>;
using Plane = zel::PlaneT<double>;
using zel::Vec3d;

const Plane AtTwo({0, 0, 1}, 2.0);

TEST(PlaneTest, SignedDistanceIsAboveZeroOnTheSideOfTheNormal) {
    EXPECT_EQ(AtTwo.signedDistance({7, 7, 5}), 3);
    EXPECT_EQ(AtTwo.signedDistance({7, 7, 0}), -2);
    EXPECT_EQ(AtTwo.signedDistance({7, 7, 2}), 0);
}

TEST(PlaneTest, GoesThroughItsPoints) {
    const Vec3d a(1, 0, 0);
    const Vec3d b(0, 1, 0);
    const Vec3d c(0, 0, 1);
    const Plane plane = Plane::through(a, b, c);
    EXPECT_NEAR(plane.signedDistance(a), 0, 1e-15);
    EXPECT_NEAR(plane.signedDistance(b), 0, 1e-15);
    EXPECT_NEAR(plane.signedDistance(c), 0, 1e-15);
    EXPECT_GT(plane.normal().x(), 0); // counter-clockwise seen from outside
    EXPECT_EQ(Plane({0, 0, 1}, Vec3d(5, 6, 2)), AtTwo);
}

TEST(PlaneTest, NormalisingKeepsThePoints) {
    const Plane plane = Plane({0, 0, 4}, 8.0).normalised();
    EXPECT_EQ(plane, AtTwo);
}

TEST(PlaneTest, ProjectsToTheNearestPoint) {
    EXPECT_EQ(AtTwo.project({1, 2, 9}), Vec3d(1, 2, 2));
    EXPECT_EQ(Plane({0, 0, 4}, 8.0).project({1, 2, 9}), Vec3d(1, 2, 2));
}

TEST(PlaneTest, MeetsALineBetweenItsEndsAlone) {
    EXPECT_EQ(AtTwo.intersect(Segment({0, 0, 0}, {0, 0, 8})), 0.25);
    EXPECT_EQ(AtTwo.intersect(Segment({0, 0, 2}, {0, 0, 8})), 0.0);
    EXPECT_FALSE(AtTwo.intersect(Segment({0, 0, 3}, {0, 0, 8})).has_value());
    EXPECT_FALSE(AtTwo.intersect(Segment({0, 0, 2}, {5, 5, 2})).has_value());
}

} // namespace
