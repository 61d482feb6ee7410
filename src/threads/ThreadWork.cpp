#include "containers/GraphWalk.h"

#include <zel/CpuDevice.h>
#include <zel/SyncTag.h>
#include <zel/Task.h>
#include <zel/Thread.h>
#include <zel/Timer.h>
#include <zel/Verify.h>

#include <sched.h>

#include <algorithm>
#include <stdexcept>
#include <typeinfo>
#include <utility>

// The work loop, theft, and how threads fall asleep and wake.
//
// Why no wake-up is lost. A thread is called by `activate`, always after what it is called for has been
// stored: a pushed job and its count, a job dealt to its queue, or the `done` flag of a frame. All these
// stores and all operations on the activation count are sequentially consistent, or made under a lock that
// the thread takes before it looks. Take any call and where it falls:
//
// 1. The count was 0: the call raises it to 1 and sets the flag of the sleep signal. The flag stays until the
//    thread passes the wait in `sleep`, so the thread either finds the count above 0 and does not sleep, or
//    sleeps and is let through at once. `sleep` clears the flag only when it is through, and the thread then
//    looks at its frame and its queues.
// 2. The count was above 0: nobody is woken. Somebody who raised it from 0 is case 1, and the thread has
//    still to come through `sleep` or was never in it; what it looks at next, it looks at after the present
//    call stored it, or the present call comes after the look and finds the count that the look left behind.
//    That count is lowered in two places only. At the end of the work loop it is lowered by one, so a call
//    during the loop leaves it above 0, and the thread does not sleep. (A thread that has completed a task of
//    its own during the loop has called itself: one added and one taken off leave the count as it is.) In
//    `sleep` it is set to 0, after the thread has been entered in the list of sleepers under s_sharedMutex,
//    and *then* the pushed count is read: a job pushed with a call that fell before the 0 has its count
//    stored before it, and the read sees it.
// 3. The calls that could fall between a look and that 0 without a flag need a count above 0 there. A waiting
//    thread goes to sleep only when it has read 0 after its last look at the frame; whoever raises it
//    afterwards sets the flag. A worker may get there with a higher count while the system resizes its pool;
//    no task is active then, nobody waits for a frame, pushed jobs are found as in 2, and jobs are dealt only
//    to threads on the list of sleepers, under s_sharedMutex, hence after the 0. What the resize kept from
//    running is woken at its end.
// 4. Jobs that a thread keeps in its own queue call nobody while no thread sleeps, and one of those that look
//    for work may be about to give up, past its last look at that queue. So a thread looks once more on its
//    way to sleep, when it is counted among the sleepers. The owner of the queue sets the queue's flag and
//    then reads the count; the sleeper has raised the count and then reads the flag; all in one total order,
//    so that one sees the other. The queues are those of the pool, where the sleeper then goes on to steal,
//    and those of registered threads, which nobody steals from: there it deals out for their owners. A thread
//    that registers later does so under s_mutex, which the sleeper has held after it raised the count.

