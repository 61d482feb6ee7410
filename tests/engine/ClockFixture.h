#pragma once

#include <zel/Clock.h>
#include <zelCore/zelCore.h>
#include <zelData/ValueT.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <vector>

namespace zelTest {

/// Tests with clocks.
class ClockFixture : public testing::Test {
protected:
    void SetUp() override {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        zelCore::init();
    }
    void TearDown() override { zelCore::shutdown(); }

    /// An event that notes the frames in which it fires.
    zel::Clock::Event* noting(zel::Clock* clock, double interval, double startDelay) {
        return new zel::Clock::Event(
            [this, clock] { m_frames.push_back(clock->getFrame()); }, interval, startDelay);
    }
    template <typename T>
    static zelData::ValueT<T>* valueOf(zel::Clock* clock, const char* name) {
        return dynamic_cast<zelData::ValueT<T>*>(clock->findObject(name));
    }
    static void tick(zel::Clock* clock, int n) {
        for (int i = 0; i < n; ++i)
            clock->tick(false);
    }

    std::vector<size_t> m_frames;
};

} // namespace zelTest
