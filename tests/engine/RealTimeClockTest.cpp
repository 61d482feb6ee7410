// The clock that keeps pace with the wall clock.
#include "ClockFixture.h"

#include <zel/RealTimeClock.h>
#include <zel/observer_ptr.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>

#include <gtest/gtest.h>
#include <support/LogCapture.h>

using zel::RealTimeClock;
using zel::ref_ptr;

namespace {

using RealTimeClockTest = zelTest::ClockFixture;

} // namespace

TEST_F(RealTimeClockTest, RunsNothingForLessThanAStep) {
    const ref_ptr<RealTimeClock> clock(new RealTimeClock("r", 1)); // longer than a tick is ever taken for
    for (int i = 0; i < 5; ++i)
        clock->tick();
    EXPECT_EQ(clock->getFrame(), 0U);
    EXPECT_EQ(clock->getTime(), 0);
}

TEST_F(RealTimeClockTest, StepThatIsTooLongIsToldOnce) {
    const ref_ptr<RealTimeClock> clock(new RealTimeClock("r", 29.9));
    const zelTest::LogCapture log;
    clock->tick();
    clock->tick();
    EXPECT_EQ(
        log.text(),
        "The real-time clock 'r' never ticks: its time step of 0.0334448 s is longer than 1/30 s. Let a "
        "clock with that step be the slave of a faster one\n");
    clock->setFrequency(30);
    clock->tick();
    EXPECT_EQ(log.texts().size(), 1U) << log.text();
}

TEST_F(RealTimeClockTest, StepsOnceTimeHasPassed) {
    const ref_ptr<RealTimeClock> clock(new RealTimeClock("r", 1e8)); // shorter than any tick
    clock->tick();
    EXPECT_EQ(clock->getFrame(), 0U); // the first one begins to count
    clock->tick();
    EXPECT_GE(clock->getFrame(), 1U);
    EXPECT_GT(clock->getStepCost(), 0);
    EXPECT_GE(clock->getRest(), 0);
    clock->reset();
    clock->tick();
    EXPECT_EQ(clock->getFrame(), 0U);
}

TEST_F(RealTimeClockTest, MakesNoMoreStepsThanThereIsTimeFor) {
    EXPECT_EQ(RealTimeClock::numSteps(0.05, 0.1, 0), 0U);
    EXPECT_EQ(RealTimeClock::numSteps(0.3, 0.1, 0), 3U);
    EXPECT_EQ(RealTimeClock::numSteps(1, 0.1, 0.01), 10U);
    EXPECT_EQ(RealTimeClock::numSteps(1, 0.1, 0.4), 3U);
    EXPECT_EQ(RealTimeClock::numSteps(1, 0.1, 5), 1U);
}

TEST_F(RealTimeClockTest, IsOneForTheProcessUntilTheShutdown) {
    RealTimeClock* clock = RealTimeClock::instance();
    EXPECT_EQ(RealTimeClock::instance(), clock);
    const zel::observer_ptr<RealTimeClock> observer(clock);
    zelCore::shutdown();
    EXPECT_EQ(observer.get(), nullptr);
    zelCore::init();
}
