#pragma once

#include "TaskRunRoot.h"

#include <zel/Clock.h>
#include <zel/TaskGroup.h>
#include <zel/TaskJob.h>
#include <zel/Vector.h>
#include <zel/observer_ptr.h>
#include <zel/ref_ptr.h>

#include <memory>

namespace zel {

/// Runs what belongs to one frame in one go. The tasks are not its subtasks, since they lie elsewhere in the
/// tree: they are tied to its jobs for the time of the run alone.
class Clock::FrameWrapper : public TaskGroup {
public:
    FrameWrapper() : TaskGroup("FrameWrapper") {}

    // For the next run. Not owned; a task that is gone by then is left out.

    void add(Task* task, const Clock* clock) { m_added.push_back({task, clock}); }
    void add(Job* job, const Clock* clock) { m_addedJobs.push_back({job, clock}); }
    void replace(const Task* task, Task* with, const Clock* clock);
    /// Takes out what the clock has added for the next run.
    void withdraw(const Task* task, const Clock* clock);
    void withdraw(const Job* job, const Clock* clock);
    void withdrawAll(const Clock* clock);
    /// Whether the clock has added anything for the next run.
    [[nodiscard]] bool hasAdded(const Clock* clock) const;
    /// Runs what was added, once, however often it was added, and forgets it.
    void runOnce();

private:
    bool tie(Job* first, Job* last);
    /// Makes those that are there still the tasks of the present run.
    void collectTasks();
    /// Lets a task that is at work elsewhere be executed in this run, in its turn.
    void executeElsewhere(Task* task);
    /// Puts the jobs that execute tasks where these stand among the others.
    void tieExecuting();
    void untieExecuting();
    void tieAll();
    void untieAll();

    struct AddedTask {
        observer_ptr<Task> task;
        const Clock* clock;
    };
    struct AddedJob {
        Job* job;
        const Clock* clock;
    };
    Vector<AddedTask> m_added;
    VectorPOD<AddedJob> m_addedJobs;
    // Of the present run:
    VectorPOD<Task*> m_tasks;
    VectorPOD<Job*> m_jobs;
    Vector<ref_ptr<Task>> m_kept; // those of them that are counted
    Vector<RunRoot> m_roots;
    Vector<std::unique_ptr<TaskJob>> m_executing; // for tasks that are at work elsewhere; mostly none
};

} // namespace zel
