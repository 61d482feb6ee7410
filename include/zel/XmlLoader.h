#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/String.h>
#include <zel/Xml.h>

#include <functional>
#include <string>

namespace zel {

class Device;
class Object;

/// Registers the function that makes an object from the elements of a tag. A static object; a tag may be
/// entered once, a repeat ends the process.
/// @threads static initialisation, or the owner thread (when a plug-in is loaded)
class ZEL_CORE_API XmlLoaderRegistrator {
public:
    using LoadFunction = std::function<Object*(TiXmlElement*, Device*)>;

    XmlLoaderRegistrator(const char* tag, LoadFunction loadFunction);

    [[nodiscard]] static bool hasLoadFunction(const String& tag);
    /// @return an empty function if the tag is unknown
    [[nodiscard]] static const LoadFunction& getLoadFunction(const String& tag);
};

/// The text of every XML failure: "[file:line] XML error: message. Error at row N", the document's name, and
/// the element between two lines of 78 "=". A long element is cut after 4096 characters.
[[nodiscard]] ZEL_CORE_API std::string
xmlErrorText(const char* file, unsigned line, const TiXmlElement* element, const std::string& message);

/// Reads an attribute, strictly: the whole text must be a value of the type. Booleans are "true", "false",
/// "1" and "0"; unsigned integers are decimal or "InvalidIndex".
/// @throws std::runtime_error with file and row if the attribute is missing or does not parse
template <typename T>
[[nodiscard]] T parseAttribute(const TiXmlElement* element, const char* name) = delete;
template <>
[[nodiscard]] ZEL_CORE_API bool parseAttribute<bool>(const TiXmlElement* element, const char* name);
template <>
[[nodiscard]] ZEL_CORE_API Name parseAttribute<Name>(const TiXmlElement* element, const char* name);
template <>
[[nodiscard]] ZEL_CORE_API String parseAttribute<String>(const TiXmlElement* element, const char* name);
template <>
[[nodiscard]] ZEL_CORE_API uint32 parseAttribute<uint32>(const TiXmlElement* element, const char* name);
template <>
[[nodiscard]] ZEL_CORE_API uint64 parseAttribute<uint64>(const TiXmlElement* element, const char* name);
template <>
[[nodiscard]] ZEL_CORE_API double parseAttribute<double>(const TiXmlElement* element, const char* name);

} // namespace zel

/// Logs and throws a std::runtime_error about an XML element. Needs <zel/Exception.h>.
#define ZEL_XML_ERROR(element, message)                                                                      \
    ZEL_THROW(std::runtime_error,                                                                            \
              ::zel::xmlErrorText(__FILE__, static_cast<unsigned>(__LINE__), element, message))
