#include "ClockFrame.h"
#include "ClockSteps.h"
#include "FlagScope.h"

#include <zel/Clock.h>
#include <zel/Exception.h>
#include <zel/Log.h>
#include <zel/Model.h>
#include <zel/TaskGroup.h>
#include <zel/Thread.h>
#include <zel/Verify.h>

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <stdexcept>
#include <utility>

namespace zel {

Clock::Clock(const Name& name, double frequency)
    : Task(name)
    , preTick(Name("PreTick"), this)
    , postTick(Name("PostTick"), this)
    , m_time("time", 0.0)
    , m_frequency("frequency", frequency)
    , m_timeModulation("timeModulation", 1.0)
    , m_timeStep("timeStep", 1.0)
    , m_frame("frame", 0)
    , m_jobName(name)
    , m_job(*this, m_jobName.c_str()) {
    zelVerifyN(frequency > 0, "%s: The frequency of a clock must be larger than 0", name.c_str());
    setModel(ClassModel());
    adoptJob(m_job);
    for (zelData::Value* value : std::initializer_list<zelData::Value*>{
             &m_time, &m_frequency, &m_timeModulation, &m_timeStep, &m_frame})
        Component::addObject(value);
    m_timeStep.set(calculateTimestep());
    m_frequency.updateEvent.connect([this](zelData::Value*) { updateTimeStep(); });
    m_timeModulation.updateEvent.connect([this](zelData::Value*) { updateTimeStep(); });
}

Clock::~Clock() {
    disconnect();
    if (m_master != nullptr)
        m_master->removeSlave(this);
    while (!m_slaves.empty())
        removeSlave(m_slaves.back());
    while (!m_events.empty())
        forget(m_events.back());
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

void Clock::updateTimeStep() {
    const double timeStep = calculateTimestep();
    if (!(timeStep > 0)) {
        ZEL_LOG_WARNING("Tried setting a timestep of " << timeStep
                                                       << ", but the timestep must be larger than 0");
        return;
    }
    if (m_frameEvent)
        m_frameEvent->setInterval(1 / m_frequency.get());
    const double oldTimeStep = m_timeStep.get();
    m_timeStep.set(timeStep);
    rebuild(oldTimeStep);
}

void Clock::setFrequency(double frequency) {
    if (frequency > 0)
        m_frequency.set(frequency);
    else
        ZEL_LOG_WARNING("Tried setting a frequency of " << frequency
                                                        << ", but the frequency must be larger than 0");
}

void Clock::setTimeStep(double timeStep) {
    if (timeStep > 0)
        setFrequency(m_timeModulation.get() / timeStep);
    else
        ZEL_LOG_WARNING("Tried setting a timestep of " << timeStep
                                                       << ", but the timestep must be larger than 0");
}

void Clock::setTimeModulation(double modulation) {
    if (modulation > 0)
        m_timeModulation.set(modulation);
    else
        ZEL_LOG_WARNING("Tried setting a time modulation of "
                        << modulation << ", but the time modulation must be larger than 0");
}

void Clock::setTime(double time) {
    m_time.set(time);
}

void Clock::setFrame(size_t frame) {
    zelVerify(frame != InvalidIndex);
    const uint64 oldFrame = m_frame.get();
    m_frame.set(frame);
    scheduleAnew(m_timeStep.get(), oldFrame);
}

void Clock::reset() {
    m_time.set(0);
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
    if (!isEnabled())
        return;
    zelVerifyNAs(
        !m_isTicking, "!m_isTicking", "%s: A clock can not tick within its own tick", getPath().c_str());
    const FlagScope scope(m_isTicking);
    preTick.fire(this);
    if (!m_isSlaveTicking && !m_frameWrapper)
        m_frameWrapper = new FrameWrapper;
    collectFrame();
    if (!m_isSlaveTicking)
        runFrame();
    dispatchEvents();
    m_time.set(m_time.get() + m_timeStep.get());
    m_frame.set(m_frame.get() + 1);
    postTick.fire(this);
}

void Clock::collectFrame() {
    for (size_t i = 0; i < m_frameTasks.size();) {
        if (Task* task = m_frameTasks[i].get()) {
            m_frameWrapper->add(task);
            ++i;
            continue;
        }
        m_frameTasks[i] = m_frameTasks.back();
        m_frameTasks.pop_back();
    }
    for (Job* job : m_frameJobs)
        m_frameWrapper->add(job);
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
    class EnableScope {
    public:
        explicit EnableScope(Clock& clock) : m_clock(clock), m_wasEnabled(clock.isEnabled()) {
            m_clock.setEnable(true);
        }
        EnableScope(const EnableScope&) = delete;
        EnableScope& operator=(const EnableScope&) = delete;
        ~EnableScope() { m_clock.setEnable(m_wasEnabled); }

    private:
        Clock& m_clock;
        bool m_wasEnabled;
    };
    const EnableScope scope(*this);
    // The sum of many steps falls short of their product.
    const double goal = time - StepTolerance * std::max(std::abs(time), m_timeStep.get());
    while (m_time.get() < goal) {
        if (!(m_time.get() + m_timeStep.get() > m_time.get())) {
            ZEL_LOG_WARNING(getPath() << ": The timestep of " << m_timeStep.get()
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
    m_frameTasks.push_back(task);
}

bool Clock::removeFrameTask(Task* task) {
    for (observer_ptr<Task>& other : m_frameTasks) {
        if (task != nullptr && other == task) {
            m_frameTasks.erase(&other);
            return true;
        }
    }
    return false;
}

void Clock::addFrameJob(Job* job) {
    zelVerify(job);
    if (!m_frameJobs.contains(job))
        m_frameJobs.push_back(job);
}

bool Clock::removeFrameJob(Job* job) {
    return m_frameJobs.findAndErase(job);
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
    zelVerifyN(!follows(clock), "%s: A clock can not be its own master", clock->getPath().c_str());
    if (clock->m_master == this)
        return;
    if (clock->m_master != nullptr)
        clock->m_master->removeSlave(clock);
    const double interval = 1 / clock->getFrequency();
    clock->m_master = this;
    m_slaves.push_back(clock);
    clock->m_frameEvent = new Event(Name(clock->getPath().str()));
    clock->m_frameEvent->setInterval(interval);
    clock->m_frameEvent->setStartDelay(interval);
    clock->m_frameEvent->callbacks.connect([clock] { clock->slaveTick(); });
    addEvent(clock->m_frameEvent.get());
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
    const FlagScope scope(m_isSlaveTicking);
    const ref_ptr<FrameWrapper> own(m_frameWrapper);
    m_frameWrapper = m_master->m_frameWrapper;
    tick(false);
    m_frameWrapper = own;
}

void Clock::bind(const Path& path) {
    m_masterPath = path;
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
