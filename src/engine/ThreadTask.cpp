#include <zel/ScalarParameter.h>
#include <zel/Thread.h>
#include <zel/ThreadTask.h>
#include <zel/Verify.h>
#include <zelData/Type.h>

#include <algorithm>
#include <utility>

namespace zel {

ThreadTask::ThreadTask(const Name& name, Callback callback, Callback finishCallback, size_t numThreads)
    : ParallelTask(name)
    , m_callback(std::move(callback))
    , m_numThreads(new ScalarParameter("numThreads", zelData::getType("UInt")->getDefaultFormat())) {
    countThreadTasks(1);
    addParameter(m_numThreads.get());
    setNumThreads(numThreads);
    setDispatch([this] { dispatch(); });
    if (finishCallback)
        postEvent.connect([finish = std::move(finishCallback)](Task*) { finish(); });
}

ThreadTask::ThreadTask(const Name& name, Callback callback, size_t numThreads)
    : ThreadTask(name, std::move(callback), Callback(), numThreads) {}

ThreadTask::ThreadTask(Callback callback, size_t numThreads)
    : ThreadTask("ThreadTask", std::move(callback), numThreads) {}

ThreadTask::~ThreadTask() {
    disconnect();
    releaseJobs();
}

size_t ThreadTask::getNumThreads() const {
    const void* content = m_numThreads->getData();
    zelVerifyN(content != nullptr, "%s: The number of threads has no content", getPath().c_str());
    return *static_cast<const uint64*>(content);
}

void ThreadTask::setNumThreads(size_t numThreads) {
    const uint64 content = numThreads;
    m_numThreads->getValue()->set(&content);
}

void ThreadTask::releaseJobs() {
    removeAllJobs();
    for (Job& job : m_jobs)
        releaseJob(job);
}

void ThreadTask::resizeJobs(size_t count) {
    if (count <= m_capacity / 4) {
        m_jobs = Vector<Job>();
        m_capacity = 0;
    }
    m_jobs.resize(count);
    m_capacity = std::max(m_capacity, count);
}

void ThreadTask::dispatch() {
    if (m_preCallback)
        m_preCallback();
    releaseJobs();
    resizeJobs(std::min(zel::getNumThreads(), getNumThreads()));
    for (size_t i = 0; i < m_jobs.size(); ++i) {
        Job& job = m_jobs[i];
        job.setCallback(m_callback);
        job.setName(getName().c_str());
        job.setTargetThread(Thread::getThread(static_cast<uint32>(i)));
        adoptJob(job);
        addJob(&job);
    }
}

} // namespace zel
