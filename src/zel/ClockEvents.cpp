#include "ClockSteps.h"

#include <zel/Clock.h>
#include <zel/Verify.h>

#include <algorithm>
#include <initializer_list>
#include <utility>

// What a clock has scheduled.

namespace zel {

void Clock::addEvent(Event* event) {
    zelVerify(event);
    zelVerifyN(event->m_clock == nullptr, "%s: The event already has a clock", event->getPath().c_str());
    event->m_clock = this;
    event->setIndex(m_events.size());
    m_events.push_back(event);
    addObject(event);
    reschedule(event);
    event->start();
}

bool Clock::removeEvent(Event* event) {
    if (event == nullptr || event->m_clock != this)
        return false;
    removeObject(event); // which ends in forget
    return true;
}

void Clock::forget(Event* event) {
    unschedule(event);
    m_events[event->m_index] = m_events.back();
    m_events[event->m_index]->setIndex(event->m_index);
    m_events.pop_back();
    event->setIndex(InvalidIndex);
    event->m_clock = nullptr;
    event->stop();
}

Vector<ref_ptr<Clock::Event>> Clock::holdEvents() const {
    Vector<ref_ptr<Event>> events;
    events.reserve(m_events.size());
    for (Event* event : m_events)
        events.push_back(ref_ptr<Event>(event));
    return events;
}

void Clock::schedule(Event* event) {
    schedule(event, event->m_presentInterval + event->m_residual);
}

void Clock::schedule(Event* event, double delay) {
    zelVerifyN(
        event->m_clock == this, "%s: The event does not belong to the clock", event->getPath().c_str());
    unschedule(event);
    const double timeStep = m_timeStep.get();
    const uint64 frames = std::max<uint64>(wholeSteps(delay, timeStep), 1);
    event->m_residual = delay - static_cast<double>(frames) * timeStep;
    event->m_dispatchFrame = m_frame.get() + frames;
    event->m_state = Event::State::Scheduled;
    const auto position = m_schedule.find(event->m_dispatchFrame);
    if (position == m_schedule.end()) {
        event->m_next = nullptr;
        m_schedule.insert(event->m_dispatchFrame, event);
    } else {
        event->m_next = std::exchange(position->value, event);
    }
}

namespace {

/// Takes the event out of a list.
template <typename Event>
void takeOut(Event*& head, Event* event, Event* Event::*next) {
    Event** link = &head;
    while (*link != event)
        link = &((*link)->*next);
    *link = event->*next;
    event->*next = nullptr;
}

} // namespace

void Clock::unschedule(Event* event) {
    if (event->m_clock != this)
        return;
    switch (std::exchange(event->m_state, Event::State::Idle)) {
    case Event::State::Idle:
        break;
    case Event::State::Due:
        takeOut(m_due, event, &Event::m_next);
        break;
    case Event::State::Scheduled: {
        const auto position = m_schedule.find(event->m_dispatchFrame);
        takeOut(position->value, event, &Event::m_next);
        if (position->value == nullptr)
            m_schedule.erase(event->m_dispatchFrame);
        break;
    }
    }
}

void Clock::reschedule(Event* event) {
    schedule(event, event->getStartDelay());
}

void Clock::rebuild(double oldTimeStep) {
    scheduleAnew(oldTimeStep, m_frame.get());
}

void Clock::scheduleAnew(double oldTimeStep, uint64 oldFrame) {
    m_schedule.clear();
    for (Event* event : m_events) {
        // What is due in this frame, and not dispatched yet, stays due.
        if (event->m_state != Event::State::Scheduled)
            continue;
        event->m_state = Event::State::Idle;
        schedule(event, event->timeFrom(oldFrame, oldTimeStep));
    }
}

void Clock::dispatchEvents() {
    const auto position = m_schedule.find(m_frame.get());
    if (position == m_schedule.end())
        return;
    m_due = position->value;
    m_schedule.erase(m_frame.get());
    for (Event* event = m_due; event != nullptr; event = event->m_next)
        event->m_state = Event::State::Due;
    while (m_due != nullptr) {
        const ref_ptr<Event> event(m_due);
        m_due = std::exchange(event->m_next, nullptr);
        event->m_state = Event::State::Idle;
        __builtin_prefetch(m_due); // thousands of events do not fit the cache
        if (event->m_presentlyEnabled)
            event->callbacks.fire();
        // The callbacks may have removed the event, or scheduled it themselves.
        if (event->m_clock != this || event->m_state != Event::State::Idle)
            continue;
        if (event->m_presentInterval < 0)
            removeObject(event.get());
        else
            schedule(event.get());
    }
}

// Events

Clock::Event::Event(Callback callback, double interval, double startDelay)
    : Clock::Event(Name(), interval, startDelay) {
    callbacks.connect(std::move(callback));
}

Clock::Event::Event(const Name& name) : Event(name, -1, 0) {}

Clock::Event::Event(const Name& name, double interval, double startDelay)
    : Component(name, Component::ClassModel())
    , callbacks(Name("Callbacks"), this)
    , m_startDelay("startDelay", startDelay)
    , m_interval("interval", interval)
    , m_repeating("repeating", interval >= 0)
    , m_enabled("enabled", true)
    , m_presentInterval(interval) {
    for (zelData::Value* value :
         std::initializer_list<zelData::Value*>{&m_startDelay, &m_interval, &m_repeating, &m_enabled}) {
        Component::addObject(value);
        value->updateEvent.connect([this](zelData::Value* changed) { valueCallback(changed); });
    }
}

Clock::Event::~Event() = default;

void Clock::Event::start() {}

void Clock::Event::stop() {}

void Clock::Event::reset() {}

void Clock::Event::setStartDelay(double delay) {
    m_startDelay.set(delay);
}

void Clock::Event::setInterval(double interval) {
    m_interval.set(interval);
}

void Clock::Event::setRepeating(bool repeating) {
    m_repeating.set(repeating);
}

void Clock::Event::setEnable(bool enable) {
    m_enabled.set(enable);
}

void Clock::Event::valueCallback(zelData::Value* value) {
    if (value == &m_startDelay) {
        if (m_clock != nullptr)
            m_clock->reschedule(this);
        return;
    }
    m_presentInterval = m_interval.get();
    m_presentlyEnabled = m_enabled.get();
    if (value != &m_interval && value != &m_repeating && value != &m_enabled)
        zelAbort("%s: Unknown value", value->getPath().c_str());
}

double Clock::Event::timeFrom(uint64 frame, double timeStep) const {
    return (static_cast<double>(m_dispatchFrame) - static_cast<double>(frame)) * timeStep + m_residual;
}

double Clock::Event::calculateTimeUntilDispatch() const {
    return m_clock == nullptr ? 0 : calculateTimeUntilDispatch(m_clock->getTimeStep());
}

double Clock::Event::calculateTimeUntilDispatch(double timeStep) const {
    return m_clock == nullptr ? 0 : timeFrom(m_clock->getFrame(), timeStep);
}

void Clock::Event::setContext(Object* context) {
    if (m_clock != nullptr && context != m_clock)
        m_clock->forget(this);
    Component::setContext(context);
}

} // namespace zel
