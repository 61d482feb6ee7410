#pragma once

#include <zel/Quat.h>
#include <zel/Vec.h>

#include <cmath>
#include <concepts>
#include <type_traits>

/// @file
/// Square matrices of reals, stored row by row and multiplied to column vectors from the left; the identity
/// by default.
///
/// @threads any thread for distinct values; one value needs an external lock

namespace zel {

namespace detail {

/// What the general matrices share.
template <typename Matrix, std::floating_point T, size_t N>
class SquareMatrix {
public:
    using value_type = T;
    static constexpr size_t NumRows = N;
    static constexpr size_t NumColumns = N;

    [[nodiscard]] static constexpr Matrix identity() noexcept { return {}; }
    [[nodiscard]] static constexpr Matrix zero() noexcept { return Matrix() * T{0}; }

    /// @pre row and column are below N; not checked
    [[nodiscard]] constexpr T& operator()(size_t row, size_t column) noexcept {
        return m_values[row * N + column];
    }
    [[nodiscard]] constexpr const T& operator()(size_t row, size_t column) const noexcept {
        return m_values[row * N + column];
    }
    /// Row by row.
    [[nodiscard]] constexpr T* data() noexcept { return m_values; }
    [[nodiscard]] constexpr const T* data() const noexcept { return m_values; }

    constexpr Matrix& operator+=(const Matrix& other) noexcept {
        for (size_t i = 0; i < N * N; ++i)
            m_values[i] += other.m_values[i];
        return self();
    }
    constexpr Matrix& operator-=(const Matrix& other) noexcept {
        for (size_t i = 0; i < N * N; ++i)
            m_values[i] -= other.m_values[i];
        return self();
    }
    constexpr Matrix& operator*=(T factor) noexcept {
        for (T& value : m_values)
            value *= factor;
        return self();
    }
    constexpr Matrix& operator*=(const Matrix& other) noexcept { return self() = self() * other; }

    [[nodiscard]] friend constexpr Matrix operator+(Matrix a, const Matrix& b) noexcept { return a += b; }
    [[nodiscard]] friend constexpr Matrix operator-(Matrix a, const Matrix& b) noexcept { return a -= b; }
    [[nodiscard]] friend constexpr Matrix operator*(Matrix a, T factor) noexcept { return a *= factor; }
    [[nodiscard]] friend constexpr Matrix operator*(T factor, Matrix a) noexcept { return a *= factor; }
    [[nodiscard]] friend constexpr Matrix operator*(const Matrix& a, const Matrix& b) noexcept {
        Matrix product;
        for (size_t row = 0; row < N; ++row)
            for (size_t column = 0; column < N; ++column) {
                T sum = 0;
                for (size_t i = 0; i < N; ++i)
                    sum += a(row, i) * b(i, column);
                product(row, column) = sum;
            }
        return product;
    }
    [[nodiscard]] friend constexpr bool operator==(const Matrix& a, const Matrix& b) noexcept {
        for (size_t i = 0; i < N * N; ++i)
            if (a.m_values[i] != b.m_values[i])
                return false;
        return true;
    }

    [[nodiscard]] constexpr Matrix transposed() const noexcept {
        Matrix result;
        for (size_t row = 0; row < N; ++row)
            for (size_t column = 0; column < N; ++column)
                result(column, row) = (*this)(row, column);
        return result;
    }
    [[nodiscard]] constexpr T trace() const noexcept {
        T sum = 0;
        for (size_t i = 0; i < N; ++i)
            sum += (*this)(i, i);
        return sum;
    }

protected:
    constexpr SquareMatrix() noexcept {
        for (size_t i = 0; i < N; ++i)
            m_values[i * N + i] = 1;
    }
    template <typename U>
    constexpr void assignValues(const U* rowByRow) noexcept {
        for (size_t i = 0; i < N * N; ++i)
            m_values[i] = static_cast<T>(rowByRow[i]);
    }

