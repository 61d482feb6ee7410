#pragma once

#include <zel/Integers.h>

#include <cmath>
#include <concepts>
#include <type_traits>

/// @file
/// Vectors of two, three and four components: small values that are copied bitwise. All arithmetic is done by
/// component in the type of the components; integers wrap or overflow as that type does.
///
/// @threads any thread for distinct values; one value needs an external lock

namespace zel {

namespace detail {

/// What all vectors share. `Stored` values lie in memory, of which the first N are the components; the rest
/// is padding that no operation ever moves from zero.
template <typename Vec, typename T, size_t N, size_t Stored = N>
class VecBase {
    static_assert(std::is_arithmetic_v<T> && !std::is_same_v<T, bool>);

public:
    using value_type = T;
    static constexpr size_t Dimension = N;

    /// @pre index is below Dimension; not checked
    [[nodiscard]] constexpr T& operator[](size_t index) noexcept { return m_values[index]; }
    [[nodiscard]] constexpr const T& operator[](size_t index) const noexcept { return m_values[index]; }
    /// The values as they lie in memory.
    [[nodiscard]] constexpr T* data() noexcept { return m_values; }
    [[nodiscard]] constexpr const T* data() const noexcept { return m_values; }

    [[nodiscard]] constexpr T& x() noexcept { return m_values[0]; }
    [[nodiscard]] constexpr T& y() noexcept { return m_values[1]; }
    [[nodiscard]] constexpr T x() const noexcept { return m_values[0]; }
    [[nodiscard]] constexpr T y() const noexcept { return m_values[1]; }

    constexpr Vec& operator+=(const Vec& other) noexcept {
        return combine(other, [](T a, T b) { return a + b; });
    }
    constexpr Vec& operator-=(const Vec& other) noexcept {
        return combine(other, [](T a, T b) { return a - b; });
    }
    constexpr Vec& operator*=(T factor) noexcept {
        return apply([factor](T a) { return a * factor; });
    }
    /// @pre integers: the divisor is not zero
    constexpr Vec& operator/=(T divisor) noexcept {
        return apply([divisor](T a) { return a / divisor; });
    }

    [[nodiscard]] friend constexpr Vec operator+(Vec a, const Vec& b) noexcept { return a += b; }
    [[nodiscard]] friend constexpr Vec operator-(Vec a, const Vec& b) noexcept { return a -= b; }
    [[nodiscard]] friend constexpr Vec operator*(Vec a, T factor) noexcept { return a *= factor; }
    [[nodiscard]] friend constexpr Vec operator*(T factor, Vec a) noexcept { return a *= factor; }
    [[nodiscard]] friend constexpr Vec operator/(Vec a, T divisor) noexcept { return a /= divisor; }
    [[nodiscard]] friend constexpr Vec operator-(Vec a) noexcept requires(std::is_signed_v<T>) {
        return a.apply([](T value) { return -value; });
    }
    [[nodiscard]] friend constexpr bool operator==(const Vec& a, const Vec& b) noexcept {
        for (size_t i = 0; i < N; ++i)
            if (a.m_values[i] != b.m_values[i])
                return false;
        return true;
    }

    [[nodiscard]] friend constexpr Vec componentProduct(Vec a, const Vec& b) noexcept {
        return a.combine(b, [](T p, T q) { return p * q; });
    }
    [[nodiscard]] friend constexpr Vec componentMin(Vec a, const Vec& b) noexcept {
        return a.combine(b, [](T p, T q) { return q < p ? q : p; });
    }
    [[nodiscard]] friend constexpr Vec componentMax(Vec a, const Vec& b) noexcept {
        return a.combine(b, [](T p, T q) { return p < q ? q : p; });
    }

    [[nodiscard]] constexpr T dot(const Vec& other) const noexcept {
        T sum = 0;
        for (size_t i = 0; i < N; ++i)
            sum = static_cast<T>(sum + m_values[i] * other.m_values[i]);
        return sum;
    }
    [[nodiscard]] constexpr T squaredNorm() const noexcept { return dot(self()); }

    /// The Euclidean length.
    [[nodiscard]] T norm() const noexcept requires(std::floating_point<T>) {
        return std::sqrt(squaredNorm());
    }
    /// The vector of length 1 in the same direction; the zero vector stays as it is.
    [[nodiscard]] Vec normalised() const noexcept requires(std::floating_point<T>) {
        const T length = norm();
        return length > 0 ? self() / length : self();
    }
    void normalise() noexcept requires(std::floating_point<T>) { self() = normalised(); }
    [[nodiscard]] T distance(const Vec& other) const noexcept requires(std::floating_point<T>) {
        return (self() - other).norm();
    }

protected:
    constexpr VecBase() noexcept = default;

    /// From the components of another vector.
    template <typename U>
    constexpr void assignComponents(const U* values) noexcept {
        for (size_t i = 0; i < N; ++i)
            m_values[i] = static_cast<T>(values[i]);
    }
    constexpr void fill(T value) noexcept {
        for (size_t i = 0; i < N; ++i)
            m_values[i] = value;
    }

    T m_values[Stored]{};

private:
    [[nodiscard]] constexpr Vec& self() noexcept { return static_cast<Vec&>(*this); }
    [[nodiscard]] constexpr const Vec& self() const noexcept { return static_cast<const Vec&>(*this); }

