#pragma once

#include <zel/Integers.h>
#include <zelData/Swap.h>
#include <zelStream/ArchiveTypes.h>

#include <cstring>

namespace zelStream {

/// How the elements of a vector lie in memory, and in the block of an archive.
struct VectorElementForm {
    zel::uint32 width;               ///< of a component, in bytes
    zel::uint32 numComponents;       ///< that count
    zel::uint32 numStoredComponents; ///< a Vec3 has a fourth, which is zero

    [[nodiscard]] constexpr zel::uint32 size() const noexcept { return width * numStoredComponents; }
};

constexpr zel::uint32 NumVectorElements = 9;

/// @pre the type is one of the enumeration
[[nodiscard]] constexpr VectorElementForm formOf(VectorElement type) noexcept {
    constexpr VectorElementForm Forms[NumVectorElements] = {
        {4, 1, 1}, {8, 1, 1}, {4, 2, 2}, {8, 2, 2}, {4, 3, 4}, {8, 3, 4}, {4, 4, 4}, {8, 4, 4}, {2, 1, 1}};
    return Forms[static_cast<zel::uint32>(type)];
}

/// How XML archives hold a component of an element.
[[nodiscard]] constexpr ScalarForm componentFormOf(VectorElement type) noexcept {
    const VectorElementForm form = formOf(type);
    const ScalarForm::Kind kind = type == VectorElement::UInt16 ? ScalarForm::Unsigned
                                  : form.numComponents == 3     ? ScalarForm::Component
                                                                : ScalarForm::Real;
    return {kind, static_cast<zel::uint8>(form.width)};
}

/// Whether the two differ in their width at most, so that one can be read as the other.
[[nodiscard]] constexpr bool isSameShape(VectorElement a, VectorElement b) noexcept {
    return a == b || (a != VectorElement::UInt16 && b != VectorElement::UInt16 &&
                      formOf(a).numComponents == formOf(b).numComponents);
}

/// Reverses each word of a block of numbers.
inline void swapWords(void* target, const void* source, zel::uint64 numWords, zel::size_t width) {
    switch (width) {
    case 2:
        zelData::SwapWordsFunction<zel::uint16, 1>(target, source, numWords);
        break;
    case 4:
        zelData::SwapWordsFunction<zel::uint32, 1>(target, source, numWords);
        break;
    case 8:
        zelData::SwapWordsFunction<zel::uint64, 1>(target, source, numWords);
        break;
    default:
        std::memmove(target, source, numWords);
    }
}

} // namespace zelStream
