#include "RunFixture.h"

#include <zelData/Replay.h>

#include <support/LogCapture.h>
#include <support/WhatOf.h>

#include <limits>

using testing::ElementsAre;
using testing::IsEmpty;
using zel::ref_ptr;
using zel::uint64;
using zelData::Replay;

namespace {

class ReplayTest : public zelTest::RunFixture {
protected:
    void TearDown() override {
        replay = nullptr;
        fresh = nullptr;
        RunFixture::TearDown();
    }
    /// Begins to play the journal into a tree of its own.
    void begin() {
        fresh = makeRun(99); // nothing of the seed stays
        fresh->position->set(-1.0);
        replay = new Replay(path(), fresh->root.get());
    }
    /// The hashes of a run, by frame.
    std::vector<uint64> recordWithHashes(int numTicks) {
        prepare();
        start();
        std::vector<uint64> hashes{run->hash()};
        for (int i = 0; i < numTicks; ++i) {
            run->tick(1);
            hashes.push_back(run->hash());
        }
        recorder->stop();
        return hashes;
    }

    std::unique_ptr<zelTest::SmallRun> fresh;
    ref_ptr<Replay> replay;
};

TEST_F(ReplayTest, FramesInOrderShowTheRunAsItWas) {
    const std::vector<uint64> hashes = recordWithHashes(250);
    begin();
    for (uint64 i = 0; i <= 250; ++i) {
        ASSERT_TRUE(replay->next());
        ASSERT_EQ(replay->getFrame(), i);
        ASSERT_EQ(fresh->hash(), hashes[i]) << i;
    }
    EXPECT_FALSE(replay->next());
    EXPECT_EQ(replay->getFrame(), 250U);
    EXPECT_THAT(replay->getOmissions(), IsEmpty());
}

TEST_F(ReplayTest, ARunGoesOnFromAnyFrameInAFreshTree) {
    const std::vector<uint64> hashes = recordWithHashes(1000);
    for (const uint64 from : {uint64{500}, uint64{0}, uint64{1}, uint64{99}, uint64{333}, uint64{999}}) {
        begin();
        ASSERT_TRUE(replay->applyFrame(from));
        ASSERT_EQ(fresh->hash(), hashes[from]) << from;
        for (uint64 i = from + 1; i <= 1000; ++i) {
            fresh->tick(1);
            ASSERT_EQ(fresh->hash(), hashes[i]) << "from " << from << " at " << i;
        }
    }
}

} // namespace
