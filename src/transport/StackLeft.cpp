#include "StackLeft.h"

#include <pthread.h>

#include <cstdint>

namespace zelStream {

namespace {

struct StackBounds {
    std::uintptr_t low = 0;
    std::uintptr_t high = 0; ///< equal to low where the system does not tell

    StackBounds() noexcept {
        pthread_attr_t attributes;
        if (pthread_getattr_np(pthread_self(), &attributes) != 0)
            return;
        void* address = nullptr;
        std::size_t size = 0;
        if (pthread_attr_getstack(&attributes, &address, &size) == 0) {
            low = reinterpret_cast<std::uintptr_t>(address);
            high = low + size;
        }
        pthread_attr_destroy(&attributes);
    }
};

} // namespace

zel::size_t stackLeft() noexcept {
    thread_local const StackBounds bounds;
    // The address of a local would lie elsewhere under a sanitizer that moves them to the heap.
    const auto here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
    return here >= bounds.low && here < bounds.high ? here - bounds.low : ~zel::size_t{0};
}

} // namespace zelStream
