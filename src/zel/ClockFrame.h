#pragma once

#include <zel/Clock.h>
#include <zel/TaskGroup.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>

namespace zel {

/// Runs what belongs to one frame in one go. The tasks are not its subtasks, since they lie elsewhere in the
/// tree: they are tied to its jobs for the time of the run alone.
class Clock::FrameWrapper : public TaskGroup {
public:
    FrameWrapper() : TaskGroup("FrameWrapper") {}

    /// For the next run; kept alive till then.
    void add(Task* task) { m_tasks.push_back(ref_ptr<Task>(task)); }
    void add(Job* job) { m_jobs.push_back(job); }
    /// Runs what was added, once, however often it was added, and forgets it.
    void runOnce();

private:
    bool tie(Job* first, Job* last);

    Vector<ref_ptr<Task>> m_tasks;
    VectorPOD<Job*> m_jobs;
};

} // namespace zel
