#include "MemoryJournal.h"

#include <support/Stress.h>

#include <algorithm>
#include <random>
#include <variant>

// Reading the frames of a session in any order.

using zel::ref_ptr;
using zel::uint64;
using zelData::Buffer;
using zelData::Frame;
using zelTest::elementsOf;
using zelTest::frameOf;
using zelTest::MemoryReader;
using zelTest::MemorySession;

namespace {

class DiskFrameReaderTest : public zelTest::FrameFixture {
protected:
    void SetUp() override {
        FrameFixture::SetUp();
        session = new MemorySession;
    }
    void TearDown() override {
        reader = nullptr;
        session = nullptr;
        FrameFixture::TearDown();
    }
    /// Key frames at multiples of ten; each increment brings one more name.
    void record(uint64 numFrames, uint64 keyEvery = 10) {
        for (uint64 i = 0; i < numFrames; ++i) {
            const auto frame = frameOf(i, static_cast<double>(i), i % keyEvery == 0);
            const zel::Name name("own" + std::to_string(i));
            frame->addValue(real(name, static_cast<double>(i)).get(), name);
            session->append(frame.get());
        }
        reader = new MemoryReader(session.get());
    }
    ref_ptr<Frame> read() { return ref_ptr<Frame>(reader->readFrame()); }
    static std::vector<std::string> namesOf(const Frame* frame) {
        std::vector<std::string> names;
        for (zel::size_t i = 0; i < frame->getNumObjects(); ++i)
            names.push_back(frame->getObject(i)->getName().str());
        std::sort(names.begin(), names.end());
        return names;
    }

