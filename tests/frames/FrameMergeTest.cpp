#include "FrameFixture.h"

#include <zel/Random.h>

#include <support/Stress.h>

#include <map>
#include <random>

// One frame applied onto another.

using zel::Component;
using zel::Object;
using zel::ref_ptr;
using zel::uint64;
using zelData::Buffer;
using zelData::Frame;
using zelTest::elementsOf;

namespace {

class FrameMergeTest : public zelTest::FrameFixture {
protected:
    void SetUp() override {
        FrameFixture::SetUp();
        target = makeFrame();
        source = makeFrame();
        target->setId(1);
        source->setId(2);
    }
    void TearDown() override {
        expectWhole(target.get());
        target = nullptr;
        source = nullptr;
        FrameFixture::TearDown();
    }
    std::vector<double> realsAt(const char* path) { return elementsOf<double>(target->getBuffer(path)); }
    Frame::PartialBuffer& partAt(const char* path) {
        return dynamic_cast<Frame::PartialBuffer&>(*target->getResource(path));
    }
    /// Merges, and gives what collided.
    std::pair<const Object*, const Object*> collisionOf(bool overwrite) {
        try {
            target->merge(source.get(), overwrite);
        } catch (const Frame::MergeException& exception) {
            EXPECT_STREQ(exception.what(), "MergeException");
            return {exception.getNode(), exception.getCollisionNode()};
        }
        return {};
    }

