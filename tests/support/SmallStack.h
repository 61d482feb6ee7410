#pragma once

#include <pthread.h>

#include <cstddef>
#include <exception>
#include <stdexcept>

namespace zelTest {

/// Calls the function on a thread with a stack of its own, whatever the main thread has: that one's may be
/// unlimited, and ThreadSanitizer keeps books of 65,536 nested calls only. What the function throws comes
/// back.
template <typename Function>
void onSmallStack(Function&& function) {
    // A sanitizer has up to 1 MiB of it for itself.
    constexpr std::size_t Size = std::size_t{4} << 20;
    struct Call {
        Function& function;
        std::exception_ptr exception;
    } call{function, nullptr};
    const auto work = [](void* argument) -> void* {
        auto& it = *static_cast<Call*>(argument);
        try {
            it.function();
        } catch (...) {
            it.exception = std::current_exception();
        }
        return nullptr;
    };
    pthread_attr_t attributes;
    pthread_t thread{};
    if (pthread_attr_init(&attributes) != 0)
        throw std::runtime_error("No thread attributes");
    const bool isRunning = pthread_attr_setstacksize(&attributes, Size) == 0 &&
                           pthread_create(&thread, &attributes, work, &call) == 0;
    pthread_attr_destroy(&attributes);
    if (!isRunning)
        throw std::runtime_error("No thread with a stack of 4 MiB");
    pthread_join(thread, nullptr);
    if (call.exception)
        std::rethrow_exception(call.exception);
}

} // namespace zelTest
