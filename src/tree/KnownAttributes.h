#pragma once

#include <zel/String.h>

class TiXmlDocument;
class TiXmlElement;

namespace zel {

/// Warns, with file and row, of what stands in a model file for nothing, most of it slips: attributes,
/// elements and texts that nothing reads, and names that no path finds. What an object of the program may
/// read is passed over: elements of tags of its own with all that is in them, and the attributes and texts of
/// components whose class or source may be the program's. A file is told once.
/// @threads under the mutex of the type system
void warnOfSlips(const TiXmlDocument& document);

/// The same for the attributes of one element, whose class has turned out to be the library's.
void warnOfUnknownAttributes(const TiXmlElement& element);

/// Tells the file anew when it is loaded again.
/// @threads under the mutex of the type system
void forgetSlips(const String& file);

} // namespace zel
