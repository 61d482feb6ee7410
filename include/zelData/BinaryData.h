#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Referenced.h>
#include <zel/String.h>
#include <zel/ref_ptr.h>

namespace zelData {

/// Who a block of bytes belongs to, and so how it is released.
enum class DataAllocationType : zel::uint32 {
    Malloc = 0,   ///< free
    New = 1,      ///< delete
    NewArray = 2, ///< delete[]
    Owner = 3,    ///< belongs to an object, which is let go
    Aligned = 4   ///< zel::ByteAllocator::standaloneDeallocateTypes
};

/// A counted block of raw bytes, owned or held through its owner. Owned through ref_ptr.
/// @threads as the bytes
class ZEL_CORE_API BinaryData : public zel::Referenced {
public:
    BinaryData() = default;
    /// Uninitialised bytes from new[].
    explicit BinaryData(zel::size_t size);
    /// Uninitialised bytes at a multiple of `alignment`, a power of two of at least 8.
    BinaryData(zel::size_t size, zel::size_t alignment);
    /// Takes over a block that was made in the way of its kind.
    BinaryData(void* data, zel::size_t size, DataAllocationType type);
    /// Refers to bytes that live as long as the owner.
    BinaryData(void* data, zel::size_t size, const zel::Referenced* owner);
    BinaryData(const BinaryData&) = delete;
    BinaryData& operator=(const BinaryData&) = delete;
    ~BinaryData() override;

    [[nodiscard]] zel::uint8* getData() const noexcept { return static_cast<zel::uint8*>(m_data); }
    [[nodiscard]] zel::size_t getSize() const noexcept { return m_size; }
    [[nodiscard]] DataAllocationType getAllocationType() const noexcept { return m_type; }
    /// Changes what getSize reports, and nothing else.
    /// @param size  not above the size of the block; not checked
    void setApparentSize(zel::size_t size) noexcept { m_size = size; }

    /// A copy of the bytes, without owner.
    [[nodiscard]] static BinaryData* copy(const void* bytes, zel::size_t size);
    /// The whole file, without owner. A file that cannot be read ends the process.
    [[nodiscard]] static BinaryData* readFromFile(const zel::String& path);

private:
    void* m_data = nullptr;
    zel::size_t m_size = 0;
    DataAllocationType m_type = DataAllocationType::NewArray;
    zel::ref_ptr<const zel::Referenced> m_owner;
};

} // namespace zelData
