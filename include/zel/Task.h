#pragma once

#include <zel/Callback.h>
#include <zel/Component.h>
#include <zel/Event.h>
#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Job.h>
#include <zel/ParameterTable.h>
#include <zel/Path.h>
#include <zel/String.h>
#include <zel/Timer.h>
#include <zel/Vector.h>
#include <zel/observer_ptr.h>
#include <zel/ref_ptr.h>
#include <zelData/ValueT.h>

#include <atomic>
#include <iosfwd>
#include <memory>

namespace zel {

class Clock;
class FirstException;
class ParameterBinding;
class TaskGroup;
class TaskTimingReportHandle;
class Thread;

/// A unit of scheduled work: an object of the tree with parameters, dependencies on other tasks and an enable
/// switch, made of a few jobs. Jobs and edges are built once and run any number of times; a run allocates
/// nothing.
///
/// Derive from SerialTask or ParallelTask. A class of one's own gives the first and the last of its jobs, and
/// calls disconnect() in its destructor.
///
/// A disabled task lets a run pass: what depends on it still waits for what it depends on, and nothing of its
/// own happens, neither work nor events. The subtasks of a disabled group are passed as well.
/// @threads execute and wait any thread; dependencies, parameters and settings while no task concerned runs
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
    /// Lets the task's own jobs run on one thread only; null for any. By default the first and the last job.
    virtual void setTargetThread(Thread* thread);
    /// The job that others spawn to start the task.
    [[nodiscard]] virtual Job* getPreJob() = 0;
    /// The job that finishes the task; may be the same.
    [[nodiscard]] virtual Job* getPostJob() = 0;
    /// Called when the task has taken a parameter in, ahead of parameterAddedEvent. Does nothing by default.
    virtual void parameterAddedCallback(Parameter* parameter);
    /// Called when a parameter has left the task, ahead of parameterRemovedEvent. Does nothing by default.
    virtual void parameterRemovedCallback(Parameter* parameter);
    /// Called when a group has taken a subtask in. Does nothing by default.
    virtual void subtaskAddedCallback(Task* subtask);
    /// Calls the callback on this task and those below it.
    /// @param parentFirst  whether a task comes ahead of its subtasks, and not after them
    virtual void traverse(const Callback1<Task*>& callback, bool parentFirst);
    using Component::traverse;

    /// As configure(element, true).
    void configure(TiXmlElement* element) override;
    /// Reads the attributes of a task: "name", "enable", "dispatch", "trigger", "resolve", "depends" and
    /// "bindContext"; see docs/tasks.md.
    /// @param children  whether to read the child elements as well
    /// @throws std::runtime_error with file and row
    void configure(TiXmlElement* element, bool children);
    using Component::configure;
    /// Not supported: prints "Task::save() TODO Implementation".
    void save(TiXmlElement* element) const override;
    /// A task that leaves its group's component leaves the group.
    void setContext(Object* context) override;
    /// Looks up what the task and its parameters refer to by path, and, in a tree, verifies the parameters.
    void rebind() override;
    /// As Component's; what is not found there is looked for in the context set by "bindContext".
    Object* getResourceImpl(const Path& path, Model* model) override;

    [[nodiscard]] static Model* ClassModel();

    /// Makes the task that the path names: from a plug-in, a task model or a kernel; see TaskManager.
    /// @return a new task without owner; null, with a warning, if there is none
    [[nodiscard]] static Task* load(const Path& path, const Name& name, Device* device);
    /// The same, named as its path's last part.
    [[nodiscard]] static Task* load(const Path& path, Device* device);
    [[nodiscard]] static Task* load(const char* path, Device* device);
    /// Makes a task from an element of a task's tag, "Init" included.
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static Task* load(TiXmlElement* element, Device* device);

