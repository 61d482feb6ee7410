#pragma once

#include <compare>
#include <concepts>
#include <limits>

namespace zel {

namespace detail {
template <typename T>
concept Index = std::unsigned_integral<T> && !std::same_as<T, bool>;
} // namespace detail

/// The type of InvalidIndex: converts to the largest value of any unsigned integer and compares with each.
struct InvalidIndexT {
    template <detail::Index T>
    constexpr operator T() const noexcept {
        return std::numeric_limits<T>::max();
    }
};

template <detail::Index T>
constexpr bool operator==(T value, InvalidIndexT) noexcept {
    return value == std::numeric_limits<T>::max();
}

template <detail::Index T>
constexpr std::strong_ordering operator<=>(T value, InvalidIndexT) noexcept {
    return value <=> std::numeric_limits<T>::max();
}

/// Marks the absence of an index: all bits set at the width in question.
inline constexpr InvalidIndexT InvalidIndex{};

} // namespace zel
