#include "FrameFixture.h"

#include <zelData/EntityStorageEvents.h>

#include <support/StreamCapture.h>

// What the events of a frame do to its own storages.

using zel::Component;
using zel::Object;
using zel::ref_ptr;
using zel::uint32;
using zel::uint64;
using zelData::Array;
using zelData::Buffer;
using zelData::EntityPtr;
using zelData::EntityRange;
using zelData::EntityStorage;
using zelData::Frame;
using zelTest::elementsOf;

namespace {

/// A simulation of one storage, and a frame that shows it.
class FrameEventsTest : public zelTest::FrameFixture {
protected:
    void SetUp() override {
        FrameFixture::SetUp();
        auto* model = entity("Bodies", "<Attribute.Scalar name='mass' type='Real'/>");
        simulation = new Component("Simulation");
        zel::root()->addObject(simulation.get());
        storage = new EntityStorage(model, "bodies", 8);
        simulation->addObject(storage.get());
        storage->createInstances(3);
        frame = makeFrame();
        node = new Frame::EntityStorage(storage.get());
        frame->addStorage(node.get(), "bodies");
        frame->addNode(node.get(), reals("mass", {0, 1, 2}).get());
        frame->addStorageMetaData(storage.get(), "bodies");
    }
    void TearDown() override {
        zel::root()->removeObject(simulation.get());
        frame = nullptr;
        node = nullptr;
        storage = nullptr;
        simulation = nullptr;
        FrameFixture::TearDown();
    }
    template <typename Event, typename Content>
    void add(const Content& content) {
        frame->addEvent(ref_ptr<Object::Event>(new Event(storage.get(), content)).get());
    }
    std::vector<double> masses() { return elementsOf<double>(frame->getBuffer("bodies.mass")); }

    ref_ptr<Component> simulation;
    ref_ptr<EntityStorage> storage;
    ref_ptr<Frame> frame;
    ref_ptr<Frame::EntityStorage> node;
};
class FrameEventsDeathTest : public FrameEventsTest {};

TEST_F(FrameEventsTest, CreationsGrowTheNodeAndNotTheStorage) {
    add<EntityStorage::CreateInstanceEvent>(EntityPtr(storage.get(), 3));
    add<EntityStorage::CreateInstancesEvent>(EntityRange(storage.get(), 4, 6));
    frame->evaluateEventsLocally();
    EXPECT_EQ(node->size(), 6U);
    EXPECT_EQ(masses(), (std::vector<double>{0, 1, 2, 0, 0, 0}));
    EXPECT_EQ(storage->size(), 3U);
    EXPECT_TRUE(frame->getEvents().empty());
    expectWhole(frame.get());
}

TEST_F(FrameEventsTest, DestructionsShrinkTheNode) {
    add<EntityStorage::DestroyInstanceEvent>(EntityPtr(storage.get(), 0));
    frame->evaluateEventsLocally();
    EXPECT_EQ(masses(), (std::vector<double>{2, 1}));
    EXPECT_EQ(elementsOf<uint64>(node->getIndexToIdBuffer()), (std::vector<uint64>{2, 1, 0}));
    add<EntityStorage::DestroyInstancesEvent>(EntityRange(storage.get(), 1, 2));
    frame->evaluateEventsLocally();
    EXPECT_EQ(masses(), (std::vector<double>{2}));
    EXPECT_EQ(storage->size(), 3U);
    expectWhole(frame.get());
}

TEST_F(FrameEventsTest, PermutationsAreIgnoredAloud) {
    uint32 order[] = {2, 1, 0};
    add<EntityStorage::PermuteEvent>(Array<uint32>(order, 3));
    const zelTest::StreamCapture output(std::cout);
    frame->evaluateEventsLocally();
    EXPECT_EQ(output.text(), "Ignoring permute\n");
    EXPECT_EQ(masses(), (std::vector<double>{0, 1, 2}));
}

TEST_F(FrameEventsDeathTest, ARangeEndsAtTheEnd) {
    add<EntityStorage::DestroyInstancesEvent>(EntityRange(storage.get(), 0, 2));
    EXPECT_DEATH(frame->evaluateEventsLocally(), "range.end\\(\\) == storage->size\\(\\)");
}

TEST_F(FrameEventsDeathTest, EventsAreOfStoragesThatTheFrameShows) {
    const ref_ptr<EntityStorage> other(new EntityStorage(storage->getEntityModel()));
    frame->addEvent(
        ref_ptr<Object::Event>(new EntityStorage::CreateInstanceEvent(other.get(), EntityPtr(other.get(), 0)))
            .get());
    EXPECT_DEATH(frame->evaluateEventsLocally(), "zelVerify failed: `storage'");
}

TEST_F(FrameEventsDeathTest, OtherEventsAreUnknown) {
    frame->addEvent(ref_ptr<Object::Event>(new EntityStorage::DestroyEvent(storage.get())).get());
    EXPECT_DEATH(frame->evaluateEventsLocally(), "zelAbort");
}

TEST_F(FrameEventsDeathTest, NodesAreThoseOfTheSimulation) {
    frame->addBuffer(reals("unknown", {1}).get(), "unknown");
    EXPECT_DEATH(frame->evaluateEventsLocally(), "zelVerify failed: `binding'");
    zel::root()->removeObject(simulation.get());
    EXPECT_DEATH(frame->evaluateEventsLocally(), "zelVerify failed: `simulation'");
    zel::root()->addObject(simulation.get());
}

} // namespace
