// What callbacks, and others, may do to a clock, its events and what runs in its frames.
#include "ClockFixture.h"

#include <zel/Clock.h>
#include <zel/Component.h>
#include <zel/Job.h>
#include <zel/SerialTask.h>
#include <zel/TaskGroup.h>
#include <zel/observer_ptr.h>
#include <zel/ref_ptr.h>
#include <zelData/ValueT.h>

#include <gtest/gtest.h>
#include <support/WhatOf.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using zel::Clock;
using zel::Component;
using zel::Object;
using zel::observer_ptr;
using zel::ref_ptr;
using zel::SerialTask;
using zelTest::whatOf;

namespace {

class ClockCallbackTest : public zelTest::ClockFixture {
protected:
    void SetUp() override {
        ClockFixture::SetUp();
        clock = new Clock("k", 10);
        slave = new Clock("s", 10);
    }
    void TearDown() override {
        clock = nullptr;
        slave = nullptr;
        ClockFixture::TearDown();
    }
    /// Until the slave has ticked, and what runs in its frame waits for the master's next one.
    void tickUntilTheSlaveHas() {
        while (slave->getFrame() == 0)
            clock->tick(false);
    }

    ref_ptr<Clock> clock;
    ref_ptr<Clock> slave;
};

} // namespace

TEST_F(ClockCallbackTest, AnEventThatACallbackTakesOutAgainIsGone) {
    clock->addObjectEvent.connect([](Component* parent, Object* object) {
        if (dynamic_cast<Clock::Event*>(object) != nullptr)
            parent->removeObject(object);
    });
    const observer_ptr<Clock::Event> gone(noting(clock.get(), 0.1, 0.1));
    clock->addEvent(gone.get());
    EXPECT_EQ(gone.get(), nullptr);
    tick(clock.get(), 3);
    EXPECT_TRUE(m_frames.empty());
}

TEST_F(ClockCallbackTest, AClockThatACallbackLetsGoOfStaysUntilItsEventIsIn) {
    const observer_ptr<Clock> observed(clock.get());
    clock->addObjectEvent.connect([this](Component*, Object*) { clock = nullptr; });
    observed->addEvent(new Clock::Event("e"));
    EXPECT_EQ(observed.get(), nullptr);
}

TEST_F(ClockCallbackTest, AClockThatACallbackLetsGoOfStaysUntilItsSlaveIsIn) {
    const observer_ptr<Clock> observed(clock.get());
    clock->addObjectEvent.connect([this](Component*, Object*) { clock = nullptr; });
    observed->addSlave(slave.get());
    EXPECT_EQ(observed.get(), nullptr);
    EXPECT_EQ(slave->getMaster(), nullptr);
    slave->tick(false);
    EXPECT_EQ(slave->getFrame(), 1U);
}

TEST_F(ClockCallbackTest, ASlaveThatACallbackLetsGoOfIsGone) {
    const observer_ptr<Clock> observed(slave.get());
    clock->addObjectEvent.connect([this](Component*, Object*) { slave = nullptr; });
    clock->addSlave(observed.get());
    EXPECT_EQ(observed.get(), nullptr);
    EXPECT_TRUE(clock->getSlaves().empty());
    tick(clock.get(), 3);
}

TEST_F(ClockCallbackTest, EventsAndSlavesAreScheduledWhereACallbackThrows) {
    const zel::uint64 connection =
        clock->addObjectEvent.connect([](Component*, Object*) { throw std::runtime_error("no"); });
    EXPECT_EQ(whatOf([&] { clock->addEvent(noting(clock.get(), 0.1, 0.1)); }), "no");
    EXPECT_EQ(whatOf([&] { clock->addSlave(slave.get()); }), "no");
    clock->addObjectEvent.disconnect(connection);
    tick(clock.get(), 3);
    EXPECT_EQ(m_frames, (std::vector<size_t>{1, 2}));
    EXPECT_EQ(slave->getFrame(), 2U);
}

TEST_F(ClockCallbackTest, ASlaveGoesToTheMasterThatACallbackHasChosen) {
    const ref_ptr<Clock> other(new Clock("other", 10));
    clock->addSlave(slave.get());
    const zel::uint64 connection =
        clock->removeObjectEvent.connect([&](Component*, Object*) { other->addSlave(slave.get()); });
    const ref_ptr<Clock> third(new Clock("third", 10));
    third->addSlave(slave.get());
    EXPECT_EQ(slave->getMaster(), other.get());
    EXPECT_TRUE(third->getSlaves().empty());
    clock->removeObjectEvent.disconnect(connection);
}

