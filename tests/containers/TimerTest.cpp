#include "support/LogCapture.h"

#include <zel/Timer.h>

#include <gtest/gtest.h>

#include <utility>

namespace {

/// Lets the counter move on.
void passATick() {
    const zel::uint64 start = zel::Timer::now();
    while (zel::Timer::now() == start) {
    }
}

TEST(TimerTest, TheClockSpeedIsMeasuredAtLoad) {
    EXPECT_GT(zel::Timer::s_clockSpeed, 0);
    EXPECT_LT(zel::Timer::s_clockSpeed, 1); // no counter ticks as slowly as once a millisecond
}

TEST(TimerTest, WarnsWhenTheClockSpeedCannotBeMeasured) {
    for (const auto& [milliseconds, ticks] : {std::pair{0.0, 1.0}, {1.0, 0.0}, {-1.0, 1.0}, {1.0, -1.0}}) {
        const zelTest::LogCapture log(zel::Notify::Warning);
        EXPECT_EQ(zel::Timer::clockSpeedFrom(milliseconds, ticks), 1.0);
        EXPECT_EQ(log.text(), "Could not determine CPU speed, zel::Timer will not function correctly.\n");
    }
    EXPECT_EQ(zel::Timer::clockSpeedFrom(1.0, 4.0), 0.25);
}

TEST(TimerTest, IsStoppedAtZeroAtFirst) {
    zel::Timer timer;
    EXPECT_FALSE(timer.isRunning());
    EXPECT_EQ(timer.getTicks(), 0U);
    timer.stop();
    EXPECT_EQ(timer.getTicks(), 0U);
}

TEST(TimerTest, AddsUpItsRuns) {
    zel::Timer timer;
    timer.start();
    EXPECT_TRUE(timer.isRunning());
    passATick();
    timer.stop();
    const zel::uint64 first = timer.getTicks();
    EXPECT_GT(first, 0U);
    timer.start();
    passATick();
    timer.stop();
    EXPECT_GT(timer.getTicks(), first);
}

TEST(TimerTest, ASecondStartDoesNotForgetTheFirst) {
    zel::Timer timer;
    timer.start();
    const zel::uint64 behindTheFirst = zel::Timer::now();
    while (zel::Timer::now() - behindTheFirst < 100'000) {
    }
    timer.start();
    timer.stop();
    EXPECT_GE(timer.getTicks(), 99'000U); // the counter's reads may swap places with their neighbours
}

TEST(TimerTest, ResetForgetsTheTotal) {
    zel::Timer timer;
    timer.start();
    passATick();
    timer.stop();
    timer.reset();
    EXPECT_EQ(timer.getTicks(), 0U);
}

TEST(TimerTest, TurnsTicksIntoMilliseconds) {
    zel::Timer::s_clockSpeed = 0.5;
    EXPECT_EQ(zel::Timer::toMilliseconds(10), 5.0);
}

} // namespace
