#pragma once

#include <zel/Integers.h>

namespace zelStream {

/// An object may be stored or restored while this much is left, which its own operations have to themselves.
constexpr zel::size_t SmallestStack = zel::size_t{256} * 1024;

/// The address below which less than that is left of the calling thread's stack; 0 where the frame lies on no
/// stack of a thread, as in a coroutine.
[[nodiscard]] zel::uint64 stackFloor() noexcept;

/// Whether the caller's frame lies below the floor of its thread's stack.
[[nodiscard]] inline bool isStackLow(zel::uint64 floor) noexcept {
    // The address of a local would lie elsewhere under a sanitizer that moves them to the heap.
    return reinterpret_cast<zel::uint64>(__builtin_frame_address(0)) < floor;
}

} // namespace zelStream
