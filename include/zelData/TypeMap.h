#pragma once

#include <zel/Export.h>
#include <zel/SetVector.h>
#include <zel/String.h>
#include <zel/Xml.h>

/// @file
/// Which class implements a type, and which header declares it: what generated code and kernel sources write
/// for the name of a type. Read from "TypeMap.xml" at the first look-up.

namespace zelData {

/// One entry of the type map.
struct TypeImplementation {
    zel::String implementation; ///< name of the class
    zel::String include;        ///< path of the header
    bool abstract = false;      ///< whether the class can not be made by itself
};

/// The class of a type, such as "zel::Vector< zel::Vec3d >" for "Vector<Vec3>".
/// @param element   gives the file and row in error messages; may be null
/// @param includes  gets each header that the class needs, in order of first use
/// @throws std::runtime_error for a name that is unknown or malformed
/// @threads any thread
[[nodiscard]] ZEL_CORE_API zel::String getTypeImplementationName(const zel::String& typeName,
                                                                 const zel::TiXmlElement* element,
                                                                 zel::SetVector<zel::String>& includes);
[[nodiscard]] ZEL_CORE_API zel::String getTypeImplementationName(const zel::String& typeName);

/// What goes in front of the headers of a directory: the attribute "prefix" of the file "includePrefix.xml".
/// @param path  of a file in the directory
/// @return empty, with a warning, if the file can not be read
[[nodiscard]] ZEL_CORE_API zel::String getIncludePrefix(const zel::String& path);
/// The same for the directory of the element's document.
[[nodiscard]] ZEL_CORE_API zel::String getIncludePrefix(const zel::TiXmlElement* element);

} // namespace zelData
