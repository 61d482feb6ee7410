#pragma once

#include "TaskRunRoot.h"

#include <zel/Clock.h>
#include <zel/TaskGroup.h>
#include <zel/Vector.h>
#include <zel/observer_ptr.h>
#include <zel/ref_ptr.h>

namespace zel {

/// Runs what belongs to one frame in one go. The tasks are not its subtasks, since they lie elsewhere in the
/// tree: they are tied to its jobs for the time of the run alone.
class Clock::FrameWrapper : public TaskGroup {
public:
    FrameWrapper() : TaskGroup("FrameWrapper") {}

    /// For the next run. Not owned; one that is gone by then is left out.
    void add(Task* task) { m_added.push_back(observer_ptr<Task>(task)); }
    void add(Job* job) { m_jobs.push_back(job); }
    /// Runs what was added, once, however often it was added, and forgets it.
    void runOnce();

private:
    bool tie(Job* first, Job* last);
    /// Makes those that are there still the tasks of the present run.
    void collectTasks();

    Vector<observer_ptr<Task>> m_added;
    VectorPOD<Job*> m_jobs;
    VectorPOD<Task*> m_tasks;     // of the present run
    Vector<ref_ptr<Task>> m_kept; // those of them that are counted
    Vector<RunRoot> m_roots;      // of the present run
};

} // namespace zel
