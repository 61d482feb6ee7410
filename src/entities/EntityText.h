#pragma once

#include <zel/Name.h>

#include <iosfwd>

namespace zelData {

class Format;

/// Writes an element as text; "'name': No ascii format'" for one that has no text.
void printElement(std::ostream& stream, const zel::Name& name, const Format* format, const void* element);

} // namespace zelData
