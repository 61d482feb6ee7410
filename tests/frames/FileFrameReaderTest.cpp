#include "JournalFixture.h"

#include <zelData/Track.h>

#include <algorithm>
#include <filesystem>

// Reading frames in any order, also of a journal that grows meanwhile.

using zel::ref_ptr;
using zel::uint64;
using zelData::FileFrameReader;
using zelData::FileJournal;
using zelData::Frame;
using zelTest::frameOf;
using zelTest::whatOf;

namespace {

class FileFrameReaderTest : public zelTest::JournalFixture {
protected:
    /// Frame 0 is a key frame, the others each bring a name of their own.
    void recordIncrements(uint64 numFrames) {
        make();
        beginWriting();
        for (uint64 i = 0; i < numFrames; ++i) {
            const auto frame = frameOf(i, static_cast<double>(i), i == 0);
            const zel::Name name("own" + std::to_string(i));
            frame->addValue(real(name, static_cast<double>(i)).get(), name);
            writer->writeFrame(frame.get());
        }
        writer->endOfStream();
        open();
        beginReading();
    }
    static std::vector<std::string> namesOf(const Frame* frame) {
        std::vector<std::string> names;
        for (zel::size_t i = 0; i < frame->getNumObjects(); ++i)
            names.push_back(frame->getObject(i)->getName().str());
        std::sort(names.begin(), names.end());
        return names;
    }
    using Names = std::vector<std::string>;
};
using FileFrameReaderDeathTest = FileFrameReaderTest;

TEST_F(FileFrameReaderTest, ReadsFromTheFirstFrameOnInOrder) {
    make();
    beginWriting();
    for (const uint64 index : {4U, 5U, 8U})
        write(index, static_cast<double>(index), index == 4);
    writer->endOfStream();
    open();
    beginReading();
    EXPECT_EQ(reader->getSession(), session.get());
    EXPECT_EQ(reader->getNextFrameIndex(), 4U);
    EXPECT_EQ(reader->getTimeStep(), 0.5);
    for (const uint64 index : {4U, 5U, 8U}) {
        const auto frame = read();
        ASSERT_TRUE(frame);
        EXPECT_EQ(frame->getIndex(), index);
        EXPECT_EQ(frame->getTimeStamp(), 0.5 * static_cast<double>(index));
        EXPECT_EQ(frame->isKeyFrame(), index == 4);
        EXPECT_EQ(contentOf(frame->findObject("value")), static_cast<double>(index));
        reader->advanceToNextFrame();
    }
    EXPECT_FALSE(read());
    EXPECT_EQ(reader->getNextFrameIndex(), uint64{zel::InvalidIndex});
}

TEST_F(FileFrameReaderTest, KnowsTheFramesOfTheSession) {
    record(3);
    beginReading();
    EXPECT_TRUE(reader->isValidFrame(2));
    EXPECT_FALSE(reader->isValidFrame(3));
    EXPECT_FALSE(reader->isValidFrame(zel::InvalidIndex));
    EXPECT_FALSE(read(3));
    EXPECT_FALSE(read(zel::InvalidIndex));
    EXPECT_EQ(reader->getBinaryReadStrategy(), FileFrameReader::BinaryReadStrategy::PlainRead);
    const ref_ptr<zelData::FrameReader> made(journal->createFrameReader(session.get()));
    EXPECT_NE(dynamic_cast<FileFrameReader*>(made.get()), nullptr);
    const ref_ptr<zelData::FrameWriter> writerMade(journal->createFrameWriter(session.get()));
    EXPECT_NE(dynamic_cast<zelTest::JournalFixture::FileFrameWriter*>(writerMade.get()), nullptr);
}

TEST_F(FileFrameReaderTest, StepsCountPlacesAndNotIndices) {
    make();
    beginWriting();
    for (const uint64 index : {2U, 3U, 7U, 8U})
        write(index, 0);
    EXPECT_EQ(session->getNextFrameIndex(2, 2), 7U);
    EXPECT_EQ(session->getNextFrameIndex(8, -3), 2U);
    EXPECT_EQ(session->getNextFrameIndex(7, 0), 7U);
    constexpr auto none = uint64{zel::InvalidIndex};
    EXPECT_EQ(session->getNextFrameIndex(8, 1), none);
    EXPECT_EQ(session->getNextFrameIndex(2, -1), none);
    EXPECT_EQ(session->getNextFrameIndex(4, 1), none);
    EXPECT_EQ(session->getNextFrameIndex(2, std::numeric_limits<zel::int64>::max()), none);
    EXPECT_EQ(session->getNextFrameIndex(8, std::numeric_limits<zel::int64>::min()), none);
    const Frame::Header unknown = session->getFrameHeader(4);
    EXPECT_EQ(unknown.index, none);
    EXPECT_EQ(unknown.timeStep, -1.0);
    EXPECT_EQ(unknown.timeStamp, -1.0);
    EXPECT_EQ(unknown.id, 0xFFFFFFFFU);
    EXPECT_FALSE(unknown.isKeyFrame);
}

TEST_F(FileFrameReaderTest, JumpsGiveCompleteFrames) {
    recordIncrements(8);
    EXPECT_TRUE(reader->jumpToFrame(5));
    EXPECT_EQ(namesOf(read().get()), (Names{"own0", "own1", "own2", "own3", "own4", "own5", "value"}));
    EXPECT_TRUE(reader->jumpToTime(1.1));
    EXPECT_EQ(reader->getNextFrameIndex(), 2U);
    EXPECT_EQ(namesOf(read().get()), (Names{"own0", "own1", "own2", "value"}));
    EXPECT_FALSE(reader->jumpToFrame(9));
    EXPECT_FALSE(read());
}

TEST_F(FileFrameReaderTest, AJumpAheadOfTheFirstFrameGoesThereAndIsNone) {
    make();
    beginWriting();
    write(4, 4);
    write(5, 5);
    beginReading();
    EXPECT_FALSE(reader->jumpToFrame(3));
    EXPECT_EQ(read()->getIndex(), 4U);
}

TEST_F(FileFrameReaderTest, NamesOfASequenceAreKnownBehindIt) {
    recordIncrements(8); // increment 3 brings own3
    EXPECT_TRUE(reader->jumpToFrame(5));
    (void)read();
    reader->advanceToNextFrame();
    EXPECT_EQ(namesOf(read().get()), (Names{"own6", "value"}));
    // Passing frames over catches up on their names too.
    EXPECT_TRUE(reader->jumpToFrame(0));
    (void)read();
    const ref_ptr<zelData::Track> track(new zelData::Track);
    track->setFrameStride(3);
    reader->setTrack(track.get());
    reader->advanceToNextFrame();
    EXPECT_EQ(namesOf(read().get()), (Names{"own1", "own2", "own3", "value"}));
    reader->setTrack(nullptr);
}

TEST_F(FileFrameReaderDeathTest, TheSessionMustBeOneOfAFile) {
    EXPECT_DEATH(
        FileFrameReader(nullptr),
        "`m_session', FileFrameReader: Given a nullptr session to read from. Cannot read from nullptr.");
    const ref_ptr<zelTest::MemorySession> other(new zelTest::MemorySession);
    EXPECT_DEATH(
        FileFrameReader(other.get()),
        "`m_session || !session', FileFrameReader: Given a session that isn't a File session. Cannot "
        "read from it.");
}

TEST_F(FileFrameReaderDeathTest, AFileThatCannotBeOpenedIsTold) {
    record(1);
    std::filesystem::rename(path(), directory.path("away"));
    EXPECT_DEATH(
        beginReading(),
        "`m_journalFile.good\\(\\)', FileFrameReader: Could not open journal file '.*/run.journal'.");
    std::filesystem::rename(directory.path("away"), path());
    open(FileJournal::Tolerant);
    std::filesystem::rename(path(), directory.path("away"));
    EXPECT_EQ(whatOf([&] { beginReading(); }),
              "FileFrameReader: Could not open journal file '" + path() + "'.");
}

TEST_F(FileFrameReaderDeathTest, AFrameThatCannotBeReadIsTold) {
    record(3);
    const std::string content = bytes();
    beginReading();
    putBytes(content.substr(0, content.size() - 1));
    EXPECT_DEATH((void)read(2), "`m_journalFile.good\\(\\)', FileFrameReader: Could not read frame 2");
    putBytes(content.substr(0, session->getFrameInfo(1)->headerOffset + 60));
    EXPECT_DEATH((void)read(1), "`m_journalFile.good\\(\\)', FileFrameReader: Could not read frame 1");
    EXPECT_DEATH(reader->prepareSequence(0, 2), "FileFrameReader: Could not read frame 1");
    putBytes(content);
    open(FileJournal::Tolerant);
    beginReading();
    putBytes(content.substr(0, content.size() - 1));
    EXPECT_EQ(whatOf([&] { (void)read(2); }), "FileFrameReader: Could not read frame 2");
    EXPECT_EQ(contentOf(read(1)->findObject("value")), 1.0);
}

TEST_F(FileFrameReaderDeathTest, TheFormatMustBeBinary) {
    record(1);
    beginReading();
    reader->setHeaderFormat(zelData::SerializedFrame::XML_HEADER);
    EXPECT_DEATH((void)read(0),
                 "zelVerify failed: `this->getHeaderFormat\\(\\) == SerializedFrame::BINARY_HEADER'");
}

TEST_F(FileFrameReaderTest, TheFileStaysOpen) {
    record(2);
    beginReading();
    std::filesystem::remove(path());
    EXPECT_EQ(contentOf(read(1)->findObject("value")), 1.0);
}

// A journal that is being written

TEST_F(FileFrameReaderTest, FramesThatAreWrittenMeanwhileAreTakenIn) {
    make();
    beginWriting();
    const ref_ptr<FileFrameWriter> recording = writer;
    for (const auto mode : {FileJournal::Strict, FileJournal::Tolerant}) {
        open(mode);
        const uint64 before = session->getNumFrames();
        beginReading();
        EXPECT_EQ(session->refresh(), 0U);
        for (uint64 i = before; i < before + 3; ++i) {
            recording->writeFrame(frameOf(i, static_cast<double>(i)).get());
            EXPECT_EQ(session->refresh(), 1U);
            EXPECT_EQ(session->getNumFrames(), i + 1);
            EXPECT_EQ(session->getLastFrameIndex(), i);
            EXPECT_EQ(contentOf(read(i)->findObject("value")), static_cast<double>(i));
        }
    }
    recording->endOfStream();
    EXPECT_EQ(session->refresh(), 0U);
    EXPECT_EQ(session->getLastFrameIndex(), 5U);
    EXPECT_EQ(contents(), (Contents{{0, 0}, {1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}}));
}

TEST_F(FileFrameReaderTest, AFrameKeepsItsElementsWhileOthersAreRead) {
    record(3);
    open();
    beginReading();
    const ref_ptr<zelData::Frame> first = read(2);
    const ref_ptr<zelData::Frame> second = read(1);
    const ref_ptr<zelData::Frame> third = read(2);
    EXPECT_EQ(contentOf(first->findObject("value")), 2);
    EXPECT_EQ(contentOf(second->findObject("value")), 1);
    EXPECT_EQ(contentOf(third->findObject("value")), 2);
}

TEST_F(FileFrameReaderTest, AFrameThatIsNotCompleteYetIsLeftForTheNextTime) {
    recordWithoutEnd(1);
    const std::string one = bytes();
    write(1, 1);
    const std::string two = bytes();
    for (const auto mode : {FileJournal::Strict, FileJournal::Tolerant}) {
        putBytes(one);
        open(mode);
        const zelTest::LogCapture log;
        for (const auto size : {one.size() + 1, one.size() + 56, one.size() + 60, two.size() - 1}) {
            putBytes(two.substr(0, size));
            EXPECT_EQ(session->refresh(), 0U) << size;
        }
        putBytes(two);
        EXPECT_EQ(session->refresh(), 1U);
        EXPECT_EQ(contents(), (Contents{{0, 0}, {1, 1}}));
        EXPECT_EQ(log.text(), "");
    }
}

TEST_F(FileFrameReaderTest, FramesThatWereDroppedMeanwhileAreForgotten) {
    record(5);
    const ref_ptr<Session> recording = session;
    const ref_ptr<FileJournal> keep = journal;
    open();
    EXPECT_TRUE(recording->truncate(2));
    EXPECT_EQ(session->refresh(), 2U);
    EXPECT_EQ(indicesInTable(), (std::vector<uint64>{0, 1}));
    const ref_ptr<FileFrameWriter> again(new FileFrameWriter(recording.get()));
    again->writeFrame(frameOf(2, 20).get()); // as large as what was there
    EXPECT_EQ(session->refresh(), 1U);
    EXPECT_EQ(contents(), (Contents{{0, 0}, {1, 1}, {2, 20}}));
    EXPECT_TRUE(recording->truncate(0));
    EXPECT_EQ(session->refresh(), 0U);
    EXPECT_EQ(session->getNumFrames(), 0U);
}

TEST_F(FileFrameReaderTest, ASessionThatIsMadeMeanwhileIsFollowedFromItsScene) {
    make(nullptr);
    const ref_ptr<Session> recording = session;
    const ref_ptr<FileJournal> keep = journal;
    open();
    EXPECT_EQ(session->refresh(), 0U);
    std::stringstream scene("scene");
    recording->packSceneData(scene);
    const ref_ptr<FileFrameWriter> own(new FileFrameWriter(recording.get()));
    own->writeFrame(frameOf(3, 3).get());
    EXPECT_EQ(session->refresh(), 1U);
    EXPECT_EQ(contents(), (Contents{{3, 3}}));
    // One's own writer tells it all.
    EXPECT_EQ(recording->refresh(), 0U);
    EXPECT_EQ(recording->getLastFrameIndex(), uint64{zel::InvalidIndex});
    std::filesystem::remove(path());
    EXPECT_EQ(whatOf([&] { (void)session->refresh(); }), "Could not open journal '" + path() + "'.");
}

TEST_F(FileFrameReaderTest, AHeaderThatIsBeingWrittenIsLeftForTheNextTime) {
    recordWithoutEnd(1);
    const ref_ptr<FileFrameWriter> recording = writer;
    open();
    recording->writeFrame(frameOf(1, 1).get());
    const std::string whole = bytes();
    std::string torn = whole;
    torn.replace(100, 50, std::string(50, '<'));
    putBytes(torn);
    EXPECT_EQ(session->refresh(), 0U);
    putBytes(whole);
    EXPECT_EQ(session->refresh(), 1U);
}

} // namespace
