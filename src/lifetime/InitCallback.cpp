#include "ShutdownStep.h"

#include <zel/InitCallback.h>
#include <zelCore/zelCore.h>

namespace zel {

namespace {

// Constant-initialised: static records of any translation unit may come first.
constinit detail::CallbackRecord* s_firstInit = nullptr;
constinit detail::CallbackRecord* s_firstShutdown = nullptr;

/// The way through a list that is going on, and those that it goes on in.
struct Walk {
    const detail::CallbackRecord* next;
    Walk* outer;
};
constinit Walk* s_walk = nullptr;

} // namespace

namespace detail {

CallbackRecord::CallbackRecord(CallbackRecord*& first, void (*function)()) noexcept
    : m_function(function), m_next(first) {
    first = this;
}

void CallbackRecord::unlink(CallbackRecord*& first) noexcept {
    CallbackRecord** link = &first;
    while (*link != nullptr && *link != this)
        link = &(*link)->m_next;
    if (*link == this)
        *link = m_next;
    for (Walk* walk = s_walk; walk != nullptr; walk = walk->outer)
        if (walk->next == this)
            walk->next = m_next;
}

void CallbackRecord::trigger(const CallbackRecord* first, void (*call)(void (*function)())) {
    // A function may end its own record, or the next one.
    Walk* const outer = s_walk;
    Walk walk{first, outer};
    s_walk = &walk;
    struct Restore {
        ~Restore() { s_walk = walk; }
        Walk* walk;
    } const restore{outer};
    while (const CallbackRecord* record = walk.next) {
        walk.next = record->m_next;
        call(record->m_function);
    }
}

} // namespace detail

InitCallback::InitCallback(void (*function)()) : CallbackRecord(s_firstInit, function) {
    if (!zelCore::isShutdown())
        function();
}

InitCallback::~InitCallback() {
    unlink(s_firstInit);
}

void InitCallback::triggerInit() {
    trigger(s_firstInit, [](void (*function)()) { function(); });
}

ShutdownCallback::ShutdownCallback(void (*function)()) noexcept : CallbackRecord(s_firstShutdown, function) {}

ShutdownCallback::~ShutdownCallback() {
    unlink(s_firstShutdown);
}

void ShutdownCallback::triggerShutdown() {
    trigger(s_firstShutdown,
            [](void (*function)()) { detail::attemptShutdown("a shutdown callback", function); });
}

StaticShutdown::~StaticShutdown() {
    m_function();
}

} // namespace zel
