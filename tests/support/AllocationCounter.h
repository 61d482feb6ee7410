#pragma once

// Takes the place of the C library's malloc, through which operator new and our allocator both go: to be
// included by one source of a test executable, and by none under the sanitizers, which have a malloc of their
// own.

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>

namespace zelTest::detail {

inline std::atomic<bool> s_counting{false};
inline std::atomic<std::size_t> s_allocations{0};
inline std::atomic<std::size_t> s_largest{0};

inline void noteSize(std::size_t size) noexcept {
    std::size_t largest = s_largest.load(std::memory_order_relaxed);
    while (size > largest && !s_largest.compare_exchange_weak(largest, size, std::memory_order_relaxed)) {
    }
}

} // namespace zelTest::detail

extern "C" void* __libc_malloc(std::size_t size);

extern "C" void* malloc(std::size_t size) {
    using namespace zelTest::detail;
    if (s_counting.load(std::memory_order_relaxed)) {
        s_allocations.fetch_add(1, std::memory_order_relaxed);
        noteSize(size);
    }
    return __libc_malloc(size);
}

// Our allocator takes large blocks as pages of their own.
extern "C" __attribute__((visibility("default"))) void*
mmap(void* address, std::size_t size, int protection, int flags, int file, off_t offset) {
    using namespace zelTest::detail;
    if (s_counting.load(std::memory_order_relaxed))
        noteSize(size);
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the system gives a number
    return reinterpret_cast<void*>(syscall(SYS_mmap, address, size, protection, flags, file, offset));
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

/// The size of the largest block that the work takes, on any thread. Blocks that grow in their place are not
/// seen.
template <typename Work>
std::size_t largestAllocationOf(const Work& work) {
    detail::s_largest = 0;
    static_cast<void>(allocationsOf(work));
    return detail::s_largest;
}

} // namespace zelTest
