#pragma once

#include <zel/Integers.h>
#include <zel/Path.h>
#include <zel/Xml.h>

#include <string>

namespace zelData {

class EntityModel;

/// Checks an attribute that holds a count as an expression. An expression that is a plain number must be
/// unsigned, whole and within the limits; any other expression is left to whoever sets it.
/// @throws std::runtime_error with file and row
void checkCount(const zel::TiXmlElement* element, const char* name, zel::uint64 minimum, zel::uint64 maximum);

/// Finds the entity that an element names: first in the namespace of its document, then by the full path.
/// @return null, without a message, if there is none
[[nodiscard]] EntityModel* findEntity(zel::TiXmlElement* element, const zel::Path& path);

/// Finds an entity; whatever is wrong with its file is in the log.
/// @return null, without a message, if there is none
[[nodiscard]] EntityModel* loadEntity(const zel::Path& path);

/// For a message about an entity that findEntity() does not find: ": " and where it was looked for, or which
/// file does not give it; with the name beside it.
[[nodiscard]] std::string explainMissingEntity(zel::TiXmlElement* element, const zel::Path& path);

} // namespace zelData
