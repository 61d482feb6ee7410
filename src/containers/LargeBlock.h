#pragma once

#include <zel/Integers.h>

namespace zel {

/// Blocks of many megabytes, each a mapping of its own that begins where a huge page does. Filled and read at
/// random they cost a fraction of the page faults and of the address translations that small pages take, and
/// to give one another size moves its pages rather than its bytes. Ahead of each block lies the address of
/// its mapping, as that of malloc lies ahead of others, with the lowest bit set.
///
/// Not with sanitizers, which know nothing of such memory.
/// @threads any thread
class LargeBlock {
public:
    static constexpr size_t MinimumSize = size_t{4} << 20;

    [[nodiscard]] static constexpr bool isFor([[maybe_unused]] size_t size,
                                              [[maybe_unused]] size_t alignment) noexcept {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        return false;
#else
        return size >= MinimumSize && alignment <= Offset;
#endif
    }
    /// @param ahead  what lies in the eight bytes ahead of a block
    [[nodiscard]] static bool is(const void* ahead) noexcept {
        return (reinterpret_cast<uint64>(ahead) & 1U) != 0;
    }

    /// @return null where there is no such memory
    [[nodiscard]] static void* allocate(size_t size) noexcept;
    /// @param size  at least MinimumSize
    /// @return the block that takes the other one's place; null, with that one as it was, where there is no
    /// such
    ///     memory
    [[nodiscard]] static void* reallocate(void* block, size_t size) noexcept;
    static void release(void* block) noexcept;

private:
    /// Of a block in its mapping, whose size stands at its begin.
    static constexpr size_t Offset = 128;
};

} // namespace zel
