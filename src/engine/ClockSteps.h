#pragma once

#include <zel/Integers.h>
#include <zelData/ValueT.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace zel {

/// How far a time may fall short of whole steps, in parts of it, so that 0.3 over 0.1 is 3.
inline constexpr double StepTolerance = 1e-9;
/// The most of that, in parts of one step: what is nearly a step short is short.
inline constexpr double MostTolerance = 1.0 / 1024;

/// Beyond all frames.
inline constexpr uint64 MostSteps = 4'000'000'000'000'000'000;

/// How many whole steps a time has; 0 for a time below one step, and what is beyond all frames is cut.
[[nodiscard]] inline uint64 wholeSteps(double time, double timeStep) noexcept {
    const double exact = time / timeStep;
    const double steps = exact + std::min(exact * StepTolerance, MostTolerance);
    if (!(steps >= 1))
        return 0;
    return steps < static_cast<double>(MostSteps) ? static_cast<uint64>(steps) : MostSteps;
}

/// By how much the sum of the steps from a time to another may fall short of the latter, in seconds. Each
/// step rounds, and the more the larger the times are.
[[nodiscard]] inline double lostInSteps(double from, double to, double timeStep) noexcept {
    const double steps = (to - from) / timeStep;
    const double rounding = std::numeric_limits<double>::epsilon() * std::max(std::abs(from), std::abs(to));
    return steps * (StepTolerance * timeStep + rounding);
}

/// Gives a value back what it held. What is bound is another's.
template <typename T>
void takeBack(zelData::Val<T>& value, T content) {
    if (value.getBinding() == nullptr)
        value.set(content);
}

} // namespace zel
