#include "EntityStorageImplementation.h"

#include <zel/Model.h>
#include <zel/ThreadLocalAllocator.h>
#include <zel/Verify.h>
#include <zelData/EntityModel.h>
#include <zelData/Format.h>
#include <zelData/Transform.h>
#include <zelData/ValueT.h>

#include <algorithm>
#include <bit>
#include <utility>

// Creation, destruction and copies of instances.

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

/// The model "Referenced" if the model is or derives from it.
const EntityModel* referencedBase(const EntityModel* model) {
    static const zel::Name name("Referenced");
    for (; model != nullptr; model = model->getBaseEntity())
        if (model->getName() == name && model->getBaseEntity() == EntityModel::getRootModel())
            return model;
    return nullptr;
}

} // namespace

// Creation

void EntityStorage::growGlobalOrder(zel::uint64 oldSize) {
    if (m_globalOrderBuffer->size() != oldSize)
        return;
    m_globalOrderBuffer->resize(m_size);
    auto* order = m_globalOrderBuffer->data<zel::uint32>();
    for (zel::uint64 i = oldSize; i < m_size; ++i)
        order[i] = static_cast<zel::uint32>(i);
}

EntityPtr EntityStorage::createInstance() {
    const zel::uint64 index = m_size;
    m_insideCreate = true;
    m_initializeOnResize = true;
    writeSize(index + 1);
    if (m_globalOrderBuffer)
        growGlobalOrder(index);
    const EntityPtr instance(this, getId(index));
    if (firesEvents() && !isBatchOpen() && !m_eventDispatch.empty())
        m_eventDispatch.triggerCreateInstanceEvent(this, instance);
    return instance;
}

EntityRange EntityStorage::createInstances(zel::uint64 n) {
    const zel::uint64 old = m_size;
    zelVerifyN(n <= MaximumCapacity - old,
               "%s: a storage holds at most %llu instances",
               getPath().c_str(),
               static_cast<unsigned long long>(MaximumCapacity));
    const EntityRange range(this, old, old + n);
    if (n == 0)
        return range;
    if (n > ExactReservation)
        reserve(old + n);
    m_insideCreate = true;
    m_initializeOnResize = true;
    writeSize(old + n);
    if (m_globalOrderBuffer)
        growGlobalOrder(old);
    if (firesEvents() && !isBatchOpen())
        m_eventDispatch.triggerCreateInstancesEvent(this, range);
    return range;
}

// Destruction

/// Lets the last instance take the place of another one, whose id goes to the last slot.
void EntityStorage::moveToEnd(zel::uint64 index, zel::uint64 last) {
    if (index == last)
        return;
    zel::uint32 indices[] = {static_cast<zel::uint32>(index), static_cast<zel::uint32>(last)};
    const Array<zel::uint32> pair(indices, 2);
    if (hasRelatives())
        forEachRelative([index, last](EntityStorage* storage) { storage->exchangeSlots(index, last); });
    else
        exchangeSlots(index, last);
    if (m_instanceBuffer)
        m_instanceBuffer->commit(pair);
    forEachColumn([index, last, &pair](Buffer* buffer) {
        buffer->moveColumnElement(index, last);
        buffer->commit(pair);
    });
    if (m_idToIndexBuffer)
        m_idToIndexBuffer->commit();
}

void EntityStorage::destroyInstance(zel::uint32 id) {
    zelVerifyN(isAlive(id), "%s: there is no instance with id %u", getPath().c_str(), id);
    if (firesEvents() && !m_eventDispatch.empty()) {
        m_eventDispatch.triggerDestroyInstanceEvent(this, EntityPtr(this, id));
        if (!isAlive(id))
            return; // a listener has been faster
    }
    moveToEnd(getIndex(id), m_size - 1);
    m_insideCreate = true;
    m_initializeOnResize = true;
    writeSize(m_size - 1);
}

void EntityStorage::preDestroy(const EntityPtr& instance) {
    const zel::uint32 id = instance.getId();
    zelVerifyN(isAlive(id), "%s: there is no instance with id %u", getPath().c_str(), id);
    --m_size;
    moveToEnd(getIndex(id), m_size);
}

