#pragma once

#include <zel/Callback.h>
#include <zel/Export.h>
#include <zel/Job.h>
#include <zel/JobGroup.h>
#include <zel/Task.h>
#include <zel/Vector.h>

#include <memory>

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

protected:
    /// Makes room for so many rows, so that setNumRows allocates nothing.
    void reserveRows(size_t numRows);
    /// Lets the jobs that are there run in so many rows of neighbours, each one after the other on one thread
    /// and without the queues; 0 lets each run by itself. The jobs must have no targets, no tags, and no
    /// edges but those that addJob makes. Holds until the jobs are removed.
    /// @param numRows  at most the number of jobs, and what was reserved
    /// @threads from the dispatch
    void setNumRows(size_t numRows);
    [[nodiscard]] size_t getNumRows() const noexcept { return m_numRows; }
    /// The ticks that a row, or a job that runs by itself, took in the quicker one of the last two runs.
    [[nodiscard]] uint64 getTicks(size_t index) const noexcept;

private:
    /// A job for some neighbours among the jobs.
    class ZEL_CORE_API Row final : public JobGroup {
    public:
        explicit Row(ParallelTask& task) : JobGroup(task.m_dispatchJob.getName()), m_owner(task) {}
        void implementation() override;
        void setRange(size_t begin, size_t end) noexcept {
            m_begin = begin;
            m_end = end;
        }

    private:
        ParallelTask& m_owner;
        size_t m_begin = 0;
        size_t m_end = 0;
    };
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
    void connectJob(Job& job);
    void disconnectJob(Job& job);
    /// Takes the rows, or the jobs that run by themselves, out of the graph.
    void disconnectJobs();

    Name m_jobName; // keeps the text of the dispatch job's name
    PreJob m_preJob;
    DispatchJob m_dispatchJob;
    PostJob m_postJob;
    VectorPOD<Job*> m_jobs;
    Vector<std::unique_ptr<Row>> m_rows; // those at work and those for later
    size_t m_numRows = 0;
    size_t m_numJobsInRows = 0; // the first ones
    Callback m_dispatch;
};

} // namespace zel
