#include "MemoryJournal.h"

#include <zelData/Track.h>

#include <csignal>
#include <future>
#include <thread>

using zel::ref_ptr;
using zel::uint64;
using zelData::Frame;
using zelData::Track;
using zelTest::CollectingWriter;
using zelTest::frameOf;
using zelTest::MemoryReader;
using zelTest::MemorySession;

namespace {

using Indices = std::vector<uint64>;

class TrackTest : public zelTest::FrameFixture {
protected:
    void SetUp() override {
        FrameFixture::SetUp();
        session = new MemorySession;
    }
    void TearDown() override {
        track = nullptr;
        reader = nullptr;
        writer = nullptr;
        session = nullptr;
        FrameFixture::TearDown();
    }
    /// Key frames at multiples of five.
    void record(uint64 numFrames) {
        for (uint64 i = 0; i < numFrames; ++i)
            session->append(frameOf(i, static_cast<double>(i), i % 5 == 0).get());
    }
    void makeReplay(bool threaded = true) {
        reader = new MemoryReader(session.get(), threaded);
        track = new Track(reader.get(), nullptr);
    }
    void makeRecording() {
        writer = new CollectingWriter;
        track = new Track(nullptr, writer.get());
    }
    /// The indices of all frames up to the end.
    Indices popAll() const {
        Indices indices;
        while (const auto frame = track->popFrame(true))
            indices.push_back(frame->getIndex());
        return indices;
    }
    static Indices upTo(uint64 n) {
        Indices indices;
        for (uint64 i = 0; i < n; ++i)
            indices.push_back(i);
        return indices;
    }

