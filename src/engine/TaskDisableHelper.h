#pragma once

#include <zel/Callback.h>
#include <zel/Job.h>
#include <zel/Task.h>
#include <zel/Vector.h>

namespace zel {

/// Lets a run pass a task: in place of its work the jobs of the task do nothing, and what lies between the
/// first and the last one is out of the graph. Holds what was there before. The subtasks of a group stay in
/// the graph and are passed one by one, so that the order of what depends on them from outside stays.
class Task::DisableHelper {
public:
    explicit DisableHelper(Task& task);
    DisableHelper(const DisableHelper&) = delete;
    DisableHelper& operator=(const DisableHelper&) = delete;

    /// Brings back what was there before.
    void restore();

    /// For a task that enters the disabled group.
    void registerSubtask(Task* subtask);
    /// For a task that leaves the disabled group.
    /// @param survives  whether the task lives on: of one that is about to go the jobs may be gone already
    void removeSubtask(Task* subtask, bool survives);
    /// For a job that enters the disabled task, and one that leaves it, in place of its edge to the last job.
    void addWork(Job* job) { m_oldPostParents.push_back(job); }
    void removeWork(Job* job) { m_oldPostParents.findAndErase(job); }
    /// Sets what the job will call once the task is enabled.
    void setCallback(const Job& job, Callback callback);

private:
    static void emptyPre() {}
    void emptyPost() { m_task.pass(); }
    void takeOut(Job* pre, Job* post);
    void putBack(Job* pre, Job* post);

    Task& m_task;
    Callback m_oldPreCallback;
    Callback m_oldPostCallback;
    VectorPOD<Job*> m_oldPreChildren; // of a group: the first jobs of the subtasks
    VectorPOD<Job*> m_oldPostParents;
};

} // namespace zel
