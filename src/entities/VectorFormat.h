#pragma once

namespace zelData {

class Format;

/// Makes the format of vectors that hold elements of the format: an element is a zel::Vector of the format's
/// C++ class.
/// @return a new format without owner; null for a class that no vectors are made of: one that can not be
///     copied, or that the library does not know
[[nodiscard]] Format* createVectorFormat(Format* elementFormat);

} // namespace zelData
