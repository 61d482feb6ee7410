#include "JournalFixture.h"

#include <zelData/SerializedNodes.h>
#include <zelData/Track.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

// Writing frames, and going on with what others have left.

using zel::ref_ptr;
using zel::uint64;
using zelData::FileFrameWriter;
using zelData::FileJournal;
using zelData::Frame;
using zelTest::frameOf;
using zelTest::whatOf;

namespace {

class FileFrameWriterTest : public zelTest::JournalFixture {
protected:
    [[nodiscard]] std::string failed(uint64 index) const {
        return "FileFrameWriter: Could not write frame " + std::to_string(index) + " to journal '" + path() +
               "'. ";
    }
    void truncate(uint64 index) { EXPECT_TRUE(session->truncate(index)); }
    /// The text of an element in the header of the file.
    [[nodiscard]] std::string told(const std::string& name) const {
        const std::string all = bytes();
        const auto begin = all.find("<" + name + ">") + name.size() + 2;
        return all.substr(begin, all.find('<', begin) - begin);
    }
};
using FileFrameWriterDeathTest = FileFrameWriterTest;

constexpr char Open[] = "18446744073709551615";

TEST_F(FileFrameWriterTest, AFrameIsHeaderPaddingAndData) {
    make("abc");
    beginWriting();
    const auto frame = frameOf(4, 2.5);
    frame->setId(7);
    writer->writeFrame(frame.get());
    const auto* info = session->getFrameInfo(4);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->headerOffset, FirstFrame + 3);
    EXPECT_EQ(info->dataOffset % 32, 0U);
    EXPECT_LT(info->dataOffset - info->headerOffset - info->meta.headerSize, 32U);
    EXPECT_EQ(info->position, 0U);
    const std::string content = bytes();
    EXPECT_EQ(content.size(), info->dataOffset + 8);
    EXPECT_EQ(session->getFrameHead(), content.size());
    const ref_ptr<zelData::SerializedFrame> serialized(new zelData::SerializedFrame(frame.get()));
    const auto header = serialized->writeBinaryHeader();
    EXPECT_EQ(content.compare(info->headerOffset,
                              header->getSize(),
                              reinterpret_cast<const char*>(header->getData()),
                              header->getSize()),
              0);
    const uint64 end = info->headerOffset + info->meta.headerSize;
    EXPECT_EQ(content.substr(end, info->dataOffset - end), std::string(info->dataOffset - end, '\0'));
    EXPECT_EQ(at<double>(content, info->dataOffset), 2.5);
    const Frame::Header told = session->getFrameHeader(4);
    EXPECT_EQ(told.index, 4U);
    EXPECT_EQ(told.timeStamp, 2.0);
    EXPECT_EQ(told.timeStep, 0.5);
    EXPECT_EQ(told.id, 7U);
    EXPECT_TRUE(told.isKeyFrame);
}

TEST_F(FileFrameWriterTest, ManySegmentsOfAllSizesAreWritten) {
    make();
    const ref_ptr<Frame> frame = makeFrame();
    frame->setKeyFrame(true);
    for (int i = 0; i < 3000; ++i) { // more than one gathered write takes
        const zel::Name name("n" + std::to_string(i));
        if (i % 2 == 0)
            frame->addValue(real(name, i).get(), name);
        else
            frame->addBuffer(makeBuffer<zel::uint8>(name, "UInt:8bit", {1, 2, 3}).get(), name);
    }
    beginWriting();
    writer->writeFrame(frame.get());
    beginReading();
    const auto read0 = read(0);
    ASSERT_EQ(read0->getNumObjects(), 3000U);
    EXPECT_EQ(contentOf(read0->findObject("n2998")), 2998.0);
    EXPECT_EQ(zelTest::elementsOf<zel::uint8>(read0->getBuffer("n2999")), (std::vector<zel::uint8>{1, 2, 3}));
}

