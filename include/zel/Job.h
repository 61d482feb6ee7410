#pragma once

#include <zel/Callback.h>
#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/LockRank.h>
#include <zel/SpinMutex.h>
#include <zel/Timer.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>

#include <atomic>

namespace zel {

class ParallelTask;
class SyncTag;
class Task;
class Thread;
class WaitJob;

/// A piece of work that a thread runs in one go: a callback, a priority, and the jobs that it must wait for.
/// Jobs form a graph that can run any number of times. Owned by whoever made it; the edges are plain
/// pointers.
///
/// A job may be copied to make more of its kind. The copy has the same work, priority, target, task and tag,
/// and no edges.
/// @threads edges and settings are changed while neither job runs or lies in a queue; spawn and resolve any
///     thread of the system
class ZEL_CORE_API Job {
public:
    /// Of a job that any thread may as well run.
    static constexpr uint16 NoHome = static_cast<uint16>(-1);

    explicit Job(const char* name = "");
    explicit Job(Callback callback, const char* name = "", uint32 priority = 0);
    Job(const Job& other);
    Job& operator=(const Job& other);
    virtual ~Job();

    /// The work. Calls the callback if there is one.
    virtual void implementation();

    /// Puts the job in the queue of the calling thread, or of its target thread.
    /// @pre the calling thread is a zel::Thread
    void spawn();
    /// Tells that one of the dependencies is met.
    /// @return true if it was the last one: the job may run now, and counts anew for the next pass
    /// @threads any thread
    bool resolve() noexcept;
    /// Runs the job and appends each dependent that may run now to `localJobs`.
    /// @param thread  the calling thread
    void execute(VectorPOD<Job*>& localJobs, Thread* thread);

    /// Makes `job` wait for this one in every pass.
    void addDependent(Job* job);
    /// Takes one such edge away.
    /// @return whether there was one
    bool removeDependent(Job* job);
    /// Forgets all edges on both sides, and with them all counts. The neighbours keep theirs: for a job whose
    /// neighbours are forgotten as well.
    void clearDependencies();
    [[nodiscard]] const VectorPOD<Job*>& getDependents() const noexcept { return m_dependents; }
    [[nodiscard]] const VectorPOD<Job*>& getDependencies() const noexcept { return m_dependencies; }
    [[nodiscard]] uint32 getNumDependencies() const noexcept {
        return m_numDependencies.load(std::memory_order_relaxed); // changed while the job is at rest
    }

    /// How a clock or a dependency starts the job; by default Job::spawn.
    void setSpawnCallback(Callback callback) { m_spawnCallback = std::move(callback); }
    [[nodiscard]] const Callback& getSpawnCallback() const noexcept { return m_spawnCallback; }
    void setCallback(Callback callback) { m_callback = std::move(callback); }
    [[nodiscard]] const Callback& getCallback() const noexcept { return m_callback; }
    /// @param name  for reports; must outlive the job
    void setName(const char* name) noexcept { m_name = name; }
    [[nodiscard]] const char* getName() const noexcept { return m_name; }
    /// Jobs of higher priority leave a queue first; those of equal priority in no particular order.
    void setPriority(uint32 priority) noexcept { m_priority = priority; }
    [[nodiscard]] uint32 getPriority() const noexcept { return m_priority; }
    /// The only thread that may run the job; null for any. The thread must be at work, or be a worker.
    void setTargetThread(Thread* thread) noexcept {
        m_targetThread = thread;
        updateRestricted();
    }
    [[nodiscard]] Thread* getTargetThread() const noexcept { return m_targetThread; }
    /// The thread that gets the job first if several equal ones are to be had: one that takes the same piece
    /// of the work in each run finds its data in its cache. Others take the job when they have nothing
    /// better.
    /// @param id  of a thread of the pool, or NoHome
    void setHome(uint16 id) noexcept { m_home = id; }
    [[nodiscard]] uint16 getHome() const noexcept { return m_home; }
    /// The task that the job works for; for reports. Keeps the task alive.
    void setTask(Task* task);
    [[nodiscard]] Task* getTask() const noexcept { return m_task.get(); }
    /// The job stays queued until the tag is ready; null for no such wait.
    void setSyncTag(SyncTag* tag);
    [[nodiscard]] SyncTag* getSyncTag() const noexcept { return m_syncTag.get(); }
    /// A place for the memory pool that the job came from; -1 for none.
    void setPoolTag(int64 tag) noexcept { m_poolTag = tag; }
    [[nodiscard]] int64 getPoolTag() const noexcept { return m_poolTag; }

