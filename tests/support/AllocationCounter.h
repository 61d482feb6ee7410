#pragma once

// Takes the place of the C library's malloc, through which operator new and our allocator both go: to be
// included by one source of a test executable, and by none under the sanitizers, which have a malloc of their
// own.

#include <atomic>
#include <cstddef>

namespace zelTest::detail {

inline std::atomic<bool> s_counting{false};
inline std::atomic<std::size_t> s_allocations{0};

} // namespace zelTest::detail

extern "C" void* __libc_malloc(std::size_t size);

extern "C" void* malloc(std::size_t size) {
    using namespace zelTest::detail;
    if (s_counting.load(std::memory_order_relaxed))
        s_allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}

namespace zelTest {

/// How often the work calls malloc, on any thread.
template <typename Work>
std::size_t allocationsOf(const Work& work) {
    // The default order: what the work's threads count is seen here.
    detail::s_allocations = 0;
    detail::s_counting = true;
    work();
    detail::s_counting = false;
    return detail::s_allocations;
}

} // namespace zelTest
