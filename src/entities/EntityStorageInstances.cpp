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

/// Calls nobody.
/// @return whether somebody is to be called
bool commitUnheard(Buffer* buffer) {
    if (buffer == nullptr)
        return false;
    if (buffer->hasListeners())
        return true;
    buffer->commit();
    return false;
}

} // namespace

// Lifetime

/// Keeps this storage, and those that share its columns, until the operation under way ends.
void EntityStorage::hold() {
    EntityStorage& keeper = first();
    if (keeper.m_numOperations == 0 || !keeper.m_held.empty())
        return;
    forEachRelative([&keeper](EntityStorage* storage) {
        if (storage->referenceCount() > 0) // the others are being made or destroyed
            keeper.m_held.push_back(storage);
    });
}

/// The last operation has ended. Storages that end now may call back in their turn.
void EntityStorage::letGo() noexcept {
    zel::ref_ptr<EntityStorage> self; // goes last
    while (!m_held.empty()) {
        zel::ref_ptr<EntityStorage> held(std::move(m_held.back()));
        m_held.pop_back();
        if (held == this)
            self = std::move(held);
    }
}

// Creation

/// Appends the indices up to n; does nothing for an order that has not kept up.
/// @return whether it has
bool EntityStorage::growGlobalOrder(zel::uint64 n) {
    const zel::uint64 old = m_globalOrderBuffer->size();
    if (old != m_size)
        return false;
    m_globalOrderBuffer->resize(n);
    auto* order = m_globalOrderBuffer->data<zel::uint32>();
    for (zel::uint64 i = old; i < n; ++i)
        order[i] = static_cast<zel::uint32>(i);
    return true;
}

/// Creates instances, and collects what callbacks throw once they are there.
void EntityStorage::createAtEnd(OwnChange& own, zel::FirstException& failure) {
    // What makes room calls back: how many there are is asked afterwards.
    while (m_capacity < m_size + own.count)
        provideRoom(m_size + own.count, failure);
    const bool ordered = m_globalOrderBuffer && growGlobalOrder(m_size + own.count);
    try {
        writeSize(m_size + own.count, own);
    } catch (...) {
        if (!own.isDone) {
            if (ordered)
                m_globalOrderBuffer->resize(m_size);
            throw;
        }
        failure.run([] { throw; });
    }
}

EntityPtr EntityStorage::createInstance() {
    zel::FirstException failure;
    const EntityPtr instance = createInstance(failure);
    failure.rethrow();
    return instance;
}

EntityPtr EntityStorage::createInstance(zel::FirstException& failure) {
    if (m_size >= MaximumCapacity)
        throwTooMany();
    const Operation operation(*this);
    OwnChange own{.count = 1};
    createAtEnd(own, failure);
    const EntityPtr instance(this, own.id);
    if (firesEvents() && !isBatchOpen() && !m_eventDispatch.empty() && isAlive(own.id))
        failure.run([this, instance] { m_eventDispatch.triggerCreateInstanceEvent(this, instance); });
    return instance;
}

EntityRange EntityStorage::createInstances(zel::uint64 n) {
    if (n > MaximumCapacity - m_size)
        throwTooMany();
    if (n == 0)
        return {this, m_size, m_size};
    const Operation operation(*this);
    OwnChange own{.count = n};
    zel::FirstException failure;
    if (n > ExactReservation) {
        const zel::uint64 room = m_size + n;
        failure.run([this, room] { reserve(room); });
        if (m_capacity < room)
            failure.rethrow();
    }
    createAtEnd(own, failure);
    // Callbacks may have taken some away.
    const zel::uint64 end = std::min(own.begin + n, m_size);
    if (firesEvents() && !isBatchOpen() && own.begin < end)
        failure.run([this, &own, end] {
            m_eventDispatch.triggerCreateInstancesEvent(this, EntityRange(this, own.begin, end));
        });
    failure.rethrow();
    return {this, own.begin, own.begin + n};
}

