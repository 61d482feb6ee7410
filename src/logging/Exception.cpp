#include <zel/Exception.h>
#include <zel/Log.h>

#include <atomic>

namespace zel {

namespace {

// A lone value: nothing is published through it.
constinit std::atomic<int> s_exceptionNotifyLevel{Notify::Warning};

} // namespace

InterruptException::InterruptException(const std::string& message) : std::runtime_error(message) {}

InterruptException::~InterruptException() = default;

void log_throw(const std::string& location, const std::string& what) {
    ZEL_LOG(static_cast<Notify::NotifyLevel>(getExceptionNotifyLevel()),
            "Exception thrown from " << location << ":  \"" << what << "\"");
}

int getExceptionNotifyLevel() {
    return s_exceptionNotifyLevel.load(std::memory_order_relaxed);
}

int setExceptionNotifyLevel(int level) {
    return s_exceptionNotifyLevel.exchange(level, std::memory_order_relaxed);
}

} // namespace zel
