// Time and frames of a clock.
#include "ClockFixture.h"

#include <zel/Clock.h>
#include <zel/Job.h>
#include <zel/Model.h>
#include <zel/SerialTask.h>
#include <zel/TaskGroup.h>
#include <zel/Thread.h>
#include <zel/observer_ptr.h>
#include <zel/ref_ptr.h>
#include <zelData/ValueT.h>

#include <gtest/gtest.h>
#include <support/LogCapture.h>

#include <atomic>
#include <limits>
#include <string>
#include <vector>

using zel::Clock;
using zel::ref_ptr;
using zel::SerialTask;
using zelTest::LogCapture;

namespace {

using ClockTest = zelTest::ClockFixture;
using ClockDeathTest = zelTest::ClockFixture;

} // namespace

TEST_F(ClockTest, AdvancesTimeAndFrame) {
    const ref_ptr<Clock> clock(new Clock("c", 4));
    EXPECT_EQ(clock->getTimeStep(), 0.25);
    tick(clock.get(), 3);
    EXPECT_EQ(clock->getTime(), 0.75);
    EXPECT_EQ(clock->getFrame(), 3U);
}

TEST_F(ClockTest, HasItsValuesAsChildren) {
    const ref_ptr<Clock> clock(new Clock("c", 4));
    for (const char* name : {"enable", "time", "frequency", "timeModulation", "timeStep", "frame"})
        EXPECT_NE(clock->findObject(name, zelData::Value::ClassModel()), nullptr) << name;
    EXPECT_EQ(clock->getNumObjects(), 6U);
    EXPECT_TRUE(Clock::ClassModel()->is(zel::Task::ClassModel()));
}

TEST_F(ClockTest, DoesNotTickWhileDisabled) {
    const ref_ptr<Clock> clock(new Clock("c", 4));
    clock->setEnable(false);
    clock->tick(true);
    EXPECT_EQ(clock->getFrame(), 0U);
    clock->setEnable(true);
    clock->tick(false);
    EXPECT_EQ(clock->getFrame(), 1U);
}

TEST_F(ClockTest, FiresAroundEachTick) {
    const ref_ptr<Clock> clock(new Clock("c", 4));
    std::string order;
    clock->preTick.connect([&](Clock* c) { order += "pre" + std::to_string(c->getFrame()) + " "; });
    clock->postTick.connect([&](Clock* c) { order += "post" + std::to_string(c->getFrame()) + " "; });
    clock->addEvent(new Clock::Event([&] { order += "event "; }, 0, 0));
    tick(clock.get(), 2);
    EXPECT_EQ(order, "pre0 post1 pre1 event post2 ");
}

TEST_F(ClockTest, StepsToATimeEvenIfDisabled) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    clock->setEnable(false);
    clock->stepTo(1);
    EXPECT_EQ(clock->getFrame(), 10U);
    EXPECT_FALSE(clock->isEnabled());
    clock->stepForward(0.25);
    EXPECT_EQ(clock->getFrame(), 13U);
    clock->stepTo(0);
    EXPECT_EQ(clock->getFrame(), 13U);
}

TEST_F(ClockTest, StepsByASingleStepAtALargeTime) {
    const ref_ptr<Clock> clock(new Clock("c", 1000));
    clock->setTime(2e6);
    for (int i = 0; i < 10; ++i)
        clock->stepForward(0.001);
    EXPECT_EQ(clock->getFrame(), 10U);
    clock->stepForward(0.01); // the sum of whose steps is rounded ten times
    EXPECT_EQ(clock->getFrame(), 20U);
    clock->stepTo(clock->getTime() + 1e-6);
    EXPECT_EQ(clock->getFrame(), 21U);
}

TEST_F(ClockTest, ReachesAGoalOfManySteps) {
    const ref_ptr<Clock> clock(new Clock("c", 1000));
    for (int i = 1; i <= 100; ++i)
        clock->stepForward(10);
    EXPECT_EQ(clock->getFrame(), 1000000U);
}

TEST_F(ClockTest, StepsToAGoalThatAShorterStepComesNearerTo) {
    const ref_ptr<Clock> clock(new Clock("c", 1));
    clock->postTick.connect([](Clock* c) {
        if (c->getFrame() == 1)
            c->setFrequency(1e5);
    });
    clock->stepTo(1.0005);
    EXPECT_EQ(clock->getFrame(), 51U);
}

