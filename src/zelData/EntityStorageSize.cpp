#include "EntityStorageImplementation.h"

#include <zel/Verify.h>
#include <zelData/EntityData.h>
#include <zelData/ValueT.h>

#include <algorithm>
#include <utility>

// Size and capacity: written through the two values, whose callbacks do the work.

namespace zelData {

void EntityStorage::resize(zel::uint64 n, bool initialize) {
    if (n == m_size && !(m_data && m_data->isBatchActive()))
        return;
    m_initializeOnResize = initialize;
    m_noInitializeOnce = true;
    m_sizeValue->set(n);
}

/// Writes the size value. Where nobody but this storage looks at it, which is how most storages live, the
/// content is stored and the callback called without the rounds that an update makes.
void EntityStorage::writeSize(zel::uint64 n) {
    if (m_sizeValue->updateEvent.size() == 1 && m_sizeValue->isUnobserved()) {
        *static_cast<zel::uint64*>(m_sizeValue->getData()) = n;
        resizeCallback(n);
    } else {
        m_sizeValue->set(n);
    }
}

void EntityStorage::reserve(zel::uint64 n) {
    if (n > m_capacity)
        m_capacityValue->set(n);
}

void EntityStorage::resizeCallback(zel::uint64 n) {
    zelVerifyN(n <= MaximumCapacity,
               "%s: a storage holds at most %llu instances",
               getPath().c_str(),
               static_cast<unsigned long long>(MaximumCapacity));
    // What is written during the callbacks below decides for itself.
    const bool insideCreate = std::exchange(m_insideCreate, false);
    const bool initialize = !std::exchange(m_noInitializeOnce, false) || m_initializeOnResize;
    m_initializeOnResize = initialize;
    const zel::uint64 old = m_size;
    if (m_capacity < n)
        reserve(std::min(static_cast<zel::uint64>(static_cast<double>(n) * 1.5), MaximumCapacity));

    const bool tellsRange = !insideCreate && !isBatchOpen() && firesEvents();
    if (tellsRange && n < old)
        m_eventDispatch.triggerDestroyInstancesEvent(this, EntityRange(this, n, old));
    if (hasRelatives())
        sharedResizeCallback(n, initialize);
    for (const zel::ref_ptr<Buffer>& buffer : m_buffers)
        if (buffer && buffer->getStorage() == this)
            buffer->resizeColumn(m_sizeValue.get(), n, initialize);
    m_size = n;
    if (m_data)
        m_data->setNumElements(static_cast<zel::uint32>(n));
    if (n <= old)
        return;
    if (initialize && m_useInstanceTable && m_entity && m_entity->hasConstructor())
        constructInstances(old, n);
    if (tellsRange)
        m_eventDispatch.triggerCreateInstancesEvent(this, EntityRange(this, old, n));
}

void EntityStorage::constructInstances(zel::uint64 begin, zel::uint64 end) {
    for (zel::uint64 i = begin; i < end; ++i)
        m_entity->construct(getInstance(i));
}

void EntityStorage::reserveCallback(zel::uint64 n) {
    zelVerifyN(n <= MaximumCapacity,
               "%s: a storage holds at most %llu instances",
               getPath().c_str(),
               static_cast<unsigned long long>(MaximumCapacity));
    // Room is never given back: ids up to the present capacity are in use or free, and none may be lost.
    if (n < m_capacity)
        return;
    const zel::uint64 old = std::exchange(m_capacity, n);
    if (hasRelatives())
        sharedReserveCallback(n);
    for (const zel::ref_ptr<Buffer>& buffer : m_buffers)
        if (buffer && buffer->getStorage() == this)
            buffer->reserveCallback(m_capacityValue.get());
    initializeInstances(old, n);
}

/// Passes a change of size on to the storages that share the columns. The columns themselves follow the
/// storage that they are from.
void EntityStorage::sharedResizeCallback(zel::uint64 n, bool initialize) {
    m_size = n; // ends the round
    forEachRelative([n, initialize](EntityStorage* storage) {
        if (storage->m_size != n)
            storage->resize(n, initialize);
    });
}

void EntityStorage::sharedReserveCallback(zel::uint64 n) {
    forEachRelative([n](EntityStorage* storage) { storage->reserve(n); });
}

void EntityStorage::overflowCallback(zel::uint64 capacity) {
    zelVerifyN(capacity <= MaximumCapacity,
               "%s: a storage holds at most %llu instances",
               getPath().c_str(),
               static_cast<unsigned long long>(MaximumCapacity));
    const zel::uint64 oldSize = std::exchange(m_size, capacity);
    const zel::uint64 oldCapacity = std::exchange(m_capacity, capacity);
    if (oldCapacity < capacity)
        initializeInstances(oldCapacity, capacity);
    if (m_useInstanceTable && m_entity && m_entity->hasConstructor())
        constructInstances(oldSize, capacity);
}

void EntityStorage::presize(zel::uint64 size, zel::uint64 capacity) {
    zelVerify(capacity >= size);
    reserve(capacity);
    m_size = size;
    for (const zel::ref_ptr<Buffer>& buffer : m_buffers)
        if (buffer && buffer->getStorage() == this) {
            const zel::uint64 count = buffer->getElementArraySize();
            buffer->presize(capacity * count, size * count);
        }
    if (m_data)
        m_data->setNumElements(static_cast<zel::uint32>(size));
}

void EntityStorage::keyFrameResize(zel::uint64 size, zel::uint64 capacity) {
    zelVerify(capacity >= size);
    if (size < m_capacity)
        resize(size, true);
    if (capacity != m_capacity) {
        m_capacityValue->updateEvent.disconnect(m_reserveCallbackId);
        const zel::uint64 old = std::exchange(m_capacity, capacity);
        m_capacityValue->set(capacity);
        for (const zel::ref_ptr<Buffer>& buffer : m_buffers)
            if (buffer && buffer->getStorage() == this && buffer != m_instanceBuffer)
                buffer->keyFrameReserve(capacity);
        // The ids are whole at any time, whatever the key frame brings next: the table keeps its memory with
        // the capacity. Ids above a lower capacity are gone, so that all begin anew.
        if (m_instanceBuffer) {
            m_instanceBuffer->reserveCallback(m_capacityValue.get());
            m_idToIndexBuffer->resize(capacity, true);
            initializeInstances(capacity < old ? 0 : old, capacity);
        }
        connectReserveCallback();
    }
    if (size != m_size)
        resize(size, false);
}

} // namespace zelData
