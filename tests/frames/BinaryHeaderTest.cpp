#include "SerializedFixture.h"

#include <zelData/FrameExtractor.h>

// Events as bytes and back.

using zel::Object;
using zel::ref_ptr;
using zel::uint32;
using zel::uint64;
using zelData::Array;
using zelData::BinaryData;
using zelData::EntityPtr;
using zelData::EntityRange;
using zelData::EntityStorage;
using zelData::Frame;
using zelData::SerializedFrame;
using BinaryHeader = SerializedFrame::BinaryHeader;
using BatchEvent = SerializedFrame::StorageBatchEvent;

namespace {

class BinaryHeaderTest : public zelTest::SerializedFixture {
protected:
    static EntityStorage* storageOf(uint64 number) { return reinterpret_cast<EntityStorage*>(number); }
    template <typename Event, typename... Arguments>
    static ref_ptr<Object::Event> make(Arguments&&... arguments) {
        return ref_ptr<Object::Event>(new Event(std::forward<Arguments>(arguments)...));
    }
    static Frame::EventVector only(const ref_ptr<Object::Event>& event) {
        Frame::EventVector events;
        events.push_back(event);
        return events;
    }
    template <typename Event>
    static const Event& eventAt(const Frame* frame, zel::size_t i) {
        return dynamic_cast<const Event&>(*frame->getEvents()[i]);
    }
    /// A header with one event, made by hand.
    static ref_ptr<BinaryData> headerOf(const char* type, std::initializer_list<uint32> fields) {
        const std::string name(type);
        ref_ptr<BinaryData> header(
            new BinaryData(56 + 12 + 4 + name.size() + 8 + 4 + 4 * fields.size() + 20));
        zelData::ByteStream stream(header.get());
        BinaryHeader::Frame meta{};
        meta.endTag = BinaryHeader::EndTag;
        meta.headerSize = header->getSize();
        stream.write(meta);
        stream.write<uint32>(1);
        stream.write<uint32>(0);
        stream.write(static_cast<uint32>(name.size()));
        stream.writeBytes(name.data(), name.size());
        stream.write(BinaryHeader::EndTag);
        stream.write<uint32>(1);
        stream.write<uint32>(0);
        for (const uint32 field : fields)
            stream.write(field);
        stream.write(BinaryHeader::EndTag);
        for (const uint32 field : {2U, 0xFFFFFFFFU, 0xFFFFFFFFU, 0U, 0xFFFFFFFFU})
            stream.write(field);
        EXPECT_EQ(stream.remaining(), 0U);
        return header;
    }
};
using BinaryHeaderDeathTest = BinaryHeaderTest;

TEST_F(BinaryHeaderTest, EventsComeBackWithTheNumberOfTheirStorage) {
    const ref_ptr<Frame> frame = makeFrame();
    frame->addEvent(
        make<EntityStorage::CreateInstanceEvent>(storageOf(0x700000011), EntityPtr(nullptr, 4)).get());
    frame->addEvent(make<EntityStorage::DestroyInstanceEvent>(storageOf(0x22), EntityPtr(nullptr, 5)).get());
    frame->addEvent(make<EntityStorage::PermuteEvent>(storageOf(0x33), Array<uint32>()).get());
    const ref_ptr<BatchEvent> batch(new BatchEvent(BatchEvent::Type::Destroy, storageOf(0x44)));
    batch->add(7);
    batch->add(0x100000000);
    frame->addEvent(batch.get());
    const auto copy = throughBytes(frame.get());
    ASSERT_EQ(copy->getEvents().size(), 4U);
    EXPECT_EQ(eventAt<EntityStorage::CreateInstanceEvent>(copy.get(), 0).getStorage(), storageOf(0x11));
    EXPECT_EQ(eventAt<EntityStorage::CreateInstanceEvent>(copy.get(), 0).getInstance(),
              EntityPtr(storageOf(0x11), 0xFFFFFFFFU));
    EXPECT_EQ(eventAt<EntityStorage::DestroyInstanceEvent>(copy.get(), 1).getInstance(),
              EntityPtr(storageOf(0x22), 5));
    EXPECT_EQ(eventAt<EntityStorage::PermuteEvent>(copy.get(), 2).getStorage(), storageOf(0x33));
    const auto& read = eventAt<BatchEvent>(copy.get(), 3);
    EXPECT_EQ(read.getStorage(), storageOf(0x44));
    EXPECT_EQ(read.getType(), BatchEvent::Type::Destroy);
    ASSERT_EQ(read.getIdVector().size(), 2U);
    EXPECT_EQ(read.getIdVector()[0], 7U);
    EXPECT_EQ(read.getIdVector()[1], 0x100000000U);
}

TEST_F(BinaryHeaderTest, BatchesGatherIdsFromAllSides) {
    auto* model = entity("Batched", "<Attribute.Scalar name='mass' type='Real'/>");
    const ref_ptr<EntityStorage> storage(new EntityStorage(model));
    storage->createInstances(3);
    storage->destroyInstance(0); // the ids are 2 and 1 now
    const ref_ptr<BatchEvent> batch(new BatchEvent(BatchEvent::Type::Create, storage.get()));
    batch->add(EntityRange(storage.get(), 0, 2));
    EntityPtr handles[] = {EntityPtr(storage.get(), 9)};
    batch->add(Array<EntityPtr>(handles, 1));
    uint32 ids[] = {5, 6};
    batch->add(Array<uint32>(ids, 2));
    std::vector<uint64> found(batch->getIdVector().begin(), batch->getIdVector().end());
    EXPECT_EQ(found, (std::vector<uint64>{2, 1, 9, 5, 6}));
}

TEST_F(BinaryHeaderTest, SizesOfEventsAreThoseOfTheirRecords) {
    const auto sizeOf = [](const ref_ptr<Object::Event>& event) {
        return BinaryHeader::calculateSerializedEventSize(only(event)) - 8;
    };
    EXPECT_EQ(BinaryHeader::calculateSerializedEventSize({}), 8U);
    EXPECT_EQ(sizeOf(make<EntityStorage::CreateInstanceEvent>(nullptr, EntityPtr())), 8U);
    EXPECT_EQ(sizeOf(make<EntityStorage::DestroyInstanceEvent>(nullptr, EntityPtr())), 12U);
    EXPECT_EQ(sizeOf(make<EntityStorage::PermuteEvent>(nullptr, Array<uint32>())), 8U);
    EXPECT_EQ(sizeOf(make<EntityStorage::CreateInstancesEvent>(nullptr, EntityRange())), 12U);
    EXPECT_EQ(sizeOf(make<EntityStorage::DestroyInstancesEvent>(nullptr, EntityRange())), 16U);
    const ref_ptr<BatchEvent> batch(new BatchEvent(BatchEvent::Type::Create, nullptr));
    batch->add(1);
    batch->add(2);
    EXPECT_EQ(sizeOf(ref_ptr<Object::Event>(batch.get())), 32U);
}

TEST_F(BinaryHeaderTest, ABlockOfEventsStandsByItself) {
    const auto block =
        BinaryHeader::writeEvents(only(make<EntityStorage::PermuteEvent>(storageOf(3), Array<uint32>())));
    const std::string name = "EntityStorage.PermuteEvent";
    ASSERT_EQ(block->getSize(), 12 + 4 + name.size() + 8 + 8);
    EXPECT_EQ(at<uint32>(block.get(), 0), 1U);
    EXPECT_EQ(textOf(block.get()).substr(12, name.size()), name);
    EXPECT_EQ(at<uint32>(block.get(), 16 + name.size()), 1U);
    EXPECT_EQ(at<uint32>(block.get(), 24 + name.size()), 3U);
    EXPECT_EQ(at<uint32>(block.get(), 28 + name.size()), 0xFFFFFFFFU);
}

TEST_F(BinaryHeaderTest, DeprecatedEventsAreReadAloud) {
    const zelTest::LogCapture log;
    const auto segment = dataOf("");
    const ref_ptr<Frame> created(SerializedFrame::extractFrame(
        headerOf("EntityStorage.CreateInstancesEvent", {0x11, 6}).get(), segment.get()));
    const auto& creation = eventAt<EntityStorage::CreateInstancesEvent>(created.get(), 0);
    EXPECT_EQ(creation.getStorage(), storageOf(0x11));
    EXPECT_EQ(creation.getRange().end() - creation.getRange().begin(), 6U);
    const ref_ptr<Frame> destroyed(SerializedFrame::extractFrame(
        headerOf("EntityStorage.DestroyInstancesEvent", {0x22, 3, 8}).get(), segment.get()));
    const auto& destruction = eventAt<EntityStorage::DestroyInstancesEvent>(destroyed.get(), 0);
    EXPECT_EQ(destruction.getRange().begin(), 3U);
    EXPECT_EQ(destruction.getRange().end(), 8U);
    EXPECT_NE(log.text().find("Deprecated EntityStorage.CreateInstancesEvent"), std::string::npos);
    EXPECT_NE(log.text().find("Deprecated EntityStorage.DestroyInstancesEvent"), std::string::npos);
}

TEST_F(BinaryHeaderDeathTest, DeprecatedEventsAreNotWritten) {
    const auto created = only(make<EntityStorage::CreateInstancesEvent>(nullptr, EntityRange()));
    const auto destroyed = only(make<EntityStorage::DestroyInstancesEvent>(nullptr, EntityRange()));
    EXPECT_DEATH((void)BinaryHeader::writeEvents(created), "is not written any more");
    EXPECT_DEATH((void)BinaryHeader::writeEvents(destroyed), "is not written any more");
}

} // namespace
