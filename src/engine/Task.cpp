#include "TaskDisableHelper.h"
#include "TaskPaths.h"
#include "TaskRunRoot.h"

#include <zel/Log.h>
#include <zel/Model.h>
#include <zel/Statistics.h>
#include <zel/Task.h>
#include <zel/TaskGroup.h>
#include <zel/Thread.h>
#include <zel/Verify.h>
#include <zel/WaitJob.h>

#include <algorithm>
#include <iostream>
#include <optional>
#include <utility>

namespace zel {

constinit std::atomic<Task::ProfilingMode> Task::s_profilingMode{Task::ProfilingOff};
constinit std::atomic<bool> Task::s_unhandledException{false};

namespace {

const Name& preEventName() {
    static const Name name("PreEvent");
    return name;
}

const Name& postEventName() {
    static const Name name("PostEvent");
    return name;
}

const Name& parameterAddedEventName() {
    static const Name name("ParameterAddedEvent");
    return name;
}

const Name& parameterRemovedEventName() {
    static const Name name("ParameterRemovedEvent");
    return name;
}

const Name& enableName() {
    static const Name name("enable");
    return name;
}

/// The next task above that reports to the statistics.
void* findReportingParent(Object* context, const Task* task) {
    for (; context != nullptr; context = context->getContext())
        if (auto* above = dynamic_cast<Task*>(context); above != nullptr && above != task)
            return above;
    return nullptr;
}

} // namespace

Task::Task(const Name& name, Device* device)
    : Component(name, ClassModel(), device)
    , preEvent(preEventName(), this)
    , postEvent(postEventName(), this)
    , parameterAddedEvent(parameterAddedEventName(), this)
    , parameterRemovedEvent(parameterRemovedEventName(), this)
    , m_enable(enableName(), true) {
    init();
}

void Task::init() {
    Thread::initThreadSystem();
    Component::addObject(&m_enable);
    m_enable.updateEvent.connect([this](zelData::Value*) { enableCallback(); });
    if (Statistics::hasInstance() && Statistics::getEnable())
        registerStatistics();
}

void Task::registerStatistics() {
    m_timingHandle = Statistics::instance()->registerTaskTimerProvider(this, getName().c_str(), nullptr);
    if (!m_timingHandle)
        ZEL_LOG_ERROR("A task tried to register itself as a task timing provider, but Statistics doesn't "
                      "allow it.\n"
                      "This happens when another provider was deleted without being unregistered, and this "
                      "task took over its address.");
}

Task::~Task() {
    zelVerifyNAs(!isRunning() || Task::hasUnhandledException(),
                 "!m_running || Task::hasUnhandledException()",
                 "Task %p (%s) is still running as destructor is called",
                 static_cast<void*>(this),
                 getPath().c_str());
    for (Task* parent : m_parents) {
        parent->m_children.findAndErase(this);
        parent->countOuterEdges(-1);
    }
    for (Task* child : m_children) {
        child->m_parents.findAndErase(this);
        child->countOuterEdges(-1);
    }
    for (const ref_ptr<Parameter>& parameter : m_parameters)
        parameter->setTask(nullptr);
    if (hasUnhandledException())
        Thread::forgetTask(this);
    if (m_timingHandle && Statistics::hasInstance())
        Statistics::instance()->unregisterDataProvider(this);
}

Model* Task::ClassModel() {
    static std::atomic<Model*> s_model{nullptr};
    return Model::createBuiltinModel("zel.Task", Component::ClassModel(), s_model);
}

void Task::signalUnhandledException() noexcept {
    s_unhandledException.store(true, std::memory_order_release);
}

bool Task::hasUnhandledException() noexcept {
    return s_unhandledException.load(std::memory_order_acquire);
}

void Task::setTargetThread(Thread* thread) {
    getPreJob()->setTargetThread(thread);
    getPostJob()->setTargetThread(thread);
}

void Task::adoptJob(Job& job) {
    job.setTask(this);
    unreference_nodelete();
}

void Task::releaseJob(Job& job) {
    if (Task* task = job.getTask(); task != nullptr) {
        task->reference();
        static_cast<void>(job.m_task.release_nodelete());
    }
}

// Execution

namespace {

/// Ends a thread's claim to a task.
class Claim {
public:
    explicit Claim(std::atomic<Thread*>& claimedBy) : m_claimedBy(claimedBy) {}
    Claim(const Claim&) = delete;
    Claim& operator=(const Claim&) = delete;
    ~Claim() {
        // Release: pairs with the acquire of the next thread to execute the task.
        m_claimedBy.store(nullptr, std::memory_order_release);
    }

private:
    std::atomic<Thread*>& m_claimedBy;
};

} // namespace

/// A run that execute() begins, on a task that the thread has claimed. The last job points at the thread, and
/// runs that the task is part of as well are held back from it: the argument stands in JobHold.cpp.
class Task::SoleRun {
public:
    SoleRun(Task& task, Thread* thread)
        : m_first(isHeldBack(task) ? task.getPreJob() : nullptr)
        , m_postJob(task.getPostJob())
        , m_thread(thread)
        , m_oldTarget(m_postJob->getTargetThread()) {
        m_postJob->setTargetThread(thread);
        if (RunRoot::hasLeavingEdges(task)) {
            const auto lock = RunRoot::lockEdges();
            m_root.emplace(task, task).cut();
        }
    }
    SoleRun(const SoleRun&) = delete;
    SoleRun& operator=(const SoleRun&) = delete;
    ~SoleRun() {
        if (m_root) {
            const auto lock = RunRoot::lockEdges();
            m_root->restore();
        }
        // The task may be part of another one's run next, on other threads.
        m_postJob->setTargetThread(m_oldTarget);
        if (m_first != nullptr && m_first->letGo() && !hasUnhandledException())
            m_thread->spawnForOthers(m_first);
    }

