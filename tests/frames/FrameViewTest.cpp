#include "JournalFixture.h"

#include <zelData/FrameView.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>

// Frames where they lie in the file.

using zel::uint64;
using zelData::FrameView;
using zelTest::frameOf;
using zelTest::whatOf;

namespace {

class FrameViewTest : public zelTest::JournalFixture {
protected:
    /// Key frames at the multiples of four; each frame brings a name of its own, and a column.
    void recordGroups(uint64 numFrames, bool isClosed = true) {
        make("a scene of odd length");
        beginWriting();
        for (uint64 i = 0; i < numFrames; ++i)
            writer->writeFrame(groupedFrame(i).get());
        if (isClosed)
            writer->endOfStream();
        open();
    }
    [[nodiscard]] zel::ref_ptr<zelData::Frame> groupedFrame(uint64 i) const {
        zel::ref_ptr<zelData::Frame> frame = frameOf(i, static_cast<double>(i), i % 4 == 0);
        const zel::Name name("own" + std::to_string(i));
        frame->addValue(real(name, static_cast<double>(i)).get(), name);
        const zel::ref_ptr<zelData::Buffer> column(new zelData::Buffer("b", zelData::getFormat("UInt:8bit")));
        column->resize(i + 1);
        std::fill_n(column->data<zel::uint8>(), i + 1, static_cast<zel::uint8>(i));
        frame->addBuffer(column.get(), "c.b");
        return frame;
    }
    static void expectShown(const FrameView& view, uint64 index) {
        EXPECT_EQ(view.getFrame().getRecord().index, index);
        EXPECT_EQ(view.getElements<double>("value")[0], static_cast<double>(index));
        EXPECT_EQ(view.getElements<double>("own" + std::to_string(index))[0], static_cast<double>(index));
        const auto column = view.getElements<zel::uint8>("c.b");
        ASSERT_EQ(column.size(), index + 1);
        EXPECT_EQ(column.back(), index);
    }
};

} // namespace

TEST_F(FrameViewTest, ShowsEachFrameFromAnyOther) {
    recordGroups(12);
    FrameView view(session.get());
    for (uint64 from = 0; from < 12; ++from)
        for (uint64 to = 0; to < 12; ++to) {
            ASSERT_TRUE(view.show(from));
            ASSERT_TRUE(view.show(to));
            expectShown(view, to);
        }
}

TEST_F(FrameViewTest, UnknownFramesChangeNothing) {
    recordGroups(3);
    FrameView view(session.get());
    EXPECT_FALSE(view.show(3));
    EXPECT_TRUE(view.getFrame().getRoot().children.empty());
    ASSERT_TRUE(view.show(2));
    EXPECT_FALSE(view.show(3));
    EXPECT_FALSE(view.show(zel::InvalidIndex));
    expectShown(view, 2);
}

TEST_F(FrameViewTest, CopiesNothing) {
    recordGroups(3);
    FrameView view(session.get());
    ASSERT_TRUE(view.show(1));
    const zel::uint8* column = view.getElements<zel::uint8>("c.b").data();
    ASSERT_TRUE(view.show(1));
    EXPECT_EQ(view.getElements<zel::uint8>("c.b").data(), column);
    // The file's own pages: what is written there shows.
    std::fstream file(path(), std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(session->getFrameInfo(1)->dataOffset + view.find("c.b")->offset));
    file.put(99).flush();
    ASSERT_TRUE(file.good());
    EXPECT_EQ(*column, 99);
}

TEST_F(FrameViewTest, FramesThatAreHeldOutliveTheView) {
    recordGroups(3);
    zelData::PlainFrame held;
    {
        FrameView view(session.get());
        ASSERT_TRUE(view.show(2));
        held = view.getFrame();
        ASSERT_TRUE(view.show(0));
    }
    EXPECT_EQ(held.find("c.b")->bytes()[2], 2);
}

TEST_F(FrameViewTest, FollowsAJournalThatGrows) {
    recordGroups(2, false);
    FrameView view(session.get());
    ASSERT_TRUE(view.show(1));
    const auto first = view.getFrame();
    {
        const zel::ref_ptr<FileJournal> other(new FileJournal(path()));
        const zel::ref_ptr<FileFrameWriter> more(
            new FileFrameWriter(FileJournal::downcastSession(other->getSessions().front())));
        for (uint64 i = 4; i < 7; ++i)
            more->writeFrame(groupedFrame(i).get());
    }
    EXPECT_FALSE(view.show(6));
    EXPECT_EQ(session->refresh(), 3U);
    ASSERT_TRUE(view.show(6));
    expectShown(view, 6);
    EXPECT_EQ(first.find("c.b")->bytes()[1], 1);
}

TEST_F(FrameViewTest, ElementsAreOfTheSizeThatIsAskedFor) {
    recordGroups(1);
    FrameView view(session.get());
    ASSERT_TRUE(view.show(0));
    EXPECT_EQ(whatOf([&] { (void)view.getElements<float>("value"); }),
              "FrameView: The elements of 'value' have 8 bytes, and not 4");
    for (const char* path : {"nothing", "c", "c.b.x"})
        EXPECT_EQ(whatOf([&] { (void)view.getElements<double>(path); }),
                  std::string("FrameView: There is no value or plain buffer at '") + path + "'");
}

TEST_F(FrameViewTest, DamagedFramesAreToldAndOthersStand) {
    recordGroups(3);
    std::string content = bytes();
    put<zel::uint32>(content, session->getFrameInfo(1)->headerOffset + 60, 1U);
    putBytes(content);
    FrameView view(session.get());
    EXPECT_EQ(whatOf([&] { (void)view.show(1); }),
              "FrameView: Frame 1 of '" + path() +
                  "' is damaged: the ids of names do not go on, at byte 64 of the header");
    EXPECT_TRUE(view.getFrame().getRoot().children.empty());
    ASSERT_TRUE(view.show(0));
    expectShown(view, 0);
    putBytes(content.substr(0, session->getFrameInfo(2)->dataOffset));
    FrameView other(session.get());
    EXPECT_EQ(whatOf([&] { (void)other.show(2); }),
              "FrameView: The frames of '" + path() + "' reach behind the end of the file");
    std::filesystem::remove(path());
    FrameView third(session.get());
    EXPECT_EQ(whatOf([&] { (void)third.show(0); }),
              "FrameView: Could not open journal file '" + path() + "': No such file or directory");
}
