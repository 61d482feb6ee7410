#pragma once

#include <zel/Xml.h>

namespace zelData {
class EntityModel;
class EntityStorage;
class Format;
} // namespace zelData

namespace zel {

class Name;
class Parameter;

// What the parameters share that are bound to entities.

/// The entity that the attribute "type" of an entity parameter's element names.
/// @throws std::runtime_error with file and row
zelData::EntityModel* loadParameterEntity(TiXmlElement* element);

/// Ends the process unless the storage holds entities of the model, or of one that derives from it.
void verifyParameterEntity(const Parameter& parameter,
                           const zelData::EntityModel* entityModel,
                           const zelData::EntityStorage* storage);

/// Whether the format is that of handles of the entity.
/// @param handleFormat  of its kind of handles: EntityPtr or EntityInstance
[[nodiscard]] bool
isHandle(const zelData::Format* format, const zelData::Format* handleFormat, const Name& entity);

} // namespace zel
