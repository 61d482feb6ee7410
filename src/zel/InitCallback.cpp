#include <zel/InitCallback.h>
#include <zelCore/zelCore.h>

namespace zel {

namespace {

// Constant-initialised: static records of any translation unit may come first.
constinit detail::CallbackRecord* s_firstInit = nullptr;
constinit detail::CallbackRecord* s_firstShutdown = nullptr;

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
}

void CallbackRecord::trigger(const CallbackRecord* first) {
    for (const CallbackRecord* record = first; record != nullptr; record = record->m_next)
        record->m_function();
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
    trigger(s_firstInit);
}

ShutdownCallback::ShutdownCallback(void (*function)()) noexcept : CallbackRecord(s_firstShutdown, function) {}

ShutdownCallback::~ShutdownCallback() {
    unlink(s_firstShutdown);
}

void ShutdownCallback::triggerShutdown() {
    trigger(s_firstShutdown);
}

StaticShutdown::~StaticShutdown() {
    m_function();
}

} // namespace zel
