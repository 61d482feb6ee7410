#include "EntityStorageImplementation.h"

#include <zel/FirstException.h>
#include <zel/Verify.h>
#include <zelStream/ArchiveException.h>
#include <zelStream/InputArchive.h>
#include <zelStream/OutputArchive.h>

#include <string>
#include <utility>

// The instance table in archives, slot by slot:
//
//     section "capacity"   u64    number of slots; 0 without a table
//     section "id"         u32    the id in the slot; for each slot in turn

namespace zelData {

using zelStream::Archive;

void EntityStorage::storePermutation(zelStream::OutputArchive& archive) const {
    const zel::uint64 numSlots = m_instancePtr == nullptr ? 0 : m_capacity;
    {
        const Archive::ScopedSection section(archive, "capacity");
        archive.write(numSlots);
    }
    for (zel::uint64 i = 0; i < numSlots; ++i) {
        const Archive::ScopedSection section(archive, "id");
        archive.write(getId(i));
    }
}

void EntityStorage::extractPermutation(zel::VectorPOD<zel::uint32>& ids, zelStream::InputArchive& archive) {
    zel::uint64 capacity = 0;
    {
        const Archive::ScopedSection section(archive, "capacity");
        archive.read(capacity);
    }
    // Grows with what is read: the capacity may be anything.
    zel::VectorPOD<zel::uint32> read;
    for (zel::uint64 i = 0; i < capacity; ++i) {
        const Archive::ScopedSection section(archive, "id");
        zel::uint32 id = 0;
        archive.read(id);
        zelVerify(id < capacity);
        read.push_back(id);
    }
    zel::VectorPOD<bool> isTaken(read.size());
    for (const zel::uint32 id : read) {
        if (isTaken[id])
            throw zelStream::ArchiveException(
                archive.getErrorMessage("The id " + std::to_string(id) + " is in two slots"));
        isTaken[id] = true;
    }
    ids = std::move(read);
}

void EntityStorage::restorePermutation(zelStream::InputArchive& archive, bool skip) {
    zel::VectorPOD<zel::uint32> ids;
    extractPermutation(ids, archive);
    if (skip || !m_useInstanceTable)
        return;
    zelVerifyN(m_instanceBuffer != nullptr,
               "Entity Storage '%s' has been asked to restore it's permutation table but it doesn't have an "
               "instance buffer.",
               getPath().c_str());
    verifyNoPermutation();
    const Operation operation(*this);
    hold();
    reserve(ids.size());
    // Asked last, since callbacks may have created instances.
    zelVerifyN(this->empty(), "%s: Must be empty to restore permutation!", getPath().c_str());
    for (zel::uint64 i = 0; i < ids.size(); ++i) {
        m_instancePtr[i] = EntityPtr(this, ids[i]);
        m_idToIndexPtr[ids[i]] = static_cast<zel::uint32>(i);
    }
    initializeInstances(ids.size(), m_capacity);
    verifyConsistency();
    zel::FirstException failure;
    for (Buffer* buffer : {m_instanceBuffer.get(), m_idToIndexBuffer.get()})
        failure.run([buffer] { buffer->commit(); });
    failure.rethrow();
}

} // namespace zelData
