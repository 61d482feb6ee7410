#include "DamageFixture.h"

#include <zelData/JournalDiff.h>

#include <cmath>
#include <limits>

using zel::ref_ptr;
using zel::uint64;
using zelData::diffJournals;
using zelData::Frame;
using zelData::JournalDifference;
using zelTest::whatOf;

namespace {

class JournalDiffTest : public zelTest::DamageFixture {
protected:
    using Frames = std::vector<ref_ptr<Frame>>;

    ref_ptr<Frame> frameWith(uint64 index, double value, std::initializer_list<double> elements) {
        ref_ptr<Frame> frame(new Frame(index, 0.5 * static_cast<double>(index), 0.5));
        frame->setKeyFrame(true);
        frame->addValue(real("v", value).get(), "a.v");
        frame->addBuffer(reals("b", elements).get(), "a.b");
        return frame;
    }
    void put(const Frames& frames, const std::string& file) {
        make();
        beginWriting();
        for (const auto& frame : frames)
            writer->writeFrame(frame.get());
        writer->endOfStream();
        std::filesystem::rename(path(), file);
    }
    JournalDifference diff(const Frames& first, const Frames& second, double tolerance = 0) {
        put(first, directory.path("a"));
        put(second, directory.path("b"));
        return diffJournals(directory.path("a"), directory.path("b"), tolerance);
    }
    static std::string told(const JournalDifference& difference) {
        const auto number = [](uint64 n) { return n == zel::InvalidIndex ? "-" : std::to_string(n); };
        return !difference.isDifferent
                   ? "none"
                   : number(difference.frame) + " " + difference.path + " " + number(difference.element) +
                         ": " + difference.first + " / " + difference.second;
    }
};

TEST_F(JournalDiffTest, EqualJournalsDoNotDiffer) {
    const auto difference = diff({frameWith(0, 1, {1, 2}), frameWith(1, 1, {1, 2})},
                                 {frameWith(0, 1, {1, 2}), frameWith(1, 1, {1, 2})});
    EXPECT_EQ(told(difference), "none");
    EXPECT_EQ(difference.numFrames, 2U);
    EXPECT_EQ(difference.frame, zel::InvalidIndex);
}

TEST_F(JournalDiffTest, TimesThatAreNoNumbersDoNotDifferFromThemselves) {
    for (const double time : {std::numeric_limits<double>::infinity(), std::nan("")}) {
        std::filesystem::remove(path());
        ref_ptr<Frame> frame(new Frame(0, time, 0.5));
        frame->setKeyFrame(true);
        put({frame}, directory.path("a"));
        for (const double tolerance : {0.0, 1.0}) {
            EXPECT_EQ(told(diffJournals(directory.path("a"), directory.path("a"), tolerance)), "none");
        }
    }
    EXPECT_TRUE(diff({frameWith(0, 1, {1})}, {frameWith(0, 2, {1})}).isDifferent);
}

TEST_F(JournalDiffTest, TheFirstDifferenceIsTold) {
    EXPECT_EQ(told(diff({frameWith(0, 1, {1, 2})}, {frameWith(0, 1.5, {1, 3})})), "0 a.b 1: 2 / 3");
    EXPECT_EQ(told(diff({frameWith(0, 1, {1, 2})}, {frameWith(0, 1.5, {1, 2})})), "0 a.v -: 1 / 1.5");
    EXPECT_EQ(told(diff({frameWith(0, 1, {1, 2})}, {frameWith(0, 1, {1})})),
              "0 a.b -: 2 elements of Real:64bit / 1 elements of Real:64bit");
    EXPECT_EQ(told(diff({frameWith(0, 1, {1}), frameWith(1, 1, {1})}, {frameWith(0, 1, {1})})),
              "1  -: frame 1 / nothing");
    EXPECT_EQ(told(diff({frameWith(0, 1, {1}), frameWith(2, 1, {1})},
                        {frameWith(0, 1, {1}), frameWith(1, 1, {1})})),
              "1  -: frame 2 / frame 1");
    const auto more = frameWith(0, 1, {1});
    more->addValue(real("more", 1).get(), "more");
    EXPECT_EQ(told(diff({frameWith(0, 1, {1})}, {more})), "0 more -: nothing / a value of Real:64bit");
    const auto later = frameWith(0, 1, {1});
    later->setTimeStamp(0.25);
    EXPECT_EQ(told(diff({frameWith(0, 1, {1})}, {later})), "0  -: time 0 / time 0.25");
}

TEST_F(JournalDiffTest, NumbersMayDifferByTheTolerance) {
    EXPECT_EQ(told(diff({frameWith(0, 1, {1, 2})}, {frameWith(0, 1.25, {1, 2.25})}, 0.25)), "none");
    EXPECT_EQ(told(diff({frameWith(0, 1, {1, 2})}, {frameWith(0, 1.25, {1, 2.5})}, 0.25)),
              "0 a.b 1: 2 / 2.5");
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(told(diff({frameWith(0, nan, {1})}, {frameWith(0, 1, {1})}, 0.25)), "0 a.v -: nan / 1");
    EXPECT_EQ(told(diff({frameWith(0, 0.0, {1})}, {frameWith(0, -0.0, {1})})), "0 a.v -: 0 / -0"); // each bit
}

TEST_F(JournalDiffTest, IdsAndTheWayInWhichFramesAreToldAreNoDifference) {
    std::mt19937 random(5);
    make();
    beginWriting();
    for (int i = 0; i < 12; ++i)
        writer->writeFrame(makeAtRandom(random, i % 5 == 0).get());
    writer->endOfStream();
    std::filesystem::rename(path(), directory.path("a"));
    // The same with key frames alone, and other ids.
    zelData::PlainJournal plain(directory.path("a"));
    make();
    beginWriting();
    for (zel::size_t i = 0; i < 12; ++i) {
        const ref_ptr<Frame> frame(
            plain.readComplete(i).createFrame([](const zel::String&) { return true; }));
        frame->setKeyFrame(true);
        frame->setId(static_cast<zel::uint32>(1000 + i));
        frame->getContext("v")->getObject(0)->setId(77);
        writer->writeFrame(frame.get());
    }
    std::filesystem::rename(path(), directory.path("b"));
    const JournalDifference difference = diffJournals(directory.path("a"), directory.path("b"));
    EXPECT_EQ(told(difference), "none");
    EXPECT_EQ(difference.numFrames, 12U);
}

} // namespace
