#include <zel/ParallelTask.h>
#include <zel/Task.h>
#include <zel/Thread.h>
#include <zel/Verify.h>

// How a thread executes tasks: the frames of those that it waits for.

namespace zel {

const Callback1<Task*>& Thread::s_taskCompletionCallback = *new Callback1<Task*>(&Thread::taskCompleted);

void Thread::addTask(Task* task) {
    std::unique_lock lock(s_sharedMutex);
    s_changed.wait(lock, [] { return !s_changing; });
    Thread* thread = task->getThread();
    zelVerify(thread);
    zelVerify(thread == Thread::getCurrentThread());
    const uint64 numFrames = thread->m_numFrames.load(std::memory_order_relaxed); // the caller's own
    zelVerifyAs(numFrames < ZEL_THREAD_FRAME_STACK_MAX_DEPTH,
                "thread->m_numFrames < ZEL_THREAD_FRAME_STACK_MAX_DEPTH");
    Frame& frame = thread->m_frames[numFrames];
    frame.task = task;
    frame.done.store(false, std::memory_order_relaxed); // published with the depth
    thread->m_numFrames.store(numFrames + 1, std::memory_order_release);

    const size_t numActive = s_activeTasks.size();
    s_activeTasks.insert(task);
    zelVerifyAs(s_activeTasks.size() > numActive, "!s_activeTasks.contains(task)");
    task->m_completes = true;
    thread->spawn(task->getPreJob());
    if (numActive == 0 && !s_sleepingThreads.empty() && dynamic_cast<ParallelTask*>(task) != nullptr)
        for (Thread* sleeper : s_sleepingThreads)
            sleeper->activate();
}

void Thread::taskCompleted(Task* task) {
    const std::lock_guard lock(s_sharedMutex);
    s_activeTasks.erase(task);
    if (Thread* thread = task->getThread(); thread != nullptr)
        thread->completeFrame(task);
}

void Thread::completeFrame(Task* task) {
    // Frames are pushed under s_sharedMutex, which is held here. An old depth that is too large shows tasks
    // that are complete, never the wrong one.
    for (uint64 i = m_numFrames.load(std::memory_order_acquire); i-- > 0;) {
        if (m_frames[i].task == task) {
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

void Thread::blockingDoWork() {
    uint64 numFrames = m_numFrames.load(std::memory_order_relaxed); // the thread's own
    zelVerifyAs(numFrames > 0, "m_numFrames > 0");
    const uint64 frameIndex = numFrames - 1;
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
    m_numFrames.store(frameIndex, std::memory_order_release);
    if (m_workDepth == 0)
        leaveTask();
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

void Thread::handJobsOver() {
    {
        const std::lock_guard lock(m_sharedLock);
        if (const uint32 count = m_numPushed.load(std::memory_order_seq_cst); count != 0)
            takePushedJobs(count);
        if (m_sharedJobs.empty())
            return;
    }
    std::unique_lock lock(s_sharedMutex);
    s_changed.wait(lock, [] { return !s_changing; });
    // Whoever receives a job stays until the job's task is complete: a worker always does, and a thread that
    // executes an active task passes on, here, what it does not get to; completing a task takes
    // s_sharedMutex.
    const auto numThreads = static_cast<uint32>(getNumThreads());
    Thread* waiting = nullptr;
    for (Task* task : s_activeTasks)
        if (task->getThread() != this)
            waiting = task->getThread();
    if (waiting == nullptr)
        return;
    const std::lock_guard ownLock(m_sharedLock);
    for (uint32 i = 0; !m_sharedJobs.empty(); ++i) {
        Job* job = popSharedJob();
        Thread* target = job->m_targetThread;
        if (target == this)
            m_localJobs.push_back(job);
        else if (target != nullptr)
            pushTargetJob(target, job, true);
        else
            pushTargetJob(numThreads > 1 ? getThread(1 + i % (numThreads - 1)) : waiting, job, true);
    }
    takeLocalJobs();
}

} // namespace zel
