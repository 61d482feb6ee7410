#include <zel/ObjectEventEntity.h>

namespace zel {

ZEL_REGISTER_ENTITY(ObjectEvent, "ObjectEvent");

const zelData::Attribute* ObjectEventModel::type = nullptr;
const zelData::Attribute* ObjectEventModel::object = nullptr;
std::atomic<ObjectEventModel*> ObjectEventModel::s_instance{nullptr};

ObjectEventModel::ObjectEventModel(const Name& name) : zelData::EntityModel(name) {}

ObjectEventModel* ObjectEventModel::instance() {
    return zelData::getGeneratedModel("ObjectEvent", s_instance);
}

ObjectEventPtr ObjectEventModel::createInstance() {
    return ObjectEventPtr(instance()->createInstanceWrapper());
}

zelData::EntityStorage* ObjectEventModel::defaultStorage() {
    return instance()->getDefaultStorage();
}

zelData::EntityData* ObjectEventModel::createData(zelData::EntityStorage* storage) {
    return new ObjectEventData(storage);
}

void ObjectEventModel::initAttributeAccessors() {
    type = getAttribute("type");
    object = getAttribute("object");
}

void ObjectEventModel::construct(zelData::EntityPtr instance) {
    construct(ObjectEventPtr(instance));
}

void ObjectEventModel::construct(ObjectEventPtr) {}

void ObjectEventModel::shutdownCleanup() {
    s_instance.store(nullptr, std::memory_order_release);
    type = nullptr;
    object = nullptr;
}

ObjectEventData::ObjectEventData() = default;

ObjectEventData::ObjectEventData(zelData::EntityStorage* storage) : zelData::EntityData(storage) {
    bindColumn(this, ObjectEventModel::type, type);
    bindColumn(this, ObjectEventModel::object, object);
}

} // namespace zel
