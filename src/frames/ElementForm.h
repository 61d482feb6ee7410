#pragma once

#include <zel/Integers.h>

namespace zelData {

class Format;

/// How the elements of a format stand in a serialized frame.
enum class ElementForm : zel::uint8 {
    Plain,  ///< as their bytes
    Array,  ///< as ranges, ids of buffers and elements
    Text,   ///< as ranges of characters
    Handle, ///< as ids of instances and of storages
    Vector, ///< not at all, yet
    None    ///< not at all
};

[[nodiscard]] ElementForm elementFormOf(const Format* format);

} // namespace zelData
