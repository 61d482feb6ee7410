#pragma once

#include <zel/Callback.h>
#include <zel/Export.h>
#include <zel/Job.h>
#include <zel/Task.h>

namespace zel {

/// A task that is one job: it calls its callback, or, without one, run(). Override run() for a task of one's
/// own.
///
///     SerialTask task("print", [] { print(); });
///     task.execute();
///
/// A job that took long last time starts early next time.
class ZEL_CORE_API SerialTask : public Task {
public:
    explicit SerialTask(const Name& name, Device* device = nullptr);
    SerialTask(const Name& name, Callback callback, Device* device = nullptr);
    ~SerialTask() override;

    /// The work of a task without a callback. By default executes the task that the attribute "dispatch"
    /// named, if there is one.
    virtual void run();

    void setTargetThread(Thread* thread) override;
    [[nodiscard]] Job* getPreJob() override { return &m_job; }
    [[nodiscard]] Job* getPostJob() override { return &m_job; }
    [[nodiscard]] Job* getJob() noexcept { return &m_job; }
    /// Sets the work; empty for run().
    void setDispatch(Callback callback) { setJobCallback(m_job, std::move(callback)); }

    /// The priority of a job that took so long last time: 50000 for a millisecond, at least 100.
    [[nodiscard]] static uint32 priorityFor(double milliseconds) noexcept;

private:
    class ZEL_CORE_API SerialJob : public Job {
    public:
        explicit SerialJob(SerialTask& task);
        void implementation() override;

    private:
        SerialTask& m_owner;
    };

    Name m_jobName; // keeps the text of the job's name
    SerialJob m_job;
};

} // namespace zel
