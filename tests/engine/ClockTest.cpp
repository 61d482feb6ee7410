#include <zel/Clock.h>
#include <zel/Job.h>
#include <zel/Model.h>
#include <zel/RealTimeClock.h>
#include <zel/SerialTask.h>
#include <zel/TaskGroup.h>
#include <zel/Thread.h>
#include <zel/observer_ptr.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/ValueT.h>

#include <support/LogCapture.h>
#include <support/TempDirectory.h>
#include <support/WhatOf.h>
#include <tinyxml.h>

#include <atomic>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

using zel::Clock;
using zel::Component;
using zel::Object;
using zel::RealTimeClock;
using zel::ref_ptr;
using zel::SerialTask;
using zelTest::LogCapture;
using zelTest::whatOf;

namespace {

class ClockTest : public testing::Test {
protected:
    void SetUp() override {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        zelCore::init();
    }
    void TearDown() override { zelCore::shutdown(); }

    /// An event that notes the frames in which it fires.
    Clock::Event* noting(Clock* clock, double interval, double startDelay) {
        return new Clock::Event(
            [this, clock] { m_frames.push_back(clock->getFrame()); }, interval, startDelay);
    }
    template <typename T>
    static zelData::ValueT<T>* valueOf(Clock* clock, const char* name) {
        return dynamic_cast<zelData::ValueT<T>*>(clock->findObject(name));
    }
    static void tick(Clock* clock, int n) {
        for (int i = 0; i < n; ++i)
            clock->tick(false);
    }

    std::vector<size_t> m_frames;
};
using ClockEventTest = ClockTest;
using ClockSlaveTest = ClockTest;
using ClockDeathTest = ClockTest;
using RealTimeClockTest = ClockTest;

class ClockXmlTest : public ClockTest {
protected:
    ref_ptr<Object> load(const std::string& element) {
        m_document = Object::openDocument(m_directory.write("c.xml", element));
        return Object::load(m_document->RootElement(), nullptr);
    }
    std::string failure(const std::string& element) {
        m_document = Object::openDocument(m_directory.write("c.xml", element));
        return whatOf(
            [this] { const ref_ptr<Clock> clock(Clock::load(m_document->RootElement(), nullptr)); });
    }

    zelTest::TempDirectory m_directory;
    std::unique_ptr<TiXmlDocument> m_document;
};

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

// Events

TEST_F(ClockEventTest, KeepsTheAverageOfAnIntervalThatIsNoMultipleOfTheStep) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    clock->addEvent(noting(clock.get(), 0.15, 0.15));
    tick(clock.get(), 13);
    EXPECT_EQ(m_frames, (std::vector<size_t>{1, 3, 4, 6, 7, 9, 10, 12}));
}

TEST_F(ClockEventTest, DelaysByOneFrameAtLeast) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    clock->addEvent(noting(clock.get(), -1, 0));
    clock->addEvent(noting(clock.get(), -1, 0.05));
    clock->addEvent(noting(clock.get(), -1, -3));
    tick(clock.get(), 3);
    EXPECT_EQ(m_frames, (std::vector<size_t>{1, 1, 1}));
}

TEST_F(ClockEventTest, DividesThreeTenthsByATenthToThree) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    clock->addEvent(noting(clock.get(), -1, 0.3));
    tick(clock.get(), 5);
    EXPECT_EQ(m_frames, (std::vector<size_t>{3}));
}

TEST_F(ClockEventTest, CutsALongDelayToTheLastWholeFrame) {
    const ref_ptr<Clock> clock(new Clock("c", 1));
    Clock::Event* event = noting(clock.get(), -1, 0);
    clock->addEvent(event);
    clock->schedule(event, 3e9 - 0.5);
    EXPECT_EQ(event->getDispatchFrame(), 2999999999U);
    EXPECT_EQ(event->getResidual(), 0.5);
}

TEST_F(ClockEventTest, LetsAnEventOfANegativeIntervalGo) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    const ref_ptr<Clock::Event> event(noting(clock.get(), -1, 0.1));
    const ref_ptr<Clock::Event> other(noting(clock.get(), 0.1, 0.1));
    clock->addEvent(event.get());
    clock->addEvent(other.get());
    EXPECT_EQ(event->getIndex(), 0U);
    EXPECT_EQ(event->getClock(), clock.get());
    tick(clock.get(), 2);
    EXPECT_EQ(event->getClock(), nullptr);
    EXPECT_EQ(event->getContext(), nullptr);
    EXPECT_EQ(other->getIndex(), 0U);
    EXPECT_EQ(clock->getEvents(), zel::Vector<Clock::Event*>({other.get()}));
}

