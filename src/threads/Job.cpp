#include <zel/Job.h>
#include <zel/SyncTag.h>
#include <zel/Task.h>
#include <zel/Thread.h>
#include <zel/Timer.h>
#include <zel/Verify.h>
#include <zel/WaitJob.h>

namespace zel {

Job::Job(const char* name) : m_spawnCallback([this] { spawn(); }), m_name(name) {}

Job::Job(Callback callback, const char* name, uint32 priority) : Job(name) {
    m_callback = std::move(callback);
    m_priority = priority;
}

Job::Job(const Job& other) : Job(other.m_name) {
    *this = other;
}

Job& Job::operator=(const Job& other) {
    // The spawn callback stays: the other's may be bound to the other job.
    m_name = other.m_name;
    m_callback = other.m_callback;
    m_task = other.m_task;
    m_targetThread = other.m_targetThread;
    m_syncTag = other.m_syncTag;
    m_restricted = other.m_restricted;
    m_home = other.m_home;
    m_priority = other.m_priority;
    return *this;
}

Job::~Job() = default;

void Job::implementation() {
    if (m_callback)
        m_callback();
}

void Job::spawn() {
    Thread* thread = Thread::getCurrentThread();
    zelVerify(thread != nullptr);
    thread->spawn(this);
}

bool Job::resolve() noexcept {
    // Read ahead of the addition: once all dependencies are in, the job and its edges may be changed or
    // freed.
    const uint32 numDependencies = getNumDependencies();
    const bool startsTask = m_startsTask;
    // Whoever adds the last one sees, through this chain of read-modify-writes, all that the other
    // dependencies wrote; the queues carry it on to the thread that runs the job.
    if (m_numResolved.fetch_add(1, std::memory_order_seq_cst) + 1 != numDependencies)
        return false;
    // No dependency adds for the next pass before this pass has run the job, so the store meets nobody.
    m_numResolved.store(startsTask ? Started : 0, std::memory_order_relaxed);
    return true;
}

void Job::execute(VectorPOD<Job*>& localJobs, Thread* thread) {
    static_cast<void>(executeAt(Timer::now(), localJobs, thread));
}

uint64 Job::executeAt(uint64 startTick, VectorPOD<Job*>& localJobs, Thread* thread) {
    startTiming(startTick);
    implementation();
    const uint64 endTick = Timer::now();
    stopTiming(endTick);
    if (Thread::isTimelineOn())
        thread->reportTimelineJob(this);
    finish(localJobs, thread);
    return endTick;
}

void Job::finish(VectorPOD<Job*>& localJobs, Thread* thread) {
    // Acquire: pairs with the release in WaitJob's constructor.
    if (m_waiters.load(std::memory_order_acquire) != nullptr)
        WaitJob::finish(*this, localJobs, thread);
    else
        resolveDependents(localJobs);
}

void Job::resolveDependents(VectorPOD<Job*>& localJobs) {
    if (m_firstOfTask != nullptr) {
        finishTask(localJobs);
        return;
    }
    resolveAll(localJobs);
}

void Job::resolveAll(VectorPOD<Job*>& localJobs) {
    // The job may be freed as soon as its last dependent is resolved: from there on only these two pointers
    // are used.
    Job* const* dependent = m_dependents.begin();
    Job* const* const end = m_dependents.end();
    for (; dependent != end; ++dependent)
        if ((*dependent)->resolve())
            localJobs.push_back(*dependent);
}

void Job::addDependent(Job* job) {
    m_dependents.push_back(job);
    job->m_dependencies.push_back(this);
    job->changeNumDependencies(1);
}

namespace {

/// Removes the last such entry: edges that are made and undone in every run are at the back.
bool eraseLast(VectorPOD<Job*>& jobs, const Job* job) {
    for (size_t i = jobs.size(); i-- > 0;) {
        if (jobs[i] == job) {
            jobs.erase(jobs.begin() + i);
            return true;
        }
    }
    return false;
}

} // namespace

bool Job::suspendDependent(const Job* job) {
    return eraseLast(m_dependents, job);
}

bool Job::removeDependent(Job* job) {
    if (!eraseLast(m_dependents, job))
        return false;
    eraseLast(job->m_dependencies, this);
    job->changeNumDependencies(-1);
    return true;
}

void Job::clearDependencies() {
    m_dependents.clear();
    m_dependencies.clear();
    m_numDependencies.store(0, std::memory_order_relaxed);
    m_numResolved.store(0, std::memory_order_relaxed); // the job is at rest
}

void Job::setTask(Task* task) {
    m_task = task;
}

void Job::setSyncTag(SyncTag* tag) {
    m_syncTag = tag;
    updateRestricted();
}

} // namespace zel
