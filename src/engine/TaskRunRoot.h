#pragma once

#include <zel/SpinMutex.h>
#include <zel/Task.h>

#include <mutex>

namespace zel {

/// A task that a run begins with. The run consists of its roots and of what lies below them in groups, and
/// only the edges within it count. The others are taken out for its time, at the end that belongs to the run
/// alone: the job at the other end may be part of another run meanwhile.
class Task::RunRoot {
public:
    /// Whether the task may be part of another run at the same time: then who executes it holds it back from
    /// that one.
    [[nodiscard]] static bool isShared(const Task& task) noexcept {
        // Sequentially consistent: see join.
        return task.m_group != nullptr || task.m_numOuterEdges != 0 ||
               task.m_run.load(std::memory_order_seq_cst) != nullptr;
    }
    /// Makes the task one that a run of several roots begins with.
    /// @return false if it is part of another one, or somebody executes it by itself
    [[nodiscard]] static bool join(Task& task, Task* run) noexcept;
    static void leave(Task& task) noexcept;
    [[nodiscard]] static bool isIn(const Task& task, const Task* run) noexcept { return task.runsIn(run); }
    /// For a task that is to be started by edges.
    static void markJobs(Task& task) { task.markJobs(); }
    /// To be held while edges of a task change that somebody may execute by itself.
    [[nodiscard]] static auto lockEdges() { return std::unique_lock(Job::s_edges); }
    /// Whether edges lead from below the task to outside of it: then there is something to take out there.
    [[nodiscard]] static bool hasLeavingEdges(Task& task);

    /// Whether the main thread must be at work for the run.
    [[nodiscard]] static bool needsMainThread(const Task& task) noexcept {
        return task.m_numThreadTasks != 0;
    }

    /// @param run  the same for all roots of a run: the task that it ends with. That may be the task itself,
    ///     whose own edges nobody follows then.
    RunRoot(Task& task, Task& run) : m_task(&task), m_run(&run) {}

    /// Takes the edges out, once all roots are known.
    void cut();
    /// Brings them back, while all roots are known still.
    void restore();

private:
    template <typename Visit>
    static bool anyBelow(Task& task, const Visit& visit);
    template <typename Visit>
    void visitTasks(Task& task, const Visit& visit) const;
    void cutChildren(Task& task) const;
    void restoreChildren(Task& task) const;
    /// How many dependencies of the task's first job are taken out.
    [[nodiscard]] uint32 countCutParents(const Task& task) const;

    Task* m_task;
    Task* m_run;
    Job* m_groupPost = nullptr; // was a dependent of the task
};

} // namespace zel
