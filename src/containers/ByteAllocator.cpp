#include "LargeBlock.h"

#include <zel/ByteAllocator.h>
#include <zel/Verify.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace zel {

bool ByteAllocator::initMemoryFlag = false;
uint32 ByteAllocator::allocatedMemoryPattern = 0xDEADBEEFU;
uint32 ByteAllocator::deallocatedMemoryPattern = 0x55555555U;
uint64 ByteAllocator::triesUntilFailure = NoFailure;

namespace {

void fill(void* memory, size_t size, uint32 pattern) {
    auto* bytes = static_cast<unsigned char*>(memory);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<unsigned char>(pattern >> (8 * (i % 4)));
}

/// The malloc pointer lies in the eight bytes ahead of every block.
void* mallocPointer(const void* block) {
    void* pointer = nullptr;
    std::memcpy(&pointer, static_cast<const char*>(block) - sizeof(void*), sizeof(void*));
    return pointer;
}

void setMallocPointer(void* block, void* pointer) {
    std::memcpy(static_cast<char*>(block) - sizeof(void*), &pointer, sizeof(void*));
}

/// @return null where malloc has nothing
void* allocateSmall(size_t size, size_t alignment) {
    size_t total = 0;
    void* buf = __builtin_add_overflow(size, alignment + 7, &total) ? nullptr : std::malloc(total);
    if (buf == nullptr)
        return nullptr;
    const auto address = (reinterpret_cast<uint64>(buf) + alignment + 7) & ~(uint64{alignment} - 1);
    void* block = static_cast<char*>(buf) + (address - reinterpret_cast<uint64>(buf));
    setMallocPointer(block, buf);
    return block;
}

/// @return null where there is no such memory
void* allocate(size_t size, size_t alignment) {
    if (size == 0)
        return nullptr;
    void* const block =
        LargeBlock::isFor(size, alignment) ? LargeBlock::allocate(size) : allocateSmall(size, alignment);
    if (block != nullptr && ByteAllocator::initMemoryFlag)
        fill(block, size, ByteAllocator::allocatedMemoryPattern);
    return block;
}

} // namespace

void* ByteAllocator::standaloneAllocateBytes(size_t size, size_t alignment) {
    void* const block = allocate(size, alignment);
    zelVerifyNAs(
        block != nullptr || size == 0, "buf", "ByteAllocator: malloc could not allocate %lu bytes!", size);
    return block;
}

void* ByteAllocator::tryAllocateBytes(size_t size, size_t alignment) {
    if (triesUntilFailure != NoFailure && triesUntilFailure-- == 0)
        return nullptr;
    return allocate(size, alignment);
}

void* ByteAllocator::tryReallocateBytes(void* pointer, size_t oldSize, size_t size, size_t alignment) {
    if (pointer != nullptr && LargeBlock::is(mallocPointer(pointer)) && LargeBlock::isFor(size, alignment)) {
        if (triesUntilFailure != NoFailure && triesUntilFailure-- == 0)
            return nullptr;
        void* const moved = LargeBlock::reallocate(pointer, size);
        if (moved != nullptr && initMemoryFlag && size > oldSize)
            fill(static_cast<char*>(moved) + oldSize, size - oldSize, allocatedMemoryPattern);
        return moved;
    }
    void* const block = tryAllocateBytes(size, alignment);
    if (block != nullptr && pointer != nullptr) {
        std::memcpy(block, pointer, std::min(oldSize, size));
        ByteAllocator().deallocateBytes(pointer, oldSize);
    }
    return block;
}

void ByteAllocator::standaloneDeallocateTypes(void* pointer) {
    if (pointer == nullptr)
        return;
    if (void* const buf = mallocPointer(pointer); LargeBlock::is(buf))
        LargeBlock::release(pointer);
    else
        std::free(buf);
}

void ByteAllocator::deallocateBytes(void* pointer, size_t size) {
    if (pointer == nullptr)
        return;
    if (initMemoryFlag)
        fill(pointer, size, deallocatedMemoryPattern);
    standaloneDeallocateTypes(pointer);
}

} // namespace zel
