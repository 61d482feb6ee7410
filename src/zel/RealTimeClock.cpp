#include "ClockSteps.h"

#include <zel/InitCallback.h>
#include <zel/RealTimeClock.h>

#include <algorithm>
#include <mutex>

namespace zel {

namespace {

constinit std::mutex s_mutex;
RealTimeClock* s_instance = nullptr; // counted; guarded by s_mutex

constexpr double LongestElapsed = 0.03333333333333333;
constexpr double InstanceFrequency = 60;

} // namespace

ZEL_SHUTDOWN_CALLBACK {
    const std::lock_guard lock(s_mutex);
    if (s_instance != nullptr)
        s_instance->unreference();
    s_instance = nullptr;
}

RealTimeClock* RealTimeClock::instance() {
    const std::lock_guard lock(s_mutex);
    if (s_instance == nullptr) {
        s_instance = new RealTimeClock("RealTimeClock", InstanceFrequency);
        s_instance->reference();
    }
    return s_instance;
}

RealTimeClock::RealTimeClock(const Name& name, double frequency) : Clock(name, frequency) {}

RealTimeClock::~RealTimeClock() = default;

size_t RealTimeClock::numSteps(double elapsed, double timeStep, double stepCost) noexcept {
    const uint64 steps = wholeSteps(elapsed, timeStep);
    if (steps == 0 || !(stepCost > 0))
        return steps;
    return std::clamp<uint64>(wholeSteps(elapsed * 1.2, stepCost), 1, steps);
}

void RealTimeClock::tick() {
    double elapsed = 0;
    if (m_elapsedTimer.isRunning()) {
        m_elapsedTimer.stop(); // to read it; what it has counted stays
        elapsed = m_elapsedTimer.getMilliseconds() / 1000 + m_rest;
    }
    m_elapsedTimer.start();
    elapsed = std::min(elapsed, LongestElapsed);
    const size_t steps = numSteps(elapsed, getTimeStep(), m_stepCost);
    if (steps == 0)
        return;
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
    Clock::reset();
    m_elapsedTimer.stop();
    m_elapsedTimer.reset();
    m_rest = 0;
}

} // namespace zel
