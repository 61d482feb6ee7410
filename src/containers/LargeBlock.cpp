#include "LargeBlock.h"

#include <sys/mman.h>

#include <cstring>

namespace zel {

namespace {

constexpr size_t PageSize = 4096;
constexpr size_t HugePageSize = size_t{2} << 20;

size_t roundUp(size_t size, size_t unit) {
    return (size + unit - 1) / unit * unit;
}

/// @return a mapping at a multiple of HugePageSize; null where there is none
char* map(size_t size, int protection) {
    const size_t total = size + HugePageSize;
    void* const mapped =
        total < size ? MAP_FAILED : mmap(nullptr, total, protection, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) // NOLINT(performance-no-int-to-ptr): the system's own
        return nullptr;
    char* const begin = static_cast<char*>(mapped);
    const size_t ahead =
        roundUp(reinterpret_cast<uint64>(begin), HugePageSize) - reinterpret_cast<uint64>(begin);
    if (ahead != 0)
        munmap(begin, ahead);
    if (ahead != HugePageSize)
        munmap(begin + ahead + size, HugePageSize - ahead);
    return begin + ahead;
}

/// Writes what lies ahead of the block.
void* makeBlock(char* begin, size_t mapped, size_t offset) {
    std::memcpy(begin, &mapped, sizeof(mapped));
    const uint64 ahead = reinterpret_cast<uint64>(begin) | 1U;
    std::memcpy(begin + offset - sizeof(ahead), &ahead, sizeof(ahead));
    return begin + offset;
}

} // namespace

void* LargeBlock::allocate(size_t size) noexcept {
    if (size > ~size_t{0} - 2 * HugePageSize)
        return nullptr;
    const size_t mapped = roundUp(size + Offset, PageSize);
    char* const begin = map(mapped, PROT_READ | PROT_WRITE);
    if (begin == nullptr)
        return nullptr;
    // An advice: where the kernel does not take it, the pages are small, and nothing else differs.
    static_cast<void>(madvise(begin, mapped, MADV_HUGEPAGE));
    return makeBlock(begin, mapped, Offset);
}

void* LargeBlock::reallocate(void* block, size_t size) noexcept {
    if (size > ~size_t{0} - 2 * HugePageSize)
        return nullptr;
    char* begin = static_cast<char*>(block) - Offset;
    size_t old = 0;
    std::memcpy(&old, begin, sizeof(old));
    const size_t mapped = roundUp(size + Offset, PageSize);
    if (mremap(begin, old, mapped, 0) == MAP_FAILED) { // NOLINT(performance-no-int-to-ptr): the system's own
        // To a place where huge pages stay what they are.
        char* const target = map(mapped, PROT_NONE);
        if (target == nullptr)
            return nullptr;
        if (mremap(begin, old, mapped, MREMAP_MAYMOVE | MREMAP_FIXED, target) ==
            MAP_FAILED) { // NOLINT: as above
            munmap(target, mapped);
            return nullptr;
        }
        begin = target;
    }
    return makeBlock(begin, mapped, Offset);
}

void LargeBlock::release(void* block) noexcept {
    char* const begin = static_cast<char*>(block) - Offset;
    size_t mapped = 0;
    std::memcpy(&mapped, begin, sizeof(mapped));
    munmap(begin, mapped);
}

} // namespace zel
