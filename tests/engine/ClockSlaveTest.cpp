// Clocks that tick with others.
#include "ClockFixture.h"

#include <zel/Clock.h>
#include <zel/SerialTask.h>
#include <zel/observer_ptr.h>
#include <zel/ref_ptr.h>

#include <gtest/gtest.h>
#include <support/LogCapture.h>
#include <support/WhatOf.h>

#include <stdexcept>
#include <string>
#include <utility>

using zel::Clock;
using zel::Component;
using zel::ref_ptr;
using zel::SerialTask;
using zelTest::LogCapture;

namespace {

using ClockSlaveTest = zelTest::ClockFixture;

} // namespace

TEST_F(ClockSlaveTest, TicksWithItsMasterAtItsOwnFrequency) {
    const ref_ptr<Clock> master(new Clock("m", 10));
    const ref_ptr<Clock> slave(new Clock("s", 5));
    master->addSlave(slave.get());
    EXPECT_EQ(slave->getMaster(), master.get());
    EXPECT_NE(master->findObject("s"), nullptr); // the frame event is named after the slave
    tick(master.get(), 9);
    EXPECT_EQ(slave->getFrame(), 4U);
    EXPECT_DOUBLE_EQ(slave->getTime(), 0.8);
    slave->setFrequency(10);
    tick(master.get(), 4); // the turn that is due already stays
    EXPECT_EQ(slave->getFrame(), 7U);
    EXPECT_TRUE(master->removeSlave(slave.get()));
    EXPECT_FALSE(master->removeSlave(slave.get()));
    tick(master.get(), 4);
    EXPECT_EQ(slave->getFrame(), 7U);
    EXPECT_EQ(slave->getMaster(), nullptr);
    EXPECT_TRUE(master->getEvents().empty());
}

TEST_F(ClockSlaveTest, TicksOnAfterATickThatThrows) {
    const ref_ptr<Clock> master(new Clock("m", 10));
    const ref_ptr<Clock> slave(new Clock("s", 10));
    master->addSlave(slave.get());
    bool throws = true;
    slave->preTick.connect([&throws](Clock*) {
        if (std::exchange(throws, false))
            throw std::runtime_error("no");
    });
    int runs = 0;
    const ref_ptr<SerialTask> task(new SerialTask("t", [&] { ++runs; }));
    slave->addFrameTask(task.get());
    tick(master.get(), 1);
    EXPECT_THROW(master->tick(false), std::runtime_error);
    tick(master.get(), 4);
    EXPECT_EQ(slave->getFrame(), 3U);
    EXPECT_EQ(runs, 2);
    master->removeSlave(slave.get());
    slave->tick(false); // by itself, in a frame of its own
    EXPECT_EQ(runs, 3);
}

TEST_F(ClockSlaveTest, StaysUntilItsTickHasEnded) {
    const ref_ptr<Clock> master(new Clock("m", 10));
    ref_ptr<Clock> slave(new Clock("s", 10));
    const zel::observer_ptr<Clock> observer(slave.get());
    master->addSlave(slave.get());
    bool ended = false;
    slave->preTick.connect([&slave](Clock*) { slave = nullptr; });
    slave->postTick.connect([&ended](Clock* c) { ended = c->getFrame() == 1; });
    tick(master.get(), 4);
    EXPECT_TRUE(ended);
    EXPECT_EQ(observer.get(), nullptr);
    EXPECT_TRUE(master->getSlaves().empty());
    EXPECT_TRUE(master->getEvents().empty());
}

TEST_F(ClockSlaveTest, LeavesOutATaskThatIsGoneBeforeTheMastersFrame) {
    const ref_ptr<Clock> master(new Clock("m", 10));
    const ref_ptr<Clock> slave(new Clock("s", 10));
    master->addSlave(slave.get());
    int runs = 0;
    {
        SerialTask task("t", [&] { ++runs; });
        slave->addFrameTask(&task);
        tick(master.get(), 2); // the slave has handed its task over
    }
    tick(master.get(), 2);
    EXPECT_EQ(runs, 0);
}

TEST_F(ClockSlaveTest, RunsItsTasksInTheMastersNextFrame) {
    const ref_ptr<Clock> master(new Clock("m", 10));
    const ref_ptr<Clock> slave(new Clock("s", 10));
    master->addSlave(slave.get());
    int runs = 0;
    const ref_ptr<SerialTask> task(new SerialTask("t", [&] { ++runs; }));
    slave->addFrameTask(task.get());
    master->addFrameTask(task.get()); // also; runs once a frame all the same
    tick(master.get(), 1);
    EXPECT_EQ(runs, 1);
    tick(master.get(), 1); // the slave hands its task over
    EXPECT_EQ(runs, 2);
    master->removeFrameTask(task.get());
    tick(master.get(), 1);
    EXPECT_EQ(runs, 3);
}

