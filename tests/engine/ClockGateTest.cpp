// Who looks at the tree from another thread sees no half of a tick.
#include "ClockFixture.h"

#include <zel/Clock.h>
#include <zel/SerialTask.h>
#include <zel/TreeGate.h>
#include <zel/ref_ptr.h>

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>

using zel::Clock;
using zel::ref_ptr;

namespace {

using ClockGateTest = zelTest::ClockFixture;

bool isOpenForLooks() {
    bool isOpen = false;
    std::thread([&] {
        try {
            const zel::TreeLook look(0);
            isOpen = true;
        } catch (const std::runtime_error&) {
        }
    }).join();
    return isOpen;
}

} // namespace

TEST_F(ClockGateTest, IsClosedForLooksWithinATick) {
    const ref_ptr<Clock> clock(new Clock("c", 1));
    bool wasOpen = true;
    clock->postTick.connect([&](Clock*) { wasOpen = isOpenForLooks(); });
    clock->tick();
    EXPECT_FALSE(wasOpen);
    EXPECT_TRUE(isOpenForLooks());
}

TEST_F(ClockGateTest, IsOpenBetweenTheTicksOfAStep) {
    const ref_ptr<Clock> clock(new Clock("c", 1));
    std::atomic<bool> hasLooked{false};
    clock->postTick.connect([&](Clock* c) {
        if (hasLooked)
            c->setTime(1e9); // the end of the step
    });
    std::thread looker([&] {
        const zel::TreeLook look(60);
        hasLooked = true;
    });
    clock->stepTo(1e9);
    EXPECT_LT(clock->getFrame(), 1000000000U);
    looker.join();
}

TEST_F(ClockGateTest, ADisabledClockChangesNothing) {
    const ref_ptr<Clock> clock(new Clock("c", 1));
    clock->setEnable(false);
    const zel::TreeLook look;
    clock->tick();
    EXPECT_EQ(clock->getFrame(), 0U);
}

TEST_F(ClockGateTest, TicksAsATaskOnAnotherThreadWithinATick) {
    const ref_ptr<Clock> outer(new Clock("outer", 1));
    const ref_ptr<Clock> inner(new Clock("inner", 1));
    outer->addFrameTask(inner.get());
    for (int i = 0; i < 100; ++i)
        outer->tick();
    EXPECT_EQ(inner->getFrame(), 100U);
}

TEST_F(ClockGateTest, IsOpenAfterATickThatThrew) {
    const ref_ptr<Clock> clock(new Clock("c", 1));
    clock->preTick.connect([](Clock*) { throw std::runtime_error("no"); });
    EXPECT_THROW(clock->tick(), std::runtime_error);
    EXPECT_TRUE(isOpenForLooks());
}
