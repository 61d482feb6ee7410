#include "SerializedFixture.h"

#include <support/Golden.h>
#include <support/LogCapture.h>

// Bytes that stay as they are, for files are read for years. The listings in tests/golden tell each byte.

using zel::Object;
using zel::ref_ptr;
using zel::uint64;
using zelData::Array;
using zelData::Buffer;
using zelData::EntityPtr;
using zelData::EntityStorage;
using zelData::Frame;
using zelData::SerializedFrame;
using zelTest::elementsOf;
using zelTest::readListing;
using BatchEvent = SerializedFrame::StorageBatchEvent;

namespace {

class FrameGoldenTest : public zelTest::SerializedFixture {
protected:
    static EntityStorage* storageOf(uint64 number) { return reinterpret_cast<EntityStorage*>(number); }
    template <typename Node>
    static ref_ptr<Node> withId(ref_ptr<Node> node, zel::uint32 id) {
        node->setId(id);
        return node;
    }

    ref_ptr<Frame> goldenFrame() {
        ref_ptr<Frame> frame(new Frame(3, 1.5, 0.5));
        frame->setId(7);
        frame->setKeyFrame(true);
        frame->setSerialized(true);
        const auto add = [&frame](Object::Event* event) {
            frame->addEvent(ref_ptr<Object::Event>(event).get());
        };
        add(new EntityStorage::DestroyInstanceEvent(storageOf(0x21), EntityPtr(nullptr, 4)));
        add(new EntityStorage::PermuteEvent(storageOf(0x21), Array<zel::uint32>()));
        add(new EntityStorage::CreateInstanceEvent(storageOf(0x22), EntityPtr()));
        auto* batch = new BatchEvent(BatchEvent::Type::Destroy, storageOf(0x22));
        batch->add(5);
        batch->add(0x100000000);
        add(batch);

        frame->addValue(withId(real("t", 2), 10).get(), "t");
        frame->addBuffer(withId(makeBuffer<zel::uint8>("b", "UInt:8bit", {1, 2, 3}), 11).get(), "b");
        const auto part = withId(partial("p", {1, 4}, {1, 2}, 9), 12);
        part->getIndexBuffer()->setId(13);
        part->getDataBuffer()->setId(14);
        frame->addBuffer(part.get(), "c.p");
        auto* model = entity("Golden", "<Attribute.Scalar name='mass' type='Real'/>");
        const ref_ptr<Frame::EntityStorage> storage(new Frame::EntityStorage("s", model, 1, 2));
        frame->addStorage(withId(storage, 15).get(), "s");
        frame->addNode(storage.get(), withId(reals("mass", {4}), 16).get());
        const auto names = withId(texts("String", {"ab", "c"}), 17);
        names->setName("n");
        frame->addBuffer(names.get(), "n");
        return frame;
    }
};

TEST_F(FrameGoldenTest, FramesAreWrittenAsTold) {
    const auto frame = goldenFrame();
    const ref_ptr<SerializedFrame> serialized(new SerializedFrame(frame.get()));
    EXPECT_EQ(textOf(serialized->writeBinaryHeader().get()), readListing("frame-header.hex"));
    EXPECT_EQ(textOf(segmentOf(*serialized).get()), readListing("frame-segment.hex"));
}

TEST_F(FrameGoldenTest, FramesAreReadAsTold) {
    (void)goldenFrame(); // the entity
    const ref_ptr<Frame> frame(SerializedFrame::extractFrame(dataOf(readListing("frame-header.hex")).get(),
                                                             dataOf(readListing("frame-segment.hex")).get()));
    EXPECT_EQ(frame->getIndex(), 3U);
    EXPECT_EQ(frame->getTimeStamp(), 1.5);
    EXPECT_EQ(frame->getTimeStep(), 0.5);
    EXPECT_EQ(frame->getId(), 7U);
    EXPECT_TRUE(frame->isKeyFrame());
    EXPECT_EQ(contentOf(frame->findObject("t")), 2.0);
    EXPECT_EQ(elementsOf<zel::uint8>(frame->getBuffer("b")), (std::vector<zel::uint8>{1, 2, 3}));
    const auto& part = dynamic_cast<Frame::PartialBuffer&>(*frame->getResource("c.p"));
    EXPECT_EQ(elementsOf<uint64>(part.getIndexBuffer()), (std::vector<uint64>{1, 4}));
    EXPECT_EQ(elementsOf<double>(part.getDataBuffer()), (std::vector<double>{1, 2}));
    EXPECT_EQ(part.getFullSize(), 9U);
    EXPECT_EQ(part.getDataBuffer()->getId(), 14U);
    const auto& storage = dynamic_cast<Frame::EntityStorage&>(*frame->findObject("s"));
    EXPECT_EQ(storage.size(), 1U);
    EXPECT_EQ(storage.capacity(), 2U);
    EXPECT_EQ(storage.getId(), 15U);
    EXPECT_EQ(elementsOf<double>(frame->getBuffer("s.mass")), (std::vector<double>{4}));
    EXPECT_EQ(frame->getBuffer("n")->data<zel::String>()[0], "ab");
    EXPECT_EQ(frame->getBuffer("n")->data<zel::String>()[1], "c");

    const auto& events = frame->getEvents();
    ASSERT_EQ(events.size(), 4U);
    EXPECT_EQ(dynamic_cast<const EntityStorage::DestroyInstanceEvent&>(*events[0]).getInstance(),
              EntityPtr(storageOf(0x21), 4));
    EXPECT_EQ(dynamic_cast<const EntityStorage::PermuteEvent&>(*events[1]).getStorage(), storageOf(0x21));
    EXPECT_EQ(dynamic_cast<const EntityStorage::CreateInstanceEvent&>(*events[2]).getStorage(),
              storageOf(0x22));
    const auto& batch = dynamic_cast<const BatchEvent&>(*events[3]);
    EXPECT_EQ(batch.getType(), BatchEvent::Type::Destroy);
    ASSERT_EQ(batch.getIdVector().size(), 2U);
    EXPECT_EQ(batch.getIdVector()[1], 0x100000000U);
}

TEST_F(FrameGoldenTest, EventsOfOldJournalsAreReadAsTold) {
    const zelTest::LogCapture log;
    const ref_ptr<Frame> frame(
        SerializedFrame::extractFrame(dataOf(readListing("frame-old-header.hex")).get(), dataOf("").get()));
    EXPECT_EQ(frame->getIndex(), 3U);
    ASSERT_EQ(frame->getEvents().size(), 2U);
    const auto& creation = dynamic_cast<const EntityStorage::CreateInstancesEvent&>(*frame->getEvents()[0]);
    EXPECT_EQ(creation.getStorage(), storageOf(0x21));
    EXPECT_EQ(creation.getRange().end() - creation.getRange().begin(), 6U);
    const auto& destruction =
        dynamic_cast<const EntityStorage::DestroyInstancesEvent&>(*frame->getEvents()[1]);
    EXPECT_EQ(destruction.getStorage(), storageOf(0x22));
    EXPECT_EQ(destruction.getRange().begin(), 3U);
    EXPECT_EQ(destruction.getRange().end(), 8U);
}

} // namespace
