#include "FrameModelFixture.h"
#include "MemoryJournal.h"

#include <zelData/Track.h>

#include <support/Stress.h>

#include <algorithm>
#include <random>

// Reading the frames of a session in any order.

using zel::ref_ptr;
using zel::uint64;
using zelData::Frame;
using zelTest::elementsOf;
using zelTest::frameOf;
using zelTest::MemoryReader;
using zelTest::MemorySession;

namespace {

class DiskFrameReaderTest : public zelTest::FrameFixture {
protected:
    void SetUp() override {
        FrameFixture::SetUp();
        session = new MemorySession;
    }
    void TearDown() override {
        reader = nullptr;
        session = nullptr;
        FrameFixture::TearDown();
    }
    /// Key frames at multiples of ten; each increment brings one more name.
    void record(uint64 numFrames, uint64 keyEvery = 10) {
        for (uint64 i = 0; i < numFrames; ++i) {
            const auto frame = frameOf(i, static_cast<double>(i), i % keyEvery == 0);
            const zel::Name name("own" + std::to_string(i));
            frame->addValue(real(name, static_cast<double>(i)).get(), name);
            session->append(frame.get());
        }
        reader = new MemoryReader(session.get());
    }
    ref_ptr<Frame> read() { return ref_ptr<Frame>(reader->readFrame()); }
    static std::vector<std::string> namesOf(const Frame* frame) {
        std::vector<std::string> names;
        for (zel::size_t i = 0; i < frame->getNumObjects(); ++i)
            names.push_back(frame->getObject(i)->getName().str());
        std::sort(names.begin(), names.end());
        return names;
    }

