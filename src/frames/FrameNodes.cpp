#include "FrameOverlay.h"

#include <zel/Model.h>
#include <zel/Verify.h>
#include <zelData/Attribute.h>
#include <zelData/Buffer.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>
#include <zelData/FrameNodes.h>
#include <zelData/Type.h>

#include <algorithm>
#include <atomic>
#include <utility>

namespace zelData {

namespace {

std::atomic<zel::Model*> s_partialBufferModel{nullptr};
std::atomic<zel::Model*> s_storageModel{nullptr};

const zel::Name& indexName() {
    static const zel::Name name("index");
    return name;
}

const zel::Name& dataName() {
    static const zel::Name name("data");
    return name;
}

Buffer* makeBuffer(const zel::Name& name, const Format* format, zel::uint64 size) {
    zel::ref_ptr<Buffer> buffer(new Buffer(name, format));
    buffer->resize(size);
    return buffer.release_nodelete();
}

} // namespace

zel::uint64
elementsOfInstance(const Frame::EntityStorage* storage, const zel::Name& column, zel::uint64 numElements) {
    const EntityModel* model = storage->getModel();
    const Attribute* attribute = model == nullptr ? nullptr : model->getAttribute(column);
    const zel::uint64 guess = storage->size() == 0 ? 1 : numElements / storage->size();
    return std::max<zel::uint64>(attribute == nullptr ? guess : attribute->getNumElements(), 1);
}

// Partial buffers

Frame::PartialBuffer::PartialBuffer(const zel::Name& name,
                                    Buffer* indexBuffer,
                                    Buffer* dataBuffer,
                                    zel::uint64 fullSize)
    : Component(name, ClassModel()), m_indexBuffer(indexBuffer), m_fullSize(fullSize) {
    zelVerify(indexBuffer);
    zelVerify(dataBuffer);
    zelVerify(indexBuffer->size() == dataBuffer->size());
    zelVerifyN(indexBuffer->getFormat() == getFormat("UInt"),
               "%s: the places of elements are of the format UInt:64bit, not %s",
               name.c_str(),
               indexBuffer->getFormat()->fullName().c_str());
    indexBuffer->setName(indexName());
    addObject(indexBuffer);
    setDataBuffer(dataBuffer);
}

Frame::PartialBuffer::PartialBuffer(const zel::Name& name, zel::uint64 numElements, zel::uint64 fullSize)
    : Component(name, ClassModel())
    , m_indexBuffer(makeBuffer(indexName(), getFormat("UInt"), numElements))
    , m_fullSize(fullSize) {
    addObject(m_indexBuffer.get());
}

Frame::PartialBuffer::PartialBuffer(const zel::Name& name,
                                    const Format* format,
                                    zel::uint64 numElements,
                                    zel::uint64 fullSize)
    : PartialBuffer(name, numElements, fullSize) {
    setDataBuffer(zel::ref_ptr<Buffer>(makeBuffer(dataName(), format, numElements)).get());
}

Frame::PartialBuffer::~PartialBuffer() = default;

void Frame::PartialBuffer::setDataBuffer(Buffer* buffer) {
    const zel::ref_ptr<Buffer> old = std::exchange(m_dataBuffer, zel::ref_ptr<Buffer>(buffer));
    if (old)
        removeObject(old.get());
    if (buffer == nullptr)
        return;
    if (buffer->getName() != dataName())
        buffer->setName(dataName());
    addObject(buffer);
}

zel::uint64 Frame::PartialBuffer::size() const {
    return m_indexBuffer->size();
}

void Frame::PartialBuffer::resize(zel::uint64 n) {
    m_indexBuffer->resize(n);
    if (m_dataBuffer)
        m_dataBuffer->resize(n);
}

Frame::PartialBuffer* Frame::PartialBuffer::clone() const {
    const zel::ref_ptr<Buffer> index(m_indexBuffer->clone());
    if (!m_dataBuffer) {
        zel::ref_ptr<PartialBuffer> copy(new PartialBuffer(getName(), 0, m_fullSize));
        copy->resize(size());
        Buffer::copy(copy->m_indexBuffer.get(), index.get());
        return copy.release_nodelete();
    }
    const zel::ref_ptr<Buffer> data(m_dataBuffer->clone());
    return new PartialBuffer(getName(), index.get(), data.get(), m_fullSize);
}

zel::Model* Frame::PartialBuffer::ClassModel() {
    return zel::Model::createBuiltinModel(
        "Frame.PartialBuffer", Component::ClassModel(), s_partialBufferModel);
}

// Storages

Frame::EntityStorage::EntityStorage(const zelData::EntityStorage* storage)
    : EntityStorage(storage->getName(), storage->getEntityModel(), storage->size(), storage->capacity()) {
    setId(storage->getId());
}

Frame::EntityStorage::EntityStorage(const zel::Name& name,
                                    EntityModel* model,
                                    zel::uint64 size,
                                    zel::uint64 capacity)
    : Component(name, ClassModel()), m_model(model), m_size(size), m_capacity(capacity) {}

Frame::EntityStorage::~EntityStorage() = default;

void Frame::EntityStorage::addObject(zel::Object* object, bool assignContext) {
    Component::addObject(object, assignContext);
    auto* buffer = dynamic_cast<Buffer*>(object);
    if (buffer == nullptr)
        return;
    if (buffer->getName() == zelData::EntityStorage::IdToIndexName) {
        m_idToIndex = buffer;
    } else if (buffer->getName() == zelData::EntityStorage::IndexToIdName) {
        m_indexToId = buffer;
    } else {
        m_columns.insert(buffer, elementsOfInstance(this, buffer->getName(), buffer->size()));
    }
}

bool Frame::EntityStorage::removeObject(zel::Object* object) {
    auto* buffer = dynamic_cast<Buffer*>(object);
    if (buffer != nullptr && buffer->getContext() == this) {
        if (buffer == m_idToIndex)
            m_idToIndex = nullptr;
        else if (buffer == m_indexToId)
            m_indexToId = nullptr;
        else
            m_columns.erase(buffer);
    }
    return Component::removeObject(object);
}

void Frame::EntityStorage::resize(zel::uint64 n) {
    if (n == m_size)
        return;
    for (const auto& [buffer, numElements] : m_columns) {
        buffer->reserve(n * numElements);
        buffer->resize(n * numElements);
    }
    m_size = n;
}

void Frame::EntityStorage::destroyInstance(zel::uint32 id) {
    zelVerify(m_idToIndex && m_indexToId);
    const Buffer& idToIndex = *m_idToIndex;
    const Buffer& indexToId = *m_indexToId;
    zelVerify(id < idToIndex.size());
    auto* indices = idToIndex.data<zel::uint64>();
    auto* ids = indexToId.data<zel::uint64>();
    const zel::uint64 index = indices[id];
    zelVerify(index < m_size && m_size <= indexToId.size());
    const zel::uint64 last = m_size - 1;
    const zel::uint64 lastId = ids[last];
    zelVerify(lastId < idToIndex.size());
    std::swap(indices[id], indices[lastId]);
    std::swap(ids[index], ids[last]);
    for (const auto& [buffer, numElements] : m_columns) {
        zelVerify(m_size * numElements <= buffer->size());
        if (index != last)
            for (zel::uint64 i = 0; i < numElements; ++i)
                buffer->getFormat()->moveElement(buffer->getElement(index * numElements + i),
                                                 buffer->getElement(last * numElements + i));
        buffer->resize(last * numElements);
    }
    m_size = last;
}

zel::Model* Frame::EntityStorage::ClassModel() {
    return zel::Model::createBuiltinModel("Frame.EntityStorage", Component::ClassModel(), s_storageModel);
}

} // namespace zelData
