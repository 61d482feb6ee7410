#include <zel/EntityStorageEventEntity.h>

namespace zel {

ZEL_REGISTER_ENTITY(EntityStorageEvent, "EntityStorageEvent");

const zelData::Attribute* EntityStorageEventModel::instanceId = nullptr;
const zelData::Attribute* EntityStorageEventModel::range = nullptr;
std::atomic<EntityStorageEventModel*> EntityStorageEventModel::s_instance{nullptr};

EntityStorageEventModel::EntityStorageEventModel(const Name& name) : ObjectEventModel(name) {}

EntityStorageEventModel* EntityStorageEventModel::instance() {
    return zelData::getGeneratedModel("EntityStorageEvent", s_instance);
}

EntityStorageEventPtr EntityStorageEventModel::createInstance() {
    return EntityStorageEventPtr(instance()->createInstanceWrapper());
}

zelData::EntityStorage* EntityStorageEventModel::defaultStorage() {
    return instance()->getDefaultStorage();
}

zelData::EntityData* EntityStorageEventModel::createData(zelData::EntityStorage* storage) {
    return new EntityStorageEventData(storage);
}

void EntityStorageEventModel::initAttributeAccessors() {
    instanceId = getAttribute("instanceId");
    range = getAttribute("range");
}

void EntityStorageEventModel::construct(zelData::EntityPtr instance) {
    ObjectEventModel::construct(instance);
    construct(EntityStorageEventPtr(instance));
}

void EntityStorageEventModel::construct(EntityStorageEventPtr) {}

void EntityStorageEventModel::shutdownCleanup() {
    s_instance.store(nullptr, std::memory_order_release);
    instanceId = nullptr;
    range = nullptr;
}

EntityStorageEventData::EntityStorageEventData() = default;

EntityStorageEventData::EntityStorageEventData(zelData::EntityStorage* storage) : ObjectEventData(storage) {
    bindColumn(this, EntityStorageEventModel::instanceId, instanceId);
    bindColumn(this, EntityStorageEventModel::range, range);
}

} // namespace zel
