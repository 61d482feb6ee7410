#include "EntityStorageImplementation.h"

#include <zel/Verify.h>
#include <zelData/Format.h>
#include <zelData/SpareBlocks.h>

#include <algorithm>
#include <cstring>
#include <utility>

// The order of the instances.

namespace zelData {

namespace {

void swapInstance(Buffer* buffer, zel::uint64 i, zel::uint64 j) {
    const zel::uint64 count = buffer->getElementArraySize();
    for (zel::uint64 k = 0; k < count; ++k)
        buffer->getFormat()->swapElements(buffer->getElement(i * count + k),
                                          buffer->getElement(j * count + k));
}

void commitPair(Buffer* buffer, zel::uint32 i, zel::uint32 j) {
    zel::uint32 pair[] = {i, j};
    buffer->commit(Array<zel::uint32>(pair, 2));
}

void commitPair(Buffer* buffer, const std::pair<zel::uint32, zel::uint32>& pair) {
    commitPair(buffer, pair.first, pair.second);
}

} // namespace

void EntityStorage::swapInstances(zel::uint64 index1, zel::uint64 index2) {
    zelVerifyN(index1 < m_size && index2 < m_size,
               "%s: there are no instances at %llu and %llu",
               getPath().c_str(),
               static_cast<unsigned long long>(index1),
               static_cast<unsigned long long>(index2));
    if (index1 == index2)
        return;
    forEachRelative([index1, index2](EntityStorage* storage) { storage->exchangeSlots(index1, index2); });
    if (m_instanceBuffer) {
        commitPair(m_idToIndexBuffer.get(), getId(index1), getId(index2));
        commitPair(
            m_instanceBuffer.get(), static_cast<zel::uint32>(index1), static_cast<zel::uint32>(index2));
    }
    forEachColumn([index1, index2](Buffer* buffer) {
        swapInstance(buffer, index1, index2);
        commitPair(buffer, static_cast<zel::uint32>(index1), static_cast<zel::uint32>(index2));
    });
}

void EntityStorage::swapInstances(const zel::Vector<std::pair<zel::uint32, zel::uint32>>& pairs) {
    for (const auto& pair : pairs)
        zelVerifyN(pair.first < m_size && pair.second < m_size,
                   "%s: there are no instances at %u and %u",
                   getPath().c_str(),
                   pair.first,
                   pair.second);
    forEachRelative([&pairs](EntityStorage* storage) {
        for (const auto& [i, j] : pairs)
            if (i != j)
                storage->exchangeSlots(i, j);
    });
    if (m_instanceBuffer) {
        for (const auto& [i, j] : pairs)
            commitPair(m_idToIndexBuffer.get(), getId(i), getId(j));
        for (const auto& pair : pairs)
            commitPair(m_instanceBuffer.get(), pair);
    }
    forEachColumn([&pairs](Buffer* buffer) {
        for (const auto& pair : pairs) {
            if (pair.first == pair.second)
                continue;
            swapInstance(buffer, pair.first, pair.second);
            commitPair(buffer, pair);
        }
    });
}

void EntityStorage::swapInstanceIds(zel::uint32 id1, zel::uint32 id2) {
    zelVerifyN(id1 < m_capacity && id2 < m_capacity,
               "%s: there are no instances with the ids %u and %u",
               getPath().c_str(),
               id1,
               id2);
    if (id1 == id2 || !m_instanceBuffer)
        return;
    const zel::uint32 index1 = getIndex(id1);
    const zel::uint32 index2 = getIndex(id2);
    exchangeSlots(index1, index2);
    commitPair(m_idToIndexBuffer.get(), id1, id2);
    commitPair(m_instanceBuffer.get(), index1, index2);
}

// Permutation

void EntityStorage::reorder(const Array<zel::uint32>& permutation, SpareBlocks* spares) {
    zelVerifyAs(permutation.size() == m_size, "permutation.size() == m_size");
    if (m_size == 0)
        return;
    verifyNoPermutation();
    // Column by column: a block that one column gives back is there for the next one.
    for (zel::size_t i = 0; i < m_buffers.size(); ++i) {
        if (!m_buffers[i])
            continue;
        void* target = prepareColumn(m_buffers[i].get(), spares);
        permuteColumn(m_buffers[i].get(), target, zel::IndexRange(0, m_size), permutation);
        commitColumn(m_buffers[i].get(), target, spares);
    }
    if (spares != nullptr)
        spares->trim();
    commitOrder(permutation);
}

void EntityStorage::reorder(const zel::VectorPOD<zel::uint32>& permutation) {
    // A view of elements that are only read.
    reorder(Array<zel::uint32>(const_cast<zel::uint32*>(permutation.data()), // NOLINT
                               static_cast<zel::uint32>(permutation.size())));
}

void EntityStorage::verifyNoPermutation() const {
    zelVerifyN(m_permutationBuffers.empty(), "%s: a permutation is under way", getPath().c_str());
}

void EntityStorage::preparePermutation() {
    verifyNoPermutation();
    m_permutationBuffers.resize(m_buffers.size());
    for (zel::size_t i = 0; i < m_buffers.size(); ++i)
        if (m_buffers[i])
            m_permutationBuffers[i] = prepareColumn(m_buffers[i].get());
}

void EntityStorage::reorderAttributes(const zel::IndexRange& range, const Array<zel::uint32>& permutation) {
    zelVerifyAs(range.end() <= permutation.size(), "range.end() <= permutation.size()");
    for (zel::size_t i = 0; i < m_buffers.size(); ++i)
        if (m_buffers[i])
            permuteColumn(m_buffers[i].get(), m_permutationBuffers[i], range, permutation);
}

void EntityStorage::commitPermutation(const Array<zel::uint32>& permutation) {
    zelVerifyAs(permutation.size() == m_size, "permutation.size() == m_size");
    const zel::VectorPOD<void*> backBuffers = std::exchange(m_permutationBuffers, {});
    for (zel::size_t i = 0; i < backBuffers.size(); ++i)
        if (m_buffers[i])
            commitColumn(m_buffers[i].get(), backBuffers[i]);
    commitOrder(permutation);
}

/// @return raw memory for the column in its new order
void* EntityStorage::prepareColumn(Buffer* buffer, SpareBlocks* spares) {
    void* target = buffer->allocateBackBuffer(spares);
    // The free ids lie behind the instances.
    if (buffer == m_instanceBuffer && m_capacity > m_size)
        std::memcpy(static_cast<EntityPtr*>(target) + m_size,
                    m_instancePtr + m_size,
                    (m_capacity - m_size) * sizeof(EntityPtr));
    return target;
}

void EntityStorage::permuteColumn(const Buffer* buffer,
                                  void* backBuffer,
                                  const zel::IndexRange& range,
                                  const Array<zel::uint32>& permutation) const {
    const Format* format = buffer->getFormat();
    const zel::uint64 count = buffer->getElementArraySize();
    char* target = static_cast<char*>(backBuffer) + range.begin() * count * buffer->getElementSize();
    // Plain elements need no construction ahead of the assignment.
    if (buffer != m_instanceBuffer && !buffer->hasPlainElements())
        format->constructElements(target, range.size() * count);
    if (count == 1) {
        format->permuteElements(target, buffer->getPtr(), permutation.data() + range.begin(), range.size());
        return;
    }
    for (zel::uint64 k = range.begin(); k < range.end(); ++k) {
        format->moveElements(target, buffer->getElement(permutation[k] * count), count);
        target += count * buffer->getElementSize();
    }
}

void EntityStorage::commitColumn(Buffer* buffer, void* backBuffer, SpareBlocks* spares) {
    buffer->getFormat()->destroyElements(buffer->getPtr(), buffer->size());
    buffer->swapBackBuffer(backBuffer, spares);
    buffer->commit();
}

/// Brings the tables of ids into line with the columns, and tells the listeners.
void EntityStorage::commitOrder(const Array<zel::uint32>& permutation) {
    if (hasRelatives())
        forEachRelative([this, &permutation](EntityStorage* storage) {
            if (storage != this)
                storage->permuteSlots(permutation);
        });
    if (m_instancePtr != nullptr) {
        for (zel::uint64 i = 0; i < m_size; ++i)
            m_idToIndexPtr[m_instancePtr[i].getId()] = static_cast<zel::uint32>(i);
        m_idToIndexBuffer->commit();
    }
    if (m_enableEvents)
        m_eventDispatch.triggerPermuteEvent(this, permutation);
}

/// Brings the instance table alone into another order, for a storage whose columns another one permutes.
void EntityStorage::permuteSlots(const Array<zel::uint32>& permutation) {
    if (m_instancePtr == nullptr)
        return;
    zel::VectorPOD<EntityPtr> slots;
    slots.assign(m_instancePtr, m_instancePtr + m_size);
    for (zel::uint64 i = 0; i < m_size; ++i) {
        m_instancePtr[i] = slots[permutation[i]];
        m_idToIndexPtr[m_instancePtr[i].getId()] = static_cast<zel::uint32>(i);
    }
    m_instanceBuffer->commit();
    m_idToIndexBuffer->commit();
}

} // namespace zelData
