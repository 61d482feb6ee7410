#include "TaskDisableHelper.h"
#include "containers/GraphWalk.h"

#include <zel/ParallelTask.h>
#include <zel/Timer.h>

#include <utility>

namespace zel {

ParallelTask::ParallelTask(const Name& name, Device* device)
    : Task(name, device)
    , m_jobName(name)
    , m_preJob(*this)
    , m_dispatchJob(*this, m_jobName.c_str())
    , m_postJob(*this) {
    adoptJob(m_preJob);
    adoptJob(m_dispatchJob);
    adoptJob(m_postJob);
    m_preJob.addDependent(&m_dispatchJob);
    // Also without any jobs added; and it keeps the last job back while the dispatch adds some.
    m_dispatchJob.addDependent(&m_postJob);
    setParallel(true);
}

ParallelTask::ParallelTask(const Name& name, Callback dispatch, Device* device) : ParallelTask(name, device) {
    setDispatch(std::move(dispatch));
}

ParallelTask::~ParallelTask() {
    disconnect();
    releaseJob(m_preJob);
    releaseJob(m_dispatchJob);
    releaseJob(m_postJob);
}

void ParallelTask::setTargetThread(Thread* thread) {
    m_preJob.setTargetThread(thread);
    m_dispatchJob.setTargetThread(thread);
    m_postJob.setTargetThread(thread);
}

void ParallelTask::addJob(Job* job) {
    m_jobs.push_back(job);
    m_dispatchJob.addDependent(job);
    if (DisableHelper* helper = getDisableHelper())
        helper->addWork(job);
    else
        job->addDependent(&m_postJob);
}

void ParallelTask::removeAllJobs() {
    // Newest first: edges are looked for from the back.
    for (size_t i = m_jobs.size(); i-- > 0;) {
        m_dispatchJob.removeDependent(m_jobs[i]);
        if (DisableHelper* helper = getDisableHelper())
            helper->removeWork(m_jobs[i]);
        else
            m_jobs[i]->removeDependent(&m_postJob);
    }
    m_jobs.clear();
}

float ParallelTask::measureComputeCost() {
    uint64 cycles = 0;
    walkGraph<const Job>(&m_dispatchJob, [this, &cycles](const Job* job) {
        if (job != &m_postJob)
            cycles += job->getCycles();
        return job == &m_postJob ? nullptr : &job->getDependents();
    });
    return static_cast<float>(Timer::toMilliseconds(cycles));
}

void ParallelTask::endCallback() {
    endCallback(getProfilingMode() == ProfilingFull ? measureComputeCost() : 0, 0);
}

void ParallelTask::PreJob::implementation() {
    if (!m_owner.isPassed())
        m_owner.beginCallback();
    Job::implementation();
}

void ParallelTask::DispatchJob::implementation() {
    if (m_owner.m_dispatch)
        m_owner.m_dispatch();
    else
        m_owner.executeDispatchTarget();
}

void ParallelTask::PostJob::implementation() {
    if (m_owner.isPassed())
        m_callback();
    else
        m_owner.endCallback();
}

} // namespace zel
