#pragma once

#include <zel/Integers.h>

#include <atomic>

namespace zel {

/// A lock for sections of a few instructions: a test-and-set loop on an atomic exchange, without pause and
/// back-off. Not recursive. Fits std::lock_guard. A copy is a fresh lock that nobody holds, so that elements
/// of a column can carry one; assignment leaves both locks as they are.
/// @threads any thread; whoever locked unlocks
class SpinMutex {
public:
    constexpr SpinMutex() noexcept = default;
    constexpr SpinMutex(const SpinMutex&) noexcept {}
    SpinMutex& operator=(const SpinMutex&) noexcept { return *this; }
    ~SpinMutex() = default;

    void lock() noexcept {
        while (!try_lock()) {
        }
    }

    /// @return whether the caller holds the lock now
    [[nodiscard]] bool try_lock() noexcept {
        // Acquire: pairs with the release of unlock, so that what the last holder wrote is seen.
        return m_locked.exchange(1, std::memory_order_acquire) == 0;
    }

    void unlock() noexcept {
        // Release: pairs with the acquire of the next holder's exchange.
        m_locked.store(0, std::memory_order_release);
    }

private:
    std::atomic<uint32> m_locked{0};
};

static_assert(sizeof(SpinMutex) == 4);

} // namespace zel
