#pragma once

#include <zel/Integers.h>
#include <zel/Path.h>
#include <zel/Verify.h>
#include <zelData/Array.h>
#include <zelData/Attribute.h>
#include <zelData/Buffer.h>
#include <zelData/EntityData.h>
#include <zelData/EntityFormats.h>
#include <zelData/EntityInstance.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityPtr.h>
#include <zelData/EntityStorage.h>
#include <zelData/FormatInitializer.h>
#include <zelData/ScalarAttribute.h>

#include <atomic>

/// @file
/// What the classes of an entity that the program knows are made with; see docs/entities.md for the pattern.

namespace zelData {

/// The element of an instance in an attribute's column; the first one of several.
/// @pre T is the element of the column's format, and the instance lives; not checked
/// @cost the look-up of the index, and of the column
template <typename T>
[[nodiscard]] T& getElement(const EntityPtr& instance, const Attribute* attribute) {
    const EntityStorage* storage = instance.getStorage();
    const Buffer* column = storage->getBuffers()[attribute->getAttributeId()].get();
    return column->data<T>()[storage->getIndex(instance.getId()) * column->getElementArraySize()];
}

/// The same by place, through the array that the view has for the attribute.
template <typename T>
[[nodiscard]] T& getElement(const EntityInstance& instance, const Attribute* attribute) {
    const AbstractArray* array = instance.getData()->getArray(attribute);
    const size_t elementsEach = instance.getData()->getArraySize(attribute);
    return static_cast<T*>(array->ptr())[instance.getIndex() * elementsEach];
}

/// The model of a class, loaded at the first call; an entity that cannot be loaded ends the process.
/// @param slot  where the class keeps its model; cleared by its shutdownCleanup
/// @threads any thread
template <typename EntityClass>
[[nodiscard]] EntityClass* getGeneratedModel(const char* path, std::atomic<EntityClass*>& slot) {
    // Acquire: pairs with the release below, so that the model is seen complete.
    if (EntityClass* model = slot.load(std::memory_order_acquire))
        return model;
    auto* model = dynamic_cast<EntityClass*>(getEntity(zel::Path(path)));
    zelVerifyN(model != nullptr, "Could not load entity '%s'", path);
    slot.store(model, std::memory_order_release);
    return model;
}

/// Registers the array of a view under an attribute and lets it show the column.
template <typename T>
void bindColumn(EntityData* data, const Attribute* attribute, Array<T>& array) {
    data->registerArray(attribute, &array);
    if (Buffer* buffer = data->getStorage()->getBuffer(attribute))
        data->bind(attribute, buffer);
}

} // namespace zelData

/// Registers the classes of an entity: the loader of the model under the entity's path, and the types of the
/// two handles. Stands in the source of the classes, in their namespace.
#define ZEL_REGISTER_ENTITY(Entity, path)                                                                    \
    namespace {                                                                                              \
    ::zelData::EntityModel::LoaderT<Entity##Model> s_##Entity##Loader(path);                                 \
    const ::zelData::FormatInitializer s_##Entity##Ptr(#Entity "Ptr", [] {                                   \
        ::zelData::createEntityPtrFormats<Entity##Ptr>(#Entity "Ptr");                                       \
    });                                                                                                      \
    const ::zelData::FormatInitializer s_##Entity##Instance(#Entity "Instance", [] {                         \
        ::zelData::createEntityInstanceFormats<Entity##Instance>(#Entity "Instance");                        \
    });                                                                                                      \
    }                                                                                                        \
    static_assert(true)