namespace zel {

constinit std::atomic<int32> Thread::s_numActiveThreads{0};
constinit Thread::ActiveTasksMutex Thread::s_sharedMutex;
Vector<Task*>& Thread::s_activeTasks = *new Vector<Task*>;
Vector<Thread*>& Thread::s_sleepingThreads = *new Vector<Thread*>;
constinit std::atomic<size_t> Thread::s_numSleeping{0};
std::exception_ptr& Thread::s_unhandledException = *new std::exception_ptr;

namespace {

// The times after which a thief gives the processor away between attempts, and gives up, in milliseconds.
constexpr double YieldTime = 0.05;
constexpr double GiveUpTime = 0.1;
// A theft moves half a dozen cache lines from the victim to the thief and back, which costs both more than a
// job that does next to nothing is worth. A thread whose last jobs were shorter than this lets a while pass
// before it steals again, twice as long with every such job, so that it does not keep its victim from being
// faster alone. In milliseconds.
constexpr double ShortJobTime = 200e-6;
constexpr double FirstPause = 0.001;
constexpr double LongestPause = 0.016;

} // namespace

// The queues

void Thread::spawn(Job* job) {
    Thread* target = job->m_targetThread;
    if (target != nullptr && target != this) {
        pushTargetJob(target, job, true);
        return;
    }
    const std::lock_guard lock(m_sharedLock);
    m_sharedJobs.push(job);
}

void Thread::pushTargetJob(Thread* target, Job* job, bool activate) {
    // The lock is held to the end: the job may be the last that a registered thread waits for, and that
    // thread takes the lock once more before it is destroyed.
    const std::lock_guard lock(target->m_pushedLock);
    target->m_pushedJobs.push_back(job);
    target->m_numPushed.fetch_add(1, std::memory_order_seq_cst);
    if (activate)
        target->activate();
}

void Thread::takePushedJobs(uint32 count) {
    const std::lock_guard lock(m_pushedLock);
    for (uint32 i = 0; i < count; ++i) {
        m_sharedJobs.push(m_pushedJobs.back());
        m_pushedJobs.pop_back();
    }
    m_numPushed.fetch_sub(count, std::memory_order_seq_cst);
}

// The work loop

/// One level of the work loop on a thread. Leaves it also when a job throws.
class Thread::Activity {
public:
    Activity(Thread& thread, uint64 tick) : m_thread(thread), m_tick(tick) {
        m_entered = m_thread.m_workDepth > 0 || enterOutermost();
        if (m_entered) {
            ++m_thread.m_workDepth;
            m_below = std::exchange(m_thread.m_activity, this);
        }
    }
    Activity(const Activity&) = delete;
    Activity& operator=(const Activity&) = delete;
    ~Activity() {
        if (m_entered)
            m_thread.m_activity = m_below;
        if (m_entered && --m_thread.m_workDepth == 0) {
            // A thread that has called itself, by completing a task of its own, adds one and takes one off.
            if (!std::exchange(m_thread.m_calledItself, false))
                m_thread.m_activationCount.fetch_sub(1, std::memory_order_seq_cst);
            s_numActiveThreads.fetch_sub(1, std::memory_order_seq_cst);
        }
        if (m_tick == 0 || isWatched())
            m_thread.m_overheadTimer.stop();
        else
            m_thread.m_overheadTimer.stop(m_tick);
    }

    [[nodiscard]] bool entered() const noexcept { return m_entered; }
    /// Whether somebody looks at the times. To read the clock takes as long as an empty job does.
    [[nodiscard]] static bool isWatched() noexcept {
        return Task::getProfilingMode() != Task::ProfilingOff || isTimelineOn();
    }
    /// The present time. Where a job follows at once on the one before, or on the begin of the loop, that is
    /// the time at which that was, unless somebody looks.
    [[nodiscard]] uint64 getTick() const noexcept {
        return m_tick == 0 || isWatched() ? Timer::now() : m_tick;
    }
    void setTick(uint64 tick) noexcept { m_tick = tick; }
    /// Time has passed.
    void forgetTick() noexcept { m_tick = 0; }
    void setJob(const Job* job) noexcept { m_job = job; }
    /// The job that the loop has called last, and that is at work if there is a loop above.
    [[nodiscard]] const Job* getJob() const noexcept { return m_job; }
    [[nodiscard]] const Activity* getBelow() const noexcept { return m_below; }

private:
    /// Counts the thread as active, unless the pool is being resized. Whoever resizes sets s_shutdown and
    /// then waits for the count to be zero; here the count is raised and then s_shutdown read, in one total
    /// order, so that one of the two sees the other.
    [[nodiscard]] bool enterOutermost() const {
        for (;;) {
            s_numActiveThreads.fetch_add(1, std::memory_order_seq_cst);
            if (!s_shutdown.load(std::memory_order_seq_cst))
                return true;
            s_numActiveThreads.fetch_sub(1, std::memory_order_seq_cst);
            if (m_thread.isWorker() || forcedShutdown())
                return false;
            std::unique_lock lock(s_sharedMutex);
            s_sharedMutex.wait(s_changed, [] { return !s_changing; });
        }
    }

