#pragma once

#include <zel/FirstException.h>
#include <zelData/Buffer.h>
#include <zelData/EntityStorage.h>

#include <algorithm>
#include <utility>

namespace zelData {

/// An operation under way. Once it calls back, the storage and all that share its columns are held until the
/// outermost operation ends: a callback may let go of the last reference.
class EntityStorage::Operation {
public:
    explicit Operation(EntityStorage& storage) noexcept : m_first(storage.first()) {
        ++m_first.m_numOperations;
    }
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;
    ~Operation() {
        if (--m_first.m_numOperations == 0 && !m_first.m_held.empty())
            m_first.letGo();
    }

private:
    EntityStorage& m_first;
};

/// A creation or destruction that goes through the size value, and tells of it itself.
struct EntityStorage::OwnChange {
    zel::uint64 count = 0; // of instances that are created at the end
    bool moves = false;    // listeners of columns have still to hear that elements have moved
    bool isDone = false;   // what is thrown from now on comes from callbacks
    zel::uint64 begin = 0; // where the new instances were at first
    zel::uint32 id = 0;    // of the first of them
};

/// Notes which instances go while callbacks run. An id alone does not tell: it is the next to be used again.
class EntityStorage::Watch {
public:
    explicit Watch(EntityStorage& storage) : m_storage(storage), m_begin(storage.m_gone.size()) {
        ++storage.m_numWatches;
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    ~Watch() {
        if (--m_storage.m_numWatches == 0)
            m_storage.m_gone.clear();
    }

    [[nodiscard]] bool hasGone(zel::uint32 id) const noexcept {
        const auto end = m_storage.m_gone.end();
        return std::find(m_storage.m_gone.begin() + m_begin, end, id) != end;
    }
    /// Drops those that have gone since the last time.
    /// @return whether there were any
    template <typename Ids>
    bool filter(Ids& ids) {
        if (m_begin == m_storage.m_gone.size())
            return false;
        zel::VectorPOD<zel::uint32> gone;
        gone.assign(m_storage.m_gone.begin() + m_begin, m_storage.m_gone.end());
        m_begin = m_storage.m_gone.size();
        std::sort(gone.begin(), gone.end());
        const auto end = std::remove_if(ids.begin(), ids.end(), [&gone](zel::uint32 id) {
            return std::binary_search(gone.begin(), gone.end(), id);
        });
        if (end == ids.end())
            return false;
        ids.resize(static_cast<zel::uint64>(end - ids.begin()));
        return true;
    }

private:
    EntityStorage& m_storage;
    zel::uint64 m_begin;
};

/// Exchanges two slots of the instance table, and the indices of their ids.
inline void EntityStorage::exchangeSlots(zel::uint64 i, zel::uint64 j) noexcept {
    if (m_instancePtr == nullptr)
        return;
    std::swap(m_instancePtr[i], m_instancePtr[j]);
    m_idToIndexPtr[m_instancePtr[i].getId()] = static_cast<zel::uint32>(i);
    m_idToIndexPtr[m_instancePtr[j].getId()] = static_cast<zel::uint32>(j);
}

/// Calls visit on this storage and on all that share its columns.
template <typename Visit>
void EntityStorage::forEachRelative(const Visit& visit) {
    EntityStorage* master = &first();
    visit(master);
    for (zel::size_t i = 0; i < master->m_sharedStorages.size(); ++i)
        visit(master->m_sharedStorages[i]);
}

/// Calls visit on each buffer that one of them drives, the tables of handles included.
template <typename Visit>
void EntityStorage::forEachOwnBuffer(const Visit& visit) {
    const auto visitThose = [&visit](EntityStorage* storage) {
        for (const zel::ref_ptr<Buffer>& buffer : storage->m_buffers)
            if (buffer && buffer->getStorage() == storage)
                visit(buffer.get());
    };
    if (hasRelatives())
        forEachRelative(visitThose);
    else
        visitThose(this);
}

/// The same where a call may change what columns there are.
template <typename Call>
void EntityStorage::callForEachOwnBuffer(const Call& call) {
    forEachRelative([&call](EntityStorage* storage) {
        for (zel::size_t i = 0; i < storage->m_buffers.size(); ++i) {
            Buffer* const buffer = storage->m_buffers[i].get();
            if (buffer != nullptr && buffer->getStorage() == storage)
                call(buffer);
        }
    });
}

/// Calls visit on each of them but the tables of handles.
template <typename Visit>
void EntityStorage::forEachColumn(const Visit& visit) {
    if (!hasRelatives()) {
        const Buffer* const instances = m_instanceBuffer.get();
        for (const zel::ref_ptr<Buffer>& buffer : m_buffers)
            if (buffer && buffer != instances)
                visit(buffer.get());
        return;
    }
    forEachOwnBuffer([&visit](Buffer* buffer) {
        if (buffer != buffer->getStorage()->m_instanceBuffer)
            visit(buffer);
    });
}

/// Those that are to hear of an event: at once, in the order in which they were added, and each also where
/// another one throws.
template <typename Call>
void EntityStorage::EventDispatch::forEach(EntityStorage* storage, const Call& call) {
    if (m_listeners.empty())
        return;
    const Operation operation(*storage);
    storage->hold();
    struct Walk {
        explicit Walk(EventDispatch& d) : dispatch(d) { ++dispatch.m_numWalks; }
        Walk(const Walk&) = delete;
        Walk& operator=(const Walk&) = delete;
        ~Walk() {
            if (--dispatch.m_numWalks == 0)
                while (dispatch.m_listeners.findAndErase(nullptr)) {
                }
        }
        EventDispatch& dispatch;
    } const walk(*this);
    zel::FirstException failure;
    const zel::size_t count = m_listeners.size();
    for (zel::size_t i = 0; i < count; ++i)
        if (m_listeners[i] != nullptr)
            failure.run([&] { call(m_listeners[i]); });
    failure.rethrow();
}

} // namespace zelData
