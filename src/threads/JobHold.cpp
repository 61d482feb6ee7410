#include <zel/Job.h>

#include <mutex>

// A task that is executed while it is part of a run as well.
//
// A run starts a task by edges: the last dependency of the task's first job queues it. Task::execute starts
// the same jobs without edges. The two take turns, without a thread that waits in a first job: who executes
// the task holds the first job back, so that the last dependency queues nothing, and queues the job itself at
// its end if the dependencies have come meanwhile. The state of the first job is its number of resolved
// dependencies: a count, HeldBack with a count, or Started from the last dependency until the last job is
// done. These steps change it:
//
//   resolve      count -> count + 1, an addition; HeldBack stays, and then no sum is the last one
//                -> Started, a store, by the one whose sum was the last
//   holdBack     count -> HeldBack + count, a comparison and exchange; never from Started
//   letGo        HeldBack + count -> count, a subtraction
//                -> Started, a store, if the count was complete
//   finishTask   Started -> 0, a store
//
// Only one thread at a time holds a task back: Task::execute claims the task first. While the state is
// Started nobody else changes it: holdBack keeps off, and a dependency counts for the next pass only when
// the task has passed this one on. So the stores of finishTask and letGo meet nobody.
//
// The store of resolve may meet a holdBack that comes right behind the sum: it takes the mark away. holdBack
// finds that out. It reads the number of dependencies after it has set the mark, and then the mark once
// more. If the mark is still there, the store has not come before that, so the pass whose count it found was
// not over, and the number is that of the pass: whoever takes edges out for a run does so while the count is
// 0, before the run and after it, and each count carries on what was written ahead of it. If the count it
// found is that number, the store is under way, and the task is as good as started; until the store comes,
// the mark that is still there tells the next one to keep off. Else there is none, the mark stays, and of two
// that come at the same time, the last dependency and letGo, just one finds the count complete, as both add
// to one number.
//
// The last job reads the mark to know whose run it ends. Either nobody can set it, since the state is
// Started, or it stays for the whole of the run that execute() began.

namespace zel {

constinit RankedMutex<LockRank::TaskEdges, SpinMutex> Job::s_edges;

bool Job::holdBack() noexcept {
    uint32 state = m_numResolved.load(std::memory_order_acquire);
    do {
        if ((state & (Started | HeldBack)) != 0)
            return false;
        // Acquire: pairs with the release of finishTask, and with the additions of resolve, so that what the
        // run before has written is seen.
    } while (!m_numResolved.compare_exchange_weak(
        state, state | HeldBack, std::memory_order_acq_rel, std::memory_order_acquire));
    // Acquire: the look at the mark stays behind it.
    const bool isComplete = state != 0 && state == m_numDependencies.load(std::memory_order_acquire);
    return !isComplete && (m_numResolved.load(std::memory_order_acquire) & HeldBack) != 0;
}

bool Job::letGo() noexcept {
    // Acquire and release: the run that starts now, here or by the last dependency, sees what this one wrote.
    const uint32 count = m_numResolved.fetch_sub(HeldBack, std::memory_order_acq_rel) - HeldBack;
    if (count == 0 || count != getNumDependencies())
        return false;
    m_numResolved.store(Started, std::memory_order_relaxed); // the queue carries it on
    return true;
}

void Job::finishTask(VectorPOD<Job*>& localJobs) {
    std::atomic<uint32>& state = m_firstOfTask->m_numResolved;
    const uint32 before = state.load(std::memory_order_relaxed); // see above
    if ((before & HeldBack) == 0) {
        // Release: pairs with holdBack. Nothing here is changed by whoever executes the task next.
        if (before == Started)
            state.store(0, std::memory_order_release);
        resolveAll(localJobs);
        return;
    }
    // The others of its group, or of its frame, do not belong to this run.
    const std::lock_guard lock(s_edges);
    for (Job* dependent : m_dependents)
        if (!dependent->m_startsTask && !dependent->m_endsGroup && dependent->resolve())
            localJobs.push_back(dependent);
}

} // namespace zel
