#include <zel/ByteAllocator.h>
#include <zel/Verify.h>

#include <sys/mman.h>

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

/// From this size on a block is asked to lie in huge pages: a table or an array of many megabytes then costs
/// a fraction of the page faults when it is filled, and of the address translations when it is read at
/// random.
constexpr size_t HugeBlock = size_t{4} << 20;
constexpr uint64 PageSize = 4096;

void adviseHugePages(void* buf, size_t size) {
    const auto begin = (reinterpret_cast<uint64>(buf) + PageSize - 1) & ~(PageSize - 1);
    const auto end = (reinterpret_cast<uint64>(buf) + size) & ~(PageSize - 1);
    // An advice: where the kernel does not take it, the pages are small, and nothing else differs.
    static_cast<void>(madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE)); // NOLINT
}

/// @return null where malloc has nothing
void* allocate(size_t size, size_t alignment) {
    if (size == 0)
        return nullptr;
    size_t total = 0;
    void* buf = __builtin_add_overflow(size, alignment + 7, &total) ? nullptr : std::malloc(total);
    if (buf == nullptr)
        return nullptr;
    if (size >= HugeBlock)
        adviseHugePages(buf, total);
    const auto address = (reinterpret_cast<uint64>(buf) + alignment + 7) & ~(uint64{alignment} - 1);
    void* block = static_cast<char*>(buf) + (address - reinterpret_cast<uint64>(buf));
    std::memcpy(static_cast<char*>(block) - sizeof(void*), &buf, sizeof(void*));
    if (ByteAllocator::initMemoryFlag)
        fill(block, size, ByteAllocator::allocatedMemoryPattern);
    return block;
}

/// The malloc pointer lies in the eight bytes ahead of every block.
void* mallocPointer(void* block) {
    void* pointer = nullptr;
    std::memcpy(&pointer, static_cast<char*>(block) - sizeof(void*), sizeof(void*));
    return pointer;
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

void ByteAllocator::standaloneDeallocateTypes(void* pointer) {
    if (pointer != nullptr)
        std::free(mallocPointer(pointer));
}

void ByteAllocator::deallocateBytes(void* pointer, size_t size) {
    if (pointer == nullptr)
        return;
    if (initMemoryFlag)
        fill(pointer, size, deallocatedMemoryPattern);
    standaloneDeallocateTypes(pointer);
}

} // namespace zel