/// Constructs new instances.
/// @param isHeard  whether listeners of columns are to hear of them first
void EntityStorage::constructInstances(zel::uint64 begin,
                                       zel::uint64 end,
                                       bool isHeard,
                                       zel::FirstException& failure) {
    const Watch watch(*this); // a constructor, or a listener, may change the storage
    const zel::uint32 firstId = getId(begin);
    zel::VectorPOD<zel::uint32> others; // most creations are of one
    const auto forEachLeft = [&](const auto& visit) {
        if (!watch.hasGone(firstId))
            visit(firstId);
        for (const zel::uint32 id : others)
            if (!watch.hasGone(id))
                visit(id);
    };
    try {
        others.resize(end - begin - 1);
        for (zel::uint64 i = begin + 1; i < end; ++i)
            others[i - begin - 1] = getId(i);
        if (isHeard)
            tellColumns(begin, end, false, failure);
        hold();
        forEachLeft([this](zel::uint32 id) { m_entity->construct(EntityPtr(this, id)); });
    } catch (...) {
        zel::FirstException dropped; // another one is on its way
        dropped.run([&] {
            IndexList indices;
            if (others.size() + 1 < end - begin) // no memory for the list
                for (zel::uint64 i = begin; i < end; ++i)
                    indices.push_back(static_cast<zel::uint32>(i));
            else
                forEachLeft([&](zel::uint32 id) { indices.push_back(getIndex(id)); });
            destroyAt(indices);
        });
        throw;
    }
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

/// Lets the last instance take the place of another one, whose id goes to the last slot. Those who listen
/// hear of it by tellMoves.
/// @return whether there are any
bool EntityStorage::moveToEnd(zel::uint64 index, zel::uint64 last) {
    if (index == last)
        return false;
    if (hasRelatives())
        forEachRelative([index, last](EntityStorage* storage) { storage->exchangeSlots(index, last); });
    else
        exchangeSlots(index, last);
    bool isHeard = commitUnheard(m_instanceBuffer.get());
    forEachColumn([index, last, &isHeard](Buffer* buffer) {
        buffer->moveColumnElement(index, last);
        isHeard = commitUnheard(buffer) || isHeard;
    });
    return commitUnheard(m_idToIndexBuffer.get()) || isHeard;
}

/// Tells the listeners of columns and tables of elements that have moved.
void EntityStorage::tellMoves(zel::FirstException& failure) {
    const auto tell = [&failure](Buffer* buffer) {
        if (buffer != nullptr && buffer->hasListeners())
            failure.run([buffer] { buffer->commit(); });
    };
    tell(m_instanceBuffer.get());
    callForEachOwnBuffer([&tell](Buffer* buffer) {
        if (buffer != buffer->getStorage()->m_instanceBuffer)
            tell(buffer);
    });
    tell(m_idToIndexBuffer.get());
}

/// Those from an index on are about to go.
void EntityStorage::noteGone(zel::uint64 begin) {
    for (zel::uint64 i = begin; i < m_size; ++i)
        m_gone.push_back(getId(i));
}

/// Instances that are to go. Listeners learn of it while the instances are intact, those of storages that
/// share the columns as well, and each of those that are left when its turn comes.
class EntityStorage::Victims {
public:
    /// @param indices  their present ones
    template <typename Indices>
    Victims(EntityStorage& storage, const Indices& indices)
        : m_storage(storage), m_named(storage.withTable()), m_watch(m_named) {
        m_ids.reserve(indices.size());
        for (const zel::uint64 index : indices)
            m_ids.push_back(m_named.getId(index));
    }

    /// Tells the listeners of this storage, or of one that shares its columns.
    /// @param range  where they are to hear of one, while the victims lie there
    /// @param list   as the caller has given it, while it holds; null for none
    void tellOf(EntityStorage& storage,
                const zel::IndexRange& range,
                const Array<EntityPtr>* list,
                zel::FirstException& failure) {
        if (!storage.firesEvents() || storage.m_eventDispatch.empty())
            return;
        const zel::size_t numAtFirst = m_ids.size();
        zel::Vector<EntityPtr> handles; // in that storage
        failure.run([&] {
            storage.m_eventDispatch.forEach(&storage, [&](EventListener* listener) {
                if (m_watch.filter(m_ids))
                    handles.clear();
                if (m_ids.empty())
                    return;
                if (lieIn(range))
                    return listener->destroyInstancesCallback(&storage, EntityRange(&storage, range));
                if (list != nullptr && m_ids.size() == numAtFirst)
                    return listener->destroyInstancesCallback(&storage, *list);
                if (handles.empty())
                    for (const zel::uint32 id : m_ids)
                        handles.push_back(storage.getInstance(m_named.getIndex(id)));
                listener->destroyInstancesCallback(&storage, Array<EntityPtr>(handles));
            });
        });
    }
    void tellOthers(const zel::IndexRange& range, zel::FirstException& failure) {
        if (m_storage.hasRelatives())
            m_storage.forEachRelative([&](EntityStorage* storage) {
                if (storage != &m_storage && !storage->isBatchOpen())
                    tellOf(*storage, range, nullptr, failure);
            });
    }

    /// The present ones of those that are left.
    void getIndices(IndexList& indices) {
        static_cast<void>(m_watch.filter(m_ids));
        indices.resize(m_ids.size());
        for (zel::size_t i = 0; i < m_ids.size(); ++i)
            indices[i] = m_named.getIndex(m_ids[i]);
    }

private:
    [[nodiscard]] bool lieIn(const zel::IndexRange& range) const {
        if (range.size() != m_ids.size())
            return false;
        for (zel::size_t i = 0; i < m_ids.size(); ++i)
            if (m_named.getIndex(m_ids[i]) != range.begin() + i)
                return false;
        return true;
    }

    EntityStorage& m_storage;
    EntityStorage& m_named;
    Watch m_watch;
    zel::VectorPOD<zel::uint32> m_ids;
};

/// Whether anybody listens to what becomes of instances.
bool EntityStorage::isHeard() {
    if (!hasRelatives())
        return firesEvents() && !m_eventDispatch.empty();
    bool isHeard = false;
    forEachRelative([&isHeard](const EntityStorage* storage) {
        isHeard = isHeard || (storage->firesEvents() && !storage->m_eventDispatch.empty());
    });
    return isHeard;
}

/// The same for one.
/// @param index  becomes the present one
/// @return whether it is left
bool EntityStorage::tellDestruction(zel::uint64& index, zel::FirstException& failure) {
    EntityStorage& named = withTable();
    const Watch watch(named);
    const zel::uint32 id = named.getId(index);
    const auto tell = [&](EntityStorage* storage) {
        if (storage->firesEvents() && !storage->m_eventDispatch.empty())
            failure.run([&] {
                storage->m_eventDispatch.forEach(storage, [&](EventListener* listener) {
                    if (!watch.hasGone(id))
                        listener->destroyInstanceCallback(storage, storage->getInstance(named.getIndex(id)));
                });
            });
    };
    tell(this);
    if (hasRelatives())
        forEachRelative([this, &tell](EntityStorage* storage) {
            if (storage != this && !storage->isBatchOpen())
                tell(storage);
        });
    index = named.getIndex(id);
    return !watch.hasGone(id);
}

/// This storage, or one that shares its columns and has ids where this one has none.
EntityStorage& EntityStorage::withTable() {
    EntityStorage* found = m_instancePtr != nullptr ? this : nullptr;
    if (found == nullptr)
        forEachRelative([&found](EntityStorage* storage) {
            if (found == nullptr && storage->m_instancePtr != nullptr)
                found = storage;
        });
    return found == nullptr ? *this : *found;
}

void EntityStorage::destroyInstance(zel::uint32 id) {
    verifyNoPermutation();
    verifyAlive(id);
    const Operation operation(*this);
    zel::FirstException failure;
    zel::uint64 index = getIndex(id);
    bool isLeft = true;
    if ((hasRelatives() || !m_eventDispatch.empty()) && isHeard()) {
        isLeft = tellDestruction(index, failure);
        verifyNoPermutation();
    }
    OwnChange own;
    if (isLeft && moveToEnd(index, m_size - 1)) {
        EntityStorage& named = withTable();
        const Watch watch(named);
        const zel::uint32 victim = named.getId(m_size - 1);
        tellMoves(failure);
        isLeft = !watch.hasGone(victim);
        if (isLeft) // where it was, unless a listener has changed that
            own.moves = moveToEnd(named.getIndex(victim), m_size - 1);
    }
    if (isLeft) {
        failure.run([this, &own] { writeSize(m_size - 1, own); });
    }
    failure.rethrow();
}

void EntityStorage::preDestroy(const EntityPtr& instance) {
    verifyNoPermutation();
    const zel::uint32 id = instance.getId();
    verifyAlive(id);
    const Operation operation(*this);
    const zel::uint64 index = getIndex(id);
    const zel::uint64 last = m_size - 1;
    zel::FirstException failure;
    const bool isMoveHeard = moveToEnd(index, last);
    if (m_numWatches != 0)
        noteGone(last);
    m_size = last;
    if (isMoveHeard)
        tellMoves(failure);
    failure.rethrow();
}

void EntityStorage::destroyInstances(const EntityPtr* instances, zel::uint64 n, bool triggerEvent) {
    if (n == 0)
        return;
    verifyNoPermutation();
    IndexList indices(n);
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
    const Operation operation(*this);
    zel::FirstException failure;
    if (triggerEvent && isHeard()) {
        const Array<EntityPtr> list(const_cast<EntityPtr*>(instances), // NOLINT: only read
                                    static_cast<zel::uint32>(n));
        Victims victims(*this, indices);
        victims.tellOf(*this, {}, &list, failure);
        victims.tellOthers({}, failure);
        victims.getIndices(indices);
        verifyNoPermutation();
    }
    failure.run([this, &indices] { destroyAt(indices); });
    failure.rethrow();
}

/// Destroys the instances at the indices, column by column.
template <typename IndexList>
void EntityStorage::destroyAt(IndexList& indices) {
    if (indices.empty())
        return;
    const auto moveAll = [this, &indices] {
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
        bool isToBeTold = commitUnheard(m_instanceBuffer.get());
        isToBeTold = commitUnheard(m_idToIndexBuffer.get()) || isToBeTold;
        forEachColumn([&indices, &isToBeTold, count, last](Buffer* buffer) {
            for (zel::uint64 k = 0; k < count; ++k)
                if (indices[k] != last - k)
                    buffer->moveColumnElement(indices[k], last - k);
            isToBeTold = commitUnheard(buffer) || isToBeTold;
        });
        return isToBeTold;
    };
    zel::FirstException failure;
    OwnChange own;
    if (moveAll()) {
        EntityStorage& named = withTable();
        Watch watch(named);
        for (zel::uint64 k = 0; k < indices.size(); ++k)
            indices[k] = named.getId(m_size - 1 - k);
        tellMoves(failure);
        static_cast<void>(watch.filter(indices));
        bool isInPlace = true; // unless a listener has changed that
        for (zel::uint64 k = 0; k < indices.size(); ++k) {
            indices[k] = named.getIndex(indices[k]);
            isInPlace = isInPlace && indices[k] == m_size - 1 - k;
        }
        if (!isInPlace && !indices.empty())
            own.moves = moveAll();
    }
    if (!indices.empty())
        failure.run([this, &own, &indices] { writeSize(m_size - indices.size(), own); });
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
    const Operation operation(*this);
    IndexList indices(range.size());
    for (zel::uint64 i = 0; i < indices.size(); ++i)
        indices[i] = static_cast<zel::uint32>(range.begin() + i);
    zel::FirstException failure;
    if (isHeard()) {
        Victims victims(*this, indices);
        victims.tellOf(*this, range.getRange(), nullptr, failure);
        victims.tellOthers({}, failure);
        victims.getIndices(indices);
        verifyNoPermutation();
    }
    failure.run([this, &indices] { destroyAt(indices); });
    failure.rethrow();
}

/// A smaller size is on its way to the family: tells of the instances from n on, and of those that listeners
/// create meanwhile.
void EntityStorage::tellShrinkage(zel::uint64 n, zel::FirstException& failure) {
    zel::uint64 begin = n;
    for (int round = 0; round < 2 && begin < m_size; ++round) {
        const zel::IndexRange range(begin, m_size);
        zel::VectorPOD<zel::uint32> indices(range.size());
        for (zel::uint64 i = 0; i < indices.size(); ++i)
            indices[i] = static_cast<zel::uint32>(begin + i);
        Victims victims(*this, indices);
        if (!isBatchOpen())
            victims.tellOf(*this, range, nullptr, failure);
        victims.tellOthers(range, failure);
        begin = range.end();
    }
}

void EntityStorage::clear() {
    const Operation operation(*this);
    writeSize(0);
}

void EntityStorage::reset() {
    const Operation operation(*this);
    zel::FirstException failure;
    failure.run([this] { clear(); });
    if (m_size == 0)
        forEachRelative([](EntityStorage* storage) { storage->initializeInstances(0, storage->m_capacity); });
    failure.rethrow();
}

// Batches

void EntityStorage::beginBatch() {
    zelVerifyAs(!isBatchOpen(), "m_batchIndex == InvalidIndex");
    m_batchIndex = m_size;
}

void EntityStorage::commitBatch(zel::uint64 size) {
    zelVerifyAs(isBatchOpen(), "m_batchIndex != InvalidIndex");
    zelVerify(m_batchIndex <= size);
    const Operation operation(*this);
    zel::FirstException failure;
    failure.run([this, size] { resize(size, true); });
    if (m_size < size) {
        abandonBatch();
        failure.rethrow();
        return; // a callback has taken them away again
    }
    const zel::uint64 begin = std::exchange(m_batchIndex, zel::InvalidIndex);
    if (size != begin && firesEvents())
        failure.run([this, begin, size] {
            m_eventDispatch.triggerCreateInstancesEvent(this, EntityRange(this, begin, size));
        });
    failure.rethrow();
}

/// Closes the batch without its instances.
void EntityStorage::abandonBatch() noexcept {
    const Operation operation(*this);
    zel::FirstException dropped; // another one is on its way
    dropped.run([this] { resize(std::min(m_batchIndex, m_size), true); });
    m_batchIndex = zel::InvalidIndex;
}

} // namespace zelData
