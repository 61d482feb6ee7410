#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>

namespace zel {

/// The allocator of the containers: aligned bytes from malloc. Never gives null for a non-zero size: a failed
/// allocation is a failed verification.
/// @threads any thread; the debug switches are set while no other thread allocates
class ZEL_CORE_API ByteAllocator {
public:
    /// The alignment that all containers ask for, in bytes.
    static constexpr size_t DefaultAlignment = 16;

    /// Fills memory on allocation and before release with the patterns below. Off by default.
    static bool initMemoryFlag;
    /// Written repeatedly over fresh memory, 0xDEADBEEF by default; a tail of one to three bytes gets the
    /// pattern's low bytes in little-endian order.
    static uint32 allocatedMemoryPattern;
    /// The same for memory about to be released, 0x55555555 by default.
    static uint32 deallocatedMemoryPattern;

    /// @param alignment  a power of two, at least 8
    /// @return null for size 0, otherwise `size` bytes at an address that is a multiple of `alignment`
    [[nodiscard]] void* allocateBytes(size_t size, size_t alignment = DefaultAlignment) {
        return standaloneAllocateBytes(size, alignment);
    }

    /// The same for a caller that can do without.
    /// @return null also where there is no such memory
    [[nodiscard]] static void* tryAllocateBytes(size_t size, size_t alignment = DefaultAlignment);
    /// Gives a block another size and keeps its bytes, as far as there is room for them. Those of a large
    /// block are not copied: its pages move.
    /// @param pointer  a block of this alignment; null for a new one
    /// @param oldSize  the block's size until now
    /// @return the block that takes its place; null, with the old one as it was, where there is no such
    /// memory
    [[nodiscard]] static void*
    tryReallocateBytes(void* pointer, size_t oldSize, size_t size, size_t alignment = DefaultAlignment);
    /// Lets one call of the two above find no memory, to see what a program does then: the next one for 0,
    /// and so on. Goes back to NoFailure with that call. A debug switch as those above.
    static constexpr uint64 NoFailure = ~uint64{0};
    static uint64 triesUntilFailure;

    /// Releases a block of allocateBytes; null is ignored. The size is used for the debug fill alone.
    void deallocateBytes(void* pointer, size_t size);

    [[nodiscard]] static void* standaloneAllocateBytes(size_t size, size_t alignment = DefaultAlignment);
    static void standaloneDeallocateTypes(void* pointer);
};

namespace detail {
/// count * size in bytes; a product that does not fit gives the largest size, which no allocation can serve.
[[nodiscard]] constexpr size_t byteCount(size_t count, size_t size) noexcept {
    size_t bytes = 0;
    return __builtin_mul_overflow(count, size, &bytes) ? ~size_t{0} : bytes;
}
} // namespace detail

} // namespace zel
