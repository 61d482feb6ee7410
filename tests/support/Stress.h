#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <random>
#include <thread>
#include <vector>

#if defined(__SANITIZE_THREAD__)
#define ZEL_TEST_UNDER_TSAN 1
#elif defined(__SANITIZE_ADDRESS__)
#define ZEL_TEST_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZEL_TEST_UNDER_TSAN 1
#elif __has_feature(address_sanitizer)
#define ZEL_TEST_UNDER_ASAN 1
#endif
#endif

namespace zelTest {

/// Sanitizers make every memory access dear: the same work, fewer times.
#if defined(ZEL_TEST_UNDER_TSAN) || defined(ZEL_TEST_UNDER_ASAN)
inline constexpr size_t StressDivisor = 5;
#else
inline constexpr size_t StressDivisor = 1;
#endif

/// A fresh seed for each run, printed, so that a failed run can be repeated: ZEL_STRESS_SEED=<seed>.
inline unsigned stressSeed() {
    const char* wanted = std::getenv("ZEL_STRESS_SEED"); // NOLINT(concurrency-mt-unsafe): nobody sets it
    const unsigned seed =
        wanted != nullptr ? static_cast<unsigned>(std::strtoul(wanted, nullptr, 10)) : std::random_device{}();
    std::cout << "ZEL_STRESS_SEED=" << seed << std::endl;
    return seed;
}

/// Runs work(index of the thread, generator) on that many threads at once; each gets a seed of its own.
template <typename Work>
void onThreads(size_t numThreads, unsigned seed, Work work) {
    std::vector<std::thread> threads;
    for (size_t i = 0; i < numThreads; ++i)
        threads.emplace_back([&work, i, seed] {
            std::mt19937 random(seed + static_cast<unsigned>(i));
            work(i, random);
        });
    for (auto& thread : threads)
        thread.join();
}

} // namespace zelTest
