#include <zel/Task.h>
#include <zel/Thread.h>
#include <zel/Verify.h>

#include <sched.h>

#include <stdexcept>
#include <utility>

// How a thread executes tasks: the frames of those that it waits for.

namespace zel {

constinit std::atomic<uint64> Thread::s_numHolds{0};
constinit bool Thread::s_taskLost = false;
const Callback1<Task*>& Thread::s_taskCompletionCallback = *new Callback1<Task*>(&Thread::taskCompleted);

bool Thread::isActive(const Task* task) {
    return task->m_activePlace < s_activeTasks.size() && s_activeTasks[task->m_activePlace] == task;
}

bool Thread::eraseActive(const Task* task) {
    if (!isActive(task))
        return false;
    Task* const last = s_activeTasks.back();
    last->m_activePlace = task->m_activePlace;
    s_activeTasks[task->m_activePlace] = last;
    s_activeTasks.pop_back();
    return true;
}

void Thread::addTask(Task* task) {
    beginTask(task, false);
}

void Thread::beginTask(Task* task, bool inHand) {
    std::unique_lock lock(s_sharedMutex);
    Thread* thread = task->getThread();
    zelVerify(thread);
    zelVerify(thread == Thread::getCurrentThread());
    // A change of the pool waits for the threads that are at work: these go on, and the workers with them.
    s_sharedMutex.wait(s_changed, [thread] { return !s_changing || thread->m_workDepth > 0; });
    if (s_changing && s_activeTasks.empty())
        s_shutdown.store(false, std::memory_order_seq_cst);
    const uint64 numFrames = thread->m_numFrames.load(std::memory_order_relaxed); // the caller's own
    zelVerifyAs(numFrames < ZEL_THREAD_FRAME_STACK_MAX_DEPTH,
                "thread->m_numFrames < ZEL_THREAD_FRAME_STACK_MAX_DEPTH");
    Frame& frame = thread->m_frames[numFrames];
    frame.task = task;
    frame.done.store(false, std::memory_order_relaxed); // published with the depth
    thread->m_numFrames.store(numFrames + 1, std::memory_order_release);

    const size_t numActive = s_activeTasks.size();
    zelVerifyAs(!isActive(task), "!s_activeTasks.contains(task)");
    task->m_activePlace = numActive;
    s_activeTasks.push_back(task);
    task->m_completes = true;
    Job* const first = task->getPreJob();
    // A job that would be the only one of the queue needs none.
    if (inHand && thread->m_inHand == nullptr && !thread->m_sharedLock.hasJobs() && thread->runsHere(first))
        thread->m_inHand = first;
    else
        thread->spawn(first);
    if (numActive == 0 && task->m_parallel)
        for (Thread* sleeper : s_sleepingThreads)
            sleeper->activate();
}

void Thread::taskCompleted(Task* task) {
    const std::lock_guard lock(s_sharedMutex);
    static_cast<void>(eraseActive(task));
    if (s_changing && s_activeTasks.empty())
        s_shutdown.store(true, std::memory_order_seq_cst);
    if (Thread* thread = task->getThread(); thread != nullptr)
        thread->markFrameDone(task);
}

void Thread::completeFrame(Task* task) {
    const std::lock_guard lock(s_sharedMutex);
    markFrameDone(task);
}

void Thread::markFrameDone(Task* task) {
    // Frames are pushed under s_sharedMutex, which is held here. An old depth that is too large shows tasks
    // that are complete, never the wrong one.
    for (uint64 i = m_numFrames.load(std::memory_order_acquire); i-- > 0;) {
        if (m_frames[i].task == task) {
            if (this == getCurrentThread()) {
                // Reads it itself, and is awake: the call is made up for at the end of the work loop.
                m_frames[i].done.store(true, std::memory_order_relaxed);
                m_calledItself = true;
                return;
            }
            // Sequentially consistent: pairs with topFrameDone; see the argument in ThreadWork.cpp.
            m_frames[i].done.store(true, std::memory_order_seq_cst);
            activate();
            return;
        }
    }
    zelAbort("Unable to find task '%s' in frame stack of thread %d",
             task->getPath().c_str(),
             static_cast<int32>(getId()));
}

/// Makes the work loop work for one frame, for the time of the scope.
class Thread::AwaitScope {
public:
    AwaitScope(Frame*& awaited, Frame* frame) noexcept
        : m_awaited(awaited), m_outer(std::exchange(awaited, frame)) {}
    AwaitScope(const AwaitScope&) = delete;
    AwaitScope& operator=(const AwaitScope&) = delete;
    ~AwaitScope() { m_awaited = m_outer; }

private:
    Frame*& m_awaited;
    Frame* m_outer;
};

void Thread::blockingDoWork() {
    uint64 numFrames = m_numFrames.load(std::memory_order_relaxed); // the thread's own
    zelVerifyAs(numFrames > 0, "m_numFrames > 0");
    const uint64 frameIndex = numFrames - 1;
    const AwaitScope scope(m_awaited, &m_frames[frameIndex]);
    while (!topFrameDone()) {
        doWork();
        numFrames = m_numFrames.load(std::memory_order_relaxed);
        zelVerifyNAs(frameIndex == numFrames - 1,
                     "frameIndex == m_numFrames-1",
                     "Frame stack error in task %s",
                     m_frames[frameIndex].task->getPath().c_str());
        if (!topFrameDone() && m_activationCount.load(std::memory_order_seq_cst) == 0 &&
            !s_shutdown.load(std::memory_order_seq_cst))
            sleep();
    }
    // Relaxed: a hold is taken under the lock under which the frame was marked done, before that.
    if (frameIndex == 0 && s_numHolds.load(std::memory_order_relaxed) != 0 && getId() == 0)
        stayWhileHeld();
    m_numFrames.store(frameIndex, std::memory_order_release);
    if (m_workDepth == 0)
        leaveTask();
}

void Thread::stayWhileHeld() {
    const AwaitScope scope(m_awaited, &m_neverDone);
    while (s_numHolds.load(std::memory_order_seq_cst) != 0) {
        doWork();
        // In this order: see the argument in ThreadWork.cpp, in which the number of holds stands for the
        // frame.
        if (s_numHolds.load(std::memory_order_seq_cst) != 0 && !m_sharedLock.hasJobs() &&
            m_activationCount.load(std::memory_order_seq_cst) == 0)
            sleep();
    }
}

Thread::MainThreadHold::MainThreadHold() {
    Thread* const thread = s_mainThread.load(std::memory_order_acquire);
    if (thread == nullptr || thread == getCurrentThread())
        return;
    const std::lock_guard lock(s_sharedMutex);
    const bool atWork = s_numHolds.load(std::memory_order_relaxed) != 0 ||
                        (thread->m_numFrames.load(std::memory_order_acquire) != 0 &&
                         !thread->m_frames[0].done.load(std::memory_order_relaxed));
    if (!atWork)
        throw std::runtime_error("A task with a job for each thread needs the main thread, which executes no "
                                 "task now: execute it on the main thread, or within a task of that thread");
    s_numHolds.fetch_add(1, std::memory_order_seq_cst);
    m_thread = thread;
}

Thread::MainThreadHold::~MainThreadHold() {
    if (m_thread == nullptr)
        return;
    const std::lock_guard lock(s_sharedMutex);
    s_numHolds.fetch_sub(1, std::memory_order_seq_cst);
    m_thread->activate();
}

void Thread::forgetTask(Task* task) {
    const std::lock_guard lock(s_sharedMutex);
    if (eraseActive(task))
        s_taskLost = true;
}

/// Waits, at work, for a run of the task that this thread has begun further down its stack, before it picked
/// up the present job, which executes the task as well.
void Thread::finishEarlierRun(Task* task) {
    uint64 index = m_numFrames.load(std::memory_order_relaxed);
    while (index > 0 && m_frames[index - 1].task != task)
        --index;
    if (index == 0 || m_frames[index - 1].done.load(std::memory_order_seq_cst))
        return;
    zelVerifyAs(!worksFor(task), "!s_activeTasks.contains(task)");
    const AwaitScope scope(m_awaited, &m_frames[index - 1]);
    while (!topFrameDone()) {
        doWork();
        if (!topFrameDone() && m_activationCount.load(std::memory_order_seq_cst) == 0)
            sleep();
    }
}

void Thread::workOrYield() {
    if (!m_sharedLock.hasJobs() && m_numPushed.load(std::memory_order_seq_cst) == 0) {
        sched_yield();
        return;
    }
    // Others may wait for these, and nobody steals them from a thread outside the pool.
    const AwaitScope scope(m_awaited, &m_neverDone);
    doWork();
}

void Thread::leaveTask() {
    handJobsOver();
    performPendingChange();
}

void Thread::verifyLastFrame(const Task* task) const {
    const Frame& frame = m_frames[m_numFrames.load(std::memory_order_relaxed)];
    zelVerifyN((frame.task == task && frame.done.load(std::memory_order_relaxed)) || Thread::isShuttingDown(),
               "%s: Frame stack inconsistency in thread %d",
               task->getPath().c_str(),
               static_cast<int32>(getId()));
}

void Thread::spawnForOthers(Job* job) {
    spawn(job);
    if (m_workDepth == 0)
        handJobsOver();
    else if (s_numSleeping.load(std::memory_order_seq_cst) != 0)
        wakeupThreads();
}

void Thread::handJobsOver() {
    // What comes later is for the next task, or for who works here then.
    if (!m_sharedLock.hasJobs() && m_numPushed.load(std::memory_order_seq_cst) == 0)
        return;
    {
        const std::lock_guard lock(m_sharedLock);
        if (const uint32 count = m_numPushed.load(std::memory_order_seq_cst); count != 0)
            takePushedJobs(count);
        if (m_sharedJobs.empty())
            return;
    }
    std::unique_lock lock(s_sharedMutex);
    s_sharedMutex.wait(s_changed, [] { return !s_changing; });
    // Whoever receives a job stays until the job's task is complete: a worker always does, and a thread that
    // executes an active task passes on, here, what it does not get to; completing a task takes
    // s_sharedMutex.
    const auto numThreads = static_cast<uint32>(getNumThreads());
    Thread* waiting = nullptr;
    for (Task* task : s_activeTasks)
        if (task->getThread() != this)
            waiting = task->getThread();
    // Who looks for work finds what lies with a thread of the pool, and only there. A thread outside of it
    // may have been dealt jobs that belong to no task, and may be about to go.
    if (waiting == nullptr && getId() < numThreads)
        return;
    const std::lock_guard ownLock(m_sharedLock);
    giveJobsAway(numThreads, waiting);
}

/// Hands on what need not run on this thread: to the workers of a pool of that size; without any, to a thread
/// that waits for its task, or else to the main thread, from whose queue it can be stolen. The caller holds
/// s_sharedMutex and this thread's queue.
void Thread::giveJobsAway(uint32 numThreads, Thread* waiting) {
    for (uint32 i = 0; !m_sharedJobs.empty(); ++i) {
        Job* job = m_sharedJobs.pop(Job::NoHome);
        if (Thread* target = job->m_targetThread; target == this) {
            m_localJobs.push_back(job);
        } else if (target != nullptr) {
            pushTargetJob(target, job, true);
        } else if (Thread* taker = numThreads > 1 ? getThread(1 + i % (numThreads - 1)) : waiting) {
            pushTargetJob(taker, job, true);
        } else {
            Thread* const mainThread = getThread(0);
            {
                const std::lock_guard lock(mainThread->m_sharedLock);
                mainThread->m_sharedJobs.push(job);
            }
            mainThread->activate();
        }
    }
    takeLocalJobs();
}

} // namespace zel