TEST_F(ClockEventTest, DoesNotReadWhetherAnEventRepeats) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    Clock::Event* event = noting(clock.get(), 0.1, 0.1);
    event->setRepeating(false);
    clock->addEvent(event);
    tick(clock.get(), 3);
    EXPECT_EQ(m_frames, (std::vector<size_t>{1, 2}));
}

TEST_F(ClockEventTest, GoesOnWithTheFrameAfterACallbackThatThrows) {
    const ref_ptr<Clock> clock(new Clock("clock", 10));
    std::vector<std::string> fired;
    // The newest event of a frame comes first.
    const ref_ptr<Clock::Event> last(new Clock::Event([&] { fired.emplace_back("last"); }, 0.1, 0));
    const ref_ptr<Clock::Event> gone(new Clock::Event([&] { fired.emplace_back("gone"); }, 0.1, 0));
    clock->addEvent(last.get());
    clock->addEvent(gone.get());
    clock->addEvent(new Clock::Event(
        [&] {
            fired.emplace_back("throws");
            throw std::runtime_error("no");
        },
        0.1,
        0));
    tick(clock.get(), 1);
    EXPECT_THROW(clock->tick(false), std::runtime_error);
    clock->removeEvent(gone.get());
    clock->tick(false);
    EXPECT_EQ(fired, (std::vector<std::string>{"throws", "last"}));
    EXPECT_EQ(clock->getFrame(), 2U);
}

TEST_F(ClockEventTest, KeepsItsTurnsAfterACallbackThatThrows) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    bool throws = true;
    std::vector<size_t> frames;
    clock->addEvent(new Clock::Event(
        [&] {
            frames.push_back(clock->getFrame());
            if (std::exchange(throws, false))
                throw std::runtime_error("no");
        },
        0.2,
        0.1));
    const ref_ptr<Clock::Event> once(new Clock::Event([] { throw std::logic_error("once"); }, -1, 0.3));
    clock->addEvent(once.get());
    tick(clock.get(), 1);
    EXPECT_THROW(clock->tick(false), std::runtime_error);
    tick(clock.get(), 2);
    EXPECT_THROW(clock->tick(false), std::logic_error);
    EXPECT_EQ(once->getClock(), nullptr); // it has happened
    tick(clock.get(), 3);
    EXPECT_EQ(frames, (std::vector<size_t>{1, 3, 5}));
}

TEST_F(ClockEventTest, TakesAnyEventOfAFrameOffTheSchedule) {
    const ref_ptr<Clock> clock(new Clock("clock", 10));
    std::vector<int> fired;
    std::vector<ref_ptr<Clock::Event>> events;
    for (int i = 0; i < 6; ++i) {
        events.emplace_back(new Clock::Event([&fired, i] { fired.push_back(i); }, 1, 0.2));
        clock->addEvent(events.back().get());
    }
    for (const size_t i : {5U, 2U, 0U}) // first, middle and last of the frame
        clock->unschedule(events[i].get());
    clock->schedule(events[2].get(), 0.2); // in a place that has been in use
    tick(clock.get(), 3);
    EXPECT_EQ(fired, (std::vector<int>{2, 4, 3, 1}));
    EXPECT_FALSE(events[5]->isScheduled());
    EXPECT_TRUE(events[4]->isScheduled());
}

TEST_F(ClockEventTest, PassesOverADisabledEvent) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    Clock::Event* event = noting(clock.get(), 0.1, 0.1);
    clock->addEvent(event);
    event->setEnable(false);
    tick(clock.get(), 3);
    event->setEnable(true);
    tick(clock.get(), 2);
    EXPECT_EQ(m_frames, (std::vector<size_t>{3, 4}));
}

TEST_F(ClockEventTest, SchedulesAnewWhenTheDelayChanges) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    Clock::Event* event = noting(clock.get(), -1, 0.1);
    clock->addEvent(event);
    event->setStartDelay(0.4);
    EXPECT_EQ(event->getDispatchFrame(), 4U);
    EXPECT_DOUBLE_EQ(event->calculateTimeUntilDispatch(), 0.4);
    EXPECT_DOUBLE_EQ(event->calculateTimeUntilDispatch(0.2), 0.8);
    tick(clock.get(), 6);
    EXPECT_EQ(m_frames, (std::vector<size_t>{4}));
}

TEST_F(ClockEventTest, KeepsTheTimeLeftWhenTheStepChanges) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    Clock::Event* event = noting(clock.get(), -1, 0.45);
    clock->addEvent(event);
    tick(clock.get(), 2);
    clock->setFrequency(20);
    EXPECT_EQ(event->getDispatchFrame(), 7U);
    EXPECT_NEAR(event->calculateTimeUntilDispatch(), 0.25, 1e-12);
    clock->setFrame(100);
    EXPECT_EQ(event->getDispatchFrame(), 105U);
}

