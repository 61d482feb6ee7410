#include <zel/Log.h>
#include <zel/SystemInformation.h>
#include <zel/Thread.h>
#include <zel/Verify.h>

#include <sched.h>

#include <algorithm>
#include <cstdio>
#include <utility>

// The size of the pool, and its end.
//
// The pool is resized while no task is active and no thread is in the work loop: then nobody looks at another
// thread's queue. A job that is at work when the change begins may execute a task all the same: the change
// waits for the job, and while the task is active workers may enter the work loop again. s_sharedMutex cannot
// be held meanwhile, since a worker takes it on its way out of its sleep; so s_changing keeps tasks from
// starting, and s_shutdown keeps threads out of the work loop.

namespace zel {

constinit std::atomic<uint32> Thread::s_highestId{0};
constinit bool Thread::s_changing = false;
std::condition_variable& Thread::s_changed = *new std::condition_variable;
constinit std::atomic<int64> Thread::s_numThreadsPromise{-1};
constinit std::atomic<bool> Thread::s_shutdown{false};
constinit std::atomic<bool> Thread::s_forcedShutdown{false};

size_t getNumThreads() noexcept {
    // Acquire: pairs with the release in resizePool, so that the slots below are seen filled.
    return size_t{Thread::s_highestId.load(std::memory_order_acquire)} + 1;
}

size_t getNumThreadsIncludingRegistered() {
    const std::lock_guard lock(Thread::s_mutex);
    return getNumThreads() + (Thread::s_promotedThreads == nullptr ? 0 : Thread::s_promotedThreads->size());
}

bool forcedShutdown() noexcept {
    return Thread::s_forcedShutdown.load(std::memory_order_seq_cst);
}

void setNumThreads(size_t n) {
    {
        const std::lock_guard lock(Thread::s_sharedMutex);
        // A number above the limit comes to the same as the limit.
        Thread::s_numThreadsPromise.store(static_cast<int64>(std::min<size_t>(n, ZEL_MAX_NUM_THREADS)),
                                          std::memory_order_seq_cst);
    }
    Thread::performPendingChange();
}

void Thread::performPendingChange() {
    if (s_numThreadsPromise.load(std::memory_order_seq_cst) < 0)
        return;
    // A worker cannot end itself, and a thread inside the work loop would wait for itself: those leave the
    // change to the next thread that finds the system idle.
    const Thread* thread = getCurrentThread();
    if (thread != nullptr && (thread->isWorker() || thread->m_workDepth > 0))
        return;
    std::unique_lock lock(s_sharedMutex);
    s_sharedMutex.wait(s_changed, [] { return !s_changing; });
    if (s_activeTasks.empty())
        changeNumThreads(lock);
}

void Thread::performNumThreadsChange() {
    std::unique_lock lock(s_sharedMutex);
    s_sharedMutex.wait(s_changed, [] { return !s_changing; });
    changeNumThreads(lock);
}

void Thread::changeNumThreads(std::unique_lock<ActiveTasksMutex>& sharedLock) {
    const int64 promise = s_numThreadsPromise.exchange(-1, std::memory_order_seq_cst);
    if (promise < 0)
        return;
    const auto oldCount = static_cast<uint32>(getNumThreads());
    size_t newCount = static_cast<size_t>(promise);
    if (newCount == 0) {
        newCount = SystemInformation::getNumCpu();
        if (newCount == 0) {
            sharedLock.unlock();
            ZEL_LOG_WARNING("Could not determine number of CPUs. Number of threads remain at " << oldCount
                                                                                               << ".");
            return;
        }
    }
    newCount = std::min<size_t>(newCount, ZEL_MAX_NUM_THREADS);
    if (newCount == oldCount)
        return;

    s_shutdown.store(true, std::memory_order_seq_cst);
    zelVerify(s_activeTasks.empty());
    s_changing = true;
    sharedLock.unlock();
    try {
        waitUntilInactive();
        {
            const std::lock_guard lock(s_sharedMutex);
            for (auto id = static_cast<uint32>(newCount); id < oldCount; ++id)
                getThread(id)->leavePool(static_cast<uint32>(newCount));
        }
        resizePool(oldCount, static_cast<uint32>(newCount));
    } catch (...) {
        sharedLock.lock();
        endChange();
        throw;
    }
    sharedLock.lock();
    endChange();
}

void Thread::waitUntilInactive() {
    // Sequentially consistent: see Activity in ThreadWork.cpp.
    while (s_numActiveThreads.load(std::memory_order_seq_cst) > 0)
        sched_yield();
}

void Thread::endChange() {
    s_shutdown.store(false, std::memory_order_seq_cst);
    s_changing = false;
    s_changed.notify_all();
    // A worker that s_shutdown kept from a job dealt to it is asleep, with nobody to call it.
    const auto numThreads = static_cast<uint32>(getNumThreads());
    for (uint32 i = 1; i < numThreads; ++i) {
        Thread* thread = getThread(i);
        thread->m_sharedLock.lock();
        const bool hasWork = !thread->m_sharedJobs.empty();
        thread->m_sharedLock.unlock();
        if (hasWork)
            thread->activate();
    }
}

/// For a worker that is about to go, and may have been dealt jobs that belong to no task.
void Thread::leavePool(uint32 newCount) {
    const std::lock_guard lock(m_sharedLock);
    if (const uint32 count = m_numPushed.load(std::memory_order_seq_cst); count != 0)
        takePushedJobs(count);
    giveJobsAway(newCount, nullptr);
}

void Thread::resizePool(uint32 oldCount, uint32 newCount) {
    for (uint32 id = oldCount; id-- > newCount;) {
        Thread* thread = getThread(id);
        // Release: a reader of the smaller number needs nothing of the slots above.
        s_highestId.store(id - 1, std::memory_order_release);
        setThread(id, nullptr);
        delete thread;
    }
    for (uint32 id = oldCount; id < newCount; ++id) {
        auto* thread = new Thread(id);
        setThread(id, thread);
        try {
            zelVerify(thread->start());
        } catch (...) {
            // The system refuses more threads: the pool stays at what it has.
            setThread(id, nullptr);
            thread->m_id.store(InvalidIndex,
                               std::memory_order_relaxed); // never ran: there is nothing to stop
            delete thread;
            throw;
        }
        s_highestId.store(id, std::memory_order_release);
    }
}

void Thread::shutdown() {
    restoreMainThreadState();
    bool forced = false;
    {
        std::unique_lock lock(s_sharedMutex);
        s_sharedMutex.wait(s_changed, [] { return !s_changing; });
        s_shutdown.store(true, std::memory_order_seq_cst);
        forced = !s_activeTasks.empty() || s_taskLost;
        s_forcedShutdown.store(forced, std::memory_order_seq_cst);
        if (forced)
            s_activeTasks.clear();
        else
            s_changing = true;
    }
    if (forced) {
        killWorkers();
        return;
    }
    waitUntilInactive();
    resizePool(static_cast<uint32>(getNumThreads()), 1);
    HashTable<Thread*, uint32>* promoted = nullptr;
    {
        const std::lock_guard lock(s_mutex);
        promoted = std::exchange(s_promotedThreads, nullptr);
    }
    if (promoted != nullptr)
        for (const auto& entry : *promoted)
            delete entry.key;
    delete promoted;
    const std::lock_guard lock(s_sharedMutex);
    endChange();
}

void Thread::killWorkers() {
    std::printf("Forced shutdown detected, killing worker threads...\n");
    std::fflush(stdout);
    const auto numThreads = static_cast<uint32>(getNumThreads());
    for (uint32 i = 0; i < numThreads; ++i) {
        Thread* thread = getThread(i);
        if (thread == nullptr)
            continue;
        {
            const std::lock_guard lock(thread->m_sharedLock);
            thread->m_sharedJobs.clear();
        }
        {
            const std::lock_guard lock(thread->m_pushedLock);
            thread->m_pushedJobs.clear();
            thread->m_numPushed.store(0, std::memory_order_seq_cst);
        }
        if (i > 0)
            thread->cancel();
    }
}

} // namespace zel
