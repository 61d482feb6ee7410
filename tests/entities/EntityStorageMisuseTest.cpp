#include "EntityFixture.h"

#include <zelData/ArrayAttribute.h>
#include <zelData/Buffer.h>
#include <zelData/EntityData.h>
#include <zelData/Format.h>
#include <zelData/GeneratedEntity.h>
#include <zelData/ScalarAttribute.h>
#include <zelData/ValueT.h>

#include <sstream>
#include <string>
#include <vector>

// What a storage refuses, and what stays when those who listen throw.

using testing::HasSubstr;
using zel::ref_ptr;
using zel::uint32;
using zel::uint64;
using zelData::Array;
using zelData::Buffer;
using zelData::EntityModel;
using zelData::EntityPtr;
using zelData::EntityRange;
using zelData::EntityStorage;
using zelData::getFormat;
using zelTest::whatOf;

namespace {

class EntityStorageMisuseTest : public zelTest::EntityFixture {
protected:
    void SetUp() override {
        EntityFixture::SetUp();
        model = entity("Body",
                       "<Attribute.Scalar name='mass' type='Real' value='5'/>"
                       "<Attribute.Scalar name='triple' type='UInt:32bit' value='9' numElements='3'/>"
                       "<Attribute.Scalar name='title' type='String' value='none'/>");
        storage = new EntityStorage(model);
        other = new EntityStorage(model, "other");
        static_cast<void>(storage->createInstances(4));
        static_cast<void>(other->createInstances(4));
    }
    void TearDown() override {
        storage->verifyConsistency();
        storage = nullptr;
        other = nullptr;
        EntityFixture::TearDown();
    }

    EntityModel* model = nullptr;
    ref_ptr<EntityStorage> storage;
    ref_ptr<EntityStorage> other;
};
using EntityStorageMisuseDeathTest = EntityStorageMisuseTest;

struct ThrowingBufferListener : Buffer::EventListener {
    void updateCallback(Buffer*) override { throw std::runtime_error("update"); }
    void resizeCallback(Buffer*, unsigned int, unsigned int) override {
        if (throwsOnResize)
            throw std::runtime_error("resize");
    }
    bool throwsOnResize = false;
};

} // namespace

// Permutations

TEST_F(EntityStorageMisuseDeathTest, APermutationHasEachIndexOnce) {
    EXPECT_DEATH(storage->reorder(zel::VectorPOD<uint32>{0, 1, 2, 1}),
                 "Body: the permutation has the index 1 twice");
    EXPECT_DEATH(storage->reorder(zel::VectorPOD<uint32>{0, 1, 2, 4}),
                 "Body: entry 3 of the permutation is 4, and there are 4 instances");
    zel::VectorPOD<uint32> twice{0, 1, 1, 2};
    zel::VectorPOD<uint32> large{0, 1, 2, 0xFFFFFFFF};
    storage->preparePermutation();
    EXPECT_DEATH(storage->commitPermutation(Array<uint32>(twice)), "has the index 1 twice");
    EXPECT_DEATH(storage->reorderAttributes(zel::IndexRange(0, 4), Array<uint32>(large)),
                 "Body: entry 3 of the permutation is 4294967295, and there are 4 instances");
}

TEST_F(EntityStorageMisuseDeathTest, NothingChangesWhileAPermutationIsPrepared) {
    const ref_ptr<EntityStorage> share(storage->createSharedStorage());
    storage->preparePermutation();
    const char* const text = "a permutation is under way";
    EXPECT_DEATH(static_cast<void>(storage->createInstance()), text);
    EXPECT_DEATH(static_cast<void>(share->createInstance()), text);
    EXPECT_DEATH(storage->destroyInstance(1), text);
    EXPECT_DEATH(storage->destroyInstances(EntityRange(storage.get(), 0, 2)), text);
    EXPECT_DEATH(storage->preDestroy(storage->getInstance(1)), text);
    EXPECT_DEATH(storage->resize(2), text);
    EXPECT_DEATH(storage->reserve(200), text);
    EXPECT_DEATH(storage->presize(4, 200), text);
    EXPECT_DEATH(storage->keyFrameResize(4, 200), text);
    EXPECT_DEATH(storage->swapInstances(0, 1), text);
    EXPECT_DEATH(storage->swapInstanceIds(0, 1), text);
    EXPECT_DEATH(share->reorder(zel::VectorPOD<uint32>{3, 2, 1, 0}), text);
    EXPECT_DEATH(storage->addCustomAttribute(new zelData::ScalarAttribute("more", getFormat("Real"))), text);
    EXPECT_DEATH(storage->unregisterBuffer(storage->getBuffer("mass")), text);
}

