#pragma once

#include <concepts>
#include <limits>

namespace zel {

/// The type of InvalidIndex: converts to the largest value of any unsigned integer and compares with each.
struct InvalidIndexT {
    template <std::unsigned_integral T>
    constexpr operator T() const noexcept {
        return std::numeric_limits<T>::max();
    }
};

template <std::unsigned_integral T>
constexpr bool operator==(T value, InvalidIndexT) noexcept {
    return value == std::numeric_limits<T>::max();
}

/// Marks the absence of an index: all bits set at the width in question.
inline constexpr InvalidIndexT InvalidIndex{};

} // namespace zel
