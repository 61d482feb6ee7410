#include "FrameFixture.h"

#include <zel/Clock.h>
#include <zelData/EntityData.h>

#include <sstream>

// What a frame is made of, and looking into it.

using zel::Component;
using zel::Object;
using zel::ref_ptr;
using zelData::Buffer;
using zelData::Frame;
using zelTest::elementsOf;

namespace {

class FrameTest : public zelTest::FrameFixture {};
class FrameDeathTest : public zelTest::FrameFixture {};

struct Mark : Object::Event {};

TEST_F(FrameTest, BeginsWithoutMarksAndContent) {
    const ref_ptr<Frame> frame(new Frame(7, 0.5, 0.25));
    EXPECT_EQ(frame->getIndex(), 7U);
    EXPECT_EQ(frame->getTimeStamp(), 0.5);
    EXPECT_EQ(frame->getTimeStep(), 0.25);
    EXPECT_TRUE(frame->getName().empty());
    EXPECT_EQ(frame->Component::getModel()->getName(), "Frame");
    EXPECT_FALSE(frame->isKeyFrame() || frame->isQueued() || frame->isDiscardedFromCache() ||
                 frame->isJumpFrame() || frame->isSerialized());
    EXPECT_EQ(frame->getNumBytes(), 0U);
    EXPECT_TRUE(frame->getEvents().empty());
    EXPECT_EQ(frame->getIncrementalFrameArchiveBuffer(), nullptr);
    EXPECT_EQ(frame->getTrack(), nullptr);
}

TEST_F(FrameTest, TakesFrameTimeAndStepOfAClock) {
    const ref_ptr<zel::Clock> clock(new zel::Clock("clock", 10));
    clock->tick(0);
    clock->tick(0);
    const ref_ptr<Frame> frame(new Frame(clock.get()));
    EXPECT_EQ(frame->getIndex(), clock->getFrame());
    EXPECT_EQ(frame->getIndex(), 2U);
    EXPECT_EQ(frame->getTimeStamp(), clock->getTime());
    EXPECT_DOUBLE_EQ(frame->getTimeStamp(), 0.2);
    EXPECT_DOUBLE_EQ(frame->getTimeStep(), 0.1);
}

TEST_F(FrameTest, PrintsItsHeader) {
    const ref_ptr<Frame> frame(new Frame(3, 1.5, 0.5));
    frame->setId(9);
    frame->setKeyFrame(true);
    std::ostringstream text;
    text << frame->getHeader();
    EXPECT_EQ(text.str(), "{ index=3, timeStep=0.5, timeStamp=1.5, isKeyFrame=1}");
    EXPECT_EQ(frame->getHeader().id, 9U);
}

TEST_F(FrameTest, ContextOfAPathOfOnePartIsTheFrame) {
    const ref_ptr<Frame> frame = makeFrame();
    EXPECT_EQ(frame->getContext("a"), frame.get());
    EXPECT_EQ(frame->getNumObjects(), 0U);
}

TEST_F(FrameTest, ContextsAreMadeWithoutAnId) {
    const ref_ptr<Frame> frame = makeFrame();
    Component* context = frame->getContext("a.b.c");
    EXPECT_EQ(context->getPath(frame.get()).str(), "a.b");
    EXPECT_EQ(context->getId(), 0xFFFFFFFFU);
    EXPECT_EQ(frame->getObject(0)->getId(), 0xFFFFFFFFU);
    EXPECT_EQ(frame->getContext("a.b.d"), context);
    EXPECT_EQ(frame->getNumObjects(), 1U);
}

TEST_F(FrameTest, ComponentsAndStoragesAreRenamedBuffersAndValuesNot) {
    const ref_ptr<Frame> frame = makeFrame();
    const ref_ptr<Component> component(new Component("other"));
    const ref_ptr<Frame::EntityStorage> storage(new Frame::EntityStorage("other", nullptr, 0, 0));
    const auto buffer = reals("buffer", {1});
    const auto value = real("value", 1);
    const auto part = partial("part", {0}, {1}, 2);
    frame->addComponent(component.get(), "a.component");
    frame->addStorage(storage.get(), "a.storage");
    frame->addBuffer(buffer.get(), "a.x");
    frame->addValue(value.get(), "a.y");
    frame->addBuffer(part.get(), "a.z");
    EXPECT_EQ(component->getPath(frame.get()).str(), "a.component");
    EXPECT_EQ(storage->getPath(frame.get()).str(), "a.storage");
    EXPECT_EQ(buffer->getPath(frame.get()).str(), "a.buffer");
    EXPECT_EQ(value->getPath(frame.get()).str(), "a.value");
    EXPECT_EQ(part->getPath(frame.get()).str(), "a.part");
    expectWhole(frame.get());
}

TEST_F(FrameTest, CountsThePayloadOfEachKindOfNode) {
    const ref_ptr<Frame> frame = makeFrame();
    frame->addValue(real("value", 1).get(), "value");
    EXPECT_EQ(frame->getNumBytes(), 8U);
    frame->addBuffer(makeBuffer<zel::uint8>("bytes", "UInt:8bit", {1, 2, 3}).get(), "bytes");
    EXPECT_EQ(frame->getNumBytes(), 11U);
    frame->addBuffer(partial("part", {0, 4}, {1, 2}, 9).get(), "part");
    EXPECT_EQ(frame->getNumBytes(), 11U + 2 * 8 + 2 * 8);
    const ref_ptr<Component> component(new Component("component"));
    component->addObject(real("inner", 2).get());
    frame->addComponent(component.get(), "component");
    EXPECT_EQ(frame->getNumBytes(), 51U);
    EXPECT_EQ(Frame::calculateNumBytes(frame.get()), 51U);
    frame->removeNode(component.get());
    EXPECT_EQ(frame->getNumBytes(), 43U);
    EXPECT_EQ(component->getContext(), nullptr);
}

TEST_F(FrameTest, CountsTheElementsOfArraysAndNothingForViews) {
    const ref_ptr<Buffer> arrays(new Buffer("arrays", zelData::getFormat("Array<Real>")));
    arrays->resize(2);
    arrays->setElementBuffer(reals("elements", {1, 2, 3}).get());
    EXPECT_EQ(Frame::calculateNumBytes(arrays.get()), 2 * arrays->getElementSize() + 3 * 8);
    auto* model = entity("Seen", "<Attribute.Scalar name='mass' type='Real'/>");
    const ref_ptr<zelData::EntityStorage> storage(new zelData::EntityStorage(model));
    ASSERT_NE(storage->getData(), nullptr);
    EXPECT_EQ(Frame::calculateNumBytes(storage->getData()), 0U);
}

TEST_F(FrameTest, FindsBuffersByPath) {
    const ref_ptr<Frame> frame = makeFrame();
    const auto buffer = reals("buffer", {1});
    frame->addBuffer(buffer.get(), "a.buffer");
    EXPECT_EQ(frame->getBuffer("a.buffer"), buffer.get());
    EXPECT_EQ(frame->getBuffer("a"), nullptr);
    EXPECT_EQ(frame->getBuffer("b"), nullptr);
}

TEST_F(FrameTest, FindsStoragesByIdDepthFirstAndNotBelowBuffers) {
    const ref_ptr<Frame> frame = makeFrame();
    const ref_ptr<Frame::EntityStorage> first(new Frame::EntityStorage("s", nullptr, 0, 0));
    const ref_ptr<Frame::EntityStorage> second(new Frame::EntityStorage("s", nullptr, 0, 0));
    first->setId(500000);
    second->setId(500000);
    const auto buffer = reals("buffer", {1});
    const ref_ptr<Component> part(new Component("part"));
    part->setId(500001);
    buffer->addObject(part.get());
    frame->addBuffer(buffer.get(), "buffer");
    frame->addStorage(first.get(), "a.b.s");
    frame->addStorage(second.get(), "c");
    EXPECT_EQ(Frame::getStorageWithId(frame.get(), 500000), first.get());
    EXPECT_EQ(Frame::getStorageWithId(frame.get(), 500001), nullptr);
    EXPECT_EQ(Frame::getStorageWithId(frame.get(), 500002), nullptr);
}

TEST_F(FrameTest, KeepsEventsInOrder) {
    const ref_ptr<Frame> frame = makeFrame();
    const ref_ptr<Object::Event> first(new Mark);
    const ref_ptr<Object::Event> second(new Mark);
    frame->addEvent(first.get());
    const ref_ptr<Frame> other = makeFrame();
    other->addEvents(frame->getEvents());
    other->addEvent(second.get());
    ASSERT_EQ(other->getEvents().size(), 2U);
    EXPECT_EQ(other->getEvents()[0], first);
    EXPECT_EQ(other->getEvents()[1], second);
}

TEST_F(FrameTest, TablesOfIdsHoldFreeIdsToo) {
    auto* model = entity("Numbered", "<Attribute.Scalar name='mass' type='Real'/>");
    const ref_ptr<zelData::EntityStorage> storage(new zelData::EntityStorage(model, 8));
    storage->createInstances(4);
    storage->destroyInstance(1);
    const ref_ptr<Frame> frame = makeFrame();
    frame->addStorageMetaData(storage.get(), "a.storage");
    const Buffer* idToIndex = frame->getBuffer("a.storage._idToIndex");
    const Buffer* indexToId = frame->getBuffer("a.storage._indexToId");
    ASSERT_NE(idToIndex, nullptr);
    ASSERT_NE(indexToId, nullptr);
    EXPECT_EQ(idToIndex->getFormat(), zelData::getFormat("UInt:64bit"));
    EXPECT_EQ(elementsOf<zel::uint64>(indexToId), (std::vector<zel::uint64>{0, 3, 2}));
    EXPECT_EQ(elementsOf<zel::uint64>(idToIndex), (std::vector<zel::uint64>{0, 3, 2, 1, 4, 5, 6, 7}));
    EXPECT_EQ(frame->getNumBytes(), (8U + 3U) * 8);
}

TEST_F(FrameDeathTest, OtherObjectsAreNoNodes) {
    const ref_ptr<Object> object(new Object("thing"));
    EXPECT_DEATH((void)Frame::calculateNumBytes(object.get()), "Unknown frame node thing");
}

TEST_F(FrameDeathTest, AnIdThatIsNoStoragesIsNotAskedFor) {
    const ref_ptr<Frame> frame = makeFrame();
    const auto value = real("value", 1);
    value->setId(500000);
    frame->addValue(value.get(), "value");
    EXPECT_DEATH((void)Frame::getStorageWithId(frame.get(), 500000), "child->is<EntityStorage>\\(\\)");
}

TEST_F(FrameDeathTest, NodesLieBelowComponentsAlone) {
    const ref_ptr<Frame> frame = makeFrame();
    frame->addValue(real("value", 1).get(), "value");
    EXPECT_DEATH(frame->getContext("value.x"),
                 "'value' is no component, so that 'value.x' can not lie below it");
    EXPECT_DEATH(frame->getContext(""), "a node of a frame needs a path");
}

} // namespace