TEST_F(EntityStorageMisuseDeathTest, APermutationIsPreparedAheadOfItsSteps) {
    zel::VectorPOD<uint32> permutation{3, 2, 1, 0};
    const Array<uint32> view(permutation);
    EXPECT_DEATH(storage->reorderAttributes(zel::IndexRange(0, 4), view),
                 "Body: no permutation has been prepared");
    EXPECT_DEATH(storage->commitPermutation(view), "Body: no permutation has been prepared");
}

TEST_F(EntityStorageMisuseTest, ListenersOfColumnsFindTheIdsInTheNewOrder) {
    struct Listener : Buffer::EventListener {
        void updateCallback(Buffer* buffer) override {
            buffer->getStorage()->verifyConsistency();
            ++numCalls;
        }
        int numCalls = 0;
    } listener;
    for (const char* name : {"instance", "mass", "title"})
        storage->getBuffer(name)->addListener(&listener);
    storage->reorder(zel::VectorPOD<uint32>{3, 2, 0, 1});
    EXPECT_EQ(listener.numCalls, 3);
    for (const char* name : {"instance", "mass", "title"})
        storage->getBuffer(name)->removeListener(&listener);
}

// Handles of nothing, and of others

TEST_F(EntityStorageMisuseDeathTest, DestroysItsOwnInstancesOnly) {
    const std::vector<EntityPtr> withNull{storage->getInstance(0), EntityPtr()};
    EXPECT_DEATH(storage->destroyInstances(withNull.data(), 2),
                 "Body: the instance with id 4294967295 can not be destroyed here, it belongs to no storage");
    const std::vector<EntityPtr> foreign{storage->getInstance(0), other->getInstance(3)};
    EXPECT_DEATH(storage->destroyInstances(foreign.data(), 2),
                 "Body: the instance with id 3 can not be destroyed here, it belongs to another storage");
    const std::vector<EntityPtr> dead{EntityPtr(storage.get(), 20)};
    EXPECT_DEATH(storage->destroyInstances(dead.data(), 1), "Body: there is no instance with id 20");
    EXPECT_DEATH(storage->destroyInstances(EntityRange(other.get(), 0, 2)),
                 "Body: the instances of a range of another storage can not be destroyed here");
}

TEST_F(EntityStorageMisuseTest, HandlesOfAShareAreItsOwn) {
    const ref_ptr<EntityStorage> share(storage->createSharedStorage());
    const EntityPtr handle = share->getInstance(1);
    storage->destroyInstances(&handle, 1);
    EXPECT_EQ(storage->size(), 3U);
    storage->destroyInstances(EntityRange(share.get(), 0, 2));
    EXPECT_EQ(share->size(), 1U);
}

TEST_F(EntityStorageMisuseTest, AHandleIsNullAfterTheInstanceHasGone) {
    struct Listener : EntityStorage::EventListener {
        void destroyInstanceCallback(EntityStorage*, EntityPtr instance) override {
            EXPECT_EQ(*handle, instance);
            ++numCalls;
            throw std::runtime_error("not now");
        }
        EntityPtr* handle = nullptr;
        int numCalls = 0;
    } listener;
    EntityPtr handle = storage->getInstance(2);
    listener.handle = &handle;
    storage->addListener(&listener);
    EXPECT_EQ(whatOf([&] { handle.destroy(); }), "not now");
    EXPECT_TRUE(handle.isNull());
    EXPECT_EQ(storage->size(), 3U); // nobody prevents it
    EXPECT_EQ(listener.numCalls, 1);
    storage->removeListener(&listener);
    handle.destroy(); // a null one is left alone
}

