#include <zel/WaitJob.h>

namespace zel {

// The target may run while a waiter comes or goes, so waiters are not among its dependents, which no lock
// guards, but in a list of their own under one lock for all jobs. A job without waiters pays one load for it.
//
// A wait job runs in place, on the thread that finished its target, and through no queue: a thread that
// leaves the work loop could leave it behind, and the waiting thread, once woken, could destroy it under the
// hands of the thread that runs it. Here the lock is held until the last touch, and the destructor takes it.
namespace {
constinit RankedMutex<LockRank::Waiters> s_waiterMutex;
} // namespace

WaitJob::WaitJob(Job* target) : Job("Wait"), m_target(target) {
    m_callback = [this] { release(); };
    m_priority = Priority;
    m_numDependencies.store(1, std::memory_order_relaxed);
    m_dependencies.push_back(target);

    const std::lock_guard lock(s_waiterMutex);
    m_nextWaiter = target->m_waiters.load(std::memory_order_relaxed); // written under the lock only
    // Release: pairs with the acquire in Job::execute.
    target->m_waiters.store(this, std::memory_order_release);
}

WaitJob::~WaitJob() {
    const std::lock_guard lock(s_waiterMutex);
    WaitJob* waiter = m_target->m_waiters.load(std::memory_order_relaxed); // written under the lock only
    if (waiter == this) {
        m_target->m_waiters.store(m_nextWaiter, std::memory_order_release);
        return;
    }
    while (waiter->m_nextWaiter != this)
        waiter = waiter->m_nextWaiter;
    waiter->m_nextWaiter = m_nextWaiter;
}

void WaitJob::finish(Job& job, VectorPOD<Job*>& localJobs, Thread* thread) {
    // Whoever waits may free the target once it is let go, so the dependents come first. They may be what
    // somebody else waits for to free the target; but a target outlives its wait jobs, and these the lock.
    const std::lock_guard lock(s_waiterMutex);
    job.resolveDependents(localJobs);
    for (WaitJob* waiter = job.m_waiters.load(std::memory_order_relaxed); waiter != nullptr;
         waiter = waiter->m_nextWaiter) {
        waiter->m_executingThread = thread;
        waiter->startTiming();
        waiter->implementation();
        waiter->stopTiming();
    }
}

void WaitJob::wait() {
    const std::lock_guard lock(m_mutex);
    m_mutex.wait(m_condition, [this] { return m_released; });
    m_released = false;
}

void WaitJob::release() {
    const std::lock_guard lock(m_mutex);
    m_released = true;
    m_condition.notify_all();
}

} // namespace zel
