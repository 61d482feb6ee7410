#include "DamageFixture.h"

#include <zel/Notify.h>
#include <zelData/JournalCheck.h>
#include <zelData/JournalDiff.h>
#include <zelData/PlainElements.h>

#include <sys/stat.h>

using zel::uint32;
using zel::uint64;
using zelData::PlainElements;
using zelData::PlainJournal;
using zelTest::whatOf;

namespace {

constexpr uint32 None = 0xFFFFFFFFU;

std::string words(std::initializer_list<uint32> numbers) {
    std::string text;
    for (const uint32 number : numbers)
        text.append(reinterpret_cast<const char*>(&number), sizeof(number));
    return text;
}

/// Small files that are made so that much would come of them.
class PlainJournalTest : public zelTest::DamageFixture {
protected:
    void SetUp() override {
        DamageFixture::SetUp();
        zel::Notify::instance()->setNotifyLevel(zel::Notify::Error);
        make();
        content = bytes();
    }
    static std::string namesOf(const std::vector<std::string>& names) {
        std::string text = words({static_cast<uint32>(names.size()), 0});
        for (const std::string& name : names)
            text += words({static_cast<uint32>(name.size())}) + name;
        return text + words({None});
    }
    static std::string component(uint32 name, uint32 count, const std::string& children) {
        return words({2, 0, name, count}) + children + words({None});
    }
    /// A frame behind those ahead. An increment adds no names.
    void addFrame(uint64 index,
                  bool isKeyFrame,
                  const std::string& names,
                  const std::string& nodes,
                  const std::string& data,
                  uint64 dataSize) {
        const std::string rest = names + words({0, None}) + nodes;
        zelData::SerializedFrame::BinaryHeader::Frame record{};
        record.index = index;
        record.isKeyFrame = isKeyFrame ? 1 : 0;
        record.headerSize = sizeof(record) + rest.size();
        record.dataSize = dataSize;
        record.endTag = None;
        content.append(reinterpret_cast<const char*>(&record), sizeof(record)).append(rest);
        content.resize((content.size() + 31) / 32 * 32);
        content += data;
    }
    zelData::JournalReport verify() {
        putBytes(content);
        return zelData::verifyJournal(path());
    }

