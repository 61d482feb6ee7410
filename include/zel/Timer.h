#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>

#include <x86intrin.h>

namespace zel {

/// A stopwatch on the processor's time-stamp counter. Time stamps of the system are raw counter values.
/// @threads external lock; the static functions any thread
class ZEL_CORE_API Timer {
public:
    /// The counter's present value.
    [[nodiscard]] static uint64 now() noexcept { return __rdtsc(); }

    /// Milliseconds per tick, measured once when the library is loaded.
    static double s_clockSpeed;
    /// Measures s_clockSpeed against the system clock; takes about 3 ms.
    static void initClockSpeed();
    /// The quotient of the two; 1.0, with a warning, unless both are above 0.
    [[nodiscard]] static double clockSpeedFrom(double milliseconds, double ticks);

    [[nodiscard]] static double toMilliseconds(uint64 ticks) noexcept {
        return static_cast<double>(ticks) * s_clockSpeed;
    }

    /// Starts unless it is running.
    /// @param tick  the present time, where the caller has just read it: reading takes some nanoseconds
    void start(uint64 tick = now()) noexcept {
        if (!m_running) {
            m_start = tick;
            m_running = true;
        }
    }
    /// Adds the time since start to the total, if running.
    void stop(uint64 tick = now()) noexcept {
        if (m_running) {
            m_ticks += tick - m_start;
            m_running = false;
        }
    }
    /// Sets the total to zero; a running timer starts anew from now.
    void reset() noexcept {
        m_ticks = 0;
        m_start = now();
    }

    [[nodiscard]] bool isRunning() const noexcept { return m_running; }
    /// The total of the finished runs, in ticks.
    [[nodiscard]] uint64 getTicks() const noexcept { return m_ticks; }
    [[nodiscard]] double getMilliseconds() const noexcept { return toMilliseconds(m_ticks); }

private:
    uint64 m_start = 0;
    uint64 m_ticks = 0;
    bool m_running = false;
};

} // namespace zel