    ref_ptr<MemorySession> session;
    ref_ptr<MemoryReader> reader;
    ref_ptr<CollectingWriter> writer;
    ref_ptr<Track> track;
};
using TrackDeathTest = TrackTest;

/// Stops its track at each frame.
class StoppingWriter : public CollectingWriter {
public:
    void writeFrame(const Frame* frame) override {
        CollectingWriter::writeFrame(frame);
        getTrack()->stop();
    }
};

TEST_F(TrackTest, BeginsStoppedAndEmpty) {
    track = new Track("mine");
    EXPECT_EQ(track->getName(), "mine");
    EXPECT_EQ(track->getModel()->getName(), "Track");
    EXPECT_FALSE(track->isRunning() || track->isEOF() || track->getEnableLooping() ||
                 track->getExpandFrames());
    EXPECT_TRUE(track->isQueueEmpty());
    EXPECT_EQ(track->getMaxNumBytes(), 104857600U);
    EXPECT_EQ(track->getFrameStride(), 1U);
    EXPECT_EQ(track->getActiveTimeRangeStart(), -1.0);
    EXPECT_EQ(track->getActiveTimeRangeEnd(), -1.0);
    EXPECT_EQ(track->getRealMode(), Track::RealModeOn);
    EXPECT_EQ(track->getException(), nullptr);
    EXPECT_EQ(track->getCacheHitRate(), 0.0);
    EXPECT_FALSE(track->popFrame(false));
}

TEST_F(TrackTest, FramesLeaveInTheOrderInWhichTheyCame) {
    track = new Track;
    for (uint64 i = 0; i < 3; ++i)
        track->pushFrame(frameOf(i, 0).get());
    EXPECT_EQ(track->getNumQueuedFrames(), 3U);
    EXPECT_EQ(track->getNumQueuedBytes(), 24U);
    for (uint64 i = 0; i < 3; ++i) {
        const auto frame = track->popFrame(true);
        EXPECT_EQ(frame->getIndex(), i);
        EXPECT_FALSE(frame->isQueued());
        EXPECT_EQ(frame->getTrack(), track.get());
    }
    EXPECT_EQ(track->getNumQueuedBytes(), 0U);
    EXPECT_EQ(track->getNumFrames(), 3U);
    EXPECT_EQ(track->getTotalBytes(), 24U);
}

TEST_F(TrackTest, WithoutAnInputNothingStaysBehind) {
    track = new Track;
    track->pushFrame(frameOf(0, 0).get());
    EXPECT_EQ(track->getNumCachedFrames(), 1U);
    (void)track->popFrame(true);
    EXPECT_EQ(track->getNumCachedFrames(), 0U);
    track->pushFrame(frameOf(1, 0).get());
    track->clearQueue();
    EXPECT_EQ(track->getNumCachedBytes(), 0U);
    EXPECT_TRUE(track->isQueueEmpty());
}

TEST_F(TrackTest, EventsFireOnceForEachFrame) {
    track = new Track;
    Indices pushed;
    Indices popped;
    track->pushFrameEvent.connect([&](Frame* frame) { pushed.push_back(frame->getIndex()); });
    track->pushFrameEvent.connect([&](Frame*) { pushed.push_back(99); }, true);
    track->popFrameEvent.connect([&](Frame* frame) { popped.push_back(frame->getIndex()); });
    track->pushFrame(frameOf(3, 0).get());
    track->pushFrame(frameOf(4, 0).get());
    (void)track->popFrame(true);
    EXPECT_EQ(pushed, (Indices{3, 99, 4}));
    EXPECT_EQ(popped, (Indices{3}));
    EXPECT_EQ(track->pushFrameEvent.getName(), "PushFrameEvent");
    EXPECT_EQ(track->popFrameEvent.getName(), "PopFrameEvent");
}

TEST_F(TrackTest, StoppingWritesAllThatIsQueued) {
    makeRecording();
    for (uint64 i = 0; i < 100; ++i)
        track->pushFrame(frameOf(i, 0).get());
    EXPECT_TRUE(writer->indices().empty());
    track->start();
    track->stop();
    EXPECT_EQ(writer->indices(), upTo(100));
    EXPECT_EQ(writer->numEnds, 1);
    EXPECT_TRUE(writer->isEOF());
    track->pushFrame(frameOf(100, 0).get());
    EXPECT_TRUE(track->isQueueEmpty());
}

TEST_F(TrackTest, DestructionWritesAllThatIsQueued) {
    makeRecording();
    track->start();
    for (uint64 i = 0; i < 100; ++i)
        track->pushFrame(frameOf(i, 0).get());
    track = nullptr;
    EXPECT_EQ(writer->indices(), upTo(100));
    EXPECT_EQ(writer->numEnds, 1);
}

TEST_F(TrackTest, MayBeStartedAgain) {
    makeRecording();
    for (uint64 round = 0; round < 3; ++round) {
        track->start();
        EXPECT_FALSE(writer->isEOF());
        track->pushFrame(frameOf(round, 0).get());
        track->stop();
        track->stop();
    }
    EXPECT_EQ(writer->indices(), upTo(3));
    EXPECT_EQ(writer->numEnds, 3);
}

TEST_F(TrackTest, FlushWaitsForTheWriter) {
    makeRecording();
    track->start();
    for (uint64 i = 0; i < 50; ++i)
        track->pushFrame(frameOf(i, 0).get());
    track->flush(false);
    EXPECT_EQ(writer->indices(), upTo(50));
    EXPECT_EQ(writer->numFlushes, 1);
    track->flush(true);
    track->stop();
}

TEST_F(TrackTest, FlushDoesNotWaitForAStoppedTrack) {
    makeRecording();
    track->pushFrame(frameOf(0, 0).get());
    track->flush(false);
    EXPECT_EQ(track->getNumQueuedFrames(), 1U);
    track->flush(true);
    EXPECT_TRUE(track->isQueueEmpty());
}

TEST_F(TrackTest, AFailedWriterEndsTheTrack) {
    makeRecording();
    writer->failsAt = 3;
    std::promise<std::string> told;
    track->setExceptionHandler([&](Track* failed, std::exception& error) {
        EXPECT_EQ(failed, track.get());
        told.set_value(error.what());
    });
    track->start();
    for (uint64 i = 0; i < 10; ++i)
        track->pushFrame(frameOf(i, 0).get());
    EXPECT_EQ(told.get_future().get(), "the disk is full");
    track->flush(false); // returns once the track has failed
    EXPECT_NE(track->getException(), nullptr);
    EXPECT_FALSE(track->waitForFreeSlot());
    track->pushFrame(frameOf(10, 0).get());
    EXPECT_FALSE(track->popFrame(true));
    EXPECT_FALSE(track->jumpToFrame(0));
    EXPECT_TRUE(track->isEOF());
    track->stop();
    EXPECT_EQ(writer->indices(), upTo(3));

    writer->failsAt = zel::InvalidIndex;
    track->flush(true);
    track->start();
    EXPECT_EQ(track->getException(), nullptr);
    track->pushFrame(frameOf(3, 0).get());
    track->stop();
    EXPECT_EQ(writer->indices(), upTo(4));
}

TEST_F(TrackTest, AFailedReaderEndsTheTrackBehindWhatItHasRead) {
    record(10);
    reader = new MemoryReader(session.get());
    writer = new CollectingWriter;
    track = new Track(reader.get(), writer.get());
    reader->failsAt = 4;
    std::promise<std::string> told;
    track->setExceptionHandler([&](Track*, std::exception& error) { told.set_value(error.what()); });
    track->start();
    EXPECT_EQ(told.get_future().get(), "the disk is gone");
    track->stop();
    EXPECT_EQ(writer->indices(), upTo(4));
    EXPECT_EQ(writer->numEnds, 1);
}

TEST_F(TrackTest, ReplaysASessionToItsEnd) {
    record(23);
    makeReplay();
    track->start();
    EXPECT_EQ(popAll(), upTo(23));
    EXPECT_TRUE(track->isEOF());
    EXPECT_FALSE(track->popFrame(true));
    track->stop();
}

TEST_F(TrackTest, FramesThatWereReadAreMarked) {
    record(2);
    makeReplay();
    track->start();
    const auto first = track->popFrame(true);
    EXPECT_TRUE(first->isSerialized());
    EXPECT_FALSE(first->isJumpFrame());
    track->stop();
}

TEST_F(TrackTest, CopiesASession) {
    record(40);
    reader = new MemoryReader(session.get());
    writer = new CollectingWriter;
    track = new Track(reader.get(), writer.get());
    track->start();
    track->flush(false);
    EXPECT_EQ(writer->indices(), upTo(40));
    track->stop();
    EXPECT_EQ(writer->numEnds, 1);
}

TEST_F(TrackTest, ThreadlessEndsWorkInTheCaller) {
    record(7);
    reader = new MemoryReader(session.get(), false);
    writer = new CollectingWriter(false);
    track = new Track(reader.get(), writer.get());
    track->start();
    EXPECT_EQ(popAll(), upTo(7));
    EXPECT_FALSE(track->popFrame(true));
    EXPECT_EQ(writer->numEnds, 1); // told once
    EXPECT_TRUE(writer->isEOF());
    EXPECT_TRUE(writer->indices().empty());
}

TEST_F(TrackTest, SmallBudgetsReplayToTheEnd) {
    record(23);
    for (const uint64 budget : {1U, 8U, 9U, 16U}) {
        makeReplay();
        track->setMaxNumBytes(budget);
        track->start();
        EXPECT_EQ(popAll(), upTo(23)) << budget;
        track->stop();
    }
}

TEST_F(TrackTest, TheCacheKeepsToItsBudget) {
    record(23);
    makeReplay();
    track->setMaxNumBytes(40);
    track->start();
    EXPECT_EQ(popAll(), upTo(23));
    EXPECT_LE(track->getNumCachedBytes(), 48U); // one frame more
    track->stop();
}

TEST_F(TrackTest, ExpandedFramesKeepToTheBudgetToo) {
    record(23);
    makeReplay();
    track->setExpandFrames(true);
    track->setMaxNumBytes(1);
    track->start();
    EXPECT_EQ(popAll(), upTo(23));
    track->stop();
}

TEST_F(TrackTest, ReadingBackAndForthComesFromTheCache) {
    record(5);
    makeReplay();
    track->start();
    EXPECT_EQ(popAll(), upTo(5));
    const int reads = reader->numReads;
    EXPECT_TRUE(track->jumpToFrame(0));
    EXPECT_EQ(popAll(), upTo(5));
    EXPECT_EQ(reader->numReads, reads + 1); // the frame of the jump
    EXPECT_GT(track->getCacheHitRate(), 0.0);

    const ref_ptr<Track> other(new Track);
    other->loadCache(track.get());
    EXPECT_EQ(other->getNumCachedFrames(), track->getNumCachedFrames());
    EXPECT_EQ(other->getNumCachedBytes(), track->getNumCachedBytes());
    track->stop();
}

TEST_F(TrackTest, AFrameOfTheSameIndexTakesItsPlaceInTheCache) {
    track = new Track;
    const auto first = frameOf(3, 1);
    track->pushFrame(first.get());
    const auto second = frameOf(3, 2);
    second->addValue(real("more", 1).get(), "more");
    track->pushFrame(second.get());
    EXPECT_EQ(track->getNumCachedFrames(), 1U);
    EXPECT_EQ(track->getNumCachedBytes(), 16U);
    EXPECT_EQ(track->popFrame(true), first);
    EXPECT_EQ(track->popFrame(true), second);
    EXPECT_EQ(track->getNumCachedBytes(), 0U);
}

TEST_F(TrackTest, FramesThatAnotherTrackHasQueuedLeaveTheCacheAllTheSame) {
    record(10);
    makeReplay();
    track->start();
    while (!track->isEOF()) // with all frames in its queue
        std::this_thread::yield();
    const ref_ptr<MemoryReader> otherReader(new MemoryReader(session.get()));
    const ref_ptr<Track> other(new Track(otherReader.get(), nullptr));
    other->loadCache(track.get());
    EXPECT_EQ(other->getNumCachedFrames(), 10U);
    other->setMaxNumBytes(1);
    other->start();
    for (uint64 i = 0; i < 10; ++i)
        ASSERT_EQ(other->popFrame(true)->getIndex(), i);
    EXPECT_FALSE(other->popFrame(true));
    EXPECT_EQ(popAll(), upTo(10));
}

TEST_F(TrackTest, FramesOfAnotherStrideAreNotTakenOver) {
    record(12);
    makeReplay(false);
    track->setFrameStride(2);
    track->start();
    (void)popAll();
    EXPECT_GT(track->getNumCachedFrames(), 0U);
    const ref_ptr<MemoryReader> otherReader(new MemoryReader(session.get(), false));
    const ref_ptr<Track> other(new Track(otherReader.get(), nullptr));
    other->loadCache(track.get());
    EXPECT_EQ(other->getNumCachedFrames(), 0U);
    other->setFrameStride(2);
    other->loadCache(track.get());
    EXPECT_EQ(other->getNumCachedFrames(), track->getNumCachedFrames());
}

TEST_F(TrackTest, AFrameIsQueuedWhileItsPopIsTold) {
    track = new Track;
    track->pushFrame(frameOf(0, 0).get());
    uint64 numQueued = 0;
    bool isQueued = false;
    (void)track->popFrameEvent.connect([&](Frame* frame) {
        numQueued = track->getNumQueuedFrames();
        isQueued = frame->isQueued();
    });
    (void)track->popFrame(false);
    EXPECT_EQ(numQueued, 1U);
    EXPECT_TRUE(isQueued);
    EXPECT_TRUE(track->isQueueEmpty());
}

TEST_F(TrackTest, JumpsDropWhatIsQueued) {
    record(30);
    makeReplay();
    track->start();
    EXPECT_EQ(track->popFrame(true)->getIndex(), 0U);
    EXPECT_TRUE(track->jumpToFrame(17));
    const auto frame = track->popFrame(true);
    EXPECT_EQ(frame->getIndex(), 17U);
    EXPECT_TRUE(frame->isJumpFrame());
    EXPECT_EQ(track->popFrame(true)->getIndex(), 18U);
    EXPECT_TRUE(track->jumpToTime(2.6));
    EXPECT_EQ(track->popFrame(true)->getIndex(), 5U);
    EXPECT_TRUE(track->jumpToTime(-1));
    EXPECT_EQ(track->popFrame(true)->getIndex(), 0U);
    track->stop();
}

TEST_F(TrackTest, AJumpWakesAReaderAtItsEnd) {
    record(10);
    makeReplay();
    track->start();
    EXPECT_EQ(popAll(), upTo(10));
    EXPECT_TRUE(track->jumpToFrame(8));
    EXPECT_EQ(popAll(), (Indices{8, 9}));
    track->stop();
}

TEST_F(TrackTest, AJumpToNowhereIsToldAndEmptiesTheQueue) {
    record(10);
    makeReplay(false);
    EXPECT_EQ(track->popFrame(true)->getIndex(), 0U);
    track->pushFrame(frameOf(77, 0).get());
    EXPECT_FALSE(track->jumpToFrame(55));
    EXPECT_TRUE(track->isQueueEmpty());
    EXPECT_TRUE(track->isJumpPending());
    track->pushFrame(frameOf(78, 0).get()); // dropped: the track waits for the frame of the jump
    EXPECT_TRUE(track->isQueueEmpty());
    EXPECT_FALSE(track->popFrame(true));
}

TEST_F(TrackTest, WithoutAnInputThereIsNowhereToJump) {
    track = new Track;
    EXPECT_FALSE(track->jumpToFrame(0));
    EXPECT_FALSE(track->jumpToTime(0));
    EXPECT_FALSE(track->isJumpPending());
}

TEST_F(TrackTest, RewindingReadsAgainWhatWasDropped) {
    record(10);
    makeReplay();
    track->start();
    EXPECT_EQ(track->popFrame(true)->getIndex(), 0U);
    EXPECT_EQ(track->popFrame(true)->getIndex(), 1U);
    while (track->isQueueEmpty() && !track->isEOF())
        std::this_thread::yield();
    track->flush(true, true);
    EXPECT_EQ(popAll(), (Indices{2, 3, 4, 5, 6, 7, 8, 9}));
    track->stop();
}

TEST_F(TrackTest, TimeRangesEndTheReplay) {
    record(20);
    makeReplay();
    track->setActiveTimeRangeEnd(2.5); // of the frame 5, which does not belong to it
    track->start();
    EXPECT_EQ(popAll(), upTo(5));
    track->stop();
}

TEST_F(TrackTest, LoopsBeginAnew) {
    record(3);
    makeReplay();
    track->setEnableLooping(true);
    track->start();
    Indices indices;
    for (int i = 0; i < 8; ++i)
        indices.push_back(track->popFrame(true)->getIndex());
    EXPECT_EQ(indices, (Indices{0, 1, 2, 0, 1, 2, 0, 1}));
    track->flush(false); // does not wait for a loop
    track->setEnableLooping(false);
    while (track->popFrame(true)) {
    }
    EXPECT_TRUE(track->isEOF());
    track->stop();
}

TEST_F(TrackTest, LoopsOverARangeOfTimes) {
    record(20);
    makeReplay();
    track->setActiveTimeRangeStart(1);
    track->setActiveTimeRangeEnd(2.5);
    track->setEnableLooping(true);
    track->start();
    Indices indices;
    for (int i = 0; i < 9; ++i)
        indices.push_back(track->popFrame(true)->getIndex());
    EXPECT_EQ(indices, (Indices{0, 1, 2, 3, 4, 2, 3, 4, 2}));
    track->stop();
}

TEST_F(TrackTest, ARoundWithoutFramesEndsTheLoop) {
    record(5);
    makeReplay();
    track->setActiveTimeRangeStart(1);
    track->setActiveTimeRangeEnd(0.5);
    track->setEnableLooping(true);
    track->start();
    EXPECT_EQ(popAll(), (Indices{0}));
    track->stop();
}

TEST_F(TrackTest, StridesMergeWhatIsPassedOver) {
    record(13);
    makeReplay(false);
    track->setFrameStride(3);
    EXPECT_EQ(popAll(), (Indices{0, 3, 6, 9, 12}));
    EXPECT_GT(reader->numReads, 5);
}

TEST_F(TrackTest, FrequenciesChooseTheStride) {
    record(13);
    makeReplay();
    EXPECT_EQ(track->setFrameFrequency(1), 1.0); // of 2
    EXPECT_EQ(track->getFrameStride(), 2U);
    EXPECT_EQ(track->setFrameFrequency(100), 2.0);
    EXPECT_EQ(track->getFrameStride(), 1U);
    EXPECT_DOUBLE_EQ(track->setFrameFrequency(0.7), 1.0);
    EXPECT_EQ(track->getFrameStride(), 2U);
    for (const double bad : {0.0, -1.0, std::nan("")})
        EXPECT_EQ(track->setFrameFrequency(bad), -1.0);
    EXPECT_EQ(track->getFrameStride(), 2U);
    session->setTimeStep(-1);
    EXPECT_EQ(track->setFrameFrequency(1), -1.0);
    EXPECT_EQ(track->getFrameStride(), 1U);
}

TEST_F(TrackTest, AStrideTakesEffectBehindTheFrameThatWasPopped) {
    record(30);
    makeReplay();
    track->setMaxNumBytes(1);
    track->start();
    EXPECT_EQ(track->popFrame(true)->getIndex(), 0U);
    while (track->isQueueEmpty())
        std::this_thread::yield();
    track->setFrameStride(10);
    EXPECT_EQ(popAll(), (Indices{10, 20}));
    track->stop();
}

/// Stands still when it has gone on to a frame.
class HaltingReader : public MemoryReader {
public:
    using MemoryReader::MemoryReader;
    void advanceToNextFrame() override {
        MemoryReader::advanceToNextFrame();
        while (getNextFrameIndex() == haltsAt)
            hasHalted = true;
    }
    std::atomic<uint64> haltsAt{1000};
    std::atomic<bool> hasHalted{false};
};

TEST_F(TrackTest, AStrideSkipsNoFrameThatIsOnItsWayToTheQueue) {
    record(30);
    const ref_ptr<HaltingReader> halting(new HaltingReader(session.get()));
    halting->haltsAt = 2;
    track = new Track(halting.get(), nullptr);
    track->start();
    EXPECT_EQ(track->popFrame(true)->getIndex(), 0U);
    while (!halting->hasHalted)
        std::this_thread::yield();
    // Frame 1 is read; it is neither with the reader any more nor in the queue yet.
    std::atomic<bool> isSetting{false};
    auto setting = std::async(std::launch::async, [&] {
        isSetting = true;
        track->setFrameStride(10);
    });
    while (!isSetting)
        std::this_thread::yield();
    for (int i = 0; i < 1000; ++i)
        std::this_thread::yield(); // so that it most likely waits for the reader; if not, the result is the
                                   // same
    halting->haltsAt = 1000;
    setting.get();
    EXPECT_EQ(popAll(), (Indices{10, 20}));
    track->stop();
}

TEST_F(TrackTest, ExpandedFramesShowAll) {
    track = new Track;
    track->setExpandFrames(true);
    const auto key = frameOf(0, 1);
    key->addValue(real("kept", 5).get(), "kept");
    const auto archive = reals("Incremental", {1});
    key->addBuffer(archive.get(), "FrameArchive.Incremental");
    key->setIncrementalFrameArchiveBuffer(archive.get());
    key->setSerialized(true);
    key->setId(Frame::NoId);
    track->pushFrame(key.get());
    track->pushFrame(frameOf(1, 2, false).get());
    const auto first = track->popFrame(true);
    EXPECT_NE(first, key); // which somebody else holds
    EXPECT_EQ(first->getId(), Frame::NoId);
    EXPECT_TRUE(first->isKeyFrame() && first->isSerialized());
    ASSERT_NE(first->getIncrementalFrameArchiveBuffer(), nullptr);
    EXPECT_EQ(first->getIncrementalFrameArchiveBuffer(), first->getBuffer("FrameArchive.Incremental"));
    EXPECT_NE(first->getIncrementalFrameArchiveBuffer(), archive.get());
    EXPECT_EQ(contentOf(first->findObject("kept")), 5.0);
    const auto second = track->popFrame(true);
    EXPECT_EQ(second->getIndex(), 1U);
    EXPECT_EQ(second->getTimeStamp(), 0.5);
    EXPECT_EQ(contentOf(second->findObject("value")), 2.0);
    EXPECT_EQ(contentOf(second->findObject("kept")), 5.0);
    EXPECT_EQ(contentOf(key->findObject("value")), 1.0);
    expectWhole(second.get());
    EXPECT_EQ(track->getNumQueuedBytes(), 0U);
}

TEST_F(TrackTest, AFrameThatIsQueuedIsWaitedFor) {
    track = new Track;
    const auto frame = frameOf(0, 0);
    track->pushFrame(frame.get());
    auto again = std::async(std::launch::async, [&] { track->pushFrame(frame.get()); });
    EXPECT_EQ(track->popFrame(true), frame);
    EXPECT_EQ(track->popFrame(true), frame);
    again.get();
    // A stop ends the wait.
    track->pushFrame(frame.get());
    auto third = std::async(std::launch::async, [&] { track->pushFrame(frame.get()); });
    track->stop();
    third.get();
    EXPECT_EQ(track->getNumQueuedFrames(), 1U);
}

TEST_F(TrackTest, StoppingWakesAllWhoWait) {
    track = new Track;
    track->setMaxNumBytes(1);
    track->pushFrame(frameOf(0, 0).get());
    auto slot = std::async(std::launch::async, [&] { return track->waitForFreeSlot(); });
    const ref_ptr<Track> empty(new Track);
    auto pop = std::async(std::launch::async, [&] { return empty->popFrame(true); });
    track->stop();
    empty->stop();
    EXPECT_FALSE(slot.get());
    EXPECT_FALSE(pop.get());
}

TEST_F(TrackTest, AFreeSlotComesWhenAFrameLeaves) {
    makeRecording();
    track->setMaxNumBytes(1);
    track->start();
    for (uint64 i = 0; i < 20; ++i) {
        EXPECT_TRUE(track->waitForFreeSlot());
        track->pushFrame(frameOf(i, 0).get());
    }
    track->stop();
    EXPECT_EQ(writer->indices(), upTo(20));
}

/// Looks which signals the thread of its track takes.
class SignalReadingWriter : public CollectingWriter {
public:
    void writeFrame(const Frame* frame) override {
        EXPECT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &signals), 0);
        CollectingWriter::writeFrame(frame);
    }
    sigset_t signals{};
};