    std::string content;
};

TEST_F(PlainJournalTest, ChecksumsThatAreNoFileAreNone) {
    recordModel(4);
    ASSERT_EQ(mkfifo((path() + ".sums").c_str(), 0600), 0); // to read it would wait for a writer
    EXPECT_TRUE(zelData::verifyJournal(path()).isWhole());
    open();
    EXPECT_TRUE(session->truncate(table[2].index)); // with a warning
    std::filesystem::remove(path());
    make();
    beginWriting();
    writer->setChecksums(true);
    write(1, 1);
    std::filesystem::remove(path() + ".sums");
    ASSERT_EQ(mkfifo((path() + ".sums").c_str(), 0600), 0);
    write(2, 1);
    EXPECT_FALSE(writer->hasChecksums());
}

TEST_F(PlainJournalTest, FramesThatLieWithinEachOtherAreNotAllRead) {
    constexpr uint64 numFrames = 8000; // each of which reaches to the end of the file
    constexpr uint64 each = 160;
    const std::string nodes = component(None, 1, words({0, 0, 7, None, 0, 0})); // there is no such name
    for (uint64 i = 0; i < numFrames; ++i) {
        addFrame(i, true, words({0, 0, None}), nodes, {}, (numFrames - i) * each);
        content.resize(FirstFrame + (i + 1) * each);
    }
    content.resize((FirstFrame + 120 + 31) / 32 * 32 + numFrames * each);
    const auto report = verify();
    EXPECT_EQ(report.numFrames, 0U);
    EXPECT_GT(report.faults.size(), 2U);
    EXPECT_LT(report.faults.size(), numFrames / 4);
}

TEST_F(PlainJournalTest, BuffersGrowTogetherNoFurtherThanOneWould) {
    // The names are 0: "UInt:8bit", 1: "index", 2: "data", 3: "UInt:64bit", 4 to 6: the buffers.
    const std::string names = namesOf({"UInt:8bit", "index", "data", "UInt:64bit", "a", "b", "c"});
    std::string buffers;
    std::string parts;
    for (const uint32 name : {4U, 5U, 6U}) {
        buffers += words({1, 0, name, 0, 1, 8 * name, 1});
        parts += words({4, 0, name, 2, 0, 1, 40U << 20}) + words({1, 0, 1, 3, 8, 16 * name, 1}) +
                 words({1, 0, 2, 0, 1, 16 * name + 8, 1}) + words({None});
    }
    addFrame(0, true, names, component(None, 3, buffers), std::string(64, '\0'), 64);
    addFrame(1, false, words({0, 7, None}), component(None, 3, parts), std::string(128, '\0'), 128);
    const auto report = verify();
    ASSERT_EQ(report.faults.size(), 1U);
    EXPECT_EQ(report.faults[0].text, "b: the frame has more elements than such a file can hold");
}

TEST_F(PlainJournalTest, AnArrayThatTellsItsElementsTwiceIsNotToldInFull) {
    // Arrays of arrays, each of which holds both of the next one: 2 to the 200 numbers.
    constexpr uint32 depth = 200;
    const std::string names = namesOf({"Array<Real:64bit>", "range", "UInt:32bit[2]", "elements", "x"});
    std::string nodes;
    for (uint32 i = 0; i < depth; ++i)
        nodes += words({3, 0, i == 0 ? 4U : 3U, 2, 0, 2}) + words({1, 0, 1, 2, 16, 0, 2});
    nodes += words({1, 0, 3, 2, 16, 0, 2});
    for (uint32 i = 0; i < depth; ++i)
        nodes += words({None});
    addFrame(0, true, names, component(None, 1, nodes), words({0, 2, 0, 2}), 16);
    putBytes(content);
    PlainJournal plain(path());
    const auto* node = plain.readComplete(0).find(zel::Path("x"));
    ASSERT_NE(node, nullptr);
    const PlainElements elements(*node);
    EXPECT_LT(elements.text(0).size(), 20000U);
    EXPECT_FALSE(elements.differs(0, elements, 0));
}

TEST_F(PlainJournalTest, AnArrayThatTellsOneTextManyTimesIsNotToldInFull) {
    constexpr uint32 count = 1000;
    const std::string names =
        namesOf({"Array<String>", "range", "UInt:32bit[2]", "elements", "characters", "UInt:8bit", "x"});
    const std::string nodes = words({3, 0, 6, 2, 0, 1,     1, 0, 1, 2, 8,         0, 1,
                                     3, 0, 3, 2, 0, count, 1, 0, 1, 2, 8 * count, 8, count}) +
                              words({1, 0, 4, 5, count, 8 + 8 * count, count, None, None});
    std::string data = words({0, count});
    for (uint32 i = 0; i < count; ++i)
        data += words({0, count}); // the whole of the text
    data.append(count, 'c');
    addFrame(0, true, names, component(None, 1, nodes), data, data.size());
    putBytes(content);
    PlainJournal plain(path());
    const PlainElements elements(*plain.readComplete(0).find(zel::Path("x")));
    const std::string text = elements.text(0);
    EXPECT_EQ(text.substr(0, count + 3), "[" + std::string(count, 'c') + ", ");
    EXPECT_LT(text.size(), 20000U);
}

TEST_F(PlainJournalTest, LongPathsAreToldInShort) {
    const std::string name(5000, 'n');
    std::string nodes = words({0, 0, 0, 1, 4, 0}); // a number of 8 bytes
    for (int i = 0; i < 4; ++i)
        nodes = component(0, 1, nodes);
    addFrame(0, true, namesOf({name, "Real:64bit"}), component(None, 1, nodes), std::string(4, '\0'), 4);
    const auto report = verify();
    ASSERT_EQ(report.faults.size(), 1U);
    EXPECT_EQ(report.faults[0].text,
              name.substr(0, 4096) + "...: its elements have another size than those of its format");
}

TEST_F(PlainJournalTest, FramesWithLongerPathsThanAnyAreNotCompared) {
    constexpr uint32 depth = 400;
    std::string nodes;
    for (uint32 i = 0; i < 200; ++i)
        nodes += words({0, i, 0, 1, 0, 0});
    nodes = component(0, 200, nodes);
    for (uint32 i = 0; i < depth; ++i)
        nodes = component(0, 1, nodes);
    addFrame(0, true, namesOf({std::string(50000, 'n'), "f"}), component(None, 1, nodes), {}, 0);
    putBytes(content);
    const std::string fault = "frame 0: the paths of its nodes are longer than those of such a file can be";
    EXPECT_EQ(whatOf([&] { (void)zelData::diffJournals(path(), path(), 0); }), fault);
    PlainJournal plain(path());
    const zel::ref_ptr<zelData::Frame> frame(plain.readComplete(0).createFrame([](const zel::String& asked) {
        EXPECT_LE(asked.size(), 1U << 20);
        return false;
    }));
    EXPECT_EQ(frame->getIndex(), 0U);
}

TEST_F(PlainJournalTest, NodesAreFoundAmongManyOthers) {
    // Each frame holds them in another order, and one more.
    constexpr uint32 count = 3000;
    std::vector<std::string> names{"UInt:8bit"};
    for (uint32 i = 0; i <= count; ++i)
        names.push_back("n" + std::to_string(i));
    std::string data(count + 1, '\0');
    std::string first;
    std::string second;
    for (uint32 i = 0; i <= count; ++i) {
        data[i] = static_cast<char>(i % 101);
        if (i != count)
            first += words({0, 0, 1 + i, 0, 1, i});
        second += words({0, 0, 1 + count - i, 0, 1, i});
    }
    addFrame(0, true, namesOf(names), component(None, count, first), data, data.size());
    second += words({0, 0, 1 + count, 0, 1, count}); // once more: what is told last counts
    addFrame(1, false, words({0, count + 2, None}), component(None, count + 2, second), data, data.size());
    putBytes(content);
    PlainJournal plain(path());
    const auto& frame = plain.readComplete(1);
    ASSERT_EQ(frame.getRoot().children.size(), count + 1U);
    EXPECT_EQ(*frame.find(zel::Path("n" + std::to_string(count)))->bytes(), count % 101);
    for (uint32 i = 0; i < count; ++i)
        ASSERT_EQ(*frame.find(zel::Path("n" + std::to_string(i)))->bytes(), (count - i) % 101);
}

} // namespace

