#pragma once

#include <zel/Callback.h>
#include <zel/Export.h>
#include <zel/Job.h>
#include <zel/Task.h>
#include <zel/Vector.h>

namespace zel {

/// A task of any number of jobs that may run at the same time, between a first and a last job of its own. The
/// jobs are added once, or in each run by the dispatch callback:
///
///     ParallelTask task("sum");
///     for (RangeJob& job : jobs)
///         task.addJob(&job);
///     task.execute();
class ZEL_CORE_API ParallelTask : public Task {
public:
    explicit ParallelTask(const Name& name, Device* device = nullptr);
    /// @param dispatch  called in each run before the jobs; may remove and add jobs
    ParallelTask(const Name& name, Callback dispatch, Device* device = nullptr);
    ~ParallelTask() override;

    /// For the first job, the dispatch and the last one; the added jobs have targets of their own.
    void setTargetThread(Thread* thread) override;
    [[nodiscard]] Job* getPreJob() override { return &m_preJob; }
    [[nodiscard]] Job* getPostJob() override { return &m_postJob; }
    [[nodiscard]] Job* getDispatchJob() noexcept { return &m_dispatchJob; }
    /// Empty for executing the task that the attribute "dispatch" named, if there is one.
    void setDispatch(Callback dispatch) { m_dispatch = std::move(dispatch); }

    /// Makes the job run in each run of the task, after the dispatch and before the last job. The job is not
    /// owned, and may wait for other jobs of this task as well.
    /// @threads while the task does not run, or from its dispatch
    void addJob(Job* job);
    /// Lets all added jobs go; they must be alive. Edges among them stay.
    void removeAllJobs();
    [[nodiscard]] const VectorPOD<Job*>& getJobs() const noexcept { return m_jobs; }

private:
    class ZEL_CORE_API PreJob : public Job {
    public:
        explicit PreJob(ParallelTask& task) : Job("Pre"), m_owner(task) {}
        void implementation() override;

    private:
        ParallelTask& m_owner;
    };
    class ZEL_CORE_API DispatchJob : public Job {
    public:
        DispatchJob(ParallelTask& task, const char* name) : Job(name), m_owner(task) {}
        void implementation() override;

    private:
        ParallelTask& m_owner;
    };
    class ZEL_CORE_API PostJob : public Job {
    public:
        explicit PostJob(ParallelTask& task) : Job("Post"), m_owner(task) {}
        void implementation() override;

    private:
        ParallelTask& m_owner;
    };

    using Task::endCallback;
    void endCallback();
    /// The time that the jobs of this run took together, in milliseconds.
    [[nodiscard]] float measureComputeCost();

    Name m_jobName; // keeps the text of the dispatch job's name
    PreJob m_preJob;
    DispatchJob m_dispatchJob;
    PostJob m_postJob;
    VectorPOD<Job*> m_jobs;
    Callback m_dispatch;
};

} // namespace zel