TEST_F(TrackTest, SignalsAreLeftToTheThreadsOfTheProgram) {
    sigset_t before{};
    sigset_t after{};
    EXPECT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &before), 0);
    const ref_ptr<SignalReadingWriter> observer(new SignalReadingWriter);
    track = new Track(nullptr, observer.get());
    track->start();
    EXPECT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &after), 0);
    track->pushFrame(frameOf(0, 0).get());
    track->stop();
    EXPECT_EQ(observer->indices(), Indices{0});
    for (const int signal : {SIGINT, SIGTERM, SIGALRM, SIGUSR1}) {
        EXPECT_EQ(sigismember(&observer->signals, signal), 1) << signal;
        EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal)) << signal;
    }
    EXPECT_EQ(sigismember(&observer->signals, SIGSEGV), 0);
}

TEST_F(TrackTest, MayBeStoppedByItsWriter) {
    const ref_ptr<StoppingWriter> stopping(new StoppingWriter);
    track = new Track(nullptr, stopping.get());
    for (uint64 i = 0; i < 3; ++i)
        track->pushFrame(frameOf(i, 0).get());
    track->start();
    while (stopping->numEnds == 0)
        std::this_thread::yield();
    EXPECT_EQ(stopping->indices(), upTo(3));
    track->stop();
    EXPECT_EQ(stopping->numEnds, 1);
}