// Parts of frames

namespace {

/// The paths of all nodes with elements of their own, and their bytes.
void listElements(const zelData::PlainFrame::Node& node,
                  const std::string& path,
                  std::vector<std::pair<std::string, std::string>>& list) {
    for (const auto& child : node.children) {
        const std::string name = path.empty() ? child.name.c_str() : path + "." + child.name.c_str();
        if (child.hasChildren())
            listElements(child, name, list);
        else
            list.emplace_back(name,
                              child.numBytes == 0 ? ""
                                                  : std::string(reinterpret_cast<const char*>(child.bytes()),
                                                                child.numBytes));
    }
}

class PlainPartTest : public zelTest::DamageFixture {
protected:
    static std::vector<std::pair<std::string, std::string>> elementsOf(const zelData::PlainFrame& frame) {
        std::vector<std::pair<std::string, std::string>> list;
        listElements(frame.getRoot(), "", list);
        return list;
    }
};

} // namespace

TEST_F(PlainPartTest, MergeToTheSameAsWholeFrames) {
    recordModel(24);
    PlainJournal complete(path());
    const PlainJournal parts(path());
    const auto isWanted = [](const zel::String& path) { return path.find("index") == zel::String::npos; };
    zelData::PlainFrame state;
    zelData::PlainFrame::Names names;
    for (zel::size_t place = 0; place < 24; ++place) {
        state.merge(parts.readPart(place, isWanted, names), parts.getMaxBytes());
        const zelData::PlainFrame& expected = complete.readComplete(place);
        EXPECT_EQ(elementsOf(state), elementsOf(expected.getPart(isWanted))) << place;
        EXPECT_FALSE(elementsOf(state).empty());
        EXPECT_EQ(state.getRecord().index, expected.getRecord().index);
    }
}

TEST_F(PlainPartTest, ReadNoMoreThanIsWanted) {
    record(2);
    const PlainJournal plain(path());
    zelData::PlainFrame::Names names;
    EXPECT_TRUE(elementsOf(plain.readPart(
                               0, [](const zel::String&) { return false; }, names))
                    .empty());
    EXPECT_FALSE(elementsOf(plain.readPart(
                                0, [](const zel::String&) { return true; }, names))
                     .empty());
    std::filesystem::resize_file(path(),
                                 plain.getFrames()[1].dataOffset); // the elements of the last are gone
    EXPECT_TRUE(elementsOf(plain.readPart(
                               1, [](const zel::String&) { return false; }, names))
                    .empty());
    EXPECT_THAT(whatOf([&] {
                    (void)plain.readPart(
                        1, [](const zel::String&) { return true; }, names);
                }),
                testing::HasSubstr("the data of a frame can not be read"));
    EXPECT_EQ(whatOf([&] {
                  (void)plain.readPart(
                      2, [](const zel::String&) { return true; }, names);
              }),
              "the journal has no such frame");
}

