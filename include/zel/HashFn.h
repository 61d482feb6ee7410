#pragma once

#include <zel/Integers.h>

#include <cstring>
#include <type_traits>

namespace zel {

namespace detail {

template <typename Hash>
concept TransparentHash = requires {
    typename Hash::is_transparent;
};
template <typename Hash>
concept CostlyHash = requires {
    typename Hash::is_costly;
};

[[nodiscard]] constexpr uint32 hash32(uint32 x) noexcept {
    x = x * 32767U - 1U;
    x ^= x >> 12;
    x *= 5U;
    x ^= x >> 4;
    x *= 2057U;
    x ^= x >> 16;
    return x;
}

[[nodiscard]] constexpr uint32 hash64(uint64 x) noexcept {
    x = x * 262143U - 1U;
    x ^= x >> 31;
    x *= 21U;
    x ^= x >> 11;
    x *= 65U;
    x ^= x >> 22;
    return static_cast<uint32>(x);
}

/// h = h * 37 + c over the sign-extended characters, in unsigned 32-bit arithmetic; four characters a step
/// keep the multiplications off the critical path.
[[nodiscard]] inline uint32 hashText(const char* text, size_t length) noexcept {
    constexpr uint32 p1 = 37U;
    constexpr uint32 p2 = p1 * p1;
    constexpr uint32 p3 = p2 * p1;
    constexpr uint32 p4 = p3 * p1;
    const auto at = [text](size_t i) { return static_cast<uint32>(static_cast<signed char>(text[i])); };
    uint32 hash = 0;
    size_t i = 0;
    for (; i + 4 <= length; i += 4)
        hash = hash * p4 + (at(i) * p3 + at(i + 1) * p2 + at(i + 2) * p1 + at(i + 3));
    for (; i < length; ++i)
        hash = hash * p1 + at(i);
    return hash;
}

} // namespace detail

/// The functor with which the hash tables hash and compare their keys. The iteration order of a table follows
/// these functions; they are part of what the library promises. A functor that also takes keys of other types
/// says so by naming a type is_transparent, as in the standard library; one that reads more than the key
/// itself names a type is_costly, and tables then remember its results.
template <typename T, typename = void>
struct HashFn;

/// Integers and enumerations: up to 32 bits in 32-bit arithmetic, 64 bits in 64-bit arithmetic cut to the low
/// half.
template <typename T>
struct HashFn<T, std::enable_if_t<std::is_integral_v<T> || std::is_enum_v<T>>> {
    [[nodiscard]] constexpr uint32 operator()(T key) const noexcept {
        if constexpr (sizeof(T) <= 4)
            return detail::hash32(static_cast<uint32>(key));
        else
            return detail::hash64(static_cast<uint64>(key));
    }
    [[nodiscard]] static constexpr bool equal(T a, T b) noexcept { return a == b; }
};

/// Pointers hash by their address.
template <typename T>
struct HashFn<T*, void> {
    [[nodiscard]] uint32 operator()(const T* key) const noexcept {
        return detail::hash64(reinterpret_cast<uint64>(key));
    }
    [[nodiscard]] static bool equal(const T* a, const T* b) noexcept { return a == b; }
};

/// C texts hash and compare by their characters.
template <>
struct HashFn<const char*, void> {
    using is_costly = void;
    [[nodiscard]] uint32 operator()(const char* key) const noexcept {
        return detail::hashText(key, std::strlen(key));
    }
    [[nodiscard]] static bool equal(const char* a, const char* b) noexcept { return std::strcmp(a, b) == 0; }
};

} // namespace zel
