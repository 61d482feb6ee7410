#include "RunFixture.h"

#include <zelData/Replay.h>

#include <support/LogCapture.h>
#include <support/WhatOf.h>

#include <limits>
#include <random>

using testing::ElementsAre;
using testing::IsEmpty;
using zel::ref_ptr;
using zel::uint64;
using zelData::Replay;
using zelTest::whatOf;

namespace {

class ReplayTest : public zelTest::RunFixture {
protected:
    void TearDown() override {
        replay = nullptr;
        fresh = nullptr;
        RunFixture::TearDown();
    }
    /// Begins to play the journal into a tree of its own.
    void begin() {
        fresh = makeRun(99); // nothing of the seed stays
        fresh->position->set(-1.0);
        replay = new Replay(path(), fresh->root.get());
    }
    /// The hashes of a run, by frame.
    std::vector<uint64> recordWithHashes(int numTicks) {
        prepare();
        start();
        std::vector<uint64> hashes{run->hash()};
        for (int i = 0; i < numTicks; ++i) {
            run->tick(1);
            hashes.push_back(run->hash());
        }
        recorder->stop();
        return hashes;
    }

    std::unique_ptr<zelTest::SmallRun> fresh;
    ref_ptr<Replay> replay;
};

TEST_F(ReplayTest, FramesInOrderShowTheRunAsItWas) {
    const std::vector<uint64> hashes = recordWithHashes(250);
    begin();
    for (uint64 i = 0; i <= 250; ++i) {
        ASSERT_TRUE(replay->next());
        ASSERT_EQ(replay->getFrame(), i);
        ASSERT_EQ(fresh->hash(), hashes[i]) << i;
    }
    EXPECT_FALSE(replay->next());
    EXPECT_EQ(replay->getFrame(), 250U);
    EXPECT_THAT(replay->getOmissions(), IsEmpty());
}

TEST_F(ReplayTest, ARunGoesOnFromAnyFrameInAFreshTree) {
    const std::vector<uint64> hashes = recordWithHashes(1000);
    for (const uint64 from : {uint64{500}, uint64{0}, uint64{1}, uint64{99}, uint64{333}, uint64{999}}) {
        begin();
        ASSERT_TRUE(replay->applyFrame(from));
        ASSERT_EQ(fresh->hash(), hashes[from]) << from;
        for (uint64 i = from + 1; i <= 1000; ++i) {
            fresh->tick(1);
            ASSERT_EQ(fresh->hash(), hashes[i]) << "from " << from << " at " << i;
        }
    }
}

TEST_F(ReplayTest, ARunGoesOnUnderAnotherNameAndElsewhere) {
    recordRun(100);
    begin();
    replay = nullptr;
    fresh->clock->removeSlave(fresh->slave.get());
    fresh->root->removeObject(fresh->clock.get());
    fresh->root->removeObject(fresh->slave.get());
    fresh->root->setName("other");
    const ref_ptr<zel::Component> above(new zel::Component("above"));
    above->addObject(fresh->root.get());
    fresh->root->addObject(fresh->clock.get());
    fresh->root->addObject(fresh->slave.get());
    fresh->clock->addSlave(fresh->slave.get());
    replay = new Replay(path(), fresh->root.get());
    EXPECT_TRUE(replay->applyFrame(100));
    EXPECT_THAT(replay->getOmissions(), IsEmpty());
    run->tick(30);
    fresh->tick(30);
    EXPECT_EQ(fresh->hash(), run->hash());
    above->removeObject(fresh->root.get());
}

TEST_F(ReplayTest, StepsBackwardsShowTheRunAsItWas) {
    const std::vector<uint64> hashes = recordWithHashes(130);
    begin();
    for (uint64 i = 130; i <= 130; --i) {
        ASSERT_TRUE(replay->previous());
        ASSERT_EQ(replay->getFrame(), i);
        ASSERT_EQ(fresh->hash(), hashes[i]) << i;
    }
    EXPECT_FALSE(replay->previous());
    EXPECT_EQ(replay->getFrame(), 0U);
}

TEST_F(ReplayTest, JumpsAndStepsInAnyOrderShowTheSameRun) {
    const std::vector<uint64> hashes = recordWithHashes(300);
    begin();
    std::mt19937 random(3); // NOLINT(cert-msc51-cpp): the same each time
    for (int i = 0; i < 300; ++i) {
        switch (random() % 4) {
        case 0:
            ASSERT_TRUE(replay->applyFrame(random() % 301));
            break;
        case 1:
            ASSERT_TRUE(replay->jumpToTime(0.1 * static_cast<double>(random() % 301)));
            break;
        case 2:
            (void)replay->previous();
            break;
        default:
            (void)replay->next();
        }
        ASSERT_EQ(fresh->hash(), hashes[replay->getFrame()]) << i;
        if (random() % 8 == 0)
            fresh->tick(2); // whoever changes the tree jumps
        else
            continue;
        ASSERT_TRUE(replay->jumpToFrame(random() % 301));
    }
}

TEST_F(ReplayTest, JumpsGoToTheFrameAheadOrNearest) {
    prepare();
    run->tick(2);
    recorder->setStride(2);
    start();
    run->tick(6);
    recorder->stop();
    begin();
    EXPECT_FALSE(replay->applyFrame(3));
    EXPECT_EQ(replay->getFrame(), zel::InvalidIndex);
    EXPECT_FALSE(replay->jumpToFrame(1));
    EXPECT_TRUE(replay->jumpToFrame(5));
    EXPECT_EQ(replay->getFrame(), 4U);
    EXPECT_TRUE(replay->jumpToFrame(1000));
    EXPECT_EQ(replay->getFrame(), 8U);
    EXPECT_TRUE(replay->jumpToTime(0.52));
    EXPECT_EQ(replay->getFrame(), 6U);
    EXPECT_TRUE(replay->jumpToTime(-5));
    EXPECT_EQ(replay->getFrame(), 2U);
    EXPECT_EQ(replay->getTime(), 0.2);
    EXPECT_TRUE(replay->jumpToFrame(8));
    EXPECT_TRUE(replay->jumpToTime(std::numeric_limits<double>::quiet_NaN()));
    EXPECT_EQ(replay->getFrame(), 2U);
}

TEST_F(ReplayTest, UpdatesKeepThePaceOfTheWall) {
    recordRun(10); // in steps of 0.1
    begin();
    EXPECT_TRUE(replay->update(100)); // begins
    EXPECT_EQ(replay->getFrame(), 0U);
    EXPECT_TRUE(replay->update(0.05));
    EXPECT_EQ(replay->getFrame(), 0U);
    EXPECT_TRUE(replay->update(0.06));
    EXPECT_EQ(replay->getFrame(), 1U);
    replay->setRate(2);
    EXPECT_TRUE(replay->update(0.2)); // 0.51: passes over three
    EXPECT_EQ(replay->getFrame(), 5U);
    for (const double halt : {0.0, std::numeric_limits<double>::quiet_NaN()}) {
        replay->setRate(halt);
        EXPECT_TRUE(replay->update(1000));
        EXPECT_EQ(replay->getFrame(), 5U);
    }
    replay->setRate(-1);
    EXPECT_TRUE(replay->update(0.25)); // 0.26
    EXPECT_EQ(replay->getFrame(), 3U);
    EXPECT_FALSE(replay->update(1000));
    EXPECT_EQ(replay->getFrame(), 0U);
    EXPECT_EQ(replay->getTime(), 0.0);
    replay->setRate(1);
    EXPECT_FALSE(replay->update(1000));
    EXPECT_EQ(replay->getFrame(), 10U);
    EXPECT_EQ(fresh->hash(), run->hash());
    EXPECT_EQ(replay->getTime(), run->clock->getTime()); // and no further
}

TEST_F(ReplayTest, InfiniteRatesTakeEachFrame) {
    recordRun(20);
    begin();
    std::vector<uint64> frames;
    replay->applyEvent.connect([&frames](Replay* source) { frames.push_back(source->getFrame()); });
    replay->setRate(std::numeric_limits<double>::infinity());
    replay->play();
    ASSERT_EQ(frames.size(), 21U);
    for (uint64 i = 0; i < frames.size(); ++i)
        EXPECT_EQ(frames[i], i);
    frames.clear();
    replay->setRate(-std::numeric_limits<double>::infinity());
    replay->play();
    ASSERT_EQ(frames.size(), 20U);
    EXPECT_EQ(frames.back(), 0U);
}

TEST_F(ReplayTest, PlayingAsksWhetherToGoOn) {
    recordRun(5);
    begin();
    replay->setRate(std::numeric_limits<double>::infinity());
    int left = 3;
    replay->play([&left] { return left-- > 0; });
    EXPECT_EQ(replay->getFrame(), 2U);
    replay->setRate(1e9); // each tick of the wall is beyond the end
    replay->play();
    EXPECT_EQ(replay->getFrame(), 5U);
}

TEST_F(ReplayTest, AJournalIsPlayedWhileItIsWritten) {
    prepare();
    recorder->setBudget(1);
    start();
    run->tick(1);
    begin();
    replay->setFollow(true);
    replay->setRate(std::numeric_limits<double>::infinity());
    replay->play([this] { // until both are at the end
        if (recorder->isRecording() && run->clock->getFrame() < 60)
            run->tick(1);
        else
            recorder->stop();
        return true;
    });
    EXPECT_TRUE(replay->isClosed());
    EXPECT_EQ(replay->getFrame(), 60U);
    EXPECT_EQ(fresh->hash(), run->hash());
}

TEST_F(ReplayTest, AnEndOfAJournalThatWasNeverClosedIsAnEnd) {
    recordRun(3);
    replaceInHeader("<endFrame>3</endFrame>", "<endFrame>InvalidIndex</endFrame>");
    begin();
    EXPECT_FALSE(replay->isClosed());
    replay->setRate(std::numeric_limits<double>::infinity());
    replay->play(); // does not wait
    EXPECT_EQ(replay->getFrame(), 3U);
}

TEST_F(ReplayTest, BindingsSayWhatIsApplied) {
    recordRun(5);
    begin();
    replay->addDataBinding(zel::Path("position"), false);
    replay->setRestoreClocks(false);
    const double mass = fresh->masses()[0];
    EXPECT_TRUE(replay->applyFrame(5));
    EXPECT_EQ(fresh->position->get(), run->position->get());
    EXPECT_EQ(fresh->masses()[0], mass);
    EXPECT_EQ(fresh->clock->getFrame(), 0U);
    EXPECT_EQ(fresh->slave->getTime(), 0.0);
}

TEST_F(ReplayTest, ClocksComeBackWhateverIsBound) {
    recordRun(5);
    begin();
    replay->addDataBinding(zel::Path("position"), false);
    EXPECT_TRUE(replay->applyFrame(5));
    EXPECT_EQ(fresh->clock->getFrame(), 5U);
    EXPECT_EQ(fresh->clock->getTime(), run->clock->getTime());
    EXPECT_EQ(fresh->slave->getFrame(), run->slave->getFrame());
}

TEST_F(ReplayTest, ClocksAndEventsThatLackAreToldOnce) {
    recordRun(5);
    begin();
    fresh->clock->removeEvent(dynamic_cast<zel::Clock::Event*>(fresh->clock->findObject("bear")));
    fresh->clock->removeSlave(fresh->slave.get());
    fresh->root->removeObject(fresh->slave.get());
    while (replay->next()) {
    }
    EXPECT_THAT(replay->getOmissions(),
                testing::UnorderedElementsAre("'slave' is not replayed: there is no such object",
                                              "'slave' is not replayed: there is no such clock",
                                              "'clock.bear' is not replayed: there is no such object",
                                              "'clock.bear' is not replayed: the clock has no such event",
                                              "'clock.slave' is not replayed: the clock has no such event"));
    EXPECT_EQ(fresh->clock->getFrame(), 5U);
}

TEST_F(ReplayTest, ClocksOutsideOfTheRootAreGiven) {
    run = makeRun();
    const ref_ptr<zel::Clock> outside(new zel::Clock("outside", 10));
    {
        const zelTest::StreamCapture quiet(std::cout);
        recorder = zelData::Recorder::record(outside.get(), path(), run->root.get());
    }
    for (int i = 0; i < 4; ++i)
        outside->tick();
    recorder->stop();
    fresh = makeRun();
    const ref_ptr<zel::Clock> other(new zel::Clock("outside", 5));
    replay = new Replay(path(), fresh->root.get(), other.get());
    EXPECT_TRUE(replay->applyFrame(4));
    EXPECT_EQ(other->getFrame(), 4U);
    EXPECT_EQ(other->getTime(), outside->getTime());
    EXPECT_EQ(other->getFrequency(), 10);
    EXPECT_THAT(replay->getOmissions(), IsEmpty());
}

TEST_F(ReplayTest, DisabledClocksAndOtherTimingComeBack) {
    prepare();
    run->slave->setFrequency(3);
    run->clock->setTimeModulation(2);
    run->slave->setEnable(false);
    start();
    run->tick(5);
    recorder->stop();
    begin();
    EXPECT_TRUE(replay->applyFrame(5));
    EXPECT_EQ(fresh->slave->getFrequency(), 3);
    EXPECT_EQ(fresh->clock->getTimeModulation(), 2);
    EXPECT_FALSE(fresh->slave->isEnabled());
    EXPECT_EQ(fresh->hash(), run->hash());
    fresh->tick(40);
    run->tick(40);
    EXPECT_EQ(fresh->hash(), run->hash());
}

TEST_F(ReplayTest, DamagedTablesOfClocksAreRefused) {
    const auto whatOfColumn = [this](const char* column, const ref_ptr<zelData::Buffer>& with) {
        make();
        beginWriting();
        const ref_ptr<zelData::Frame> frame(new zelData::Frame(0, 0, 0.1));
        frame->setKeyFrame(true);
        const zel::Path table("_runState.clocks");
        const ref_ptr<zelData::Buffer> paths(new zelData::Buffer("path", zelData::getFormat("String")));
        paths->resize(1);
        paths->data<zel::String>()[0] = "clock";
        frame->addBuffer(paths.get(), table + paths->getName());
        for (const char* name : {"time", "frame", "frequency", "timeModulation", "numEvents"}) {
            ref_ptr<zelData::Buffer> buffer(std::string(name) == "frame" || std::string(name) == "numEvents"
                                                ? numbers(name, {0})
                                                : reals(name, {1}));
            if (std::string(name) == column)
                buffer = with;
            if (buffer)
                frame->addBuffer(buffer.get(), table + buffer->getName());
        }
        for (const char* name : {"enabled", "joined"})
            frame->addBuffer(makeBuffer<zel::uint8>(name, "UInt:8bit", {1}).get(), table + zel::Name(name));
        writer->writeFrame(frame.get());
        writer->endOfStream();
        writer = nullptr;
        begin();
        return whatOf([this] { (void)replay->next(); });
    };
    const auto told = [](const std::string& column) {
        return "Frame 0: '_runState." + column + "' does not fit the other columns of the table.";
    };
    EXPECT_EQ(whatOfColumn("none", nullptr), "no exception");
    for (const char* name : {"time", "frame", "frequency", "timeModulation", "numEvents"}) {
        std::filesystem::remove(path());
        EXPECT_EQ(whatOfColumn(name, nullptr), told(std::string("clocks.") + name));
        std::filesystem::remove(path());
        EXPECT_EQ(whatOfColumn(name, makeBuffer<zel::uint8>(name, "UInt:8bit", {1})),
                  told(std::string("clocks.") + name));
        std::filesystem::remove(path());
        EXPECT_EQ(whatOfColumn(name, numbers(name, {0, 0})), told(std::string("clocks.") + name));
    }
    std::filesystem::remove(path());
    EXPECT_EQ(whatOfColumn("numEvents", numbers("numEvents", {~uint64{0}})), told("clocks.numEvents"));
    std::filesystem::remove(path());
    EXPECT_EQ(whatOfColumn("numEvents", numbers("numEvents", {2})), told("events.name"));
    std::filesystem::remove(path());
    EXPECT_EQ(whatOfColumn("frame", numbers("frame", {zel::InvalidIndex})), told("clocks.frame"));
    EXPECT_EQ(fresh->clock->getFrame(), 0U);
}

TEST_F(ReplayTest, FilesThatCanNotBePlayedAreTold) {
    fresh = makeRun();
    EXPECT_EQ(whatOf([this] { replay = new Replay(path(), fresh->root.get()); }),
              "There is no journal '" + path() + "'.");
    EXPECT_FALSE(std::filesystem::exists(path()));
    journal = new FileJournal(path());
    EXPECT_EQ(whatOf([this] { replay = new Replay(path(), fresh->root.get()); }),
              "Journal '" + path() + "' contains no session.");
    make();
    beginWriting();
    writer->endOfStream();
    begin();
    EXPECT_FALSE(replay->next());
    EXPECT_FALSE(replay->previous());
    EXPECT_FALSE(replay->jumpToTime(0));
    EXPECT_FALSE(replay->jumpToFrame(0));
    EXPECT_FALSE(replay->update(1));
}

} // namespace
