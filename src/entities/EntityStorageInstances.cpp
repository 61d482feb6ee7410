#include "EntityStorageImplementation.h"

#include <zel/FirstException.h>
#include <zel/ThreadLocalAllocator.h>
#include <zel/Verify.h>
#include <zelData/EntityModel.h>
#include <zelData/ValueT.h>

#include <algorithm>
#include <bit>
#include <functional>
#include <utility>

// Creation and destruction of instances.

namespace zelData {

namespace {

/// From how many instances on createInstances reserves exactly what it needs.
constexpr zel::uint64 ExactReservation = 1000;

using IndexList = zel::VectorPOD<zel::uint32, zel::ThreadLocalAllocator>;

/// Brings a list of indices below `size` into descending order without repeats.
void sortDescending(IndexList& indices, zel::uint64 size) {
    if (indices.size() < size / 64) {
        std::sort(indices.begin(), indices.end(), std::greater<>());
        indices.erase(std::unique(indices.begin(), indices.end()), indices.end());
        return;
    }
    // A long list is marked in a bit map and read back from its end.
    zel::VectorPOD<zel::uint64, zel::ThreadLocalAllocator> marked((size + 63) / 64);
    for (const zel::uint32 index : indices)
        marked[index / 64] |= zel::uint64{1} << (index % 64);
    zel::size_t count = 0;
    for (zel::size_t word = marked.size(); word-- > 0;)
        for (zel::uint64 bits = marked[word]; bits != 0;) {
            const auto bit = static_cast<zel::uint32>(63 - std::countl_zero(bits));
            bits &= ~(zel::uint64{1} << bit);
            indices[count++] = static_cast<zel::uint32>(word * 64) + bit;
        }
    indices.resize(count);
}

} // namespace

// Creation

/// Appends the indices up to n; does nothing for an order that has not kept up.
void EntityStorage::growGlobalOrder(zel::uint64 n) {
    if (m_globalOrderBuffer->size() != m_size)
        return;
    m_globalOrderBuffer->resize(n);
    auto* order = m_globalOrderBuffer->data<zel::uint32>();
    for (zel::uint64 i = m_size; i < n; ++i)
        order[i] = static_cast<zel::uint32>(i);
}

void EntityStorage::createAtEnd(zel::uint64 n) {
    if (!m_globalOrderBuffer) {
        m_insideCreate = true;
        m_initializeOnResize = true;
        writeSize(n);
        return;
    }
    const zel::uint64 old = m_globalOrderBuffer->size();
    growGlobalOrder(n);
    m_insideCreate = true;
    m_initializeOnResize = true;
    try {
        writeSize(n);
    } catch (...) {
        if (m_size < n)
            m_globalOrderBuffer->resize(old);
        throw;
    }
}

EntityPtr EntityStorage::createInstance() {
    const zel::uint64 index = m_size;
    if (index == MaximumCapacity)
        throwTooMany();
    createAtEnd(index + 1);
    const EntityPtr instance(this, getId(index));
    if (firesEvents() && !isBatchOpen() && !m_eventDispatch.empty())
        m_eventDispatch.triggerCreateInstanceEvent(this, instance);
    return instance;
}

EntityRange EntityStorage::createInstances(zel::uint64 n) {
    const zel::uint64 old = m_size;
    if (n > MaximumCapacity - old)
        throwTooMany();
    const EntityRange range(this, old, old + n);
    if (n == 0)
        return range;
    if (n > ExactReservation)
        reserve(old + n);
    createAtEnd(old + n);
    if (firesEvents() && !isBatchOpen())
        m_eventDispatch.triggerCreateInstancesEvent(this, range);
    return range;
}

void EntityStorage::constructInstances(zel::uint64 begin, zel::uint64 end) {
    try {
        for (zel::uint64 i = begin; i < end && i < m_size; ++i)
            m_entity->construct(getInstance(i));
    } catch (...) {
        dropInstances(begin, std::min(end, m_size));
        throw;
    }
}

/// Takes back instances that nobody has heard of.
void EntityStorage::dropInstances(zel::uint64 begin, zel::uint64 end) noexcept {
    if (begin >= end)
        return;
    zel::FirstException dropped; // another one is on its way
    dropped.run([this, begin, end] {
        IndexList indices(end - begin);
        for (zel::uint64 i = begin; i < end; ++i)
            indices[i - begin] = static_cast<zel::uint32>(i);
        destroyAt(indices);
    });
}

// Destruction

void EntityStorage::verifyAlive(zel::uint32 id) const {
    zelVerifyN(isAlive(id), "%s: there is no instance with id %u", getPath().c_str(), id);
}

/// Whether the other storage is this one or shares its columns.
bool EntityStorage::isRelative(const EntityStorage* other) const noexcept {
    if (other == this)
        return true;
    const EntityStorage* master = m_master ? m_master.get() : this;
    return other == master || (other != nullptr && other->m_master == master);
}

/// Lets the last instance take the place of another one, whose id goes to the last slot.
void EntityStorage::moveToEnd(zel::uint64 index, zel::uint64 last, zel::FirstException& failure) {
    if (index == last)
        return;
    zel::uint32 indices[] = {static_cast<zel::uint32>(index), static_cast<zel::uint32>(last)};
    const Array<zel::uint32> pair(indices, 2);
    if (hasRelatives())
        forEachRelative([index, last](EntityStorage* storage) { storage->exchangeSlots(index, last); });
    else
        exchangeSlots(index, last);
    if (m_instanceBuffer)
        failure.run([&] { m_instanceBuffer->commit(pair); });
    forEachColumn([index, last, &pair, &failure](Buffer* buffer) {
        buffer->moveColumnElement(index, last);
        failure.run([&] { buffer->commit(pair); });
    });
    if (m_idToIndexBuffer)
        failure.run([&] { m_idToIndexBuffer->commit(); });
}

/// Listeners learn of it while the instance is intact, those of storages that share the columns as well.
void EntityStorage::tellDestruction(zel::uint32 id) {
    const zel::uint32 index = getIndex(id);
    if (firesEvents() && !m_eventDispatch.empty())
        m_eventDispatch.triggerDestroyInstanceEvent(this, EntityPtr(this, id));
    if (hasRelatives())
        forEachRelative([this, index](EntityStorage* storage) {
            if (storage != this && storage->firesEvents() && !storage->isBatchOpen() && index < m_size)
                storage->m_eventDispatch.triggerDestroyInstanceEvent(storage, storage->getInstance(index));
        });
}

void EntityStorage::destroyInstance(zel::uint32 id) {
    verifyNoPermutation();
    verifyAlive(id);
    if (hasRelatives() || !m_eventDispatch.empty()) {
        tellDestruction(id);
        if (!isAlive(id))
            return; // a listener has been faster
    }
    zel::FirstException failure;
    moveToEnd(getIndex(id), m_size - 1, failure);
    m_insideCreate = true;
    m_initializeOnResize = true;
    failure.run([this] { writeSize(m_size - 1); });
    failure.rethrow();
}

void EntityStorage::preDestroy(const EntityPtr& instance) {
    verifyNoPermutation();
    const zel::uint32 id = instance.getId();
    verifyAlive(id);
    --m_size;
    zel::FirstException failure;
    moveToEnd(getIndex(id), m_size, failure);
    failure.rethrow();
}

/// The same for many.
/// @param instances  as listeners of this storage get them; null for a range
template <typename IndexList>
void EntityStorage::tellDestruction(const EntityPtr* instances, const IndexList& indices) {
    const auto count = static_cast<zel::uint32>(indices.size());
    if (firesEvents() && instances != nullptr)
        m_eventDispatch.triggerDestroyInstancesEvent(
            this, Array<EntityPtr>(const_cast<EntityPtr*>(instances), count)); // NOLINT: only read
    if (!hasRelatives())
        return;
    forEachRelative([this, &indices](EntityStorage* storage) {
        if (storage == this || !storage->firesEvents() || storage->isBatchOpen() ||
            storage->m_eventDispatch.empty())
            return;
        zel::Vector<EntityPtr> own;
        for (const zel::uint32 index : indices)
            own.push_back(storage->getInstance(index));
        storage->m_eventDispatch.triggerDestroyInstancesEvent(storage, Array<EntityPtr>(own));
    });
}

void EntityStorage::destroyInstances(const EntityPtr* instances, zel::uint64 n, bool triggerEvent) {
    if (n == 0)
        return;
    verifyNoPermutation();
    IndexList indices(n);
    const auto findIndices = [this, instances, n, &indices] {
        for (zel::uint64 k = 0; k < n; ++k) {
            EntityStorage* const storage = instances[k].getStorage();
            zelVerifyN(storage == this || isRelative(storage),
                       "%s: the instance with id %u can not be destroyed here, it belongs to %s",
                       getPath().c_str(),
                       instances[k].getId(),
                       storage == nullptr ? "no storage" : "another storage");
            storage->verifyAlive(instances[k].getId());
            indices[k] = storage->getIndex(instances[k].getId());
        }
    };
    findIndices();
    if (triggerEvent && (hasRelatives() || !m_eventDispatch.empty())) {
        tellDestruction(instances, indices);
        // A listener may have been faster with some of them.
        zel::uint64 count = 0;
        for (zel::uint64 k = 0; k < n; ++k)
            if (instances[k].getStorage()->isAlive(instances[k].getId()))
                indices[count++] = instances[k].getStorage()->getIndex(instances[k].getId());
        indices.resize(count);
    }
    destroyAt(indices);
}

/// Destroys the instances at the indices, column by column.
template <typename IndexList>
void EntityStorage::destroyAt(IndexList& indices) {
    if (indices.empty())
        return;
    sortDescending(indices, m_size);

    const zel::uint64 count = indices.size();
    const zel::uint64 last = m_size - 1;
    const auto exchange = [&indices, count, last](EntityStorage* storage) {
        // By descending index: slot j is the victim's own, or holds an instance that stays.
        for (zel::uint64 k = 0; k < count; ++k)
            if (indices[k] != last - k)
                storage->exchangeSlots(indices[k], last - k);
    };
    if (hasRelatives())
        forEachRelative(exchange);
    else
        exchange(this);
    zel::FirstException failure;
    if (m_instanceBuffer) {
        failure.run([this] { m_instanceBuffer->commit(); });
        failure.run([this] { m_idToIndexBuffer->commit(); });
    }
    forEachColumn([&indices, &failure, count, last](Buffer* buffer) {
        for (zel::uint64 k = 0; k < count; ++k)
            if (indices[k] != last - k)
                buffer->moveColumnElement(indices[k], last - k);
        failure.run([buffer] { buffer->commit(); });
    });
    m_insideCreate = true;
    m_initializeOnResize = true;
    failure.run([this, count] { writeSize(m_size - count); });
    failure.rethrow();
}

void EntityStorage::destroyInstances(const EntityRange& range) {
    if (range.empty())
        return;
    verifyNoPermutation();
    zelVerifyN(isRelative(range.getStorage()),
               "%s: the instances of a range of another storage can not be destroyed here",
               getPath().c_str());
    zelVerifyN(range.begin() < range.end() && range.end() <= m_size,
               "%s: there are no instances up to %llu",
               getPath().c_str(),
               static_cast<unsigned long long>(range.end()));
    if (firesEvents())
        m_eventDispatch.triggerDestroyInstancesEvent(this, range);
    // A listener may have been faster with some of them.
    const zel::uint64 end = std::min(range.end(), m_size);
    if (range.begin() >= end)
        return;
    IndexList indices(end - range.begin());
    for (zel::uint64 i = 0; i < indices.size(); ++i)
        indices[i] = static_cast<zel::uint32>(range.begin() + i);
    tellDestruction(nullptr, indices);
    destroyAt(indices);
}

void EntityStorage::clear() {
    writeSize(0);
}

void EntityStorage::reset() {
    clear();
    if (hasRelatives())
        forEachRelative([](EntityStorage* storage) { storage->initializeInstances(0, storage->m_capacity); });
    else
        initializeInstances(0, m_capacity);
}

// Batches

void EntityStorage::beginBatch() {
    zelVerifyAs(!isBatchOpen(), "m_batchIndex == InvalidIndex");
    m_batchIndex = m_size;
}

void EntityStorage::commitBatch(zel::uint64 size) {
    zelVerifyAs(isBatchOpen(), "m_batchIndex != InvalidIndex");
    zelVerify(m_batchIndex <= size);
    try {
        resize(size, true);
    } catch (...) {
        abandonBatch();
        throw;
    }
    const zel::uint64 begin = std::exchange(m_batchIndex, zel::InvalidIndex);
    if (size != begin && firesEvents())
        m_eventDispatch.triggerCreateInstancesEvent(this, EntityRange(this, begin, size));
}

/// Closes the batch without its instances.
void EntityStorage::abandonBatch() noexcept {
    zel::FirstException dropped; // another one is on its way
    dropped.run([this] { resize(std::min(m_batchIndex, m_size), true); });
    m_batchIndex = zel::InvalidIndex;
}

} // namespace zelData
