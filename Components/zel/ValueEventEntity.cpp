#include <zel/ValueEventEntity.h>

namespace zel {

ZEL_REGISTER_ENTITY(ValueEvent, "ValueEvent");

const zelData::Attribute* ValueEventModel::newBinding = nullptr;
const zelData::Attribute* ValueEventModel::oldBinding = nullptr;
std::atomic<ValueEventModel*> ValueEventModel::s_instance{nullptr};

ValueEventModel::ValueEventModel(const Name& name) : ObjectEventModel(name) {}

ValueEventModel* ValueEventModel::instance() {
    return zelData::getGeneratedModel("ValueEvent", s_instance);
}

ValueEventPtr ValueEventModel::createInstance() {
    return ValueEventPtr(instance()->createInstanceWrapper());
}

zelData::EntityStorage* ValueEventModel::defaultStorage() {
    return instance()->getDefaultStorage();
}

zelData::EntityData* ValueEventModel::createData(zelData::EntityStorage* storage) {
    return new ValueEventData(storage);
}

void ValueEventModel::initAttributeAccessors() {
    newBinding = getAttribute("newBinding");
    oldBinding = getAttribute("oldBinding");
}

void ValueEventModel::construct(zelData::EntityPtr instance) {
    ObjectEventModel::construct(instance);
    construct(ValueEventPtr(instance));
}

void ValueEventModel::construct(ValueEventPtr) {}

void ValueEventModel::shutdownCleanup() {
    s_instance.store(nullptr, std::memory_order_release);
    newBinding = nullptr;
    oldBinding = nullptr;
}

ValueEventData::ValueEventData() = default;

ValueEventData::ValueEventData(zelData::EntityStorage* storage) : ObjectEventData(storage) {
    bindColumn(this, ValueEventModel::newBinding, newBinding);
    bindColumn(this, ValueEventModel::oldBinding, oldBinding);
}

} // namespace zel
