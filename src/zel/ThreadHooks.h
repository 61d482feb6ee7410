#pragma once

#include <zel/Notify.h>

#include <pthread.h>

#include <string>

/// What the lower storeys ask of the thread system.
namespace zel::detail {

inline void initThreadSystem() {}
inline void shutdownThreads() {}
inline void flushThreadLogs() {}
inline bool forcedShutdown() {
    return false;
}
/// The message state of the calling zel::Thread, or null.
inline Notify::ThreadData* currentNotifyData() {
    return nullptr;
}
inline std::string threadDescription() {
    return std::to_string(pthread_self()) + ", null";
}

} // namespace zel::detail
