#include "MemoryJournal.h"

#include <zelData/EntityStorage.h>
#include <zelData/FrameIoFactory.h>
#include <zelData/FrameTranspose.h>
#include <zelData/Track.h>

#include <support/Stress.h>

#include <map>
#include <random>

using testing::ElementsAre;
using zel::ref_ptr;
using zel::uint64;
using zelData::Buffer;
using zelData::Frame;
using zelData::FrameIoFactory;
using zelData::FrameTranspose;
using zelData::JournalArchive;
using zelTest::MemoryReader;
using zelTest::MemorySession;

namespace {

/// Notes whether its track was at work when it was told to jump.
class JumpNoter : public MemoryReader {
public:
    JumpNoter(MemorySession* session, bool threaded, bool& jumpedAtWork)
        : MemoryReader(session, threaded), m_jumpedAtWork(jumpedAtWork) {}
    bool jumpToTime(double time) override {
        m_jumpedAtWork = m_jumpedAtWork || getTrack()->isRunning();
        return MemoryReader::jumpToTime(time);
    }

private:
    bool& m_jumpedAtWork;
};

/// A journal in memory that knows how to read.
class ReadableJournal : public JournalArchive {
public:
    Session* createNewSession(const zel::Name& name) override {
        const ref_ptr<MemorySession> session(new MemorySession(name));
        return registerSession(session.get()) ? session.get() : nullptr;
    }
    bool removeSession(Session* session) override { return unregisterSession(session); }
    bool renameSession(Session* /*session*/, const zel::Name& /*name*/) override { return false; }
    [[nodiscard]] zel::String getCustomFilesPath(bool /*create*/) override { return {}; }
    [[nodiscard]] zel::String getCustomFilesPath(const zel::Name& /*name*/, bool /*create*/) override {
        return {};
    }
    [[nodiscard]] zelData::FrameReader* createFrameReader(Session* session) override {
        auto* reader = new JumpNoter(dynamic_cast<MemorySession*>(session), threaded, jumpedAtWork);
        reader->failsAt = failsAt;
        return reader;
    }
    [[nodiscard]] zelData::FrameWriter* createFrameWriter(Session* /*session*/) override {
        return new zelTest::CollectingWriter;
    }
    [[nodiscard]] Session* makeCopy(Session* /*session*/) override { return nullptr; }

    bool threaded = true;
    uint64 failsAt = zel::InvalidIndex;
    bool jumpedAtWork = false;
};

class FrameTransposeTest : public zelTest::FrameFixture {
protected:
    void SetUp() override {
        FrameFixture::SetUp();
        session = dynamic_cast<MemorySession*>(journal->createNewSession("run"));
    }
    void TearDown() override {
        journal = nullptr;
        FrameFixture::TearDown();
    }
    static ref_ptr<Frame> frameAt(uint64 index, bool isKeyFrame) {
        ref_ptr<Frame> frame(new Frame(index, 0.5 * static_cast<double>(index), 0.5));
        frame->setKeyFrame(isKeyFrame);
        return frame;
    }
    ref_ptr<Frame::EntityStorage> storageOf(uint64 size) {
        if (model == nullptr)
            model = entity("Planet",
                           "<Attribute.Scalar name='mass' type='Real'/>"
                           "<Attribute.Scalar name='flags' type='UInt:32bit' numElements='2'/>");
        return ref_ptr<Frame::EntityStorage>(new Frame::EntityStorage("planets", model, size, 4));
    }
    /// A storage with the masses and, unless there are none, the table of ids.
    ref_ptr<Frame::EntityStorage> planets(std::initializer_list<double> masses,
                                          std::initializer_list<uint64> ids) {
        ref_ptr<Frame::EntityStorage> storage = storageOf(masses.size());
        storage->addObject(reals("mass", masses).get());
        if (ids.size() != 0)
            storage->addObject(numbers(zelData::EntityStorage::IdToIndexName, ids).get());
        return storage;
    }
    void append(uint64 index, bool isKeyFrame, const ref_ptr<Frame::EntityStorage>& storage) const {
        const ref_ptr<Frame> frame = frameAt(index, isKeyFrame);
        if (storage)
            frame->addStorage(storage.get(), "sun.planets");
        session->append(frame.get());
    }

