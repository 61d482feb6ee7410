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

/// Calls visit on the buffer of each column but that of the handles, by rising attribute id.
template <typename Visit>
void EntityStorage::forEachColumn(const Visit& visit) const {
    const Buffer* instances = m_instanceBuffer.get();
    for (const zel::ref_ptr<Buffer>& buffer : m_buffers)
        if (buffer && buffer != instances)
            visit(buffer.get());
}

/// Calls visit on this storage and on all that share its columns.
template <typename Visit>
void EntityStorage::forEachRelative(const Visit& visit) {
    EntityStorage* master = m_master ? m_master.get() : this;
    visit(master);
    for (EntityStorage* shared : master->m_sharedStorages)
        visit(shared);
}

} // namespace zelData
