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

/// Whether nobody looks at a value but the storage, by its callback.
bool isUnwatched(const ValueT<zel::uint64>& value) {
    return value.updateEvent.size() == 1 && value.isUnobserved();
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
    const Operation operation(*this);
    m_initializeOnResize = initialize;
    m_noInitializeOnce = true;
    writeSize(n);
}

/// Writes the size value. Where nobody but this storage looks at it, which is how most storages live, the
/// content is stored and the callback called without the rounds that an update makes.
void EntityStorage::writeSize(zel::uint64 n) {
    if (isUnwatched(*m_sizeValue)) {
        *static_cast<zel::uint64*>(m_sizeValue->getData()) = n;
        resizeCallback(n);
    } else {
        hold();
        setOrStay(*m_sizeValue, n);
    }
}

void EntityStorage::writeSize(zel::uint64 n, OwnChange& own) {
    m_ownChange = &own;
    m_initializeOnResize = true;
    if (isUnwatched(*m_sizeValue)) {
        *static_cast<zel::uint64*>(m_sizeValue->getData()) = n;
        resizeCallback(n); // takes the change at once
        return;
    }
    struct Reset {
        ~Reset() { change = nullptr; }
        OwnChange*& change;
    } const reset{m_ownChange};
    writeSize(n);
}

void EntityStorage::resizeCallback(zel::uint64 n) {
    if (std::exchange(m_sizeIsShown, false))
        return;
    // What is written during the callbacks below decides for itself.
    OwnChange* const own = std::exchange(m_ownChange, nullptr);
    const bool initialize = !std::exchange(m_noInitializeOnce, false) || m_initializeOnResize;
    m_initializeOnResize = initialize;
    const zel::uint32 round = ++m_numSizeWrites;
    try {
        changeSize(n, initialize, own);
    } catch (...) {
        restoreContent(*m_sizeValue, m_size);
        throw;
    }
    if (m_size != n || m_numSizeWrites != round) // callbacks have changed it as well
        restoreContent(*m_sizeValue, m_size);
}

/// Makes room for n instances in all that share the columns, and collects what callbacks throw once it is
/// there.
void EntityStorage::provideRoom(zel::uint64 n, zel::FirstException& failure) {
    if (n > MaximumCapacity)
        throwTooMany();
    const auto provide = [n, &failure](EntityStorage* storage) {
        if (storage->m_capacity >= n)
            return;
        failure.run([storage, n] { storage->reserve(withReserve(n)); });
        if (storage->m_capacity < n)
            failure.rethrow();
    };
    provide(this);
    if (hasRelatives())
        forEachRelative(provide);
}

void EntityStorage::changeSize(zel::uint64 n, bool initialize, OwnChange* own) {
    verifyNoPermutation();
    if (n > MaximumCapacity)
        throwTooMany();
    zel::FirstException failure;
    if (own == nullptr && n < m_size && isHeard()) {
        tellShrinkage(n, failure);
        verifyNoPermutation();
    }
    while (m_capacity < n || hasRelatives()) {
        provideRoom(n, failure);
        verifyNoPermutation();
        if (own == nullptr || own->count == 0 || n == m_size + own->count)
            break;
        n = m_size + own->count; // callbacks have created some in their turn
    }
    const zel::uint64 old = m_size;
    bool isHeard = own != nullptr && own->moves;
    isHeard = resizeColumns(n, initialize) || isHeard;
    setSize(n);
    if (own != nullptr && own->count != 0) {
        own->begin = old;
        own->id = getId(old);
    }
    if (n > old && initialize && m_useInstanceTable && m_entity && m_entity->hasConstructor())
        constructInstances(old, n, isHeard, failure);
    else if (isHeard)
        tellColumns(old, n, own != nullptr && own->moves, failure);
    if (own != nullptr)
        own->isDone = true;
    if (hasRelatives() && n != old)
        forEachRelative([this, &failure](EntityStorage* storage) {
            if (storage != this)
                failure.run([storage] { storage->showSize(storage->m_size); });
        });
    if (n > old && (hasRelatives() || (own == nullptr && !m_eventDispatch.empty())))
        tellGrowth(old, n, own, failure);
    failure.rethrow();
}

