#include "ClockFrame.h"

#include <zel/Thread.h>

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

void Clock::FrameWrapper::collectTasks() {
    for (const observer_ptr<Task>& added : m_added) {
        Task* const task = added.get();
        if (task == nullptr)
            continue;
        m_tasks.push_back(task);
        // One that nobody counts is its owner's, and not ours to end.
        if (task->referenceCount() > 0)
            m_kept.push_back(ref_ptr<Task>(task));
    }
    m_added.clear();
}

void Clock::FrameWrapper::runOnce() {
    collectTasks();
    bool needsMainThread = false;
    for (const Task* task : m_tasks)
        needsMainThread = needsMainThread || RunRoot::needsMainThread(*task);
    std::optional<Thread::MainThreadHold> hold;
    if (needsMainThread)
        hold.emplace();
    size_t numTasks = 0;
    for (Task* task : m_tasks)
        if (tie(task->getPreJob(), task->getPostJob()))
            m_tasks[numTasks++] = task;
    size_t numJobs = 0;
    for (Job* job : m_jobs)
        if (tie(job, job))
            m_jobs[numJobs++] = job;
    // Edges between the tasks of the frame count, and no others.
    for (size_t i = 0; i < numTasks; ++i)
        m_roots.push_back(RunRoot(*m_tasks[i], *this));
    for (RunRoot& root : m_roots)
        root.cut(false);
    execute();
    for (RunRoot& root : m_roots)
        root.restore();
    for (RunRoot& root : m_roots)
        root.leave();
    m_roots.clear();
    // Newest first: edges are looked for from the back.
    for (size_t i = numJobs; i-- > 0;) {
        getPreJob()->removeDependent(m_jobs[i]);
        m_jobs[i]->removeDependent(getPostJob());
    }
    for (size_t i = numTasks; i-- > 0;) {
        getPreJob()->removeDependent(m_tasks[i]->getPreJob());
        m_tasks[i]->getPostJob()->removeDependent(getPostJob());
    }
    m_tasks.clear();
    m_kept.clear();
    m_jobs.clear();
}

} // namespace zel