    template <typename Function>
    constexpr Vec& apply(Function function) noexcept {
        for (size_t i = 0; i < N; ++i)
            m_values[i] = static_cast<T>(function(m_values[i]));
        return self();
    }
    template <typename Function>
    constexpr Vec& combine(const Vec& other, Function function) noexcept {
        for (size_t i = 0; i < N; ++i)
            m_values[i] = static_cast<T>(function(m_values[i], other.m_values[i]));
        return self();
    }
};

/// A real 3-vector lies in four values, the last of which is zero, so that elements of a column are aligned.
template <typename T>
inline constexpr size_t StoredInVec3 = std::is_floating_point_v<T> ? 4 : 3;

} // namespace detail

/// Two components; zero by default.
template <typename T>
class Vec2T : public detail::VecBase<Vec2T<T>, T, 2> {
public:
    constexpr Vec2T() noexcept = default;
    constexpr Vec2T(T x, T y) noexcept {
        this->m_values[0] = x;
        this->m_values[1] = y;
    }
    constexpr explicit Vec2T(T all) noexcept { this->fill(all); }
    template <typename U>
    constexpr explicit Vec2T(const Vec2T<U>& other) noexcept {
        this->assignComponents(other.data());
    }

    /// The third component of the cross product of the two in the plane.
    [[nodiscard]] constexpr T cross(const Vec2T& other) const noexcept {
        return static_cast<T>(this->m_values[0] * other.m_values[1] - this->m_values[1] * other.m_values[0]);
    }
};

/// Three components; zero by default. A vector of reals is stored with a fourth value that is always zero, so
/// that it takes 16 or 32 bytes; one of integers has three values.
template <typename T>
class Vec3T : public detail::VecBase<Vec3T<T>, T, 3, detail::StoredInVec3<T>> {
public:
    constexpr Vec3T() noexcept = default;
    constexpr Vec3T(T x, T y, T z) noexcept {
        this->m_values[0] = x;
        this->m_values[1] = y;
        this->m_values[2] = z;
    }
    constexpr explicit Vec3T(T all) noexcept { this->fill(all); }
    constexpr Vec3T(const Vec2T<T>& xy, T z) noexcept : Vec3T(xy.x(), xy.y(), z) {}
    template <typename U>
    constexpr explicit Vec3T(const Vec3T<U>& other) noexcept {
        this->assignComponents(other.data());
    }

    [[nodiscard]] constexpr T& z() noexcept { return this->m_values[2]; }
    [[nodiscard]] constexpr T z() const noexcept { return this->m_values[2]; }

    [[nodiscard]] constexpr Vec3T cross(const Vec3T& other) const noexcept {
        const auto minor = [this, &other](size_t i, size_t j) {
            return static_cast<T>(this->m_values[i] * other.m_values[j] -
                                  this->m_values[j] * other.m_values[i]);
        };
        return {minor(1, 2), minor(2, 0), minor(0, 1)};
    }
};

/// Four components; zero by default.
template <typename T>
class Vec4T : public detail::VecBase<Vec4T<T>, T, 4> {
public:
    constexpr Vec4T() noexcept = default;
    constexpr Vec4T(T x, T y, T z, T w) noexcept {
        this->m_values[0] = x;
        this->m_values[1] = y;
        this->m_values[2] = z;
        this->m_values[3] = w;
    }
    constexpr explicit Vec4T(T all) noexcept { this->fill(all); }
    constexpr Vec4T(const Vec3T<T>& xyz, T w) noexcept : Vec4T(xyz.x(), xyz.y(), xyz.z(), w) {}
    template <typename U>
    constexpr explicit Vec4T(const Vec4T<U>& other) noexcept {
        this->assignComponents(other.data());
    }

    [[nodiscard]] constexpr T& z() noexcept { return this->m_values[2]; }
    [[nodiscard]] constexpr T& w() noexcept { return this->m_values[3]; }
    [[nodiscard]] constexpr T z() const noexcept { return this->m_values[2]; }
    [[nodiscard]] constexpr T w() const noexcept { return this->m_values[3]; }
    /// The first three components.
    [[nodiscard]] constexpr Vec3T<T> xyz() const noexcept { return {this->x(), this->y(), this->z()}; }
};

using Vec2f = Vec2T<float>;
using Vec2d = Vec2T<double>;
using Vec3f = Vec3T<float>;
using Vec3d = Vec3T<double>;
using Vec4f = Vec4T<float>;
using Vec4d = Vec4T<double>;

static_assert(sizeof(Vec2T<float>) == 8 && sizeof(Vec2T<double>) == 16 && sizeof(Vec2T<int8>) == 2);
static_assert(sizeof(Vec3T<float>) == 16 && sizeof(Vec3T<double>) == 32);
static_assert(sizeof(Vec3T<int8>) == 3 && sizeof(Vec3T<uint32>) == 12 && sizeof(Vec3T<int64>) == 24);
static_assert(sizeof(Vec4T<float>) == 16 && sizeof(Vec4T<double>) == 32 && sizeof(Vec4T<uint16>) == 8);
static_assert(std::is_trivially_copyable_v<Vec2T<int32>> && std::is_trivially_copyable_v<Vec3T<float>> &&
              std::is_trivially_copyable_v<Vec3T<uint8>> && std::is_trivially_copyable_v<Vec4T<double>>);

} // namespace zel
