#pragma once

#include <zel/Integers.h>

namespace zelStream {

/// An object may be stored or restored while this much is left, which its own operations have to themselves.
constexpr zel::size_t SmallestStack = zel::size_t{256} * 1024;

/// The address below which less than that is left of the calling thread's stack; 0 where the frame lies on no
/// stack of a thread, as in a coroutine.
[[nodiscard]] zel::uint64 stackFloor() noexcept;

/// How many bytes of the stack lie between the caller's frame and the floor.
[[nodiscard]] inline zel::uint64 stackAbove(zel::uint64 floor) noexcept {
    // The address of a local would lie elsewhere under a sanitizer that moves them to the heap.
    const auto here = reinterpret_cast<zel::uint64>(__builtin_frame_address(0));
    return here < floor ? 0 : here - floor;
}

} // namespace zelStream
