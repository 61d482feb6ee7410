#include "DamageFixture.h"

#include <zel/Notify.h>
#include <zelData/JournalCheck.h>

#include <fstream>

using zel::uint64;
using zelData::JournalReport;
using zelData::PlainJournal;
using zelData::verifyJournal;

namespace {

class JournalCheckTest : public zelTest::DamageFixture {
protected:
    void SetUp() override {
        DamageFixture::SetUp();
        zel::Notify::instance()->setNotifyLevel(zel::Notify::Error);
    }
    JournalReport verify() { return verifyJournal(path()); }
    /// The faults, each with its offset.
    static std::string faultsOf(const JournalReport& report) {
        std::string all;
        for (const auto& fault : report.faults)
            all += std::to_string(fault.offset) + ": " + fault.text + "\n";
        return all;
    }
    /// One frame, whose header stands as bytes, in a session that was never closed.
    void putFrame(std::string names, std::string nodes, uint64 dataSize) {
        make();
        std::string content = bytes();
        const std::string events("\0\0\0\0\xFF\xFF\xFF\xFF", 8);
        zelData::SerializedFrame::BinaryHeader::Frame record{};
        record.isKeyFrame = 1;
        record.headerSize = sizeof(record) + names.size() + events.size() + nodes.size();
        record.dataSize = dataSize;
        record.endTag = 0xFFFFFFFFU;
        content.append(reinterpret_cast<const char*>(&record), sizeof(record));
        content += names + events + nodes;
        content.resize((content.size() + 31) / 32 * 32 + dataSize);
        putBytes(content);
    }
    static std::string words(std::initializer_list<zel::uint32> numbers) {
        std::string text;
        for (const zel::uint32 number : numbers)
            text.append(reinterpret_cast<const char*>(&number), sizeof(number));
        return text;
    }
    /// Writes over a part of the file, which is far faster than to write all of it.
    void patch(uint64 offset, const std::string& content) const {
        std::fstream file(path(), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(offset))
            .write(content.data(), static_cast<std::streamsize>(content.size()));
        EXPECT_TRUE(file.good());
    }
    static constexpr zel::uint32 None = 0xFFFFFFFFU;
};

TEST_F(JournalCheckTest, AWholeJournalHasNoFault) {
    for (const bool isClosed : {true, false}) {
        recordModel(10, isClosed, false, "a scene");
        const JournalReport report = verify();
        EXPECT_EQ(faultsOf(report), "");
        EXPECT_TRUE(report.isWhole());
        EXPECT_EQ(report.isClosed, isClosed);
        EXPECT_EQ(report.fileSize, whole.size());
        EXPECT_EQ(report.numFrames, 10U);
        EXPECT_EQ(report.numKeyFrames, 3U);
        EXPECT_GT(report.totals.numNodes, 40U);
        EXPECT_EQ(report.totals.numSums, 0U);
    }
}

TEST_F(JournalCheckTest, AJournalWithoutSessionAndOneWithoutFramesAreWhole) {
    journal = new FileJournal(path());
    EXPECT_TRUE(verify().isWhole());
    std::filesystem::remove(path());
    make();
    EXPECT_TRUE(verify().isWhole());
    EXPECT_EQ(verify().numFrames, 0U);
}

TEST_F(JournalCheckTest, FilesThatAreNoJournalAreTold) {
    EXPECT_EQ(faultsOf(verify()), "0: There is no file '" + path() + "'.\n");
    putBytes("");
    EXPECT_EQ(faultsOf(verify()), "0: the file does not begin as a journal\n");
    EXPECT_FALSE(verify().isJournal);
    putBytes(std::string(50000, 'x'));
    EXPECT_FALSE(verify().isJournal);
}

TEST_F(JournalCheckTest, ChecksumsAreWrittenWhenAskedFor) {
    recordModel(10, true, true);
    EXPECT_EQ(verify().totals.numSums, 10U);
    EXPECT_TRUE(verify().isWhole());
    EXPECT_EQ(std::filesystem::file_size(path() + ".sums"), 16U + 10 * 32);
    recordModel(10); // the journal is made anew, without
    EXPECT_FALSE(std::filesystem::exists(path() + ".sums"));
}

TEST_F(JournalCheckTest, AMissingTailOfChecksumsIsNoFault) {
    recordModel(6, true, true);
    const uint64 size = std::filesystem::file_size(path() + ".sums");
    for (uint64 length = size; length-- > 0;) {
        std::filesystem::resize_file(path() + ".sums", length);
        const JournalReport report = verify();
        ASSERT_TRUE(report.isWhole()) << length;
        ASSERT_EQ(report.totals.numSums, length < 16 ? 0 : (length - 16) / 32);
    }
}

TEST_F(JournalCheckTest, TruncationCutsTheChecksumsToo) {
    recordModel(10, true, true);
    open();
    session->truncate(table[5].index);
    EXPECT_EQ(std::filesystem::file_size(path() + ".sums"), 16U + 5 * 32);
    EXPECT_TRUE(verify().isWhole());
    // Whoever goes on without checksums leaves frames without any.
    beginWriting();
    write(1000, 1);
    writer->endOfStream();
    EXPECT_EQ(faultsOf(verify()), "");
    EXPECT_EQ(verify().numFrames, 6U);
    EXPECT_EQ(verify().totals.numSums, 5U);
}

TEST_F(JournalCheckTest, ChecksumsThatCannotBeWrittenEndWithAWarning) {
    make();
    beginWriting();
    writer->setChecksums(true);
    write(2, 1);
    std::filesystem::remove(path() + ".sums");
    std::filesystem::create_directory(path() + ".sums");
    zel::Notify::instance()->setNotifyLevel(zel::Notify::Warning);
    const zelTest::LogCapture log;
    write(3, 1);
    EXPECT_EQ(log.text(),
              "Journal '" + path() + "': from frame 3 on there are no checksums, since '" + path() +
                  ".sums' can not be written\n");
    EXPECT_FALSE(writer->hasChecksums());
    write(4, 1);
    EXPECT_TRUE(verify().isWhole());
    EXPECT_EQ(verify().numFrames, 3U);
}

TEST_F(JournalCheckTest, EveryByteOfTheHeadersMayBeFlippedAndNoFrameIsLost) {
    recordModel(5);
    const uint64 endOfText = 34 + at<uint64>(whole, 26);
    for (const char flip : {'\x01', '\xFF'}) // the rest of the block is zeros
        for (uint64 offset = 0; offset < (flip == '\x01' ? uint64{10240} : endOfText); ++offset) {
            patch(offset, {static_cast<char>(whole[offset] ^ flip)});
            const JournalReport report = verify();
            ASSERT_EQ(report.numFrames, 5U) << offset << '\n' << faultsOf(report);
            patch(offset, {whole[offset]});
        }
}

TEST_F(JournalCheckTest, EveryByteOfTheFramesThatIsFlippedIsFoundByItsChecksum) {
    recordModel(5, true, true);
    for (zel::size_t place = 0; place < table.size(); ++place)
        for (uint64 offset = table[place].headerOffset; offset < endOf(place); ++offset) {
            const bool isPadding = offset >= table[place].headerOffset + table[place].meta.headerSize &&
                                   offset < table[place].dataOffset;
            patch(offset, {static_cast<char>(whole[offset] ^ 0x10)});
            const JournalReport report = verify();
            patch(offset, {whole[offset]});
            ASSERT_EQ(report.isWhole(), isPadding) << offset;
            ASSERT_LE(report.numFrames, 5U);
        }
}

TEST_F(JournalCheckTest, WithoutChecksumsFlippedBytesNeverEndTheProcess) {
    recordModel(6, false);
    for (const char flip : {'\x01', '\x80', '\xFF'})
        for (uint64 offset = FirstFrame; offset < whole.size(); ++offset) {
            patch(offset, {static_cast<char>(whole[offset] ^ flip)});
            ASSERT_LE(verify().numFrames, 6U) << offset;
            patch(offset, {whole[offset]});
        }
}

TEST_F(JournalCheckTest, EachFieldMayLie) {
    recordModel(6, false);
    const uint64 all = ~uint64{0};
    for (const uint64 lie : {uint64{0}, all, all / 2, whole.size(), uint64{0xFFFFFFFF}, uint64{1}})
        for (uint64 offset = FirstFrame; offset + 8 <= table[1].dataOffset; ++offset)
            for (const zel::size_t size : {4U, 8U}) {
                patch(offset, {reinterpret_cast<const char*>(&lie), size});
                ASSERT_LE(verify().numFrames, 6U) << offset;
                patch(offset, whole.substr(offset, size));
            }
}

TEST_F(JournalCheckTest, NodesThatLieTooDeepAreTold) {
    for (const zel::uint32 depth : {513U, 100000U}) {
        std::string nodes;
        for (zel::uint32 i = 0; i < depth; ++i)
            nodes += words({2, None, None, i + 1 < depth ? 1U : 0U});
        for (zel::uint32 i = 0; i < depth; ++i)
            nodes += words({None});
        std::filesystem::remove(path());
        putFrame(words({0, 0, None}), nodes, 0);
        const JournalReport report = verify();
        ASSERT_EQ(report.faults.size(), 1U);
        EXPECT_EQ(report.faults[0].offset, FirstFrame);
        EXPECT_EQ(report.faults[0].text.substr(0, 29), "nodes lie more than 512 deep,");
    }
}

TEST_F(JournalCheckTest, FormatsAndEntitiesThatDoNotExistAreNoFault) {
    recordModel(6, false);
    std::string content = whole;
    for (const auto& [known, foreign] :
         {std::pair<std::string, std::string>{"Real:64bit", "Rxal:64bit"}, {"Bodies", "Bxdies"}})
        for (auto at = content.find(known, FirstFrame); at != std::string::npos; at = content.find(known, at))
            content.replace(at, known.size(), foreign);
    putBytes(content);
    const JournalReport report = verify();
    EXPECT_EQ(faultsOf(report), "");
    EXPECT_EQ(report.numFrames, 6U);
}

TEST_F(JournalCheckTest, FaultsOfNodesAreToldWithTheirPlace) {
    struct Case {
        std::string nodes;
        std::string told;
    };
    // The names are 0: "x", 1: "Real:64bit", 2: "index", 3: "data", 4: "UInt:64bit".
    std::string names = words({5, 0});
    for (const std::string name : {"x", "Real:64bit", "index", "data", "UInt:64bit"})
        names += words({static_cast<zel::uint32>(name.size())}) + name;
    names += words({None});
    const auto rootOf = [](const std::string& children, zel::uint32 count) {
        return words({2, None, None, count}) + children + words({None});
    };
    const std::string value = words({0, 1, 0, 1, 8, 0});
    const std::vector<Case> cases{
        {rootOf(words({0, 1, 0, 1, 8, 9}), 1),
         "elements lie outside of the data segment, at byte 166 of the header"},
        {rootOf(words({0, 1, 0, 1, 8, None}), 1),
         "elements lie outside of the data segment, at byte 166 of the header"},
        {rootOf(words({0, 1, 0, 1, 4, 0}), 1), "x: its elements have another size than those of its format"},
        {rootOf(words({0, 1, 9, 1, 8, 0}), 1), "a name is not known, at byte 154 of the header"},
        {rootOf(words({6, 1, 0, 1, 8, 0}), 1), "a node is of no known type, at byte 146 of the header"},
        {rootOf(words({1, 1, 0, 1, 16, 0, 3}), 1),
         "a number of bytes is no multiple of that of elements, at byte 170 of the header"},
        {rootOf(value + value, 2), "the elements of two nodes overlap at byte 0 of the data segment"},
        {rootOf(value, 2), "a node has more children than the header, at byte 142 of the header"},
        {rootOf(value, 100), "a node has more children than the header, at byte 142 of the header"},
        {rootOf(value, 1) + words({1}), "bytes follow the last node, at byte 170 of the header"},
        {value, "the root is no component, at byte 150 of the header"},
        {rootOf(words({4, 1, 0, 2, 1, 1, 9, 1, 1, 2, 4, 8, 0, 1, 1, 1, 3, 1, 8, 8, 1, None}), 1),
         "x: a key frame holds a partial buffer"},
        {rootOf(words({3, 1, 0, 0, 1, 4, None}), 1), "x: a part of the buffer lacks"},
    };
    for (const Case& each : cases) {
        std::filesystem::remove(path());
        putFrame(names, each.nodes, 16);
        const JournalReport report = verify();
        EXPECT_EQ(report.faults.size(), 1U) << each.told;
        EXPECT_EQ(faultsOf(report), std::to_string(FirstFrame) + ": " + each.told + "\n");
        EXPECT_EQ(report.numFrames, 0U);
    }
}

} // namespace
