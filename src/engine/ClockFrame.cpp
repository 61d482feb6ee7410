#include "ClockFrame.h"

#include <zel/Thread.h>

#include <algorithm>
#include <optional>

namespace zel {

bool Clock::FrameWrapper::tie(Job* first, Job* last) {
    // What was tied before has this edge as its last one.
    if (!first->getDependencies().empty() && first->getDependencies().back() == getPreJob())
        return false;
    getPreJob()->addDependent(first);
    last->addDependent(getPostJob());
    return true;
}

void Clock::FrameWrapper::replace(const Task* task, Task* with, const Clock* clock) {
    for (AddedTask& added : m_added)
        if (added.task == task && added.clock == clock)
            added.task = with;
}

void Clock::FrameWrapper::withdraw(const Task* task, const Clock* clock) {
    m_added.erase(std::remove_if(m_added.begin(),
                                 m_added.end(),
                                 [task, clock](const AddedTask& added) {
                                     return added.task == task && added.clock == clock;
                                 }),
                  m_added.end());
}

void Clock::FrameWrapper::withdraw(const Job* job, const Clock* clock) {
    m_addedJobs.erase(std::remove_if(m_addedJobs.begin(),
                                     m_addedJobs.end(),
                                     [job, clock](const AddedJob& added) {
                                         return added.job == job && added.clock == clock;
                                     }),
                      m_addedJobs.end());
}

void Clock::FrameWrapper::withdrawAll(const Clock* clock) {
    const auto isOfClock = [clock](const auto& added) { return added.clock == clock; };
    m_added.erase(std::remove_if(m_added.begin(), m_added.end(), isOfClock), m_added.end());
    m_addedJobs.erase(std::remove_if(m_addedJobs.begin(), m_addedJobs.end(), isOfClock), m_addedJobs.end());
}

bool Clock::FrameWrapper::hasAdded(const Clock* clock) const {
    const auto isOfClock = [clock](const auto& added) { return added.clock == clock; };
    return std::any_of(m_added.begin(), m_added.end(), isOfClock) ||
           std::any_of(m_addedJobs.begin(), m_addedJobs.end(), isOfClock);
}

void Clock::FrameWrapper::collectTasks() {
    for (const AddedTask& added : m_added) {
        Task* const task = added.task.get();
        if (task == nullptr)
            continue;
        // One that is there already has been added again.
        if (RunRoot::isIn(*task, this))
            continue;
        // One that nobody counts is its owner's, and not ours to end.
        if (task->referenceCount() > 0)
            m_kept.push_back(ref_ptr<Task>(task));
        if (RunRoot::join(*task, this))
            m_tasks.push_back(task);
        else
            executeElsewhere(task);
    }
    m_added.clear();
}

void Clock::FrameWrapper::executeElsewhere(Task* task) {
    for (const std::unique_ptr<TaskJob>& job : m_executing)
        if (job->getExecutedTask() == task)
            return;
    m_executing.push_back(std::make_unique<TaskJob>(task));
    m_executing.back()->setName(task->getName().c_str());
}

void Clock::FrameWrapper::tieExecuting() {
    for (const std::unique_ptr<TaskJob>& job : m_executing)
        tie(job.get(), job.get());
    // The edges of the task itself belong to the other run.
    const auto findJob = [this](Task* task) -> Job* {
        for (const std::unique_ptr<TaskJob>& job : m_executing)
            if (job->getExecutedTask() == task)
                return job.get();
        return nullptr;
    };
    for (const std::unique_ptr<TaskJob>& job : m_executing) {
        for (Task* parent : job->getExecutedTask()->getParents()) {
            if (Job* const other = findJob(parent))
                other->addDependent(job.get());
            else if (RunRoot::isIn(*parent, this))
                parent->getPostJob()->addDependent(job.get());
        }
        for (Task* child : job->getExecutedTask()->getChildren())
            if (findJob(child) == nullptr && RunRoot::isIn(*child, this))
                job->addDependent(child->getPreJob());
    }
}

void Clock::FrameWrapper::untieExecuting() {
    for (const std::unique_ptr<TaskJob>& job : m_executing) {
        while (!job->getDependents().empty())
            job->removeDependent(job->getDependents().back());
        while (!job->getDependencies().empty())
            job->getDependencies().back()->removeDependent(job.get());
    }
    m_executing.clear();
}

void Clock::FrameWrapper::tieAll() {
    const auto lock = RunRoot::lockEdges();
    for (Task* task : m_tasks)
        tie(task->getPreJob(), task->getPostJob());
    for (const AddedJob& added : m_addedJobs)
        if (tie(added.job, added.job))
            m_jobs.push_back(added.job);
    m_addedJobs.clear();
    // Edges between the tasks of the frame count, and no others.
    for (Task* task : m_tasks)
        m_roots.push_back(RunRoot(*task, *this));
    for (RunRoot& root : m_roots)
        root.cut();
    tieExecuting();
}

void Clock::FrameWrapper::untieAll() {
    const auto lock = RunRoot::lockEdges();
    untieExecuting();
    for (RunRoot& root : m_roots)
        root.restore();
    m_roots.clear();
    // Newest first: edges are looked for from the back.
    for (size_t i = m_jobs.size(); i-- > 0;) {
        getPreJob()->removeDependent(m_jobs[i]);
        m_jobs[i]->removeDependent(getPostJob());
    }
    for (size_t i = m_tasks.size(); i-- > 0;) {
        getPreJob()->removeDependent(m_tasks[i]->getPreJob());
        m_tasks[i]->getPostJob()->removeDependent(getPostJob());
        RunRoot::leave(*m_tasks[i]);
    }
    m_tasks.clear();
    m_jobs.clear();
}

void Clock::FrameWrapper::runOnce() {
    const bool needsMainThread = std::any_of(m_added.begin(), m_added.end(), [](const AddedTask& added) {
        return added.task && RunRoot::needsMainThread(*added.task);
    });
    std::optional<Thread::MainThreadHold> hold;
    if (needsMainThread)
        hold.emplace();
    collectTasks();
    tieAll();
    execute();
    untieAll();
    m_kept.clear();
}

} // namespace zel
