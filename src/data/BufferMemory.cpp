#include <zel/Verify.h>
#include <zelData/Buffer.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>
#include <zelData/SpareBlocks.h>

#include <algorithm>
#include <cstring>
#include <utility>

// Where the elements of a buffer lie, and how they come into being, move and end.

namespace zelData {

using zel::uint32;
using zel::uint64;

namespace {

bool isZero(const void* bytes, uint64 size) {
    const auto* first = static_cast<const unsigned char*>(bytes);
    return std::all_of(first, first + size, [](unsigned char byte) { return byte == 0; });
}

} // namespace

void* Buffer::allocateMemory(uint64 n) {
    if (n == 0)
        return nullptr;
    // An element without size has an address all the same.
    void* const memory = zel::ByteAllocator::tryAllocateBytes(
        std::max(zel::detail::byteCount(n, m_elementSize), zel::size_t{1}), ALIGNMENT);
    if (memory == nullptr)
        throwTooMany(n);
    return memory;
}

void Buffer::releaseMemory(void* pointer, uint64 n) noexcept {
    m_allocator.deallocateBytes(pointer, n * m_elementSize);
}

void Buffer::setMemory(void* pointer, uint64 n) {
    m_ptr = pointer;
    m_allocated = n;
    ++m_ptrRevision;
}

/// Whether elements may lie elsewhere without anybody's doing.
bool Buffer::movesAsBytes() const noexcept {
    return m_plain && m_elementSize != 0 && (m_defaultInitializer || !m_elementInitializer) &&
           (m_defaultDestructor || !m_elementDestructor);
}

/// Lets the callback work on other memory, which it finds in the buffer.
void Buffer::runOn(const ElementCallback& callback, void* pointer, const Range& range) {
    if (!callback || range.empty() || pointer == nullptr)
        return;
    struct Present {
        ~Present() { buffer->m_ptr = memory; }
        Buffer* buffer;
        void* memory;
    } const present{this, std::exchange(m_ptr, pointer)};
    callback(this, range);
}

/// @return memory in which as many elements are constructed as there are, for a move to assign to
void* Buffer::makeElements(uint64 room) {
    void* const fresh = allocateMemory(room);
    // Plain elements are overwritten by the move as they are by the default initializer.
    if (m_ptr != nullptr && m_plain && m_defaultInitializer)
        return fresh;
    try {
        if (m_elementInitializer)
            runOn(m_elementInitializer, fresh, Range(0, m_numElements));
        else if (!m_plain)
            m_format->constructElements(fresh, m_numElements);
    } catch (...) {
        releaseMemory(fresh, room);
        throw;
    }
    return fresh;
}

void Buffer::reallocate(uint64 capacity) {
    // The capacity may have been lowered below what there is.
    const uint64 numMoved =
        m_movesWholeCapacity ? std::max(std::min(m_capacity, m_allocated), m_numElements) : m_numElements;
    const uint64 room = std::max(capacity, numMoved);
    if (m_ptr != nullptr && movesAsBytes() && room != 0) {
        void* const moved = zel::ByteAllocator::tryReallocateBytes(
            m_ptr, m_allocated * m_elementSize, zel::detail::byteCount(room, m_elementSize), ALIGNMENT);
        if (moved == nullptr)
            throwTooMany(room);
        setMemory(moved, room);
        m_memoryOnResize = m_capacity > room;
        return;
    }
    void* const fresh = makeElements(room);
    const Range live(0, m_numElements);
    try {
        if (m_ptr != nullptr && numMoved != 0)
            m_format->moveElements(fresh, m_ptr, numMoved);
    } catch (...) {
        runOn(m_elementDestructor, fresh, live);
        releaseMemory(fresh, room);
        throw;
    }
    void* const old = m_ptr;
    const uint64 oldRoom = m_allocated;
    setMemory(fresh, room);
    m_memoryOnResize = m_capacity > room;
    runOn(m_elementDestructor, old, live);
    releaseMemory(old, oldRoom);
}

void Buffer::signalReallocation() {
    m_allocatedPtr = m_ptr;
    if (reallocationEvent.empty())
        return;
    const zel::ref_ptr<Buffer> keep(hold());
    reallocationEvent.fire(this);
}

void* Buffer::allocateBackBuffer(SpareBlocks* spares) {
    void* const spare = spares == nullptr ? nullptr : spares->take(getRoom() * m_elementSize);
    return spare == nullptr ? allocateMemory(getRoom()) : spare;
}

void Buffer::swapBackBuffer(void* pointer, SpareBlocks* spares) {
    takeBackBuffer(pointer, spares);
    signalReallocation();
}

void Buffer::takeBackBuffer(void* pointer, SpareBlocks* spares) {
    if (spares == nullptr)
        releaseMemory(m_ptr, m_allocated);
    else
        spares->give(m_ptr, m_allocated * m_elementSize);
    setMemory(pointer, getRoom());
    m_memoryOnResize = false;
    mirrorInContainer();
}

void Buffer::releaseBackBuffer(void* pointer) {
    releaseMemory(pointer, getRoom());
}

void* Buffer::kernelOverflowReallocation(uint64 n) {
    verifyFits(n);
    void* const fresh = allocateMemory(n);
    void* const old = m_ptr;
    const uint64 oldAllocated = m_allocated;
    const uint64 oldSize = m_numElements;
    const uint64 oldCapacity = m_capacity;
    const uint64 oldRoom = std::min(std::max(m_capacity, m_numElements), m_allocated);
    setMemory(fresh, n);
    // The ids of a storage are no results of kernels, which may read them meanwhile.
    if (m_movesWholeCapacity && old != nullptr)
        m_format->copyElements(m_ptr, old, std::min(oldRoom, n));
    m_numElements = m_capacity = n;
    m_logicalSize = static_cast<uint32>(n);
    mirrorInContainer();
    bool initialized = false;
    try {
        if (m_elementInitializer && n != 0)
            m_elementInitializer(this, Range(0, n));
        initialized = true;
        if (m_movesWholeCapacity && m_storage != nullptr)
            m_storage->overflowCallback(n);
    } catch (...) {
        if (initialized)
            runOn(m_elementDestructor, fresh, Range(0, n));
        releaseMemory(fresh, n);
        setMemory(old, oldAllocated);
        m_numElements = oldSize;
        m_capacity = oldCapacity;
        m_logicalSize = static_cast<uint32>(oldSize);
        mirrorInContainer();
        signalReallocation(); // somebody may have seen the other memory
        throw;
    }
    m_memoryOnResize = false;
    signalReallocation();
    return old;
}

void Buffer::deleteOverflowBuffer(void* pointer, uint64 n) {
    runOn(m_elementDestructor, pointer, Range(0, n));
    releaseMemory(pointer, n);
}

void Buffer::initializeElements(Buffer* buffer, const Range& range) {
    const void* element = buffer->m_defaultValue->getData();
    void* const first = buffer->getElement(range.begin());
    if (buffer->m_plain && isZero(element, buffer->m_elementSize))
        std::memset(first, 0, range.size() * buffer->m_elementSize);
    else
        buffer->m_format->initializeElements(first, element, range.size());
}

void Buffer::destroyElements(Buffer* buffer, const Range& range) {
    if (!buffer->m_plain)
        buffer->m_format->destroyElements(buffer->getElement(range.begin()), range.size());
}

} // namespace zelData