    T m_values[N * N]{};

private:
    [[nodiscard]] constexpr Matrix& self() noexcept { return static_cast<Matrix&>(*this); }
};

} // namespace detail

/// Three rows and columns: nine values without padding.
template <std::floating_point T>
class Matrix3x3T : public detail::SquareMatrix<Matrix3x3T<T>, T, 3> {
public:
    constexpr Matrix3x3T() noexcept = default;
    constexpr Matrix3x3T(T m00, T m01, T m02, T m10, T m11, T m12, T m20, T m21, T m22) noexcept {
        const T values[9] = {m00, m01, m02, m10, m11, m12, m20, m21, m22};
        this->assignValues(values);
    }
    template <typename U>
    constexpr explicit Matrix3x3T(const Matrix3x3T<U>& other) noexcept {
        this->assignValues(other.data());
    }
    /// The rotation of a quaternion of norm 1.
    constexpr explicit Matrix3x3T(const QuatT<T>& rotation) noexcept {
        setColumn(0, rotation.rotate({1, 0, 0}));
        setColumn(1, rotation.rotate({0, 1, 0}));
        setColumn(2, rotation.rotate({0, 0, 1}));
    }
    [[nodiscard]] static constexpr Matrix3x3T diagonal(const Vec3T<T>& d) noexcept {
        return {d.x(), 0, 0, 0, d.y(), 0, 0, 0, d.z()};
    }

    [[nodiscard]] constexpr Vec3T<T> row(size_t i) const noexcept {
        return {(*this)(i, 0), (*this)(i, 1), (*this)(i, 2)};
    }
    [[nodiscard]] constexpr Vec3T<T> column(size_t i) const noexcept {
        return {(*this)(0, i), (*this)(1, i), (*this)(2, i)};
    }
    constexpr void setRow(size_t i, const Vec3T<T>& v) noexcept {
        for (size_t j = 0; j < 3; ++j)
            (*this)(i, j) = v[j];
    }
    constexpr void setColumn(size_t i, const Vec3T<T>& v) noexcept {
        for (size_t j = 0; j < 3; ++j)
            (*this)(j, i) = v[j];
    }

    [[nodiscard]] friend constexpr Vec3T<T> operator*(const Matrix3x3T& m, const Vec3T<T>& v) noexcept {
        return {m.row(0).dot(v), m.row(1).dot(v), m.row(2).dot(v)};
    }

    [[nodiscard]] constexpr T determinant() const noexcept { return row(0).dot(row(1).cross(row(2))); }
    /// By cofactors.
    /// @pre the determinant is not zero; otherwise the result is not finite
    [[nodiscard]] constexpr Matrix3x3T inverse() const noexcept {
        Matrix3x3T result;
        result.setColumn(0, row(1).cross(row(2)));
        result.setColumn(1, row(2).cross(row(0)));
        result.setColumn(2, row(0).cross(row(1)));
        return result * (1 / determinant());
    }
};

/// Four rows and columns.
template <std::floating_point T>
class Matrix4x4T : public detail::SquareMatrix<Matrix4x4T<T>, T, 4> {
public:
    constexpr Matrix4x4T() noexcept = default;
    constexpr Matrix4x4T(const Vec4T<T>& row0,
                         const Vec4T<T>& row1,
                         const Vec4T<T>& row2,
                         const Vec4T<T>& row3) noexcept {
        setRow(0, row0);
        setRow(1, row1);
        setRow(2, row2);
        setRow(3, row3);
    }
    template <typename U>
    constexpr explicit Matrix4x4T(const Matrix4x4T<U>& other) noexcept {
        this->assignValues(other.data());
    }

    [[nodiscard]] constexpr Vec4T<T> row(size_t i) const noexcept {
        return {(*this)(i, 0), (*this)(i, 1), (*this)(i, 2), (*this)(i, 3)};
    }
    [[nodiscard]] constexpr Vec4T<T> column(size_t i) const noexcept {
        return {(*this)(0, i), (*this)(1, i), (*this)(2, i), (*this)(3, i)};
    }
    constexpr void setRow(size_t i, const Vec4T<T>& v) noexcept {
        for (size_t j = 0; j < 4; ++j)
            (*this)(i, j) = v[j];
    }
    constexpr void setColumn(size_t i, const Vec4T<T>& v) noexcept {
        for (size_t j = 0; j < 4; ++j)
            (*this)(j, i) = v[j];
    }

