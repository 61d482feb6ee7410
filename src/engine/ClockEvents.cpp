#include "ClockSteps.h"

#include <zel/Clock.h>
#include <zel/FirstException.h>
#include <zel/Log.h>
#include <zel/Verify.h>

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <utility>

// What a clock has scheduled.

namespace zel {

namespace {

/// Whether the time is no number, which is told.
bool isRefusedTime(const char* what, double time) {
    if (!std::isnan(time))
        return false;
    ZEL_LOG_WARNING("Tried setting the " << what << " to " << time << ", but the " << what
                                         << " must be a number");
    return true;
}

/// Of the values of an event: there may be a million.
struct ValueNames {
    Name startDelay{"startDelay"};
    Name interval{"interval"};
    Name repeating{"repeating"};
    Name enabled{"enabled"};
    Name callbacks{"Callbacks"};
};

const ValueNames& names() {
    static const ValueNames names;
    return names;
}

} // namespace

void Clock::addEvent(Event* event) {
    zelVerify(event);
    zelVerifyN(event->m_clock == nullptr, "%s: The event already has a clock", event->getPath().c_str());
    // The callbacks may take the event out again, and let go of both.
    const Keep keep(*this);
    const ref_ptr<Event> keepEvent(event);
    event->m_clock = this;
    event->setIndex(m_events.size());
    m_events.push_back(event);
    FirstException failure;
    failure.run([this, event] { addObject(event); });
    if (event->m_clock == this) {
        reschedule(event);
        failure.run([event] { event->start(); });
    }
    failure.rethrow();
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
    if (isRefusedTime("delay", delay))
        return;
    unschedule(event);
    const double timeStep = m_presentTimeStep;
    const uint64 frames = std::max<uint64>(wholeSteps(delay, timeStep), 1);
    // What waits for ever has nothing to carry on.
    event->m_residual =
        std::isfinite(delay) && frames < MostSteps ? delay - static_cast<double>(frames) * timeStep : 0;
    event->m_dispatchFrame = m_presentFrame + frames;
    event->m_state = Event::State::Scheduled;
    link(event);
}

/// Puts the event at the head of the list of its frame.
void Clock::link(Event* event) {
    if (m_freeSlot == NoSlot) {
        m_freeSlot = static_cast<uint32>(m_slots.size());
        m_slots.push_back(Slot{nullptr, NoSlot, NoSlot});
    }
    event->m_slot = m_freeSlot;
    Slot& slot = m_slots[event->m_slot];
    m_freeSlot = slot.next;
    slot = Slot{event, NoSlot, NoSlot};
    const auto position = m_schedule.find(event->m_dispatchFrame);
    if (position == m_schedule.end()) {
        m_schedule.insert(event->m_dispatchFrame, event->m_slot);
        return;
    }
    slot.next = std::exchange(position->value, event->m_slot);
    m_slots[slot.next].previous = event->m_slot;
}

void Clock::unlink(const Event* event) {
    Slot& slot = m_slots[event->m_slot];
    if (slot.next != NoSlot)
        m_slots[slot.next].previous = slot.previous;
    if (slot.previous != NoSlot)
        m_slots[slot.previous].next = slot.next;
    else if (slot.next != NoSlot)
        m_schedule.find(event->m_dispatchFrame)->value = slot.next;
    else
        m_schedule.erase(event->m_dispatchFrame);
    slot.next = std::exchange(m_freeSlot, event->m_slot);
}

void Clock::clearSchedule() {
    m_schedule.clear();
    m_slots.clear();
    m_freeSlot = NoSlot;
}

void Clock::unschedule(Event* event) {
    if (event->m_clock != this)
        return;
    switch (std::exchange(event->m_state, Event::State::Idle)) {
    case Event::State::Idle:
        break;
    case Event::State::Due:
        m_due[event->m_slot] = nullptr;
        break;
    case Event::State::Scheduled:
        unlink(event);
        break;
    }
}

void Clock::reschedule(Event* event) {
    schedule(event, event->getStartDelay());
}

void Clock::rebuild(double oldTimeStep) {
    scheduleAnew(oldTimeStep, m_presentFrame);
}

void Clock::scheduleAnew(double oldTimeStep, uint64 oldFrame) {
    clearSchedule();
    for (Event* event : m_events) {
        // What is due in this frame, and not dispatched yet, stays due.
        if (event->m_state != Event::State::Scheduled)
            continue;
        event->m_state = Event::State::Idle;
        schedule(event, event->timeFrom(oldFrame, oldTimeStep));
    }
}

Vector<Clock::EventState> Clock::getSchedule() const {
    Vector<EventState> schedule;
    schedule.reserve(m_events.size());
    const auto add = [&schedule](Event* event, uint64 dispatchFrame) {
        schedule.push_back({event, dispatchFrame, event->m_residual, event->m_state != Event::State::Idle});
    };
    for (Event* event : m_due)
        if (event != nullptr)
            add(event, m_presentFrame);
    Vector<uint64> frames;
    for (const auto& entry : m_schedule)
        frames.push_back(entry.key);
    std::sort(frames.begin(), frames.end());
    for (const uint64 frame : frames)
        for (uint32 i = m_schedule.find(frame)->value; i != NoSlot; i = m_slots[i].next)
            add(m_slots[i].event, frame);
    for (Event* event : m_events)
        if (event->m_state == Event::State::Idle)
            add(event, event->m_dispatchFrame);
    return schedule;
}

void Clock::restoreSchedule(double time, size_t frame, const Vector<EventState>& schedule) {
    zelVerifyN(!m_isTicking, "%s: A clock can not be restored within its own tick", getPath().c_str());
    zelVerify(frame != InvalidIndex);
    for (const EventState& state : schedule)
        zelVerifyN(state.event->m_clock == this,
                   "%s: The event does not belong to the clock",
                   state.event->getPath().c_str());
    const Keep keep(*this);
    clearSchedule();
    m_due.clear();
    for (Event* event : m_events)
        event->m_state = Event::State::Idle;
    m_presentFrame = frame;
    // Each comes to the head of its list.
    for (size_t i = schedule.size(); i-- > 0;) {
        Event* const event = schedule[i].event;
        unschedule(event); // one that is told twice
        event->m_residual = std::isfinite(schedule[i].residual) ? schedule[i].residual : 0;
        event->m_dispatchFrame = schedule[i].dispatchFrame;
        if (!schedule[i].isScheduled)
            continue;
        event->m_dispatchFrame = std::max(event->m_dispatchFrame, m_presentFrame);
        event->m_state = Event::State::Scheduled;
        link(event);
    }
    // Their callbacks find all as it was.
    takeBack(m_time, time);
    takeBack(m_frame, m_presentFrame);
}

void Clock::collectDue() {
    const auto position = m_schedule.find(m_presentFrame);
    if (position == m_schedule.end())
        return;
    const uint32 head = position->value;
    m_schedule.erase(m_presentFrame);
    uint32 last = NoSlot;
    for (uint32 i = head; i != NoSlot; i = m_slots[i].next) {
        last = i;
        Event* const event = m_slots[i].event;
        event->m_state = Event::State::Due;
        event->m_slot = static_cast<uint32>(m_due.size());
        m_due.push_back(event);
        __builtin_prefetch(static_cast<const Referenced*>(event));
        event->callbacks.prefetchList();
    }
    m_slots[last].next = std::exchange(m_freeSlot, head);
}

void Clock::dispatchEvents() {
    collectDue();
    // The callbacks may remove any event and empty the list. If one throws, the rest stays due.
    for (size_t i = 0; i < m_due.size(); ++i) {
        if (i + 2 < m_due.size() && m_due[i + 2] != nullptr)
            m_due[i + 2]->callbacks.prefetchCallback();
        if (m_due[i] == nullptr)
            continue;
        const ref_ptr<Event> event(std::exchange(m_due[i], nullptr));
        event->m_state = Event::State::Idle;
        if (event->m_presentlyEnabled) {
            try {
                event->callbacks.fire();
            } catch (...) {
                finishDispatch(event.get());
                throw;
            }
        }
        finishDispatch(event.get());
    }
    m_due.clear();
}

void Clock::finishDispatch(Event* event) {
    // The callbacks may have removed the event, or scheduled it themselves.
    if (event->m_clock != this || event->m_state != Event::State::Idle)
        return;
    if (event->m_presentInterval < 0)
        removeObject(event);
    else
        schedule(event);
}

// Events

Clock::Event::Event(Callback callback, double interval, double startDelay)
    : Clock::Event(Name(), interval, startDelay) {
    callbacks.connect(std::move(callback));
}

Clock::Event::Event(const Name& name) : Event(name, -1, 0) {}

Clock::Event::Event(const Name& name, double interval, double startDelay)
    : Component(name, Component::ClassModel())
    , callbacks(names().callbacks, this)
    , m_presentInterval(interval)
    , m_presentStartDelay(startDelay)
    , m_startDelay(names().startDelay, startDelay)
    , m_interval(names().interval, interval)
    , m_repeating(names().repeating, interval >= 0)
    , m_enabled(names().enabled, true) {
    rebindsOnDemand(typeid(Event));
    zelVerifyN(!std::isnan(interval) && !std::isnan(startDelay),
               "%s: The interval and the start delay of an event must be numbers",
               name.c_str());
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
    if (!isRefusedTime("start delay", delay))
        m_startDelay.set(delay);
}

void Clock::Event::setInterval(double interval) {
    if (!isRefusedTime("interval", interval))
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
        if (isRefusedTime("start delay", m_startDelay.get())) {
            takeBack(m_startDelay, m_presentStartDelay);
            return;
        }
        m_presentStartDelay = m_startDelay.get();
        if (m_clock != nullptr)
            m_clock->reschedule(this);
        return;
    }
    if (value == &m_interval) {
        if (isRefusedTime("interval", m_interval.get()))
            takeBack(m_interval, m_presentInterval);
        else
            m_presentInterval = m_interval.get();
    }
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
