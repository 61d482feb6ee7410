#pragma once

#include <zel/Line.h>
#include <zel/Vec.h>

#include <concepts>
#include <optional>
#include <type_traits>

namespace zel {

/// The points p with normal . p = offset. With a normal of length 1 the offset is the distance of the plane
/// from the origin. The default has the normal zero and is no plane.
/// @threads any thread for distinct values; one value needs an external lock
template <std::floating_point T>
class PlaneT {
public:
    using value_type = T;

    constexpr PlaneT() noexcept = default;
    constexpr PlaneT(const Vec3T<T>& normal, T offset) noexcept : m_normal(normal), m_offset(offset) {}
    /// Through a point.
    constexpr PlaneT(const Vec3T<T>& normal, const Vec3T<T>& point) noexcept
        : PlaneT(normal, normal.dot(point)) {}
    /// Through three points that run counter-clockwise for one who looks against the normal of length 1.
    /// @pre the points do not lie on one line
    [[nodiscard]] static PlaneT through(const Vec3T<T>& a, const Vec3T<T>& b, const Vec3T<T>& c) noexcept {
        return {(b - a).cross(c - a).normalised(), a};
    }

    [[nodiscard]] constexpr const Vec3T<T>& normal() const noexcept { return m_normal; }
    [[nodiscard]] constexpr T offset() const noexcept { return m_offset; }
    constexpr void setNormal(const Vec3T<T>& normal) noexcept { m_normal = normal; }
    constexpr void setOffset(T offset) noexcept { m_offset = offset; }

    /// The same plane with a normal of length 1.
    /// @pre the normal is not zero
    [[nodiscard]] PlaneT normalised() const noexcept {
        const T length = m_normal.norm();
        return {m_normal / length, m_offset / length};
    }

    /// Above zero on the side the normal points to; the distance if the normal has length 1.
    [[nodiscard]] constexpr T signedDistance(const Vec3T<T>& p) const noexcept {
        return m_normal.dot(p) - m_offset;
    }
    /// The point of the plane nearest to p.
    /// @pre the normal is not zero
    [[nodiscard]] constexpr Vec3T<T> project(const Vec3T<T>& p) const noexcept {
        return p - (signedDistance(p) / m_normal.squaredNorm()) * m_normal;
    }
    /// Where the way from the line's start to its end meets the plane, as a fraction of it; none if it does
    /// not, or runs within the plane.
    [[nodiscard]] constexpr std::optional<T> intersect(const LineT<T>& line) const noexcept {
        const T slope = m_normal.dot(line.direction());
        if (slope == 0)
            return std::nullopt;
        const T t = -signedDistance(line.start()) / slope;
        return t >= 0 && t <= 1 ? std::optional<T>(t) : std::nullopt;
    }

    friend constexpr bool operator==(const PlaneT&, const PlaneT&) noexcept = default;

private:
    Vec3T<T> m_normal;
    T m_offset = 0;
};

static_assert(sizeof(PlaneT<float>) == 20 && sizeof(PlaneT<double>) == 40);
static_assert(std::is_trivially_copyable_v<PlaneT<float>> && std::is_trivially_copyable_v<PlaneT<double>>);

} // namespace zel
