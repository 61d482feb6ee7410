#include <zel/Quat.h>

#include <gtest/gtest.h>

#include <numbers>
#include <typeinfo>

namespace {

using zel::Quatd;
using zel::Vec3d;

constexpr double Pi = std::numbers::pi;

void expectNear(const Vec3d& a, const Vec3d& b) {
    EXPECT_LT(a.distance(b), 1e-14) << a.x() << ' ' << a.y() << ' ' << a.z();
}
void expectNear(const Quatd& a, const Quatd& b) {
    EXPECT_LT((a - b).norm(), 1e-14);
}

TEST(QuatTest, IsTheIdentityByDefault) {
    EXPECT_EQ(Quatd(), Quatd(0, 0, 0, 1));
    EXPECT_EQ(Quatd().rotate({1, 2, 3}), Vec3d(1, 2, 3));
}

TEST(QuatTest, TypeNamesAreTheOnesThatJournalsStore) {
    EXPECT_STREQ(typeid(zel::Quatf).name(), "N3zel5QuatTIfEE");
    EXPECT_STREQ(typeid(zel::Quatd).name(), "N3zel5QuatTIdEE");
}

TEST(QuatTest, ProductsFollowHamilton) {
    const Quatd i(1, 0, 0, 0);
    const Quatd j(0, 1, 0, 0);
    const Quatd k(0, 0, 1, 0);
    EXPECT_EQ(i * j, k);
    EXPECT_EQ(j * k, i);
    EXPECT_EQ(k * i, j);
    EXPECT_EQ(j * i, -k);
    EXPECT_EQ(i * i, Quatd(0, 0, 0, -1));
}

TEST(QuatTest, TurnsCounterClockwiseAboutItsAxis) {
    expectNear(Quatd::fromAxisAngle({0, 0, 5}, Pi / 2).rotate({1, 0, 7}), {0, 1, 7});
    expectNear(Quatd::fromAxisAngle({1, 0, 0}, Pi / 2).rotate({0, 1, 0}), {0, 0, 1});
    EXPECT_EQ(Quatd::fromAxisAngle({0, 0, 0}, 1), Quatd());
}

TEST(QuatTest, ProductsComposeFromRightToLeft) {
    const Quatd a = Quatd::fromAxisAngle({1, 2, 3}, 0.7);
    const Quatd b = Quatd::fromAxisAngle({-2, 1, 0.5}, 1.9);
    const Vec3d v(0.3, -4, 2);
    expectNear((a * b).rotate(v), a.rotate(b.rotate(v)));
    Quatd c = a;
    c *= b;
    EXPECT_EQ(c, a * b);
}

TEST(QuatTest, TheInverseTurnsBack) {
    const Quatd q = Quatd::fromAxisAngle({1, 2, 3}, 0.7);
    expectNear(q.conjugate().rotate(q.rotate({1, -2, 3})), {1, -2, 3});
    const Quatd scaled = q * 3;
    expectNear(scaled * scaled.inverse(), Quatd());
}

TEST(QuatTest, NormalisingGivesNormOneAndLeavesZeroAlone) {
    EXPECT_DOUBLE_EQ(Quatd(1, 2, 3, 4).normalised().norm(), 1);
    EXPECT_EQ(Quatd(0, 0, 0, 0).normalised(), Quatd(0, 0, 0, 0));
}

TEST(QuatTest, SlerpRunsFromAToBOnTheShorterWay) {
    const Quatd a = Quatd::fromAxisAngle({0, 0, 1}, 0.2);
    const Quatd b = Quatd::fromAxisAngle({0, 0, 1}, 1.4);
    expectNear(Quatd::slerp(a, b, 0), a);
    expectNear(Quatd::slerp(a, b, 1), b);
    expectNear(Quatd::slerp(a, b, 0.25), Quatd::fromAxisAngle({0, 0, 1}, 0.5));
    expectNear(Quatd::slerp(a, -b, 0.25), Quatd::fromAxisAngle({0, 0, 1}, 0.5));
}

TEST(QuatTest, SlerpOfNearlyEqualRotationsStaysNormalised) {
    const Quatd a = Quatd::fromAxisAngle({0, 1, 0}, 0.2);
    const Quatd b = Quatd::fromAxisAngle({0, 1, 0}, 0.2 + 1e-9);
    EXPECT_DOUBLE_EQ(Quatd::slerp(a, b, 0.5).norm(), 1);
    EXPECT_EQ(Quatd::slerp(a, a, 0.5), a.normalised());
}

} // namespace
