#include <zel/Matrix.h>

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace {

using zel::Matrix3x3d;
using zel::Matrix4x4d;
using zel::Quatd;
using zel::Vec3d;
using zel::Vec4d;
using AffineMatrix = zel::AffineMatrix4x4T<double>;

template <typename Matrix>
double largestDifference(const Matrix& a, const Matrix& b) {
    double largest = 0;
    for (size_t row = 0; row < Matrix::NumRows; ++row)
        for (size_t column = 0; column < Matrix::NumColumns; ++column)
            largest = std::max(largest, std::abs(a(row, column) - b(row, column)));
    return largest;
}

template <typename Matrix>
Matrix randomMatrix(std::mt19937& random) {
    std::uniform_real_distribution<double> element(-2, 2);
    Matrix m;
    for (size_t row = 0; row < Matrix::NumRows; ++row)
        for (size_t column = 0; column < Matrix::NumColumns; ++column)
            m(row, column) = element(random);
    return m;
}

const Matrix3x3d Counting(1, 2, 3, 4, 5, 6, 7, 8, 10);

TEST(MatrixTest, IsTheIdentityByDefault) {
    EXPECT_EQ(Matrix3x3d(), Matrix3x3d(1, 0, 0, 0, 1, 0, 0, 0, 1));
    EXPECT_EQ(Matrix4x4d() * Vec4d(1, 2, 3, 4), Vec4d(1, 2, 3, 4));
    EXPECT_EQ(Matrix3x3d::zero() * Vec3d(1, 2, 3), Vec3d());
}

TEST(MatrixTest, LiesRowByRow) {
    EXPECT_EQ(Counting.data()[1], 2);
    EXPECT_EQ(Counting.data()[3], 4);
    EXPECT_EQ(Counting(1, 2), 6);
    EXPECT_EQ(Counting.row(1), Vec3d(4, 5, 6));
    EXPECT_EQ(Counting.column(1), Vec3d(2, 5, 8));
}

TEST(MatrixTest, MultipliesAColumnVector) {
    EXPECT_EQ(Counting * Vec3d(1, 0, 2), Vec3d(7, 16, 27));
}

TEST(MatrixTest, MultipliesMatrices) {
    const Matrix3x3d swapped(0, 1, 0, 1, 0, 0, 0, 0, 1);
    EXPECT_EQ(swapped * Counting, Matrix3x3d(4, 5, 6, 1, 2, 3, 7, 8, 10));
    EXPECT_EQ(Counting * swapped, Matrix3x3d(2, 1, 3, 5, 4, 6, 8, 7, 10));
    Matrix3x3d m = Counting;
    m *= m;
    EXPECT_EQ(m, Counting * Counting);
}

TEST(MatrixTest, AddsScalesTransposesAndTraces) {
    EXPECT_EQ(Counting + Counting, 2 * Counting);
    EXPECT_EQ(Counting - Counting, Matrix3x3d::zero());
    EXPECT_EQ(Counting.transposed(), Matrix3x3d(1, 4, 7, 2, 5, 8, 3, 6, 10));
    EXPECT_EQ(Counting.trace(), 16);
    EXPECT_EQ(Matrix4x4d::identity().trace(), 4);
}

TEST(MatrixTest, Determinant) {
    EXPECT_DOUBLE_EQ(Counting.determinant(), -3);
    Matrix4x4d m({2, 0, 0, 0}, {0, 3, 0, 0}, {0, 0, 0, 5}, {0, 0, 7, 0});
    EXPECT_DOUBLE_EQ(m.determinant(), -210);
}

TEST(MatrixTest, DeterminantOfAProductIsTheProduct) {
    std::mt19937 random(1);
    for (int i = 0; i < 50; ++i) {
        const auto a = randomMatrix<Matrix4x4d>(random);
        const auto b = randomMatrix<Matrix4x4d>(random);
        EXPECT_NEAR((a * b).determinant(), a.determinant() * b.determinant(), 1e-9);
    }
}

TEST(MatrixTest, TheInverseTimesTheMatrixIsTheIdentity) {
    std::mt19937 random(2);
    for (int i = 0; i < 50; ++i) {
        const auto a = randomMatrix<Matrix3x3d>(random);
        const auto b = randomMatrix<Matrix4x4d>(random);
        EXPECT_LT(largestDifference(a * a.inverse(), Matrix3x3d()) * std::abs(a.determinant()), 1e-11);
        EXPECT_LT(largestDifference(b.inverse() * b, Matrix4x4d()) * std::abs(b.determinant()), 1e-11);
    }
}

TEST(MatrixTest, TheInverseOfASingularMatrixIsNotFinite) {
    EXPECT_FALSE(std::isfinite(Matrix3x3d(1, 2, 3, 2, 4, 6, 7, 8, 9).inverse()(0, 0)));
    EXPECT_FALSE(std::isfinite(Matrix4x4d::zero().inverse()(0, 0)));
}

TEST(MatrixTest, OfAQuaternionTurnsLikeTheQuaternion) {
    const Quatd q = Quatd::fromAxisAngle({1, -2, 0.5}, 2.2);
    const Matrix3x3d m(q);
    EXPECT_LT((m * Vec3d(3, 1, -2)).distance(q.rotate({3, 1, -2})), 1e-14);
    EXPECT_LT(largestDifference(m * m.transposed(), Matrix3x3d()), 1e-15);
    EXPECT_NEAR(m.determinant(), 1, 1e-15);
}

TEST(MatrixTest, ConvertsBetweenComponentTypesByName) {
    EXPECT_EQ(zel::Matrix3x3f(Counting)(2, 2), 10.0F);
    EXPECT_EQ(Matrix4x4d(zel::Matrix4x4f()), Matrix4x4d());
}

TEST(AffineMatrixTest, KeepsItsLastRow) {
    const AffineMatrix m(Matrix4x4d({1, 2, 3, 4}, {5, 6, 7, 8}, {9, 10, 12, 12}, {13, 14, 15, 16}));
    EXPECT_EQ(m.matrix().row(3), Vec4d(0, 0, 0, 1));
    EXPECT_EQ((m * m).matrix().row(3), Vec4d(0, 0, 0, 1));
    EXPECT_EQ(m.inverse().matrix().row(3), Vec4d(0, 0, 0, 1));
    EXPECT_EQ(m.data()[15], 1);
}

TEST(AffineMatrixTest, MovesPointsAndTurnsDirections) {
    const AffineMatrix m(Matrix3x3d::diagonal({2, 3, 4}), Vec3d(10, 20, 30));
    EXPECT_EQ(m.transformPoint({1, 1, 1}), Vec3d(12, 23, 34));
    EXPECT_EQ(m.transformDirection({1, 1, 1}), Vec3d(2, 3, 4));
    EXPECT_EQ(m.translation(), Vec3d(10, 20, 30));
    EXPECT_EQ(m.determinant(), 24);
}

TEST(AffineMatrixTest, ComposesFromRightToLeftLikeTheFullMatrix) {
    const AffineMatrix a(Quatd::fromAxisAngle({1, 2, 3}, 0.7), Vec3d(1, 2, 3));
    const AffineMatrix b(Counting, Vec3d(-3, 0, 5));
    const Vec3d p(0.5, -1, 2);
    EXPECT_LT((a * b).transformPoint(p).distance(a.transformPoint(b.transformPoint(p))), 1e-13);
    EXPECT_LT(largestDifference((a * b).matrix(), a.matrix() * b.matrix()), 1e-14);
}

TEST(AffineMatrixTest, TheInverseTakesPointsBack) {
    const AffineMatrix m(Counting, Vec3d(-3, 0, 5));
    EXPECT_LT(m.inverse().transformPoint(m.transformPoint({1, 2, 3})).distance({1, 2, 3}), 1e-12);
}

TEST(SPDMatrixTest, IsSymmetric) {
    const zel::SPDMatrix3x3 m(Counting);
    for (size_t row = 0; row < 3; ++row)
        for (size_t column = 0; column < 3; ++column)
            EXPECT_EQ(m(row, column), (Counting(row, column) + Counting(column, row)) / 2);
    zel::SPDMatrix3x3 other;
    other.set(0, 2, 0.25);
    EXPECT_EQ(other(2, 0), 0.25);
}

TEST(SPDMatrixTest, KnowsWhetherItIsPositiveDefinite) {
    EXPECT_TRUE(zel::SPDMatrix3x3().isPositiveDefinite());
    EXPECT_TRUE(zel::SPDMatrix3x3(4, 1, 0.5, 3, -1, 2).isPositiveDefinite());
    EXPECT_FALSE(zel::SPDMatrix3x3(1, 2, 0, 1, 0, 1).isPositiveDefinite());
    EXPECT_FALSE(zel::SPDMatrix3x3(-1, 0, 0, -1, 0, 1).isPositiveDefinite());
}

TEST(SPDMatrixTest, InvertsAndTurns) {
    const zel::SPDMatrix3x3 m(4, 1, 0.5, 3, -1, 2);
    EXPECT_LT(largestDifference(m.matrix() * m.inverse().matrix(), Matrix3x3d()), 1e-15);
    const Quatd q = Quatd::fromAxisAngle({1, 2, 3}, 0.7);
    const zel::SPDMatrix3x3 turned = m.rotated(Matrix3x3d(q));
    const Vec3d v(1, -2, 0.5);
    EXPECT_NEAR(turned.quadraticForm(q.rotate(v)), m.quadraticForm(v), 1e-13);
    EXPECT_NEAR(turned.trace(), m.trace(), 1e-14);
    EXPECT_EQ((m + m), 2 * m);
}

} // namespace
