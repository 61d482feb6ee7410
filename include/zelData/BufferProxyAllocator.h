#pragma once

#include <zel/ByteAllocator.h>
#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/ref_ptr.h>
#include <zelData/Buffer.h>

namespace zel {
class Container;
} // namespace zel

namespace zelData {

/// The allocator that lets a zel::Vector live in a buffer, so that an array which the program fills with
/// vector operations is seen by tasks and journals:
///
///     zel::VectorPOD<double, zelData::BufferProxyAllocator> samples;
///     samples.allocator().setBuffer(buffer);
///     samples.push_back(1.5);
///     samples.allocator().commit();
///
/// The buffer's format must be that of the vector's elements. Buffer and vector share the memory; the buffer
/// knows of new elements from commit() on. Without a buffer it allocates as zel::ByteAllocator does.
///
/// A vector that lives in a buffer may be moved, and not copied.
/// @threads external lock
class ZEL_CORE_API BufferProxyAllocator {
public:
    BufferProxyAllocator() = default;
    /// Copying one that has a buffer is a failed verification.
    BufferProxyAllocator(const BufferProxyAllocator& other);
    BufferProxyAllocator(BufferProxyAllocator&& other) noexcept;
    /// Leaves this allocator as it is; copying one that has a buffer is a failed verification.
    BufferProxyAllocator& operator=(const BufferProxyAllocator& other);
    BufferProxyAllocator& operator=(BufferProxyAllocator&& other) noexcept;
    ~BufferProxyAllocator();

    /// Gives the buffer new memory; the old one is left to the vector. Counts the call.
    [[nodiscard]] void* allocateBytes(zel::size_t size, zel::size_t alignment);
    /// Frees the memory only while the count is above zero, and lowers it: what is left in the end belongs
    /// to the buffer.
    void deallocateBytes(void* pointer, zel::size_t size);

    /// Takes the vector's size and capacity over into the buffer, and announces the change.
    void commit();
    /// Lets an empty vector show the buffer's elements, and put new ones there.
    void setBuffer(Buffer* buffer);
    [[nodiscard]] Buffer* getBuffer() const noexcept { return m_buffer.get(); }
    /// Called by the vector that the allocator belongs to.
    void setContainer(zel::Container* container);
    /// Lets go of the buffer. Called by the vector's destructor.
    void clear();
    /// How many allocations have not been answered by a release.
    [[nodiscard]] zel::int32 getNumAllocations() const noexcept { return m_numAllocations; }

private:
    void registerPair();

    zel::ref_ptr<Buffer> m_buffer;
    zel::Container* m_container = nullptr;
    zel::int32 m_numAllocations = 0;
    bool m_givenBack = false; // the vector is done with the memory that the buffer has
};

} // namespace zelData