TEST_F(ClockTest, GivesUpOnAStepThatIsLostInTheTime) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    clock->setTime(1e300);
    const LogCapture log;
    clock->stepTo(2e300);
    EXPECT_EQ(log.text(), "c: The timestep of 0.1 is too small to advance the time of 1e+300\n");
    EXPECT_EQ(clock->getFrame(), 0U);
}

TEST_F(ClockTest, DerivesItsStepFromFrequencyAndModulation) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    clock->setTimeModulation(2);
    EXPECT_EQ(clock->getTimeStep(), 0.2);
    clock->setFrequency(20);
    EXPECT_EQ(clock->getTimeStep(), 0.1);
    clock->setTimeStep(0.5);
    EXPECT_EQ(clock->getFrequency(), 4);
    EXPECT_EQ(clock->getTimeStep(), 0.5);
    EXPECT_EQ(clock->calculateTimestep(), 0.5);
}

TEST_F(ClockTest, RefusesAStepOfZero) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    const LogCapture log;
    clock->setTimeStep(0);
    clock->setTimeStep(-1);
    EXPECT_EQ(log.text(),
              "Tried setting a timestep of 0, but the timestep must be larger than 0\n"
              "Tried setting a timestep of -1, but the timestep must be larger than 0\n");
    EXPECT_EQ(clock->getTimeStep(), 0.1);
    EXPECT_EQ(clock->getFrequency(), 10);
}

TEST_F(ClockTest, RefusesFrequenciesAndModulationsOfZero) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    const LogCapture log;
    clock->setFrequency(0);
    clock->setTimeModulation(-2);
    EXPECT_EQ(log.text(),
              "Tried setting a frequency of 0, but the frequency must be larger than 0\n"
              "Tried setting a time modulation of -2, but the time modulation must be larger than 0\n");
    EXPECT_EQ(clock->getTimeStep(), 0.1);
}

TEST_F(ClockTest, StaysConsistentWhenItsValuesAreSet) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    Clock::Event* event = noting(clock.get(), -1, 1);
    clock->addEvent(event);
    double seen = 0;
    auto* frequency = valueOf<double>(clock.get(), "frequency");
    frequency->updateEvent.connect([&](zelData::Value*) { seen = clock->getTimeStep(); });
    valueOf<double>(clock.get(), "timeStep")->set(0.25);
    EXPECT_EQ(clock->getFrequency(), 4);
    EXPECT_EQ(frequency->get(), 4);
    EXPECT_EQ(clock->getTimeStep(), 0.25);
    EXPECT_EQ(seen, 0.25);
    EXPECT_EQ(event->getDispatchFrame(), 4U);
    frequency->set(2);
    EXPECT_EQ(valueOf<double>(clock.get(), "timeStep")->get(), 0.5);
    EXPECT_EQ(event->getDispatchFrame(), 2U);
    valueOf<double>(clock.get(), "timeModulation")->set(4);
    EXPECT_EQ(clock->getTimeStep(), 2);
    EXPECT_EQ(clock->getTimeModulation(), 4);
    valueOf<double>(clock.get(), "timeStep")->set(0.5);
    EXPECT_EQ(clock->getFrequency(), 8);
    tick(clock.get(), 1);
    EXPECT_EQ(clock->getTime(), 0.5);
    valueOf<zel::uint64>(clock.get(), "frame")->set(100);
    EXPECT_EQ(event->getDispatchFrame(), 101U);
    tick(clock.get(), 2);
    EXPECT_EQ(m_frames, (std::vector<size_t>{101}));
}

