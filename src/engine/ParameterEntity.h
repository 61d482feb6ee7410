#pragma once

#include <zel/Xml.h>

namespace zelData {
class EntityModel;
class EntityStorage;
} // namespace zelData

namespace zel {

class Parameter;

// What the parameters share that are bound to entities.

/// The entity that the attribute "type" of an entity parameter's element names.
/// @throws std::runtime_error with file and row
zelData::EntityModel* loadParameterEntity(TiXmlElement* element);

/// Ends the process unless the storage holds entities of the model, or of one that derives from it.
void verifyParameterEntity(const Parameter& parameter,
                           const zelData::EntityModel* entityModel,
                           const zelData::EntityStorage* storage);

} // namespace zel
