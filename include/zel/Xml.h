#pragma once

// The XML types that operations of the library name. Users who only pass them on need no more than this.
class TiXmlDocument;
class TiXmlElement;
class TiXmlNode;

namespace zel {
using ::TiXmlDocument;
using ::TiXmlElement;
using ::TiXmlNode;
} // namespace zel