    /// The thread that runs the job, or ran it last.
    [[nodiscard]] Thread* getExecutingThread() const noexcept { return m_executingThread; }
    /// Time-stamp counter at the start of the last run. Of a run that followed at once on another job of the
    /// thread it is the end of that one, unless profiling or the timeline is on.
    [[nodiscard]] uint64 getStartTick() const noexcept { return m_startTick; }
    /// Ticks that the last run took.
    [[nodiscard]] uint64 getCycles() const noexcept { return m_cycles; }
    [[nodiscard]] bool isTiming() const noexcept { return m_timing; }

    /// Zeroes the cycles and starts the clock of this run.
    void startTiming(uint64 tick = Timer::now()) noexcept {
        m_timing = true;
        m_lastCycles = m_cycles;
        m_cycles = 0;
        m_startTick = tick;
    }
    /// Adds the ticks since startTiming, unless the clock is stopped already. For work that must not be
    /// counted to its end.
    void stopTiming(uint64 tick = Timer::now()) noexcept {
        if (m_timing) {
            m_timing = false;
            m_cycles += tick - m_startTick;
        }
    }

protected:
    friend class ParallelTask;
    friend class Task;
    friend class TaskGroup;
    friend class Thread;
    friend class WaitJob;

    /// As execute, with the time stamps shared with the caller's own clock.
    /// @return the tick at which the work was done
    uint64 executeAt(uint64 startTick, VectorPOD<Job*>& localJobs, Thread* thread);

    /// Tells those who wait for the job that it has run, and appends each dependent that may run now.
    void finish(VectorPOD<Job*>& localJobs, Thread* thread);
    /// Appends each dependent that may run now.
    void resolveDependents(VectorPOD<Job*>& localJobs);
    void resolveAll(VectorPOD<Job*>& localJobs);

    // One side of an edge alone, for the time of a run that the job at the other side is no part of.

    /// @return whether there was such an edge
    bool suspendDependent(const Job* job);
    void resumeDependent(Job* job) { m_dependents.push_back(job); }
    /// Dependencies more, or less, while the job is at rest.
    void changeNumDependencies(int32 change) noexcept {
        m_numDependencies.store(getNumDependencies() + static_cast<uint32>(change),
                                std::memory_order_relaxed);
    }

    // A task that is executed while it is part of a run as well: the argument stands in JobHold.cpp.

    static constexpr uint32 HeldBack = 1U << 31;
    static constexpr uint32 Started = 1U << 30;

    /// Makes the two jobs known as the first and the last one of a task; they may be the same.
    static void markTask(Job& first, Job& last) noexcept {
        first.m_startsTask = true;
        last.m_firstOfTask = &first;
    }
    /// @return false if the job has been started by its dependencies, and the task is not at its end yet
    [[nodiscard]] bool holdBack() noexcept;
    /// Ends what holdBack began.
    /// @return whether the dependencies have come meanwhile: the caller has to spawn the job
    [[nodiscard]] bool letGo() noexcept;
    /// The last job of a task tells its dependents, as far as they belong to the same run.
    void finishTask(VectorPOD<Job*>& localJobs);

    void updateRestricted() noexcept {
        m_restricted = m_targetThread != nullptr || m_syncTag.get() != nullptr;
    }

    Callback m_spawnCallback;
    const char* m_name;
    VectorPOD<Job*> m_dependents;
    VectorPOD<Job*> m_dependencies;
    Callback m_callback;
    uint64 m_startTick = 0;
    uint64 m_cycles = 0;
    uint64 m_lastCycles = 0; // of the run before the present one
    bool m_timing = false;
    bool m_restricted = false; // has a target or a tag
    uint16 m_home = NoHome;
    bool m_startsTask = false; // of a task that others start by their edges
    bool m_endsGroup = false;  // the end of a group, or of a frame
    // Relaxed, but for holdBack: runs take edges out for their time, each of its own jobs.
    std::atomic<uint32> m_numDependencies{0};
    // Shared: the threads that finish the dependencies, and the one that holds the job back. Of the first job
    // of a task this is Started while the dependencies' pass is on.
    std::atomic<uint32> m_numResolved{0};
    Job* m_firstOfTask = nullptr; // of the last job of a task that others start by their edges
    ref_ptr<Task> m_task;
    Thread* m_targetThread = nullptr;
    Thread* m_executingThread = nullptr;
    ref_ptr<SyncTag> m_syncTag;
    uint32 m_priority = 0;
    int64 m_poolTag = -1;
    // Guards the dependents of the last jobs of tasks where the edges of a run change and a task that is part
    // of it is executed by itself. For a few instructions; nothing else is locked meanwhile.
    static RankedMutex<LockRank::TaskEdges, SpinMutex> s_edges;
    std::atomic<WaitJob*> m_waiters{
        nullptr}; // list of those who wait for this job from outside; see WaitJob.cpp
};

} // namespace zel
