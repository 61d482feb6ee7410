#include "CaptureFixture.h"
#include "FrameRandomTree.h"
#include "MemoryJournal.h"

#include <zelData/FrameApply.h>
#include <zelData/Track.h>

#include <support/Soak.h>

#include <random>

// A random tree is captured step by step; its frames, as bytes and back, bring another tree to each of its
// states, in order, by jumps, and through tracks in all their ways.

using zel::ref_ptr;
using zel::uint64;
using zelData::Buffer;
using zelData::EntityStorage;
using zelData::Frame;
using zelTest::RandomChanger;
using zelTest::RandomTree;
using zelTest::RandomTreeNames;
using zelTest::Snapshot;

namespace {

class FrameApplySoakTest : public zelTest::FrameFixture {
protected:
    zelData::EntityModel* loadModel() { return entity("Replayed", zelTest::RandomTreeAttributes); }
    /// What the tree lacked is empty, or was never told, in the other one.
    static void compare(const Snapshot& expected, const RandomTree& tree, uint64 step) {
        const Snapshot actual = tree.snapshot();
        for (const std::string name : RandomTreeNames) {
            const auto found = expected.find(name);
            const auto* buffer = dynamic_cast<const Buffer*>(tree.find(name));
            const auto* storage = dynamic_cast<const EntityStorage*>(tree.find(name));
            if (found != expected.end()) {
                ASSERT_EQ(actual.at(name), found->second) << name << " at step " << step;
            } else {
                ASSERT_TRUE(buffer == nullptr || buffer->empty()) << name << " at step " << step;
                ASSERT_TRUE(storage == nullptr || storage->empty()) << name << " at step " << step;
            }
        }
    }
    static void apply(zelData::FrameApply& apply, zelTest::MemoryReader& reader) {
        const ref_ptr<Frame> frame(reader.readFrame());
        ASSERT_NE(frame, nullptr);
        expectWhole(frame.get());
        apply.writeFrame(frame.get());
        reader.advanceToNextFrame();
    }

    /// Frames of a track, with strides, in rounds, from the cache, in whole or not.
    static void replay(zelTest::MemorySession* session,
                       zelData::FrameApply& target,
                       const RandomTree& replayed,
                       const std::vector<Snapshot>& snapshots,
                       std::mt19937& random) {
        const uint64 numSteps = snapshots.size();
        const ref_ptr<zelTest::MemoryReader> reader(new zelTest::MemoryReader(session, random() % 4 == 0));
        const ref_ptr<zelData::Track> track(new zelData::Track(reader.get(), nullptr));
        track->setExpandFrames(random() % 3 == 0);
        uint64 stride = random() % 7 + 1;
        track->setFrameStride(stride);
        const uint64 budgets[] = {0, 1, 500, 5000};
        track->setMaxNumBytes(budgets[random() % std::size(budgets)]);
        const bool loops = random() % 3 == 0;
        if (loops) // ahead of the first frame, since it goes back to that
            track->setEnableLooping(true);
        track->start();
        uint64 step = 0;
        for (uint64 left = random() % 30 + 1; left != 0 && !HasFailure(); --left) {
            if (random() % 6 == 0) {
                step = random() % numSteps;
                ASSERT_TRUE(track->jumpToFrame(step));
            }
            if (random() % 12 == 0) { // goes on behind the frame that was popped
                const uint64 wider = random() % 7 + 1;
                if (step < numSteps) // at the end it stays there
                    step = step < stride ? wider : step - stride + wider;
                stride = wider;
                track->setFrameStride(stride);
                if (reader->isThreaded() && loops) { // which may have begun anew by now
                    step = step < numSteps ? step : 0;
                    ASSERT_TRUE(track->jumpToFrame(step));
                }
            }
            const ref_ptr<Frame> frame = track->popFrame(true);
            if (step >= numSteps && !loops) {
                ASSERT_EQ(frame, nullptr);
                return;
            }
            if (step >= numSteps)
                step = 0;
            ASSERT_NE(frame, nullptr);
            ASSERT_EQ(frame->getIndex(), step);
            expectWhole(frame.get());
            target.writeFrame(frame.get());
            compare(snapshots[step], replayed, step);
            step += stride;
        }
    }

