#pragma once

namespace zelData {

class Format;

/// The format in which elements of a format are shown as text: the one named "ascii" of its type, if there is
/// a way to it; its elements are zel::String. Null for a null format.
[[nodiscard]] const Format* asciiFormat(const Format* format);
/// The same for text that is read.
[[nodiscard]] const Format* readableAsciiFormat(const Format* format);

} // namespace zelData
