#pragma once

#include <zel/Name.h>

namespace zelData {

class EntityModel;

/// Finds an entity by a name from a file or a peer, which does not choose what file is looked at beyond the
/// folders of models. Whatever is wrong with the model's file is in the log.
/// @return null, without a message, if there is none
[[nodiscard]] EntityModel* findForeignEntity(const zel::Name& name);

} // namespace zelData
