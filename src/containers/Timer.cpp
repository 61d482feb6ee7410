#include <zel/Log.h>
#include <zel/Timer.h>

#include <cerrno>
#include <ctime>

namespace zel {

double Timer::s_clockSpeed = 1.0;

namespace {

double systemMilliseconds() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) * 1e-6;
}

[[maybe_unused]] const bool s_measured = (static_cast<void>(Timer::initClockSpeed()), true);

} // namespace

double Timer::clockSpeedFrom(double milliseconds, double ticks) {
    if (milliseconds > 0 && ticks > 0)
        return milliseconds / ticks;
    ZEL_LOG_WARNING("Could not determine CPU speed, zel::Timer will not function correctly.");
    return 1.0;
}

void Timer::initClockSpeed() {
    double milliseconds = 0;
    double ticks = 0;
    for (int i = 0; i < 3; ++i) {
        const uint64 startTick = now();
        const double startTime = systemMilliseconds();
        timespec pause{0, 1'000'000};
        while (nanosleep(&pause, &pause) != 0 && errno == EINTR) {
        }
        ticks += static_cast<double>(now() - startTick);
        milliseconds += systemMilliseconds() - startTime;
    }
    s_clockSpeed = clockSpeedFrom(milliseconds, ticks);
}

} // namespace zel