TEST_F(EntityStorageMisuseTest, AListenerMayBeFasterThanAList) {
    struct Listener : EntityStorage::EventListener {
        void destroyInstancesCallback(EntityStorage* from, Array<EntityPtr>) override {
            from->destroyInstance(1);
        }
        void destroyInstancesCallback(EntityStorage*, EntityRange) override {}
    } listener;
    storage->addListener(&listener);
    const std::vector<EntityPtr> list{storage->getInstance(0), storage->getInstance(1)};
    storage->destroyInstances(list.data(), 2);
    EXPECT_EQ(storage->size(), 2U);
    EXPECT_TRUE(storage->isAlive(2));
    EXPECT_TRUE(storage->isAlive(3));
    storage->removeListener(&listener);
}

TEST_F(EntityStorageMisuseTest, AHandleOfAStorageWithoutEntityPrints) {
    const ref_ptr<EntityStorage> plain(new EntityStorage(zel::Name("plain")));
    plain->resize(2);
    std::ostringstream text;
    EntityPtr(plain.get(), 1).print(text);
    EXPECT_EQ(text.str(),
              "--== EntityInstance: none (storage: plain, id: 1, index: 1) ==--\n--== END ==--\n");
}

TEST_F(EntityStorageMisuseDeathTest, ADefaultValueIsNotNull) {
    EXPECT_DEATH(model->getAttribute("mass")->setDefaultValue(nullptr), "zelVerify failed: `value'");
}

TEST_F(EntityStorageMisuseTest, ACapacityBelowThePresentOneIsNotTaken) {
    storage->getCapacityValue()->set(8);
    EXPECT_EQ(storage->capacity(), 32U);
    EXPECT_EQ(storage->getCapacityValue()->get(), 32U);
    EXPECT_EQ(storage->getBuffer("mass")->getCapacityValue()->get(), 32U);
}

// Several elements an instance, and attributes of others

TEST_F(EntityStorageMisuseTest, AccessorsCountInInstances) {
    uint32* triples = storage->getBuffer("triple")->data<uint32>();
    for (uint32 i = 0; i < 12; ++i)
        triples[i] = i;
    const auto* triple = model->getAttribute("triple");
    storage->destroyInstance(0); // so that id and index differ
    const EntityPtr last(storage.get(), 3);
    EXPECT_EQ(zelData::getElement<uint32>(last, triple), 9U);
    EXPECT_EQ((&zelData::getElement<uint32>(EntityPtr(storage.get(), 1), triple))[2], 5U);
    const ref_ptr<zelData::ValueT<uint64>> two(new zelData::ValueT<uint64>("numElements", 2));
    auto* pair = new zelData::ScalarAttributeT<double>("pair", getFormat("Real:64bit"), nullptr, two.get());
    storage->addCustomAttribute(pair);
    double* pairs = pair->getElements(storage.get());
    for (uint32 i = 0; i < 6; ++i)
        pairs[i] = i;
    EXPECT_EQ(pair->get(EntityPtr(storage.get(), 1)), 2);
    pair->set(EntityPtr(storage.get(), 2), 40);
    EXPECT_EQ(pairs[4], 40);
    // The same through a view.
    Array<double> array;
    storage->getData()->registerArray(pair, &array);
    storage->getData()->bind(pair, storage->getBuffer(pair));
    EXPECT_EQ(zelData::getElement<double>(zelData::EntityInstance(storage->getData(), 2), pair), 40);
    storage->getData()->unregisterArray(pair);
}

