#pragma once

#include <zel/Integers.h>

#include <array>
#include <concepts>
#include <type_traits>

namespace zel {

/// A half-open range of indices, from begin up to but without end.
/// @threads external lock
template <typename T>
class IndexRangeT {
    static_assert(std::is_same_v<T, uint32> || std::is_same_v<T, uint64>,
                  "indices are unsigned 32 or 64 bits");

public:
    using value_type = T;

    constexpr IndexRangeT() noexcept = default;
    constexpr IndexRangeT(T begin, T end) noexcept : m_begin(begin), m_end(end) {}
    /// Widens without loss; narrowing is asked for by name.
    template <std::unsigned_integral U>
    constexpr explicit(sizeof(U) > sizeof(T)) IndexRangeT(const IndexRangeT<U>& other) noexcept
        : m_begin(static_cast<T>(other.begin())), m_end(static_cast<T>(other.end())) {}

    [[nodiscard]] constexpr T begin() const noexcept { return m_begin; }
    [[nodiscard]] constexpr T end() const noexcept { return m_end; }
    constexpr void setBegin(T begin) noexcept { m_begin = begin; }
    constexpr void setEnd(T end) noexcept { m_end = end; }

    /// end - begin, in the arithmetic of T.
    [[nodiscard]] constexpr T size() const noexcept { return m_end - m_begin; }
    [[nodiscard]] constexpr bool empty() const noexcept { return m_begin == m_end; }
    [[nodiscard]] constexpr bool contains(T index) const noexcept {
        return m_begin <= index && index < m_end;
    }
    /// Whether the two ranges share an index.
    [[nodiscard]] constexpr bool intersects(const IndexRangeT& other) const noexcept {
        return m_begin < other.m_end && other.m_begin < m_end && !empty() && !other.empty();
    }

    friend constexpr bool operator==(const IndexRangeT&, const IndexRangeT&) noexcept = default;

private:
    T m_begin = 0;
    T m_end = 0;
};

using IndexRange = IndexRangeT<uint64>;

/// A closed numeric range: both ends belong to it. Used with doubles for spans of time, in seconds.
/// @threads external lock
template <typename T>
class Range {
public:
    using value_type = T;

    constexpr Range() noexcept = default;
    constexpr Range(T lower, T upper) noexcept : m_lower(lower), m_upper(upper) {}

    [[nodiscard]] constexpr T lower() const noexcept { return m_lower; }
    [[nodiscard]] constexpr T upper() const noexcept { return m_upper; }
    constexpr void setLower(T lower) noexcept { m_lower = lower; }
    constexpr void setUpper(T upper) noexcept { m_upper = upper; }

    /// upper - lower.
    [[nodiscard]] constexpr T length() const noexcept { return static_cast<T>(m_upper - m_lower); }
    /// False for every value if an end is not a number, or if upper is below lower.
    [[nodiscard]] constexpr bool contains(T value) const noexcept {
        return m_lower <= value && value <= m_upper;
    }
    /// Whether the two ranges share a value; a common end is enough.
    [[nodiscard]] constexpr bool intersects(const Range& other) const noexcept {
        return m_lower <= other.m_upper && other.m_lower <= m_upper;
    }

    friend constexpr bool operator==(const Range&, const Range&) noexcept = default;

private:
    T m_lower = T();
    T m_upper = T();
};

/// A value of six T, such as the lower and upper ends in three directions.
/// @threads external lock
template <typename T>
class Range6T {
public:
    using value_type = T;
    static constexpr size_t Dimension = 6;

    constexpr Range6T() noexcept = default;
    constexpr Range6T(T a, T b, T c, T d, T e, T f) noexcept : m_values{a, b, c, d, e, f} {}

    /// @pre index is below 6; not checked
    [[nodiscard]] constexpr T& operator[](size_t index) noexcept { return m_values[index]; }
    [[nodiscard]] constexpr const T& operator[](size_t index) const noexcept { return m_values[index]; }
    [[nodiscard]] constexpr T* data() noexcept { return m_values.data(); }
    [[nodiscard]] constexpr const T* data() const noexcept { return m_values.data(); }

    friend constexpr bool operator==(const Range6T&, const Range6T&) noexcept = default;

private:
    std::array<T, Dimension> m_values{};
};

static_assert(sizeof(IndexRangeT<uint32>) == 8 && std::is_trivially_copyable_v<IndexRangeT<uint32>>);
static_assert(sizeof(IndexRangeT<uint64>) == 16 && std::is_trivially_copyable_v<IndexRangeT<uint64>>);
static_assert(sizeof(Range<double>) == 16 && std::is_trivially_copyable_v<Range<double>>);
static_assert(sizeof(Range6T<float>) == 24 && std::is_trivially_copyable_v<Range6T<float>>);
static_assert(sizeof(Range6T<double>) == 48 && std::is_trivially_copyable_v<Range6T<double>>);

} // namespace zel