    /// Runs the task and returns when it is complete. The caller works meanwhile; a thread that is not
    /// registered is so for the duration. A second caller waits for the first; a call from within the same
    /// run ends the process.
    /// Several jobs may execute one task, one after the other; but a job of the task's own, or one that such
    /// a job waits for, ends the process if it does.
    /// @throws what a job threw on this thread; the system is then to be shut down. std::runtime_error if the
    ///     task has jobs for each thread and the main thread executes none: see Thread::MainThreadHold
    void execute();
    [[nodiscard]] bool isRunning() const noexcept {
        // Acquire: pairs with the release in endCallback, so that who sees the end sees what was done.
        return m_running.load(std::memory_order_acquire);
    }
    /// The thread of the present execute(); null if there is none.
    [[nodiscard]] Thread* getThread() const noexcept { return m_thread; }

    // The enable switch, which is the value "enable" of the task and may be bound like any value

    void setEnable(bool enable);
    /// What the switch was last set to, whatever becomes of the group around.
    [[nodiscard]] bool isEnabled() const noexcept { return m_enabled; }
    /// Whether a run passes the task, because of its own switch or that of a group around it.
    [[nodiscard]] bool isPassed() const noexcept { return m_disableHelper != nullptr; }

    // Parameters

    /// Takes the parameter in, and as a child object.
    void addParameter(Parameter* parameter);
    /// @param index  its place; at most the number of parameters
    void addParameter(Parameter* parameter, size_t index);
    void removeParameter(size_t index);
    /// @return whether the task had it
    bool removeParameter(Parameter* parameter);
    [[nodiscard]] const Vector<ref_ptr<Parameter>>& getParameters() const noexcept { return m_parameters; }
    [[nodiscard]] size_t getNumParameters() const noexcept { return m_parameters.size(); }
    /// Null if there is none of the name.
    [[nodiscard]] Parameter* findParameter(const Name& name) const;
    /// Warns if required parameters are not valid, with their list, and prints the task. To run such a task
    /// ends the process: "Parameter verification failed!".
    /// @return whether all required parameters are valid
    bool verifyParameters();
    /// Tests whether the parameters that a caller brings fit those of the task, by their names.
    /// @return bits of MatchResult; any of MatchFailed means that they do not
    [[nodiscard]] uint32 matchParameters(const ParameterTable& table) const;
    /// The same by position. Bindings may take on the formats of the parameters.
    /// @param allowPromotion  whether a binding that allows it may stand for a parameter of another format
    [[nodiscard]] uint32 matchParameters(Vector<ParameterBinding>& bindings, bool allowPromotion) const;
    /// Writes what matchParameters answered in words to the standard output stream.
    static void printParameterMatch(uint32 result);
    /// Tells the parameters with a global result how many jobs there will be.
    void prepareGlobalResultSorting(size_t numJobs);

    /// The answers of matchParameters.
    enum MatchResult : uint32 {
        MatchedByDefault = 1,
        MatchedValid = 2,
        MatchedOptional = 4,
        MatchedBound = 8,
        MatchedBindPath = 16,
        MatchedSameFormat = 32,
        MatchedTransform = 64,
        MatchedAll = 127,
        UnboundParameter = 128,
        BindingWithoutType = 256,
        TypeMismatch = 512,
        UnknownBinding = 1024,
        BadParameterList = 2048,
        MatchFailed = 0xF80,
    };

    /// Writes a listing of parameters and subtasks.
    void print(std::ostream& stream) const;
    /// Writes one line for each parameter with what it is bound to.
    void printBindings(std::ostream& stream) const;

