// What a clock has scheduled.
#include "ClockFixture.h"

#include <zel/Clock.h>
#include <zel/ref_ptr.h>
#include <zelData/ValueT.h>

#include <gtest/gtest.h>
#include <support/LogCapture.h>

#include <limits>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

using zel::Clock;
using zel::ref_ptr;
using zelTest::LogCapture;

namespace {

using ClockEventTest = zelTest::ClockFixture;

} // namespace

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

TEST_F(ClockEventTest, LetsThousandsGoInOneFrame) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    std::vector<Clock::Event*> events;
    size_t fired = 0;
    for (size_t i = 0; i < 3000; ++i) {
        // Every third removes one that is due after it, or has fired.
        events.push_back(new Clock::Event(
            [&, i] {
                ++fired;
                if (i % 3 == 2)
                    clock->removeEvent(events[i - 1]);
            },
            -1,
            0));
        clock->addEvent(events.back());
    }
    auto* const last = noting(clock.get(), 0.1, 0);
    clock->addEvent(last);
    const size_t numValues = clock->getNumObjects() - 3001;
    tick(clock.get(), 2);
    // The list of a frame begins with the newest.
    EXPECT_EQ(fired, 2000U);
    EXPECT_EQ(clock->getEvents().size(), 1U);
    EXPECT_EQ(clock->getNumObjects(), numValues + 1);
    EXPECT_EQ(clock->getObject(numValues), last);
    EXPECT_EQ(m_frames, (std::vector<size_t>{1}));
}

TEST_F(ClockEventTest, CallsWhatOverridesRebindAtEachAdditionOrOnceInTheEnd) {
    struct Counting : Clock::Event {
        using Clock::Event::Event;
        void rebind() override { ++rebinds; }
        int rebinds = 0;
    };
    const ref_ptr<Clock> clock(new Clock("c", 10));
    auto* const counting = new Counting("counting");
    clock->addEvent(counting);
    counting->rebinds = 0;
    clock->addEvent(new Clock::Event("a"));
    clock->addEvent(new Clock::Event("b"));
    EXPECT_EQ(counting->rebinds, 2);
    zel::Object::setEnableRebind(false);
    clock->addEvent(new Clock::Event("c"));
    clock->addEvent(new Clock::Event("d"));
    zel::Object::setEnableRebind(true);
    EXPECT_EQ(counting->rebinds, 2);
    clock->rebind();
    EXPECT_EQ(counting->rebinds, 3);
}

TEST_F(ClockEventTest, ValueOfAnEventThatIsBoundLaterFindsWhatComesAfterIt) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    auto* const event = new Clock::Event("e");
    clock->addEvent(event);
    auto* const delay = dynamic_cast<zelData::Value*>(event->findObject("startDelay"));
    ASSERT_NE(delay, nullptr);
    delay->bind(zel::Path("pause"));
    EXPECT_EQ(delay->getBinding(), nullptr);
    auto* const pause = new zelData::ValueT<double>("pause", 0.3);
    clock->addObject(pause);
    EXPECT_EQ(delay->getBinding(), pause);
    EXPECT_EQ(event->getStartDelay(), 0.3);
}
