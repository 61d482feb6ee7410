#include "JournalFixture.h"

#include <zel/Notify.h>

#include <fcntl.h>
#include <support/Stress.h>
#include <unistd.h>

#include <filesystem>

// Journals that were never closed, are cut off, or hold what nobody wrote.

using zel::ref_ptr;
using zel::uint64;
using zelData::FileJournal;
using zelTest::frameOf;
using zelTest::whatOf;

namespace {

class FileJournalDamageTest : public zelTest::JournalFixture {
protected:
    /// Three frames of the model behind a scene.
    void recordModel(bool isClosed) {
        std::mt19937 random(5);
        clearModel();
        std::filesystem::remove(path());
        make("scene");
        beginWriting();
        for (int i = 0; i < 3; ++i)
            writer->writeFrame(makeAtRandom(random, i == 0).get());
        if (isClosed)
            writer->endOfStream();
        table.clear();
        for (const auto& info : session->getFrameTable())
            table.push_back(info);
    }
    [[nodiscard]] uint64 endOf(zel::size_t place) const {
        return table[place].dataOffset + table[place].meta.dataSize;
    }
    /// Keeps what is told meanwhile to those who ask.
    static void beQuiet() { zel::Notify::instance()->setNotifyLevel(zel::Notify::Error); }
    /// Whether the first frames are there as they were written.
    void expectFrames(zel::size_t count) {
        ASSERT_GE(session->getFrameTable().size(), count);
        reader->jumpToFrame(session->getFrameTable()[0].index);
        for (zel::size_t i = 0; i < count; ++i) {
            expectState(read().get(), changes[i], "in order");
            reader->advanceToNextFrame();
        }
    }