TEST_F(ClockEventTest, ChangesTheScheduleFromWithinACallback) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    std::string order;
    ref_ptr<Clock::Event> victim(new Clock::Event([&] { order += 'v'; }, 0.1, 0.1));
    ref_ptr<Clock::Event> self;
    self = new Clock::Event(
        [&] {
            order += 's';
            clock->removeEvent(self.get());
            clock->removeEvent(victim.get());
            clock->addEvent(new Clock::Event([&] { order += 'n'; }, -1, 0));
        },
        0.1,
        0.1);
    clock->addEvent(victim.get());
    clock->addEvent(self.get()); // heads the list
    tick(clock.get(), 4);
    EXPECT_EQ(order, "sn");
    EXPECT_EQ(self->getClock(), nullptr);
    EXPECT_TRUE(clock->getEvents().empty());
}

TEST_F(ClockEventTest, TakesTheFrequencyThatACallbackSets) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    clock->addEvent(noting(clock.get(), 0.2, 0.2));
    clock->addEvent(new Clock::Event([&] { clock->setFrequency(20); }, -1, 0.2));
    tick(clock.get(), 8);
    EXPECT_EQ(m_frames, (std::vector<size_t>{2, 6}));
}

TEST_F(ClockEventTest, RefusesDelaysAndIntervalsThatAreNoNumbers) {
    constexpr double NaN = std::numeric_limits<double>::quiet_NaN();
    const ref_ptr<Clock> clock(new Clock("c", 10));
    Clock::Event* event = noting(clock.get(), 0.2, 0.1);
    clock->addEvent(event);
    const LogCapture log;
    event->setStartDelay(NaN);
    event->setInterval(NaN);
    clock->schedule(event, NaN);
    dynamic_cast<zelData::ValueT<double>*>(event->findObject("startDelay"))->set(NaN);
    dynamic_cast<zelData::ValueT<double>*>(event->findObject("interval"))->set(NaN);
    const std::string delay = "Tried setting the start delay to nan, but the start delay must be a number\n";
    const std::string interval = "Tried setting the interval to nan, but the interval must be a number\n";
    EXPECT_EQ(log.text(),
              delay + interval + "Tried setting the delay to nan, but the delay must be a number\n" + delay +
                  interval);
    EXPECT_EQ(event->getStartDelay(), 0.1);
    EXPECT_EQ(event->getInterval(), 0.2);
    tick(clock.get(), 6);
    EXPECT_EQ(m_frames, (std::vector<size_t>{1, 3, 5}));
}

TEST_F(ClockEventTest, WaitsForEver) {
    constexpr double Inf = std::numeric_limits<double>::infinity();
    const ref_ptr<Clock> clock(new Clock("c", 10));
    Clock::Event* event = noting(clock.get(), Inf, 0.1);
    clock->addEvent(event);
    tick(clock.get(), 10);
    EXPECT_EQ(m_frames, (std::vector<size_t>{1}));
    clock->setFrequency(100);
    tick(clock.get(), 10);
    EXPECT_EQ(m_frames.size(), 1U);
    event->setInterval(0.01);
    clock->schedule(event);
    tick(clock.get(), 2);
    EXPECT_EQ(m_frames, (std::vector<size_t>{1, 21}));
}

TEST_F(ClockEventTest, UnschedulesAndSchedules) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    Clock::Event* first = noting(clock.get(), 0.1, 0.2);
    const ref_ptr<Clock::Event> second(noting(clock.get(), 0.5, 0.2)); // outlives its removal
    clock->addEvent(first);
    clock->addEvent(second.get());
    clock->unschedule(first);
    EXPECT_FALSE(first->isScheduled());
    clock->unschedule(first);
    tick(clock.get(), 3);
    EXPECT_EQ(m_frames, (std::vector<size_t>{2}));
    clock->schedule(first, 0.3);
    tick(clock.get(), 4);
    EXPECT_EQ(m_frames, (std::vector<size_t>{2, 6}));
    EXPECT_TRUE(clock->removeEvent(second.get()));
    EXPECT_FALSE(clock->removeEvent(second.get()));
    EXPECT_FALSE(clock->removeEvent(nullptr));
}

TEST_F(ClockEventTest, TellsAnEventWhatBecomesOfIt) {
    struct Told : Clock::Event {
        using Clock::Event::Event;
        void start() override { told += "start "; }
        void stop() override { told += "stop "; }
        void reset() override { told += "reset "; }
        std::string told;
    };
    const ref_ptr<Clock> clock(new Clock("c", 10));
    const ref_ptr<Told> event(new Told("e"));
    clock->addEvent(event.get());
    clock->reset();
    clock->removeAllObjects();
    EXPECT_EQ(event->told, "start reset stop ");
    EXPECT_TRUE(clock->getEvents().empty());
    tick(clock.get(), 2);
}

