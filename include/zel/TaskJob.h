#pragma once

#include <zel/Export.h>
#include <zel/Job.h>

namespace zel {

class Task;

/// A job that executes a task, on whichever thread runs the job.
class ZEL_CORE_API TaskJob : public Job {
public:
    /// @param task  not owned
    explicit TaskJob(Task* task = nullptr);
    TaskJob(const TaskJob& other);
    TaskJob& operator=(const TaskJob& other);

    void setExecutedTask(Task* task) noexcept { m_executedTask = task; }
    [[nodiscard]] Task* getExecutedTask() const noexcept { return m_executedTask; }

    void execute();
    using Job::execute;

private:
    Task* m_executedTask;
};

} // namespace zel
