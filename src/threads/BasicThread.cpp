#include <zel/BasicThread.h>

#include <sched.h>

namespace zel {

bool BasicThread::start() {
    const std::lock_guard lock(m_startMutex);
    if (m_thread.joinable())
        return false;
    setState(State::NotStarted);
    m_thread = std::thread([this] { launchThread(); });
    return true;
}

void BasicThread::launchThread() {
    {
        // Waits for start(), so that run() finds the handle in place.
        const std::lock_guard lock(m_startMutex);
        changeState(State::NotStarted, State::Running); // unless it has been detached already
    }
    run();
    setState(State::Finished);
}

bool BasicThread::join() {
    if (!m_thread.joinable())
        return false;
    m_thread.join();
    setState(State::Joined);
    return true;
}

bool BasicThread::detach() {
    if (!m_thread.joinable())
        return false;
    m_thread.detach();
    // What has ended stays so.
    if (!changeState(State::NotStarted, State::Detached))
        changeState(State::Running, State::Detached);
    return true;
}

bool BasicThread::cancel() {
    if (!m_thread.joinable() || pthread_cancel(m_thread.native_handle()) != 0)
        return false;
    setState(State::Cancelled);
    return true;
}

bool BasicThread::setThreadAffinity(uint64 mask) {
    cpu_set_t processors;
    CPU_ZERO(&processors);
    for (uint32 i = 0; i < 64; ++i)
        if ((mask >> i) & 1)
            CPU_SET(i, &processors);
    const pthread_t handle = m_thread.joinable() ? m_thread.native_handle() : pthread_self();
    return pthread_setaffinity_np(handle, sizeof(processors), &processors) == 0;
}

} // namespace zel
