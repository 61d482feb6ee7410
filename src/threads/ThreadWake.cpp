#include <zel/Thread.h>

#include <pthread.h>
#include <sched.h>

// On which processor a worker wakes up.
//
// A thread that has just woken up itself and then wakes a worker passes for the worker's partner: Linux puts
// the worker on the caller's processor, where it waits until the caller's time slice is over, milliseconds
// later, while another processor idles. So the caller takes its own processor out of the worker's set ahead
// of the wake, and the worker puts the set back as soon as it runs. Where other programs keep it from
// running, a thread that has run out of work does it instead: then there is a processor to be had.
//
// The set may be somebody else's: a worker bound to the caller's processor alone stays there; and what is
// changed while the worker is on its way is left as it is. Only workers are treated so, since the other
// threads are not ours, and only by threads that work for a task, which come to look for work.

namespace zel {

// Relaxed throughout: who reads an old number looks again soon.
constinit std::atomic<uint32> Thread::s_numWithoutProcessor{0};

/// For a worker that waits for its sleep signal, of which the caller holds the lock.
void Thread::leaveCallersProcessor() noexcept {
    const Thread* const caller = getCurrentThread();
    if (!isWorker() || caller == nullptr || caller->m_numFrames.load(std::memory_order_relaxed) == 0)
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
    if (pthread_setaffinity_np(m_handle, sizeof(others), &others) != 0)
        return;
    m_leftProcessor = processor;
    s_numWithoutProcessor.fetch_add(1, std::memory_order_relaxed);
}

/// For a worker of whose sleep signal the caller holds the lock: the worker itself, or somebody ahead of it.
void Thread::returnToProcessors() noexcept {
    if (m_leftProcessor < 0)
        return;
    cpu_set_t others = m_processors;
    CPU_CLR(static_cast<size_t>(m_leftProcessor), &others);
    m_leftProcessor = -1;
    s_numWithoutProcessor.fetch_sub(1, std::memory_order_relaxed);
    cpu_set_t present;
    const bool unchanged =
        pthread_getaffinity_np(m_handle, sizeof(present), &present) == 0 && CPU_EQUAL(&present, &others) != 0;
    // Fails only if the system allows none of them any more; the set is then the system's.
    if (unchanged)
        static_cast<void>(pthread_setaffinity_np(m_handle, sizeof(m_processors), &m_processors));
}

/// For a thread in the work loop: the pool stays as it is.
void Thread::returnAllToProcessors() {
    const auto numThreads = static_cast<uint32>(getNumThreads());
    for (uint32 i = 1; i < numThreads; ++i) {
        Thread* const worker = getThread(i);
        worker->m_sleepSignal.whileLocked([worker] { worker->returnToProcessors(); });
    }
}

} // namespace zel