TEST_F(ClockEventTest, OutlivesItsClock) {
    ref_ptr<Clock> clock(new Clock("c", 10));
    const ref_ptr<Clock::Event> event(new Clock::Event("e"));
    clock->addEvent(event.get());
    clock = nullptr;
    EXPECT_EQ(event->getClock(), nullptr);
    event->setStartDelay(3);
    EXPECT_EQ(event->calculateTimeUntilDispatch(), 0);
}

// Slaves

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

// XML

TEST_F(ClockXmlTest, LoadsAClock) {
    const ref_ptr<Object> object =
        load("<Clock name='c' time='5' frequency='20' timeModulation='2' enable='false'>\n"
             "<Value instance='frame' value='7'/>\n"
             "<Value instance='timeModulation' value='4'/>\n"
             "<Value instance='timeStep' value='0.1'/>\n"
             "<Event name='e' startDelay='0.5' interval='0.25' repeating='true' enabled='false'/>\n"
             "<Event name='once'/>\n"
             "</Clock>");
    auto* clock = dynamic_cast<Clock*>(object.get());
    ASSERT_NE(clock, nullptr);
    EXPECT_EQ(clock->getTime(), 5);
    EXPECT_EQ(clock->getFrequency(), 40);
    EXPECT_EQ(clock->getTimeStep(), 0.1);
    EXPECT_EQ(clock->getFrame(), 7U);
    EXPECT_FALSE(clock->isEnabled());
    auto* event = dynamic_cast<Clock::Event*>(clock->findObject("e"));
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->getStartDelay(), 0.5);
    EXPECT_EQ(event->getInterval(), 0.25);
    EXPECT_TRUE(event->isRepeating());
    EXPECT_FALSE(event->isEnabled());
    EXPECT_EQ(dynamic_cast<Clock::Event*>(clock->findObject("once"))->getInterval(), -1);
}

TEST_F(ClockXmlTest, SynchronizesWithAMaster) {
    const ref_ptr<Object> slave = load("<Clock name='s' frequency='10' synchronize='m'/>");
    const ref_ptr<Component> top(new Component("top"));
    const ref_ptr<Clock> master(new Clock("m", 10));
    top->addObject(master.get());
    top->addObject(slave.get());
    EXPECT_EQ(dynamic_cast<Clock*>(slave.get())->getMaster(), master.get());
}

TEST_F(ClockXmlTest, SavesWhatItLoads) {
    const ref_ptr<Object> object = load("<Clock name='c' time='5' frequency='20' synchronize='m'>\n"
                                        "<Event name='e' startDelay='0.5' interval='0.25'/></Clock>");
    TiXmlElement parent("parent");
    object->save(&parent);
    const ref_ptr<Clock> copy(Clock::load(parent.FirstChildElement(), nullptr));
    EXPECT_EQ(copy->getTime(), 5);
    EXPECT_EQ(copy->getFrequency(), 20);
    auto* event = dynamic_cast<Clock::Event*>(copy->findObject("e"));
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->getStartDelay(), 0.5);
    EXPECT_EQ(event->getInterval(), 0.25);
    EXPECT_STREQ(parent.FirstChildElement()->Attribute("synchronize"), "m");
}

TEST_F(ClockXmlTest, RefusesBadElements) {
    using testing::HasSubstr;
    EXPECT_THAT(failure("<Clock/>"), HasSubstr("XML error: Must specify a name for the clock!"));
    EXPECT_THAT(failure("<Clock name='c'><Value instance='speed' value='1'/></Clock>"),
                HasSubstr("XML error: No value with name 'speed'!"));
    EXPECT_THAT(failure("<Clock name='c'><Value name='speed' value='1'/></Clock>"),
                HasSubstr("XML error: Can not add new values to a clock!"));
    EXPECT_THAT(failure("<Clock name='c' frequency='0'/>"),
                HasSubstr("XML error: The attribute 'frequency' must be larger than 0"));
    EXPECT_THAT(failure("<Clock name='c' timeModulation='-1'/>"),
                HasSubstr("XML error: The attribute 'timeModulation' must be larger than 0"));
    EXPECT_THAT(failure("<Clock name='c' time='soon'/>"), HasSubstr("XML error: "));
    EXPECT_THAT(failure("<Clock name='c'><Event/></Clock>"), HasSubstr("XML error: "));
}

// The wall clock

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