TEST_F(ClockSlaveTest, WarnsOfASlaveThatFallsBehind) {
    const ref_ptr<Clock> master(new Clock("m", 10));
    const ref_ptr<Clock> slave(new Clock("s", 10));
    std::string expected;
    const LogCapture log(zel::Notify::Warning);
    master->addSlave(slave.get());
    EXPECT_EQ(log.text(), expected);
    slave->setFrequency(20);
    expected +=
        "s: The clock falls behind its master 'm': it is to tick each 0.05 s, and does so once a frame, "
        "each 0.1 s\n";
    EXPECT_EQ(log.text(), expected);
    master->setFrequency(2);
    expected +=
        "s: The clock falls behind its master 'm': it is to tick each 0.05 s, and does so once a frame, "
        "each 0.5 s\n";
    EXPECT_EQ(log.text(), expected);
    master->removeSlave(slave.get());
    slave->setFrequency(10);
    EXPECT_EQ(log.text(), expected);
    master->addSlave(slave.get());
    expected +=
        "s: The clock falls behind its master 'm': it is to tick each 0.1 s, and does so once a frame, "
        "each 0.5 s\n";
    EXPECT_EQ(log.text(), expected);
    master->setFrequency(10);
    EXPECT_EQ(log.text(), expected);
}

TEST_F(ClockSlaveTest, StepsAFasterClockWhereTheFrameEnds) {
    const ref_ptr<Clock> master(new Clock("m", 2));
    const ref_ptr<Clock> fine(new Clock("fine", 10));
    int runs = 0;
    const ref_ptr<SerialTask> task(new SerialTask("t", [&] { ++runs; }));
    fine->addFrameTask(task.get());
    master->postTick.connect([&fine](Clock* clock) { fine->stepTo(clock->getTime()); });
    tick(master.get(), 4);
    EXPECT_EQ(fine->getFrame(), 20U);
    EXPECT_EQ(runs, 20);
}

TEST_F(ClockSlaveTest, HasSlavesOfItsOwn) {
    const ref_ptr<Clock> a(new Clock("a", 10));
    const ref_ptr<Clock> b(new Clock("b", 10));
    const ref_ptr<Clock> c(new Clock("c", 5));
    a->addSlave(b.get());
    b->addSlave(c.get());
    int runs = 0;
    const ref_ptr<SerialTask> task(new SerialTask("t", [&] { ++runs; }));
    c->addFrameTask(task.get());
    tick(a.get(), 12);
    EXPECT_EQ(b->getFrame(), 11U);
    EXPECT_EQ(c->getFrame(), 5U);
    EXPECT_EQ(runs, 4); // the last one waits for the next frame of the first clock
    tick(a.get(), 1);
    EXPECT_EQ(runs, 5);
}

TEST_F(ClockSlaveTest, PassesADisabledSlave) {
    const ref_ptr<Clock> master(new Clock("m", 10));
    const ref_ptr<Clock> slave(new Clock("s", 10));
    master->addSlave(slave.get());
    slave->setEnable(false);
    tick(master.get(), 5);
    EXPECT_EQ(slave->getFrame(), 0U);
    EXPECT_EQ(master->getFrame(), 5U);
}

TEST_F(ClockSlaveTest, SurvivesMasterAndSlave) {
    ref_ptr<Clock> master(new Clock("m", 10));
    ref_ptr<Clock> slave(new Clock("s", 10));
    const ref_ptr<Clock> other(new Clock("o", 10));
    master->addSlave(slave.get());
    other->addSlave(slave.get()); // changes hands
    EXPECT_TRUE(master->getSlaves().empty());
    master->addSlave(slave.get());
    master = nullptr;
    EXPECT_EQ(slave->getMaster(), nullptr);
    other->addSlave(slave.get());
    slave = nullptr;
    tick(other.get(), 3);
    EXPECT_TRUE(other->getSlaves().empty());
}

TEST_F(ClockSlaveTest, FindsItsMasterByPath) {
    const ref_ptr<Component> top(new Component("top"));
    const ref_ptr<Clock> slave(new Clock("s", 10));
    slave->bind("m");
    top->addObject(slave.get());
    EXPECT_EQ(slave->getMaster(), nullptr);
    const ref_ptr<Clock> master(new Clock("m", 10));
    top->addObject(master.get());
    EXPECT_EQ(slave->getMaster(), master.get());
}

TEST_F(ClockSlaveTest, DoesNotTickWithAClockThatTicksWithIt) {
    const ref_ptr<Component> top(new Component("top"));
    const ref_ptr<Clock> first(new Clock("first", 10));
    const ref_ptr<Clock> second(new Clock("second", 10));
    top->addObject(first.get());
    top->addObject(second.get());
    first->bind("second");
    EXPECT_EQ(zelTest::whatOf([&] { second->bind("first"); }),
              "top.second: The clock can not tick with 'top.first', which ticks with it");
    EXPECT_EQ(first->getMaster(), second.get());
    EXPECT_EQ(second->getMaster(), nullptr);
}