TEST_F(TrackTest, MayBeStartedAgainWhereItsWriterHasStoppedIt) {
    const ref_ptr<StoppingWriter> stopping(new StoppingWriter);
    track = new Track(nullptr, stopping.get());
    for (uint64 i = 0; i < 3; ++i) {
        track->start();
        track->pushFrame(frameOf(i, 0).get());
        while (track->isRunning())
            std::this_thread::yield();
    }
    track->stop();
    EXPECT_EQ(stopping->indices(), upTo(3));
    EXPECT_EQ(stopping->numEnds, 3);
}

TEST_F(TrackTest, AHandlerThatThrowsEndsTheTrackAllTheSame) {
    makeRecording();
    writer->failsAt = 0;
    track->setExceptionHandler([](Track*, std::exception&) { throw std::logic_error("the handler's own"); });
    track->start();
    track->pushFrame(frameOf(0, 0).get());
    track->flush(false);
    try {
        std::rethrow_exception(track->getException());
    } catch (const std::exception& error) {
        EXPECT_STREQ(error.what(), "the disk is full");
    }
    track->stop();
}

TEST_F(TrackDeathTest, MisuseEndsTheProcess) {
    record(3);
    makeReplay();
    const ref_ptr<CollectingWriter> some(new CollectingWriter);
    track->setOutput(some.get());
    EXPECT_DEATH(track->setInput(reader.get()),
                 "`!m_input \\|\\| !input', Currently no support for switching input");
    EXPECT_DEATH(track->setOutput(some.get()), "`!m_output', Currently no support for switching output");
    EXPECT_DEATH(track->pushFrame(nullptr), "zelVerify failed: `frame'");
    const ref_ptr<Track> empty(new Track);
    EXPECT_DEATH(empty->setFrameFrequency(1),
                 "`m_input', Input must be activated before frame frequency can be defined");
    empty->setExpandFrames(true);
    empty->pushFrame(frameOf(0, 0, false).get());
    EXPECT_DEATH((void)empty->popFrame(true), "zelVerify failed: `m_expandedFrame'");
}

TEST_F(TrackDeathTest, ARunningTrackIsNotStarted) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            makeRecording();
            track->start();
            track->start();
        },
        "`!m_running', \\[0x[0-9a-f]+ : OutputThread\\]: Thread is already started");
}

TEST_F(TrackDeathTest, AJournalKeepsItsStride) {
    record(3);
    session->setFrameStride(2);
    class SessionWriter : public zelData::DiskFrameWriter {
    public:
        explicit SessionWriter(MemorySession* target) : m_session(target) {}
        [[nodiscard]] zelData::JournalArchive::Session* getSession() const override { return m_session; }
        void writeFrame(const Frame* /*frame*/) override {}

    private:
        MemorySession* m_session;
    };
    const ref_ptr<SessionWriter> sessionWriter(new SessionWriter(session.get()));
    track = new Track(nullptr, sessionWriter.get());
    EXPECT_DEATH(track->setFrameStride(3),
                 "Existing journal has frame stride 2, not allowed to set new frame stride 3");
    track->setFrameStride(2);
    EXPECT_EQ(track->getFrameStride(), 2U);
    track = nullptr;
}

} // namespace
