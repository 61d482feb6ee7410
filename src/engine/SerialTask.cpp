#include <zel/SerialTask.h>
#include <zel/Timer.h>

#include <algorithm>
#include <limits>
#include <utility>

namespace zel {

SerialTask::SerialTask(const Name& name, Device* device) : Task(name, device), m_jobName(name), m_job(*this) {
    rebindsOnDemand(typeid(SerialTask));
    adoptJob(m_job);
}

SerialTask::SerialTask(const Name& name, Callback callback, Device* device) : SerialTask(name, device) {
    setDispatch(std::move(callback));
}

SerialTask::~SerialTask() {
    disconnect();
    releaseJob(m_job);
}

void SerialTask::run() {
    executeDispatchTarget();
}

void SerialTask::setTargetThread(Thread* thread) {
    m_job.setTargetThread(thread);
}

uint32 SerialTask::priorityFor(double milliseconds) noexcept {
    constexpr double Highest = std::numeric_limits<uint32>::max();
    return static_cast<uint32>(std::clamp(milliseconds * 50000.0, 100.0, Highest));
}

SerialTask::SerialJob::SerialJob(SerialTask& task) : Job(task.m_jobName.c_str()), m_owner(task) {}

void SerialTask::SerialJob::implementation() {
    if (m_owner.isPassed()) {
        m_callback();
        return;
    }
    setPriority(priorityFor(Timer::toMilliseconds(m_lastCycles)));
    m_owner.beginCallback();
    if (m_callback)
        m_callback();
    else
        m_owner.run();
    float computeCost = 0;
    if (getProfilingMode() == ProfilingFull) {
        stopTiming(); // the work alone
        computeCost = static_cast<float>(Timer::toMilliseconds(m_cycles));
    }
    m_owner.endCallback(computeCost, 0);
}

} // namespace zel
