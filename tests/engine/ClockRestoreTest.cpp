// Clocks that tell where they stand, and go back there.
#include "ClockFixture.h"

#include <zel/Job.h>
#include <zel/ref_ptr.h>

#include <gmock/gmock.h>

#include <limits>
#include <string>

using testing::ElementsAre;
using zel::Clock;
using zel::ref_ptr;
using zel::Vector;

namespace {

class ClockRestoreTest : public zelTest::ClockFixture {
protected:
    /// A clock with events that note their name and frame.
    ref_ptr<Clock> makeClock(std::vector<std::string>& notes) {
        ref_ptr<Clock> clock(new Clock("c", 10));
        Clock* const raw = clock.get();
        const auto add = [&notes, raw](const char* name, double interval, double delay) {
            const ref_ptr<Clock::Event> event(new Clock::Event(zel::Name(name)));
            event->setInterval(interval);
            event->setStartDelay(delay);
            event->callbacks.connect(
                [&notes, raw, name] { notes.push_back(name + std::to_string(raw->getFrame())); });
            raw->addEvent(event.get());
        };
        add("a", 0.15, 0.15);
        add("b", 0.2, 0.1);
        add("once", -1, 0.25);
        add("d", 0.37, 0.2);
        add("far", 3, std::numeric_limits<double>::infinity());
        return clock;
    }
    /// The schedule of a clock for the events of the same names of another.
    static Vector<Clock::EventState> scheduleFor(Clock* clock, const Clock* from) {
        Vector<Clock::EventState> schedule;
        for (Clock::EventState state : from->getSchedule()) {
            state.event = dynamic_cast<Clock::Event*>(clock->findObject(state.event->getName()));
            schedule.push_back(state);
        }
        return schedule;
    }
    static std::vector<std::string> namesIn(const Clock* clock) {
        std::vector<std::string> names;
        for (const Clock::EventState& state : clock->getSchedule())
            names.push_back((state.isScheduled ? "" : "-") + std::string(state.event->getName().c_str()));
        return names;
    }
};

TEST_F(ClockRestoreTest, SchedulesAreToldInTheOrderInWhichEventsHappen) {
    std::vector<std::string> notes;
    const ref_ptr<Clock> clock = makeClock(notes);
    clock->unschedule(dynamic_cast<Clock::Event*>(clock->findObject("b")));
    // Those of one frame: the newest first.
    EXPECT_THAT(namesIn(clock.get()), ElementsAre("a", "d", "once", "far", "-b"));
    const Vector<Clock::EventState> schedule = clock->getSchedule();
    EXPECT_EQ(schedule[0].dispatchFrame, 1U);
    EXPECT_NEAR(schedule[0].residual, 0.05, 1e-12);
    EXPECT_EQ(schedule[1].dispatchFrame, 2U);
}

TEST_F(ClockRestoreTest, AnotherClockGoesOnInTheSameWay) {
    for (int frames = 0; frames < 40; ++frames) {
        std::vector<std::string> notes;
        std::vector<std::string> otherNotes;
        const ref_ptr<Clock> clock = makeClock(notes);
        tick(clock.get(), frames);
        notes.clear();
        const ref_ptr<Clock> other = makeClock(otherNotes);
        tick(other.get(), 1);
        otherNotes.clear();
        other->restoreSchedule(clock->getTime(), clock->getFrame(), scheduleFor(other.get(), clock.get()));
        tick(clock.get(), 100);
        tick(other.get(), 100);
        ASSERT_EQ(otherNotes, notes) << frames;
        EXPECT_EQ(other->getTime(), clock->getTime());
        EXPECT_EQ(other->getFrame(), clock->getFrame());
    }
}

TEST_F(ClockRestoreTest, AClockGoesBackInTime) {
    std::vector<std::string> notes;
    const ref_ptr<Clock> clock = makeClock(notes);
    clock->removeEvent(dynamic_cast<Clock::Event*>(clock->findObject("once")));
    tick(clock.get(), 20);
    const double time = clock->getTime();
    const auto schedule = clock->getSchedule();
    notes.clear();
    tick(clock.get(), 30);
    const std::vector<std::string> first = notes;
    notes.clear();
    clock->restoreSchedule(time, 20, schedule);
    EXPECT_EQ(clock->getFrame(), 20U);
    tick(clock.get(), 30);
    EXPECT_EQ(notes, first);
}

TEST_F(ClockRestoreTest, WhatHasGoneByHappensNextAndWhatLacksDoesNot) {
    std::vector<std::string> notes;
    const ref_ptr<Clock> clock = makeClock(notes);
    auto* a = dynamic_cast<Clock::Event*>(clock->findObject("a"));
    auto* d = dynamic_cast<Clock::Event*>(clock->findObject("d"));
    clock->restoreSchedule(
        5,
        50,
        {{a, 7, std::numeric_limits<double>::quiet_NaN(), true}, {d, 50, 0.01, false}, {a, 60, 0, true}});
    EXPECT_EQ(a->getDispatchFrame(), 50U);
    EXPECT_EQ(a->getResidual(), 0.0);
    EXPECT_EQ(d->getResidual(), 0.01);
    EXPECT_FALSE(d->isScheduled());
    tick(clock.get(), 1);
    EXPECT_THAT(notes, ElementsAre("a50"));
    tick(clock.get(), 20);
    for (const std::string& note : notes)
        EXPECT_EQ(note[0], 'a');
}

TEST_F(ClockRestoreTest, EventsThatAreDueAreToldFromWithinATick) {
    std::vector<std::string> names;
    const ref_ptr<Clock> clock(new Clock("c", 10));
    for (const char* name : {"first", "second"}) {
        const ref_ptr<Clock::Event> event(new Clock::Event(zel::Name(name)));
        event->setInterval(0.1);
        event->callbacks.connect([&] {
            if (names.empty())
                names = namesIn(clock.get());
        });
        clock->addEvent(event.get());
    }
    tick(clock.get(), 2);
    EXPECT_THAT(names, ElementsAre("first", "-second")); // the second one is at work
}

TEST_F(ClockRestoreTest, BoundValuesKeepTheirBindings) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    const ref_ptr<zelData::ValueT<double>> time(new zelData::ValueT<double>("t", 3));
    valueOf<double>(clock.get(), "time")->bind(time.get());
    clock->restoreSchedule(9, 4, {});
    EXPECT_EQ(clock->getTime(), 3);
    EXPECT_EQ(clock->getFrame(), 4U);
    EXPECT_NE(valueOf<double>(clock.get(), "time")->getBinding(), nullptr);
}

