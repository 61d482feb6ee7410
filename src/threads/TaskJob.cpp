#include <zel/Task.h>
#include <zel/TaskJob.h>

namespace zel {

TaskJob::TaskJob(Task* task) : m_executedTask(task) {
    setCallback([this] { execute(); });
}

TaskJob::TaskJob(const TaskJob& other) : TaskJob(other.m_executedTask) {
    *this = other;
}

TaskJob& TaskJob::operator=(const TaskJob& other) {
    if (this != &other) {
        Job::operator=(other);
        m_executedTask = other.m_executedTask;
        setCallback([this] { execute(); }); // the other's is bound to the other
    }
    return *this;
}

void TaskJob::execute() {
    m_executedTask->execute();
}

} // namespace zel
