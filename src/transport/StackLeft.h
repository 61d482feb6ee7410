#pragma once

#include <zel/Integers.h>

namespace zelStream {

/// An object may be stored or restored while this much is left, which its own operations have to themselves.
constexpr zel::size_t SmallestStack = zel::size_t{256} * 1024;

/// How many bytes of the calling thread's stack are free. Unlimited where the frame lies on no stack of a
/// thread, as in a coroutine.
[[nodiscard]] zel::size_t stackLeft() noexcept;

} // namespace zelStream
