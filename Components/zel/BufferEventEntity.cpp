#include <zel/BufferEventEntity.h>

namespace zel {

ZEL_REGISTER_ENTITY(BufferEvent, "BufferEvent");

const zelData::Attribute* BufferEventModel::oldSize = nullptr;
const zelData::Attribute* BufferEventModel::newSize = nullptr;
std::atomic<BufferEventModel*> BufferEventModel::s_instance{nullptr};

BufferEventModel::BufferEventModel(const Name& name) : ObjectEventModel(name) {}

BufferEventModel* BufferEventModel::instance() {
    return zelData::getGeneratedModel("BufferEvent", s_instance);
}

BufferEventPtr BufferEventModel::createInstance() {
    return BufferEventPtr(instance()->createInstanceWrapper());
}

zelData::EntityStorage* BufferEventModel::defaultStorage() {
    return instance()->getDefaultStorage();
}

zelData::EntityData* BufferEventModel::createData(zelData::EntityStorage* storage) {
    return new BufferEventData(storage);
}

void BufferEventModel::initAttributeAccessors() {
    oldSize = getAttribute("oldSize");
    newSize = getAttribute("newSize");
}

void BufferEventModel::construct(zelData::EntityPtr instance) {
    ObjectEventModel::construct(instance);
    construct(BufferEventPtr(instance));
}

void BufferEventModel::construct(BufferEventPtr) {}

void BufferEventModel::shutdownCleanup() {
    s_instance.store(nullptr, std::memory_order_release);
    oldSize = nullptr;
    newSize = nullptr;
}

BufferEventData::BufferEventData() = default;

BufferEventData::BufferEventData(zelData::EntityStorage* storage) : ObjectEventData(storage) {
    bindColumn(this, BufferEventModel::oldSize, oldSize);
    bindColumn(this, BufferEventModel::newSize, newSize);
}

} // namespace zel