    /// To be asked by whoever has claimed the task.
    /// @return whether the task may be executed now, and is held back from the runs that it is part of
    [[nodiscard]] static bool begin(Task& task) {
        if (hasUnhandledException()) // the task may never stop running
            return true;
        return !task.isRunning() && (!RunRoot::isShared(task) || task.getPreJob()->holdBack());
    }

private:
    [[nodiscard]] static bool isHeldBack(Task& task) {
        return (task.getPreJob()->m_numResolved.load(std::memory_order_relaxed) & Job::HeldBack) != 0;
    }

    Job* m_first; // held back; null for a task that is part of nothing else
    Job* m_postJob;
    Thread* m_thread;
    Thread* m_oldTarget;
    std::optional<RunRoot> m_root;
};

bool Task::claim(Thread* thread) {
    bool isNew = true;
    for (;;) {
        Thread* owner = nullptr;
        // Acquire: pairs with the release of the thread that executed the task before. Sequentially
        // consistent: see RunRoot::join.
        if (m_claimedBy.compare_exchange_strong(owner, thread, std::memory_order_seq_cst)) {
            if (SoleRun::begin(*this))
                return true;
            // It is just being run as a part of something else. What this thread works off meanwhile may
            // execute the task as well, and must not take it for one that the thread has begun.
            m_claimedBy.store(nullptr, std::memory_order_release);
            // What such a run waits for must not wait for its end.
            zelVerifyAs(!isNew || !thread->worksFor(this), "!s_activeTasks.contains(task)");
            isNew = false;
        } else if (owner == thread) {
            return false;
        }
        thread->workOrYield();
    }
}

void Task::execute() {
    std::optional<Thread::MainThreadHold> hold;
    if (RunRoot::needsMainThread(*this))
        hold.emplace();
    Thread* thread = Thread::getCurrentThread();
    const bool registered = thread == nullptr;
    if (registered)
        thread = Thread::registerAsZelThread();
    // A task is not re-entrant: a second thread waits for the first. A thread that has begun a run already,
    // and has picked up this call while it works for that, completes the run first. A call from within the
    // run, and a task that has thrown and never stops running: both are refused.
    if (claim(thread)) {
        const Claim end(m_claimedBy);
        const SoleRun run(*this, thread);
        executeOn(thread);
    } else {
        thread->finishEarlierRun(this);
        executeOn(thread);
    }
    // After an exception the thread stays as it is, with what is left in its queue.
    if (registered)
        Thread::unregisterAsZelThread();
}

void Task::executeOn(Thread* thread) {
    m_thread = thread;
    Thread::beginTask(this, true);
    thread->blockingDoWork();
    thread->verifyLastFrame(this);
    m_thread = nullptr;
}

void Task::wait() {
    WaitJob job(getPostJob());
    job.wait();
}

void Task::beginCallback() {
    const bool profiling = getProfilingMode() != ProfilingOff;
    if (profiling) {
        m_wallTimer.reset();
        m_wallTimer.start();
    }
    if (!m_parameters.empty())
        readParameters();
    preEvent.fire(this);
    // Release: free here, and nobody waits for the begin.
    m_running.store(true, std::memory_order_release);
    if (profiling) {
        m_computeTimer.reset();
        m_computeTimer.start();
    }
}

void Task::endCallback(float computeCost, float overhead) {
    if (m_computeTimer.isRunning())
        m_computeTimer.stop();
    if (!m_parameters.empty())
        writeParameters();
    postEvent.fire(this);
    pass();
    // Release: pairs with isRunning.
    m_running.store(false, std::memory_order_release);

    if (getProfilingMode() == ProfilingOff)
        m_computeCost = m_overhead = m_wallTime = 0;
    else
        measure(computeCost, overhead);
    if (m_timingHandle)
        report();
}

void Task::measure(float computeCost, float overhead) {
    m_wallTimer.stop();
    m_wallTime = static_cast<float>(m_wallTimer.getMilliseconds());
    if (getProfilingMode() != ProfilingFull)
        return;
    m_computeCost = computeCost;
    // What the run took beyond the work itself, and what parts of the task report.
    const auto busy = static_cast<float>(m_computeTimer.getMilliseconds());
    m_overhead = overhead + std::max(0.0F, busy - computeCost);
    m_accumulatedComputeCost += m_computeCost;
    m_accumulatedOverhead += m_overhead;
    m_accumulatedWallTime += m_wallTime;
    ++m_numAccumulatedRuns;
}

void Task::pass() {
    if (m_completes) {
        m_completes = false;
        Thread::s_taskCompletionCallback(this);
    }
}

void Task::report() const {
    if (!Statistics::hasInstance() || !Statistics::getEnable())
        return;
    m_timingHandle->getWallTime()->add(static_cast<double>(m_wallTime));
    m_timingHandle->getOverhead()->add(static_cast<double>(m_overhead));
}

void Task::resetAccumulationTimers(bool recursive) {
    m_accumulatedComputeCost = m_accumulatedOverhead = m_accumulatedWallTime = 0;
    m_numAccumulatedRuns = 0;
    if (!recursive)
        return;
    Vector<Object*> objects;
    getObjects(objects);
    for (Object* object : objects)
        if (auto* task = dynamic_cast<Task*>(object))
            task->resetAccumulationTimers(true);
}

// The tree

void Task::traverse(const Callback1<Task*>& callback, bool) {
    callback(this);
}

void Task::save(TiXmlElement*) const {
    std::cout << "Task::save() TODO Implementation\n";
}

void Task::setContext(Object* context) {
    if (m_group != nullptr && context != m_group)
        m_group->leave(this);
    Component::setContext(context);
    if (m_timingHandle && Statistics::hasInstance())
        Statistics::instance()->setContext(this, findReportingParent(context, this));
}

void Task::subtaskAddedCallback(Task*) {}

} // namespace zel
