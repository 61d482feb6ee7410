#include "AppleEntity.h"

ZEL_REGISTER_ENTITY(Apple, "Orchard.Apple");

const zelData::Attribute* AppleModel::diameter = nullptr;
const zelData::Attribute* AppleModel::ripeness = nullptr;
const zelData::Attribute* AppleModel::tree = nullptr;
const zelData::Attribute* AppleModel::sort = nullptr;
std::atomic<AppleModel*> AppleModel::s_instance{nullptr};

AppleModel::AppleModel(const zel::Name& name) : zelData::EntityModel(name) {}

AppleModel* AppleModel::instance() {
    return zelData::getGeneratedModel("Orchard.Apple", s_instance);
}

ApplePtr AppleModel::createInstance() {
    return ApplePtr(instance()->createInstanceWrapper());
}

zelData::EntityStorage* AppleModel::defaultStorage() {
    return instance()->getDefaultStorage();
}

zelData::EntityData* AppleModel::createData(zelData::EntityStorage* storage) {
    return new AppleData(storage);
}

void AppleModel::initAttributeAccessors() {
    diameter = getAttribute("diameter");
    ripeness = getAttribute("ripeness");
    tree = getAttribute("tree");
    sort = getAttribute("sort");
}

void AppleModel::construct(zelData::EntityPtr instance) {
    construct(ApplePtr(instance));
}

void AppleModel::construct(ApplePtr instance) {
    // Trees stand in rows: each bears ten apples.
    instance.setTree(instance.getId() / 10);
}

void AppleModel::shutdownCleanup() {
    s_instance.store(nullptr, std::memory_order_release);
    diameter = nullptr;
    ripeness = nullptr;
    tree = nullptr;
    sort = nullptr;
}

AppleData::AppleData() = default;

AppleData::AppleData(zelData::EntityStorage* storage) : zelData::EntityData(storage) {
    bindColumn(this, AppleModel::diameter, diameter);
    bindColumn(this, AppleModel::ripeness, ripeness);
    bindColumn(this, AppleModel::tree, tree);
    bindColumn(this, AppleModel::sort, sort);
}
