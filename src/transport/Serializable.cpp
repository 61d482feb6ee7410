#include "ArchiveLink.h"
#include "TypeName.h"

#include <zelStream/InputArchive.h>
#include <zelStream/OutputArchive.h>
#include <zelStream/Serializable.h>
#include <zelStream/StorageAgent.h>

#include <atomic>
#include <utility>

namespace zelStream {

namespace {

std::atomic<bool> s_isUuidGenerationEnabled{true};

/// That waits for an object on this thread; null for none.
thread_local detail::NextWithoutUuid* t_nextWithoutUuid = nullptr;

} // namespace

namespace detail {

NextWithoutUuid::NextWithoutUuid() noexcept : m_outer(std::exchange(t_nextWithoutUuid, this)) {}

NextWithoutUuid::~NextWithoutUuid() {
    t_nextWithoutUuid = m_outer;
}

} // namespace detail

Serializable::Serializable() {
    if (!isUuidGenerationEnabled())
        return;
    if (t_nextWithoutUuid != nullptr)
        std::exchange(t_nextWithoutUuid, nullptr)->m_object = this;
    else
        generateUuid();
}

Serializable::Serializable(const Serializable&) : Serializable() {}

Serializable::~Serializable() = default;

const StorageAgent* Serializable::getStorageAgent() const {
    return nullptr;
}

zel::String Serializable::getClassName() const {
    const StorageAgent* const agent = getStorageAgent();
    return agent != nullptr ? agent->getClassName() : typeName(typeid(*this));
}

void Serializable::storeLightData(StorageStream&) const {}
void Serializable::restoreLightData(StorageStream&) {}

void Serializable::_store(OutputArchive& archive) const {
    archive.addAttribute("uuid", m_uuid);
    archive.addAttribute("serializationEnabled", m_isSerializationEnabled);
    store(archive);
}

void Serializable::_restore(InputArchive& archive) {
    if (archive.getSerializationVersion() > 2)
        archive.getAttribute("uuid", m_uuid);
    else {
        zel::uint64 old = 0;
        archive.getAttribute("uniqueID", old);
        if (m_uuid == zel::Uuid() && isUuidGenerationEnabled())
            generateUuid(); // the archive has made the object without one
    }
    archive.getAttribute("serializationEnabled", m_isSerializationEnabled);
    restore(archive);
}

InputArchive* Serializable::getArchive() const noexcept {
    return m_archive == nullptr ? nullptr : m_archive->get();
}

void Serializable::setArchive(InputArchive* archive) {
    m_archive = archive == nullptr ? nullptr : archive->getLink();
}

void Serializable::generateUuid() {
    zel::UuidGenerator generator;
    m_uuid = generator.generate();
}

// Relaxed: whether a new object gets a uuid is no news for another thread.
void Serializable::setEnableUuidGeneration(bool enable) noexcept {
    s_isUuidGenerationEnabled.store(enable, std::memory_order_relaxed);
}

bool Serializable::isUuidGenerationEnabled() noexcept {
    return s_isUuidGenerationEnabled.load(std::memory_order_relaxed);
}

} // namespace zelStream