    [[nodiscard]] friend constexpr Vec4T<T> operator*(const Matrix4x4T& m, const Vec4T<T>& v) noexcept {
        return {m.row(0).dot(v), m.row(1).dot(v), m.row(2).dot(v), m.row(3).dot(v)};
    }

    [[nodiscard]] constexpr T determinant() const noexcept {
        const Minors m(*this);
        return m.upper[0] * m.lower[5] - m.upper[1] * m.lower[4] + m.upper[2] * m.lower[3] +
               m.upper[3] * m.lower[2] - m.upper[4] * m.lower[1] + m.upper[5] * m.lower[0];
    }
    /// By Laplace's expansion in the 2x2 minors of the upper and the lower two rows.
    /// @pre the determinant is not zero; otherwise the result is not finite
    [[nodiscard]] constexpr Matrix4x4T inverse() const noexcept;

private:
    /// The six 2x2 minors of rows 0 and 1, and those of rows 2 and 3, for the pairs of columns 01, 02, 03,
    /// 12, 13 and 23.
    struct Minors {
        constexpr explicit Minors(const Matrix4x4T& m) noexcept {
            size_t pair = 0;
            for (size_t i = 0; i < 3; ++i)
                for (size_t j = i + 1; j < 4; ++j, ++pair) {
                    upper[pair] = m(0, i) * m(1, j) - m(0, j) * m(1, i);
                    lower[pair] = m(2, i) * m(3, j) - m(2, j) * m(3, i);
                }
        }
        T upper[6]{};
        T lower[6]{};
    };
};

template <std::floating_point T>
constexpr Matrix4x4T<T> Matrix4x4T<T>::inverse() const noexcept {
    const Minors minors(*this);
    const T* u = minors.upper;
    const T* l = minors.lower;
    const Matrix4x4T& m = *this;
    const Matrix4x4T adjugate({m(1, 1) * l[5] - m(1, 2) * l[4] + m(1, 3) * l[3],
                               -m(0, 1) * l[5] + m(0, 2) * l[4] - m(0, 3) * l[3],
                               m(3, 1) * u[5] - m(3, 2) * u[4] + m(3, 3) * u[3],
                               -m(2, 1) * u[5] + m(2, 2) * u[4] - m(2, 3) * u[3]},
                              {-m(1, 0) * l[5] + m(1, 2) * l[2] - m(1, 3) * l[1],
                               m(0, 0) * l[5] - m(0, 2) * l[2] + m(0, 3) * l[1],
                               -m(3, 0) * u[5] + m(3, 2) * u[2] - m(3, 3) * u[1],
                               m(2, 0) * u[5] - m(2, 2) * u[2] + m(2, 3) * u[1]},
                              {m(1, 0) * l[4] - m(1, 1) * l[2] + m(1, 3) * l[0],
                               -m(0, 0) * l[4] + m(0, 1) * l[2] - m(0, 3) * l[0],
                               m(3, 0) * u[4] - m(3, 1) * u[2] + m(3, 3) * u[0],
                               -m(2, 0) * u[4] + m(2, 1) * u[2] - m(2, 3) * u[0]},
                              {-m(1, 0) * l[3] + m(1, 1) * l[1] - m(1, 2) * l[0],
                               m(0, 0) * l[3] - m(0, 1) * l[1] + m(0, 2) * l[0],
                               -m(3, 0) * u[3] + m(3, 1) * u[1] - m(3, 2) * u[0],
                               m(2, 0) * u[3] - m(2, 1) * u[1] + m(2, 2) * u[0]});
    return adjugate * (1 / determinant());
}

/// A linear map followed by a translation, stored as the four rows of the matrix that does the same to (x, y,
/// z, 1): the last row is always (0, 0, 0, 1).
template <std::floating_point T>
class AffineMatrix4x4T {
public:
    using value_type = T;
    static constexpr size_t NumRows = 4;
    static constexpr size_t NumColumns = 4;

