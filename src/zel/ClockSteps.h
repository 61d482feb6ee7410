#pragma once

#include <zel/Integers.h>

namespace zel {

/// The relative tolerance of times over steps, so that 0.3 over 0.1 is 3.
inline constexpr double StepTolerance = 1e-9;

/// How many whole steps a time has; 0 for a time below one step, and what is beyond all frames is cut.
[[nodiscard]] inline uint64 wholeSteps(double time, double timeStep) noexcept {
    constexpr double Most = 4e18;
    const double steps = time / timeStep * (1 + StepTolerance);
    if (!(steps >= 1))
        return 0;
    return steps < Most ? static_cast<uint64>(steps) : static_cast<uint64>(Most);
}

} // namespace zel
