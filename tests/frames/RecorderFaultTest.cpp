#include "RunFixture.h"

#include <zelData/Replay.h>

#include <support/LogCapture.h>
#include <support/WhatOf.h>

#include <filesystem>
#include <stdexcept>

using testing::ElementsAre;
using zel::ref_ptr;
using zel::uint64;
using zelData::Recorder;
using zelData::Replay;
using zelTest::LogCapture;
using zelTest::whatOf;

namespace {

class RecorderFaultTest : public zelTest::RunFixture {
protected:
    [[nodiscard]] std::vector<uint64> recorded() {
        open();
        return indicesInTable();
    }
    /// Ends a recording from within its own capture.
    void stopAtCapture(int n) {
        recorder->captureEvent.connect([this, n](Recorder*) {
            if (++m_calls == n)
                recorder->stop();
        });
    }

private:
    int m_calls = 0;
};

TEST_F(RecorderFaultTest, CaptureEventsMayStopTheRecording) {
    prepare();
    stopAtCapture(3);
    start();
    run->tick(4);
    EXPECT_FALSE(recorder->isRecording());
    EXPECT_EQ(recorder->getMessage(), "");
    EXPECT_THAT(recorded(), ElementsAre(0, 1));
    EXPECT_EQ(session->getLastFrameIndex(), 1U);
}

TEST_F(RecorderFaultTest, CaptureEventsMayStopARecordingThatIsJustStarting) {
    prepare();
    stopAtCapture(1);
    start();
    run->tick(1);
    EXPECT_FALSE(recorder->isRecording());
    EXPECT_EQ(recorder->getNumFrames(), 0U);
}

TEST_F(RecorderFaultTest, CaptureEventsMayLetGoOfTheRecorder) {
    prepare();
    recorder->captureEvent.connect([this](Recorder*) {
        if (run->clock->getFrame() == 2)
            recorder = nullptr;
    });
    start();
    run->tick(3);
    EXPECT_THAT(recorded(), ElementsAre(0, 1, 2));
}

TEST_F(RecorderFaultTest, CaptureEventsThatThrowEndOneCaptureOnly) {
    prepare();
    recorder->captureEvent.connect([this](Recorder*) {
        if (run->clock->getFrame() == 2)
            throw std::runtime_error("not now");
    });
    start();
    run->tick(1);
    EXPECT_EQ(whatOf([this] { run->tick(1); }), "not now");
    run->tick(2);
    recorder->stop();
    EXPECT_THAT(recorded(), ElementsAre(0, 1, 3, 4));
    const uint64 hash = run->hash();
    const auto fresh = makeRun(99);
    const ref_ptr<Replay> replay(new Replay(path(), fresh->root.get()));
    while (replay->next()) {
    }
    EXPECT_EQ(fresh->hash(), hash);
}

TEST_F(RecorderFaultTest, DisksThatAreFullAtTheStartAreTold) {
    prepare();
    recorder->setFreeSpace([](const zel::String&) { return uint64{0}; });
    const LogCapture log(zel::Notify::Warning);
    start();
    EXPECT_FALSE(recorder->isRecording());
    EXPECT_NE(recorder->getMessage().find("the disk has 0 bytes left"), std::string::npos)
        << recorder->getMessage();
    run->tick(2);
    EXPECT_EQ(run->clock->getFrame(), 2U);
}

TEST_F(RecorderFaultTest, AJournalOfASeriesThatCanNotBeMadeEndsTheRecordingAndTheRunGoesOn) {
    prepare();
    recorder->setMaxJournalBytes(1);
    start();
    std::filesystem::create_directory(directory.path("run-1.journal"));
    EXPECT_EQ(whatOf([this] { run->tick(3); }), "no exception");
    EXPECT_EQ(run->clock->getFrame(), 3U);
    EXPECT_FALSE(recorder->isRecording());
    const std::string begin =
        "The recording to '" + directory.path("run-1.journal") + "' has ended behind frame 0: ";
    EXPECT_EQ(recorder->getMessage().substr(0, begin.size()), begin);
    EXPECT_THAT(recorded(), ElementsAre(0));
}

TEST_F(RecorderFaultTest, StartsInCallbacksOfTheTickRecordItsFrameOnce) {
    run = makeRun();
    run->clock->postTick.connect([this](zel::Clock*) { // ahead of the recorder's own
        if (run->clock->getFrame() == 2)
            start();
    });
    recorder = new Recorder;
    recorder->setClock(run->clock.get());
    recorder->setRoot(run->root.get());
    recorder->setJournal(path());
    run->tick(4);
    EXPECT_TRUE(recorder->isRecording()) << recorder->getMessage();
    recorder->stop();
    EXPECT_EQ(recorder->getMessage(), "");
    EXPECT_THAT(recorded(), ElementsAre(2, 3, 4));
}

TEST_F(RecorderFaultTest, CaptureEventsMayBeginTheRecordingAnew) {
    prepare();
    bool isAnew = false;
    recorder->captureEvent.connect([&](Recorder*) {
        if (run->clock->getFrame() != 2 || std::exchange(isAnew, true))
            return;
        recorder->setReplace(true);
        start();
    });
    start();
    run->tick(4);
    recorder->stop();
    EXPECT_EQ(recorder->getMessage(), "");
    EXPECT_THAT(recorded(), ElementsAre(2, 3, 4));
}

TEST_F(RecorderFaultTest, EventsThatComeAndGoAreToldBehindAKeyFrameWithoutAny) {
    run = makeRun();
    const ref_ptr<zel::Clock> clock(new zel::Clock("lonely", 10));
    const ref_ptr<zel::Component> root(new zel::Component("lonelyRun"));
    root->addObject(clock.get());
    recorder = new Recorder;
    recorder->setClock(clock.get());
    recorder->setRoot(root.get());
    recorder->setJournal(path());
    recorder->setKeyFrameInterval(3);
    start();
    const auto addEvent = [](zel::Clock* to) {
        const ref_ptr<zel::Clock::Event> event(new zel::Clock::Event(zel::Name("blink")));
        event->setStartDelay(0.15);
        to->addEvent(event.get());
    };
    for (int i = 0; i < 12; ++i) {
        if (i % 3 == 0 || i % 4 == 0)
            addEvent(clock.get());
        clock->tick();
    }
    recorder->stop();

    const ref_ptr<zel::Component> other(new zel::Component("lonelyRun"));
    const ref_ptr<zel::Clock> late(new zel::Clock("lonely", 10));
    other->addObject(late.get());
    const ref_ptr<Replay> replay(new Replay(path(), other.get()));
    for (uint64 i = 0; i <= 12; ++i) {
        EXPECT_EQ(whatOf([&] { EXPECT_TRUE(replay->applyFrame(i)); }), "no exception") << i;
        EXPECT_EQ(late->getFrame(), i);
    }
}

TEST_F(RecorderFaultTest, BranchesWithTheRecorderMayLeaveTheRoot) {
    run = makeRun();
    ref_ptr<zel::Component> outer(new zel::Component("outer"));
    const ref_ptr<zel::Component> branch(new zel::Component("branch"));
    outer->addObject(branch.get());
    recorder = new Recorder;
    branch->addObject(recorder.get());
    recorder->setClock(run->clock.get());
    recorder->setRoot(outer.get());
    recorder->setJournal(path());
    start();
    run->tick(1);
    outer->removeObject(branch.get());
    outer = nullptr;
    run->tick(2);
    EXPECT_FALSE(recorder->isRecording());
    EXPECT_THAT(recorded(), ElementsAre(0, 1));
}

TEST_F(RecorderFaultTest, TwoRecordersOnOneClockDoNotDisturbEachOther) {
    prepare();
    start();
    const ref_ptr<Recorder> second(new Recorder);
    run->root->addObject(second.get());
    second->setClock(run->clock.get());
    second->setJournal(directory.path("second.journal"));
    second->setBudget(1);
    second->start();
    run->tick(20);
    recorder->stop();
    second->stop();
    for (const char* file : {"run.journal", "second.journal"}) {
        const auto fresh = makeRun(99);
        const ref_ptr<Replay> replay(new Replay(directory.path(file), fresh->root.get()));
        ASSERT_TRUE(replay->applyFrame(20));
        EXPECT_EQ(fresh->hash(), run->hash());
    }
}

} // namespace