/// Tells the listeners of columns of a change of size that has been made.
void EntityStorage::tellColumns(zel::uint64 old, zel::uint64 n, bool moves, zel::FirstException& failure) {
    if (moves)
        tellMoves(failure);
    callForEachOwnBuffer(
        [old, n, &failure](Buffer* buffer) { failure.run([=] { buffer->tellColumnSize(old, n); }); });
}

/// Tells each storage of new instances whose listeners are to hear of them now: a creation tells of it
/// itself.
void EntityStorage::tellGrowth(zel::uint64 begin,
                               zel::uint64 end,
                               const OwnChange* own,
                               zel::FirstException& failure) {
    forEachRelative([&](EntityStorage* storage) {
        if (!storage->firesEvents() || storage->isBatchOpen() || (storage == this && own != nullptr))
            return;
        // Callbacks may have taken some away.
        const EntityRange range(storage, begin, std::min(end, m_size));
        if (range.begin() < range.end())
            failure.run([&] { storage->m_eventDispatch.triggerCreateInstancesEvent(storage, range); });
    });
}

/// Makes the elements of new instances in all columns, or in none; or destroys those of instances that go.
/// @return whether listeners of columns are to hear of it
bool EntityStorage::resizeColumns(zel::uint64 n, bool initialize) {
    const zel::uint64 old = m_size;
    bool isHeard = false;
    try {
        forEachOwnBuffer([n, initialize, &isHeard](Buffer* buffer) {
            isHeard = buffer->resizeColumn(n, initialize) || isHeard;
        });
    } catch (...) {
        forEachOwnBuffer([old, initialize](Buffer* buffer) {
            buffer->restoreColumn(old * buffer->getElementArraySize(), buffer->capacity(), initialize);
        });
        syncViews();
        throw;
    }
    return isHeard;
}

/// The columns are there: lets this storage, and all that share them, have that size.
void EntityStorage::setSize(zel::uint64 n) {
    const auto set = [n](EntityStorage* storage) {
        if (storage->m_numWatches != 0) [[unlikely]]
            storage->noteGone(n);
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
    if (isUnwatched(*m_sizeValue)) {
        *static_cast<zel::uint64*>(m_sizeValue->getData()) = n;
        return;
    }
    hold();
    m_sizeIsShown = true;
    m_sizeValue->set(n);
}

void EntityStorage::showCapacity(zel::uint64 n) {
    hold();
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
    const Operation operation(*this);
    hold();
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
    restoreContent(*m_capacityValue, m_capacity); // a callback may have changed it as well
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
            // A callback may have made more room meanwhile.
            buffer->reserveColumn(std::max(n, buffer->getStorage()->m_capacity));
        });
    } catch (...) {
        zel::uint64 i = 0;
        forEachOwnBuffer([&](Buffer* buffer) {
            if (grows(buffer->getStorage()) && i < capacities.size())
                buffer->restoreColumn(buffer->size(), capacities[i++], false);
        });
        syncViews();
        zel::FirstException dropped; // another one is on its way
        callForEachOwnBuffer(
            [&](Buffer* buffer) { dropped.run([buffer] { buffer->signalReallocation(); }); });
        throw;
    }
    zel::VectorPOD<EntityStorage*> grown;
    forEachRelative([&](EntityStorage* storage) {
        if (!grows(storage))
            return;
        const zel::uint64 old = std::exchange(storage->m_capacity, std::max(n, storage->m_capacity));
        storage->initializeInstances(old, n);
        grown.push_back(storage);
    });
    syncViews();
    hold();
    zel::FirstException failure;
    callForEachOwnBuffer([&](Buffer* buffer) {
        if (grown.contains(buffer->getStorage()))
            failure.run([buffer] { buffer->signalReallocation(); });
    });
    for (EntityStorage* const storage : grown)
        if (storage != this)
            failure.run([storage] { storage->showCapacity(storage->m_capacity); });
    failure.rethrow();
}

void EntityStorage::overflowCallback(zel::uint64 capacity) {
    const Operation operation(*this);
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
    const Operation operation(*this);
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
    const Operation operation(*this);
    if (size < m_capacity)
        resize(size, true);
    if (capacity != m_capacity)
        setCapacity(capacity, true);
    if (size != m_size)
        resize(size, false);
}