    ref_ptr<Frame> target;
    ref_ptr<Frame> source;
};
class FrameMergeDeathTest : public FrameMergeTest {};

struct MergedMark : Object::Event {};

TEST_F(FrameMergeTest, IdIsTakenWhereThereIsOne) {
    source->setId(0xFFFFFFFFU);
    target->merge(source.get(), true);
    EXPECT_EQ(target->getId(), 1U);
    source->setId(0xFFFFFFFEU);
    target->merge(source.get(), true);
    EXPECT_EQ(target->getId(), 0xFFFFFFFEU);
}

TEST_F(FrameMergeTest, AKeyFrameMakesAKeyFrameAndNothingClearsIt) {
    target->merge(source.get(), true);
    EXPECT_FALSE(target->isKeyFrame());
    source->setKeyFrame(true);
    target->merge(source.get(), true);
    EXPECT_TRUE(target->isKeyFrame());
    source->setKeyFrame(false);
    target->merge(source.get(), true);
    EXPECT_TRUE(target->isKeyFrame());
}

TEST_F(FrameMergeTest, WhatASerializedFrameBringsIsMarked) {
    source->setSerialized(true);
    target->merge(source.get(), true);
    EXPECT_TRUE(target->isSerialized());
    target->merge(makeFrame().get(), true);
    EXPECT_TRUE(target->isSerialized());
}

/// Counts how often it is told to look its paths up.
class RebindCounter : public Component {
public:
    RebindCounter() : Component("counter") {}
    void rebind() override { ++count; }
    int count = 0;
};

TEST_F(FrameMergeTest, NothingIsLookedUpMeanwhile) {
    const ref_ptr<RebindCounter> counter(new RebindCounter);
    target->addNode(target.get(), counter.get());
    counter->count = 0;
    source->addBuffer(reals("x", {1}).get(), "x");
    target->merge(source.get(), true);
    EXPECT_EQ(counter->count, 0);
    EXPECT_TRUE(Object::getEnableRebind());
}

TEST_F(FrameMergeTest, IndexAndTimesStay) {
    const ref_ptr<Frame> later(new Frame(9, 4.5, 0.5));
    target->merge(later.get(), true);
    EXPECT_EQ(target->getIndex(), 0U);
    EXPECT_EQ(target->getTimeStamp(), 0.0);
    EXPECT_EQ(target->getTimeStep(), 0.0);
}

TEST_F(FrameMergeTest, EventsAreAppended) {
    const ref_ptr<Object::Event> first(new MergedMark);
    const ref_ptr<Object::Event> second(new MergedMark);
    target->addEvent(first.get());
    source->addEvent(second.get());
    target->merge(source.get(), false);
    ASSERT_EQ(target->getEvents().size(), 2U);
    EXPECT_EQ(target->getEvents()[0], first);
    EXPECT_EQ(target->getEvents()[1], second);
}

TEST_F(FrameMergeTest, AnEmptyFrameGetsEachNodeWithItsId) {
    auto* model = entity("Copied", "<Attribute.Scalar name='mass' type='Real'/>");
    const ref_ptr<Frame::EntityStorage> storage(new Frame::EntityStorage("storage", model, 2, 5));
    storage->addObject(reals("mass", {1, 2}).get());
    storage->addObject(numbers("_idToIndex", {0, 1}).get());
    source->addStorage(storage.get(), "a.storage");
    source->addValue(real("value", 3).get(), "a.b.value");
    source->addBuffer(reals("buffer", {4, 5}).get(), "buffer");
    source->addBuffer(partial("part", {1}, {6}, 3).get(), "part");
    target->merge(source.get(), false);

    EXPECT_EQ(target->getNumBytes(), source->getNumBytes());
    for (const char* path :
         {"a", "a.b", "a.b.value", "a.storage", "a.storage.mass", "a.storage._idToIndex", "buffer", "part"}) {
        Object* copy = target->getResource(path);
        Object* original = source->getResource(path);
        ASSERT_NE(copy, nullptr) << path;
        EXPECT_NE(copy, original);
        EXPECT_EQ(copy->getId(), original->getId()) << path;
        EXPECT_EQ(typeid(*copy), typeid(*original)) << path;
    }
    EXPECT_EQ(contentOf(target->getResource("a.b.value")), 3.0);
    EXPECT_EQ(realsAt("a.storage.mass"), (std::vector<double>{1, 2}));
    auto& copy = dynamic_cast<Frame::EntityStorage&>(*target->getResource("a.storage"));
    EXPECT_EQ(copy.getModel(), model);
    EXPECT_EQ(copy.size(), 2U);
    EXPECT_EQ(copy.capacity(), 5U);
    EXPECT_EQ(copy.getIdToIndexBuffer(), target->getBuffer("a.storage._idToIndex"));
}

TEST_F(FrameMergeTest, PartsOfNodesKeepTheirIdsToo) {
    const auto part = partial("part", {1}, {2}, 3);
    part->getIndexBuffer()->setId(11);
    part->getDataBuffer()->setId(12);
    source->addBuffer(part.get(), "part");
    const ref_ptr<Buffer> arrays(new Buffer("arrays", zelData::getFormat("Array<Real>")));
    const auto elements = reals("elements", {1});
    arrays->setElementBuffer(elements.get());
    elements->setId(13);
    source->addBuffer(arrays.get(), "arrays");
    target->merge(source.get(), true);
    EXPECT_EQ(partAt("part").getIndexBuffer()->getId(), 11U);
    EXPECT_EQ(partAt("part").getDataBuffer()->getId(), 12U);
    EXPECT_EQ(target->getBuffer("arrays")->getElementBuffer()->getId(), 13U);
}

// The original may be another thread's, and go at any time.
TEST_F(FrameMergeTest, CopiesHaveNoLinkToWhatTheyWereCopiedFrom) {
    source->addBuffer(reals("buffer", {4, 5}).get(), "buffer");
    source->addBuffer(partial("part", {1}, {6}, 3).get(), "part");
    const ref_ptr<Buffer> arrays(new Buffer("arrays", zelData::getFormat("Array<Real>")));
    arrays->setElementBuffer(reals("elements", {1}).get());
    source->addBuffer(arrays.get(), "arrays");
    target->merge(source.get(), true);
    for (Buffer* copy : {target->getBuffer("buffer"),
                         partAt("part").getIndexBuffer(),
                         partAt("part").getDataBuffer(),
                         target->getBuffer("arrays"),
                         target->getBuffer("arrays")->getElementBuffer()})
        EXPECT_EQ(copy->getOriginalBuffer(), copy) << copy->getName();
}

TEST_F(FrameMergeTest, ValuesOfTheSameFormatAreReplaced) {
    target->addValue(real("value", 1).get(), "value");
    source->addValue(real("value", 2).get(), "value");
    EXPECT_EQ(collisionOf(false).first, source->findObject("value"));
    EXPECT_EQ(contentOf(target->findObject("value")), 1.0);
    target->merge(source.get(), true);
    EXPECT_EQ(contentOf(target->findObject("value")), 2.0);
    EXPECT_EQ(target->getNumObjects(), 1U);
}

TEST_F(FrameMergeTest, AValueOfAnotherFormatCollides) {
    target->addValue(real("value", 1).get(), "value");
    const ref_ptr<zelData::Value> other(new zelData::Value("value", zelData::getFormat("Real:32bit")));
    source->addValue(other.get(), "value");
    const auto [node, existing] = collisionOf(true);
    EXPECT_EQ(node, other.get());
    EXPECT_EQ(existing, target->findObject("value"));
    EXPECT_EQ(contentOf(target->findObject("value")), 1.0);
}

TEST_F(FrameMergeTest, CollisionsAreLogged) {
    const zelTest::LogCapture log;
    target->addValue(real("value", 1).get(), "value");
    source->addValue(real("value", 2).get(), "value");
    (void)collisionOf(false);
    EXPECT_NE(log.text().find("Exception thrown from ["), std::string::npos) << log.text();
    EXPECT_NE(log.text().find("\"MergeException\""), std::string::npos) << log.text();
}

TEST_F(FrameMergeTest, BuffersReplaceBuffersAndPartsOfTheirFormat) {
    target->addBuffer(reals("whole", {1, 2}).get(), "whole");
    target->addBuffer(partial("part", {1}, {6}, 3).get(), "part");
    source->addBuffer(reals("whole", {3}).get(), "whole");
    source->addBuffer(reals("part", {4, 5, 6}).get(), "part");
    EXPECT_NE(collisionOf(false).first, nullptr);
    target->merge(source.get(), true);
    EXPECT_EQ(realsAt("whole"), (std::vector<double>{3}));
    EXPECT_EQ(realsAt("part"), (std::vector<double>{4, 5, 6}));
}

TEST_F(FrameMergeTest, BuffersOfAnotherFormatCollide) {
    target->addBuffer(numbers("buffer", {1}).get(), "buffer");
    source->addBuffer(reals("buffer", {1}).get(), "buffer");
    EXPECT_EQ(collisionOf(true).second, target->findObject("buffer"));
}

TEST_F(FrameMergeTest, IncrementalBuffersStandBesideEachOther) {
    for (int i = 0; i < 2; ++i) {
        target->addBuffer(reals("Incremental", {1}).get(), "Incremental");
        target->merge(source.get(), false);
    }
    source->addBuffer(reals("Incremental", {2}).get(), "Incremental");
    target->merge(source.get(), false);
    EXPECT_EQ(target->getNumObjects("Incremental"), 3U);

    const auto archive = reals("archive", {7});
    target->addBuffer(reals("archive", {6}).get(), "archive");
    const ref_ptr<Frame> other = makeFrame();
    other->addBuffer(archive.get(), "archive");
    other->setIncrementalFrameArchiveBuffer(archive.get());
    target->merge(other.get(), false);
    EXPECT_EQ(target->getNumObjects("archive"), 2U);
}

TEST_F(FrameMergeTest, PartsAreWrittenIntoTheWhole) {
    target->addBuffer(reals("buffer", {0, 1, 2}).get(), "buffer");
    source->addBuffer(partial("buffer", {2, 0}, {20, 10}, 3).get(), "buffer");
    EXPECT_NE(collisionOf(false).first, nullptr);
    target->merge(source.get(), true);
    EXPECT_EQ(realsAt("buffer"), (std::vector<double>{10, 1, 20}));
}

TEST_F(FrameMergeTest, PartsBringTheWholeToItsSize) {
    target->addBuffer(reals("buffer", {0, 1, 2}).get(), "buffer");
    source->addBuffer(partial("buffer", {0}, {10}, 2).get(), "buffer");
    target->merge(source.get(), true);
    EXPECT_EQ(realsAt("buffer"), (std::vector<double>{10, 1}));
    const ref_ptr<Frame> longer = makeFrame();
    longer->addBuffer(partial("buffer", {3}, {13}, 4).get(), "buffer");
    target->merge(longer.get(), true);
    EXPECT_EQ(realsAt("buffer"), (std::vector<double>{10, 1, 0, 13}));
}

TEST_F(FrameMergeTest, APlacePastTheEndGrowsTheWholeBeyondItsFullSize) {
    target->addBuffer(reals("buffer", {0, 1}).get(), "buffer");
    source->addBuffer(partial("buffer", {4}, {14}, 2).get(), "buffer");
    target->merge(source.get(), true);
    EXPECT_EQ(realsAt("buffer"), (std::vector<double>{0, 1, 0, 0, 14}));
}

TEST_F(FrameMergeTest, APlaceThatNoMachineHasIsRefused) {
    target->addBuffer(reals("buffer", {0, 1}).get(), "buffer");
    source->addBuffer(partial("buffer", {0xFFFFFFFFFFFFFFFF}, {14}, 2).get(), "buffer");
    EXPECT_THROW(target->merge(source.get(), true), std::runtime_error);
    EXPECT_EQ(realsAt("buffer"), (std::vector<double>{0, 1}));
}

TEST_F(FrameMergeTest, PartsKeepWhatTheyHold) {
    target->addBuffer(partial("buffer", {5, 1}, {50, 10}, 9).get(), "buffer");
    source->addBuffer(partial("buffer", {1, 7, 7}, {11, 70, 71}, 8).get(), "buffer");
    EXPECT_EQ(collisionOf(false).second, target->findObject("buffer"));
    EXPECT_EQ(partAt("buffer").size(), 2U);
    target->merge(source.get(), true);
    EXPECT_EQ(elementsOf<uint64>(partAt("buffer").getIndexBuffer()), (std::vector<uint64>{5, 1, 7, 7}));
    EXPECT_EQ(elementsOf<double>(partAt("buffer").getDataBuffer()), (std::vector<double>{50, 10, 70, 71}));
    EXPECT_EQ(partAt("buffer").getFullSize(), 8U);
}

TEST_F(FrameMergeTest, PartsDropWhatTheWholeHasLost) {
    target->addBuffer(partial("buffer", {5, 1, 6, 2}, {50, 10, 60, 20}, 9).get(), "buffer");
    source->addBuffer(partial("buffer", {0}, {0}, 3).get(), "buffer");
    EXPECT_NE(collisionOf(false).first, nullptr);
    EXPECT_EQ(elementsOf<uint64>(partAt("buffer").getIndexBuffer()), (std::vector<uint64>{5, 1, 6, 2}));
    target->merge(source.get(), true);
    EXPECT_EQ(elementsOf<uint64>(partAt("buffer").getIndexBuffer()), (std::vector<uint64>{2, 1, 0}));
    EXPECT_EQ(elementsOf<double>(partAt("buffer").getDataBuffer()), (std::vector<double>{20, 10, 0}));
}

TEST_F(FrameMergeTest, PartsWithoutDataMergeTheirPlaces) {
    const auto places = [](const char* name, uint64 place) {
        ref_ptr<Frame::PartialBuffer> part(new Frame::PartialBuffer(name, 1, 9));
        part->getIndexBuffer()->data<uint64>()[0] = place;
        return part;
    };
    target->addBuffer(places("buffer", 3).get(), "buffer");
    source->addBuffer(places("buffer", 4).get(), "buffer");
    target->merge(source.get(), false);
    EXPECT_EQ(elementsOf<uint64>(partAt("buffer").getIndexBuffer()), (std::vector<uint64>{3, 4}));
    const ref_ptr<Frame> other = makeFrame();
    other->addBuffer(partial("buffer", {1}, {1}, 9).get(), "buffer");
    EXPECT_THROW(target->merge(other.get(), true), Frame::MergeException);
}

TEST_F(FrameMergeTest, StoragesTakeTheOthersSize) {
    auto* model = entity("Sized", "<Attribute.Scalar name='mass' type='Real'/>");
    const ref_ptr<Frame::EntityStorage> old(new Frame::EntityStorage("storage", model, 2, 4));
    old->addObject(reals("mass", {1, 2}).get());
    target->addStorage(old.get(), "storage");
    const ref_ptr<Frame::EntityStorage> next(new Frame::EntityStorage("storage", model, 3, 16));
    source->addStorage(next.get(), "storage");
    source->addNode(next.get(), partial("mass", {2}, {3}, 3).get());
    target->merge(source.get(), true);
    EXPECT_EQ(old->size(), 3U);
    EXPECT_EQ(old->capacity(), 16U);
    EXPECT_EQ(realsAt("storage.mass"), (std::vector<double>{1, 2, 3}));
}

TEST_F(FrameMergeTest, KindsOfOneNameCollide) {
    const ref_ptr<Frame::EntityStorage> storage(new Frame::EntityStorage("x", nullptr, 0, 0));
    const ref_ptr<Component> component(new Component("x"));
    const auto value = real("x", 1);
    const auto buffer = reals("x", {1});
    const auto part = partial("x", {0}, {1}, 1);
    const std::vector<Object*> nodes = {
        storage.get(), component.get(), value.get(), buffer.get(), part.get()};
    for (Object* held : nodes)
        for (Object* merged : nodes) {
            // A component takes in the children of one, whatever it is besides.
            if (held == merged || (merged == component.get() && held != value.get()) ||
                (held == buffer.get() && merged == part.get()) ||
                (held == part.get() && merged == buffer.get()))
                continue;
            target->addNode(target.get(), held);
            source->addNode(source.get(), merged);
            const auto [node, existing] = collisionOf(true);
            EXPECT_EQ(node, merged);
            EXPECT_EQ(existing, held);
            target->removeNode(held);
            source->removeNode(merged);
        }
}

TEST_F(FrameMergeDeathTest, StoragesOfOneNameAreOfOneModel) {
    auto* model = entity("One");
    const ref_ptr<Frame::EntityStorage> one(new Frame::EntityStorage("storage", model, 0, 0));
    const ref_ptr<Frame::EntityStorage> other(new Frame::EntityStorage("storage", entity("Other"), 0, 0));
    target->addStorage(one.get(), "storage");
    source->addStorage(other.get(), "storage");
    EXPECT_DEATH(target->merge(source.get(), true), "storage->getModel\\(\\) == subTarget->getModel\\(\\)");
}

TEST_F(FrameMergeDeathTest, OtherObjectsAreNoNodes) {
    const ref_ptr<Object> object(new Object("thing", Object::ClassModel()));
    source->addObject(object.get());
    EXPECT_DEATH(target->merge(source.get(), true), "Unknown frame node .*thing, model: zel.Object");
}

} // namespace