TEST_F(FileFrameWriterTest, EachFrameIsInTheFileWhenItIsWritten) {
    make();
    beginWriting();
    for (uint64 i = 0; i < 3; ++i) {
        write(i, 1);
        EXPECT_EQ(bytes().size(), session->getFrameHead());
        EXPECT_EQ(session->getNumFrames(), i + 1);
        EXPECT_EQ(session->getLastFrameIndex(), uint64{zel::InvalidIndex});
    }
    EXPECT_EQ(writer->getNumFrames(), 3U);
    EXPECT_EQ(told("endFrame"), Open);
}

TEST_F(FileFrameWriterTest, TheFirstFrameTellsTheSession) {
    make();
    beginWriting();
    const ref_ptr<zelData::Track> track(new zelData::Track);
    track->setFrameStride(3);
    writer->setTrack(track.get());
    write(6, 0);
    EXPECT_EQ(session->getFirstFrameIndex(), 6U);
    EXPECT_EQ(session->getFirstFrameTimeStamp(), 3.0);
    EXPECT_EQ(session->getTimeStep(), 0.5);
    EXPECT_EQ(session->getFrameStride(), 3U);
    write(9, 0);
    EXPECT_EQ(session->getFirstFrameIndex(), 6U);
    writer->setTrack(nullptr);
    writer->endOfStream();
    EXPECT_EQ(session->getLastFrameIndex(), 9U);
    EXPECT_EQ(session->getLastFrameTimeStamp(), 4.5);
    EXPECT_EQ(session->getNumFrames(), 2U);
    EXPECT_EQ(told("startFrame"), "6");
    EXPECT_EQ(told("endFrame"), "9");
    EXPECT_EQ(told("numFrames"), "2");
    EXPECT_EQ(told("frameStride"), "3");
}

TEST_F(FileFrameWriterTest, ASessionWithoutFramesEndsAtZero) {
    make();
    beginWriting();
    writer->endOfStream();
    EXPECT_EQ(told("endFrame"), "0");
    EXPECT_EQ(told("numFrames"), "0");
    const zelTest::LogCapture log;
    open();
    EXPECT_EQ(session->getFrameTable().size(), 0U);
    EXPECT_EQ(session->getFrameHead(), FirstFrame);
    EXPECT_EQ(log.text(), "");
}

TEST_F(FileFrameWriterTest, TheEndIsWrittenOnce) {
    record(2);
    const std::string before = bytes();
    session->setComputationTime(7);
    writer->endOfStream();
    EXPECT_TRUE(bytes() == before);
    // Nor does one who has written nothing write to a closed session.
    beginWriting();
    writer->endOfStream();
    EXPECT_TRUE(bytes() == before);
}

TEST_F(FileFrameWriterTest, CallbacksHearOfEachFrame) {
    make();
    beginWriting();
    std::vector<std::string> heard;
    const auto hear = [&](const char* who) {
        return
            [&heard, who](const Frame* frame) { heard.push_back(who + std::to_string(frame->getIndex())); };
    };
    writer->writeFrameEvent.connect(hear("once"), true);
    writer->writeFrameEvent.connect(hear("a"));
    writer->writeFrameEvent.connect(hear("b"));
    write(0, 0);
    write(1, 0);
    // The last one takes the place of one that goes.
    EXPECT_EQ(heard, (std::vector<std::string>{"once0", "b0", "a0", "b1", "a1"}));
    // A frame that is told of stands in the file, whatever the callback does.
    writer->writeFrameEvent.connect([](const Frame*) { throw std::runtime_error("enough"); }, true);
    EXPECT_EQ(whatOf([&] { write(2, 2); }), "enough");
    write(3, 3, false);
    EXPECT_EQ(indicesInTable(), (std::vector<uint64>{0, 1, 2, 3}));
}

TEST_F(FileFrameWriterDeathTest, TheSessionMustBeOneOfAFile) {
    EXPECT_DEATH(
        FileFrameWriter(nullptr),
        "`m_session', FileFrameReader: Given a nullptr session to read from. Cannot read from nullptr.");
    const ref_ptr<zelTest::MemorySession> other(new zelTest::MemorySession);
    EXPECT_DEATH(
        FileFrameWriter(other.get()),
        "`m_session || !session', FileFrameReader: Given a session that isn't a File session. Cannot "
        "read from it.");
}

