#include "TaskDisableHelper.h"
#include "containers/GraphWalk.h"

#include <zel/ParallelTask.h>
#include <zel/Thread.h>
#include <zel/Timer.h>

#include <algorithm>
#include <utility>

namespace zel {

ParallelTask::ParallelTask(const Name& name, Device* device)
    : Task(name, device)
    , m_jobName(name)
    , m_preJob(*this)
    , m_dispatchJob(*this, m_jobName.c_str())
    , m_postJob(*this) {
    rebindsOnDemand(typeid(ParallelTask));
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

void ParallelTask::connectJob(Job& job) {
    m_dispatchJob.addDependent(&job);
    if (DisableHelper* helper = getDisableHelper())
        helper->addWork(&job);
    else
        job.addDependent(&m_postJob);
}

void ParallelTask::disconnectJob(Job& job) {
    m_dispatchJob.removeDependent(&job);
    if (DisableHelper* helper = getDisableHelper())
        helper->removeWork(&job);
    else
        job.removeDependent(&m_postJob);
}

void ParallelTask::addJob(Job* job) {
    m_jobs.push_back(job);
    connectJob(*job);
}

void ParallelTask::disconnectJobs() {
    // Newest first: edges are looked for from the back.
    for (size_t i = m_jobs.size(); i-- > m_numJobsInRows;)
        disconnectJob(*m_jobs[i]);
    while (m_numRows > 0)
        disconnectJob(*m_rows[--m_numRows]);
    m_numJobsInRows = 0;
}

void ParallelTask::removeAllJobs() {
    disconnectJobs();
    m_jobs.clear();
}

// Rows

void ParallelTask::reserveRows(size_t numRows) {
    m_rows.reserve(std::max(numRows, m_rows.size()));
    while (m_rows.size() < numRows) {
        m_rows.push_back(std::make_unique<Row>(*this));
        // Its lists of edges have their room from here on.
        Row& row = *m_rows.back();
        m_dispatchJob.addDependent(&row);
        row.addDependent(&m_postJob);
        row.removeDependent(&m_postJob);
        m_dispatchJob.removeDependent(&row);
    }
}

void ParallelTask::setNumRows(size_t numRows) {
    if (numRows == m_numRows && (numRows == 0 || m_numJobsInRows == m_jobs.size()))
        return;
    disconnectJobs();
    const bool free = std::all_of(m_jobs.begin(), m_jobs.end(), [](const Job* job) {
        return !job->m_restricted && job->m_numDependencies == 0 && job->m_dependents.empty();
    });
    if (numRows == 0 || !free) {
        for (Job* job : m_jobs)
            connectJob(*job);
        return;
    }
    const size_t numJobs = m_jobs.size();
    const size_t numThreads = getNumThreads();
    for (size_t i = 0; i < numRows; ++i) {
        Row& row = *m_rows[i];
        const size_t begin = numJobs * i / numRows;
        const size_t end = numJobs * (i + 1) / numRows;
        row.setRange(begin, end);
        row.m_cycles = row.m_lastCycles = 0;
        uint32 priority = 0;
        for (size_t k = begin; k < end; ++k)
            priority = std::max(priority, m_jobs[k]->getPriority());
        row.setPriority(priority);
        row.setHome(static_cast<uint16>(i * numThreads / numRows));
        connectJob(row);
    }
    m_numRows = numRows;
    m_numJobsInRows = numJobs;
}

uint64 ParallelTask::getTicks(size_t index) const noexcept {
    const Job& job = m_numRows != 0 ? *m_rows[index] : *m_jobs[index];
    return job.m_lastCycles == 0 ? job.m_cycles : std::min(job.m_cycles, job.m_lastCycles);
}

void ParallelTask::Row::implementation() {
    const bool watched = getProfilingMode() != ProfilingOff || Thread::isTimelineOn();
    for (size_t i = m_begin; i < m_end; ++i) {
        Job& job = *m_owner.m_jobs[i];
        job.m_executingThread = m_executingThread;
        if (watched)
            runMember(job);
        else
            job.implementation();
        // Acquire: pairs with the release in WaitJob's constructor.
        if (job.m_waiters.load(std::memory_order_acquire) != nullptr) {
            VectorPOD<Job*> dependents; // of which there are none
            job.finish(dependents, m_executingThread);
        }
    }
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