/// Counts its runs.
class CountJob : public zel::Job {
public:
    CountJob() : Job("count") {}
    void implementation() override { ++runs; }
    int runs = 0;
};

TEST_F(ClockRestoreTest, SlavesJoinTheNextFrameOfTheirMasterAgain) {
    const ref_ptr<Clock> master(new Clock("m", 10));
    const ref_ptr<Clock> slave(new Clock("s", 5));
    CountJob job;
    master->addSlave(slave.get());
    slave->addFrameJob(&job);
    EXPECT_FALSE(slave->hasJoinedMaster());
    tick(master.get(), 3); // the slave has ticked in the frame 2
    EXPECT_TRUE(slave->hasJoinedMaster());
    EXPECT_EQ(job.runs, 0);
    slave->restoreJoined(false);
    EXPECT_FALSE(slave->hasJoinedMaster());
    tick(master.get(), 1);
    EXPECT_EQ(job.runs, 0);
    slave->restoreJoined(true);
    slave->restoreJoined(true); // once all the same
    EXPECT_TRUE(slave->hasJoinedMaster());
    tick(master.get(), 1);
    EXPECT_EQ(job.runs, 1);
    // Also one that has never ticked, and one below another.
    const ref_ptr<Clock> top(new Clock("t", 10));
    top->addSlave(master.get());
    slave->restoreJoined(true);
    tick(top.get(), 1);
    EXPECT_EQ(job.runs, 2);
    slave->removeFrameJob(&job);
    master->removeSlave(slave.get());
    slave->restoreJoined(true); // of nobody
    EXPECT_FALSE(slave->hasJoinedMaster());
}

TEST_F(ClockRestoreTest, MisuseEndsTheProcess) {
    const ref_ptr<Clock> clock(new Clock("c", 10));
    const ref_ptr<Clock::Event> event(new Clock::Event("e"));
    EXPECT_DEATH(clock->restoreSchedule(0, 0, {{event.get(), 1, 0, true}}),
                 "e: The event does not belong to the clock");
    EXPECT_DEATH(clock->restoreSchedule(0, zel::InvalidIndex, {}),
                 "zelVerify failed: `frame != InvalidIndex'");
    clock->postTick.connect([](Clock* ticking) { ticking->restoreSchedule(0, 0, {}); });
    EXPECT_DEATH(clock->tick(), "c: A clock can not be restored within its own tick");
    const ref_ptr<Clock> other(new Clock("d", 10));
    other->postTick.connect([](Clock* ticking) { ticking->restoreJoined(true); });
    EXPECT_DEATH(other->tick(), "d: A clock can not be restored within its own tick");
}

} // namespace
