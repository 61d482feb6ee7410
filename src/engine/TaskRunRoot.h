#pragma once

#include <zel/Task.h>

namespace zel {

/// A task that a run begins with. The run consists of its roots and of what lies below them in groups, and
/// only the edges within it count. The others are taken out for its time, at the end that belongs to the run
/// alone: the job at the other end may be part of another run meanwhile.
class Task::RunRoot {
public:
    /// Whether there can be anything to take out.
    [[nodiscard]] static bool isNeeded(const Task& task) noexcept {
        return task.m_group != nullptr || task.m_numOuterEdges != 0 ||
               task.m_run.load(std::memory_order_relaxed) != nullptr;
    }

    /// Whether the main thread must be at work for the run.
    [[nodiscard]] static bool needsMainThread(const Task& task) noexcept {
        return task.m_numThreadTasks != 0;
    }

    /// @param run  the same for all roots of a run: the task that it ends with
    RunRoot(Task& task, Task& run);

    /// Takes the edges out, once all roots are known.
    /// @param spawned  whether the first job is spawned, and not counted down to by its dependencies
    void cut(bool spawned);
    /// Brings them back, while all roots are known still.
    void restore();
    /// The run is over.
    void leave();

private:
    template <typename Visit>
    static void visitTasks(Task& task, const Visit& visit);
    void cutChildren(Task& task) const;
    void restoreChildren(Task& task) const;
    /// How many dependencies of the task's first job are taken out.
    [[nodiscard]] uint32 countCutParents(const Task& task) const;

    Task* m_task;
    Task* m_run;
    Task* m_outerRun; // in which the task is a root as well; mostly null
    bool m_needed;
    bool m_spawned = false;
    Job* m_groupPost = nullptr; // was a dependent of the task
    Job* m_outerPost = nullptr; // the same
};

} // namespace zel
