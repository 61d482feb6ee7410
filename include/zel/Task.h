#pragma once

#include <zel/Callback.h>
#include <zel/Component.h>
#include <zel/Event.h>
#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Job.h>
#include <zel/Timer.h>
#include <zel/Vector.h>

#include <atomic>

namespace zel {

class Thread;

/// A unit of scheduled work: an object of the tree with dependencies on other tasks, made of a few jobs. Jobs
/// and edges are built once and run any number of times; a run allocates nothing.
///
/// Derive from SerialTask or ParallelTask. A class of one's own gives the first and the last of its jobs, and
/// calls disconnect() in its destructor.
/// @threads execute and wait any thread; dependencies and settings while neither task runs
class ZEL_CORE_API Task : public Component {
public:
    enum ProfilingMode : uint32 {
        ProfilingOff = 0,
        ProfilingWallTime = 1,
        ProfilingFull = 2, ///< with compute cost and overhead
    };

    explicit Task(const Name& name, Device* device = nullptr);
    /// The task must not be running, unless a job has thrown.
    ~Task() override;

    /// Blocks until the task has finished once more; see WaitJob. For threads that do not execute tasks
    /// themselves.
    virtual void wait();
    /// Lets the task's own jobs run on one thread only; null for any.
    virtual void setTargetThread(Thread* thread) = 0;
    /// The job that others spawn to start the task.
    [[nodiscard]] virtual Job* getPreJob() = 0;
    /// The job that finishes the task; may be the same.
    [[nodiscard]] virtual Job* getPostJob() = 0;

    [[nodiscard]] static Model* ClassModel();

    /// Runs the task and returns when it is complete. The caller works meanwhile; a thread that is not
    /// registered is so for the duration. A second caller waits for the first; a call from within the same
    /// run ends the process.
    /// @throws what a job threw on this thread; the system is then to be shut down
    void execute();
    [[nodiscard]] bool isRunning() const noexcept {
        // Acquire: pairs with the release in endCallback, so that who sees the end sees what was done.
        return m_running.load(std::memory_order_acquire);
    }
    /// The thread of the present execute(); null if there is none.
    [[nodiscard]] Thread* getThread() const noexcept { return m_thread; }

    /// Makes this task start after another one has finished, whenever both belong to one run. A loop ends the
    /// process: "Detected dependency loop between %s and %s".
    void addDependency(Task* task);
    /// Takes one such dependency away.
    /// @return whether there was one
    bool removeDependency(Task* task);
    /// Whether this task waits for the other one, directly or through others.
    [[nodiscard]] bool hasDependency(Task* task) const;
    /// Makes `child` depend on `parent`.
    static void addConnection(Task* parent, Task* child);
    [[nodiscard]] const Vector<Task*>& getParents() const noexcept { return m_parents; }
    [[nodiscard]] const Vector<Task*>& getChildren() const noexcept { return m_children; }

    // Edges between the jobs of two tasks, without a dependency on record

    void connectToParent(Task* parent);
    void connectToChild(Task* child);
    void disconnectFromParent(Task* parent);
    void disconnectFromChild(Task* child);

    // Called by the task's jobs

    /// Begins a run: fires preEvent and marks the task running.
    void beginCallback();
    /// Ends a run: fires postEvent and tells the thread that executes the task.
    /// @param computeCost  in milliseconds, for ProfilingFull
    /// @param overhead  in milliseconds, for ProfilingFull
    void endCallback(float computeCost, float overhead);

    /// Zeroes what has accumulated over the runs.
    /// @param recursive  whether to go on to the tasks among the children
    void resetAccumulationTimers(bool recursive);

    // Of the last run, in milliseconds; zero while profiling is off.

    [[nodiscard]] float getWallTime() const noexcept { return m_wallTime; }
    [[nodiscard]] float getComputeCost() const noexcept { return m_computeCost; }
    [[nodiscard]] float getOverhead() const noexcept { return m_overhead; }
    // Sums over the runs with ProfilingFull since resetAccumulationTimers.
    [[nodiscard]] float getAccumulatedWallTime() const noexcept { return m_accumulatedWallTime; }
    [[nodiscard]] float getAccumulatedComputeCost() const noexcept { return m_accumulatedComputeCost; }
    [[nodiscard]] float getAccumulatedOverhead() const noexcept { return m_accumulatedOverhead; }
    [[nodiscard]] uint32 getNumAccumulatedRuns() const noexcept { return m_numAccumulatedRuns; }

    static void setProfilingMode(ProfilingMode mode) noexcept {
        s_profilingMode.store(mode, std::memory_order_relaxed);
    }
    [[nodiscard]] static ProfilingMode getProfilingMode() noexcept {
        return s_profilingMode.load(std::memory_order_relaxed);
    }

    /// Notes that a job has thrown. For good.
    static void signalUnhandledException() noexcept;
    [[nodiscard]] static bool hasUnhandledException() noexcept;

    /// Fires when the task begins, on the thread of its first job.
    EventT<Callback1<Task*>> preEvent;
    /// Fires when the task is done, on the thread of its last job; with a task that execute() was called on,
    /// ahead of the end of execute().
    EventT<Callback1<Task*>> postEvent;

protected:
    /// Takes the task out of all dependencies. Every class that holds jobs calls it first thing in its
    /// destructor.
    void disconnect();
    /// Makes a job of the task's own name it as its task, without keeping the task alive: the task owns the
    /// job.
    void adoptJob(Job& job);
    /// Ends what adoptJob began; in the destructor.
    static void releaseJob(Job& job);

private:
    friend class Thread; // m_completes

    /// Waits until no other thread executes the task.
    /// @return false if the calling thread executes it already
    [[nodiscard]] bool claim(Thread* thread);

    std::atomic<bool> m_running{false};        // written by the thread of the first and the last job
    std::atomic<Thread*> m_claimedBy{nullptr}; // shared: the thread inside execute()
    Thread* m_thread = nullptr;                // while the task is active guarded by Thread::s_sharedMutex
    bool m_completes = false; // this run was started by Thread::addTask, which wants to know of its end
    Timer m_computeTimer;
    Timer m_wallTimer;
    float m_computeCost = 0;
    float m_overhead = 0;
    float m_wallTime = 0;
    float m_accumulatedComputeCost = 0;
    float m_accumulatedOverhead = 0;
    float m_accumulatedWallTime = 0;
    uint32 m_numAccumulatedRuns = 0;
    Vector<Task*> m_parents;
    Vector<Task*> m_children;

    // Relaxed: a switch that publishes nothing.
    static std::atomic<ProfilingMode> s_profilingMode;
    static std::atomic<bool> s_unhandledException;
};

} // namespace zel