TEST_F(PlainPartTest, AreFoundByTheirRecordsWithoutAScan) {
    recordModel(8);
    const zel::uint64 cut = table[5].dataOffset;
    putBytes(whole.substr(0, cut));
    const PlainJournal closed(path(), PlainJournal::Search::Records);
    EXPECT_EQ(closed.getFrames().size(), 5U);
    ASSERT_EQ(closed.getFaults().size(), 1U);
    EXPECT_EQ(closed.getFaults()[0].offset, table[5].headerOffset);
    EXPECT_EQ(closed.getFaults()[0].text, "the frames that the session header tells of end here");

    recordModel(8, false);
    putBytes(whole.substr(0, cut)); // as while the sixth is being written
    const PlainJournal open(path(), PlainJournal::Search::Records);
    EXPECT_EQ(open.getFrames().size(), 5U);
    EXPECT_TRUE(open.getFaults().empty());
}

TEST_F(PlainPartTest, FramesThatAreWrittenLaterAreTakenIn) {
    recordModel(12, false);
    putBytes(whole.substr(0, endOf(4) + 20)); // as while the sixth is being written
    PlainJournal plain(path(), PlainJournal::Search::Records);
    ASSERT_EQ(plain.getFrames().size(), 5U);
    const auto fifth = elementsOf(plain.readComplete(4));
    for (const zel::size_t numFrames : {5UL, 6UL, 11UL, 12UL}) {
        putBytes(whole.substr(0, endOf(numFrames - 1)));
        ASSERT_TRUE(plain.refresh());
        EXPECT_EQ(plain.getFrames().size(), numFrames);
        EXPECT_EQ(plain.getEndOfFrames(), endOf(numFrames - 1));
        EXPECT_TRUE(plain.getFaults().empty());
    }
    EXPECT_EQ(elementsOf(plain.readComplete(4)), fifth);
    PlainJournal fresh(path());
    for (const zel::size_t place : {11UL, 6UL, 7UL})
        EXPECT_EQ(elementsOf(plain.readComplete(place)), elementsOf(fresh.readComplete(place))) << place;
    EXPECT_FALSE(plain.isClosed());
    recordModel(12);
    EXPECT_FALSE(plain.refresh()) << "the file was made anew";
}

TEST_F(PlainPartTest, ARefreshSeesThatTheJournalWasClosed) {
    recordModel(6, false);
    PlainJournal plain(path(), PlainJournal::Search::Records);
    EXPECT_FALSE(plain.isClosed());
    writer->endOfStream();
    ASSERT_TRUE(plain.refresh());
    EXPECT_TRUE(plain.isClosed());
    EXPECT_EQ(plain.getFrames().size(), 6U);
    putBytes(whole.substr(0, endOf(2)));
    EXPECT_FALSE(plain.refresh()) << "the last frame has gone";
    EXPECT_EQ(plain.getFrames().size(), 6U);
    EXPECT_THROW((void)plain.readComplete(5), std::runtime_error);
}

TEST_F(PlainPartTest, ARefreshSeesOtherFramesInTheirPlace) {
    recordModel(6, false);
    PlainJournal plain(path(), PlainJournal::Search::Records);
    std::string other = whole;
    put<double>(other, table[5].headerOffset + 8, 77.5); // its time
    putBytes(other);
    EXPECT_FALSE(plain.refresh());
    putBytes(whole);
    EXPECT_TRUE(plain.refresh());
    putBytes("something else, which is no journal" + std::string(whole.size(), 'x'));
    EXPECT_FALSE(plain.refresh());
    std::filesystem::remove(path());
    EXPECT_FALSE(plain.refresh());
}

TEST_F(PlainPartTest, AJournalWithoutFramesGetsItsFirstOnes) {
    recordModel(4, false);
    putBytes(whole.substr(0, table[0].headerOffset));
    PlainJournal plain(path(), PlainJournal::Search::Records);
    EXPECT_TRUE(plain.getFrames().empty());
    EXPECT_TRUE(plain.refresh());
    EXPECT_TRUE(plain.getFrames().empty());
    putBytes(whole);
    EXPECT_TRUE(plain.refresh());
    EXPECT_EQ(plain.getFrames().size(), 4U);
}