    void run(zelData::EntityModel* model, unsigned seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        RandomTree original(model);
        for (const char* name : RandomTreeNames)
            if (random() % 3 != 0)
                original.add(name);
        const ref_ptr<zelData::FrameCapture> capture(new zelData::FrameCapture(original.root.get()));
        const uint64 intervals[] = {0, 1, 2, 5, 10};
        capture->setKeyFrameInterval(intervals[random() % std::size(intervals)]);
        const ref_ptr<zelTest::MemorySession> session(new zelTest::MemorySession);
        std::vector<Snapshot> snapshots;
        const uint64 numSteps = random() % 25 + 2;
        RandomChanger changer(original, random);
        for (uint64 step = 0; step < numSteps; ++step) {
            changer.step();
            snapshots.push_back(original.snapshot());
            const ref_ptr<Frame> frame = capture->capture(step, 0.5 * static_cast<double>(step), 0.5);
            expectWhole(frame.get());
            session->append(frame.get());
        }
        ASSERT_TRUE(capture->getOmissions().empty()) << capture->getOmissions()[0];

        RandomTree replayed(model);
        for (const char* name : RandomTreeNames)
            replayed.add(name);
        const ref_ptr<zelData::FrameApply> target(new zelData::FrameApply(replayed.root.get()));
        const ref_ptr<zelTest::MemoryReader> reader(new zelTest::MemoryReader(session.get(), false));
        for (uint64 step = 0; step < numSteps && !HasFailure(); ++step) {
            apply(*target, *reader);
            compare(snapshots[step], replayed, step);
        }
        for (int i = 0; i < 10 && !HasFailure(); ++i) {
            uint64 step = random() % numSteps;
            ASSERT_TRUE(reader->jumpToFrame(step));
            for (uint64 k = random() % 3 + 1; k != 0 && step < numSteps && !HasFailure(); --k, ++step) {
                apply(*target, *reader);
                compare(snapshots[step], replayed, step);
            }
        }
        for (int i = 0; i < 5 && !HasFailure(); ++i)
            replay(session.get(), *target, replayed, snapshots, random);
        ASSERT_TRUE(target->getOmissions().empty()) << target->getOmissions()[0];
        // From there on both live alike.
        for (const std::string name : RandomTreeNames) {
            if (RandomTree::kindOf(name) != 'p' || original.find(name) == nullptr || HasFailure())
                continue;
            ASSERT_TRUE(reader->jumpToFrame(numSteps - 1));
            apply(*target, *reader);
            auto* a = dynamic_cast<EntityStorage*>(original.find(name));
            auto* b = dynamic_cast<EntityStorage*>(replayed.find(name));
            for (int i = 0; i < 20; ++i)
                ASSERT_EQ(a->createInstance().getId(), b->createInstance().getId());
        }
    }
};

class FrameApplyModelTest : public FrameApplySoakTest {};

} // namespace

TEST_F(FrameApplyModelTest, FramesBringAnotherTreeToEachStateOfARandomOne) {
    zelData::EntityModel* model = loadModel();
    const unsigned seed = zelTest::stressSeed();
    const unsigned times = zelTest::StressDivisor == 1 ? 200 : 10; // each takes long under a sanitizer
    for (unsigned i = 0; i < times && !HasFailure(); ++i)
        run(model, seed + i);
}

// Only script/test --soak runs this.
TEST_F(FrameApplySoakTest, DISABLED_FramesBringAnotherTreeToEachStateOfARandomOne) {
    zelData::EntityModel* model = loadModel();
    zelTest::soak([&](unsigned seed) { run(model, seed); }, 10'000);
}