    std::vector<FileJournal::FrameInfo> table;
};
using FileJournalDamageDeathTest = FileJournalDamageTest;

// Sessions that were never closed

TEST_F(FileJournalDamageTest, AClosedSessionIsReadWithoutAWordWhateverFollows) {
    record(3);
    std::string content = bytes();
    content += std::string(1000, 'x');
    putBytes(content);
    const zelTest::LogCapture log;
    for (const auto mode : {FileJournal::Strict, FileJournal::Tolerant}) {
        open(mode);
        EXPECT_EQ(contents(), (Contents{{0, 0}, {1, 1}, {2, 2}}));
        EXPECT_EQ(session->getFrameHead(), content.size() - 1000);
    }
    EXPECT_EQ(log.text(), "");
}

TEST_F(FileJournalDamageTest, APipeIsNoJournalAndNobodyWaitsForIt) {
    ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
    for (const FileJournal::OpenMode mode : {FileJournal::Strict, FileJournal::Tolerant})
        EXPECT_EQ(whatOf([&] { const ref_ptr<FileJournal> pipe(new FileJournal(path(), mode)); }),
                  "Failed to read journal header from '" + path() + "'.");
    EXPECT_FALSE(FileJournal::isFileJournal(path()));
}

TEST_F(FileJournalDamageTest, ASessionThatWasNeverClosedIsRecovered) {
    make();
    beginWriting();
    for (const uint64 index : {2U, 4U, 6U, 9U})
        write(index, static_cast<double>(index));
    const std::string before = bytes();
    for (const auto mode : {FileJournal::Strict, FileJournal::Tolerant}) {
        const zelTest::LogCapture log;
        open(mode);
        EXPECT_EQ(log.text(),
                  "Trying to recover inconsistent journal file '" + path() +
                      "'\nRecover last frame: 9, computed stride: 2\n"); // 7 / 3
        EXPECT_EQ(session->getFirstFrameIndex(), 2U);
        EXPECT_EQ(session->getLastFrameIndex(), 9U);
        EXPECT_EQ(session->getFirstFrameTimeStamp(), 1.0);
        EXPECT_EQ(session->getLastFrameTimeStamp(), 4.5);
        EXPECT_EQ(session->getNumFrames(), 4U);
        EXPECT_EQ(session->getFrameStride(), 2U);
        EXPECT_EQ(session->getFrameHead(), before.size());
        EXPECT_EQ(contents(), (Contents{{2, 2}, {4, 4}, {6, 6}, {9, 9}}));
    }
    EXPECT_TRUE(bytes() == before); // nothing is written back by itself
}

TEST_F(FileJournalDamageTest, ASingleFrameIsRecoveredWithAStrideOfOne) {
    recordWithoutEnd(1);
    open();
    EXPECT_EQ(session->getFrameStride(), 1U);
    EXPECT_EQ(session->getLastFrameIndex(), 0U);
}

TEST_F(FileJournalDamageTest, ASessionWithoutFramesHasNothingToRecover) {
    make();
    const zelTest::LogCapture log;
    open();
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(session->getNumFrames(), 0U);
    EXPECT_EQ(session->getFrameHead(), FirstFrame);
}

TEST_F(FileJournalDamageTest, AClosedSessionThatIsTooShortIsRecovered) {
    record(3);
    std::filesystem::resize_file(path(), session->getFrameInfo(2)->headerOffset);
    const zelTest::LogCapture log;
    open();
    EXPECT_EQ(log.text(),
              "Trying to recover inconsistent journal file '" + path() +
                  "'\nRecover last frame: 1, computed stride: 1\n");
    EXPECT_EQ(contents(), (Contents{{0, 0}, {1, 1}}));
}

TEST_F(FileJournalDamageDeathTest, ATornLastFrameStandsInTheSessionAndFailsWhenItIsRead) {
    recordWithoutEnd(3);
    const auto torn = *session->getFrameInfo(2);
    for (const uint64 size : {torn.headerOffset + 56, torn.dataOffset, torn.dataOffset + 7}) {
        std::filesystem::resize_file(path(), size);
        open();
        EXPECT_EQ(indicesInTable(), (std::vector<uint64>{0, 1, 2}));
        EXPECT_EQ(session->getFrameHead(), torn.headerOffset);
        beginReading();
        EXPECT_EQ(contentOf(read(1)->findObject("value")), 1.0);
        EXPECT_DEATH((void)read(2), "FileFrameReader: Could not read frame 2");
        const zelTest::LogCapture log;
        open(FileJournal::Tolerant);
        EXPECT_NE(log.text().find("Journal '" + path() + "': the file is cut off within a frame at offset " +
                                  std::to_string(torn.headerOffset) + "; frames ahead of it: 2\n"),
                  std::string::npos);
        EXPECT_EQ(contents(), (Contents{{0, 0}, {1, 1}}));
        EXPECT_EQ(session->getFrameHead(), torn.headerOffset);
        std::filesystem::remove(path());
        recordWithoutEnd(3);
    }
}

TEST_F(FileJournalDamageDeathTest, ARecordThatIsCutIsFatal) {
    recordWithoutEnd(3);
    const uint64 offset = session->getFrameInfo(2)->headerOffset;
    std::filesystem::resize_file(path(), offset + 55);
    EXPECT_DEATH(
        open(),
        "zelVerify failed: `stream.good\\(\\)', Could not create frame table from journal '.*/run.journal'. "
        "At offset " +
            std::to_string(offset) + " the file is cut off within the record of a frame.");
    open(FileJournal::Tolerant);
    EXPECT_EQ(contents(), (Contents{{0, 0}, {1, 1}}));
}

TEST_F(FileJournalDamageDeathTest, AFileThatIsGoneHasNoFrames) {
    record(2);
    std::filesystem::remove(path());
    EXPECT_DEATH(session->createFrameTable(),
                 "`stream.good\\(\\)', Could not create frame table from journal '.*/run.journal'.");
}

// Records that cannot be believed

TEST_F(FileJournalDamageDeathTest, RecordsThatCannotBeBelievedAreFatalOrTheEnd) {
    struct Lie {
        const char* what;
        zel::size_t offset;
        zel::size_t size;
        uint64 value;
        const char* told;
    };
    const uint64 all = ~uint64{0};
    const std::vector<Lie> lies{
        {"no end tag", 48, 4, 0xFFFFFFFE, "is no record of a frame"},
        {"padding", 52, 4, 1, "is no record of a frame"},
        {"other padding", 31, 1, 1, "is no record of a frame"},
        {"neither key frame nor increment", 28, 1, 2, "is no record of a frame"},
        {"no index", 0, 8, all, "is no record of a frame"},
        {"no header", 32, 8, 0, "tells a header that is too short"},
        {"a short header", 32, 8, 95, "tells a header that is too short"},
        {"all ones", 32, 8, all, "tells sizes that no file has"},
        {"a header that wraps around", 32, 8, all - FirstFrame - 31, "tells sizes that no file has"},
        {"a header of half of all", 32, 8, uint64{1} << 63, "tells sizes that no file has"},
        {"data of all ones", 40, 8, all, "tells sizes that no file has"},
        {"data that lead back", 40, 8, all - 300, "tells sizes that no file has"},
        {"data of half of all", 40, 8, (uint64{1} << 63) - 1, "tells sizes that no file has"},
    };
    recordWithoutEnd(3);
    const std::string whole = bytes();
    const uint64 offset = session->getFrameInfo(1)->headerOffset;
    for (const Lie& lie : lies) {
        SCOPED_TRACE(lie.what);
        std::string content = whole;
        std::memcpy(content.data() + offset + lie.offset, &lie.value, lie.size);
        putBytes(content);
        EXPECT_DEATH(open(),
                     "`stream.good\\(\\)', Could not create frame table from journal '.*/run.journal'.");
        const zelTest::LogCapture log;
        open(FileJournal::Tolerant);
        EXPECT_NE(log.text().find("Journal '" + path() + "': the file " + lie.told + " at offset " +
                                  std::to_string(offset) + "; frames ahead of it: 1\n"),
                  std::string::npos)
            << log.text();
        EXPECT_EQ(contents(), (Contents{{0, 0}}));
        EXPECT_EQ(session->getFrameHead(), offset);
        // Whoever goes on does so from there.
        beginWriting();
        write(1, 10);
        open();
        EXPECT_EQ(contents(), (Contents{{0, 0}, {1, 10}}));
    }
}

TEST_F(FileJournalDamageTest, SizesPastTheEndAreThoseOfATornFrame) {
    recordWithoutEnd(3);
    const std::string whole = bytes();
    const auto info = *session->getFrameInfo(1);
    for (const auto& [field, value] : std::vector<std::pair<zel::size_t, uint64>>{
             {32, whole.size()}, {32, uint64{1} << 40}, {40, whole.size()}, {40, uint64{1} << 60}}) {
        std::string content = whole;
        put<uint64>(content, info.headerOffset + field, value);
        putBytes(content);
        open();
        EXPECT_EQ(indicesInTable(), (std::vector<uint64>{0, 1}));
        EXPECT_EQ(session->getFrameHead(), info.headerOffset);
        open(FileJournal::Tolerant);
        EXPECT_EQ(contents(), (Contents{{0, 0}}));
        EXPECT_EQ(session->getFrameHead(), info.headerOffset);
    }
}

TEST_F(FileJournalDamageTest, FramesThatOverlapEndWhereTheNextOneShouldBe) {
    recordWithoutEnd(3);
    const std::string whole = bytes();
    const auto info = *session->getFrameInfo(0);
    for (const auto& [field, value] :
         std::vector<std::pair<zel::size_t, uint64>>{{32, 96}, {40, 0}, {40, 7}, {40, 9}}) {
        std::string content = whole;
        put<uint64>(content, info.headerOffset + field, value);
        putBytes(content);
        const zelTest::LogCapture log;
        open(FileJournal::Tolerant);
        EXPECT_EQ(indicesInTable(), (std::vector<uint64>{0})) << field;
        EXPECT_NE(log.text().find("is no record of a frame"), std::string::npos);
    }
}

TEST_F(FileJournalDamageDeathTest, AnIndexStandsOnce) {
    recordWithoutEnd(3);
    std::string content = bytes();
    const uint64 offset = session->getFrameInfo(2)->headerOffset;
    put<uint64>(content, offset, 0);
    putBytes(content);
    EXPECT_DEATH(open(), "zelVerify failed: `!m_frameTable.contains\\(meta.index\\)'");
    const zelTest::LogCapture log;
    open(FileJournal::Tolerant);
    EXPECT_NE(log.text().find("has the index of an earlier frame again at offset " + std::to_string(offset)),
              std::string::npos);
    EXPECT_EQ(indicesInTable(), (std::vector<uint64>{0, 1}));
}

TEST_F(FileJournalDamageTest, IndicesThatRunBackwardsAreReadInTheOrderOfTheFile) {
    recordWithoutEnd(3);
    std::string content = bytes();
    for (uint64 i = 0; i < 3; ++i)
        put<uint64>(content, session->getFrameInfo(i)->headerOffset, 9 - i);
    putBytes(content);
    open();
    EXPECT_EQ(contents(), (Contents{{9, 0}, {8, 1}, {7, 2}}));
    EXPECT_EQ(session->getFrameStride(), 1U);
    EXPECT_EQ(session->getNextFrameIndex(9, 1), 8U);
    beginReading();
    for (const uint64 index : {9U, 8U, 7U}) {
        EXPECT_EQ(read()->getIndex(), index);
        reader->advanceToNextFrame();
    }
    // None of them is written again.
    beginWriting();
    EXPECT_THROW(write(8, 0), std::runtime_error);
    write(10, 10);
    open();
    EXPECT_EQ(indicesInTable(), (std::vector<uint64>{9, 8, 7, 10}));
}

TEST_F(FileJournalDamageTest, AFaultInAClosedSessionKeepsTheFramesAheadOfIt) {
    record(4);
    std::string content = bytes();
    const uint64 offset = session->getFrameInfo(2)->headerOffset;
    put<zel::uint32>(content, offset + 48, 0);
    putBytes(content);
    open(FileJournal::Tolerant);
    EXPECT_EQ(contents(), (Contents{{0, 0}, {1, 1}}));
    EXPECT_EQ(session->getNumFrames(), 2U);
    EXPECT_EQ(session->getLastFrameIndex(), 1U);
    EXPECT_EQ(session->getFrameHead(), offset);
}

TEST_F(FileJournalDamageTest, FramesThatLieInTheHeaderAreNotWritten) {
    record(2);
    for (const char* offset : {"0", "34", "274", "10273"}) {
        replaceElement("frameDataOffset", offset);
        replaceElement("numFrames", "0");
        open(FileJournal::Tolerant);
        const std::string before = bytes();
        beginWriting();
        EXPECT_EQ(whatOf([&] { write(5, 5); }),
                  "FileFrameWriter: Could not write frame 5 to journal '" + path() +
                      "'. Its session header does not lie ahead of the frames.");
        EXPECT_TRUE(bytes() == before);
    }
}

// Everywhere

TEST_F(FileJournalDamageTest, CutAtAnyByteTheFramesAheadStand) {
    beQuiet();
    for (const bool isClosed : {true, false}) {
        recordModel(isClosed);
        const uint64 headerEnd = 34 + at<uint64>(bytes(), 26);
        for (uint64 size = bytes().size(); size-- > 0 && !HasFailure();) {
            std::filesystem::resize_file(path(), size);
            if (size < 34) {
                EXPECT_EQ(whatOf([&] { open(FileJournal::Tolerant); }),
                          "Failed to read journal header from '" + path() + "'.");
                continue;
            }
            // The block of the header is long: some of it will do.
            if (size > headerEnd && size < FirstFrame && size % 97 != 0)
                continue;
            const zel::size_t count = readAll();
            ASSERT_NE(session, nullptr) << size;
            zel::size_t expected = 0;
            while (expected < table.size() && endOf(expected) <= size)
                ++expected;
            EXPECT_EQ(session->getFrameTable().size(), expected) << size;
            EXPECT_EQ(count, expected) << size;
            if (expected != 0)
                expectFrames(expected);
        }
    }
}

TEST_F(FileJournalDamageTest, WithAnyByteChangedNothingBreaksAndTheFramesAheadStand) {
    beQuiet();
    recordModel(false);
    const std::string whole = bytes();
    const uint64 headerEnd = 34 + at<uint64>(whole, 26);
    const int file = ::open(path().c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(file, 0);
    const auto putByte = [file](uint64 offset, char byte) {
        ASSERT_EQ(pwrite(file, &byte, 1, static_cast<off_t>(offset)), 1);
    };
    for (const char mask : {'\x01', '\x80', '\xff'})
        for (uint64 offset = 0; offset < whole.size() && !HasFailure(); offset += zelTest::StressDivisor) {
            putByte(offset, static_cast<char>(whole[offset] ^ mask));
            SCOPED_TRACE(offset);
            if (offset < 10) {
                EXPECT_EQ(whatOf([&] { open(FileJournal::Tolerant); }),
                          "Invalid journal header '" + path() + "'");
            } else {
                const zel::size_t count = readAll();
                zel::size_t ahead = 0;
                while (ahead < table.size() && endOf(ahead) <= offset)
                    ++ahead;
                if (offset >= headerEnd && offset < FirstFrame + 5) {
                    EXPECT_EQ(count, table.size()); // the rest of the block, and the scene
                    ahead = table.size();
                }
                if (ahead != 0)
                    expectFrames(ahead);
            }
            putByte(offset, whole[offset]);
        }
    ::close(file);
    EXPECT_EQ(readAll(), table.size());
}

} // namespace