TEST_F(EntityStorageMisuseTest, AnAttributeOfAnotherEntityHasNoColumn) {
    EntityModel* stranger = entity("Stranger", "<Attribute.Scalar name='weight' type='Real'/>");
    const auto* weight = stranger->getAttribute("weight");
    ASSERT_EQ(weight->getAttributeId(), model->getAttribute("mass")->getAttributeId());
    EXPECT_EQ(storage->getBuffer(weight), nullptr);
    EXPECT_EQ(storage->getElements(weight), nullptr);
    Array<double> array;
    storage->getData()->registerArray(model->getAttribute("mass"), &array);
    EXPECT_EQ(storage->getData()->getArray(weight), nullptr);
    storage->getData()->unregisterArray(weight);
    EXPECT_EQ(storage->getData()->getArray(model->getAttribute("mass")), &array);
    storage->getData()->unregisterArray(model->getAttribute("mass"));
}

TEST_F(EntityStorageMisuseTest, TheNumberOfElementsOfAColumnStays) {
    Buffer* triple = storage->getBuffer("triple");
    auto* count = dynamic_cast<zelData::ValueT<uint64>*>(triple->getElementArraySizeValue());
    ASSERT_NE(count, nullptr);
    EXPECT_THAT(whatOf([&] { count->set(50); }),
                HasSubstr("triple: The number of elements of each instance, 3, can not become 50"));
    EXPECT_EQ(count->get(), 3U);
    EXPECT_EQ(triple->getElementArraySize(), 3U);
    const ref_ptr<zelData::ValueT<uint64>> five(new zelData::ValueT<uint64>("five", 5));
    EXPECT_NE(whatOf([&] { storage->getBuffer("mass")->setElementArraySize(five.get()); }), "no exception");
    EXPECT_EQ(storage->getBuffer("mass")->getElementArraySize(), 1U);
    // Without instances it takes effect.
    storage->clear();
    count->set(5);
    static_cast<void>(storage->createInstances(40));
    EXPECT_EQ(triple->size(), 200U);
    EXPECT_EQ(triple->data<uint32>()[199], 9U);
    EXPECT_EQ(triple->getNumElementsValue()->get(), 200U);
}

// Listeners that throw

TEST_F(EntityStorageMisuseTest, AListenerThatThrowsEndsNoDestructionHalfWay) {
    for (uint64 i = 0; i < 4; ++i) {
        storage->getBuffer("mass")->data<double>()[i] = static_cast<double>(i);
        storage->getBuffer("title")->data<zel::String>()[i] = std::to_string(i);
    }
    ThrowingBufferListener listener;
    storage->getBuffer("mass")->addListener(&listener);
    EXPECT_EQ(whatOf([&] { storage->destroyInstance(0); }), "update");
    EXPECT_EQ(storage->size(), 3U);
    EXPECT_EQ(storage->getBuffer("title")->data<zel::String>()[0], "3");
    EXPECT_EQ(whatOf([&] { storage->destroyInstances(EntityRange(storage.get(), 0, 1)); }), "update");
    EXPECT_EQ(storage->size(), 2U);
    EXPECT_EQ(whatOf([&] { storage->reorder(zel::VectorPOD<uint32>{1, 0}); }), "update");
    EXPECT_EQ(whatOf([&] { storage->swapInstances(0, 1); }), "update");
    EXPECT_EQ(whatOf([&] { storage->copyInstance(1, other.get()); }), "no exception");
    storage->verifyConsistency();
    for (const uint32 id : {1U, 2U}) {
        EXPECT_EQ(storage->getBuffer("mass")->data<double>()[storage->getIndex(id)], id);
        EXPECT_EQ(storage->getBuffer("title")->data<zel::String>()[storage->getIndex(id)],
                  std::to_string(id));
    }
    listener.throwsOnResize = true;
    EXPECT_EQ(whatOf([&] { static_cast<void>(storage->createInstance()); }), "resize");
    EXPECT_EQ(storage->size(), 3U);
    EXPECT_EQ(storage->getBuffer("title")->size(), 3U);
    EXPECT_EQ(whatOf([&] { storage->resize(1); }), "resize");
    EXPECT_EQ(storage->size(), 1U);
    EXPECT_EQ(storage->getBuffer("title")->size(), 1U);
    storage->getBuffer("mass")->removeListener(&listener);
}

