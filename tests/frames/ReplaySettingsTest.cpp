#include "RunFixture.h"

#include <zelData/Replay.h>

#include <limits>
#include <string>

using zel::ref_ptr;
using zel::uint64;
using zelData::Recorder;
using zelData::Replay;

namespace {

/// A tree of which little changes: a clock whose event counts, and values that stay.
struct QuietRun {
    QuietRun() {
        root->addObject(clock.get());
        root->addObject(count.get());
        for (int i = 0; i < 20; ++i)
            root->addObject(ref_ptr<zelData::ValueT<double>>(
                                new zelData::ValueT<double>(zel::Name("still" + std::to_string(i)), 1.5))
                                .get());
        clock->addEvent(ref_ptr<zel::Clock::Event>(
                            new zel::Clock::Event([this] { count->set(count->get() + 1); }, 0.35, 0.55))
                            .get());
    }
    void tick(int n) const {
        for (int i = 0; i < n; ++i)
            clock->tick();
    }
    ref_ptr<zel::Component> root{new zel::Component("quiet")};
    ref_ptr<zel::Clock> clock{new zel::Clock("clock", 10)};
    ref_ptr<zelData::ValueT<uint64>> count{new zelData::ValueT<uint64>("count", 0)};
};

class ReplaySettingsTest : public zelTest::RunFixture {
protected:
    void record(const QuietRun& quiet, int numTicks) {
        {
            const zelTest::StreamCapture noise(std::cout);
            recorder = Recorder::record(quiet.clock.get(), path(), quiet.root.get());
        }
        quiet.tick(numTicks);
        recorder->stop();
        ASSERT_EQ(recorder->getNumKeyFrames(), 1U);
    }
};

TEST_F(ReplaySettingsTest, ClocksThatAreRestoredFromLaterOnAreWhereTheFrameTells) {
    const QuietRun quiet;
    record(quiet, 8);
    const QuietRun fresh;
    const ref_ptr<Replay> replay(new Replay(path(), fresh.root.get()));
    replay->setRestoreClocks(false);
    for (int i = 0; i <= 7; ++i)
        ASSERT_TRUE(replay->next());
    replay->setRestoreClocks(true);
    ASSERT_TRUE(replay->next());
    for (int i = 0; i < 12; ++i) {
        EXPECT_EQ(fresh.clock->getFrame(), quiet.clock->getFrame());
        EXPECT_EQ(fresh.count->get(), quiet.count->get()) << i;
        fresh.tick(1);
        quiet.tick(1);
    }
}

TEST_F(ReplaySettingsTest, BindingsThatComeLaterFindAllThatIsTheirs) {
    const QuietRun quiet;
    record(quiet, 8);
    const QuietRun fresh;
    dynamic_cast<zelData::ValueT<double>&>(*fresh.root->getResource("still3")).set(9);
    const ref_ptr<Replay> replay(new Replay(path(), fresh.root.get()));
    replay->addDataBinding("count", false);
    ASSERT_TRUE(replay->next());
    replay->addDataBinding("still3", false);
    ASSERT_TRUE(replay->next());
    EXPECT_EQ(dynamic_cast<zelData::ValueT<double>&>(*fresh.root->getResource("still3")).get(), 1.5);
}

TEST_F(ReplaySettingsTest, ApplyEventsMayLetGoOfTheReplay) {
    const QuietRun quiet;
    record(quiet, 4);
    const QuietRun fresh;
    ref_ptr<Replay> replay(new Replay(path(), fresh.root.get()));
    const auto letGoAt = [&](uint64 frame) {
        replay->applyEvent.connect([&replay, frame](Replay* playing) {
            if (playing->getFrame() == frame)
                replay = nullptr;
        });
    };
    letGoAt(2);
    EXPECT_TRUE(replay->jumpToFrame(2));
    EXPECT_FALSE(replay);
    replay = new Replay(path(), fresh.root.get());
    replay->setRate(std::numeric_limits<double>::infinity());
    letGoAt(3);
    replay->play(); // goes on to the end all the same
    EXPECT_FALSE(replay);
    EXPECT_EQ(fresh.clock->getFrame(), 4U);
}

} // namespace