    template <typename Track>
    static std::vector<double> realsOf(Track* track) {
        return track->getBuffer() == nullptr ? std::vector<double>()
                                             : zelTest::elementsOf<double>(track->getBuffer());
    }

    zelData::EntityModel* model = nullptr;
    ref_ptr<ReadableJournal> journal{new ReadableJournal};
    MemorySession* session = nullptr;
};
using FrameTransposeDeathTest = FrameTransposeTest;

TEST_F(FrameTransposeTest, FactoriesForwardToTheJournalOfTheSession) {
    session->append(zelTest::frameOf(0, 1).get());
    const ref_ptr<zelData::FrameReader> reader(FrameIoFactory::createFrameReader(session));
    EXPECT_NE(dynamic_cast<MemoryReader*>(reader.get()), nullptr);
    const ref_ptr<zelData::FrameWriter> writer(FrameIoFactory::createFrameWriter(session));
    EXPECT_NE(dynamic_cast<zelTest::CollectingWriter*>(writer.get()), nullptr);
}

TEST_F(FrameTransposeDeathTest, SessionsNeedAJournal) {
    const ref_ptr<MemorySession> alone(new MemorySession("alone"));
    EXPECT_DEATH((void)FrameIoFactory::createFrameReader(alone.get()),
                 "the session 'alone' belongs to no journal");
    EXPECT_DEATH(ref_ptr<FrameTranspose>(new FrameTranspose(alone.get())),
                 "the session 'alone' belongs to no journal");
    EXPECT_DEATH(ref_ptr<FrameTranspose>(new FrameTranspose(true))->extractFrames(),
                 "a transpose without a session extracts nothing");
}

TEST_F(FrameTransposeTest, ValuesBecomeASeriesOverTimeAndIndex) {
    for (uint64 i = 0; i < 4; ++i)
        session->append(zelTest::frameOf(i, 10.0 * static_cast<double>(i)).get());
    for (const bool threaded : {true, false}) {
        journal->threaded = threaded;
        const ref_ptr<FrameTranspose> transpose(new FrameTranspose(session));
        EXPECT_EQ(transpose->getTimeBuffer(), nullptr);
        auto* track = transpose->registerTrack("value");
        EXPECT_EQ(track->getBuffer(), nullptr);
        EXPECT_EQ(track->getFirstRow(), zel::InvalidIndex);
        transpose->extractFrames();
        EXPECT_THAT(realsOf(track), ElementsAre(0.0, 10.0, 20.0, 30.0));
        EXPECT_EQ(track->getFirstRow(), 0U);
        EXPECT_EQ(transpose->getTimeBuffer()->getName(), "time");
        EXPECT_EQ(transpose->getIndexBuffer()->getName(), "index");
        EXPECT_THAT(zelTest::elementsOf<double>(transpose->getTimeBuffer()), ElementsAre(0.0, 0.5, 1.0, 1.5));
        EXPECT_THAT(zelTest::elementsOf<uint64>(transpose->getIndexBuffer()), ElementsAre(0U, 1U, 2U, 3U));
        EXPECT_EQ(transpose->getTrack(), nullptr);
        // Once more, from the beginning.
        transpose->extractFrames();
        EXPECT_THAT(realsOf(track), ElementsAre(0.0, 10.0, 20.0, 30.0));
    }
}

TEST_F(FrameTransposeTest, AValueThatAFrameLacksIsRepeatedAndSkippedAheadOfTheFirst) {
    const ref_ptr<FrameTranspose> transpose(new FrameTranspose(true));
    auto* track = transpose->registerTrack("a.b");
    transpose->writeFrame(frameAt(0, true).get());
    const ref_ptr<Frame> second = frameAt(1, false);
    second->addValue(real("b", 7).get(), "a.b");
    transpose->writeFrame(second.get());
    transpose->writeFrame(frameAt(2, false).get());
    EXPECT_THAT(realsOf(track), ElementsAre(7.0, 7.0));
    EXPECT_EQ(track->getFirstRow(), 1U);
    EXPECT_EQ(transpose->getTimeBuffer()->size(), 3U);
}

TEST_F(FrameTransposeTest, TextsComeAsBuffersOfOneElement) {
    const ref_ptr<FrameTranspose> transpose(new FrameTranspose(true));
    auto* track = transpose->registerTrack("title");
    for (uint64 i = 0; i < 2; ++i) {
        const ref_ptr<Frame> frame = frameAt(i, i == 0);
        const ref_ptr<Buffer> text(new Buffer("title", zelData::getFormat("String")));
        text->resize(1);
        text->data<zel::String>()[0] = i == 0 ? "a text that is not short at all" : "b";
        frame->addBuffer(text.get(), "title");
        transpose->writeFrame(frame.get());
    }
    transpose->writeFrame(frameAt(2, false).get());
    ASSERT_EQ(track->getBuffer()->size(), 3U);
    EXPECT_EQ(track->getBuffer()->data<zel::String>()[0], "a text that is not short at all");
    EXPECT_EQ(track->getBuffer()->data<zel::String>()[2], "b");
}

TEST_F(FrameTransposeTest, AttributesFollowTheInstanceWhereverItMoves) {
    append(0, true, planets({1, 2, 3}, {0, 1, 2, 3}));
    append(1, false, planets({3, 2, 1}, {2, 1, 0, 3}));
    const ref_ptr<FrameTranspose> transpose(new FrameTranspose(session));
    auto* first = transpose->registerTrack("sun.planets", "mass", 0);
    auto* last = transpose->registerTrack("sun.planets", "mass", 2);
    transpose->extractFrames();
    EXPECT_THAT(realsOf(first), ElementsAre(1.0, 1.0));
    EXPECT_THAT(realsOf(last), ElementsAre(3.0, 3.0));
    EXPECT_EQ(first->getCurrentFrameAttributeBuffer(), last->getCurrentFrameAttributeBuffer());
}

TEST_F(FrameTransposeTest, PartialUpdatesChangeOnlyTheirElementsOfTheStoredCopy) {
    append(0, true, planets({1, 2, 3}, {0, 1, 2, 3}));
    const ref_ptr<Frame::EntityStorage> storage = storageOf(3);
    storage->addObject(partial("mass", {1}, {20}, 3).get());
    append(1, false, storage);
    const ref_ptr<FrameTranspose> transpose(new FrameTranspose(session));
    FrameTranspose::AttributeTrack* tracks[3];
    for (zel::uint32 id = 0; id < 3; ++id)
        tracks[id] = transpose->registerTrack("sun.planets", "mass", id);
    transpose->extractFrames();
    EXPECT_THAT(realsOf(tracks[0]), ElementsAre(1.0, 1.0));
    EXPECT_THAT(realsOf(tracks[1]), ElementsAre(2.0, 20.0));
    EXPECT_THAT(realsOf(tracks[2]), ElementsAre(3.0, 3.0));
}

TEST_F(FrameTransposeTest, APartialUpdateLeavesTheFramesThatWereWrittenAlone) {
    const ref_ptr<FrameTranspose> transpose(new FrameTranspose(true));
    auto* track = transpose->registerTrack("sun.planets", "mass", 1);
    const ref_ptr<Frame> start = frameAt(0, true);
    start->addStorage(planets({1, 2}, {0, 1, 2, 3}).get(), "sun.planets");
    transpose->writeFrame(start.get());
    const ref_ptr<Frame> next = frameAt(1, false);
    const ref_ptr<Frame::EntityStorage> storage = storageOf(2);
    storage->addObject(partial("mass", {1}, {20}, 2).get());
    next->addStorage(storage.get(), "sun.planets");
    transpose->writeFrame(next.get());
    EXPECT_THAT(realsOf(track), ElementsAre(2.0, 20.0));
    EXPECT_THAT(zelTest::elementsOf<double>(start->getBuffer("sun.planets.mass")), ElementsAre(1.0, 2.0));
}

TEST_F(FrameTransposeTest, AStorageThatAnIncrementLacksIsUnchanged) {
    append(0, true, planets({1, 2}, {0, 1, 2, 3}));
    append(1, false, {});
    const ref_ptr<FrameTranspose> transpose(new FrameTranspose(session));
    auto* track = transpose->registerTrack("sun.planets", "mass", 1);
    transpose->extractFrames();
    EXPECT_THAT(realsOf(track), ElementsAre(2.0, 2.0));
}

TEST_F(FrameTransposeTest, SeveralElementsOfAnInstanceStandInARow) {
    const ref_ptr<FrameTranspose> transpose(new FrameTranspose(true));
    auto* track = transpose->registerTrack("sun.planets", "flags", 1);
    for (zel::uint32 i = 0; i < 2; ++i) {
        const ref_ptr<Frame> frame = frameAt(i, true);
        const ref_ptr<Frame::EntityStorage> storage = planets({1, 2}, {0, 1, 2, 3});
        storage->addObject(
            makeBuffer<zel::uint32>("flags", "UInt:32bit", {10 + i, 20 + i, 30 + i, 40 + i}).get());
        frame->addStorage(storage.get(), "sun.planets");
        transpose->writeFrame(frame.get());
    }
    EXPECT_EQ(track->getBuffer()->getElementArraySize(), 2U);
    EXPECT_THAT(zelTest::elementsOf<zel::uint32>(track->getBuffer()), ElementsAre(30U, 40U, 31U, 41U));
}

TEST_F(FrameTransposeTest, ATableOfIdsThatLacksIsAnErrorWithPathAndFrame) {
    append(0, true, planets({1, 2}, {}));
    append(3, true, {});
    const ref_ptr<FrameTranspose> transpose(new FrameTranspose(session));
    (void)transpose->registerTrack("sun.planets", "mass", 1);
    EXPECT_EQ(zelTest::whatOf([&] { transpose->extractFrames(); }),
              "FrameTranspose: Unable to locate idToIndex buffer for storage sun.planets in frame 0");
    EXPECT_EQ(zelTest::whatOf([&] {
                  transpose->extractFrames({1.5, 2});
              }),
              "FrameTranspose: Unable to locate storage sun.planets in frame 3");
}

TEST_F(FrameTransposeTest, ARowThatFailsLeavesNoTrace) {
    const ref_ptr<FrameTranspose> transpose(new FrameTranspose(true));
    auto* value = transpose->registerTrack("value");
    auto* text = transpose->registerTrack("other");
    const ref_ptr<Frame> frame = zelTest::frameOf(0, 1);
    frame->addValue(real("other", 2).get(), "other");
    transpose->writeFrame(frame.get());
    const ref_ptr<Frame> bad = zelTest::frameOf(1, 2);
    const ref_ptr<zelData::Value> other(new zelData::Value("other", zelData::getFormat("UInt")));
    bad->addValue(other.get(), "other");
    EXPECT_EQ(zelTest::whatOf([&] { transpose->writeFrame(bad.get()); }),
              "FrameTranspose: The format of 'other' changes from Real:64bit to UInt:64bit");
    EXPECT_THAT(realsOf(value), ElementsAre(1.0));
    EXPECT_THAT(realsOf(text), ElementsAre(2.0));
    EXPECT_EQ(transpose->getTimeBuffer()->size(), 1U);
}

TEST_F(FrameTransposeTest, ARowBehindOneThatFailedHasItsOwnData) {
    const ref_ptr<FrameTranspose> transpose(new FrameTranspose(true));
    auto* first = transpose->registerTrack("a.planets", "mass", 0);
    auto* second = transpose->registerTrack("b.planets", "mass", 0);
    const auto write = [&](uint64 index, double mass, bool hasBoth) {
        const ref_ptr<Frame> frame = frameAt(index, true);
        frame->addStorage(planets({mass}, {0}).get(), "a.planets");
        if (hasBoth)
            frame->addStorage(planets({mass}, {0}).get(), "b.planets");
        transpose->writeFrame(frame.get());
    };
    write(0, 1, true);
    EXPECT_EQ(zelTest::whatOf([&] { write(1, 2, false); }),
              "FrameTranspose: Unable to locate storage b.planets in frame 1");
    write(2, 3, true);
    EXPECT_THAT(realsOf(first), ElementsAre(1.0, 3.0));
    EXPECT_THAT(realsOf(second), ElementsAre(1.0, 3.0));
    EXPECT_THAT(zelTest::elementsOf<uint64>(transpose->getIndexBuffer()), ElementsAre(0U, 2U));
}

TEST_F(FrameTransposeTest, PartsThatDoNotFitToTheirColumnAreRefused) {
    const ref_ptr<FrameTranspose> transpose(new FrameTranspose(true));
    auto* track = transpose->registerTrack("sun.planets", "mass", 0);
    const auto write = [&](uint64 index, const ref_ptr<zel::Object>& column) {
        const ref_ptr<Frame> frame = frameAt(index, false);
        const ref_ptr<Frame::EntityStorage> storage = storageOf(2);
        if (column)
            storage->addObject(column.get());
        frame->addStorage(storage.get(), "sun.planets");
        transpose->writeFrame(frame.get());
    };
    const ref_ptr<Frame> start = frameAt(0, true);
    start->addStorage(planets({1, 2}, {0, 1}).get(), "sun.planets");
    transpose->writeFrame(start.get());

    const std::string fault =
        "FrameTranspose: The part of 'mass' does not fit to the column of storage sun.planets in frame ";
    const auto part = [](const ref_ptr<Buffer>& data) {
        return ref_ptr<zel::Object>(
            new Frame::PartialBuffer("mass", numbers("places", {0}).get(), data.get(), 2));
    };
    EXPECT_EQ(zelTest::whatOf([&] { write(1, part(makeBuffer<zel::uint8>("data", "UInt:8bit", {3}))); }),
              fault + "1");
    const ref_ptr<Buffer> text(new Buffer("data", zelData::getFormat("String")));
    text->resize(1);
    EXPECT_EQ(zelTest::whatOf([&] { write(2, part(text)); }), fault + "2");
    const ref_ptr<Frame::PartialBuffer> empty(new Frame::PartialBuffer("mass", 1, 2));
    EXPECT_EQ(zelTest::whatOf([&] { write(3, empty); }), fault + "3");
    empty->setDataBuffer(reals("data", {3, 4, 5}).get());
    EXPECT_EQ(zelTest::whatOf([&] { write(4, empty); }), fault + "4");
    write(5, {});
    EXPECT_THAT(realsOf(track), ElementsAre(1.0, 1.0));
}

/// What has grown ahead of the fault has moved.
TEST_F(FrameTransposeTest, AColumnStaysWholeWhereAPartFailsMidway) {
    const ref_ptr<FrameTranspose> transpose(new FrameTranspose(true));
    auto* track = transpose->registerTrack("sun.planets", "mass", 0);
    ref_ptr<Frame> frame = frameAt(0, true);
    frame->addStorage(planets({1, 2}, {0, 1}).get(), "sun.planets");
    transpose->writeFrame(frame.get());
    frame = frameAt(1, false);
    const ref_ptr<Frame::EntityStorage> storage = storageOf(2);
    storage->addObject(partial("mass", {1, uint64{1} << 60U}, {20, 30}, 100000).get());
    frame->addStorage(storage.get(), "sun.planets");
    EXPECT_THROW(transpose->writeFrame(frame.get()), std::runtime_error);
    transpose->writeFrame(frameAt(2, false).get());
    EXPECT_THAT(realsOf(track), ElementsAre(1.0, 1.0));
    EXPECT_EQ(track->getCurrentFrameAttributeBuffer()->size(), 100000U);
}

TEST_F(FrameTransposeTest, StoredCopiesHaveNoLinkToTheFrame) {
    const ref_ptr<FrameTranspose> transpose(new FrameTranspose(true));
    auto* track = transpose->registerTrack("sun.planets", "mass", 0);
    const ref_ptr<Frame> start = frameAt(0, true);
    start->addStorage(planets({1, 2}, {0, 1}).get(), "sun.planets");
    transpose->writeFrame(start.get());
    EXPECT_EQ(track->getCurrentFrameAttributeBuffer(), start->getBuffer("sun.planets.mass"));
    EXPECT_EQ(track->getIdToIndexBuffer(), start->getBuffer("sun.planets._idToIndex"));
    const ref_ptr<Frame> next = frameAt(1, false);
    const ref_ptr<Frame::EntityStorage> storage = storageOf(2);
    storage->addObject(partial("mass", {1}, {20}, 2).get());
    next->addStorage(storage.get(), "sun.planets");
    transpose->writeFrame(next.get());
    Buffer* copy = track->getCurrentFrameAttributeBuffer();
    EXPECT_NE(copy, start->getBuffer("sun.planets.mass"));
    EXPECT_EQ(copy->getOriginalBuffer(), copy);
}

TEST_F(FrameTransposeTest, TablesOfIdsAreOfNumbersAndOfEitherSize) {
    const ref_ptr<FrameTranspose> transpose(new FrameTranspose(true));
    auto* track = transpose->registerTrack("sun.planets", "mass", 0);
    const auto write = [&](uint64 index, const ref_ptr<Buffer>& table) {
        const ref_ptr<Frame> frame = frameAt(index, true);
        const ref_ptr<Frame::EntityStorage> storage = planets({1, 2}, {});
        storage->addObject(table.get());
        frame->addStorage(storage.get(), "sun.planets");
        transpose->writeFrame(frame.get());
    };
    const zel::Name& name = zelData::EntityStorage::IdToIndexName;
    write(0, makeBuffer<zel::uint32>(name, "UInt:32bit", {1, 0}));
    EXPECT_EQ(zelTest::whatOf([&] {
                  write(1, reals(name, {0, 1}));
              }),
              "FrameTranspose: No numbers in idToIndex buffer for storage sun.planets in frame 1");
    write(2, numbers(name, {0, 1}));
    EXPECT_THAT(realsOf(track), ElementsAre(2.0, 1.0));
}

TEST_F(FrameTransposeTest, ElementsThatCanNotStandAloneAreRefused) {
    const ref_ptr<FrameTranspose> transpose(new FrameTranspose(true));
    auto* track = transpose->registerTrack("list");
    const ref_ptr<Frame> frame = frameAt(0, true);
    const ref_ptr<Buffer> list(new Buffer("list", zelData::getFormat("Array<Real>")));
    list->resize(1);
    frame->addBuffer(list.get(), "list");
    EXPECT_EQ(zelTest::whatOf([&] { transpose->writeFrame(frame.get()); }),
              "FrameTranspose: Elements of format " + list->getFormat()->fullName() +
                  " can not stand alone: 'list'");
    EXPECT_EQ(track->getBuffer(), nullptr);
    EXPECT_EQ(transpose->getTimeBuffer(), nullptr);
}

TEST_F(FrameTransposeTest, ATrackThatFindsNothingIsNamed) {
    session->append(zelTest::frameOf(0, 1).get());
    const ref_ptr<FrameTranspose> transpose(new FrameTranspose(session));
    auto* track = transpose->registerTrack("value");
    (void)transpose->registerTrack("no.where");
    EXPECT_EQ(zelTest::whatOf([&] { transpose->extractFrames(); }),
              "FrameTranspose: The session 'run' holds no data for 'no.where'");
    EXPECT_THAT(realsOf(track), ElementsAre(1.0));
}

TEST_F(FrameTransposeTest, AnEmptySessionEnds) {
    const ref_ptr<FrameTranspose> transpose(new FrameTranspose(session));
    transpose->extractFrames();
    EXPECT_EQ(transpose->getTimeBuffer(), nullptr);
}

TEST_F(FrameTransposeTest, AReaderThatFailsIsHeard) {
    for (uint64 i = 0; i < 4; ++i)
        session->append(zelTest::frameOf(i, 1).get());
    journal->failsAt = 2;
    const ref_ptr<FrameTranspose> transpose(new FrameTranspose(session));
    (void)transpose->registerTrack("value");
    EXPECT_EQ(zelTest::whatOf([&] { transpose->extractFrames(); }), "the disk is gone");
}

TEST_F(FrameTransposeTest, RangesAndStridesChooseTheFrames) {
    for (uint64 i = 0; i < 10; ++i)
        session->append(zelTest::frameOf(i, static_cast<double>(i), i == 0).get());
    const ref_ptr<FrameTranspose> transpose(new FrameTranspose(session));
    auto* track = transpose->registerTrack("value");
    transpose->extractFrames({1.1, 2.5});
    EXPECT_THAT(realsOf(track), ElementsAre(2.0, 3.0, 4.0, 5.0));
    transpose->setFrameStride(4);
    transpose->extractFrames();
    EXPECT_THAT(realsOf(track), ElementsAre(0.0, 4.0, 8.0));
    EXPECT_THAT(zelTest::elementsOf<uint64>(transpose->getIndexBuffer()), ElementsAre(0U, 4U, 8U));
}

TEST_F(FrameTransposeTest, FramesAheadOfTheRangeAreNotRead) {
    for (uint64 i = 0; i < 10; ++i)
        session->append(zelTest::frameOf(i, static_cast<double>(i)).get());
    journal->failsAt = 0;
    const ref_ptr<FrameTranspose> transpose(new FrameTranspose(session));
    auto* track = transpose->registerTrack("value");
    transpose->extractFrames({2.5, 3});
    EXPECT_THAT(realsOf(track), ElementsAre(5.0, 6.0));
    EXPECT_FALSE(journal->jumpedAtWork);
}

TEST_F(FrameTransposeTest, StandsAtTheEndOfAnyTrack) {
    session->append(zelTest::frameOf(0, 1).get());
    session->append(zelTest::frameOf(1, 2).get());
    const ref_ptr<FrameTranspose> transpose(new FrameTranspose(true));
    auto* series = transpose->registerTrack("value");
    const ref_ptr<zelData::Track> track(new zelData::Track(new MemoryReader(session), transpose.get()));
    track->start();
    track->flush(false);
    track->stop();
    EXPECT_THAT(realsOf(series), ElementsAre(1.0, 2.0));
}

TEST_F(FrameTransposeDeathTest, InstancesThatAreNotAliveEndTheProcess) {
    append(0, true, planets({1, 2}, {0, 1, 2, 3}));
    const auto extract = [this](const char* name, zel::uint32 id) {
        const ref_ptr<FrameTranspose> transpose(new FrameTranspose(session));
        (void)transpose->registerTrack("sun.planets", name, id);
        transpose->extractFrames();
    };
    EXPECT_DEATH(extract("mass", 4), "zelVerify failed: `track->getInstanceId\\(\\) < idToIndex.size\\(\\)'");
    EXPECT_DEATH(extract("mass", 2), "zelVerify failed: `index < currentAttributeBuffer->size\\(\\)'");
    EXPECT_DEATH(extract("speed", 0), "zelVerify failed: `track->m_currentFrameAttributeBuffer'");
}

TEST_F(FrameTransposeDeathTest, TracksAreRegisteredAheadOfTheFrames) {
    const ref_ptr<FrameTranspose> transpose(new FrameTranspose(true));
    transpose->writeFrame(frameAt(0, true).get());
    EXPECT_DEATH((void)transpose->registerTrack("a"), "'a': tracks are registered ahead of the first frame");
}

TEST_F(FrameTransposeDeathTest, TracksAreRegisteredOnceAndHaveAPath) {
    const ref_ptr<FrameTranspose> transpose(new FrameTranspose(true));
    auto* value = transpose->registerTrack("a");
    auto* attribute = transpose->registerTrack("sun.planets", "mass", 0);
    EXPECT_DEATH(transpose->registerTrack(value), "'a': the track is registered");
    EXPECT_DEATH(transpose->registerTrack(attribute), "'sun.planets': the track is registered");
    EXPECT_DEATH((void)transpose->registerTrack(zel::Path()), "a track needs a path");
    EXPECT_DEATH(transpose->registerTrack(static_cast<FrameTranspose::Track*>(nullptr)),
                 "zelVerify failed: `track'");
    EXPECT_DEATH(transpose->setFrameStride(0), "zelVerify failed: `stride > 0'");
}

/// Random sessions of a value and a storage, beside a model by instance.
TEST_F(FrameTransposeTest, SeriesEqualAPlainModelOfTheSession) {
    std::mt19937 random(zelTest::stressSeed());
    for (unsigned round = 0; round < 100 / zelTest::StressDivisor; ++round) {
        auto* run =
            dynamic_cast<MemorySession*>(journal->createNewSession(zel::String::format("run%u", round)));
        constexpr zel::uint32 NumIds = 6;
        std::vector<std::vector<double>> expected(NumIds);
        std::vector<double> expectedValues;
        std::vector<double> masses; // by id
        std::vector<uint64> indices;
        uint64 firstValue = zel::InvalidIndex;
        uint64 index = random() % 5;
        const auto numFrames = random() % 40 + 1;
        for (unsigned row = 0; row < numFrames; ++row, index += random() % 3 + 1) {
            const ref_ptr<Frame> frame = frameAt(index, row == 0 || random() % 8 == 0);
            const bool isKey = frame->isKeyFrame();
            const bool permutes = isKey || random() % 4 == 0;
            if (row == 0)
                for (zel::uint32 id = 0; id < NumIds; ++id) {
                    masses.push_back(static_cast<double>(random()));
                    indices.push_back(id);
                }
            if (permutes)
                std::shuffle(indices.begin(), indices.end(), random);
            ref_ptr<Frame::EntityStorage> storage = storageOf(NumIds);
            if (isKey || permutes || random() % 3 == 0) {
                for (double& mass : masses)
                    mass = random() % 2 == 0 ? mass : static_cast<double>(random());
                const ref_ptr<Buffer> column(new Buffer("mass", zelData::getFormat("Real")));
                column->resize(NumIds);
                const ref_ptr<Buffer> table(
                    new Buffer(zelData::EntityStorage::IdToIndexName, zelData::getFormat("UInt")));
                table->resize(NumIds);
                for (zel::uint32 id = 0; id < NumIds; ++id) {
                    column->data<double>()[indices[id]] = masses[id];
                    table->data<uint64>()[id] = indices[id];
                }
                storage->addObject(column.get());
                if (permutes)
                    storage->addObject(table.get());
                frame->addStorage(storage.get(), "sun.planets");
            } else if (random() % 2 == 0) {
                const auto id = random() % NumIds;
                masses[id] = static_cast<double>(random());
                storage->addObject(partial("mass", {indices[id]}, {masses[id]}, NumIds).get());
                frame->addStorage(storage.get(), "sun.planets");
            }
            if (random() % 2 == 0) {
                expectedValues.push_back(static_cast<double>(random()));
                frame->addValue(real("value", expectedValues.back()).get(), "value");
                firstValue = std::min<uint64>(firstValue, row);
            } else if (!expectedValues.empty()) {
                expectedValues.push_back(expectedValues.back());
            }
            for (zel::uint32 id = 0; id < NumIds; ++id)
                expected[id].push_back(masses[id]);
            run->append(frame.get());
        }
        const ref_ptr<FrameTranspose> transpose(new FrameTranspose(run));
        auto* value = expectedValues.empty() ? nullptr : transpose->registerTrack("value");
        std::vector<FrameTranspose::AttributeTrack*> tracks;
        for (zel::uint32 id = 0; id < NumIds; ++id)
            tracks.push_back(transpose->registerTrack("sun.planets", "mass", id));
        transpose->extractFrames();
        for (zel::uint32 id = 0; id < NumIds; ++id)
            ASSERT_EQ(realsOf(tracks[id]), expected[id]) << round;
        if (value != nullptr) {
            ASSERT_EQ(realsOf(value), expectedValues) << round;
            ASSERT_EQ(value->getFirstRow(), firstValue) << round;
        }
        ASSERT_EQ(transpose->getTimeBuffer()->size(), numFrames);
    }
}

} // namespace
