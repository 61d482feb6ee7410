#pragma once

#include <zel/Clock.h>
#include <zel/Export.h>
#include <zel/Timer.h>

namespace zel {

/// A clock that keeps pace with the wall clock: each tick makes the steps that have come due since the last.
/// It falls behind rather than spend more time on steps than there is.
/// @threads one thread ticks it
class ZEL_CORE_API RealTimeClock : public Clock {
public:
    /// The process's clock, of 60 frames a second at first; lives until the library's shutdown.
    [[nodiscard]] static RealTimeClock* instance();

    RealTimeClock(const Name& name, double frequency);
    ~RealTimeClock() override;

    /// Makes at most what a thirtieth of a second asks for. Does nothing if less than a step has passed: a
    /// clock whose time step is longer than a thirtieth never ticks, which is warned of.
    void tick();
    using Clock::tick;
    /// The next tick begins to count at zero.
    void reset();

    /// The smoothed time that a step takes, in seconds.
    [[nodiscard]] double getStepCost() const noexcept { return m_stepCost; }
    /// The time that is not spent on steps yet, in seconds.
    [[nodiscard]] double getRest() const noexcept { return m_rest; }

    /// How many steps to make.
    [[nodiscard]] static size_t numSteps(double elapsed, double timeStep, double stepCost) noexcept;

private:
    void warnIfTooSlow();

    Timer m_elapsedTimer;
    Timer m_runTimer;
    double m_rest = 0;
    double m_stepCost = 0;
    double m_toldTimeStep = 0; // that is too long
};

} // namespace zel