TEST_F(ClockTest, RefusesThroughItsValuesWhatTheSettersRefuse) {
    constexpr double Inf = std::numeric_limits<double>::infinity();
    constexpr double NaN = std::numeric_limits<double>::quiet_NaN();
    const ref_ptr<Clock> clock(new Clock("c", 10));
    for (const double bad : {0.0, -1.0, Inf, -Inf, NaN})
        for (const char* name : {"frequency", "timeModulation", "timeStep"}) {
            const LogCapture log;
            auto* value = valueOf<double>(clock.get(), name);
            const double good = value->get();
            value->set(bad);
            EXPECT_FALSE(log.text().empty()) << name << bad;
            EXPECT_EQ(value->get(), good) << name << bad;
            EXPECT_EQ(clock->getFrequency(), 10) << name << bad;
            EXPECT_EQ(clock->getTimeStep(), 0.1) << name << bad;
            EXPECT_EQ(clock->calculateTimestep(), 0.1) << name << bad;
        }
    const LogCapture log;
    clock->setFrequency(Inf);
    clock->setTimeStep(Inf);
    clock->setTimeStep(NaN);
    clock->setTimeModulation(Inf);
    clock->setTimeModulation(1e10);
    clock->setFrequency(1e11);
    clock->setFrequency(1e-300);
    EXPECT_EQ(log.text(),
              "Tried setting a frequency of inf, but the frequency must be finite\n"
              "Tried setting a timestep of inf, but the timestep must be finite\n"
              "Tried setting a timestep of nan, but the timestep must be larger than 0\n"
              "Tried setting a time modulation of inf, but the time modulation must be finite\n"
              "Tried setting a timestep of inf, but the timestep must be finite\n");
    EXPECT_EQ(clock->calculateTimestep(), 0.1);
    const LogCapture frames;
    valueOf<zel::uint64>(clock.get(), "frame")->set(zel::InvalidIndex);
    EXPECT_EQ(frames.text(), "Tried setting an invalid frame\n");
    EXPECT_EQ(clock->getFrame(), 0U);
}

TEST_F(ClockTest, FollowsWhatItsValuesAreBoundTo) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    const ref_ptr<zelData::ValueT<double>> source(new zelData::ValueT<double>("source", 0.3));
    valueOf<double>(clock.get(), "timeStep")->bind(source.get());
    EXPECT_DOUBLE_EQ(clock->getFrequency(), 1 / 0.3);
    source->set(0.7);
    EXPECT_DOUBLE_EQ(clock->getFrequency(), 1 / 0.7);
    {
        const LogCapture log;
        source->set(0);
        EXPECT_EQ(log.text(), "Tried setting a timestep of 0, but the timestep must be larger than 0\n");
    }
    EXPECT_DOUBLE_EQ(clock->getTimeStep(), 0.7);
    tick(clock.get(), 1);
    EXPECT_DOUBLE_EQ(clock->getTime(), 0.7);
    source->set(0.5);
    EXPECT_EQ(clock->getFrequency(), 2);
    clock->setFrequency(4); // parts with the source
    EXPECT_EQ(clock->getTimeStep(), 0.25);
    EXPECT_EQ(source->get(), 0.5);
}

TEST_F(ClockTest, ResetsToTheBeginning) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    clock->addEvent(noting(clock.get(), 0.2, 0.2));
    tick(clock.get(), 6);
    clock->reset();
    EXPECT_EQ(clock->getTime(), 0);
    EXPECT_EQ(clock->getFrame(), 0U);
    tick(clock.get(), 6);
    EXPECT_EQ(m_frames, (std::vector<size_t>{2, 4, 2, 4}));
}

TEST_F(ClockTest, TicksAsATask) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    clock->execute();
    EXPECT_EQ(clock->getFrame(), 1U);
    clock->setEnable(false);
    clock->execute();
    EXPECT_EQ(clock->getFrame(), 1U);
}

// What runs in a frame

TEST_F(ClockTest, RunsItsTasksAndJobsInEachFrame) {
    for (const size_t threads : {1U, 2U, 4U}) {
        zel::setNumThreads(threads);
        const ref_ptr<Clock> clock(new Clock("c", 10));
        std::atomic<int> runs{0};
        const ref_ptr<SerialTask> a(new SerialTask("a", [&] { runs += 1; }));
        const ref_ptr<SerialTask> b(new SerialTask("b", [&] { runs += 10; }));
        b->addDependency(a.get());
        zel::Job job([&] { runs += 100; });
        clock->addFrameTask(a.get());
        clock->addFrameTask(a.get()); // once is enough
        clock->addFrameTask(b.get());
        clock->addFrameJob(&job);
        tick(clock.get(), 3);
        EXPECT_EQ(runs, 333);
        EXPECT_TRUE(clock->removeFrameTask(b.get()));
        EXPECT_FALSE(clock->removeFrameTask(b.get()));
        EXPECT_TRUE(clock->removeFrameJob(&job));
        EXPECT_FALSE(clock->removeFrameJob(&job));
        b->removeDependency(a.get());
        tick(clock.get(), 1);
        EXPECT_EQ(runs, 334);
        a->execute(); // the frame has left no trace at the task
        EXPECT_EQ(runs, 335);
        EXPECT_EQ(a->getJob()->getNumDependencies(), 0U);
    }
}

