#include "DamageFixture.h"

#include <zel/FloatingPoint.h>
#include <zelData/Array.h>
#include <zelData/EntityPtr.h>
#include <zelData/PlainElements.h>
#include <zelData/PlainFrame.h>

#include <support/Stress.h>

#include <limits>

using zel::ref_ptr;
using zel::uint64;
using zelData::Buffer;
using zelData::Frame;
using zelData::PlainElements;
using zelData::PlainFrame;
using zelData::PlainJournal;
using zelTest::whatOf;

namespace {

class PlainFrameTest : public zelTest::DamageFixture {
protected:
    static bool wantsAll(const zel::String& /*path*/) { return true; }
    ref_ptr<Buffer> texts(const zel::Name& name, std::initializer_list<zel::String> elements) {
        return makeBuffer(name, "String", elements);
    }
    /// A partial buffer of the elements at these places.
    static ref_ptr<Frame::PartialBuffer> part(const zel::Name& name,
                                              std::initializer_list<uint64> index,
                                              const ref_ptr<Buffer>& data,
                                              uint64 fullSize) {
        return ref_ptr<Frame::PartialBuffer>(
            new Frame::PartialBuffer(name, numbers("index", index).get(), data.get(), fullSize));
    }
    /// Each element of a node as text.
    static std::string textOf(const PlainFrame& frame, const char* path) {
        const PlainFrame::Node* node = frame.find(path);
        if (node == nullptr)
            return "none";
        const PlainElements elements(*node);
        std::string all;
        for (uint64 i = 0; i < elements.size(); ++i)
            all += (i == 0 ? "" : "|") + elements.text(i);
        return all;
    }
    ref_ptr<Frame> frameAt(uint64 index, bool isKeyFrame) {
        ref_ptr<Frame> frame(new Frame(index, 0.5 * static_cast<double>(index), 0.5));
        frame->setKeyFrame(isKeyFrame);
        return frame;
    }
};

TEST_F(PlainFrameTest, CompleteFramesAreThoseOfTheModelInAnyOrder) {
    std::mt19937 random(zelTest::stressSeed());
    for (int round = 0; round < 20; ++round) {
        clearModel();
        std::filesystem::remove(path());
        make();
        beginWriting();
        for (int i = 0; i < 20; ++i)
            writer->writeFrame(makeAtRandom(random, i == 0 || random() % 6 == 0).get());
        PlainJournal plain(path());
        ASSERT_EQ(plain.getFrames().size(), 20U);
        for (int i = 0; i < 60; ++i) {
            const zel::size_t place = i < 20 ? static_cast<zel::size_t>(i) : random() % 20;
            const ref_ptr<Frame> frame(plain.readComplete(place).createFrame(wantsAll));
            EXPECT_EQ(frame->getIndex(), indices[place]);
            expectState(frame.get(), between(0, place), "complete");
        }
    }
}

TEST_F(PlainFrameTest, ElementsAreShownByTheirFormats) {
    make();
    beginWriting();
    const auto frame = frameAt(0, true);
    frame->addBuffer(makeBuffer<zel::int8>("tiny", "Int:8bit", {-3, 4}).get(), "tiny");
    frame->addBuffer(makeBuffer<float>("short", "Real:32bit", {0.1F, 2}).get(), "short");
    frame->addBuffer(makeBuffer<bool>("flags", "Bool", {true, false}).get(), "flags");
    frame->addBuffer(makeBuffer<zel::Vec3d>("places", "Vec3", {zel::Vec3d(1, 2.5, -3)}).get(), "places");
    frame->addBuffer(texts("names", {"one", "", "three"}).get(), "names");
    frame->addValue(real("x", 0.1).get(), "x");
    frame->addValue(real("least", std::numeric_limits<double>::denorm_min()).get(), "least");
    writer->writeFrame(frame.get());
    PlainJournal plain(path());
    const PlainFrame& shown = plain.readComplete(0);
    EXPECT_EQ(textOf(shown, "tiny"), "-3|4");
    EXPECT_EQ(textOf(shown, "short"), "0.1|2");
    EXPECT_EQ(textOf(shown, "flags"), "true|false");
    EXPECT_EQ(textOf(shown, "places"), "1, 2.5, -3");
    EXPECT_EQ(textOf(shown, "names"), "one||three");
    EXPECT_EQ(textOf(shown, "x"), "0.1");
    EXPECT_EQ(textOf(shown, "y"), "none");
    const zel::uint32 state = zel::DenormalizationGuard::enable(); // as on threads of the system
    EXPECT_EQ(textOf(shown, "least"), "5e-324");
    zel::DenormalizationGuard::disable(state);
}

TEST_F(PlainFrameTest, UnknownFormatsAreShownAsBytes) {
    make();
    beginWriting();
    const auto frame = frameAt(0, true);
    frame->addBuffer(makeBuffer<zel::uint16>("x", "UInt:16bit", {0x1234, 1}).get(), "x");
    writer->writeFrame(frame.get());
    std::string content = bytes();
    content.replace(content.find("UInt:16bit"), 10, "UInt:17bit");
    putBytes(content);
    PlainJournal plain(path());
    const PlainFrame& shown = plain.readComplete(0);
    EXPECT_EQ(textOf(shown, "x"), "0x3412|0x0100");
    EXPECT_EQ(shown.find("x")->elementSize(), 2U);
    const ref_ptr<Frame> made(shown.createFrame(wantsAll));
    EXPECT_EQ(zelTest::elementsOf<zel::uint8>(made->getBuffer("x")),
              (std::vector<zel::uint8>{0x34, 0x12, 1, 0}));
}

TEST_F(PlainFrameTest, TextsInPartsAreMerged) {
    make();
    beginWriting();
    const auto first = frameAt(0, true);
    first->addBuffer(texts("names", {"one", "two", "three"}).get(), "names");
    writer->writeFrame(first.get());
    const auto second = frameAt(1, false);
    second->addBuffer(part("names", {1, 3}, texts("data", {"second", "fourth"}), 4).get(), "names");
    writer->writeFrame(second.get());
    const auto third = frameAt(2, false);
    third->addBuffer(part("names", {0}, texts("data", {"first"}), 2).get(), "names");
    writer->writeFrame(third.get());
    PlainJournal plain(path());
    EXPECT_EQ(textOf(plain.readComplete(1), "names"), "one|second|three|fourth");
    EXPECT_EQ(textOf(plain.readComplete(2), "names"), "first|second");
    EXPECT_EQ(textOf(plain.readComplete(0), "names"), "one|two|three");
}

TEST_F(PlainFrameTest, FramesThatDoNotFitTogetherAreTold) {
    struct Case {
        ref_ptr<Frame> increment;
        std::string told;
    };
    std::vector<Case> cases;
    const auto add = [&](const char* told) {
        cases.push_back({frameAt(1, false), "frame 1 at offset OFFSET: " + std::string(told)});
        return cases.back().increment.get();
    };
    add("x: the node does not fit to that of the frames ahead")->addBuffer(reals("x", {1}).get(), "x");
    add("x: the component does not fit to what the frames ahead hold")->addValue(real("y", 1).get(), "x.y");
    add("x: the partial buffer does not fit to what the frames ahead hold")
        ->addBuffer(partial("x", {0}, {1}, 1).get(), "x");
    add("b: the buffer has more elements than such a file can hold")
        ->addBuffer(partial("b", {0}, {1}, 0xFFFFFFFF).get(), "b");
    add("b: an element lies outside of the whole")->addBuffer(partial("b", {5}, {1}, 3).get(), "b");
    for (const Case& each : cases) {
        std::filesystem::remove(path());
        make();
        beginWriting();
        const auto first = frameAt(0, true);
        first->addValue(real("x", 1).get(), "x");
        first->addBuffer(reals("b", {1, 2}).get(), "b");
        writer->writeFrame(first.get());
        writer->writeFrame(each.increment.get());
        PlainJournal plain(path());
        std::string told = each.told;
        told.replace(told.find("OFFSET"), 6, std::to_string(plain.getFrames()[1].offset));
        EXPECT_EQ(whatOf([&] { (void)plain.readComplete(1); }), told);
        EXPECT_EQ(textOf(plain.readComplete(0), "b"), "1|2"); // which starts anew
    }
}

TEST_F(PlainFrameTest, WhatIsWrittenIsReadAgain) {
    recordModel(4);
    PlainJournal plain(path());
    const PlainFrame& frame = plain.readComplete(3);
    ref_ptr<zelData::BinaryData> header;
    ref_ptr<zelData::BinaryData> segment;
    frame.write(plain.getNames(), header, segment);
    const ref_ptr<Frame> again(zelData::SerializedFrame::extractFrame(header.get(), segment.get()));
    EXPECT_TRUE(again->isKeyFrame());
    EXPECT_EQ(again->getIndex(), indices[3]);
    expectState(again.get(), between(0, 3), "written");
}

TEST_F(PlainFrameTest, AWalkKeepsAllFramesOfAJournalInWhichOneWasTorn) {
    recordModel(6, false);
    putBytes(whole.substr(0, whole.size() - 1));
    const PlainJournal plain(path());
    EXPECT_EQ(plain.getFrames().size(), 5U);
    ASSERT_EQ(plain.getFaults().size(), 1U);
    EXPECT_EQ(plain.getFaults()[0].offset, table[5].headerOffset);
    EXPECT_EQ(plain.getFaults()[0].text, "the file is cut off within the frame");
    EXPECT_EQ(whatOf([&] { const PlainJournal none(directory.path("none")); }),
              "There is no file '" + directory.path("none") + "'.");
    directory.write("text", "text");
    EXPECT_EQ(whatOf([&] { const PlainJournal none(directory.path("text")); }),
              "'" + directory.path("text") + "' is no journal.");
}

} // namespace
