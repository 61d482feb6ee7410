#include "DefaultStorages.h"

#include <zel/Device.h>
#include <zel/Exception.h>
#include <zel/FirstException.h>
#include <zel/Namespace.h>
#include <zel/Thread.h>
#include <zel/Verify.h>
#include <zelData/ContainerAttribute.h>
#include <zelData/EntityData.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>
#include <zelData/SharedAttribute.h>
#include <zelData/Type.h>

#include <algorithm>
#include <exception>
#include <iostream>
#include <mutex>

// What an entity is made of. Its XML is in EntityModelXml.cpp.

namespace zelData {

namespace {

/// Guarded by the type-system mutex for changes.
constinit std::atomic<EntityModel*> s_rootModel{nullptr};

const zel::Name& storageCreationEventName() {
    static const zel::Name name("StorageCreationEvent");
    return name;
}

} // namespace

constinit std::atomic<const Attribute*> EntityModel::instanceAttribute{nullptr};

EntityModel::EntityModel(const zel::Name& name)
    : zel::Model(name, nullptr), storageCreationEvent(storageCreationEventName(), this) {
    setModel(ClassModel());
    setShutdownCleanup([this] { shutdownCleanup(); });
}

EntityModel::~EntityModel() {
    if (m_base != nullptr)
        m_base->removeChild(this);
    for (const zel::ref_ptr<Attribute>& attribute : m_attributes)
        if (attribute->m_entity == this)
            attribute->m_entity = nullptr;
    if (this == s_rootModel.load(std::memory_order_relaxed)) {
        instanceAttribute.store(nullptr, std::memory_order_release);
        s_rootModel.store(nullptr, std::memory_order_release);
    }
}

void EntityModel::shutdownCleanup() {}

EntityData* EntityModel::createData(EntityStorage* storage) {
    // A generated base's view shows the columns that it knows, of this entity as well.
    return m_base == nullptr ? new EntityData(storage) : m_base->createData(storage);
}

void EntityModel::initAttributeAccessors() {}

void EntityModel::construct(EntityPtr instance) {
    if (m_base != nullptr)
        m_base->construct(instance);
}

EntityModel* EntityModel::getRootModel() {
    // Pairs with the release below: a model that is seen is complete.
    if (EntityModel* model = s_rootModel.load(std::memory_order_acquire))
        return model;
    const std::lock_guard lock(zel::getTypeSystemMutex());
    if (EntityModel* model = s_rootModel.load(std::memory_order_relaxed))
        return model;
    zel::ref_ptr<EntityModel> model(new EntityModel("Entity"));
    auto* instances = new ScalarAttribute("instance", getFormat("EntityPtr"));
    model->addAttribute(instances);
    zel::Model::root()->addObject(model.get());
    instanceAttribute.store(instances, std::memory_order_release);
    s_rootModel.store(model.get(), std::memory_order_release);
    return model.get();
}

// Base and children

void EntityModel::setBaseEntity(EntityModel* base) {
    zelVerify(base);
    zelVerifyNAs(getSource() == nullptr,
                 "!this->getSource()",
                 "Entity %s already has base entity %s!",
                 getName().c_str(),
                 getSource()->getName().c_str());
    zel::Model::setSource(base);
    m_base = base;
    base->addChild(this);
    if (!m_hasConstructor)
        m_hasConstructor = base->m_hasConstructor;
}

void EntityModel::addChild(EntityModel* child) {
    zelVerify(!m_children.contains(child));
    for (const zel::ref_ptr<Attribute>& attribute : m_attributes)
        zelVerifyN(child->getAttribute(attribute->getName()) == nullptr,
                   "%s: There is already an attribute registered with name '%s'",
                   child->getName().c_str(),
                   attribute->getName().c_str());
    m_children.push_back(child);
    if (!m_attributes.empty())
        child->takeBaseAttributes(m_attributes, m_attributes.back()->m_id + 1);
}

/// Puts the attributes in front; the model's own, and those of the models derived from it, keep their order
/// behind them. A model without a base has no storages, so that no column has to move.
void EntityModel::takeBaseAttributes(const zel::Vector<zel::ref_ptr<Attribute>>& attributes,
                                     zel::uint32 numIds) {
    for (const zel::ref_ptr<Attribute>& attribute : m_attributes)
        if (attribute->m_entity == this)
            attribute->m_id += numIds;
    zel::Vector<zel::ref_ptr<Attribute>> all(attributes);
    for (const zel::ref_ptr<Attribute>& attribute : m_attributes)
        all.push_back(attribute);
    m_attributes = std::move(all);
    for (const zel::ref_ptr<Attribute>& attribute : attributes)
        m_attributeTable.insert(attribute->getName(), attribute.get());
    for (EntityModel* child : m_children)
        child->takeBaseAttributes(attributes, numIds);
}

void EntityModel::removeChild(EntityModel* child) {
    zelVerify(m_children.contains(child));
    m_children.findAndErase(child);
}

// Attributes

/// Calls visit on each storage. A failure is passed on after all others have had their turn.
template <typename Visit>
void EntityModel::forEachStorage(const Visit& visit) {
    zel::FirstException failure;
    for (EntityStorage* storage : m_storages)
        failure.run([&] { visit(storage); });
    failure.rethrow();
}

/// The first id that neither this model nor one derived from it uses, nor a storage for a column of its own.
zel::uint32 EntityModel::getNextAttributeId() const {
    zel::uint32 next = m_attributes.empty() ? 0 : m_attributes.back()->m_id + 1;
    for (const EntityStorage* storage : m_storages)
        next = std::max(next, static_cast<zel::uint32>(storage->getBuffers().size()));
    for (const EntityModel* child : m_children)
        next = std::max(next, child->getNextAttributeId());
    return next;
}

void EntityModel::addAttribute(Attribute* attribute) {
    zelVerify(attribute);
    zelVerifyNAs(this->getAttribute(attribute->getName()) == nullptr,
                 "!this->getAttribute(attribute->getName())",
                 "%s: There is already an attribute registered with name '%s'",
                 getName().c_str(),
                 attribute->getName().c_str());
    zelVerifyNAs(attribute->getEntity() == nullptr,
                 "!attribute->getEntity()",
                 "Attributes may only be added to one entity!");
    const zel::ref_ptr<Attribute> keep(attribute);
    const std::lock_guard lock(zel::getTypeSystemMutex());
    attribute->m_id = getNextAttributeId();
    attribute->m_entity = this;
    addObject(attribute);
    propagateNewAttribute(attribute);
}

void EntityModel::propagateNewAttribute(Attribute* attribute) {
    zelVerify(!m_attributes.contains(attribute));
    zelVerifyNAs(m_attributeTable.find(attribute->getName()) == m_attributeTable.end(),
                 "!this->getAttribute(attribute->getName())",
                 "%s: There is already an attribute registered with name '%s'",
                 getName().c_str(),
                 attribute->getName().c_str());
    // The list is in id order: the attribute of a base that is added late has the highest id as well.
    m_attributes.push_back(attribute);
    m_attributeTable.insert(attribute->getName(), attribute);
    zel::FirstException failure;
    failure.run(
        [&] { forEachStorage([attribute](EntityStorage* storage) { storage->addAttribute(attribute); }); });
    for (EntityModel* child : m_children)
        failure.run([&] { child->propagateNewAttribute(attribute); });
    failure.rethrow();
}

Attribute* EntityModel::getAttribute(const zel::Name& name) const {
    const auto position = m_attributeTable.find(name);
    return position == m_attributeTable.end() ? nullptr : position->value;
}

void EntityModel::addSharedBuffer(const zel::Name& name, const Format* format) {
    zelVerify(format);
    m_sharedBuffers.push_back(SharedBuffer{name, format});
}

void EntityModel::addSharedStorage(const zel::Name& name, const zel::Path& entity) {
    m_sharedStorages.push_back(SharedStorage{name, entity});
}

// Size

namespace {

template <typename FormatOf>
zel::uint64 sumOfSizes(const EntityModel& model, const FormatOf& formatOf) {
    zel::uint64 sum = 0;
    for (const zel::ref_ptr<Attribute>& entry : model.getAttributes()) {
        const Attribute* attribute = entry.get();
        zelVerify(attribute);
        if (dynamic_cast<const SharedAttribute*>(attribute) != nullptr)
            continue;
        if (dynamic_cast<const ContainerAttribute*>(attribute) != nullptr)
            zelAbort("Container attribute size can not be determined for a generic entity instance");
        sum += formatOf(attribute)->getSize();
    }
    return sum;
}

} // namespace

zel::uint64 EntityModel::getNumBytes() const {
    return sumOfSizes(*this, [](const Attribute* attribute) { return attribute->getDefaultFormat(); });
}

zel::uint64 EntityModel::getNumBytes(zel::Device* device) const {
    zelVerify(device);
    return sumOfSizes(*this, [device](const Attribute* attribute) -> const Format* {
        return device->getTypeFormat(getType(attribute->getType()->getName()));
    });
}

// Instances

EntityStorage* EntityModel::getDefaultStorage() {
    return DefaultStorageSingleton::get(this);
}

EntityPtr EntityModel::createInstanceWrapper() {
    // Threads from outside share one storage.
    std::unique_lock lock(zel::getTypeSystemMutex(), std::defer_lock);
    if (zel::Thread::getCurrentThread() == nullptr)
        lock.lock();
    return getDefaultStorage()->createInstance();
}

void EntityModel::print(std::ostream& stream) const {
    stream << "--== EntityModel: " << getName()
           << " (base entity: " << (m_base == nullptr ? zel::Name("none") : m_base->getName()) << ") ==--\n";
    stream << "[Child entities (" << m_children.size() << ")]\n";
    for (const EntityModel* child : m_children)
        stream << "  * " << child->getName() << '\n';
    stream << "[Attributes (" << m_attributes.size() << ")]\n";
    for (const zel::ref_ptr<Attribute>& attribute : m_attributes)
        stream << "  * " << attribute->getName() << '\n';
    stream << "--== END ==--\n";
}

void EntityModel::print() const {
    print(std::cout);
}

zel::Model* EntityModel::ClassModel() {
    static std::atomic<zel::Model*> s_model{nullptr};
    return zel::Model::createBuiltinModel("zelData.EntityModel", zel::Model::ClassModel(), s_model);
}

} // namespace zelData
