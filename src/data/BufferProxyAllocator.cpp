#include "RestoreContent.h"

#include <zel/Container.h>
#include <zel/Verify.h>
#include <zelData/BufferProxyAllocator.h>

#include <utility>

namespace zelData {

namespace {

void verifyCopyable(const Buffer* buffer) {
    zelVerifyNAs(buffer == nullptr,
                 "other.m_buffer==nullptr",
                 "Not legal to copy a Vector that uses a zelData::Buffer as memory storage.");
}

} // namespace

BufferProxyAllocator::BufferProxyAllocator(const BufferProxyAllocator& other) {
    verifyCopyable(other.m_buffer.get());
}

BufferProxyAllocator::BufferProxyAllocator(BufferProxyAllocator&& other) noexcept
    : m_buffer(std::move(other.m_buffer))
    , m_numAllocations(std::exchange(other.m_numAllocations, 0))
    , m_givenBack(std::exchange(other.m_givenBack, false)) {
    if (m_buffer)
        m_buffer->registerSharedContainer(nullptr);
}

BufferProxyAllocator& BufferProxyAllocator::operator=(const BufferProxyAllocator& other) {
    if (this != &other)
        verifyCopyable(other.m_buffer.get());
    return *this;
}

BufferProxyAllocator& BufferProxyAllocator::operator=(BufferProxyAllocator&& other) noexcept {
    if (this != &other) {
        clear();
        m_buffer = std::move(other.m_buffer);
        m_numAllocations = std::exchange(other.m_numAllocations, 0);
        m_givenBack = std::exchange(other.m_givenBack, false);
        registerPair();
    }
    return *this;
}

BufferProxyAllocator::~BufferProxyAllocator() {
    clear();
}

void* BufferProxyAllocator::allocateBytes(zel::size_t size, zel::size_t alignment) {
    if (!m_buffer)
        return zel::ByteAllocator::standaloneAllocateBytes(size, alignment);
    Buffer& buffer = *m_buffer;
    void* const old = buffer.m_ptr;
    const zel::uint64 oldRoom = buffer.m_allocated;
    const zel::uint64 oldSize = std::exchange(buffer.m_numElements, 0);
    const zel::uint64 oldCapacity = std::exchange(buffer.m_capacity, 0);
    buffer.setMemory(nullptr, 0);
    // The vector reads its elements from the old memory until it has moved them.
    zel::Container* const container = std::exchange(buffer.m_sharedContainer, nullptr);
    const zel::size_t elementSize = buffer.getElementSize();
    try {
        buffer.reserve(buffer.inEntries(size / elementSize + (size % elementSize == 0 ? 0 : 1)));
    } catch (...) {
        buffer.m_numElements = oldSize;
        buffer.m_capacity = oldCapacity;
        buffer.setMemory(old, oldRoom);
        buffer.m_sharedContainer = container;
        restoreContent(*buffer.m_capacityValue, buffer.inEntries(oldCapacity));
        throw;
    }
    if (std::exchange(m_givenBack, false) && m_container->capacity() == 0)
        buffer.releaseMemory(old, oldRoom);
    buffer.m_sharedContainer = container;
    ++m_numAllocations;
    return buffer.m_ptr;
}

void BufferProxyAllocator::deallocateBytes(void* pointer, zel::size_t size) {
    if (!m_buffer) {
        zel::ByteAllocator().deallocateBytes(pointer, size);
        return;
    }
    Buffer& buffer = *m_buffer;
    const bool isBuffers = pointer != nullptr && pointer == buffer.m_ptr;
    if (m_numAllocations > 0) {
        --m_numAllocations;
        if (isBuffers) {
            buffer.setMemory(nullptr, 0);
            buffer.m_numElements = 0;
            buffer.m_capacity = 0;
        }
        buffer.m_allocator.deallocateBytes(pointer, size);
    } else if (isBuffers) {
        m_givenBack = true;
        if (!buffer.hasPlainElements())
            buffer.m_numElements = 0; // the vector has destroyed them
        buffer.m_logicalSize = static_cast<zel::uint32>(buffer.m_numElements);
        restoreContent(*buffer.m_numElementsValue, buffer.inEntries(buffer.m_numElements));
    }
}

void BufferProxyAllocator::commit() {
    zelVerify(m_buffer && m_container != nullptr);
    m_buffer->m_numElements = m_container->size();
    m_buffer->m_capacity = m_container->capacity();
    m_buffer->resize(m_buffer->inEntries(m_container->size()), true);
    m_buffer->commit();
}

void BufferProxyAllocator::setBuffer(Buffer* buffer) {
    zelVerifyN(m_container == nullptr || m_container->capacity() == 0,
               "Only an empty Vector can take a zelData::Buffer as memory storage.");
    zelVerifyN(buffer == nullptr || (buffer->getStorage() == nullptr && buffer->getElementSize() != 0),
               "%s: The buffer can not be the memory storage of a Vector.",
               buffer->getPath().c_str());
    clear();
    m_buffer = buffer;
    registerPair();
}

void BufferProxyAllocator::setContainer(zel::Container* container) {
    m_container = container;
    registerPair();
}

void BufferProxyAllocator::clear() {
    if (!m_buffer)
        return;
    if (m_buffer->getSharedContainer() == m_container)
        m_buffer->registerSharedContainer(nullptr);
    m_buffer = nullptr;
    m_numAllocations = 0;
    m_givenBack = false;
}

void BufferProxyAllocator::registerPair() {
    if (m_buffer && m_container != nullptr)
        m_buffer->registerSharedContainer(m_container);
}

} // namespace zelData