void EntityStorage::restoreInstances(zel::uint64 size, const zel::VectorPOD<zel::uint32>& idToIndex) {
    zelVerifyN(
        m_instanceBuffer && m_idToIndexBuffer, "%s: the storage has no table of ids", getPath().c_str());
    zelVerifyN(!isBatchOpen(), "%s: a batch is open", getPath().c_str());
    verifyNoPermutation();
    const zel::uint64 capacity = idToIndex.size();
    verifyTable(size, idToIndex);
    const Operation operation(*this);
    hold();
    zel::FirstException failure;
    forEachRelative([&](EntityStorage* storage) {
        if (storage != this && storage->m_capacity < size)
            storage->reserve(size);
    });
    const auto changeCapacity = [&] {
        failure.run([&] { setCapacity(capacity, false); });
        if (m_capacity != capacity)
            failure.rethrow();
    };
    if (capacity > m_capacity)
        changeCapacity();
    const zel::uint64 old = m_size;
    const bool isHeard = resizeColumns(size, true);
    setSize(size);
    if (capacity != m_capacity)
        changeCapacity();
    for (zel::uint64 id = 0; id < capacity; ++id) {
        m_idToIndexPtr[id] = idToIndex[id];
        m_instancePtr[idToIndex[id]] = EntityPtr(this, static_cast<zel::uint32>(id));
    }
    syncViews();
    forEachRelative([&failure](EntityStorage* storage) {
        // One that follows another value stays with it.
        if (storage->m_sizeValue->getBinding() == nullptr)
            failure.run([storage] { storage->showSize(storage->m_size); });
    });
    if (isHeard && old != size)
        tellColumns(old, size, false, failure);
    for (Buffer* buffer : {m_instanceBuffer.get(), m_idToIndexBuffer.get()})
        failure.run([buffer] { buffer->commit(); });
    failure.rethrow();
}

/// Each index must be that of one id.
void EntityStorage::verifyTable(zel::uint64 size, const zel::VectorPOD<zel::uint32>& idToIndex) const {
    zel::VectorPOD<bool> isTaken(idToIndex.size());
    bool isWhole = size <= idToIndex.size() && idToIndex.size() <= MaximumCapacity;
    for (zel::uint64 id = 0; isWhole && id < idToIndex.size(); ++id) {
        isWhole = idToIndex[id] < idToIndex.size() && !isTaken[idToIndex[id]];
        if (isWhole)
            isTaken[idToIndex[id]] = true;
    }
    if (!isWhole)
        ZEL_THROW(std::runtime_error,
                  zel::String::format("%s: the table of ids is none of a storage of %llu instances",
                                      getPath().c_str(),
                                      static_cast<unsigned long long>(size)));
}

/// Gives this storage another capacity. The columns keep their memory; the tables of ids are whole at any
/// time, whatever the key frame brings next.
/// @param family  whether all that share its columns get it, too
void EntityStorage::setCapacity(zel::uint64 capacity, bool family) {
    const auto changes = [this, family](const EntityStorage* storage) { return family || storage == this; };
    zel::VectorPOD<zel::uint64> capacities;
    try {
        forEachRelative([&](EntityStorage* storage) {
            if (!changes(storage))
                return;
            storage->provideIds(capacity);
            if (storage->m_instanceBuffer && storage->m_capacity < capacity) {
                storage->m_instanceBuffer->reserveColumn(capacity);
                storage->m_instanceBuffer->signalReallocation();
            }
        });
        forEachOwnBuffer([&](Buffer* buffer) {
            if (!changes(buffer->getStorage()) || buffer == buffer->getStorage()->m_instanceBuffer)
                return;
            capacities.push_back(buffer->capacity());
            buffer->keyFrameReserve(capacity);
        });
    } catch (...) {
        zel::uint64 i = 0;
        forEachOwnBuffer([&](Buffer* buffer) {
            if (!changes(buffer->getStorage()))
                return;
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
        if (!changes(storage))
            return;
        const zel::uint64 old = std::exchange(storage->m_capacity, capacity);
        if (storage->m_instanceBuffer) {
            failure.run([storage, capacity] {
                storage->m_instanceBuffer->reserveColumn(capacity);
                storage->m_instanceBuffer->signalReallocation();
            });
            failure.run([storage, capacity] { storage->m_idToIndexBuffer->resize(capacity, true); });
            // Ids above a lower capacity are gone, so that all begin anew.
            storage->initializeInstances(capacity < old ? 0 : old, capacity);
        }
        failure.run([storage, capacity] { storage->showCapacity(capacity); });
    });
    failure.rethrow();
}

} // namespace zelData