    /// Makes this task start after another one has finished, whenever both belong to one run. A loop, also
    /// one through groups, ends the process: "Detected dependency loop between %s and %s".
    void addDependency(Task* task);
    /// The same for a task that is looked up at each rebind until it is there. An empty path is ignored.
    void addDependency(const Path& path);
    /// Executes this task at each update of the value that the path names; or, if it names a clock, makes it
    /// one of the clock's frame tasks. Looked up at the next rebind.
    void addTriggerPath(const Path& path);
    /// Rebinds this task at each update of the value that the path names; looked up at the next rebind.
    void addResolvePath(const Path& path);
    /// Takes one such dependency away.
    /// @return whether there was one
    bool removeDependency(Task* task);
    /// Whether this task waits for the other one, directly or through others.
    [[nodiscard]] bool hasDependency(Task* task) const;
    /// Makes `child` depend on `parent`.
    static void addConnection(Task* parent, Task* child);
    [[nodiscard]] const Vector<Task*>& getParents() const noexcept { return m_parents; }
    [[nodiscard]] const Vector<Task*>& getChildren() const noexcept { return m_children; }

    // Edges between the jobs of two tasks, without a dependency on record. In place of a disabled task stand
    // those that it depends on, or that depend on it. Undo an edge before such a switch changes.

    void connectToParent(Task* parent);
    void connectToChild(Task* child);
    void disconnectFromParent(Task* parent);
    void disconnectFromChild(Task* child);

    /// The group that runs the task; null if there is none.
    [[nodiscard]] TaskGroup* getGroup() const noexcept { return m_group; }
    /// Called by the group.
    void setGroup(TaskGroup* group) noexcept { m_group = group; }
    /// Puts the other task in this one's place: it takes over the dependencies, the triggers, and the place
    /// in the group, or else in the component. Nothing of this task stays behind; parameters are not moved.
    void replace(Task* task);

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
    EventT<Callback2<Task*, Parameter*>> parameterAddedEvent;
    EventT<Callback2<Task*, Parameter*>> parameterRemovedEvent;

protected:
    class DisableHelper;
    class RunRoot;

    /// Sets the work of one of the task's own jobs, now or as soon as the task is enabled.
    void setJobCallback(Job& job, Callback callback);
    /// Null while the task is enabled.
    [[nodiscard]] DisableHelper* getDisableHelper() const noexcept { return m_disableHelper.get(); }
    /// Executes the task that the attribute "dispatch" named, if there is one.
    void executeDispatchTarget();
    /// Whether threads that sleep are called when a run of the task begins, and not only when there is work
    /// for them.
    void setParallel(bool parallel) noexcept { m_parallel = parallel; }
    /// Lets the task run with parameters that are required and not valid, which it reports itself.
    void setRunsUnverified(bool unverified) noexcept { m_runsUnverified = unverified; }
    /// Reads the child elements, by default with configureChildElement.
    virtual void configureChildren(TiXmlElement* element);
    /// Reads one: the binding of a parameter, an "instance" below the task, or a new object.
    /// @return the new object, which is a child now; null for others
    Object* configureChildElement(TiXmlElement* child);
    /// Takes in an object that a child element describes; by default as a parameter or as a child.
    virtual void addConfiguredObject(Object* object);

    /// Takes the task out of all dependencies. Every class that holds jobs calls it first thing in its
    /// destructor.
    void disconnect();
    /// Makes a job of the task's own name it as its task, without keeping the task alive: the task owns the
    /// job.
    void adoptJob(Job& job);
    /// Ends what adoptJob began; in the destructor.
    static void releaseJob(Job& job);

private:
    friend class Clock;      // m_frameClocks
    friend class Parameter;  // leave
    friend class TaskGroup;  // m_groupPassed, the counts
    friend class Thread;     // m_completes, m_parallel, m_activePlace
    friend class ThreadTask; // countThreadTasks

    class SoleRun;
    class Trigger;
    struct Paths;

