#pragma once

#include "support/Stress.h"

#include <chrono>

namespace zelTest {

/// Calls work(seed) with fresh seeds for as long as ZEL_SOAK_SECONDS says, and at least so many times, or
/// until a check fails. What calls it is the disabled test of a suite whose name ends in SoakTest: only
/// script/test --soak runs these.
template <typename Work>
void soak(Work work, int atLeast = 1) {
    const char* wanted = std::getenv("ZEL_SOAK_SECONDS"); // NOLINT(concurrency-mt-unsafe): nobody sets it
    ASSERT_NE(wanted, nullptr);
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::seconds(std::strtol(wanted, nullptr, 10));
    do {
        work(stressSeed());
        --atLeast;
    } while (!testing::Test::HasFailure() && (atLeast > 0 || std::chrono::steady_clock::now() < end));
}

} // namespace zelTest
