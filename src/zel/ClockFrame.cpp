#include "ClockFrame.h"

namespace zel {

bool Clock::FrameWrapper::tie(Job* first, Job* last) {
    // What was tied before has this edge as its last one.
    if (!first->getDependencies().empty() && first->getDependencies().back() == getPreJob())
        return false;
    getPreJob()->addDependent(first);
    last->addDependent(getPostJob());
    return true;
}

void Clock::FrameWrapper::runOnce() {
    size_t numTasks = 0;
    for (ref_ptr<Task>& task : m_tasks)
        if (tie(task->getPreJob(), task->getPostJob()))
            std::swap(m_tasks[numTasks++], task);
    size_t numJobs = 0;
    for (Job* job : m_jobs)
        if (tie(job, job))
            m_jobs[numJobs++] = job;
    execute();
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
    m_jobs.clear();
}

} // namespace zel
