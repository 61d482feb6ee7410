#pragma once

#include <zel/Xml.h>

namespace zelData {
class EntityModel;
} // namespace zelData

namespace zel {

/// The entity that the attribute "type" of an entity parameter's element names.
/// @throws std::runtime_error with file and row
zelData::EntityModel* loadParameterEntity(TiXmlElement* element);

} // namespace zel