TEST_F(FileFrameWriterDeathTest, FormatAndPlaceMustBeKnown) {
    make(nullptr);
    beginWriting();
    EXPECT_DEATH(write(0, 0), "zelVerify failed: `m_session->getFrameHead\\(\\) != InvalidIndex'");
    writer->setHeaderFormat(zelData::SerializedFrame::XML_HEADER);
    EXPECT_DEATH(write(0, 0),
                 "zelVerify failed: `this->getHeaderFormat\\(\\) == SerializedFrame::BINARY_HEADER'");
}

// Frames that are refused

TEST_F(FileFrameWriterTest, AFirstFrameMustBeAKeyFrame) {
    make();
    beginWriting();
    const std::string before = bytes();
    const std::string refused =
        "It must be a key frame: the names that an increment builds on are not known.";
    EXPECT_EQ(whatOf([&] { write(0, 0, false); }), failed(0) + refused);
    EXPECT_TRUE(bytes() == before);
    write(0, 0);
    write(1, 1, false);
    // A second writer does not know the names of the first.
    writer->endOfStream();
    beginWriting();
    EXPECT_EQ(whatOf([&] { write(2, 2, false); }), failed(2) + refused);
    write(2, 2);
    // Nor are those of frames known that were dropped.
    truncate(1);
    EXPECT_EQ(whatOf([&] { write(1, 1, false); }), failed(1) + refused);
    write(1, 10);
    writer->endOfStream();
    open();
    EXPECT_EQ(contents(), (Contents{{0, 0}, {1, 10}}));
}

TEST_F(FileFrameWriterTest, IndicesRise) {
    make();
    beginWriting();
    write(5, 5);
    const std::string before = bytes();
    const std::string refused = "The journal has frame 5 already, and indices must rise.";
    EXPECT_EQ(whatOf([&] { write(5, 0); }), failed(5) + refused);
    EXPECT_EQ(whatOf([&] { write(4, 0); }), failed(4) + refused);
    EXPECT_EQ(whatOf([&] { write(zel::InvalidIndex, 0); }), failed(0xFFFFFFFFU) + "It has no index.");
    EXPECT_TRUE(bytes() == before);
    write(6, 6, false); // what was refused has changed nothing
    writer->endOfStream();
    open();
    EXPECT_EQ(contents(), (Contents{{5, 5}, {6, 6}}));
    beginWriting();
    EXPECT_EQ(whatOf([&] { write(6, 0); }),
              failed(6) + "The journal has frame 6 already, and indices must rise.");
}

TEST_F(FileFrameWriterTest, AnOpenSessionHasOneWriter) {
    make();
    beginWriting();
    const ref_ptr<FileFrameWriter> early(new FileFrameWriter(session.get()));
    write(0, 0);
    const std::string refused =
        "FileFrameWriter: Journal '" + path() + "' is being written by another writer.";
    EXPECT_EQ(whatOf([&] { early->writeFrame(frameOf(1, 1).get()); }), refused);
    EXPECT_EQ(whatOf([&] { FileFrameWriter(session.get()); }), refused);
    early->endOfStream(); // not its own
    EXPECT_EQ(told("endFrame"), Open);
    writer->endOfStream();
    early->writeFrame(frameOf(1, 1).get());
    early->endOfStream();
    open();
    EXPECT_EQ(contents(), (Contents{{0, 0}, {1, 1}}));
}

TEST_F(FileFrameWriterTest, AWriterThatIsGoneHoldsNothing) {
    make();
    beginWriting();
    write(0, 0);
    writer = nullptr;
    beginWriting();
    write(1, 1);
    writer->endOfStream();
    EXPECT_EQ(told("numFrames"), "2");
}

