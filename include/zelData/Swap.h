#pragma once

#include <zel/Integers.h>

#include <cstring>
#include <type_traits>

/// @file
/// Functions that reverse the byte order of elements: each word of each element in turn. They have the form
/// of a TransformFunction; target and source may be the same elements.

namespace zelData {

namespace detail {
[[nodiscard]] constexpr zel::uint8 swapBytes(zel::uint8 word) noexcept {
    return word;
}
[[nodiscard]] constexpr zel::uint16 swapBytes(zel::uint16 word) noexcept {
    return __builtin_bswap16(word);
}
[[nodiscard]] constexpr zel::uint32 swapBytes(zel::uint32 word) noexcept {
    return __builtin_bswap32(word);
}
[[nodiscard]] constexpr zel::uint64 swapBytes(zel::uint64 word) noexcept {
    return __builtin_bswap64(word);
}
} // namespace detail

/// Elements of `Count` words each. Word is an unsigned integer of the words' width.
template <typename Word, zel::size_t Count>
void SwapWordsFunction(void* target, const void* source, zel::uint64 numElements) {
    static_assert(std::is_unsigned_v<Word>);
    // Words go through memcpy: the elements are of other classes than Word.
    zel::uint8* const to = static_cast<zel::uint8*>(target);
    const zel::uint8* const from = static_cast<const zel::uint8*>(source);
    const zel::uint64 numBytes = numElements * Count * sizeof(Word);
    for (zel::uint64 i = 0; i < numBytes; i += sizeof(Word)) {
        Word word;
        std::memcpy(&word, from + i, sizeof(Word));
        word = detail::swapBytes(word);
        std::memcpy(to + i, &word, sizeof(Word));
    }
}

/// A plain copy.
inline constexpr auto Swap8Function = &SwapWordsFunction<zel::uint8, 1>;
inline constexpr auto Swap16Function = &SwapWordsFunction<zel::uint16, 1>;
inline constexpr auto Swap32Function = &SwapWordsFunction<zel::uint32, 1>;
inline constexpr auto Swap64Function = &SwapWordsFunction<zel::uint64, 1>;
inline constexpr auto Swap2x32Function = &SwapWordsFunction<zel::uint32, 2>;
inline constexpr auto Swap3x32Function = &SwapWordsFunction<zel::uint32, 3>;
inline constexpr auto Swap4x32Function = &SwapWordsFunction<zel::uint32, 4>;
inline constexpr auto Swap6x32Function = &SwapWordsFunction<zel::uint32, 6>;
inline constexpr auto Swap8x32Function = &SwapWordsFunction<zel::uint32, 8>;
inline constexpr auto Swap2x64Function = &SwapWordsFunction<zel::uint64, 2>;
inline constexpr auto Swap3x64Function = &SwapWordsFunction<zel::uint64, 3>;
inline constexpr auto Swap4x64Function = &SwapWordsFunction<zel::uint64, 4>;
inline constexpr auto Swap6x64Function = &SwapWordsFunction<zel::uint64, 6>;
inline constexpr auto Swap8x64Function = &SwapWordsFunction<zel::uint64, 8>;

} // namespace zelData
