#include "Signals.h"

#include <signal.h>

#include <atomic>
#include <cerrno>
#include <system_error>

// The end that a user asks for.

namespace tool {

namespace {

/// Any thread may get the signals; nothing else is published by them.
constinit std::atomic<int> s_numSignals{0}, s_signal{0};
static_assert(std::atomic<int>::is_always_lock_free); // as a handler needs it

extern "C" void takeSignal(int number) {
    const int numBefore = s_numSignals.fetch_add(1, std::memory_order_relaxed);
    if (numBefore == 0) {
        s_signal.store(number, std::memory_order_relaxed);
    } else if (numBefore > 1) {
        (void)signal(number, SIG_DFL);
        (void)raise(number); // comes once this returns
    }
}

} // namespace

int endSignal() {
    return s_signal.load(std::memory_order_relaxed);
}

void endOnSignals() {
    struct sigaction action {};
    action.sa_handler = takeSignal;
    action.sa_flags = SA_RESTART;
    for (const int number : {SIGINT, SIGTERM})
        if (sigaction(number, &action, nullptr) != 0)
            throw std::system_error(errno, std::generic_category(), "sigaction");
}

} // namespace tool