    Thread& m_thread;
    uint64 m_tick; // of the last look at the clock; 0 if some time has passed since
    const Job* m_job = nullptr;
    Activity* m_below = nullptr;
    bool m_entered = false;
};

bool Thread::topFrameDone() const noexcept {
    const Frame* frame = m_awaited;
    if (frame == nullptr) {
        const uint64 numFrames = m_numFrames.load(std::memory_order_relaxed); // the owner's own
        if (numFrames == 0)
            return false;
        frame = &m_frames[numFrames - 1];
    }
    // Sequentially consistent: pairs with markFrameDone.
    return frame->done.load(std::memory_order_seq_cst);
}

bool Thread::worksFor(Task* task) const {
    const Job* const first = task->getPreJob();
    const Job* const last = task->getPostJob();
    bool found = false;
    for (const Activity* activity = m_activity; activity != nullptr && !found;
         activity = activity->getBelow()) {
        const Job* const start = activity->getJob();
        if (start == nullptr)
            continue;
        // What lies behind a job at work is at rest.
        walkGraph(start, [&found, first, last, start](const Job* job) {
            found = found || job == last;
            return found || (job == first && job != start) ? nullptr : &job->getDependents();
        });
    }
    return found;
}

Thread::Taken Thread::takeReadyJob(Job*& job, size_t& remaining) {
    Job* top = m_sharedJobs.pop(getId());
    if (SyncTag* tag = top->m_restricted ? top->m_syncTag.get() : nullptr;
        tag != nullptr && typeid(*tag) != typeid(CpuDevice::SyncTag)) {
        const int32 status = tag->getStatus();
        zelVerify(status != SyncTag::SYNC_TAG_ERROR);
        if (status == 0) {
            m_sharedJobs.push(top);
            return Taken::NotReady;
        }
    }
    job = top;
    remaining = m_sharedJobs.size();
    return Taken::Job;
}

Thread::Taken Thread::takeJob(Job*& job, size_t& remaining, Activity& activity) {
    const std::lock_guard lock(m_sharedLock);
    if (m_sharedJobs.empty()) {
        activity.forgetTick();
        stealIntoQueue();
    }
    if (m_sharedJobs.empty())
        return Taken::Nothing;
    const Taken taken = takeReadyJob(job, remaining);
    // What others have sent here comes when the queue is empty, which it may never be if it is waited for.
    if (const uint32 count = m_numPushed.load(std::memory_order_seq_cst);
        taken == Taken::NotReady && count != 0)
        takePushedJobs(count);
    return taken;
}

Job* Thread::queueLocalJobs(size_t& remaining) {
    if (m_localJobs.size() == 1 && !m_sharedLock.hasJobs() && runsHere(m_localJobs.back())) {
        // What would go through the queue alone need not.
        Job* const only = m_localJobs.back();
        m_localJobs.clear();
        remaining = 0;
        return only;
    }
    const std::lock_guard lock(m_sharedLock);
    for (Job* job : m_localJobs) {
        Thread* target = job->m_targetThread;
        if (target != nullptr && target != this)
            pushTargetJob(target, job, true);
        else
            m_sharedJobs.push(job);
    }
    m_localJobs.clear();
    Job* next = nullptr;
    if (!m_sharedJobs.empty())
        static_cast<void>(takeReadyJob(next, remaining));
    return next;
}

void Thread::workLoop() {
    if (m_id.load(std::memory_order_relaxed) == DiscardedMainThread)
        throw std::runtime_error("This thread is a discarded main thread!");
    const uint64 entryTick = Timer::now();
    m_overheadTimer.start(entryTick);
    // Where it is 1 already there is nothing to set; who calls meanwhile adds to it.
    if (m_activationCount.load(std::memory_order_seq_cst) != 1)
        m_activationCount.store(1, std::memory_order_seq_cst);
    Activity activity(*this, entryTick);
    if (!activity.entered())
        return;

    Job* job = std::exchange(m_inHand, nullptr);
    size_t remaining = 0; // length of the queue at the last pop
    m_theftPause = 0;
    while (!topFrameDone()) {
        if (job == nullptr) {
            const Taken taken = takeJob(job, remaining, activity);
            if (taken == Taken::Nothing)
                break;
            if (taken == Taken::NotReady) {
                // Whoever falls asleep waits for a look at the queue of a thread outside the pool, and all
                // who could make the job ready may be waiting for that: the lock must not be taken again at
                // once.
                sched_yield();
                // Who waits for something else than a frame looks after that: the job that makes this one
                // ready may lie below on the stack.
                if (m_awaited == &m_neverDone)
                    break;
                activity.forgetTick();
                continue;
            }
        }
        if (Thread* target = job->m_restricted ? job->m_targetThread : nullptr;
            target != nullptr && target != this) {
            pushTargetJob(target, job, true);
            job = nullptr;
            continue;
        }
        job->m_executingThread = this;
        m_queueLength = remaining;
        zelVerify(m_localJobs.empty());
        activity.setJob(job);
        const uint64 startTick = activity.getTick();
        m_overheadTimer.stop(startTick);
        const uint64 endTick = job->executeAt(startTick, m_localJobs, this);
        m_overheadTimer.start(endTick);
        activity.setTick(endTick);
        if (Timer::toMilliseconds(endTick - startTick) < ShortJobTime)
            m_theftPause = std::clamp(2 * m_theftPause, FirstPause, LongestPause);
        else
            m_theftPause = 0;
        // The job may be gone; the next one continues here, so that a chain of dependencies stays on its
        // core.
        if (m_localJobs.empty()) {
            job = nullptr;
            if (remaining == 0)
                continue;
        } else {
            job = queueLocalJobs(remaining);
            if (job == nullptr || remaining == 0)
                continue;
        }
        if (s_numSleeping.load(std::memory_order_seq_cst) != 0) {
            wakeupThreads();
            activity.forgetTick();
        }
    }
    if (job != nullptr) {
        // Not to be stranded on a thread that is leaving.
        {
            const std::lock_guard lock(m_sharedLock);
            m_sharedJobs.push(job);
        }
        wakeupThreads();
    }
}

void Thread::doWork() {
    // A worker that was on its way in has nothing more to do; it is no fault of its own.
    if (isWorker() && m_workDepth == 0 && forcedShutdown())
        return;
    zelVerifyNAs(!forcedShutdown(),
                 "!forcedShutdown()",
                 "ZEL was forcefully shutdown, further execution is not allowed!");
    try {
        workLoop();
    } catch (...) {
        // There is none when a cancelled thread unwinds, which is no failure of a job. To catch that by its
        // type would bind a reference to nothing.
        if (const std::exception_ptr exception = std::current_exception()) {
            Task::signalUnhandledException();
            {
                const std::lock_guard lock(s_sharedMutex);
                s_unhandledException = exception;
            }
            wakeupThreads();
        }
        throw;
    }
    performPendingChange();
}

// Theft

Thread* Thread::chooseVictim(uint32 numThreads, uint32& last) {
    const uint32 id = m_id.load(std::memory_order_relaxed);
    if (id == InvalidIndex && numThreads == 1)
        return getThread(0);
    if (id != InvalidIndex && numThreads <= 2)
        return numThreads == 2 ? getThread(1 - id) : nullptr;
    uint32 victim = 0;
    do {
        victim = m_random() % numThreads; // NOLINT(clang-analyzer-core.DivideZero): one thread at least
    } while (victim == last || victim == id);
    last = victim;
    return getThread(victim);
}

void Thread::stealWork() {
    const std::lock_guard lock(m_sharedLock);
    if (m_sharedJobs.empty())
        stealIntoQueue();
}

void Thread::stealIntoQueue() {
    if (topFrameDone())
        return;
    const uint64 start = Timer::now();
    const auto numThreads = static_cast<uint32>(getNumThreads());
    uint32 last = InvalidIndex;
    do {
        const double elapsed = Timer::toMilliseconds(Timer::now() - start);
        if (elapsed > YieldTime) {
            if (elapsed > GiveUpTime && m_numPushed.load(std::memory_order_seq_cst) == 0)
                return;
            // This processor is free now.
            if (s_numWithoutProcessor.load(std::memory_order_relaxed) != 0)
                returnAllToProcessors();
            sched_yield();
        }
        if (const uint32 count = m_numPushed.load(std::memory_order_seq_cst); count != 0) {
            takePushedJobs(count);
            return;
        }
        if (elapsed < m_theftPause)
            continue;
        // The victim's lock is tried and never waited for: two thieves, each under its own lock, would wait
        // for each other.
        Thread* victim = chooseVictim(numThreads, last);
        if (victim != nullptr && victim->m_sharedLock.try_lock()) {
            const std::lock_guard lock(victim->m_sharedLock, std::adopt_lock);
            if (!victim->m_sharedJobs.empty()) {
                zelVerify(m_sharedJobs.empty());
                m_sharedJobs.push(victim->m_sharedJobs.popFor(getId()));
                return;
            }
        }
    } while (!topFrameDone());
}

// Sleep

void Thread::activate() {
    if (m_activationCount.fetch_add(1, std::memory_order_seq_cst) > 0)
        return;
    {
        const std::lock_guard lock(m_timerLock);
        m_activationTimer.start();
    }
    m_sleepSignal.release([this] { leaveCallersProcessor(); });
}

bool Thread::othersHaveJobs() const noexcept {
    const auto numThreads = static_cast<uint32>(getNumThreads());
    for (uint32 i = 0; i < numThreads; ++i)
        if (const Thread* thread = getThread(i);
            thread != nullptr && thread != this && thread->m_sharedLock.hasJobs())
            return true;
    return false;
}

void Thread::sleep() {
    const bool noted = beginSleepEntry();
    bool called = false;
    {
        const std::lock_guard lock(s_sharedMutex);
        if (s_unhandledException)
            std::rethrow_exception(s_unhandledException);
        s_sleepingThreads.push_back(this);
        s_numSleeping.store(s_sleepingThreads.size(), std::memory_order_seq_cst);
        m_activationCount.store(0, std::memory_order_seq_cst);
        m_sleeping = true;
        // Not while threads come and go.
        if (!s_shutdown.load(std::memory_order_seq_cst)) {
            called = othersHaveJobs();
            dealOutForOutsiders();
        }
    }
    if (called)
        activate();
    m_idleTimer.start();
    if (m_numPushed.load(std::memory_order_seq_cst) == 0)
        m_sleepSignal.wait();
    m_sleepSignal.reset([this] { returnToProcessors(); });
    m_idleTimer.stop();
    {
        const std::lock_guard lock(m_timerLock);
        m_activationTimer.stop();
    }
    {
        const std::lock_guard lock(s_sharedMutex);
        Thread** position = s_sleepingThreads.find(this);
        *position = s_sleepingThreads.back();
        s_sleepingThreads.pop_back();
        s_numSleeping.store(s_sleepingThreads.size(), std::memory_order_seq_cst);
        m_sleeping = false;
    }
    m_activationCount.store(1, std::memory_order_seq_cst);
    if (noted)
        endSleepEntry();
}

void Thread::wakeupThreads() {
    const std::lock_guard sharedLock(s_sharedMutex);
    const std::lock_guard ownLock(m_sharedLock);
    dealOut();
}

/// For threads outside the pool, which thieves do not look at: they deal out themselves, after a job of
/// theirs, and may just be in a long one.
void Thread::dealOutForOutsiders() {
    const std::lock_guard lock(s_mutex);
    if (s_promotedThreads == nullptr)
        return;
    for (const auto& entry : *s_promotedThreads) {
        Thread* outsider = entry.key;
        // The lock is not waited for without a look at the queue: a thread that has run out of work holds it
        // nearly all the time.
        while (outsider != this && outsider->m_sharedLock.hasJobs()) {
            if (outsider->m_sharedLock.try_lock()) {
                const std::lock_guard queueLock(outsider->m_sharedLock, std::adopt_lock);
                outsider->dealOut();
                break;
            }
            sched_yield();
        }
    }
}

/// The caller holds s_sharedMutex and this thread's queue.
void Thread::dealOut() {
    m_nextInRing = this;
    size_t numChosen = 0;
    for (Thread* sleeper : s_sleepingThreads) {
        if (numChosen == m_sharedJobs.size())
            break;
        // One outside the pool, for which somebody else deals, may be on its way out of its sleep.
        if (sleeper == this)
            continue;
        const std::lock_guard lock(sleeper->m_sharedLock);
        if (!sleeper->m_sharedJobs.empty())
            continue;
        sleeper->m_nextInRing = m_nextInRing;
        m_nextInRing = sleeper;
        ++numChosen;
    }
    if (numChosen == 0)
        return;
    for (Thread* cursor = m_nextInRing; !m_sharedJobs.empty(); cursor = cursor->m_nextInRing) {
        Job* job = m_sharedJobs.pop(cursor->getId());
        // The owner's own scratch list is in use if somebody else deals.
        (job->m_targetThread == this || cursor == this ? m_keptJobs : cursor->m_localJobs).push_back(job);
    }
    for (Thread* sleeper = m_nextInRing; sleeper != this; sleeper = sleeper->m_nextInRing) {
        const std::lock_guard lock(sleeper->m_sharedLock);
        sleeper->takeLocalJobs();
        sleeper->activate();
    }
    for (Job* job : m_keptJobs)
        m_sharedJobs.push(job);
    m_keptJobs.clear();
}

void Thread::takeLocalJobs() {
    for (Job* job : m_localJobs)
        m_sharedJobs.push(job);
    m_localJobs.clear();
}

} // namespace zel
