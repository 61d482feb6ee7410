#include <zel/Model.h>
#include <zel/Verify.h>
#include <zelData/Attribute.h>
#include <zelData/Buffer.h>
#include <zelData/EntityData.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityStorage.h>
#include <zelData/SharedAttribute.h>
#include <zelData/Value.h>

#include <algorithm>

namespace zelData {

EntityData::EntityData() : zel::Object("data", ClassModel()) {}

EntityData::EntityData(EntityStorage* storage)
    : zel::Object("data", ClassModel())
    , m_numElements(static_cast<zel::uint32>(storage->size()))
    , m_storage(storage) {}

EntityData::~EntityData() {
    // The arrays are members of a derived class and gone already.
    disconnectAll();
}

EntityModel* EntityData::getModel() const {
    return m_storage == nullptr ? nullptr : m_storage->getEntityModel();
}

void EntityData::setNumElements(unsigned int numElements) {
    m_numElements = numElements;
    m_batchActive = false;
    for (zel::size_t i = 0; i < m_bindings.size(); ++i)
        if (m_bindings[i] != nullptr && m_columns[i].buffer)
            m_bindings[i]->setRange({0, numElements * m_columns[i].numElements});
    if (m_globalOrderColumn.buffer)
        m_globalOrder.setRange(getOrderRange());
}

/// The order does not always keep up with the instances: the view shows what there is.
zel::IndexRangeT<zel::uint32> EntityData::getOrderRange() const {
    const zel::uint64 size = m_globalOrderColumn.buffer->size();
    return {0, static_cast<zel::uint32>(std::min<zel::uint64>(m_numElements, size))};
}

void EntityData::synchronizeSharedAttribute(Value*) {}

void EntityData::registerArray(const Attribute* attribute, AbstractArray* array) {
    const zel::uint32 id = attribute->getAttributeId();
    zelVerifyN(id != zel::InvalidIndex, "%s: the attribute is of no entity", attribute->fullName().c_str());
    if (id >= m_bindings.size()) {
        m_bindings.resize(id + 1);
        m_columns.resize(id + 1);
    }
    zelVerify(!m_bindings[id]);
    m_bindings[id] = array;
    m_columns[id].attribute = attribute;
}

void EntityData::unregisterArray(const Attribute* attribute) {
    const zel::uint32 id = attribute->getAttributeId();
    if (getArray(attribute) == nullptr)
        return;
    disconnect(m_columns[id]);
    m_bindings[id]->bind(nullptr, {});
    m_bindings[id] = nullptr;
}

AbstractArray* EntityData::getArray(const Attribute* attribute) const {
    const zel::uint32 id = attribute->getAttributeId();
    // Ids count within an entity: that of another one's attribute says nothing here.
    return id < m_bindings.size() && m_columns[id].attribute == attribute ? m_bindings[id] : nullptr;
}

zel::uint32 EntityData::getArraySize(const Attribute* attribute) const {
    return getArray(attribute) == nullptr ? 1 : m_columns[attribute->getAttributeId()].numElements;
}

void EntityData::connect(Column& column, Buffer* buffer) {
    disconnect(column);
    column.buffer = buffer;
    column.numElements = static_cast<zel::uint32>(buffer->getElementArraySize());
    column.callbackId =
        buffer->reallocationEvent.connect([this](Buffer* moved) { realloactionCallback(moved); });
}

void EntityData::disconnect(Column& column) {
    if (column.buffer)
        column.buffer->reallocationEvent.disconnect(column.callbackId);
    column = Column{nullptr, 0, 1, column.attribute};
}

void EntityData::bind(const Attribute* attribute, Buffer* buffer) {
    AbstractArray* array = getArray(attribute);
    zelVerify(array);
    zelVerify(buffer);
    Column& column = m_columns[attribute->getAttributeId()];
    connect(column, buffer);
    array->bind(buffer, {0, m_numElements * column.numElements});
}

void EntityData::bind(const SharedAttribute* attribute, Value* value) {
    zelVerify(value);
    zelVerifyN(getSharedValue(attribute) == nullptr,
               "%s: the shared attribute is bound already",
               attribute->fullName().c_str());
    const zel::uint64 id =
        value->updateEvent.connect([this](Value* changed) { synchronizeSharedAttribute(changed); });
    m_sharedValues.push_back(SharedValue{attribute, value, id});
    synchronizeSharedAttribute(value);
}

Value* EntityData::getSharedValue(const SharedAttribute* attribute) const {
    for (const SharedValue& shared : m_sharedValues)
        if (shared.attribute == attribute)
            return shared.value.get();
    return nullptr;
}

void EntityData::setGlobalOrderBuffer(Buffer* buffer) {
    zelVerifyNAs(m_globalOrder.buffer() == nullptr,
                 "!m_globalOrder.buffer()",
                 "%s: the global order is set already",
                 getPath().c_str());
    connect(m_globalOrderColumn, buffer);
    m_globalOrder.bind(buffer, getOrderRange());
}

/// The memory of a buffer has moved: all that show it compute their pointers anew.
void EntityData::realloactionCallback(Buffer* buffer) {
    for (zel::size_t i = 0; i < m_bindings.size(); ++i)
        if (m_bindings[i] != nullptr && m_columns[i].buffer == buffer) {
            m_columns[i].numElements = static_cast<zel::uint32>(buffer->getElementArraySize());
            m_bindings[i]->sync();
        }
    if (m_globalOrderColumn.buffer == buffer)
        m_globalOrder.sync();
}

void EntityData::sync() {
    if (m_storage == nullptr)
        return;
    const bool batchActive = m_batchActive;
    const zel::uint32 numElements = batchActive ? m_numElements : static_cast<zel::uint32>(m_storage->size());
    for (zel::size_t i = 0; i < m_bindings.size(); ++i)
        if (m_bindings[i] != nullptr && m_columns[i].buffer)
            realloactionCallback(m_columns[i].buffer.get());
    m_globalOrder.sync();
    setNumElements(numElements);
    m_batchActive = batchActive;
}

void EntityData::presize(zel::uint32 n) {
    zelVerifyNAs(m_storage != nullptr, "m_storage", "The view belongs to no storage");
    zelVerifyAs(n >= m_numElements, "size >= m_numElements");
    // The storage owns the view, and a callback may let go of it.
    const zel::ref_ptr<EntityStorage> keep(m_storage->referenceCount() > 0 ? m_storage : nullptr);
    const zel::uint32 batch = m_instanceBatchSize;
    const zel::uint64 rounded = n == 0 ? 0 : zel::uint64{batch} + n - 1 - (n - 1) % batch;
    const zel::uint32 numElements = m_numElements;
    m_storage->beginBatch();
    try {
        m_storage->resize(rounded, true);
    } catch (...) {
        m_storage->abandonBatch();
        throw;
    }
    setNumElements(numElements);
    m_batchActive = true;
}

void EntityData::setInstanceBatchSize(zel::uint32 n) {
    zelVerify(n >= 1);
    m_instanceBatchSize = n;
}

/// The storage loses the column: its array stays, and shows nothing.
void EntityData::release(const Buffer* buffer) {
    for (zel::size_t i = 0; i < m_bindings.size(); ++i)
        if (m_bindings[i] != nullptr && m_columns[i].buffer == buffer) {
            disconnect(m_columns[i]);
            m_bindings[i]->bind(nullptr, {});
        }
}

void EntityData::disconnectAll() {
    for (Column& column : m_columns)
        disconnect(column);
    disconnect(m_globalOrderColumn);
    for (SharedValue& shared : m_sharedValues)
        shared.value->updateEvent.disconnect(shared.callbackId);
    m_sharedValues.clear();
}

/// The storage goes: nothing is left to show.
void EntityData::detach() {
    disconnectAll();
    for (AbstractArray* array : m_bindings)
        if (array != nullptr)
            array->bind(nullptr, {});
    m_globalOrder.bind(nullptr, {});
    m_numElements = 0;
    m_batchActive = false;
    m_storage = nullptr;
}

zel::Model* EntityData::ClassModel() {
    static std::atomic<zel::Model*> s_model{nullptr};
    return zel::Model::createBuiltinModel("Entity.Data", zel::Object::ClassModel(), s_model);
}

} // namespace zelData