TEST_F(FileFrameWriterTest, AFrameThatDoesNotFitIsRefusedAheadOfItsFirstByte) {
    make();
    beginWriting();
    write(0, 0);
    const std::string before = bytes();
    // Deeper than frames may be.
    const auto deep = frameOf(1, 1);
    zel::Component* parent = deep.get();
    for (int i = 0; i < 600; ++i) {
        const ref_ptr<zel::Component> child(new zel::Component("c"));
        deep->addNode(parent, child.get());
        parent = child.get();
    }
    deep->addNode(parent, real("v", 1).get());
    EXPECT_THROW(writer->writeFrame(deep.get()), std::runtime_error);
    EXPECT_TRUE(bytes() == before);
    write(1, 1);
    writer->endOfStream();
    open();
    EXPECT_EQ(contents(), (Contents{{0, 0}, {1, 1}}));
}

// Going on

TEST_F(FileFrameWriterTest, GoesOnBehindTheLastFrame) {
    record(3);
    open();
    beginWriting();
    write(3, 3);
    EXPECT_EQ(told("endFrame"), Open);
    EXPECT_EQ(told("startFrame"), "0");
    write(4, 4, false);
    writer->endOfStream();
    open();
    EXPECT_EQ(contents(), (Contents{{0, 0}, {1, 1}, {2, 2}, {3, 3}, {4, 4}}));
    EXPECT_EQ(session->getFirstFrameIndex(), 0U);
    EXPECT_EQ(session->getLastFrameIndex(), 4U);
    EXPECT_EQ(session->getNumFrames(), 5U);
}

TEST_F(FileFrameWriterTest, GoesOnAfterACrash) {
    recordWithoutEnd(3);
    for (const auto mode : {FileJournal::Strict, FileJournal::Tolerant}) {
        open(mode);
        EXPECT_EQ(session->getLastFrameIndex(), indicesInTable().back());
        beginWriting();
        write(session->getLastFrameIndex() + 1, 7);
    }
    open();
    EXPECT_EQ(contents(), (Contents{{0, 0}, {1, 1}, {2, 2}, {3, 7}, {4, 7}}));
}

TEST_F(FileFrameWriterTest, WritesOverALastFrameThatIsTorn) {
    recordWithoutEnd(3);
    std::string content = bytes();
    content.resize(content.size() - 3);
    for (const auto mode : {FileJournal::Strict, FileJournal::Tolerant}) {
        putBytes(content);
        open(mode);
        // The first knows it and fails to read it; the second leaves it out.
        EXPECT_EQ(indicesInTable(),
                  mode == FileJournal::Strict ? (std::vector<uint64>{0, 1, 2}) : (std::vector<uint64>{0, 1}));
        beginWriting();
        write(2, 20);
        writer->endOfStream();
        open();
        EXPECT_EQ(contents(), (Contents{{0, 0}, {1, 1}, {2, 20}}));
    }
}

TEST_F(FileFrameWriterTest, TruncatingAtTheFirstFrameEmptiesTheSession) {
    record(3);
    const auto size = bytes().size();
    truncate(0);
    EXPECT_EQ(session->getNumFrames(), 0U);
    EXPECT_EQ(session->getFirstFrameIndex(), 0U);
    EXPECT_EQ(session->getLastFrameIndex(), 0U);
    EXPECT_EQ(session->getFirstFrameTimeStamp(), 0.0);
    EXPECT_EQ(session->getLastFrameTimeStamp(), 0.0);
    EXPECT_EQ(session->getFrameHead(), FirstFrame);
    EXPECT_EQ(bytes().size(), size); // the file keeps its length
    open();
    EXPECT_EQ(session->getFrameTable().size(), 0U);
    beginWriting();
    write(0, 10); // over the old ones
    writer->endOfStream();
    open();
    EXPECT_EQ(contents(), (Contents{{0, 10}}));
    EXPECT_EQ(bytes().size(), session->getFrameHead());
}

TEST_F(FileFrameWriterTest, TruncatingDropsAFrameAndAllBehindIt) {
    record(5);
    truncate(3);
    EXPECT_EQ(indicesInTable(), (std::vector<uint64>{0, 1, 2}));
    EXPECT_EQ(session->getNumFrames(), 3U);
    EXPECT_EQ(session->getLastFrameIndex(), 2U);
    EXPECT_EQ(session->getLastFrameTimeStamp(), 1.0);
    EXPECT_EQ(session->getFrameInfo(3), nullptr);
    const zelTest::LogCapture log;
    open();
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(indicesInTable(), (std::vector<uint64>{0, 1, 2}));
}