    constexpr AffineMatrix4x4T() noexcept = default;
    constexpr AffineMatrix4x4T(const Matrix3x3T<T>& linear, const Vec3T<T>& translation) noexcept {
        setLinear(linear);
        setTranslation(translation);
    }
    constexpr AffineMatrix4x4T(const QuatT<T>& rotation, const Vec3T<T>& translation) noexcept
        : AffineMatrix4x4T(Matrix3x3T<T>(rotation), translation) {}
    template <typename U>
    constexpr explicit AffineMatrix4x4T(const AffineMatrix4x4T<U>& other) noexcept
        : m_matrix(other.matrix()) {}
    /// Takes the upper three rows; the last one is not read.
    constexpr explicit AffineMatrix4x4T(const Matrix4x4T<T>& matrix) noexcept : m_matrix(matrix) {
        m_matrix.setRow(3, {0, 0, 0, 1});
    }

    [[nodiscard]] constexpr const T& operator()(size_t row, size_t column) const noexcept {
        return m_matrix(row, column);
    }
    /// @pre row is below 3 and column below 4; not checked
    constexpr void set(size_t row, size_t column, T value) noexcept { m_matrix(row, column) = value; }
    /// Row by row.
    [[nodiscard]] constexpr const T* data() const noexcept { return m_matrix.data(); }
    [[nodiscard]] constexpr const Matrix4x4T<T>& matrix() const noexcept { return m_matrix; }

    [[nodiscard]] constexpr Matrix3x3T<T> linear() const noexcept {
        Matrix3x3T<T> result;
        for (size_t row = 0; row < 3; ++row)
            result.setRow(row, m_matrix.row(row).xyz());
        return result;
    }
    constexpr void setLinear(const Matrix3x3T<T>& linear) noexcept {
        for (size_t row = 0; row < 3; ++row)
            for (size_t column = 0; column < 3; ++column)
                m_matrix(row, column) = linear(row, column);
    }
    [[nodiscard]] constexpr Vec3T<T> translation() const noexcept { return m_matrix.column(3).xyz(); }
    constexpr void setTranslation(const Vec3T<T>& translation) noexcept {
        m_matrix.setColumn(3, Vec4T<T>(translation, T{1}));
    }

    [[nodiscard]] constexpr Vec3T<T> transformPoint(const Vec3T<T>& p) const noexcept {
        return transformDirection(p) + translation();
    }
    /// Without the translation.
    [[nodiscard]] constexpr Vec3T<T> transformDirection(const Vec3T<T>& d) const noexcept {
        return linear() * d;
    }

    /// The map b followed by the map a.
    [[nodiscard]] friend constexpr AffineMatrix4x4T operator*(const AffineMatrix4x4T& a,
                                                              const AffineMatrix4x4T& b) noexcept {
        return {a.linear() * b.linear(), a.transformPoint(b.translation())};
    }
    constexpr AffineMatrix4x4T& operator*=(const AffineMatrix4x4T& other) noexcept {
        return *this = *this * other;
    }
    [[nodiscard]] friend constexpr bool operator==(const AffineMatrix4x4T&,
                                                   const AffineMatrix4x4T&) noexcept = default;

    [[nodiscard]] constexpr T determinant() const noexcept { return linear().determinant(); }
    /// @pre the determinant is not zero; otherwise the result is not finite
    [[nodiscard]] constexpr AffineMatrix4x4T inverse() const noexcept {
        const Matrix3x3T<T> inverted = linear().inverse();
        return {inverted, -(inverted * translation())};
    }

private:
    Matrix4x4T<T> m_matrix;
};

/// A symmetric matrix of doubles that is meant to be positive definite, such as a tensor of inertia or a
/// covariance. Stored as all nine values; every operation keeps it symmetric.
class SPDMatrix3x3 {
public:
    using value_type = double;

    constexpr SPDMatrix3x3() noexcept = default;
    constexpr SPDMatrix3x3(double xx, double xy, double xz, double yy, double yz, double zz) noexcept
        : m_matrix(xx, xy, xz, xy, yy, yz, xz, yz, zz) {}
    /// The symmetric part of a matrix.
    constexpr explicit SPDMatrix3x3(const Matrix3x3T<double>& m) noexcept
        : SPDMatrix3x3(m(0, 0),
                       (m(0, 1) + m(1, 0)) / 2,
                       (m(0, 2) + m(2, 0)) / 2,
                       m(1, 1),
                       (m(1, 2) + m(2, 1)) / 2,
                       m(2, 2)) {}

