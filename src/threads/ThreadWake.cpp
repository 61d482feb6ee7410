#include <zel/Thread.h>

#include <pthread.h>
#include <sched.h>

// On which processor a worker wakes up.
//
// A thread that has just woken up itself and then wakes a worker passes for the worker's partner: Linux puts
// the worker on the caller's processor, where it waits until the caller's time slice is over, milliseconds
// later, while another processor idles. So the caller takes its own processor out of the worker's set ahead
// of the wake, and the worker puts the set back as soon as it runs.
//
// The set may be somebody else's: a worker bound to the caller's processor alone stays there; and what is
// changed while the worker is on its way is left as it is. Only workers are treated so, since the other
// threads are not ours.

namespace zel {

/// For a worker that waits for its sleep signal, of which the caller holds the lock.
void Thread::leaveCallersProcessor() noexcept {
    if (!isWorker())
        return;
    const int processor = sched_getcpu();
    if (processor < 0 || processor >= CPU_SETSIZE)
        return;
    if (pthread_getaffinity_np(m_handle, sizeof(m_processors), &m_processors) != 0)
        return;
    const auto place = static_cast<size_t>(processor);
    if (!CPU_ISSET(place, &m_processors) || CPU_COUNT(&m_processors) < 2)
        return;
    cpu_set_t others = m_processors;
    CPU_CLR(place, &others);
    // Refused if the system has taken the others away meanwhile.
    if (pthread_setaffinity_np(m_handle, sizeof(others), &others) == 0)
        m_leftProcessor = processor;
}

/// On the worker itself, which holds the lock of its sleep signal.
void Thread::returnToProcessors() noexcept {
    if (m_leftProcessor < 0)
        return;
    cpu_set_t others = m_processors;
    CPU_CLR(static_cast<size_t>(m_leftProcessor), &others);
    m_leftProcessor = -1;
    cpu_set_t present;
    const bool unchanged = pthread_getaffinity_np(pthread_self(), sizeof(present), &present) == 0 &&
                           CPU_EQUAL(&present, &others) != 0;
    // Fails only if the system allows none of them any more; the set is then the system's.
    if (unchanged)
        static_cast<void>(pthread_setaffinity_np(pthread_self(), sizeof(m_processors), &m_processors));
}

} // namespace zel