TEST_F(ClockTest, ForgetsAFrameTaskThatIsGone) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    int runs = 0;
    ref_ptr<SerialTask> a(new SerialTask("a", [&] { runs += 1; }));
    const ref_ptr<SerialTask> b(new SerialTask("b", [&] { runs += 10; }));
    clock->addFrameTask(a.get());
    clock->addFrameTask(b.get());
    tick(clock.get(), 1);
    a = nullptr;
    tick(clock.get(), 1);
    EXPECT_EQ(runs, 21);
}

TEST_F(ClockTest, PassesADisabledFrameTask) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    int runs = 0;
    const ref_ptr<SerialTask> a(new SerialTask("a", [&] { ++runs; }));
    clock->addFrameTask(a.get());
    a->setEnable(false);
    tick(clock.get(), 2);
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(clock->getFrame(), 2U);
}

TEST_F(ClockTest, StaysUntilItsTickHasEnded) {
    ref_ptr<Clock> clock(new Clock("c", 10));
    const zel::observer_ptr<Clock> observer(clock.get());
    bool ended = false;
    clock->addEvent(new Clock::Event([&clock] { clock = nullptr; }, 0.1, 0.1));
    clock->postTick.connect([&ended](Clock* c) { ended = c->getFrame() == 2; });
    Clock* const plain = clock.get();
    plain->tick(false);
    plain->tick(false);
    EXPECT_TRUE(ended);
    EXPECT_EQ(observer.get(), nullptr);
    ref_ptr<Clock> stepping(new Clock("stepping", 10));
    int steps = 0;
    stepping->postTick.connect([&](Clock*) {
        stepping = nullptr;
        ++steps;
    });
    stepping.get()->stepTo(0.5);
    EXPECT_EQ(steps, 5);
}

TEST_F(ClockTest, DoesNotOwnTheTasksOfAFrame) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    int runs = 0;
    {
        SerialTask task("t", [&] { ++runs; });
        clock->addFrameTask(&task);
        tick(clock.get(), 2);
    }
    tick(clock.get(), 1);
    EXPECT_EQ(runs, 2);
}

TEST_F(ClockDeathTest, RefusesWhatMakesNoSense) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    const ref_ptr<Clock> slave(new Clock("s", 10));
    const ref_ptr<Clock::Event> event(new Clock::Event("e"));
    clock->addSlave(slave.get());
    EXPECT_DEATH(clock->setFrame(zel::InvalidIndex), "zelVerify failed: `frame != InvalidIndex'");
    EXPECT_DEATH(slave->addSlave(clock.get()), "c: A clock can not be its own master");
    EXPECT_DEATH(clock->addSlave(clock.get()), "c: A clock can not be its own master");
    EXPECT_DEATH(clock->schedule(event.get(), 1), "e: The event does not belong to the clock");
    clock->addEvent(event.get());
    EXPECT_DEATH(slave->addEvent(event.get()), "c.e: The event already has a clock");
    EXPECT_DEATH(const Clock::Event bad([] {}, std::numeric_limits<double>::quiet_NaN(), 0),
                 "The interval and the start delay of an event must be numbers");
    EXPECT_DEATH(const Clock bad("b", 0), "b: The frequency of a clock must be larger than 0");
    EXPECT_DEATH(const Clock bad("b", std::numeric_limits<double>::infinity()),
                 "b: The frequency of a clock and its timestep must be finite");
    clock->preTick.connect([&](Clock* c) { c->tick(false); });
    EXPECT_DEATH(clock->tick(false), "c: A clock can not tick within its own tick");
    const ref_ptr<zel::TaskGroup> group(new zel::TaskGroup("g"));
    group->addSubtask(new SerialTask("t"));
    EXPECT_DEATH(clock->addFrameTask(group->getSubtasks()[0]), "Subtask 'g.t' is already part of a group!");
}