TEST_F(EntityStorageMisuseTest, ABatchIsClosedWhenAListenerThrows) {
    struct Listener : EntityStorage::EventListener {
        void createInstancesCallback(EntityStorage*, EntityRange) override { throw std::runtime_error("no"); }
        void createInstancesCallback(EntityStorage*, Array<EntityPtr>) override {}
    } listener;
    storage->addListener(&listener);
    storage->beginBatch();
    EXPECT_EQ(whatOf([&] { storage->commitBatch(8); }), "no");
    EXPECT_FALSE(storage->isBatchOpen());
    EXPECT_EQ(storage->size(), 8U);
    storage->removeListener(&listener);
    storage->beginBatch();
    EXPECT_NE(whatOf([&] { storage->commitBatch(uint64{1} << 33); }), "no exception");
    EXPECT_FALSE(storage->isBatchOpen());
    EXPECT_NE(whatOf([&] { storage->getData()->presize(0xFFFFFFFE); }), "no exception");
    EXPECT_FALSE(storage->isBatchOpen());
    EXPECT_FALSE(storage->getData()->isBatchActive());
    EXPECT_EQ(storage->size(), 8U);
}

// Arrays

TEST_F(EntityStorageMisuseTest, ArraysAreCopiedWithTheirElements) {
    EntityModel* polygon = entity("Polygon", "<Attribute.Array name='corners' type='Real'/>");
    ref_ptr<EntityStorage> source(new EntityStorage(polygon));
    const ref_ptr<EntityStorage> target(new EntityStorage(polygon));
    const EntityPtr instance = source->createInstance();
    Buffer* elements = source->getBuffer("corners")->getElementBuffer();
    elements->resize(3);
    for (uint64 i = 0; i < 3; ++i)
        elements->data<double>()[i] = static_cast<double>(i);
    const auto arrayAt = [](const ref_ptr<EntityStorage>& of, uint64 index) -> Array<double>& {
        return of->getBuffer("corners")->data<Array<double>>()[index];
    };
    arrayAt(source, 0).bind(elements, {1, 3});
    const EntityPtr copy = instance.copy(target.get());
    EXPECT_EQ(arrayAt(target, 0).buffer(), target->getBuffer("corners")->getElementBuffer());
    const EntityPtr twin = instance.copy();
    arrayAt(source, twin.getIndex())[0] = 50;
    EXPECT_EQ(arrayAt(source, 0)[0], 1);
    EXPECT_EQ(arrayAt(source, 0)[1], 2);

    const ref_ptr<Buffer> clone(source->getBuffer("corners")->clone());
    source = nullptr;
    EXPECT_EQ(arrayAt(target, copy.getIndex())[0], 1);
    EXPECT_EQ(arrayAt(target, copy.getIndex())[1], 2);
    const auto& cloned = clone->data<Array<double>>()[0];
    EXPECT_EQ(cloned.buffer(), clone->getElementBuffer());
    EXPECT_EQ(cloned[1], 2);
    clone->getElementBuffer()->resize(1000);
    EXPECT_EQ(cloned.data(), clone->getElementBuffer()->data<double>() + 1);
}

TEST_F(EntityStorageMisuseTest, ElementsMayOutliveTheirColumn) {
    EntityModel* polygon = entity("Polygon", "<Attribute.Array name='corners' type='Real'/>");
    ref_ptr<EntityStorage> source(new EntityStorage(polygon));
    static_cast<void>(source->createInstance());
    const ref_ptr<Buffer> elements(source->getBuffer("corners")->getElementBuffer());
    source = nullptr;
    EXPECT_EQ(elements->reallocationEvent.size(), 0U);
    elements->resize(1000);
    EXPECT_EQ(elements->size(), 1000U);
}