TEST_F(ClockCallbackTest, StepsWithASwitchThatStaysBound) {
    const ref_ptr<Component> top(new Component("top"));
    top->addObject(new zelData::ValueT<bool>("on", true));
    top->addObject(clock.get());
    auto* const on = dynamic_cast<zelData::ValueT<bool>*>(top->findObject("on"));
    auto* const enable = valueOf<bool>(clock.get(), "enable");
    enable->bind(zel::Path("on"));
    clock->stepForward(0.3);
    EXPECT_EQ(clock->getFrame(), 3U);
    on->set(false);
    clock->tick(false);
    EXPECT_EQ(clock->getFrame(), 3U);
    clock->stepForward(0.2);
    EXPECT_EQ(clock->getFrame(), 5U);
    EXPECT_FALSE(clock->isEnabled());
    EXPECT_FALSE(on->get());
    EXPECT_EQ(enable->getBinding(), on);
    on->set(true);
    clock->tick(false);
    EXPECT_EQ(clock->getFrame(), 6U);
}

TEST_F(ClockCallbackTest, StepsToTheEndWhereACallbackSwitchesItOff) {
    clock->postTick.connect([](Clock* stepped) { stepped->setEnable(false); });
    clock->stepTo(0.5);
    EXPECT_EQ(clock->getFrame(), 5U);
    EXPECT_FALSE(clock->isEnabled());
}

TEST_F(ClockCallbackTest, WhatLeavesASlaveDoesNotRunInTheMastersNextFrame) {
    clock->addSlave(slave.get());
    int numRuns = 0;
    auto job = std::make_unique<zel::Job>([&] { ++numRuns; });
    const ref_ptr<SerialTask> task(new SerialTask("t", [&] { ++numRuns; }));
    slave->addFrameJob(job.get());
    slave->addFrameTask(task.get());
    tickUntilTheSlaveHas();
    EXPECT_TRUE(slave->removeFrameJob(job.get()));
    EXPECT_TRUE(slave->removeFrameTask(task.get()));
    job = nullptr;
    clock->tick(false);
    EXPECT_EQ(numRuns, 0);
}

TEST_F(ClockCallbackTest, AJobOfTwoClocksRunsForTheOneThatItStaysWith) {
    clock->addSlave(slave.get());
    const ref_ptr<Clock> other(new Clock("other", 10));
    clock->addSlave(other.get());
    int numRuns = 0;
    zel::Job job([&] { ++numRuns; });
    slave->addFrameJob(&job);
    other->addFrameJob(&job);
    tickUntilTheSlaveHas();
    EXPECT_TRUE(slave->removeFrameJob(&job));
    clock->tick(false);
    EXPECT_EQ(numRuns, 1);
    EXPECT_TRUE(other->removeFrameJob(&job));
}

TEST_F(ClockCallbackTest, AJobOfASlaveThatLeftOrWentDoesNotRun) {
    for (const bool dies : {false, true}) {
        slave = new Clock("s", 10);
        clock->addSlave(slave.get());
        int numRuns = 0;
        auto job = std::make_unique<zel::Job>([&] { ++numRuns; });
        slave->addFrameJob(job.get());
        tickUntilTheSlaveHas();
        clock->removeSlave(slave.get());
        if (dies)
            slave = nullptr;
        else
            EXPECT_TRUE(slave->removeFrameJob(job.get()));
        job = nullptr;
        clock->tick(false);
        EXPECT_EQ(numRuns, 0);
    }
}

TEST_F(ClockCallbackTest, ATaskThatReplacesAnotherRunsInItsFrames) {
    std::string order;
    const ref_ptr<Component> top(new Component("top"));
    auto* const old = new SerialTask("old", [&] { order += 'o'; });
    top->addObject(old);
    clock->addSlave(slave.get());
    clock->addFrameTask(old);
    slave->addFrameTask(old);
    tickUntilTheSlaveHas();
    order.clear();
    auto* const with = new SerialTask("new", [&] { order += 'n'; });
    old->replace(with);
    tick(clock.get(), 3);
    EXPECT_EQ(order, "nnn");
    EXPECT_TRUE(slave->removeFrameTask(with));
    EXPECT_TRUE(clock->removeFrameTask(with));
}

TEST_F(ClockCallbackTest, ATaskThatReplacesAnotherOneOfTheSameFramesRunsOnce) {
    std::string order;
    const ref_ptr<SerialTask> old(new SerialTask("old", [&] { order += 'o'; }));
    const ref_ptr<SerialTask> with(new SerialTask("new", [&] { order += 'n'; }));
    clock->addFrameTask(old.get());
    clock->addFrameTask(with.get());
    old->replace(with.get());
    tick(clock.get(), 2);
    EXPECT_EQ(order, "nn");
    EXPECT_FALSE(clock->removeFrameTask(old.get()));
}

TEST_F(ClockCallbackTest, AClockMayGoAheadOfItsFrameTasks) {
    const ref_ptr<SerialTask> task(new SerialTask("t"));
    clock->addFrameTask(task.get());
    clock = nullptr;
    const ref_ptr<SerialTask> with(new SerialTask("n"));
    task->replace(with.get());
    with->execute();
}
