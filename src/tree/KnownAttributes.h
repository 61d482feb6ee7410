#pragma once

#include <zel/String.h>

class TiXmlDocument;

namespace zel {

/// Warns, with file and row, of attributes in a model file that nothing reads: most of them are misspelt.
/// What an object of the program may read is passed over: elements of tags of its own with all that is in
/// them, and the attributes of components whose class or source may be the program's. A file is told once.
/// @threads under the mutex of the type system
void warnOfUnknownAttributes(const TiXmlDocument& document);

/// Tells the file anew when it is loaded again.
void forgetUnknownAttributes(const String& file);

} // namespace zel
