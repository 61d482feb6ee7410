#include "EntityStorageImplementation.h"
#include "EntityText.h"
#include "EntityXml.h"
#include "tree/GateExemption.h"

#include <zel/Exception.h>
#include <zel/Model.h>
#include <zel/Verify.h>
#include <zelData/Buffer.h>
#include <zelData/ContainerAttribute.h>
#include <zelData/EntityData.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>
#include <zelData/SharedAttribute.h>
#include <zelData/Type.h>
#include <zelData/ValueT.h>

#include <iostream>
#include <mutex>
#include <stdexcept>
#include <utility>

// How a storage comes into being and what it consists of. Its instances are in EntityStorageInstances.cpp,
// size and capacity in EntityStorageSize.cpp, their order in EntityStorageOrder.cpp, its XML in
// EntityStorageXml.cpp.

namespace zelData {

const char* const EntityStorage::IdToIndexName = "_idToIndex";
const char* const EntityStorage::IndexToIdName = "_indexToId";

namespace {

/// The entities whose storages this thread is making, as parts of each other.
thread_local zel::Vector<const EntityModel*> t_creating;

class CreatingStorage {
public:
    explicit CreatingStorage(const EntityModel* model) { t_creating.push_back(model); }
    CreatingStorage(const CreatingStorage&) = delete;
    CreatingStorage& operator=(const CreatingStorage&) = delete;
    ~CreatingStorage() { t_creating.pop_back(); }
};

/// The storage ends: whoever else holds a column keeps it as a free buffer.
void releaseColumns(EntityStorage& storage, const zel::Vector<zel::ref_ptr<Buffer>>& columns) {
    for (const zel::ref_ptr<Buffer>& buffer : columns) {
        if (!buffer || buffer->getStorage() != &storage)
            continue;
        storage.removeObject(buffer.get());
        if (buffer->referenceCount() > 1)
            buffer->disconnect();
    }
}

const zel::Name& nameOf(const EntityModel* model) {
    zelVerify(model);
    return model->getName();
}

} // namespace

EntityStorage::EntityStorage(EntityModel* model, zel::uint64 capacity)
    : EntityStorage(model, nameOf(model), capacity) {}

EntityStorage::EntityStorage(EntityModel* model, const zel::Name& name, zel::uint64 capacity)
    : zel::Component(name, ClassModel()), m_entity(model) {
    zelVerify(model);
    zelVerifyN(model->is(EntityModel::getRootModel()),
               "%s: the entity has no base entity",
               model->getName().c_str());
    m_useInstanceTable = model->useInstanceTable();
    init(capacity);
}

EntityStorage::EntityStorage(const zel::Name& name)
    : zel::Component(name, ClassModel()), m_useInstanceTable(false) {
    createValues(0, 0);
    m_data = new EntityData(this);
    addObject(m_data.get());
}

EntityStorage::EntityStorage(
    EntityModel* model, const zel::Name& name, bool isFrameStorage, zel::uint64 size, zel::uint64 capacity)
    : zel::Component(name, ClassModel()), m_size(size), m_capacity(capacity), m_entity(model) {
    zelVerify(isFrameStorage);
    zelVerify(capacity >= size);
    createValues(size, capacity);
    m_useInstanceTable = model != nullptr && model->useInstanceTable();
    m_data = new EntityData(this);
    addObject(m_data.get());
}

EntityStorage::EntityStorage(EntityStorage* master, SharedStorageTag)
    : zel::Component(master->getName(), ClassModel())
    , m_useInstanceTable(master->m_useInstanceTable)
    , m_entity(master->m_entity)
    , m_master(master) {
    const std::lock_guard lock(zel::getTypeSystemMutex());
    // The instances are there already: nothing is made but handles.
    m_size = master->m_size;
    m_capacity = std::max(DefaultCapacity, m_size);
    createValues(m_size, m_capacity);
    if (m_useInstanceTable) {
        createBuffer(m_entity->getAttributes().front().get());
        createIdToIndexBuffer();
    }
    for (const zel::ref_ptr<Buffer>& buffer : master->m_buffers)
        if (buffer && buffer != master->m_instanceBuffer)
            registerBuffer(buffer.get());
    initializeInstances(0, m_capacity);
    m_data = m_entity->createData(this);
    addObject(m_data.get());
    enterModel();
}

EntityStorage::~EntityStorage() {
    m_eventDispatch.triggerDestroyEvent(this);
    releasePermutation();
    {
        const std::lock_guard lock(zel::getTypeSystemMutex());
        if (m_entity)
            m_entity->m_storages.findAndErase(this);
        if (m_master)
            m_master->m_sharedStorages.findAndErase(this);
    }
    m_sizeValue->updateEvent.disconnect(m_resizeCallbackId);
    m_capacityValue->updateEvent.disconnect(m_reserveCallbackId);
    if (m_data)
        m_data->detach();
    if (m_idToIndexBuffer)
        m_idToIndexBuffer->reallocationEvent.disconnect(m_idToIndexCallbackId);
    m_bufferTable.clear();
    m_instanceBuffer = nullptr;
    releaseColumns(*this, m_buffers);
}

void EntityStorage::createValues(zel::uint64 size, zel::uint64 capacity) {
    m_sizeValue = new ValueT<zel::uint64>("numElements", size);
    m_capacityValue = new ValueT<zel::uint64>("capacity", capacity);
    m_resizeCallbackId = m_sizeValue->updateEvent.connect([this](Value*) {
        const Operation operation(*this);
        resizeCallback(m_sizeValue->get());
    });
    m_reserveCallbackId = m_capacityValue->updateEvent.connect([this](Value*) {
        const Operation operation(*this);
        reserveCallback(m_capacityValue->get());
    });
    addObject(m_sizeValue.get());
    addObject(m_capacityValue.get());
}

void EntityStorage::init(zel::uint64 capacity) {
    // Storages of one model may be made by many threads.
    const std::lock_guard lock(zel::getTypeSystemMutex());
    const zel::GateExemption exemption; // its functions may be looked for
    const CreatingStorage creating(m_entity.get());
    // A callback may hold the storage for a while, which has no owner yet.
    reference();
    try {
        createValues(0, 0);
        reserve(capacity);
        createColumns();
        m_data = m_entity->createData(this);
        addObject(m_data.get());
        enterModel();
        createSharedStorages();
        m_entity->storageCreationEvent.fire(this);
    } catch (...) {
        m_entity->m_storages.findAndErase(this);
        m_sizeValue->updateEvent.disconnect(m_resizeCallbackId);
        m_capacityValue->updateEvent.disconnect(m_reserveCallbackId);
        if (m_data)
            m_data->detach();
        m_bufferTable.clear();
        m_instanceBuffer = nullptr;
        releaseColumns(*this, m_buffers);
        unreference_nodelete();
        throw;
    }
    unreference_nodelete();
}

void EntityStorage::enterModel() {
    m_entity->m_storages.push_back(this);
}

void EntityStorage::createColumns() {
    for (const zel::ref_ptr<Attribute>& attribute : m_entity->getAttributes())
        addAttribute(attribute.get());
    if (m_useInstanceTable)
        createIdToIndexBuffer();
    initializeInstances(0, m_capacity);
}

/// Gives the storage what an attribute of its entity asks for: a column, or a value.
void EntityStorage::addAttribute(Attribute* attribute) {
    zelVerify(attribute);
    // A storage over the columns of another one gets that one's, and finds the values there.
    if (m_master && !m_customAttributes.contains(attribute))
        return;
    if (const auto* shared = dynamic_cast<const SharedAttribute*>(attribute)) {
        const zel::ref_ptr<Value> value(shared->createValue());
        addObject(value.get());
        return;
    }
    createBuffer(attribute);
}

void EntityStorage::createIdToIndexBuffer() {
    m_idToIndexBuffer = new Buffer(IdToIndexName, getFormat("UInt:32bit"));
    m_idToIndexCallbackId =
        m_idToIndexBuffer->reallocationEvent.connect([this](Buffer*) { refreshTables(); });
    addObject(m_idToIndexBuffer.get());
}

void EntityStorage::createSharedStorages() {
    for (const EntityModel::SharedBuffer& shared : m_entity->getSharedBuffers()) {
        const zel::ref_ptr<Buffer> buffer(new Buffer(shared.name, shared.format.get()));
        addObject(buffer.get());
    }
    for (const EntityModel::SharedStorage& shared : m_entity->getSharedStorages()) {
        EntityModel* model = getEntity(shared.entity);
        if (model == nullptr)
            ZEL_THROW(std::runtime_error,
                      zel::String::format("Unable to load entity '%s'", shared.entity.c_str()));
        if (t_creating.contains(model))
            ZEL_THROW(std::runtime_error,
                      zel::String::format("A storage of the entity '%s' can not be a part of itself",
                                          shared.entity.c_str()));
        const zel::ref_ptr<EntityStorage> storage(new EntityStorage(model, shared.name, DefaultCapacity));
        addObject(storage.get());
    }
}

// Columns

Buffer* EntityStorage::createBuffer(Attribute* attribute) {
    if (dynamic_cast<const SharedAttribute*>(attribute) != nullptr)
        return nullptr;
    const bool isInstances = attribute == EntityModel::getInstanceAttribute();
    if (isInstances && !m_useInstanceTable)
        return nullptr;
    zelVerifyAs(!m_bufferTable.contains(attribute), "!m_bufferTable.contains(attribute_)");

    const zel::ref_ptr<Buffer> buffer(new Buffer(attribute->getName(), attribute->getDefaultFormat()));
    if (const Value* value = attribute->getDefaultValue()) {
        // The format of the attribute may have been changed after its default value was made.
        const zel::ref_ptr<Value> converted(new Value("default", attribute->getDefaultFormat()));
        converted->set(value);
        buffer->setDefaultValue(converted.get());
    }
    if (isInstances) {
        // All slots up to the capacity are in use, and written by initializeInstances alone.
        buffer->setElementInitializer({});
        buffer->setElementDestructor({});
        buffer->setMovesWholeCapacity(true);
    }
    connect(buffer.get(), attribute);
    registerBuffer(buffer.get());
    createElementBuffer(buffer.get(), attribute);
    return buffer.get();
}

void EntityStorage::createElementBuffer(Buffer* buffer, Attribute* attribute) {
    const auto* container = dynamic_cast<const ContainerAttribute*>(attribute);
    if (container == nullptr)
        return;
    const ScalarAttribute* element = container->getElementAttribute();
    const zel::ref_ptr<Buffer> elements(new Buffer("elements", element->getDefaultFormat()));
    if (Value* value = element->getDefaultValue())
        elements->setDefaultValue(value);
    buffer->setElementBuffer(elements.get());
}

void EntityStorage::registerBuffer(Buffer* buffer) {
    Attribute* attribute = buffer->getAttribute();
    zelVerify(attribute);
    const zel::uint32 id = attribute->getAttributeId();
    zelVerifyN(id != zel::InvalidIndex, "%s: the attribute is of no entity", attribute->fullName().c_str());
    verifyNoPermutation();
    if (id >= m_buffers.size())
        m_buffers.resize(id + 1);
    zelVerify(!m_buffers[id]);
    if (buffer->getStorage() == nullptr)
        connect(buffer, attribute);
    zelVerifyN(isRelative(buffer->getStorage()),
               "%s: the buffer '%s' is a column of %s",
               getPath().c_str(),
               buffer->getName().c_str(),
               buffer->getStorage()->getPath().c_str());
    m_buffers[id] = buffer;
    m_bufferTable.insert(attribute, buffer);
    // A column that is shared stays a child of the storage that it is from.
    if (buffer->getStorage() == this)
        addObject(buffer);
    if (attribute == EntityModel::getInstanceAttribute()) {
        m_instanceBuffer = buffer;
        m_instanceCallbackId = buffer->reallocationEvent.connect([this](Buffer*) { refreshTables(); });
        refreshTables();
        return;
    }
    // Those that share the columns get it too, unless they have one of their own there.
    if (buffer->getStorage() == this)
        for (EntityStorage* shared : m_sharedStorages)
            if (id >= shared->m_buffers.size() || !shared->m_buffers[id])
                shared->registerBuffer(buffer);
}

/// From now on the storage drives the buffer.
void EntityStorage::connect(Buffer* buffer, Attribute* attribute) {
    if (attribute->getNumElements() != 1)
        buffer->setElementArraySize(attribute->getNumElementsValue());
    buffer->connect(this, attribute);
}

void EntityStorage::explicityRegisterBuffer(Buffer* buffer, Attribute* attribute) {
    zelVerify(attribute);
    connect(buffer, attribute);
    registerBuffer(buffer);
}

void EntityStorage::unregisterBuffer(Buffer* buffer) {
    Attribute* attribute = buffer->getAttribute();
    zelVerify(attribute);
    const zel::uint32 id = attribute->getAttributeId();
    zelVerifyAs(id < m_buffers.size() && m_buffers[id] == buffer, "m_buffers[id] == buffer");
    verifyNoPermutation();
    const zel::ref_ptr<Buffer> keep(buffer);
    if (buffer->getStorage() == this)
        for (EntityStorage* shared : m_sharedStorages)
            shared->forgetBuffer(buffer);
    forgetBuffer(buffer);
    if (buffer == m_instanceBuffer) {
        buffer->reallocationEvent.disconnect(m_instanceCallbackId);
        m_instanceBuffer = nullptr;
        refreshTables();
    }
    if (buffer->getStorage() == this) {
        removeObject(buffer);
        buffer->disconnect();
    }
}

/// Lets go of a column and of what the view shows of it.
void EntityStorage::forgetBuffer(const Buffer* buffer) {
    const zel::uint32 id = buffer->getAttribute()->getAttributeId();
    if (id >= m_buffers.size() || m_buffers[id] != buffer)
        return;
    m_bufferTable.erase(buffer->getAttribute());
    if (m_data)
        m_data->release(buffer);
    m_buffers[id] = nullptr;
}

void EntityStorage::addCustomAttribute(Attribute* attribute) {
    zelVerify(attribute);
    zelVerifyAs(attribute->getEntity() == nullptr, "!attribute->getEntity()");
    if (attribute->m_id == zel::InvalidIndex)
        forEachRelative([attribute](const EntityStorage* storage) {
            const auto size = static_cast<zel::uint32>(storage->m_buffers.size());
            if (attribute->m_id == zel::InvalidIndex || attribute->m_id < size)
                attribute->m_id = size;
        });
    m_customAttributes.push_back(attribute);
    addAttribute(attribute);
}

Buffer* EntityStorage::getBuffer(const zel::Name& name) const {
    for (const zel::ref_ptr<Buffer>& buffer : m_buffers)
        if (buffer && buffer->getAttribute() != nullptr && buffer->getAttribute()->getName() == name)
            return buffer.get();
    return dynamic_cast<Buffer*>(findObject(name, Buffer::ClassModel()));
}

Buffer* EntityStorage::getBuffer(const Attribute* attribute) const noexcept {
    // Ids count within an entity: that of another one's attribute says nothing here.
    const zel::uint32 id = attribute->getAttributeId();
    Buffer* const buffer = id < m_buffers.size() ? m_buffers[id].get() : nullptr;
    return buffer != nullptr && buffer->getAttribute() == attribute ? buffer : nullptr;
}

void* EntityStorage::getElement(const Attribute* attribute, zel::uint64 index) const noexcept {
    const Buffer* buffer = getBuffer(attribute);
    return buffer == nullptr ? nullptr : buffer->getElement(index * buffer->getElementArraySize());
}

void* EntityStorage::getElements(const Attribute* attribute) const noexcept {
    const Buffer* buffer = getBuffer(attribute);
    return buffer == nullptr ? nullptr : buffer->getPtr();
}

EntityStorage* EntityStorage::createSharedStorage() {
    EntityStorage* master = m_master ? m_master.get() : this;
    zelVerifyN(master->m_entity, "%s: a storage without an entity can not be shared", getPath().c_str());
    zel::ref_ptr<EntityStorage> shared(new EntityStorage(master, SharedStorageTag()));
    master->m_sharedStorages.push_back(shared.get());
    if (!master->m_held.empty())
        master->m_held.push_back(shared); // with the others
    return shared.release_nodelete();
}

Buffer* EntityStorage::getOrCreateGlobalOrderBuffer() {
    if (!m_globalOrderBuffer) {
        const zel::ref_ptr<Buffer> buffer(new Buffer("globalOrder", getFormat("UInt:32bit")));
        buffer->resize(m_size);
        auto* order = buffer->data<zel::uint32>();
        for (zel::uint64 i = 0; i < m_size; ++i)
            order[i] = static_cast<zel::uint32>(i);
        addObject(buffer.get());
        m_globalOrderBuffer = buffer;
        m_data->setGlobalOrderBuffer(m_globalOrderBuffer.get());
    }
    return m_globalOrderBuffer.get();
}

// The instance table

void EntityStorage::refreshTables() {
    m_instancePtr = m_instanceBuffer ? m_instanceBuffer->data<EntityPtr>() : nullptr;
    if (m_idToIndexBuffer && m_instanceBuffer)
        m_idToIndex.bind(m_idToIndexBuffer.get(), {0, static_cast<zel::uint32>(m_idToIndexBuffer->size())});
    else
        m_idToIndex.bind(nullptr, {});
    m_idToIndexPtr = m_idToIndex.data();
}

void EntityStorage::initializeInstances(zel::uint64 begin, zel::uint64 end) {
    if (!m_instanceBuffer || !m_idToIndexBuffer)
        return;
    provideIds(end);
    refreshTables();
    for (zel::uint64 i = begin; i < end; ++i) {
        m_idToIndexPtr[i] = static_cast<zel::uint32>(i);
        m_instancePtr[i] = EntityPtr(this, static_cast<zel::uint32>(i));
    }
}

/// Makes room for n ids in the table from id to index.
void EntityStorage::provideIds(zel::uint64 n) {
    if (!m_instanceBuffer || !m_idToIndexBuffer || m_idToIndexBuffer->size() >= n)
        return;
    m_idToIndexBuffer->reserve(n); // exactly, where resize would take half as much again
    m_idToIndexBuffer->resize(n, true);
}

void EntityStorage::setUseInstanceTable(bool use) {
    if (use == m_useInstanceTable)
        return;
    zelVerifyN(m_entity, "%s: a storage without an entity has no instance table", getPath().c_str());
    m_useInstanceTable = use;
    if (use) {
        createBuffer(m_entity->getAttributes().front().get());
        createIdToIndexBuffer();
        initializeInstances(0, m_capacity);
        return;
    }
    if (m_instanceBuffer)
        unregisterBuffer(m_instanceBuffer.get());
    if (m_idToIndexBuffer) {
        m_idToIndexBuffer->reallocationEvent.disconnect(m_idToIndexCallbackId);
        removeObject(m_idToIndexBuffer.get());
        m_idToIndexBuffer = nullptr;
    }
    refreshTables();
}

void EntityStorage::verifyConsistency() const {
    if (m_idToIndexPtr == nullptr || m_instancePtr == nullptr)
        return;
    for (zel::uint64 i = 0; i < m_capacity; ++i) {
        const auto id = static_cast<zel::uint32>(i);
        const zel::uint32 index = m_idToIndexPtr[id];
        zelVerify(index < capacity());
        const zel::uint32 reverseId = m_instancePtr[index].getId();
        zelVerifyN(id == reverseId,
                   "%s: Symmetry failure, index %u --> id %u, but id %u --> index %u",
                   getPath().c_str(),
                   id,
                   index,
                   index,
                   reverseId);
    }
}

// Diagnosis

zel::uint64 EntityStorage::getNumBytes() const {
    zel::uint64 sum = m_idToIndexBuffer ? m_idToIndexBuffer->capacity() * sizeof(zel::uint32) : 0;
    for (const zel::ref_ptr<Buffer>& buffer : m_buffers)
        if (buffer)
            sum += buffer->capacity() * buffer->getElementSize();
    return sum;
}

void EntityStorage::print(std::ostream& stream) const {
    stream << "--== " << getName() << " (" << m_size << " instances, " << m_bufferTable.size()
           << " buffers) ==--\n";
    for (const zel::ref_ptr<Buffer>& buffer : m_buffers) {
        if (!buffer)
            continue;
        stream << "Buffer: " << buffer->getName() << " (" << buffer->getFormat()->fullName() << ")\n";
        for (zel::uint64 i = 0; i < buffer->size(); ++i) {
            stream << "  [" << i << "]: ";
            printElement(stream, buffer->getName(), buffer->getFormat(), buffer->getElement(i));
            stream << '\n';
        }
    }
    stream << "--== END STORAGE ==--\n";
}

void EntityStorage::print() const {
    print(std::cout);
}

void EntityStorage::printInstanceTable() const {
    std::cout << getPath() << ": size: " << m_size << ", capacity: " << m_capacity << '\n';
    for (zel::uint64 i = 0; i < m_capacity; ++i)
        std::cout << i << ": " << getId(i) << '\n';
}

namespace {

EntityStorage* findBelow(const EntityModel* model, const void* address) {
    for (EntityStorage* storage : model->getStorages())
        if (storage == address)
            return storage;
    for (const EntityModel* child : model->getChildren())
        if (EntityStorage* storage = findBelow(child, address))
            return storage;
    return nullptr;
}

} // namespace

EntityStorage* EntityStorage::find(const void* address) {
    const std::lock_guard lock(zel::getTypeSystemMutex());
    return findBelow(EntityModel::getRootModel(), address);
}

void EntityStorage::copy(EntityStorage*, const EntityStorage*) {
    zelAbort("TODO");
}

EntityStorage* EntityStorage::clone() const {
    zelAbort("TODO");
}

zel::Model* EntityStorage::ClassModel() {
    static std::atomic<zel::Model*> s_model{nullptr};
    return zel::Model::createBuiltinModel("Entity.Storage", zel::Component::ClassModel(), s_model);
}

} // namespace zelData