TEST_F(FileFrameWriterTest, TruncatingAtTheLastFrameKeepsIt) {
    record(5);
    const std::string before = bytes();
    truncate(4);
    EXPECT_TRUE(bytes() == before);
    EXPECT_EQ(session->getNumFrames(), 5U);
}

TEST_F(FileFrameWriterTest, TruncatingOutsideOfTheSessionIsRefused) {
    make();
    EXPECT_FALSE(session->truncate(0));
    beginWriting();
    write(5, 5);
    write(7, 7);
    writer->endOfStream();
    const zelTest::LogCapture log;
    EXPECT_FALSE(session->truncate(4));
    EXPECT_FALSE(session->truncate(8));
    EXPECT_EQ(log.text(),
              "FileJournal: Cannot truncate a session outside its range. Asked to truncate at frame 4 in a "
              "session starting with frame 5.\n"
              "FileJournal: Cannot truncate a session outside its range. Asked to truncate at frame 8 in a "
              "session ending with frame 7.\n");
    EXPECT_EQ(indicesInTable(), (std::vector<uint64>{5, 7}));
}

TEST_F(FileFrameWriterDeathTest, TruncatingBetweenFramesIsAMistake) {
    make();
    beginWriting();
    write(5, 5);
    write(7, 7);
    EXPECT_DEATH(session->truncate(6), "zelVerify failed: `frameInfo'");
}

TEST_F(FileFrameWriterTest, ACrashAtAnyStepOfAppendingInventsNoFrame) {
    record(5);
    truncate(2);
    open();
    beginWriting();
    // What the file is at each step, as a crash would leave it.
    std::vector<std::string> steps{bytes()};
    const auto expectFrames = [&](const Contents& expected) {
        open();
        EXPECT_EQ(contents(), expected);
    };
    std::string cut = bytes();
    cut.resize(session->getFrameHead());
    steps.push_back(cut);
    write(2, 20);
    std::string opened = bytes();
    opened.resize(cut.size());
    steps.push_back(opened);
    write(3, 30);
    write(4, 40); // as large as those that were there
    const std::string last = bytes();
    for (const std::string& step : steps) {
        putBytes(step);
        expectFrames({{0, 0}, {1, 1}});
    }
    putBytes(last);
    expectFrames({{0, 0}, {1, 1}, {2, 20}, {3, 30}, {4, 40}});
    EXPECT_EQ(told("endFrame"), Open);
}

// Where the file fails

TEST_F(FileFrameWriterTest, AFrameThatDoesNotFitOnTheDiskIsCutOffAgain) {
    make();
    beginWriting();
    write(0, 0);
    write(1, 1, false);
    const std::string before = bytes();
    const auto frameSize = session->getFrameHead() - session->getFrameInfo(1)->headerOffset;
    for (const uint64 room : {uint64{0}, uint64{1}, uint64{56}, frameSize - 1}) {
        const zelTest::FileSizeLimit limit(before.size() + room);
        EXPECT_EQ(whatOf([&] { write(2, 2); }), failed(2) + "File too large") << room;
        EXPECT_TRUE(bytes().substr(FirstFrame) == before.substr(FirstFrame)) << room;
        EXPECT_EQ(session->getFrameHead(), before.size());
    }
    EXPECT_EQ(indicesInTable(), (std::vector<uint64>{0, 1}));
    // There is room again: the names of what was lost come anew.
    EXPECT_EQ(whatOf([&] { write(2, 2, false); }),
              failed(2) + "It must be a key frame: the names that an increment builds on are not known.");
    write(2, 2);
    write(3, 3, false);
    writer->endOfStream();
    open();
    EXPECT_EQ(contents(), (Contents{{0, 0}, {1, 1}, {2, 2}, {3, 3}}));
}

