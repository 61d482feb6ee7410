#pragma once

#include <zel/Vec.h>

#include <limits>
#include <type_traits>

namespace zel {

namespace detail {

/// How a bound sees its corner: as components to compare one by one.
template <typename T>
struct BoundTraits {
    using Scalar = T;
    static constexpr size_t Dimension = 1;
    [[nodiscard]] static constexpr T all(Scalar value) noexcept { return value; }
    [[nodiscard]] static constexpr Scalar at(const T& corner, size_t) noexcept { return corner; }
    [[nodiscard]] static constexpr Scalar& at(T& corner, size_t) noexcept { return corner; }
};

template <typename Vec>
requires requires {
    Vec::Dimension;
}
struct BoundTraits<Vec> {
    using Scalar = typename Vec::value_type;
    static constexpr size_t Dimension = Vec::Dimension;
    [[nodiscard]] static constexpr Vec all(Scalar value) noexcept { return Vec(value); }
    [[nodiscard]] static constexpr Scalar at(const Vec& corner, size_t i) noexcept { return corner[i]; }
    [[nodiscard]] static constexpr Scalar& at(Vec& corner, size_t i) noexcept { return corner[i]; }
};

} // namespace detail

/// An interval, or an axis-aligned box: all values from minimum to maximum, both included. T is a real, an
/// integer or a vector. Empty by default, with the minimum at the largest value and the maximum at the
/// lowest, so that uniting with anything gives that thing.
/// @threads any thread for distinct values; one value needs an external lock
template <typename T>
class BoundT {
    using Traits = detail::BoundTraits<T>;
    using Scalar = typename Traits::Scalar;

public:
    using value_type = T;
    static constexpr size_t Dimension = Traits::Dimension;

    constexpr BoundT() noexcept = default;
    constexpr BoundT(const T& minimum, const T& maximum) noexcept : m_minimum(minimum), m_maximum(maximum) {}
    /// Holds one point.
    constexpr explicit BoundT(const T& point) noexcept : BoundT(point, point) {}

    [[nodiscard]] constexpr const T& minimum() const noexcept { return m_minimum; }
    [[nodiscard]] constexpr const T& maximum() const noexcept { return m_maximum; }
    constexpr void setMinimum(const T& minimum) noexcept { m_minimum = minimum; }
    constexpr void setMaximum(const T& maximum) noexcept { m_maximum = maximum; }

    /// Whether no value lies within: the minimum is above the maximum in some component.
    [[nodiscard]] constexpr bool empty() const noexcept {
        for (size_t i = 0; i < Dimension; ++i)
            if (Traits::at(m_minimum, i) > Traits::at(m_maximum, i))
                return true;
        return false;
    }
    /// maximum - minimum.
    /// @pre not empty, and the difference fits the type
    [[nodiscard]] constexpr T extent() const noexcept { return static_cast<T>(m_maximum - m_minimum); }
    /// The middle; integers are rounded toward the minimum.
    /// @pre as for extent
    [[nodiscard]] constexpr T center() const noexcept {
        return static_cast<T>(m_minimum + extent() / static_cast<Scalar>(2));
    }

    [[nodiscard]] constexpr bool contains(const T& point) const noexcept { return contains(BoundT(point)); }
    /// Whether every value of the other lies within this one; an empty bound lies in every other.
    [[nodiscard]] constexpr bool contains(const BoundT& other) const noexcept {
        if (other.empty())
            return true;
        for (size_t i = 0; i < Dimension; ++i)
            if (!(Traits::at(m_minimum, i) <= Traits::at(other.m_minimum, i) &&
                  Traits::at(other.m_maximum, i) <= Traits::at(m_maximum, i)))
                return false;
        return true;
    }
    /// Whether the two share a value; a common face is enough.
    [[nodiscard]] constexpr bool intersects(const BoundT& other) const noexcept {
        return !intersection(*this, other).empty();
    }

    /// Grows to hold the point as well.
    constexpr void unite(const T& point) noexcept { unite(BoundT(point)); }
    /// Grows to hold the other bound as well; an empty one changes nothing.
    constexpr void unite(const BoundT& other) noexcept {
        if (other.empty())
            return;
        if (empty()) {
            *this = other;
            return;
        }
        for (size_t i = 0; i < Dimension; ++i) {
            lower(Traits::at(m_minimum, i), Traits::at(other.m_minimum, i));
            raise(Traits::at(m_maximum, i), Traits::at(other.m_maximum, i));
        }
    }
    /// The smallest bound that holds both.
    [[nodiscard]] friend constexpr BoundT unionOf(BoundT a, const BoundT& b) noexcept {
        a.unite(b);
        return a;
    }
    /// What lies in both; empty if nothing does.
    [[nodiscard]] friend constexpr BoundT intersection(BoundT a, const BoundT& b) noexcept {
        for (size_t i = 0; i < Dimension; ++i) {
            raise(Traits::at(a.m_minimum, i), Traits::at(b.m_minimum, i));
            lower(Traits::at(a.m_maximum, i), Traits::at(b.m_maximum, i));
        }
        return a;
    }

    friend constexpr bool operator==(const BoundT&, const BoundT&) noexcept = default;

private:
    static constexpr void lower(Scalar& value, Scalar other) noexcept {
        if (other < value)
            value = other;
    }
    static constexpr void raise(Scalar& value, Scalar other) noexcept {
        if (value < other)
            value = other;
    }

    T m_minimum = Traits::all(std::numeric_limits<Scalar>::max());
    T m_maximum = Traits::all(std::numeric_limits<Scalar>::lowest());
};

static_assert(sizeof(BoundT<float>) == 8 && sizeof(BoundT<double>) == 16 && sizeof(BoundT<uint32>) == 8);
static_assert(sizeof(BoundT<Vec2T<double>>) == 32 && sizeof(BoundT<Vec3T<float>>) == 32);
static_assert(sizeof(BoundT<Vec3T<double>>) == 64 && sizeof(BoundT<Vec3T<int32>>) == 24);
static_assert(std::is_trivially_copyable_v<BoundT<double>> &&
              std::is_trivially_copyable_v<BoundT<Vec3T<float>>>);

} // namespace zel