    [[nodiscard]] constexpr double operator()(size_t row, size_t column) const noexcept {
        return m_matrix(row, column);
    }
    /// Sets the element and its mirror image.
    constexpr void set(size_t row, size_t column, double value) noexcept {
        m_matrix(row, column) = m_matrix(column, row) = value;
    }
    /// Row by row.
    [[nodiscard]] constexpr const double* data() const noexcept { return m_matrix.data(); }
    [[nodiscard]] constexpr const Matrix3x3T<double>& matrix() const noexcept { return m_matrix; }

    constexpr SPDMatrix3x3& operator+=(const SPDMatrix3x3& other) noexcept {
        m_matrix += other.m_matrix;
        return *this;
    }
    constexpr SPDMatrix3x3& operator*=(double factor) noexcept {
        m_matrix *= factor;
        return *this;
    }
    [[nodiscard]] friend constexpr SPDMatrix3x3 operator+(SPDMatrix3x3 a, const SPDMatrix3x3& b) noexcept {
        return a += b;
    }
    [[nodiscard]] friend constexpr SPDMatrix3x3 operator*(SPDMatrix3x3 a, double factor) noexcept {
        return a *= factor;
    }
    [[nodiscard]] friend constexpr SPDMatrix3x3 operator*(double factor, SPDMatrix3x3 a) noexcept {
        return a *= factor;
    }
    [[nodiscard]] friend constexpr Vec3T<double> operator*(const SPDMatrix3x3& m,
                                                           const Vec3T<double>& v) noexcept {
        return m.m_matrix * v;
    }
    [[nodiscard]] friend constexpr bool operator==(const SPDMatrix3x3&,
                                                   const SPDMatrix3x3&) noexcept = default;

    [[nodiscard]] constexpr double trace() const noexcept { return m_matrix.trace(); }
    [[nodiscard]] constexpr double determinant() const noexcept { return m_matrix.determinant(); }
    /// Sylvester's criterion: the three leading minors are above zero.
    [[nodiscard]] constexpr bool isPositiveDefinite() const noexcept {
        return (*this)(0, 0) > 0 && (*this)(0, 0) * (*this)(1, 1) - (*this)(0, 1) * (*this)(0, 1) > 0 &&
               determinant() > 0;
    }
    /// @pre isPositiveDefinite()
    [[nodiscard]] constexpr SPDMatrix3x3 inverse() const noexcept { return SPDMatrix3x3(m_matrix.inverse()); }
    /// The same tensor in axes turned by `rotation`: R M R^T.
    [[nodiscard]] constexpr SPDMatrix3x3 rotated(const Matrix3x3T<double>& rotation) const noexcept {
        return SPDMatrix3x3(rotation * m_matrix * rotation.transposed());
    }
    /// v^T M v.
    [[nodiscard]] constexpr double quadraticForm(const Vec3T<double>& v) const noexcept {
        return v.dot(m_matrix * v);
    }

private:
    Matrix3x3T<double> m_matrix;
};

using Matrix3x3f = Matrix3x3T<float>;
using Matrix3x3d = Matrix3x3T<double>;
using Matrix4x4f = Matrix4x4T<float>;
using Matrix4x4d = Matrix4x4T<double>;

static_assert(sizeof(Matrix3x3T<float>) == 36 && sizeof(Matrix3x3T<double>) == 72);
static_assert(sizeof(Matrix4x4T<float>) == 64 && sizeof(Matrix4x4T<double>) == 128);
static_assert(sizeof(AffineMatrix4x4T<float>) == 64 && sizeof(AffineMatrix4x4T<double>) == 128);
static_assert(sizeof(SPDMatrix3x3) == 72);
static_assert(std::is_trivially_copyable_v<Matrix3x3T<float>> &&
              std::is_trivially_copyable_v<Matrix4x4T<float>> &&
              std::is_trivially_copyable_v<AffineMatrix4x4T<double>> &&
              std::is_trivially_copyable_v<SPDMatrix3x3>);

} // namespace zel