TEST_F(FileFrameWriterTest, AReadOnlyFileIsTold) {
    record(1);
    ASSERT_EQ(chmod(path().c_str(), 0444), 0);
    open();
    beginWriting();
    {
        const zelTest::WithoutPrivileges nobody(directory.path());
        EXPECT_EQ(whatOf([&] { write(1, 1); }), failed(1) + "Permission denied");
    }
    ASSERT_EQ(chmod(path().c_str(), 0644), 0);
    write(1, 1);
    EXPECT_EQ(indicesInTable(), (std::vector<uint64>{0, 1}));
}

TEST_F(FileFrameWriterTest, ADirectoryThatIsGoneIsTold) {
    make();
    beginWriting();
    write(0, 0);
    const std::string away = directory.path() + "-away";
    std::filesystem::rename(directory.path(), away);
    const zelTest::LogCapture log;
    EXPECT_EQ(whatOf([&] { write(1, 1); }), failed(1) + "No such file or directory");
    EXPECT_NE(log.text().find("FileFrameWriter: Could not open file to write frame 1 to journal '" + path() +
                              "'\n"),
              std::string::npos);
    std::filesystem::rename(away, directory.path());
    write(1, 1);
    EXPECT_EQ(contents(), (Contents{{0, 0}, {1, 1}}));
}

TEST_F(FileFrameWriterTest, AnotherFileInItsPlaceIsNotWritten) {
    make();
    beginWriting();
    write(0, 0);
    const std::string content = bytes();
    const std::string refused = "It is not the file that held the frames ahead.";
    std::filesystem::rename(path(), directory.path("old"));
    putBytes(content); // equal, and yet another
    EXPECT_EQ(whatOf([&] { write(1, 1, false); }), failed(1) + refused);
    EXPECT_TRUE(bytes() == content);
    putBytes("short");
    EXPECT_EQ(whatOf([&] { write(1, 1); }), failed(1) + refused);
    EXPECT_EQ(bytes(), "short");
    std::filesystem::rename(directory.path("old"), path());
    write(1, 1);
    writer->endOfStream();
    EXPECT_EQ(contents(), (Contents{{0, 0}, {1, 1}}));
}

TEST_F(FileFrameWriterTest, FramesOfAnotherJournalAreWrittenAsTheyAre) {
    make();
    beginWriting();
    write(0, 5);
    write(1, 6, false);
    const auto blockAt = [this](uint64 offset, uint64 size) {
        const std::string content = bytes();
        return zel::ref_ptr<zelData::BinaryData>(zelData::BinaryData::copy(content.data() + offset, size));
    };
    std::vector<std::pair<zel::ref_ptr<zelData::BinaryData>, zel::ref_ptr<zelData::BinaryData>>> blocks;
    for (const auto& info : session->getFrameTable())
        blocks.emplace_back(blockAt(info.headerOffset, info.meta.headerSize),
                            blockAt(info.dataOffset, info.meta.dataSize));
    writer->endOfStream();
    const std::string content = bytes();
    writer = nullptr;
    session = nullptr;
    std::filesystem::remove(path());
    make();
    beginWriting();
    EXPECT_EQ(whatOf([&] { writer->writeFrame(blocks[1].first.get(), blocks[1].second.get()); }),
              failed(1) + "It must be a key frame: the names that an increment builds on are not known.");
    EXPECT_EQ(whatOf([&] { writer->writeFrame(blocks[0].first.get(), blocks[0].first.get()); }),
              failed(0) + "Its record tells other sizes.");
    for (const auto& [header, data] : blocks)
        writer->writeFrame(header.get(), data.get());
    EXPECT_EQ(whatOf([&] { write(2, 7, false); }),
              failed(2) + "It must be a key frame: the names that an increment builds on are not known.");
    writer->endOfStream();
    EXPECT_EQ(contents(), (Contents{{0, 5}, {1, 6}}));
    EXPECT_TRUE(bytes().substr(FirstFrame) == content.substr(FirstFrame));
}

} // namespace
