#include "ClockFrame.h"
#include "ClockSteps.h"
#include "containers/FlagScope.h"
#include "tree/Farewell.h"
#include "tree/PathNotes.h"

#include <zel/Clock.h>
#include <zel/Exception.h>
#include <zel/FirstException.h>
#include <zel/Log.h>
#include <zel/Model.h>
#include <zel/TaskGroup.h>
#include <zel/Thread.h>
#include <zel/TreeGate.h>
#include <zel/Verify.h>

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <limits>
#include <optional>
#include <stdexcept>
#include <utility>

namespace zel {

namespace {

/// Whether a clock can not go by the number, which is told.
bool isRefused(const char* what, double number) {
    if (number > 0 && std::isfinite(number))
        return false;
    ZEL_LOG_WARNING("Tried setting a " << what << " of " << number << ", but the " << what
                                       << (number > 0 ? " must be finite" : " must be larger than 0"));
    return true;
}

bool isRefusedTiming(double frequency, double modulation) {
    return isRefused("frequency", frequency) || isRefused("time modulation", modulation) ||
           isRefused("timestep", modulation / frequency);
}

} // namespace

Clock::Clock(const Name& name, double frequency)
    : Task(name)
    , preTick(Name("PreTick"), this)
    , postTick(Name("PostTick"), this)
    , m_time("time", 0.0)
    , m_frequency("frequency", frequency)
    , m_timeModulation("timeModulation", 1.0)
    , m_timeStep("timeStep", 1.0)
    , m_frame("frame", 0)
    , m_presentFrequency(frequency)
    , m_presentTimeStep(1 / frequency)
    , m_jobName(name)
    , m_job(*this, m_jobName.c_str()) {
    zelVerifyN(frequency > 0, "%s: The frequency of a clock must be larger than 0", name.c_str());
    zelVerifyN(std::isfinite(frequency) && std::isfinite(1 / frequency),
               "%s: The frequency of a clock and its timestep must be finite",
               name.c_str());
    setModel(ClassModel());
    rebindsOnDemand(typeid(Clock));
    adoptJob(m_job);
    for (zelData::Value* value : std::initializer_list<zelData::Value*>{
             &m_time, &m_frequency, &m_timeModulation, &m_timeStep, &m_frame})
        Component::addObject(value);
    m_timeStep.set(m_presentTimeStep);
    m_frequency.updateEvent.connect([this](zelData::Value*) { followFrequency(); });
    m_timeModulation.updateEvent.connect([this](zelData::Value*) { followModulation(); });
    m_timeStep.updateEvent.connect([this](zelData::Value*) { followTimeStep(); });
    m_frame.updateEvent.connect([this](zelData::Value*) { followFrame(); });
}

Clock::~Clock() {
    disconnect();
    if (m_master != nullptr)
        runWhileDestroyed(*this, [this] { m_master->removeSlave(this); });
    while (!m_slaves.empty())
        runWhileDestroyed(*this, [this] { removeSlave(m_slaves.back()); });
    while (!m_events.empty())
        runWhileDestroyed(*this, [this] { forget(m_events.back()); });
    for (const observer_ptr<Task>& task : m_frameTasks)
        if (task)
            task->m_frameClocks.findAndErase(this);
    // The program can take them off no more.
    for (const Job* job : m_frameJobs)
        withdraw(job);
    releaseJob(m_job);
}

Model* Clock::ClassModel() {
    static std::atomic<Model*> s_model{nullptr};
    return Model::createBuiltinModel("zel.Clock", Task::ClassModel(), s_model);
}

void Clock::setTargetThread(Thread* thread) {
    m_job.setTargetThread(thread);
}

void Clock::TickJob::implementation() {
    if (m_owner.isPassed()) {
        m_callback();
        return;
    }
    m_owner.beginCallback();
    m_owner.tick(false);
    stopTiming();
    m_owner.endCallback(
        getProfilingMode() == ProfilingFull ? static_cast<float>(Timer::toMilliseconds(m_cycles)) : 0, 0);
}

// Time

double Clock::calculateTimestep() const {
    return m_timeModulation.get() / m_frequency.get();
}

// The values are set by the operations here, by whoever holds the child, and by what they are bound to.

void Clock::followFrequency() {
    const double frequency = m_frequency.get();
    if (isRefusedTiming(frequency, m_presentModulation)) {
        takeBack(m_frequency, m_presentFrequency);
        return;
    }
    m_presentFrequency = frequency;
    updateTimeStep();
}

void Clock::followModulation() {
    const double modulation = m_timeModulation.get();
    if (isRefusedTiming(m_presentFrequency, modulation)) {
        takeBack(m_timeModulation, m_presentModulation);
        return;
    }
    m_presentModulation = modulation;
    updateTimeStep();
}

void Clock::followTimeStep() {
    const double timeStep = m_timeStep.get();
    if (timeStep == m_presentTimeStep)
        return; // it has followed the others
    if (isRefused("timestep", timeStep) ||
        isRefusedTiming(m_presentModulation / timeStep, m_presentModulation))
        takeBack(m_timeStep, m_presentTimeStep);
    else
        m_frequency.set(m_presentModulation / timeStep);
}

void Clock::followFrame() {
    const uint64 frame = m_frame.get();
    if (frame == m_presentFrame)
        return;
    if (frame == InvalidIndex) {
        ZEL_LOG_WARNING("Tried setting an invalid frame");
        takeBack(m_frame, m_presentFrame);
        return;
    }
    scheduleAnew(m_presentTimeStep, std::exchange(m_presentFrame, frame));
}

void Clock::updateTimeStep() {
    if (m_frameEvent)
        m_frameEvent->setInterval(1 / m_presentFrequency);
    const double oldTimeStep = std::exchange(m_presentTimeStep, m_presentModulation / m_presentFrequency);
    // A step that is bound to another value has set the frequency, by a quotient that is rounded.
    const double rounding = std::numeric_limits<double>::epsilon() * m_presentTimeStep;
    if (m_timeStep.getBinding() == nullptr || std::abs(m_timeStep.get() - m_presentTimeStep) > rounding)
        m_timeStep.set(m_presentTimeStep);
    rebuild(oldTimeStep);
    warnOfSlowMaster();
    for (const Clock* slave : m_slaves)
        slave->warnOfSlowMaster();
}

void Clock::setFrequency(double frequency) {
    if (!isRefusedTiming(frequency, m_presentModulation))
        m_frequency.set(frequency);
}

void Clock::setTimeStep(double timeStep) {
    if (!isRefused("timestep", timeStep))
        setFrequency(m_presentModulation / timeStep);
}

void Clock::setTimeModulation(double modulation) {
    if (!isRefusedTiming(m_presentFrequency, modulation))
        m_timeModulation.set(modulation);
}

void Clock::setTime(double time) {
    m_time.set(time);
}

void Clock::setFrame(size_t frame) {
    zelVerify(frame != InvalidIndex);
    m_frame.set(frame);
}

void Clock::reset() {
    const Keep keep(*this);
    m_time.set(0);
    m_presentFrame = 0;
    m_frame.set(0);
    clearSchedule();
    m_due.clear();
    for (Event* event : m_events)
        event->m_state = Event::State::Idle;
    // A callback of an event may change the list.
    const Vector<ref_ptr<Event>> events(holdEvents());
    for (const ref_ptr<Event>& event : events) {
        if (event->m_clock != this)
            continue;
        reschedule(event.get());
        event->reset();
    }
}

// Ticks

void Clock::tick(bool) {
    if (!isEnabled() && !m_isForced)
        return;
    const TreeChange change;
    const Keep keep(*this);
    zelVerifyNAs(
        !m_isTicking, "!m_isTicking", "%s: A clock can not tick within its own tick", getPath().c_str());
    const FlagScope scope(m_isTicking);
    warnOfLostPaths(*this);
    // The timeline is exported at the end by a job on each thread.
    std::optional<Thread::MainThreadHold> hold;
    if (!m_isSlaveTicking && m_isThreadTimelineResponsible && Thread::getEnableJobTimeline())
        hold.emplace();
    preTick.fire(this);
    if (!m_isSlaveTicking && !m_frameWrapper)
        m_frameWrapper = new FrameWrapper;
    collectFrame();
    if (!m_isSlaveTicking)
        runFrame();
    dispatchEvents();
    m_time.set(m_time.get() + m_presentTimeStep);
    m_frame.set(++m_presentFrame);
    postTick.fire(this);
}

void Clock::collectFrame() {
    joinFrame();
    if (m_isSlaveTicking && m_joined != m_frameWrapper)
        m_joined = m_frameWrapper;
}

void Clock::joinFrame() {
    for (size_t i = 0; i < m_frameTasks.size();) {
        if (Task* task = m_frameTasks[i].get()) {
            m_frameWrapper->add(task, this);
            ++i;
            continue;
        }
        m_frameTasks[i] = m_frameTasks.back();
        m_frameTasks.pop_back();
    }
    for (Job* job : m_frameJobs)
        m_frameWrapper->add(job, this);
}

bool Clock::hasJoinedMaster() const {
    return m_joined && m_joined->hasAdded(this);
}

void Clock::restoreJoined(bool joined) {
    zelVerifyN(!m_isTicking, "%s: A clock can not be restored within its own tick", getPath().c_str());
    if (m_joined)
        m_joined->withdrawAll(this);
    if (!joined || m_master == nullptr)
        return;
    Clock* top = m_master; // whose frame is that of all below
    while (top->m_master != nullptr)
        top = top->m_master;
    if (!top->m_frameWrapper)
        top->m_frameWrapper = new FrameWrapper;
    m_joined = top->m_frameWrapper;
    const ref_ptr<FrameWrapper> own(std::exchange(m_frameWrapper, m_joined));
    joinFrame();
    m_frameWrapper = own;
}

void Clock::runFrame() {
    const bool timeline = m_isThreadTimelineResponsible && Thread::getEnableJobTimeline();
    if (timeline)
        Thread::resetStartTick();
    m_frameWrapper->runOnce();
    if (timeline)
        Thread::exportAllTimelines();
}

void Clock::stepTo(double time) {
    if (!(m_time.get() < time))
        return;
    const Keep keep(*this);
    // Not by the value, which may follow another one.
    const FlagScope forced(m_isForced);
    const double lost = lostInSteps(m_time.get(), time, m_presentTimeStep);
    // The callbacks may change the step.
    while (m_time.get() < time - std::min(lost, MostTolerance * m_presentTimeStep)) {
        if (!(m_time.get() + m_presentTimeStep > m_time.get())) {
            ZEL_LOG_WARNING(getPath() << ": The timestep of " << m_presentTimeStep
                                      << " is too small to advance the time of " << m_time.get());
            return;
        }
        tick(true);
    }
}

void Clock::stepForward(double duration) {
    stepTo(m_time.get() + duration);
}

// What runs in a frame

void Clock::addFrameTask(Task* task) {
    zelVerify(task);
    zelVerifyNAs(task->getGroup() == nullptr,
                 "!task->getGroup()",
                 "Subtask '%s' is already part of a group!",
                 task->getPath().c_str());
    for (const observer_ptr<Task>& other : m_frameTasks)
        if (other == task)
            return;
    RunRoot::markJobs(*task);
    m_frameTasks.push_back(task);
    task->m_frameClocks.push_back(this);
}

bool Clock::removeFrameTask(Task* task) {
    for (observer_ptr<Task>& other : m_frameTasks) {
        if (task != nullptr && other == task) {
            m_frameTasks.erase(&other);
            task->m_frameClocks.findAndErase(this);
            withdraw(task);
            return true;
        }
    }
    return false;
}

void Clock::replaceFrameTask(Task* task, Task* with) {
    if (with->getGroup() != nullptr || with->m_frameClocks.contains(this)) {
        removeFrameTask(task);
        return;
    }
    addFrameTask(with);
    if (m_joined)
        m_joined->replace(task, with, this);
    for (observer_ptr<Task>& other : m_frameTasks)
        if (other == task)
            std::swap(other, m_frameTasks.back());
    removeFrameTask(task);
}

void Clock::addFrameJob(Job* job) {
    zelVerify(job);
    if (!m_frameJobs.contains(job))
        m_frameJobs.push_back(job);
}

bool Clock::removeFrameJob(Job* job) {
    if (!m_frameJobs.findAndErase(job))
        return false;
    withdraw(job);
    return true;
}

void Clock::withdraw(const Job* job) {
    if (m_joined)
        m_joined->withdraw(job, this);
}

void Clock::withdraw(const Task* task) {
    if (m_joined)
        m_joined->withdraw(task, this);
}

// Slaves

bool Clock::follows(const Clock* clock) const noexcept {
    for (const Clock* above = this; above != nullptr; above = above->m_master)
        if (above == clock)
            return true;
    return false;
}

void Clock::addSlave(Clock* clock) {
    zelVerify(clock);
    if (clock->m_master == this)
        return;
    const Keep keep(*this);
    const Keep keepSlave(*clock);
    FirstException failure;
    if (clock->m_master != nullptr)
        failure.run([clock] { clock->m_master->removeSlave(clock); });
    if (clock->m_master != nullptr) { // a callback has chosen another one
        failure.rethrow();
        return;
    }
    zelVerifyN(!follows(clock), "%s: A clock can not be its own master", clock->getPath().c_str());
    const double interval = 1 / clock->getFrequency();
    const ref_ptr<Event> frameEvent(new Event(Name(clock->getPath().str())));
    clock->m_master = this;
    m_slaves.push_back(clock);
    clock->m_frameEvent = frameEvent;
    frameEvent->setInterval(interval);
    frameEvent->setStartDelay(interval);
    frameEvent->callbacks.connect([clock] { clock->slaveTick(); });
    failure.run([this, &frameEvent] { addEvent(frameEvent.get()); });
    if (clock->m_master == this)
        clock->warnOfSlowMaster();
    failure.rethrow();
}

void Clock::warnOfSlowMaster() const {
    if (m_master == nullptr)
        return;
    const double interval = 1 / m_presentFrequency;
    if (interval < m_master->m_presentTimeStep * (1 - StepTolerance))
        ZEL_LOG_WARNING(getPath() << ": The clock falls behind its master '" << m_master->getPath()
                                  << "': it is to tick each " << interval
                                  << " s, and does so once a frame, each " << m_master->m_presentTimeStep
                                  << " s");
}

bool Clock::removeSlave(Clock* clock) {
    if (!m_slaves.findAndErase(clock))
        return false;
    clock->m_master = nullptr;
    const ref_ptr<Event> frameEvent(std::move(clock->m_frameEvent));
    removeEvent(frameEvent.get());
    return true;
}

void Clock::slaveTick() {
    /// Gives the clock its own frame back, also when the tick throws.
    class WrapperScope {
    public:
        WrapperScope(Clock& clock, FrameWrapper* wrapper)
            : m_clock(clock), m_own(std::exchange(clock.m_frameWrapper, ref_ptr<FrameWrapper>(wrapper))) {}
        WrapperScope(const WrapperScope&) = delete;
        WrapperScope& operator=(const WrapperScope&) = delete;
        ~WrapperScope() { m_clock.m_frameWrapper = m_own; }

    private:
        Clock& m_clock;
        ref_ptr<FrameWrapper> m_own;
    };
    const Keep keep(*this);
    const FlagScope scope(m_isSlaveTicking);
    const WrapperScope wrapper(*this, m_master->m_frameWrapper.get());
    tick(false);
}

void Clock::bind(const Path& path) {
    m_masterPath = path;
    demandRebind();
    if (getEnableRebind())
        rebind();
}

void Clock::rebind() {
    Task::rebind();
    if (m_masterPath.empty())
        return;
    auto* master = dynamic_cast<Clock*>(getAutoScopedResource(m_masterPath, ClassModel()));
    if (master == nullptr || master == m_master)
        return;
    if (master->follows(this))
        ZEL_THROW(std::runtime_error,
                  String::format("%s: The clock can not tick with '%s', which ticks with it",
                                 getPath().c_str(),
                                 master->getPath().c_str()));
    master->addSlave(this);
}

} // namespace zel
