#pragma once

#include <zel/Export.h>
#include <zel/Job.h>
#include <zel/LockRank.h>

#include <condition_variable>
#include <mutex>

namespace zel {

/// Lets a thread outside the scheduler sleep until a job has finished: make one, wait, destroy it.
///
/// A finish counts from the construction on, also while nobody waits yet. One that came before is missed: be
/// sure that the target will finish once more. When wait() returns, the system does not touch the target any
/// more.
/// @threads any thread; also while the target runs
class ZEL_CORE_API WaitJob : public Job {
public:
    /// Runs ahead of most work, so that the waiting thread goes on soon.
    static constexpr uint32 Priority = 100;

    /// @param target  the job to wait for; must outlive this one
    explicit WaitJob(Job* target);
    WaitJob(const WaitJob&) = delete;
    WaitJob& operator=(const WaitJob&) = delete;
    ~WaitJob() override;

    /// Blocks until the target has finished since the construction or the last wait.
    /// @pre not called from a job: the thread would not work meanwhile
    void wait();

private:
    friend class Job;

    void release();
    /// Resolves the dependents of a job that has just finished on the calling thread, and runs its wait jobs.
    static void finish(Job& job, VectorPOD<Job*>& localJobs, Thread* thread);

    Job* m_target;
    WaitJob* m_nextWaiter = nullptr; // guarded by the lock of all waiter lists
    RankedMutex<LockRank::Sleep> m_mutex;
    std::condition_variable m_condition;
    bool m_released = false; // guarded by m_mutex
};

} // namespace zel
