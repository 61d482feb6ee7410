#include "FrameFixture.h"

#include <zelData/FrameIO.h>

#include <support/StreamCapture.h>

#include <iostream>

using zel::ref_ptr;
using zelData::DebugFrameWriter;
using zelData::Frame;
using zelData::FrameIO;
using zelData::FrameReader;
using zelData::SerializedFrame;

namespace {

class NoReader : public FrameReader {
public:
    using FrameReader::FrameReader;
    Frame* readFrame() override { return nullptr; }
};

class FrameIOTest : public zelTest::FrameFixture {
protected:
    static std::vector<std::string> bindingsOf(const FrameIO& io) {
        std::vector<std::string> texts;
        for (const auto& binding : io.getDataBindings())
            texts.push_back(binding->getInternalPath().str() + ">" + binding->getExternalPath().str() +
                            (binding->isRecursive() ? "+" : ""));
        return texts;
    }
};

TEST_F(FrameIOTest, ReadersHaveTheToldDefaults) {
    const ref_ptr<NoReader> reader(new NoReader);
    EXPECT_EQ(reader->getNextFrameIndex(), 0U);
    EXPECT_FALSE(reader->jumpToFrame(0));
    EXPECT_FALSE(reader->jumpToTime(0));
    EXPECT_TRUE(reader->shouldExtract("a.b"));
    EXPECT_EQ(reader->getTimeStep(), -1.0);
    EXPECT_EQ(reader->getFrameStride(), 1U);
    EXPECT_TRUE(reader->isThreaded());
    EXPECT_FALSE(reader->isEOF());
    EXPECT_EQ(reader->getTrack(), nullptr);
    EXPECT_EQ(reader->getHeaderFormat(), SerializedFrame::INVALID);
    reader->setHeaderFormat(SerializedFrame::BINARY_HEADER);
    EXPECT_EQ(reader->getHeaderFormat(), SerializedFrame::BINARY_HEADER);
    EXPECT_FALSE(ref_ptr<NoReader>(new NoReader(false))->isThreaded());
}

TEST_F(FrameIOTest, BindingsStandInOrderOfTheirPathsAndOnce) {
    const ref_ptr<NoReader> reader(new NoReader);
    reader->addDataBinding("b", false);
    reader->addDataBinding("a", "z", true);
    reader->addDataBinding("a", "c", false);
    reader->addDataBinding("b", true);
    EXPECT_EQ(bindingsOf(*reader), (std::vector<std::string>{"a>c", "a>z+", "b>b+"}));
    EXPECT_TRUE(reader->removeDataBinding("a", "z"));
    EXPECT_FALSE(reader->removeDataBinding("a"));
    EXPECT_TRUE(reader->removeDataBinding("b"));
    EXPECT_EQ(bindingsOf(*reader), (std::vector<std::string>{"a>c"}));
    reader->clearDataBindings();
    EXPECT_TRUE(reader->getDataBindings().empty());
}

TEST_F(FrameIOTest, DebugWriterPrintsEachFrame) {
    const ref_ptr<Frame> frame(new Frame(3, 1.5, 0.5));
    frame->addValue(real("speed", 1).get(), "a.speed");
    const ref_ptr<DebugFrameWriter> writer(new DebugFrameWriter);
    const zelTest::StreamCapture output(std::cout);
    writer->writeFrame(frame.get());
    EXPECT_EQ(output.text().find("Frame 3 (time: 1.500000, dt: 0.500000)\n"), 0U) << output.text();
    EXPECT_NE(output.text().find("speed"), std::string::npos);
    writer->setEOF(true);
    EXPECT_TRUE(writer->isEOF());
}

} // namespace