    ref_ptr<MemorySession> session;
    ref_ptr<MemoryReader> reader;
};

TEST_F(DiskFrameReaderTest, NeighboursAreReadAlone) {
    record(5);
    for (uint64 i = 0; i < 5; ++i) {
        reader->numReads = 0;
        const auto frame = read();
        ASSERT_TRUE(frame);
        EXPECT_EQ(frame->getIndex(), i);
        EXPECT_EQ(frame->getNumObjects(), 2U);
        EXPECT_EQ(reader->numReads, 1);
        reader->advanceToNextFrame();
    }
    EXPECT_FALSE(read());
}

TEST_F(DiskFrameReaderTest, AJumpGivesACompleteFrame) {
    record(20);
    EXPECT_TRUE(reader->jumpToFrame(13));
    const auto frame = read();
    EXPECT_EQ(namesOf(frame.get()), (std::vector<std::string>{"own10", "own11", "own12", "own13", "value"}));
    EXPECT_EQ(contentOf(frame->findObject("value")), 13.0);
    EXPECT_EQ(frame->getIndex(), 13U);
    EXPECT_EQ(frame->getTimeStamp(), 6.5);
    EXPECT_TRUE(frame->isKeyFrame());
    expectWhole(frame.get());
    // The one behind it stands alone, though its names came with the sequence.
    reader->advanceToNextFrame();
    EXPECT_EQ(namesOf(read().get()), (std::vector<std::string>{"own14", "value"}));
}

TEST_F(DiskFrameReaderTest, AJumpWithoutAKeyFrameBeginsWithTheFirst) {
    session->append(frameOf(4, 4, false).get());
    const auto frame = frameOf(5, 5, false);
    frame->addValue(real("own", 5).get(), "own");
    session->append(frame.get());
    reader = new MemoryReader(session.get());
    EXPECT_TRUE(reader->jumpToFrame(5));
    const auto merged = read();
    EXPECT_EQ(namesOf(merged.get()), (std::vector<std::string>{"own", "value"}));
    EXPECT_FALSE(merged->isKeyFrame());
}

TEST_F(DiskFrameReaderTest, AFailedSequenceLeavesNothingBehind) {
    record(20);
    reader->failsAt = 11;
    EXPECT_TRUE(reader->jumpToFrame(13));
    EXPECT_THROW((void)read(), std::runtime_error);
    reader->failsAt = zel::InvalidIndex;
    EXPECT_EQ(namesOf(read().get()), (std::vector<std::string>{"own10", "own11", "own12", "own13", "value"}));
}

TEST_F(DiskFrameReaderTest, OlderDataThatNewerFramesReplaceAreNotRead) {
    record(20);
    EXPECT_TRUE(reader->jumpToFrame(12));
    (void)read();
    // In the end the exclusions are gone.
    EXPECT_TRUE(reader->shouldExtract("value"));
}

TEST_F(DiskFrameReaderTest, BindingsChooseWhatIsRead) {
    const ref_ptr<Frame> frame = makeFrame();
    frame->setKeyFrame(true);
    for (const char* path : {"a.x", "a.y", "b.c.z", "b.d", "e", "DynamicsSystem.ObserverFrame"})
        frame->addValue(real(zel::Path(path).back(), 1).get(), path);
    session->append(frame.get());
    reader = new MemoryReader(session.get());
    reader->addDataBinding("a.x", false);
    reader->addDataBinding("b", true);
    const auto read1 = read();
    EXPECT_NE(read1->getResource("a.x"), nullptr);
    EXPECT_EQ(read1->getResource("a.y"), nullptr);
    EXPECT_NE(read1->getResource("b.c.z"), nullptr);
    EXPECT_NE(read1->getResource("b.d"), nullptr);
    EXPECT_EQ(read1->findObject("e"), nullptr);
    EXPECT_NE(read1->getResource("DynamicsSystem.ObserverFrame"), nullptr);
}

TEST_F(DiskFrameReaderTest, FindsTheNearestFrameInTime) {
    for (const uint64 index : {2U, 3U, 4U, 8U, 9U})
        session->append(frameOf(index, 0).get());
    reader = new MemoryReader(session.get());
    EXPECT_EQ(reader->findFrameAtTime(0), 2U);
    EXPECT_EQ(reader->findFrameAtTime(1.2), 2U);
    EXPECT_EQ(reader->findFrameAtTime(1.25), 2U); // of two the earlier
    EXPECT_EQ(reader->findFrameAtTime(1.3), 3U);
    EXPECT_EQ(reader->findFrameAtTime(3.0), 4U);
    EXPECT_EQ(reader->findFrameAtTime(3.1), 8U);
    EXPECT_EQ(reader->findFrameAtTime(1e300), 9U);
    EXPECT_EQ(ref_ptr<MemoryReader>(new MemoryReader(ref_ptr<MemorySession>(new MemorySession).get()))
                  ->findFrameAtTime(1),
              uint64{zel::InvalidIndex});
    EXPECT_DEATH((void)reader->findFrameAtTime(-1), "time >= 0");
}

// Random sessions against a model.

/// What stands at a path: a number, or a buffer in whole or in part.
struct Content {
    double value = 0;
    std::vector<double> elements;
    std::map<uint64, double> part;
    uint64 fullSize = 0;
    enum { Value, Whole, Part } kind = Value;
    bool operator==(const Content&) const = default;
};
using State = std::map<std::string, Content>;

/// What a frame holds, in the terms of the model.
void describe(const zel::Component* node, const zel::Path& path, State& state) {
    for (zel::size_t i = 0; i < node->getNumObjects(); ++i) {
        zel::Object* child = node->getObject(i);
        const zel::Path childPath = path + child->getName();
        Content content;
        if (auto* value = dynamic_cast<zelData::Value*>(child)) {
            content.value = *static_cast<const double*>(value->getData());
        } else if (const auto* part = dynamic_cast<const Frame::PartialBuffer*>(child)) {
            content.kind = Content::Part;
            content.fullSize = part->getFullSize();
            for (uint64 k = 0; k < part->size(); ++k)
                content.part[part->getIndexBuffer()->data<uint64>()[k]] =
                    part->getDataBuffer()->data<double>()[k];
        } else if (const auto* buffer = dynamic_cast<const Buffer*>(child)) {
            content.kind = Content::Whole;
            content.elements = elementsOf<double>(buffer);
        } else {
            describe(dynamic_cast<const zel::Component*>(child), childPath, state);
            continue;
        }
        state[childPath.str()] = content;
    }
}

/// What a frame changes, applied to what was there.
void apply(State& state, const State& change) {
    for (const auto& [path, content] : change) {
        Content& present = state[path];
        if (content.kind != Content::Part || (present.kind == Content::Value && present == Content())) {
            present = content;
            continue;
        }
        if (present.kind == Content::Whole) {
            present.elements.resize(content.fullSize);
            for (const auto& [place, element] : content.part)
                present.elements[place] = element;
            continue;
        }
        std::erase_if(present.part, [&](const auto& entry) { return entry.first >= content.fullSize; });
        for (const auto& [place, element] : content.part)
            present.part[place] = element;
        present.fullSize = content.fullSize;
    }
}

class DiskFrameReaderModelTest : public DiskFrameReaderTest {
protected:
    /// A session of increments between key frames, and what each frame changes.
    void recordAtRandom(std::mt19937& random) {
        const auto draw = [&random](uint64 n) { return static_cast<uint64>(random() % n); };
        std::map<std::string, uint64> sizes{{"a.x", 5}, {"a.y", 1}, {"s.mass", 8}};
        auto* model = entity("Bodies", "<Attribute.Scalar name='mass' type='Real'/>");
        uint64 index = draw(5);
        const uint64 numFrames = 1 + draw(30);
        for (uint64 i = 0; i < numFrames; ++i, index += draw(8) == 0 ? 2U : 1U) {
            const bool isKeyFrame = i == 0 || draw(7) == 0;
            const ref_ptr<Frame> frame(new Frame(index, 0.5 * static_cast<double>(index), 0.5));
            frame->setKeyFrame(isKeyFrame);
            State change;
            for (const char* path : {"v", "a.w"})
                if (isKeyFrame || draw(3) == 0) {
                    change[path].value = static_cast<double>(random());
                    frame->addValue(real(zel::Path(path).back(), change[path].value).get(), path);
                }
            for (auto& [path, size] : sizes) {
                if (!isKeyFrame && draw(3) == 0)
                    continue;
                Content& content = change[path];
                const uint64 oldSize = size;
                if (draw(3) == 0)
                    size = 1 + draw(10);
                zel::Component* context = frame->getContext(path);
                if (path == "s.mass") {
                    const ref_ptr<Frame::EntityStorage> storage(
                        new Frame::EntityStorage("s", model, size, 16));
                    frame->removeNode(context);
                    frame->addStorage(storage.get(), "s");
                    context = storage.get();
                }
                if (isKeyFrame || draw(2) == 0) {
                    content.kind = Content::Whole;
                    for (uint64 k = 0; k < size; ++k)
                        content.elements.push_back(static_cast<double>(random()));
                    const auto buffer = reals(zel::Path(path).back(), {});
                    buffer->resize(size);
                    std::copy(content.elements.begin(), content.elements.end(), buffer->data<double>());
                    frame->addNode(context, buffer.get());
                    continue;
                }
                content.kind = Content::Part;
                content.fullSize = size;
                for (uint64 k = 0; k < size; ++k)
                    if (k >= oldSize || draw(3) == 0)
                        content.part[k] = static_cast<double>(random());
                if (content.part.empty())
                    content.part[0] = 1;
                const ref_ptr<Frame::PartialBuffer> part(new Frame::PartialBuffer(
                    zel::Path(path).back(), zelData::getFormat("Real"), content.part.size(), size));
                uint64 k = 0;
                for (const auto& [place, element] : content.part) {
                    part->getIndexBuffer()->data<uint64>()[k] = place;
                    part->getDataBuffer()->data<double>()[k++] = element;
                }
                frame->addNode(context, part.get());
            }
            changes.push_back(change);
            indices.push_back(index);
            keys.push_back(isKeyFrame);
            session->append(frame.get());
        }
        reader = new MemoryReader(session.get());
    }
    void TearDown() override {
        changes.clear();
        DiskFrameReaderTest::TearDown();
    }
    /// The changes of the frames from the last key frame, or the one given if that comes later, up to the
    /// place.
    State between(zel::size_t first, zel::size_t last) const {
        zel::size_t begin = last;
        while (begin > first && !keys[begin])
            --begin;
        State state;
        for (zel::size_t i = begin; i <= last; ++i)
            apply(state, changes[i]);
        return state;
    }
    void expectState(const Frame* frame, const State& expected, const char* how) {
        ASSERT_NE(frame, nullptr) << how;
        State state;
        describe(frame, zel::Path(), state);
        EXPECT_TRUE(state == expected) << how << " of frame " << frame->getIndex();
        expectWhole(frame);
    }
    void clear() {
        changes.clear();
        indices.clear();
        keys.clear();
        session = new MemorySession;
    }

    std::vector<State> changes;
    std::vector<uint64> indices;
    std::vector<bool> keys;
};

TEST_F(DiskFrameReaderModelTest, EachWayToAFrameGivesWhatTheModelHas) {
    std::mt19937 random(zelTest::stressSeed());
    for (int round = 0; round < 60 && !HasFailure(); ++round) {
        clear();
        recordAtRandom(random);
        // In order, each frame alone.
        for (zel::size_t i = 0; i < indices.size(); ++i) {
            expectState(read().get(), changes[i], "alone");
            reader->advanceToNextFrame();
        }
        // By jumps, and on from there.
        for (int k = 0; k < 20; ++k) {
            const zel::size_t place = random() % indices.size();
            EXPECT_TRUE(reader->jumpToFrame(indices[place]));
            expectState(read().get(), between(0, place), "jump");
            reader->advanceToNextFrame();
            if (place + 1 < indices.size())
                expectState(read().get(), changes[place + 1], "behind a jump");
        }
    }
}

} // namespace