    void init();
    void handTriggersTo(Task* task);
    void takeOver(Task& task,
                  const Vector<observer_ptr<Task>>& parents,
                  const Vector<observer_ptr<Task>>& children,
                  FirstException& failure);
    void handFramesTo(Task* task);
    /// Takes the parameter off the list.
    void takeOut(size_t index);
    /// For a parameter that has left the component.
    void leave(Parameter* parameter);
    void announceRemoved(Parameter* parameter);
    void noteMissingPaths() const;
    void enableCallback();
    /// Brings the state of the jobs to what the switches say.
    void updatePassed();
    /// Ends a run as far as the thread is concerned that executes the task.
    void pass();
    void registerStatistics();
    void measure(float computeCost, float overhead);
    void report() const;
    void readParameters();
    void writeParameters();
    void verifyForRun();
    void configureBinding(TiXmlElement* child);
    void configureEnable(const String& text);
    [[nodiscard]] Paths& paths();
    /// Adds the dependencies whose paths lead to tasks, seen from `from`, or else from around this task.
    /// @return the first path that leads nowhere yet; empty if there is none
    Path resolveDependencies(Component* from);
    [[nodiscard]] bool reaches(Task* parent);
    /// Whether an edge between the two leads out of a group, or lies outside of all.
    [[nodiscard]] static bool isOuterEdge(const Task* a, const Task* b) noexcept {
        return a->m_group == nullptr || a->m_group != b->m_group;
    }
    // Add to a number of this task and of the groups around it.
    void countOuterEdges(int64 number) noexcept;
    void countThreadTasks(int64 number) noexcept;
    [[nodiscard]] bool runsIn(const Task* run) const noexcept;
    /// Tells the first and the last job that others start the task by edges.
    void markJobs() { Job::markTask(*getPreJob(), *getPostJob()); }

    /// Waits until no other thread executes the task.
    /// @return false if the calling thread executes it already
    [[nodiscard]] bool claim(Thread* thread);
    void executeOn(Thread* thread);

    zelData::Val<bool> m_enable;
    std::atomic<bool> m_running{false};        // written by the thread of the first and the last job
    std::atomic<Thread*> m_claimedBy{nullptr}; // shared: the thread inside execute()
    bool m_enabled = true;                     // as last applied
    bool m_groupPassed = false;                // a group around the task is disabled
    bool m_runsUnverified = false;
    bool m_inBindContext = false;
    Thread* m_thread = nullptr; // while the task is active guarded by Thread::s_sharedMutex
    bool m_completes = false;   // this run was started by Thread::addTask, which wants to know of its end
    bool m_parallel = false;    // threads that sleep are to join the run
    size_t m_activePlace = 0;   // in Thread::s_activeTasks, by whose lock it is guarded
    Timer m_computeTimer;
    Timer m_wallTimer;
    float m_computeCost = 0;
    float m_overhead = 0;
    float m_wallTime = 0;
    float m_accumulatedComputeCost = 0;
    float m_accumulatedOverhead = 0;
    float m_accumulatedWallTime = 0;
    uint32 m_numAccumulatedRuns = 0;
    Vector<ref_ptr<Parameter>> m_parameters;
    Vector<Task*> m_parents;
    Vector<Task*> m_children;
    TaskGroup* m_group = nullptr;
    VectorPOD<Clock*> m_frameClocks; // of whose frames the task is part; each takes itself off
    int64 m_numThreadTasks = 0;      // this task and below it: those with a job for each thread
    int64 m_numOuterEdges = 0;       // of this task and of what is below it; see isOuterEdge
    // Whether edges lead from below the task to outside of it, as it was found last; see RunRoot.
    enum class Leaving : uint8 { Unknown, None, Some };
    std::atomic<Leaving> m_leaving{Leaving::Unknown};
    // The run of several roots of which this task is one; see RunRoot. Relaxed, but for join: other runs
    // only compare it with their own.
    std::atomic<Task*> m_run{nullptr};
    std::unique_ptr<DisableHelper> m_disableHelper;
    ref_ptr<TaskTimingReportHandle> m_timingHandle; // null if there were no statistics at first
    std::unique_ptr<Paths> m_paths;                 // made for the first path: most tasks have none

    // Relaxed: a switch that publishes nothing.
    static std::atomic<ProfilingMode> s_profilingMode;
    static std::atomic<bool> s_unhandledException;
};

} // namespace zel
