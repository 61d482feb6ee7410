#include "Signals.h"

#include <signal.h>

#include <atomic>
#include <cerrno>
#include <system_error>

// The end that a user asks for.

namespace tool {

namespace {

/// Any thread may get the signal; nothing else is published by it.
constinit std::atomic<int> s_signal{0};
static_assert(std::atomic<int>::is_always_lock_free); // as a handler needs it

} // namespace

int endSignal() {
    return s_signal.load(std::memory_order_relaxed);
}

void endOnSignals() {
    struct sigaction action {};
    action.sa_handler = [](int number) { s_signal.store(number, std::memory_order_relaxed); };
    action.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND);
    for (const int number : {SIGINT, SIGTERM})
        if (sigaction(number, &action, nullptr) != 0)
            throw std::system_error(errno, std::generic_category(), "sigaction");
}

} // namespace tool
