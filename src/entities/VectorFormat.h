#pragma once

namespace zelData {

class Format;

/// Makes the format of vectors that hold elements of the format: an element is a zel::Vector of the format's
/// C++ class. A class that no vectors are made of ends the process.
/// @return a new format without owner
[[nodiscard]] Format* createVectorFormat(Format* elementFormat);

} // namespace zelData
