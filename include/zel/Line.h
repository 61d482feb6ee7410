#pragma once

#include <zel/Vec.h>

#include <algorithm>
#include <concepts>
#include <type_traits>

namespace zel {

/// The straight way from one point to another.
/// @threads any thread for distinct values; one value needs an external lock
template <std::floating_point T>
class LineT {
public:
    using value_type = T;

    constexpr LineT() noexcept = default;
    constexpr LineT(const Vec3T<T>& start, const Vec3T<T>& end) noexcept : m_start(start), m_end(end) {}

    [[nodiscard]] constexpr const Vec3T<T>& start() const noexcept { return m_start; }
    [[nodiscard]] constexpr const Vec3T<T>& end() const noexcept { return m_end; }
    constexpr void setStart(const Vec3T<T>& start) noexcept { m_start = start; }
    constexpr void setEnd(const Vec3T<T>& end) noexcept { m_end = end; }

    /// From start to end, not normalised.
    [[nodiscard]] constexpr Vec3T<T> direction() const noexcept { return m_end - m_start; }
    [[nodiscard]] T length() const noexcept { return direction().norm(); }
    /// The point at the fraction t of the way: the start at 0, the end at 1.
    [[nodiscard]] constexpr Vec3T<T> at(T t) const noexcept { return m_start + t * direction(); }

    /// The fraction of the way, from 0 to 1, whose point is nearest to p.
    [[nodiscard]] constexpr T closestFraction(const Vec3T<T>& p) const noexcept {
        const T squaredLength = direction().squaredNorm();
        return squaredLength > 0 ? std::clamp((p - m_start).dot(direction()) / squaredLength, T{0}, T{1})
                                 : T{0};
    }
    [[nodiscard]] constexpr Vec3T<T> closestPoint(const Vec3T<T>& p) const noexcept {
        return at(closestFraction(p));
    }
    /// From p to the nearest point between start and end.
    [[nodiscard]] T distance(const Vec3T<T>& p) const noexcept { return closestPoint(p).distance(p); }

    friend constexpr bool operator==(const LineT&, const LineT&) noexcept = default;

private:
    Vec3T<T> m_start;
    Vec3T<T> m_end;
};

static_assert(sizeof(LineT<float>) == 32 && sizeof(LineT<double>) == 64);
static_assert(std::is_trivially_copyable_v<LineT<float>> && std::is_trivially_copyable_v<LineT<double>>);

} // namespace zel
