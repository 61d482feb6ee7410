#pragma once

#include <zel/Export.h>
#include <zelData/EntityInstance.h>
#include <zelData/EntityPtr.h>
#include <zelData/FormatT.h>
#include <zelData/Transform.h>
#include <zelData/Type.h>

#include <type_traits>

/// @file
/// The types of handles: what the create functions of generated entity classes call.

namespace zelData {

namespace detail {
/// Adds the format "ascii", and the ways between it and the type's default format.
ZEL_CORE_API void addEntityPtrText(Type* type);
ZEL_CORE_API void addEntityInstanceText(Type* type);
} // namespace detail

/// Makes the type of a handle class derived from EntityPtr, with the formats "default" and "ascii".
template <typename Handle>
void createEntityPtrFormats(const char* typeName) {
    static_assert(std::is_base_of_v<EntityPtr, Handle> && sizeof(Handle) == sizeof(EntityPtr));
    Type* type = getOrCreateType(typeName);
    type->addFormat(new FormatT<Handle>("default"), true);
    detail::addEntityPtrText(type);
}

/// The same for a class derived from EntityInstance, with the way from an EntityInstance to it.
template <typename Handle>
void createEntityInstanceFormats(const char* typeName) {
    static_assert(std::is_base_of_v<EntityInstance, Handle> && sizeof(Handle) == sizeof(EntityInstance));
    Type* type = getOrCreateType(typeName);
    type->addFormat(new FormatT<Handle>("default"), true);
    detail::addEntityInstanceText(type);
    if constexpr (!std::is_same_v<Handle, EntityInstance>)
        registerTransformer(&GenericCopyFunction<EntityInstance>,
                            type->getDefaultFormat(),
                            getFormat("EntityInstance:default"));
}

} // namespace zelData