void EntityStorage::destroyInstances(const EntityPtr* instances, zel::uint64 n, bool triggerEvent) {
    if (n == 0)
        return;
    if (triggerEvent && firesEvents())
        m_eventDispatch.triggerDestroyInstancesEvent(
            this, Array<EntityPtr>(const_cast<EntityPtr*>(instances), static_cast<zel::uint32>(n))); // NOLINT

    IndexList indices(n);
    for (zel::uint64 k = 0; k < n; ++k) {
        const zel::uint32 index = instances[k].getStorage()->getIndex(instances[k].getId());
        zelVerifyN(
            index < m_size, "%s: there is no instance with id %u", getPath().c_str(), instances[k].getId());
        indices[k] = index;
    }
    destroyAt(indices);
}

/// Destroys the instances at the indices, column by column.
template <typename IndexList>
void EntityStorage::destroyAt(IndexList& indices) {
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
    if (m_instanceBuffer) {
        m_instanceBuffer->commit();
        m_idToIndexBuffer->commit();
    }
    forEachColumn([&indices, count, last](Buffer* buffer) {
        for (zel::uint64 k = 0; k < count; ++k)
            if (indices[k] != last - k)
                buffer->moveColumnElement(indices[k], last - k);
        buffer->commit();
    });
    m_insideCreate = true;
    m_initializeOnResize = true;
    writeSize(m_size - count);
}

void EntityStorage::destroyInstances(const EntityRange& range) {
    if (range.empty())
        return;
    zelVerifyN(range.begin() < range.end() && range.end() <= m_size,
               "%s: there are no instances up to %llu",
               getPath().c_str(),
               static_cast<unsigned long long>(range.end()));
    if (firesEvents())
        m_eventDispatch.triggerDestroyInstancesEvent(this, range);
    IndexList indices(range.size());
    for (zel::uint64 i = 0; i < range.size(); ++i)
        indices[i] = static_cast<zel::uint32>(range.begin() + i);
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
    resize(size, true);
    const zel::uint64 begin = m_batchIndex;
    if (size != begin && firesEvents())
        m_eventDispatch.triggerCreateInstancesEvent(this, EntityRange(this, begin, size));
    m_batchIndex = zel::InvalidIndex;
}

// Copies

void EntityStorage::copyInstance(zel::uint32 id, EntityStorage* target, zel::uint32 targetId) {
    zelVerify(target);
    zelVerify(this->getEntityModel()->is(target->getEntityModel()));
    zelVerifyN(isAlive(id), "%s: there is no instance with id %u", getPath().c_str(), id);
    zelVerifyN(target->isAlive(targetId),
               "%s: there is no instance with id %u",
               target->getPath().c_str(),
               targetId);
    const zel::uint64 from = getIndex(id);
    const zel::uint64 to = target->getIndex(targetId);
    // Who counts and observes an instance has nothing to do with its copy.
    const EntityModel* referenced = referencedBase(getEntityModel());
    const zel::size_t first = referenced == nullptr ? 1 : referenced->getAttributes().size();
    for (zel::size_t i = first; i < std::min(m_buffers.size(), target->m_buffers.size()); ++i) {
        Buffer* source = m_buffers[i].get();
        Buffer* copied = target->m_buffers[i].get();
        if (source == nullptr || copied == nullptr || source->getAttribute() != copied->getAttribute())
            continue;
        const zel::uint64 count = copied->getElementArraySize();
        zelVerifyN(count == source->getElementArraySize(),
                   "%s: the instances of '%s' differ in their number of elements",
                   target->getPath().c_str(),
                   copied->getName().c_str());
        transform(copied->getElement(to * count),
                  copied->getFormat(),
                  source->getElement(from * count),
                  source->getFormat(),
                  count);
        copied->commit(static_cast<zel::uint32>(to));
    }
}

EntityPtr EntityStorage::copyInstance(zel::uint32 id, EntityStorage* target) {
    zelVerify(target);
    zelVerify(this->getEntityModel()->is(target->getEntityModel()));
    const EntityPtr instance = target->createInstance();
    copyInstance(id, target, instance.getId());
    return instance;
}

EntityPtr EntityStorage::transferInstance(zel::uint32 id, EntityStorage* target) {
    zelVerify(target);
    if (target == this)
        return {this, id};
    const EntityPtr instance = copyInstance(id, target);
    if (const EntityModel* referenced = referencedBase(getEntityModel())) {
        const Attribute* observers = referenced->getAttribute("observers");
        if (observers != nullptr && getBuffer(observers) != nullptr &&
            target->getBuffer(observers) != nullptr) {
            Buffer* buffer = target->getBuffer(observers);
            buffer->getFormat()->copyElement(buffer->getElement(instance.getIndex()),
                                             getBuffer(observers)->getElement(getIndex(id)));
        }
    }
    destroyInstance(id);
    return instance;
}

} // namespace zelData
