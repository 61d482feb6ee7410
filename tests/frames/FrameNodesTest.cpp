#include "FrameFixture.h"

using zel::ref_ptr;
using zel::uint64;
using zelData::Buffer;
using zelData::Frame;
using zelTest::elementsOf;

namespace {

class PartialBufferTest : public zelTest::FrameFixture {};
class PartialBufferDeathTest : public zelTest::FrameFixture {};

class FrameStorageTest : public zelTest::FrameFixture {
protected:
    /// Of three instances with the ids 2, 0 and 1, a column of one element each and one of two.
    ref_ptr<Frame::EntityStorage> threeInstances() {
        auto* model = entity("Frames",
                             "<Attribute.Scalar name='mass' type='Real'/>"
                             "<Attribute.Scalar name='pair' type='Real' numElements='2'/>");
        ref_ptr<Frame::EntityStorage> storage(new Frame::EntityStorage("storage", model, 3, 4));
        storage->addObject(numbers("_idToIndex", {1, 2, 0, 3}).get());
        storage->addObject(numbers("_indexToId", {2, 0, 1}).get());
        storage->addObject(reals("mass", {2, 0, 1}).get());
        storage->addObject(reals("pair", {20, 21, 0, 1, 10, 11}).get());
        storage->addObject(makeBuffer<zel::uint8>("extra", "UInt:8bit", {2, 2, 2, 0, 0, 0, 1, 1, 1}).get());
        return storage;
    }
    static std::vector<double> realsOf(Frame::EntityStorage* storage, const char* name) {
        return elementsOf<double>(dynamic_cast<Buffer*>(storage->findObject(name)));
    }
};
class FrameStorageDeathTest : public FrameStorageTest {};

TEST_F(PartialBufferTest, HoldsItsBuffersAsChildren) {
    const auto part = partial("part", {3, 1}, {30, 10}, 5);
    EXPECT_EQ(part->zel::Component::getModel()->fullPath(), "Frame.PartialBuffer");
    EXPECT_EQ(part->findObject("index"), part->getIndexBuffer());
    EXPECT_EQ(part->findObject("data"), part->getDataBuffer());
    EXPECT_EQ(part->size(), 2U);
    EXPECT_EQ(part->getFullSize(), 5U);
}

TEST_F(PartialBufferTest, MayBeMadeWithoutDataFirst) {
    const ref_ptr<Frame::PartialBuffer> part(new Frame::PartialBuffer("part", 2, 9));
    EXPECT_EQ(part->getDataBuffer(), nullptr);
    EXPECT_EQ(part->getNumObjects(), 1U);
    part->resize(3);
    EXPECT_EQ(part->getIndexBuffer()->size(), 3U);
    const auto first = reals("first", {1, 2, 3});
    part->setDataBuffer(first.get());
    const auto second = reals("second", {4, 5, 6});
    part->setDataBuffer(second.get());
    EXPECT_EQ(part->getDataBuffer(), second.get());
    EXPECT_EQ(second->getName(), "data");
    EXPECT_EQ(part->getNumObjects(), 2U);
    EXPECT_EQ(first->getContext(), nullptr);
}

TEST_F(PartialBufferTest, MakesBuffersOfAFormat) {
    const ref_ptr<Frame::PartialBuffer> part(
        new Frame::PartialBuffer("part", zelData::getFormat("Real:32bit"), 4, 9));
    EXPECT_EQ(part->getDataBuffer()->size(), 4U);
    EXPECT_EQ(part->getIndexBuffer()->size(), 4U);
    EXPECT_EQ(part->getDataBuffer()->getFormat(), zelData::getFormat("Real:32bit"));
}

TEST_F(PartialBufferTest, ResizingKeepsTheContent) {
    const auto part = partial("part", {3, 1}, {30, 10}, 5);
    part->resize(3);
    EXPECT_EQ(elementsOf<uint64>(part->getIndexBuffer()), (std::vector<uint64>{3, 1, 0}));
    part->resize(1);
    EXPECT_EQ(elementsOf<double>(part->getDataBuffer()), (std::vector<double>{30}));
}

TEST_F(PartialBufferTest, ClonesAreApart) {
    const auto part = partial("part", {3, 1}, {30, 10}, 5);
    const ref_ptr<Frame::PartialBuffer> copy(part->clone());
    part->getDataBuffer()->data<double>()[0] = 0;
    EXPECT_EQ(copy->getName(), "part");
    EXPECT_EQ(copy->getFullSize(), 5U);
    EXPECT_EQ(elementsOf<double>(copy->getDataBuffer()), (std::vector<double>{30, 10}));
    EXPECT_EQ(elementsOf<uint64>(copy->getIndexBuffer()), (std::vector<uint64>{3, 1}));
}

TEST_F(PartialBufferTest, ClonesWithoutDataHaveTheirPlaces) {
    const ref_ptr<Frame::PartialBuffer> part(new Frame::PartialBuffer("part", 2, 9));
    part->getIndexBuffer()->data<uint64>()[1] = 6;
    const ref_ptr<Frame::PartialBuffer> copy(part->clone());
    EXPECT_EQ(copy->getDataBuffer(), nullptr);
    EXPECT_EQ(elementsOf<uint64>(copy->getIndexBuffer()), (std::vector<uint64>{0, 6}));
}

TEST_F(PartialBufferDeathTest, RefusesBuffersThatDoNotBelongTogether) {
    const auto index = numbers("index", {1, 2});
    const auto data = reals("data", {1});
    EXPECT_DEATH(Frame::PartialBuffer("part", nullptr, data.get(), 1), "`indexBuffer'");
    EXPECT_DEATH(Frame::PartialBuffer("part", index.get(), nullptr, 1), "`dataBuffer'");
    EXPECT_DEATH(Frame::PartialBuffer("part", index.get(), data.get(), 1),
                 "indexBuffer->size\\(\\) == dataBuffer->size\\(\\)");
    EXPECT_DEATH(Frame::PartialBuffer("part", data.get(), data.get(), 1),
                 "part: the places of elements are of the format UInt:64bit, not Real:64bit");
}

TEST_F(FrameStorageTest, TakesAfterAStorage) {
    auto* model = entity("Taken", "<Attribute.Scalar name='mass' type='Real'/>");
    const ref_ptr<zelData::EntityStorage> storage(new zelData::EntityStorage(model, "taken", 16));
    storage->createInstances(3);
    const ref_ptr<Frame::EntityStorage> node(new Frame::EntityStorage(storage.get()));
    EXPECT_EQ(node->getName(), "taken");
    EXPECT_EQ(node->getId(), storage->getId());
    EXPECT_EQ(node->getModel(), model);
    EXPECT_EQ(node->size(), 3U);
    EXPECT_EQ(node->capacity(), storage->capacity());
    EXPECT_EQ(node->getNumObjects(), 0U);
    EXPECT_EQ(node->zel::Component::getModel()->fullPath(), "Frame.EntityStorage");
}

TEST_F(FrameStorageTest, KnowsItsTables) {
    const auto storage = threeInstances();
    EXPECT_EQ(storage->getIdToIndexBuffer(), storage->findObject("_idToIndex"));
    EXPECT_EQ(storage->getIndexToIdBuffer(), storage->findObject("_indexToId"));
    storage->removeObject(storage->getIdToIndexBuffer());
    EXPECT_EQ(storage->getIdToIndexBuffer(), nullptr);
    storage->removeAllObjects();
    EXPECT_EQ(storage->getIndexToIdBuffer(), nullptr);
    storage->resize(1);
    EXPECT_EQ(storage->size(), 1U);
}

TEST_F(FrameStorageTest, ResizesColumnsAndNotTables) {
    const auto storage = threeInstances();
    storage->resize(4);
    EXPECT_EQ(realsOf(storage.get(), "mass"), (std::vector<double>{2, 0, 1, 0}));
    EXPECT_EQ(realsOf(storage.get(), "pair"), (std::vector<double>{20, 21, 0, 1, 10, 11, 0, 0}));
    EXPECT_EQ(dynamic_cast<Buffer&>(*storage->findObject("extra")).size(), 12U);
    EXPECT_EQ(storage->getIndexToIdBuffer()->size(), 3U);
    EXPECT_EQ(storage->getIdToIndexBuffer()->size(), 4U);
}

TEST_F(FrameStorageTest, ReservingAndSettingChangeNumbersAlone) {
    const auto storage = threeInstances();
    storage->reserve(100);
    storage->setSize(7);
    EXPECT_EQ(storage->capacity(), 100U);
    EXPECT_EQ(storage->size(), 7U);
    EXPECT_EQ(realsOf(storage.get(), "mass").size(), 3U);
}

TEST_F(FrameStorageTest, DestructionMovesTheLastInstance) {
    const auto storage = threeInstances();
    storage->destroyInstance(2);
    EXPECT_EQ(storage->size(), 2U);
    EXPECT_EQ(realsOf(storage.get(), "mass"), (std::vector<double>{1, 0}));
    EXPECT_EQ(realsOf(storage.get(), "pair"), (std::vector<double>{10, 11, 0, 1}));
    EXPECT_EQ(elementsOf<zel::uint8>(dynamic_cast<Buffer*>(storage->findObject("extra"))),
              (std::vector<zel::uint8>{1, 1, 1, 0, 0, 0}));
    EXPECT_EQ(elementsOf<uint64>(storage->getIdToIndexBuffer()), (std::vector<uint64>{1, 0, 2, 3}));
    EXPECT_EQ(elementsOf<uint64>(storage->getIndexToIdBuffer()), (std::vector<uint64>{1, 0, 2}));
}

TEST_F(FrameStorageTest, DestructionOfTheLastInstanceOnlyShrinks) {
    const auto storage = threeInstances();
    storage->destroyInstance(1);
    EXPECT_EQ(realsOf(storage.get(), "mass"), (std::vector<double>{2, 0}));
    EXPECT_EQ(elementsOf<uint64>(storage->getIdToIndexBuffer()), (std::vector<uint64>{1, 2, 0, 3}));
    EXPECT_EQ(elementsOf<uint64>(storage->getIndexToIdBuffer()), (std::vector<uint64>{2, 0, 1}));
}

TEST_F(FrameStorageDeathTest, IdsLieWithinTheTable) {
    const auto storage = threeInstances();
    EXPECT_DEATH(storage->destroyInstance(4), "id < idToIndex.size\\(\\)");
    EXPECT_DEATH(storage->destroyInstance(3), "index < m_size");
}

} // namespace
