#include "StackLeft.h"

#include <pthread.h>

namespace zelStream {

namespace {

struct StackBounds {
    zel::uint64 low = 0;
    zel::uint64 high = 0; ///< equal to low where the system does not tell

    StackBounds() noexcept {
        pthread_attr_t attributes;
        if (pthread_getattr_np(pthread_self(), &attributes) != 0)
            return;
        void* address = nullptr;
        std::size_t size = 0;
        if (pthread_attr_getstack(&attributes, &address, &size) == 0) {
            low = reinterpret_cast<zel::uint64>(address);
            high = low + size;
        }
        pthread_attr_destroy(&attributes);
    }
};

} // namespace

zel::uint64 stackFloor() noexcept {
    thread_local const StackBounds bounds;
    const auto here = reinterpret_cast<zel::uint64>(__builtin_frame_address(0));
    return here >= bounds.low && here < bounds.high ? bounds.low + SmallestStack : 0;
}

} // namespace zelStream
