#pragma once

#include <zel/Integers.h>
#include <zelData/Format.h>

#include <cstring>

namespace zelData {

/// Target element places[i] takes source element i; the size of the elements is known to the compiler.
template <zel::uint64 Size, typename Place>
void scatterPlain(char* target, const char* source, const Place* places, zel::uint64 count) {
    for (zel::uint64 i = 0; i < count; ++i)
        std::memcpy(target + zel::uint64{places[i]} * Size, source + i * Size, Size);
}

/// The same of elements of the format.
/// @param isPlain  whether they are their bytes
template <typename Place>
void scatterElements(void* target,
                     const void* source,
                     const Place* places,
                     zel::uint64 count,
                     const Format* format,
                     bool isPlain) {
    auto* const to = static_cast<char*>(target);
    const auto* const from = static_cast<const char*>(source);
    const zel::uint64 size = format->getSize();
    switch (isPlain ? size : 0) {
    case 1:
        scatterPlain<1>(to, from, places, count);
        break;
    case 2:
        scatterPlain<2>(to, from, places, count);
        break;
    case 4:
        scatterPlain<4>(to, from, places, count);
        break;
    case 8:
        scatterPlain<8>(to, from, places, count);
        break;
    case 16:
        scatterPlain<16>(to, from, places, count);
        break;
    case 32:
        scatterPlain<32>(to, from, places, count);
        break;
    default:
        for (zel::uint64 i = 0; i < count; ++i)
            format->copyElement(to + zel::uint64{places[i]} * size, from + i * size);
    }
}

} // namespace zelData
