#pragma once

#include <zel/Export.h>

#include <random>

namespace zel {

/// The calling thread's generator. It starts with the standard default seed 5489, so that a run draws the
/// same numbers as the run before.
/// @threads any thread: each has its own
[[nodiscard]] ZEL_CORE_API std::mt19937& getRandGenerator();

} // namespace zel
