#include <zel/ReferencedEntity.h>

namespace zel {

ZEL_REGISTER_ENTITY(Referenced, "Referenced");

namespace {

/// The type of the attribute that only code knows.
void createEntityObserversFormats() {
    zelData::getOrCreateType("EntityObservers")
        ->addFormat(new zelData::FormatT<Vector<zelData::EntityPtr*>>("default"), true);
}

const zelData::FormatInitializer s_observers("EntityObservers", &createEntityObserversFormats);

} // namespace

const zelData::Attribute* ReferencedModel::referenceCount = nullptr;
const zelData::Attribute* ReferencedModel::observerMutex = nullptr;
const zelData::Attribute* ReferencedModel::observers = nullptr;
std::atomic<ReferencedModel*> ReferencedModel::s_instance{nullptr};

ReferencedModel::ReferencedModel(const Name& name) : zelData::EntityModel(name) {}

ReferencedModel* ReferencedModel::instance() {
    return zelData::getGeneratedModel("Referenced", s_instance);
}

ReferencedPtr ReferencedModel::createInstance() {
    return ReferencedPtr(instance()->createInstanceWrapper());
}

zelData::EntityStorage* ReferencedModel::defaultStorage() {
    return instance()->getDefaultStorage();
}

zelData::EntityData* ReferencedModel::createData(zelData::EntityStorage* storage) {
    return new ReferencedData(storage);
}

void ReferencedModel::initAttributeAccessors() {
    addAttribute(new zelData::ScalarAttributeT<Vector<zelData::EntityPtr*>>(
        "observers", zelData::getFormat("EntityObservers")));
    referenceCount = getAttribute("referenceCount");
    observerMutex = getAttribute("observerMutex");
    observers = getAttribute("observers");
}

void ReferencedModel::construct(zelData::EntityPtr instance) {
    construct(ReferencedPtr(instance));
}

void ReferencedModel::construct(ReferencedPtr) {}

void ReferencedModel::shutdownCleanup() {
    s_instance.store(nullptr, std::memory_order_release);
    referenceCount = nullptr;
    observerMutex = nullptr;
    observers = nullptr;
}

ReferencedData::ReferencedData() = default;

ReferencedData::ReferencedData(zelData::EntityStorage* storage) : zelData::EntityData(storage) {
    bindColumn(this, ReferencedModel::referenceCount, referenceCount);
    bindColumn(this, ReferencedModel::observerMutex, observerMutex);
    bindColumn(this, ReferencedModel::observers, observers);
}

} // namespace zel