    ref_ptr<MemorySession> session;
    ref_ptr<MemoryReader> reader;
};

TEST_F(DiskFrameReaderTest, NeighboursAreReadAlone) {
    record(5);
    for (uint64 i = 0; i < 5; ++i) {
        reader->numReads = 0;
        const auto frame = read();
        ASSERT_TRUE(frame);
        EXPECT_EQ(frame->getIndex(), i);
        EXPECT_EQ(frame->getNumObjects(), 2U);
        EXPECT_EQ(reader->numReads, 1);
        reader->advanceToNextFrame();
    }
    EXPECT_FALSE(read());
}

TEST_F(DiskFrameReaderTest, AJumpGivesACompleteFrame) {
    record(20);
    EXPECT_TRUE(reader->jumpToFrame(13));
    const auto frame = read();
    EXPECT_EQ(namesOf(frame.get()), (std::vector<std::string>{"own10", "own11", "own12", "own13", "value"}));
    EXPECT_EQ(contentOf(frame->findObject("value")), 13.0);
    EXPECT_EQ(frame->getIndex(), 13U);
    EXPECT_EQ(frame->getTimeStamp(), 6.5);
    EXPECT_TRUE(frame->isKeyFrame());
    expectWhole(frame.get());
    // The one behind it stands alone, though its names came with the sequence.
    reader->advanceToNextFrame();
    EXPECT_EQ(namesOf(read().get()), (std::vector<std::string>{"own14", "value"}));
}

TEST_F(DiskFrameReaderTest, AJumpWithoutAKeyFrameBeginsWithTheFirst) {
    session->append(frameOf(4, 4, false).get());
    const auto frame = frameOf(5, 5, false);
    frame->addValue(real("own", 5).get(), "own");
    session->append(frame.get());
    reader = new MemoryReader(session.get());
    EXPECT_TRUE(reader->jumpToFrame(5));
    const auto merged = read();
    EXPECT_EQ(namesOf(merged.get()), (std::vector<std::string>{"own", "value"}));
    EXPECT_FALSE(merged->isKeyFrame());
}

TEST_F(DiskFrameReaderTest, AFailedSequenceLeavesNothingBehind) {
    record(20);
    reader->failsAt = 11;
    EXPECT_TRUE(reader->jumpToFrame(13));
    EXPECT_THROW((void)read(), std::runtime_error);
    reader->failsAt = zel::InvalidIndex;
    EXPECT_EQ(namesOf(read().get()), (std::vector<std::string>{"own10", "own11", "own12", "own13", "value"}));
}

TEST_F(DiskFrameReaderTest, OlderDataThatNewerFramesReplaceAreNotRead) {
    record(20);
    EXPECT_TRUE(reader->jumpToFrame(12));
    (void)read();
    // In the end the exclusions are gone.
    EXPECT_TRUE(reader->shouldExtract("value"));
}

TEST_F(DiskFrameReaderTest, BindingsChooseWhatIsRead) {
    const ref_ptr<Frame> frame = makeFrame();
    frame->setKeyFrame(true);
    for (const char* path : {"a.x", "a.y", "b.c.z", "b.d", "e", "DynamicsSystem.ObserverFrame"})
        frame->addValue(real(zel::Path(path).back(), 1).get(), path);
    session->append(frame.get());
    reader = new MemoryReader(session.get());
    reader->addDataBinding("a.x", false);
    reader->addDataBinding("b", true);
    const auto read1 = read();
    EXPECT_NE(read1->getResource("a.x"), nullptr);
    EXPECT_EQ(read1->getResource("a.y"), nullptr);
    EXPECT_NE(read1->getResource("b.c.z"), nullptr);
    EXPECT_NE(read1->getResource("b.d"), nullptr);
    EXPECT_EQ(read1->findObject("e"), nullptr);
    EXPECT_NE(read1->getResource("DynamicsSystem.ObserverFrame"), nullptr);
}

TEST_F(DiskFrameReaderTest, FindsTheNearestFrameInTime) {
    for (const uint64 index : {2U, 3U, 4U, 8U, 9U})
        session->append(frameOf(index, 0).get());
    reader = new MemoryReader(session.get());
    EXPECT_EQ(reader->findFrameAtTime(0), 2U);
    EXPECT_EQ(reader->findFrameAtTime(1.2), 2U);
    EXPECT_EQ(reader->findFrameAtTime(1.25), 2U); // of two the earlier
    EXPECT_EQ(reader->findFrameAtTime(1.3), 3U);
    EXPECT_EQ(reader->findFrameAtTime(3.0), 4U);
    EXPECT_EQ(reader->findFrameAtTime(3.1), 8U);
    EXPECT_EQ(reader->findFrameAtTime(1e300), 9U);
    EXPECT_EQ(ref_ptr<MemoryReader>(new MemoryReader(ref_ptr<MemorySession>(new MemorySession).get()))
                  ->findFrameAtTime(1),
              uint64{zel::InvalidIndex});
    EXPECT_DEATH((void)reader->findFrameAtTime(-1), "time >= 0");
}

TEST_F(DiskFrameReaderTest, FramesOfOneTimeHideNoneThatIsNearer) {
    const double stamps[] = {0, 1, 1, 1, 1, 2};
    for (uint64 i = 0; i < 6; ++i) {
        const auto frame = frameOf(i, 0);
        frame->setTimeStamp(stamps[i]);
        frame->setTimeStep(1);
        session->append(frame.get());
    }
    reader = new MemoryReader(session.get());
    EXPECT_EQ(reader->findFrameAtTime(0.5), 0U);
    EXPECT_EQ(reader->findFrameAtTime(1), 1U);
    EXPECT_EQ(reader->findFrameAtTime(1.5), 1U);
    EXPECT_EQ(reader->findFrameAtTime(2), 5U);
}

TEST_F(DiskFrameReaderTest, AMergedFrameHasTheIdOfTheNewest) {
    for (const zel::uint32 id : {5U, 6U, Frame::NoId}) {
        const auto frame = frameOf(session->getNumFrames(), 0, id == 5);
        frame->setId(id);
        session->append(frame.get());
    }
    reader = new MemoryReader(session.get());
    EXPECT_TRUE(reader->jumpToFrame(1));
    EXPECT_EQ(read()->getId(), 6U);
    EXPECT_TRUE(reader->jumpToFrame(2));
    EXPECT_EQ(read()->getId(), Frame::NoId);
}

TEST_F(DiskFrameReaderTest, NamesAreCaughtUpWithWhereFramesCameFromACache) {
    // The names of the first ten come again in the second ten, in another order.
    for (uint64 i = 0; i < 20; ++i) {
        const auto frame = frameOf(i, 0, i % 10 == 0);
        const zel::Name name("own" + std::to_string(i < 10 ? i : 30 - i));
        frame->addValue(real(name, static_cast<double>(i)).get(), name);
        if (i == 8) // what only the names of frames that were not read anew tell
            for (const char* earlier : {"own2", "own4"})
                frame->addValue(real(earlier, 8).get(), earlier);
        session->append(frame.get());
    }
    reader = new MemoryReader(session.get(), false);
    const ref_ptr<zelData::Track> track(new zelData::Track(reader.get(), nullptr));
    track->setFrameStride(2);
    track->start();
    uint64 numBytes = 0;
    for (uint64 i = 0; i < 20; i += 2) {
        const auto frame = track->popFrame(true);
        ASSERT_TRUE(frame);
        ASSERT_EQ(frame->getIndex(), i);
        if (i == 10)
            numBytes = track->getNumCachedBytes();
    }
    // Frames up to 6 stay in the cache, and those behind them are read again.
    EXPECT_TRUE(track->jumpToFrame(0));
    for (uint64 i = 0; i < 8; i += 2)
        ASSERT_EQ(track->popFrame(true)->getIndex(), i);
    track->setMaxNumBytes(numBytes / 4);
    const auto frame = track->popFrame(true);
    ASSERT_TRUE(frame);
    EXPECT_EQ(namesOf(frame.get()), (std::vector<std::string>{"own2", "own4", "own7", "own8", "value"}));
}

TEST_F(DiskFrameReaderTest, PartsOfColumnsFollowTheSizeOfTheirStorage) {
    auto* model = entity("Bodies",
                         "<Attribute.Scalar name='mass' type='Real'/>"
                         "<Attribute.Scalar name='place' type='Real' numElements='2'/>");
    const auto append = [&](uint64 size, std::initializer_list<zel::Object*> columns) {
        const auto frame = frameOf(session->getNumFrames(), 0, session->getNumFrames() == 0);
        const ref_ptr<Frame::EntityStorage> storage(new Frame::EntityStorage("s", model, size, 16));
        frame->addStorage(storage.get(), "s");
        frame->addNode(storage.get(), numbers("_idToIndex", {0, 1, 2, 3}).get());
        for (zel::Object* column : columns)
            frame->addNode(storage.get(), column);
        session->append(frame.get());
    };
    append(4, {reals("mass", {1, 2, 3, 4}).get(), reals("place", {1, 2, 3, 4, 5, 6, 7, 8}).get()});
    append(4, {partial("mass", {0, 3}, {10, 40}, 4).get(), partial("place", {3, 4}, {40, 50}, 8).get()});
    append(2, {}); // the last ones were destroyed, and nothing else has changed
    reader = new MemoryReader(session.get(), false);
    const ref_ptr<zelData::Track> track(new zelData::Track(reader.get(), nullptr));
    track->setFrameStride(2);
    track->start();
    const auto whole = track->popFrame(true);
    const auto merged = track->popFrame(true);
    ASSERT_EQ(merged->getIndex(), 2U);
    expectWhole(merged.get());
    const auto& mass = dynamic_cast<Frame::PartialBuffer&>(*merged->getResource("s.mass"));
    EXPECT_EQ(mass.getFullSize(), 2U);
    EXPECT_EQ(elementsOf<uint64>(mass.getIndexBuffer()), (std::vector<uint64>{0}));
    const auto& place = dynamic_cast<Frame::PartialBuffer&>(*merged->getResource("s.place"));
    EXPECT_EQ(place.getFullSize(), 4U);
    EXPECT_EQ(elementsOf<uint64>(place.getIndexBuffer()), (std::vector<uint64>{3}));
    whole->merge(merged.get(), true);
    EXPECT_EQ(elementsOf<double>(whole->getBuffer("s.mass")), (std::vector<double>{10, 2}));
    EXPECT_EQ(elementsOf<double>(whole->getBuffer("s.place")), (std::vector<double>{1, 2, 3, 40}));
}

TEST_F(DiskFrameReaderTest, AStorageThatChangesItsModelIsNotMerged) {
    for (uint64 i = 0; i < 2; ++i) {
        const auto frame = frameOf(i, 0, i == 0);
        const ref_ptr<Frame::EntityStorage> storage(new Frame::EntityStorage(
            "s", entity(i == 0 ? "Sun" : "Moon", "<Attribute.Scalar name='mass' type='Real'/>"), 1, 1));
        frame->addStorage(storage.get(), "s");
        frame->addNode(storage.get(), reals(i == 0 ? "mass" : "other", {1}).get());
        session->append(frame.get());
    }
    reader = new MemoryReader(session.get());
    EXPECT_TRUE(reader->jumpToFrame(1));
    EXPECT_THROW((void)read(), Frame::MergeException);
}

// Random sessions against a model.

class DiskFrameReaderModelTest : public zelTest::FrameModelFixture {
protected:
    void TearDown() override {
        reader = nullptr;
        session = nullptr;
        FrameModelFixture::TearDown();
    }
    void recordAtRandom(std::mt19937& random) {
        clearModel();
        session = new MemorySession;
        startAt(random() % 5);
        const uint64 numFrames = 1 + random() % 30;
        for (uint64 i = 0; i < numFrames; ++i)
            session->append(makeAtRandom(random, i == 0 || random() % 7 == 0).get());
        reader = new MemoryReader(session.get());
    }
    ref_ptr<Frame> read() { return ref_ptr<Frame>(reader->readFrame()); }

    ref_ptr<MemorySession> session;
    ref_ptr<MemoryReader> reader;
};

TEST_F(DiskFrameReaderModelTest, EachWayToAFrameGivesWhatTheModelHas) {
    std::mt19937 random(zelTest::stressSeed());
    for (int round = 0; round < 60 && !HasFailure(); ++round) {
        recordAtRandom(random);
        // In order, each frame alone.
        for (zel::size_t i = 0; i < indices.size(); ++i) {
            expectState(read().get(), changes[i], "alone");
            reader->advanceToNextFrame();
        }
        // By jumps, and on from there.
        for (int k = 0; k < 20; ++k) {
            const zel::size_t place = random() % indices.size();
            EXPECT_TRUE(reader->jumpToFrame(indices[place]));
            expectState(read().get(), between(0, place), "jump");
            reader->advanceToNextFrame();
            if (place + 1 < indices.size())
                expectState(read().get(), changes[place + 1], "behind a jump");
        }
    }
}

} // namespace
