#include "RunFixture.h"

#include <support/LogCapture.h>
#include <support/WhatOf.h>

using testing::ElementsAre;
using testing::HasSubstr;
using zel::ref_ptr;
using zel::uint64;
using zelData::FileJournal;
using zelData::Frame;
using zelData::Recorder;

namespace {

class RecorderTest : public zelTest::RunFixture {
protected:
    [[nodiscard]] std::vector<uint64> indicesIn(const std::string& name) {
        const ref_ptr<FileJournal> file(new FileJournal(directory.path(name)));
        std::vector<uint64> all;
        for (const auto& info : FileJournal::downcastSession(file->getSessions().front())->getFrameTable())
            all.push_back(info.index);
        return all;
    }
};

TEST_F(RecorderTest, FrameZeroIsTheInitialStateAndEachTickAddsOne) {
    recordRun(3);
    open();
    EXPECT_THAT(indicesInTable(), ElementsAre(0, 1, 2, 3));
    EXPECT_EQ(session->getLastFrameIndex(), 3U); // closed
    beginReading();
    EXPECT_EQ(contentOf(read(0)->findObject("position")), 1.0);
    EXPECT_EQ(contentOf(read(3)->findObject("position")), run->position->get());
    EXPECT_EQ(recorder->getNumFrames(), 4U);
    EXPECT_EQ(recorder->getNumKeyFrames(), 1U);
    EXPECT_GT(recorder->getNumBytes(), 0U);
    EXPECT_EQ(recorder->getMessage(), "");
}

} // namespace
