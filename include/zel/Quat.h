#pragma once

#include <zel/Vec.h>

#include <cmath>
#include <concepts>
#include <type_traits>

namespace zel {

/// A quaternion x i + y j + z k + w, stored in that order; the identity by default. A quaternion of norm 1 is
/// a rotation; products compose from right to left, as for matrices.
/// @threads any thread for distinct values; one value needs an external lock
template <std::floating_point T>
class QuatT {
public:
    using value_type = T;
    static constexpr size_t Dimension = 4;

    constexpr QuatT() noexcept = default;
    constexpr QuatT(T x, T y, T z, T w) noexcept : m_values{x, y, z, w} {}
    constexpr QuatT(const Vec3T<T>& vector, T w) noexcept : QuatT(vector.x(), vector.y(), vector.z(), w) {}
    template <typename U>
    constexpr explicit QuatT(const QuatT<U>& other) noexcept
        : QuatT(static_cast<T>(other.x()),
                static_cast<T>(other.y()),
                static_cast<T>(other.z()),
                static_cast<T>(other.w())) {}

    /// The rotation about an axis by an angle in radians, counter-clockwise for one who looks against the
    /// axis. A zero axis gives the identity.
    [[nodiscard]] static QuatT fromAxisAngle(const Vec3T<T>& axis, T angle) noexcept {
        const T length = axis.norm();
        if (!(length > 0))
            return {};
        const T half = angle / 2;
        return {axis * (std::sin(half) / length), std::cos(half)};
    }

    /// @pre index is below 4; not checked
    [[nodiscard]] constexpr T& operator[](size_t index) noexcept { return m_values[index]; }
    [[nodiscard]] constexpr const T& operator[](size_t index) const noexcept { return m_values[index]; }
    [[nodiscard]] constexpr T* data() noexcept { return m_values; }
    [[nodiscard]] constexpr const T* data() const noexcept { return m_values; }

    [[nodiscard]] constexpr T x() const noexcept { return m_values[0]; }
    [[nodiscard]] constexpr T y() const noexcept { return m_values[1]; }
    [[nodiscard]] constexpr T z() const noexcept { return m_values[2]; }
    [[nodiscard]] constexpr T w() const noexcept { return m_values[3]; }
    /// The imaginary part.
    [[nodiscard]] constexpr Vec3T<T> vector() const noexcept { return {x(), y(), z()}; }

    constexpr QuatT& operator+=(const QuatT& other) noexcept { return *this = *this + other; }
    constexpr QuatT& operator-=(const QuatT& other) noexcept { return *this = *this - other; }
    constexpr QuatT& operator*=(T factor) noexcept { return *this = *this * factor; }
    constexpr QuatT& operator*=(const QuatT& other) noexcept { return *this = *this * other; }

    [[nodiscard]] friend constexpr QuatT operator+(const QuatT& a, const QuatT& b) noexcept {
        return {a.x() + b.x(), a.y() + b.y(), a.z() + b.z(), a.w() + b.w()};
    }
    [[nodiscard]] friend constexpr QuatT operator-(const QuatT& a, const QuatT& b) noexcept {
        return {a.x() - b.x(), a.y() - b.y(), a.z() - b.z(), a.w() - b.w()};
    }
    [[nodiscard]] friend constexpr QuatT operator-(const QuatT& a) noexcept {
        return {-a.x(), -a.y(), -a.z(), -a.w()};
    }
    [[nodiscard]] friend constexpr QuatT operator*(const QuatT& a, T factor) noexcept {
        return {a.x() * factor, a.y() * factor, a.z() * factor, a.w() * factor};
    }
    [[nodiscard]] friend constexpr QuatT operator*(T factor, const QuatT& a) noexcept { return a * factor; }
    /// Hamilton's product: the rotation b followed by the rotation a.
    [[nodiscard]] friend constexpr QuatT operator*(const QuatT& a, const QuatT& b) noexcept {
        const Vec3T<T> av = a.vector();
        const Vec3T<T> bv = b.vector();
        return {a.w() * bv + b.w() * av + av.cross(bv), a.w() * b.w() - av.dot(bv)};
    }
    /// By component: a and -a are the same rotation and not equal.
    [[nodiscard]] friend constexpr bool operator==(const QuatT& a, const QuatT& b) noexcept = default;

    [[nodiscard]] constexpr T dot(const QuatT& other) const noexcept {
        return x() * other.x() + y() * other.y() + z() * other.z() + w() * other.w();
    }
    [[nodiscard]] constexpr T squaredNorm() const noexcept { return dot(*this); }
    [[nodiscard]] T norm() const noexcept { return std::sqrt(squaredNorm()); }
    /// Scaled to norm 1; zero stays as it is.
    [[nodiscard]] QuatT normalised() const noexcept {
        const T length = norm();
        return length > 0 ? *this * (1 / length) : *this;
    }
    void normalise() noexcept { *this = normalised(); }

    [[nodiscard]] constexpr QuatT conjugate() const noexcept { return {-x(), -y(), -z(), w()}; }
    /// @pre not zero
    [[nodiscard]] constexpr QuatT inverse() const noexcept { return conjugate() * (1 / squaredNorm()); }

    /// Turns a vector.
    /// @pre the norm is 1
    [[nodiscard]] constexpr Vec3T<T> rotate(const Vec3T<T>& v) const noexcept {
        const Vec3T<T> twice = T{2} * vector().cross(v);
        return v + w() * twice + vector().cross(twice);
    }

    /// The rotation at the fraction t on the shorter way from a to b, at constant speed (K. Shoemake,
    /// "Animating rotation with quaternion curves", 1985).
    /// @pre both norms are 1
    [[nodiscard]] static QuatT slerp(const QuatT& a, const QuatT& b, T t) noexcept {
        const T cosine = a.dot(b);
        const QuatT near = cosine < 0 ? -b : b;
        // Sines of nearly equal rotations cancel; there the chord is as good as the arc.
        constexpr T NearlyEqual = T(0.9995);
        const T absolute = std::abs(cosine);
        if (absolute > NearlyEqual)
            return (a * (1 - t) + near * t).normalised();
        const T angle = std::acos(absolute);
        return (a * std::sin((1 - t) * angle) + near * std::sin(t * angle)) * (1 / std::sin(angle));
    }

private:
    T m_values[Dimension]{0, 0, 0, 1};
};

using Quatf = QuatT<float>;
using Quatd = QuatT<double>;

static_assert(sizeof(QuatT<float>) == 16 && std::is_trivially_copyable_v<QuatT<float>>);
static_assert(sizeof(QuatT<double>) == 32 && std::is_trivially_copyable_v<QuatT<double>>);

} // namespace zel
