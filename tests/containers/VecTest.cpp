#include <zel/Vec.h>

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <typeinfo>

namespace {

using zel::Vec2d;
using zel::Vec3d;
using zel::Vec3f;
using zel::Vec3T;
using zel::Vec4d;

constexpr double Infinity = std::numeric_limits<double>::infinity();

/// The value that lies behind the third component of a real 3-vector.
template <typename T>
T padding(const Vec3T<T>& v) {
    T values[4];
    static_assert(sizeof(values) == sizeof(v));
    std::memcpy(values, &v, sizeof(v));
    return values[3];
}

TEST(VecTest, IsZeroByDefault) {
    EXPECT_EQ(Vec2d(), Vec2d(0, 0));
    EXPECT_EQ(Vec3d(), Vec3d(0, 0, 0));
    EXPECT_EQ(Vec4d(), Vec4d(0, 0, 0, 0));
}

TEST(VecTest, TypeNamesAreTheOnesThatJournalsStore) {
    EXPECT_STREQ(typeid(Vec3f).name(), "N3zel5Vec3TIfEE");
    EXPECT_STREQ(typeid(Vec3d).name(), "N3zel5Vec3TIdEE");
}

TEST(VecTest, ArithmeticGoesByComponent) {
    const Vec3d a(1, 2, 3);
    const Vec3d b(4, 6, 8);
    EXPECT_EQ(a + b, Vec3d(5, 8, 11));
    EXPECT_EQ(b - a, Vec3d(3, 4, 5));
    EXPECT_EQ(a * 2, Vec3d(2, 4, 6));
    EXPECT_EQ(2 * a, Vec3d(2, 4, 6));
    EXPECT_EQ(b / 2, Vec3d(2, 3, 4));
    EXPECT_EQ(-a, Vec3d(-1, -2, -3));
    EXPECT_EQ(componentProduct(a, b), Vec3d(4, 12, 24));
    EXPECT_EQ(componentMin(a, Vec3d(2, 0, 3)), Vec3d(1, 0, 3));
    EXPECT_EQ(componentMax(a, Vec3d(2, 0, 3)), Vec3d(2, 2, 3));
}

TEST(VecTest, CompoundAssignmentReturnsTheVector) {
    Vec4d v(1, 2, 3, 4);
    EXPECT_EQ(&(v += Vec4d(1)), &v);
    EXPECT_EQ(v, Vec4d(2, 3, 4, 5));
    v -= Vec4d(2, 2, 2, 2);
    v *= 3;
    v /= 3;
    EXPECT_EQ(v, Vec4d(0, 1, 2, 3));
}

TEST(VecTest, ComponentsAreReadAndWritten) {
    Vec4d v(1, 2, 3, 4);
    v.x() = 5;
    v.w() = 6;
    v[1] = 7;
    EXPECT_EQ(v, Vec4d(5, 7, 3, 6));
    EXPECT_EQ(v.xyz(), Vec3d(5, 7, 3));
    EXPECT_EQ(Vec4d(Vec3d(Vec2d(1, 2), 3), 4), Vec4d(1, 2, 3, 4));
    EXPECT_EQ(v.data()[2], 3);
}

TEST(VecTest, DotCrossAndNorm) {
    const Vec3d a(1, 2, 3);
    const Vec3d b(-2, 1, 4);
    EXPECT_EQ(a.dot(b), 12);
    EXPECT_EQ(a.cross(b), Vec3d(5, -10, 5));
    EXPECT_EQ(a.cross(b).dot(a), 0);
    EXPECT_EQ(Vec3d(2, 3, 6).norm(), 7);
    EXPECT_EQ(Vec2d(3, 4).squaredNorm(), 25);
    EXPECT_EQ(Vec2d(1, 0).cross({0, 1}), 1);
    EXPECT_EQ(Vec2d(0, 0).distance({3, 4}), 5);
}

TEST(VecTest, CrossFollowsTheRightHand) {
    EXPECT_EQ(Vec3d(1, 0, 0).cross({0, 1, 0}), Vec3d(0, 0, 1));
    EXPECT_EQ(Vec3d(0, 1, 0).cross({0, 0, 1}), Vec3d(1, 0, 0));
}

TEST(VecTest, NormalisingGivesLengthOneAndLeavesZeroAlone) {
    Vec3d v(2, 3, 6);
    v.normalise();
    EXPECT_DOUBLE_EQ(v.norm(), 1);
    EXPECT_DOUBLE_EQ(v.x(), 2.0 / 7);
    EXPECT_EQ(Vec3d().normalised(), Vec3d());
}

TEST(VecTest, ANotANumberEqualsNothing) {
    const Vec2d v(0, std::numeric_limits<double>::quiet_NaN());
    EXPECT_FALSE(v == v);
}

TEST(VecTest, SmallIntegersStayInTheirType) {
    const zel::Vec2T<zel::uint8> v(250, 7);
    const auto sum = v + zel::Vec2T<zel::uint8>(10, 1);
    EXPECT_EQ(sum, zel::Vec2T<zel::uint8>(4, 8));
    EXPECT_EQ(zel::Vec3T<zel::int16>(7, 8, 9) / 2, zel::Vec3T<zel::int16>(3, 4, 4));
    EXPECT_EQ((zel::Vec3T<zel::int64>(1, 2, 3).cross({4, 5, 6})), (zel::Vec3T<zel::int64>(-3, 6, -3)));
}

TEST(VecTest, ConvertsBetweenComponentTypesByName) {
    static_assert(!std::is_convertible_v<Vec3d, Vec3f>);
    const Vec3f narrow(Vec3d(1.5, 2.5, -3.5));
    EXPECT_EQ(narrow, Vec3f(1.5F, 2.5F, -3.5F));
    EXPECT_EQ(zel::Vec3T<zel::int32>(narrow), zel::Vec3T<zel::int32>(1, 2, -3));
    EXPECT_EQ(padding(Vec3d(zel::Vec3T<zel::int32>(1, 2, 3))), 0);
}

TEST(VecTest, TheFourthValueOfARealVec3StaysZeroThroughEveryOperation) {
    const Vec3d a(1, 2, 3);
    const Vec3d results[] = {Vec3d(),
                             a,
                             Vec3d(7.0),
                             Vec3d(Vec2d(1, 2), 3),
                             Vec3d(Vec3f(1, 2, 3)),
                             Vec4d(1, 2, 3, 4).xyz(),
                             a + a,
                             a - a,
                             a * Infinity,
                             Infinity * a,
                             a / 0.0,
                             Vec3d() / 0.0,
                             -a,
                             componentProduct(a, a),
                             componentMin(a, -a),
                             componentMax(a, -a),
                             a.cross(Vec3d(4, 5, 6)),
                             a.normalised(),
                             Vec3d().normalised()};
    for (const Vec3d& result : results) {
        EXPECT_EQ(padding(result), 0);
        EXPECT_FALSE(std::signbit(padding(result)));
    }
}

} // namespace
