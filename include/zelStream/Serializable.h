#pragma once

#include <zel/Export.h>
#include <zel/Referenced.h>
#include <zel/String.h>
#include <zel/Uuid.h>
#include <zel/ref_ptr.h>

namespace zelStream {

class InputArchive;
class OutputArchive;
class StorageAgent;
class StorageStream;

class Serializable;

namespace detail {
class ArchiveLink;

/// While it lives, the object that is made next on this thread gets no uuid, which costs much of the time
/// that it takes: an archive that makes an object gives it the stored one.
class ZEL_CORE_API NextWithoutUuid {
public:
    NextWithoutUuid() noexcept;
    NextWithoutUuid(const NextWithoutUuid&) = delete;
    NextWithoutUuid& operator=(const NextWithoutUuid&) = delete;
    ~NextWithoutUuid();
    /// The object that got none; null while there is none. It may be gone.
    [[nodiscard]] const Serializable* getObject() const noexcept { return m_object; }

private:
    friend class zelStream::Serializable;
    const Serializable* m_object = nullptr;
    NextWithoutUuid* m_outer; ///< that waits meanwhile
};
} // namespace detail

/// The base of every class that can live in an archive.
///
///     class Wheel : public zelStream::Serializable {
///         ZEL_SERIALIZABLE(Wheel)
///     public:
///         void store(zelStream::OutputArchive& archive) const override { archive.write(m_radius); }
///         void restore(zelStream::InputArchive& archive) override { archive.read(m_radius); }
///     ...
///
/// and, in a source file and the class's own namespace, `ZEL_REGISTER_SERIALIZABLE(Wheel)`.
///
/// An object has an identity of its own: a copy gets a new uuid and the flags of a new object, and assignment
/// leaves the target's uuid, flags and archive as they are.
/// @threads external lock
class ZEL_CORE_API Serializable : public zel::Referenced {
public:
    /// Makes a fresh uuid, unless that is switched off.
    Serializable();
    Serializable(const Serializable& other);
    Serializable& operator=(const Serializable&) noexcept { return *this; }
    ~Serializable() override;

    /// The factory of the object's class; null if the class can not be stored.
    [[nodiscard]] virtual const StorageAgent* getStorageAgent() const;
    /// The name by which archives know the class: that of the agent, or, without one, the compiler's.
    [[nodiscard]] virtual zel::String getClassName() const;
    /// Writes what `restore` reads, in the same order.
    virtual void store(OutputArchive& archive) const = 0;
    /// Reads what `store` wrote, into an object that may hold anything. Objects that it refers to may not be
    /// restored yet: they are pointers to keep, and not to look into.
    virtual void restore(InputArchive& archive) = 0;
    /// Nothing by default.
    virtual void storeLightData(StorageStream& stream) const;
    /// Nothing by default.
    virtual void restoreLightData(StorageStream& stream);

    /// Writes uuid and serializationEnabled, and then what `store` writes. Called by archives.
    void _store(OutputArchive& archive) const;
    /// Reads what `_store` wrote. Called by archives.
    void _restore(InputArchive& archive);

    /// The archive that restored the object, while it lives; null else.
    [[nodiscard]] InputArchive* getArchive() const noexcept;
    void setArchive(InputArchive* archive);

    [[nodiscard]] const zel::Uuid& getUuid() const noexcept { return m_uuid; }
    void setUuid(const zel::Uuid& uuid) noexcept { m_uuid = uuid; }
    /// Whether the object is complete: an archive clears the flag ahead of `restore`, and sets it behind.
    [[nodiscard]] bool isFinished() const noexcept { return m_isFinished; }
    void setFinished(bool isFinished) noexcept { m_isFinished = isFinished; }
    /// Whether a storage agent made the object.
    [[nodiscard]] bool isDynamicallyAllocated() const noexcept { return m_isDynamicallyAllocated; }
    void setDynamicallyAllocated(bool isAllocated) noexcept { m_isDynamicallyAllocated = isAllocated; }
    /// Archives store an object whose serialization is off as null.
    [[nodiscard]] bool isSerializationEnabled() const noexcept { return m_isSerializationEnabled; }
    void setEnableSerialization(bool enable) noexcept { m_isSerializationEnabled = enable; }

    /// Gives the object a fresh uuid: from the generator of the calling zel::Thread, or, on other threads,
    /// from one of the thread's own.
    void generateUuid();
    /// Whether new objects get a uuid; if not, theirs is zero, which saves time where many are made.
    /// @threads any thread
    static void setEnableUuidGeneration(bool enable) noexcept;
    [[nodiscard]] static bool isUuidGenerationEnabled() noexcept;

private:
    friend class InputArchive;
    zel::Uuid m_uuid;
    bool m_isFinished = false;
    bool m_isDynamicallyAllocated = false;
    bool m_isSerializationEnabled = true;
    zel::ref_ptr<detail::ArchiveLink> m_archive;
};

} // namespace zelStream
