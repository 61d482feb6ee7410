#pragma once

#include <zelData/Buffer.h>
#include <zelData/EntityStorage.h>

#include <utility>

namespace zelData {

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
    EntityStorage* master = m_master ? m_master.get() : this;
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

} // namespace zelData
