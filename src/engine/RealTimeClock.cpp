#include "ClockSteps.h"

#include <zel/InitCallback.h>
#include <zel/Log.h>
#include <zel/Model.h>
#include <zel/RealTimeClock.h>
#include <zel/ServicePointer.h>

#include <algorithm>
#include <mutex>

namespace zel {

namespace {

constinit ServicePointer<RealTimeClock> s_realTimeClock; // counted

constexpr double LongestElapsed = 0.03333333333333333;
constexpr double InstanceFrequency = 60;

} // namespace

ZEL_SHUTDOWN_CALLBACK {
    if (RealTimeClock* clock = s_realTimeClock.find()) {
        s_realTimeClock.forget(clock);
        clock->unreference();
    }
}

RealTimeClock* RealTimeClock::instance() {
    if (RealTimeClock* clock = s_realTimeClock.find())
        return clock;
    // Its constructor looks types up.
    const std::lock_guard lock(getTypeSystemMutex());
    return s_realTimeClock.get([] {
        auto* clock = new RealTimeClock("RealTimeClock", InstanceFrequency);
        clock->reference();
        return clock;
    });
}

RealTimeClock::RealTimeClock(const Name& name, double frequency) : Clock(name, frequency) {}

RealTimeClock::~RealTimeClock() = default;

size_t RealTimeClock::numSteps(double elapsed, double timeStep, double stepCost) noexcept {
    const uint64 steps = wholeSteps(elapsed, timeStep);
    if (steps == 0 || !(stepCost > 0))
        return steps;
    return std::clamp<uint64>(wholeSteps(elapsed * 1.2, stepCost), 1, steps);
}

void RealTimeClock::warnIfTooSlow() {
    if (getTimeStep() == m_toldTimeStep || numSteps(LongestElapsed, getTimeStep(), 0) != 0)
        return;
    m_toldTimeStep = getTimeStep();
    ZEL_LOG_WARNING("The real-time clock '"
                    << getPath() << "' never ticks: its time step of " << m_toldTimeStep
                    << " s is longer than 1/30 s. Let a clock with that step be the slave of a faster one");
}

void RealTimeClock::tick() {
    const Keep keep(*this);
    double elapsed = 0;
    if (m_elapsedTimer.isRunning()) {
        m_elapsedTimer.stop(); // to read it; what it has counted stays
        elapsed = m_elapsedTimer.getMilliseconds() / 1000 + m_rest;
    }
    m_elapsedTimer.start();
    elapsed = std::min(elapsed, LongestElapsed);
    const size_t steps = numSteps(elapsed, getTimeStep(), m_stepCost);
    if (steps == 0) {
        warnIfTooSlow();
        return;
    }
    m_rest = elapsed - static_cast<double>(steps) * getTimeStep();
    m_elapsedTimer.reset();
    m_runTimer.reset();
    m_runTimer.start();
    for (size_t i = 0; i < steps; ++i)
        Clock::tick(true);
    m_runTimer.stop();
    const double cost = m_runTimer.getMilliseconds() / 1000 / static_cast<double>(steps);
    m_stepCost = 0.9 * m_stepCost + 0.1 * cost;
}

void RealTimeClock::reset() {
    const Keep keep(*this);
    Clock::reset();
    m_elapsedTimer.stop();
    m_elapsedTimer.reset();
    m_rest = 0;
}

} // namespace zel
