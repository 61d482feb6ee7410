#include "EntityStorageImplementation.h"
#include "data/RestoreContent.h"

#include <zel/Exception.h>
#include <zel/FirstException.h>
#include <zel/Verify.h>
#include <zelData/EntityData.h>
#include <zelData/ValueT.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

// Size and capacity: written through the two values, whose callbacks do the work.
//
// A storage changes together with all that share its columns. What may fail comes first, for all of them, and
// is taken back as a whole: room, and the elements of new instances. Then sizes and tables of ids are set,
// which cannot fail; values and listeners hear of it in the end. What one of those throws is passed on when
// all have heard, and the change stays.

namespace zelData {

namespace {

/// What a storage reserves that has to grow by itself.
zel::uint64 withReserve(zel::uint64 n) {
    return std::min(static_cast<zel::uint64>(static_cast<double>(n) * 1.5), EntityStorage::MaximumCapacity);
}

} // namespace

void EntityStorage::throwTooMany() const {
    ZEL_THROW(std::runtime_error,
              zel::String::format("%s: a storage holds at most %llu instances",
                                  getPath().c_str(),
                                  static_cast<unsigned long long>(MaximumCapacity)));
}

void EntityStorage::verifyNoPermutationOfFamily() const {
    const EntityStorage* master = m_master ? m_master.get() : this;
    bool prepared = !master->m_permutationBuffers.empty();
    for (const EntityStorage* shared : master->m_sharedStorages)
        prepared = prepared || !shared->m_permutationBuffers.empty();
    zelVerifyN(!prepared, "%s: a permutation is under way", getPath().c_str());
}

// Size

void EntityStorage::resize(zel::uint64 n, bool initialize) {
    if (n == m_size && !(m_data && m_data->isBatchActive()))
        return;
    if (n > MaximumCapacity)
        throwTooMany();
    m_initializeOnResize = initialize;
    m_noInitializeOnce = true;
    setOrStay(*m_sizeValue, n);
}

/// Writes the size value. Where nobody but this storage looks at it, which is how most storages live, the
/// content is stored and the callback called without the rounds that an update makes.
void EntityStorage::writeSize(zel::uint64 n) {
    if (m_sizeValue->updateEvent.size() == 1 && m_sizeValue->isUnobserved()) {
        *static_cast<zel::uint64*>(m_sizeValue->getData()) = n;
        resizeCallback(n);
    } else {
        setOrStay(*m_sizeValue, n);
    }
}

void EntityStorage::resizeCallback(zel::uint64 n) {
    if (std::exchange(m_sizeIsShown, false))
        return;
    // What is written during the callbacks below decides for itself.
    const bool insideCreate = std::exchange(m_insideCreate, false);
    const bool initialize = !std::exchange(m_noInitializeOnce, false) || m_initializeOnResize;
    m_initializeOnResize = initialize;
    try {
        changeSize(n, initialize, insideCreate);
    } catch (...) {
        restoreContent(*m_sizeValue, m_size);
        throw;
    }
}

void EntityStorage::changeSize(zel::uint64 n, bool initialize, bool insideCreate) {
    verifyNoPermutation();
    if (n > MaximumCapacity)
        throwTooMany();
    if (m_capacity < n)
        reserve(withReserve(n));
    if (hasRelatives())
        forEachRelative([n](EntityStorage* storage) {
            if (storage->m_capacity < n)
                storage->reserve(withReserve(n));
        });
    const bool tells = hasRelatives() || (!insideCreate && !m_eventDispatch.empty());
    if (tells && n < m_size && !insideCreate)
        tellRange(n, m_size, insideCreate, [](EntityStorage* storage, const EntityRange& range) {
            storage->m_eventDispatch.triggerDestroyInstancesEvent(storage, range);
        });
    const zel::uint64 old = m_size; // unless a listener has been faster
    zel::FirstException failure;
    if (n > old)
        growColumns(n, initialize);
    else
        forEachOwnBuffer([n, initialize, &failure](Buffer* buffer) {
            failure.run([=] { buffer->resizeColumn(n, initialize); });
        });
    setSize(n);
    if (n > old && initialize && m_useInstanceTable && m_entity && m_entity->hasConstructor())
        constructInstances(old, n);
    if (hasRelatives() && n != old)
        forEachRelative([this, n, &failure](EntityStorage* storage) {
            if (storage != this)
                failure.run([storage, n] { storage->showSize(n); });
        });
    if (tells && n > old)
        tellRange(old, n, insideCreate, [&failure](EntityStorage* storage, const EntityRange& range) {
            failure.run([&] { storage->m_eventDispatch.triggerCreateInstancesEvent(storage, range); });
        });
    failure.rethrow();
}

/// Calls tell for each storage whose listeners are to hear of the range now: a creation tells of it itself.
template <typename Tell>
void EntityStorage::tellRange(zel::uint64 begin, zel::uint64 end, bool insideCreate, const Tell& tell) {
    forEachRelative([&](EntityStorage* storage) {
        if (storage->firesEvents() && !storage->isBatchOpen() && !(storage == this && insideCreate))
            tell(storage, EntityRange(storage, begin, end));
    });
}

/// Makes the elements of new instances in all columns, or in none.
void EntityStorage::growColumns(zel::uint64 n, bool initialize) {
    const zel::uint64 old = m_size;
    try {
        forEachOwnBuffer([n, initialize](Buffer* buffer) { buffer->resizeColumn(n, initialize); });
    } catch (...) {
        forEachOwnBuffer([old, initialize](Buffer* buffer) {
            buffer->restoreColumn(old * buffer->getElementArraySize(), buffer->capacity(), initialize);
        });
        syncViews();
        throw;
    }
}

/// The columns are there: lets this storage, and all that share them, have that size.
void EntityStorage::setSize(zel::uint64 n) {
    const auto set = [n](EntityStorage* storage) {
        storage->m_size = n;
        if (storage->m_data)
            storage->m_data->setNumElements(static_cast<zel::uint32>(n));
    };
    if (hasRelatives())
        forEachRelative(set);
    else
        set(this);
}

/// Writes a size that the storage has already.
void EntityStorage::showSize(zel::uint64 n) {
    m_sizeIsShown = true;
    m_sizeValue->set(n);
}

void EntityStorage::showCapacity(zel::uint64 n) {
    m_capacityIsShown = true;
    m_capacityValue->set(n);
}

/// The columns have moved, and not everybody may have heard of it.
void EntityStorage::syncViews() {
    forEachRelative([](EntityStorage* storage) {
        storage->refreshTables();
        if (storage->m_data)
            storage->m_data->sync();
    });
}

// Capacity

void EntityStorage::reserve(zel::uint64 n) {
    if (n <= m_capacity)
        return;
    if (n > MaximumCapacity)
        throwTooMany();
    setOrStay(*m_capacityValue, n);
}

void EntityStorage::reserveCallback(zel::uint64 n) {
    if (std::exchange(m_capacityIsShown, false))
        return;
    // Room is never given back: ids up to the present capacity are in use or free, and none may be lost.
    if (n < m_capacity) {
        restoreContent(*m_capacityValue, m_capacity);
        return;
    }
    try {
        changeCapacity(n);
    } catch (...) {
        restoreContent(*m_capacityValue, m_capacity);
        throw;
    }
}

void EntityStorage::changeCapacity(zel::uint64 n) {
    verifyNoPermutation();
    if (n > MaximumCapacity)
        throwTooMany();
    const auto grows = [this, n](const EntityStorage* storage) {
        return storage == this || storage->m_capacity < n;
    };
    zel::VectorPOD<zel::uint64> capacities; // of the buffers that have grown already
    try {
        forEachRelative([&grows, n](EntityStorage* storage) {
            if (grows(storage))
                storage->provideIds(n);
        });
        forEachOwnBuffer([&](Buffer* buffer) {
            if (!grows(buffer->getStorage()))
                return;
            capacities.push_back(buffer->capacity());
            buffer->reserveColumn(n);
        });
    } catch (...) {
        zel::uint64 i = 0;
        forEachOwnBuffer([&](Buffer* buffer) {
            if (grows(buffer->getStorage()) && i < capacities.size())
                buffer->restoreColumn(buffer->size(), capacities[i++], false);
        });
        syncViews();
        throw;
    }
    zel::FirstException failure;
    forEachRelative([&](EntityStorage* storage) {
        if (!grows(storage))
            return;
        const zel::uint64 old = std::exchange(storage->m_capacity, n);
        storage->initializeInstances(old, n);
        if (storage != this)
            failure.run([storage, n] { storage->showCapacity(n); });
    });
    failure.rethrow();
}

void EntityStorage::overflowCallback(zel::uint64 capacity) {
    if (capacity > MaximumCapacity)
        throwTooMany();
    const zel::uint64 oldSize = m_size;
    const zel::uint64 oldCapacity = m_capacity;
    provideIds(capacity);
    if (hasRelatives())
        forEachRelative([this, capacity](EntityStorage* storage) {
            if (storage == this)
                return;
            storage->reserve(capacity);
            for (const zel::ref_ptr<Buffer>& buffer : storage->m_buffers)
                if (buffer && buffer->getStorage() == storage)
                    buffer->resizeColumn(capacity, true);
        });
    m_capacity = capacity;
    if (oldCapacity < capacity)
        initializeInstances(oldCapacity, capacity);
    // The views follow when the batch is committed: their kernels are running.
    forEachRelative([capacity](EntityStorage* storage) { storage->m_size = capacity; });
    if (m_useInstanceTable && m_entity && m_entity->hasConstructor()) {
        try {
            for (zel::uint64 i = oldSize; i < capacity; ++i)
                m_entity->construct(getInstance(i));
        } catch (...) {
            forEachRelative([oldSize](EntityStorage* storage) { storage->m_size = oldSize; });
            m_capacity = oldCapacity;
            throw;
        }
    }
}

// For bulk readers

void EntityStorage::presize(zel::uint64 size, zel::uint64 capacity) {
    zelVerify(capacity >= size);
    verifyNoPermutation();
    forEachRelative([capacity](EntityStorage* storage) { storage->reserve(capacity); });
    forEachOwnBuffer(
        [capacity](Buffer* buffer) { buffer->provideMemory(capacity * buffer->getElementArraySize()); });
    forEachOwnBuffer([size, capacity](Buffer* buffer) {
        const zel::uint64 count = buffer->getElementArraySize();
        buffer->presize(capacity * count, size * count);
    });
    setSize(size);
}

void EntityStorage::keyFrameResize(zel::uint64 size, zel::uint64 capacity) {
    zelVerify(capacity >= size);
    verifyNoPermutation();
    if (capacity > MaximumCapacity)
        throwTooMany();
    if (size < m_capacity)
        resize(size, true);
    if (capacity != m_capacity)
        setCapacity(capacity);
    if (size != m_size)
        resize(size, false);
}

/// Gives this storage, and all that share its columns, another capacity. The columns keep their memory; the
/// tables of ids are whole at any time, whatever the key frame brings next.
void EntityStorage::setCapacity(zel::uint64 capacity) {
    zel::VectorPOD<zel::uint64> capacities;
    try {
        forEachRelative([capacity](EntityStorage* storage) {
            storage->provideIds(capacity);
            if (storage->m_instanceBuffer && storage->m_capacity < capacity)
                storage->m_instanceBuffer->reserveColumn(capacity);
        });
        forEachOwnBuffer([&](Buffer* buffer) {
            if (buffer == buffer->getStorage()->m_instanceBuffer)
                return;
            capacities.push_back(buffer->capacity());
            buffer->keyFrameReserve(capacity);
        });
    } catch (...) {
        zel::uint64 i = 0;
        forEachOwnBuffer([&](Buffer* buffer) {
            if (buffer == buffer->getStorage()->m_instanceBuffer)
                buffer->restoreColumn(buffer->size(), buffer->getStorage()->m_capacity, false);
            else if (i < capacities.size())
                buffer->restoreColumn(buffer->size(), capacities[i++], false);
        });
        syncViews();
        throw;
    }
    zel::FirstException failure;
    forEachRelative([&](EntityStorage* storage) {
        const zel::uint64 old = std::exchange(storage->m_capacity, capacity);
        if (storage->m_instanceBuffer) {
            failure.run([storage, capacity] { storage->m_instanceBuffer->reserveColumn(capacity); });
            failure.run([storage, capacity] { storage->m_idToIndexBuffer->resize(capacity, true); });
            // Ids above a lower capacity are gone, so that all begin anew.
            storage->initializeInstances(capacity < old ? 0 : old, capacity);
        }
        failure.run([storage, capacity] { storage->showCapacity(capacity); });
    });
    failure.rethrow();
}

} // namespace zelData
