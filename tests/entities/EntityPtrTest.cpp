#include "EntityFixture.h"

#include <zelData/Array.h>
#include <zelData/Buffer.h>
#include <zelData/EntityData.h>
#include <zelData/EntityInstance.h>
#include <zelData/EntityPtr.h>
#include <zelData/EntityRange.h>
#include <zelData/EntityStorageEvents.h>
#include <zelData/Format.h>
#include <zelData/SharedAttribute.h>
#include <zelData/Transform.h>
#include <zelData/Type.h>
#include <zelData/ValueT.h>

using testing::HasSubstr;
using zel::ref_ptr;
using zel::String;
using zel::uint32;
using zel::uint64;
using zelData::Array;
using zelData::Buffer;
using zelData::EntityData;
using zelData::EntityInstance;
using zelData::EntityModel;
using zelData::EntityPtr;
using zelData::EntityStorage;
using zelData::getFormat;
using zelData::transform;
using zelData::Value;

namespace {

class EntityPtrTest : public zelTest::EntityFixture {
protected:
    void SetUp() override {
        EntityFixture::SetUp();
        model = entity("Body",
                       "<Attribute.Scalar name='mass' type='Real' value='5'/>"
                       "<Attribute.Scalar name='lock' type='SpinMutex'/>"
                       "<Attribute.Shared name='g' type='Real' value='2'/>");
        storage = new EntityStorage(model, "bodies");
    }
    void TearDown() override {
        storage = nullptr;
        EntityFixture::TearDown();
    }
    [[nodiscard]] double& mass(const EntityPtr& instance) {
        return instance.getStorage()->getBuffer("mass")->data<double>()[instance.getIndex()];
    }
    [[nodiscard]] zelData::Attribute* attribute(const char* name) { return model->getAttribute(name); }

    EntityModel* model = nullptr;
    ref_ptr<EntityStorage> storage;
};
using EntityInstanceTest = EntityPtrTest;
using EntityDataTest = EntityPtrTest;
using EntityFormatsTest = EntityPtrTest;
using EntityFormatsDeathTest = EntityPtrTest;
using EntityDataDeathTest = EntityPtrTest;

/// The text of an element.
template <typename T>
String text(const char* type, const T& element) {
    String result;
    transform(&result, getFormat(String(type) + ":ascii"), &element, getFormat(String(type) + ":default"), 1);
    return result;
}

template <typename T>
T read(const char* type, const String& content) {
    T result;
    transform(&result, getFormat(String(type) + ":default"), &content, getFormat(String(type) + ":ascii"), 1);
    return result;
}

} // namespace

// EntityPtr

TEST_F(EntityPtrTest, ANewHandleIsNull) {
    const EntityPtr null;
    EXPECT_TRUE(null.isNull());
    EXPECT_FALSE(null);
    EXPECT_EQ(null.getStorage(), nullptr);
    EXPECT_EQ(null.getId(), zel::InvalidIndex);
    EXPECT_EQ(null.getIndex(), zel::InvalidIndex);
    EXPECT_EQ(null.getModel(), nullptr);
    EXPECT_TRUE(null.copy().isNull());
}

TEST_F(EntityPtrTest, StaysValidWhenOthersGoAndWhenAllMove) {
    const EntityPtr first = storage->createInstance();
    const EntityPtr second = storage->createInstance();
    const EntityPtr third = storage->createInstance();
    mass(third) = 7;
    EntityPtr(first).destroy();
    EXPECT_EQ(third.getIndex(), 0U);
    EXPECT_EQ(mass(third), 7);
    storage->reorder(zel::VectorPOD<uint32>{1, 0});
    EXPECT_EQ(third.getIndex(), 1U);
    EXPECT_EQ(mass(third), 7);
    EXPECT_EQ(mass(second), 5);
    EXPECT_EQ(third.getModel(), model);
}

TEST_F(EntityPtrTest, IsNullAfterDestruction) {
    EntityPtr instance = storage->createInstance();
    instance.destroy();
    EXPECT_TRUE(instance.isNull());
    EXPECT_EQ(storage->size(), 0U);
    instance.destroy();
    EXPECT_EQ(instance, EntityPtr());
}

TEST_F(EntityPtrTest, CopiesWithinAndBetweenStorages) {
    const EntityPtr instance = storage->createInstance();
    mass(instance) = 7;
    const EntityPtr copy = instance.copy();
    EXPECT_EQ(storage->size(), 2U);
    EXPECT_EQ(mass(copy), 7);
    const ref_ptr<EntityStorage> other(new EntityStorage(model));
    EXPECT_EQ(mass(instance.copy(other.get())), 7);
    mass(copy) = 8;
    instance.copyAttributes(copy);
    EXPECT_EQ(mass(instance), 8);
}

TEST_F(EntityPtrTest, FollowsItsInstanceToAnotherStorage) {
    EntityPtr instance = storage->createInstance();
    mass(instance) = 7;
    const ref_ptr<EntityStorage> other(new EntityStorage(model));
    instance.transfer(other.get());
    EXPECT_EQ(instance.getStorage(), other.get());
    EXPECT_EQ(mass(instance), 7);
    EXPECT_EQ(storage->size(), 0U);
}

TEST_F(EntityPtrTest, Prints) {
    const EntityPtr instance = storage->createInstance();
    std::ostringstream stream;
    stream << instance;
    EXPECT_EQ(stream.str(), String::format("(%p, 0)", static_cast<void*>(storage.get())));
    stream.str("");
    instance.print(stream);
    EXPECT_EQ(stream.str(),
              "--== EntityInstance: Body (storage: bodies, id: 0, index: 0) ==--\n"
              "  * instance (EntityPtr:default): " +
                  text("EntityPtr", instance) +
                  "\n  * mass (Real:64bit): 5\n  * lock (SpinMutex:default): 'lock': No ascii format'\n"
                  "  * g (Real:64bit): 2\n--== END ==--\n");
    stream.str("");
    EntityPtr().print(stream);
    EXPECT_EQ(stream.str(), "--== EntityInstance: nullptr (id: 4294967295) ==--\n--== END ==--\n");
}

TEST_F(EntityInstanceTest, IsAPlace) {
    static_cast<void>(storage->createInstances(3));
    const EntityInstance place(storage->getInstance(2));
    EXPECT_EQ(place.getData(), storage->getData());
    EXPECT_EQ(place.getIndex(), 2U);
    EXPECT_EQ(place.getStorage(), storage.get());
    EXPECT_EQ(place.getPtr(), storage->getInstance(2));
    storage->swapInstances(0, 2);
    EXPECT_EQ(place.getPtr().getId(), 0U);
    EXPECT_TRUE(EntityInstance(EntityPtr()).isNull());
    EXPECT_EQ(EntityInstance().getStorage(), nullptr);
    EXPECT_TRUE(EntityInstance().getPtr().isNull());
}

// Formats

TEST_F(EntityFormatsTest, HandlesAreWrittenAsStorageAndIndex) {
    static_cast<void>(storage->createInstances(3));
    storage->destroyInstance(0);
    const EntityPtr last = storage->getInstance(0); // id 2
    const String expected = String::format("%p:0", static_cast<void*>(storage.get()));
    EXPECT_EQ(text("EntityPtr", last), expected);
    EXPECT_EQ(text("EntityInstance", EntityInstance(last)), expected);
    EXPECT_EQ(text("EntityPtr", EntityPtr()), "(nil):4294967295");
    EXPECT_EQ(read<EntityPtr>("EntityPtr", expected), last);
    EXPECT_EQ(read<EntityInstance>("EntityInstance", expected), EntityInstance(last));
}

TEST_F(EntityFormatsTest, OnlyStoragesThatLiveAreReadBack) {
    static_cast<void>(storage->createInstance());
    const String address = String::format("%p", static_cast<void*>(storage.get()));
    for (const String& content : std::vector<String>{String(""),
                                                     String("(nil):0"),
                                                     String("0x10:0"),
                                                     address,
                                                     address + ":1",
                                                     address + ":99999999999999999999999",
                                                     String(":::"),
                                                     String("nullptr")}) {
        EXPECT_EQ(read<EntityPtr>("EntityPtr", content), EntityPtr()) << content;
        EXPECT_EQ(read<EntityInstance>("EntityInstance", content), EntityInstance()) << content;
    }
    EXPECT_FALSE(read<EntityPtr>("EntityPtr", address + ":0").isNull());
}

TEST_F(EntityFormatsTest, IndicesAloneSkipNullHandles) {
    static_cast<void>(storage->createInstances(3));
    const EntityPtr handles[] = {EntityPtr(), storage->getInstance(2), EntityPtr(), storage->getInstance(0)};
    uint32 indices[4] = {};
    transform(indices, getFormat("EntityPtr:IndexOnly"), handles, getFormat("EntityPtr:default"), 4);
    EXPECT_EQ(indices[0], zel::InvalidIndex);
    EXPECT_EQ(indices[1], 2U);
    EXPECT_EQ(indices[3], 0U);
    String texts[4];
    transform(texts, getFormat("EntityPtr:ascii"), indices, getFormat("EntityPtr:IndexOnly"), 4);
    EXPECT_EQ(texts[1], "(nil):2");
    uint32 back[4] = {};
    transform(back, getFormat("EntityPtr:IndexOnly"), texts, getFormat("EntityPtr:ascii"), 4);
    EXPECT_EQ(back[0], zel::InvalidIndex);
    EXPECT_EQ(back[1], 2U);
    EXPECT_EQ(zelData::getTransformer(getFormat("EntityPtr:default"), getFormat("EntityPtr:IndexOnly")),
              nullptr);
}

TEST_F(EntityFormatsDeathTest, IndicesOfTwoStoragesMeanNothing) {
    const ref_ptr<EntityStorage> other(new EntityStorage(model, "others"));
    const EntityPtr handles[] = {storage->createInstance(), other->createInstance()};
    uint32 indices[2] = {};
    EXPECT_DEATH(
        transform(indices, getFormat("EntityPtr:IndexOnly"), handles, getFormat("EntityPtr:default"), 2),
        "Index-only format of EntityPtrs requires that all EntityPtrs points to the same Storage, got "
        "bodies and others");
}

// EntityData

TEST_F(EntityDataTest, ArraysFollowTheColumnsWithoutSync) {
    Array<double> masses;
    storage->getData()->registerArray(attribute("mass"), &masses);
    storage->getData()->bind(attribute("mass"), storage->getBuffer("mass"));
    EXPECT_TRUE(masses.empty());
    static_cast<void>(storage->createInstances(3));
    EXPECT_EQ(masses.size(), 3U);
    masses[2] = 9;
    static_cast<void>(storage->createInstances(1000));
    EXPECT_EQ(masses.size(), 1003U);
    EXPECT_EQ(masses.data(), storage->getBuffer("mass")->data<double>());
    EXPECT_EQ(masses[2], 9);
    EXPECT_EQ(storage->getData()->getNumElements(), 1003U);
    storage->reorder([] {
        zel::VectorPOD<uint32> permutation;
        for (uint32 i = 0; i < 1003; ++i)
            permutation.push_back(1002 - i);
        return permutation;
    }());
    EXPECT_EQ(masses.data(), storage->getBuffer("mass")->data<double>());
    EXPECT_EQ(masses[1000], 9);
    EXPECT_EQ(storage->getData()->getArray(attribute("mass")), &masses);
    storage->getData()->unregisterArray(attribute("mass"));
    EXPECT_TRUE(masses.empty());
    EXPECT_EQ(storage->getData()->getArray(attribute("mass")), nullptr);
}

TEST_F(EntityDataTest, IsAChildOfItsStorage) {
    EXPECT_EQ(storage->findObject("data"), storage->getData());
    EXPECT_EQ(storage->getData()->getStorage(), storage.get());
    EXPECT_EQ(storage->getData()->getModel(), model);
}

TEST_F(EntityDataTest, IsEmptyOnceTheStorageIsGone) {
    static_cast<void>(storage->createInstances(3));
    const ref_ptr<EntityData> data(storage->getData());
    Array<double> masses;
    data->registerArray(attribute("mass"), &masses);
    data->bind(attribute("mass"), storage->getBuffer("mass"));
    storage = nullptr;
    EXPECT_EQ(data->getStorage(), nullptr);
    EXPECT_EQ(data->getNumElements(), 0U);
    EXPECT_EQ(data->getModel(), nullptr);
    EXPECT_TRUE(masses.empty());
    data->sync();
}

TEST_F(EntityDataDeathTest, ASlotIsTakenOnce) {
    Array<double> masses;
    storage->getData()->registerArray(attribute("mass"), &masses);
    EXPECT_DEATH(storage->getData()->registerArray(attribute("mass"), &masses),
                 "zelVerify failed: `!m_bindings\\[id\\]'");
    static_cast<void>(storage->getOrCreateGlobalOrderBuffer());
    EXPECT_DEATH(storage->getData()->setGlobalOrderBuffer(storage->getGlobalOrderBuffer()),
                 "zelVerify failed: `!m_globalOrder.buffer\\(\\)'");
    storage->getData()->unregisterArray(attribute("mass"));
}

TEST_F(EntityDataTest, PresizeRoundsUpAndShowsTheOldSize) {
    Array<double> masses;
    storage->getData()->registerArray(attribute("mass"), &masses);
    storage->getData()->bind(attribute("mass"), storage->getBuffer("mass"));
    static_cast<void>(storage->createInstances(10));
    storage->getData()->presize(100);
    EXPECT_EQ(storage->size(), 128U);
    EXPECT_EQ(storage->getData()->getNumElements(), 10U);
    EXPECT_EQ(masses.size(), 10U);
    EXPECT_TRUE(storage->getData()->isBatchActive());
    EXPECT_TRUE(storage->isBatchOpen());
    masses.data()[10] = 3; // a kernel adds one
    storage->getData()->sync();
    EXPECT_EQ(masses.size(), 10U);
    storage->commitBatch(11);
    EXPECT_EQ(storage->size(), 11U);
    EXPECT_EQ(masses.size(), 11U);
    EXPECT_EQ(masses[10], 3);
    EXPECT_FALSE(storage->getData()->isBatchActive());
    storage->getData()->unregisterArray(attribute("mass"));
}

TEST_F(EntityDataTest, ABatchMayFillAllThatWasPresized) {
    storage->getData()->setInstanceBatchSize(10);
    EXPECT_EQ(storage->getData()->getInstanceBatchSize(), 10U);
    storage->getData()->presize(20);
    EXPECT_EQ(storage->size(), 20U);
    storage->commitBatch(20);
    EXPECT_EQ(storage->getData()->getNumElements(), 20U);
    EXPECT_FALSE(storage->getData()->isBatchActive());
}

TEST_F(EntityDataTest, ZeroStaysZero) {
    storage->getData()->presize(0);
    EXPECT_EQ(storage->size(), 0U);
    storage->commitBatch(0);
    EXPECT_FALSE(storage->getData()->isBatchActive());
}

TEST_F(EntityDataDeathTest, PresizeNeverShrinks) {
    static_cast<void>(storage->createInstances(10));
    EXPECT_DEATH(storage->getData()->presize(9), "zelVerify failed: `size >= m_numElements'");
}

TEST_F(EntityDataTest, LearnsOfSharedValues) {
    struct View : EntityData {
        using EntityData::EntityData;
        void synchronizeSharedAttribute(Value* value) override {
            ++calls;
            last = value->toString();
        }
        int calls = 0;
        String last;
    };
    const auto* shared = dynamic_cast<const zelData::SharedAttribute*>(attribute("g"));
    auto* value = dynamic_cast<Value*>(storage->findObject("g"));
    {
        const ref_ptr<View> view(new View(storage.get()));
        view->bind(shared, value);
        EXPECT_EQ(view->getSharedValue(shared), value);
        EXPECT_EQ(view->last, "2");
        value->setExpression("3");
        EXPECT_EQ(view->last, "3");
        EXPECT_EQ(view->calls, 2);
    }
    value->setExpression("4"); // the view is gone
}

TEST_F(EntityDataTest, SyncReadsTheSizeAnew) {
    const ref_ptr<EntityData> other(new EntityData(storage.get()));
    static_cast<void>(storage->createInstances(5));
    EXPECT_EQ(other->getNumElements(), 0U);
    other->sync();
    EXPECT_EQ(other->getNumElements(), 5U);
}

TEST_F(EntityPtrTest, EventRecordsKeepTheirLists) {
    static_cast<void>(storage->createInstances(3));
    EntityPtr list[] = {storage->getInstance(0), storage->getInstance(2)};
    const EntityStorage::DestroyInstancesEvent2 many(storage.get(), Array<EntityPtr>(list, 2));
    EXPECT_EQ(many.getStorage(), storage.get());
    EXPECT_EQ(many.getInstances().size(), 2U);
    EXPECT_EQ(many.getInstances()[1], list[1]);
    const EntityStorage::CreateInstanceEvent one(storage.get(), list[0]);
    EXPECT_EQ(one.getInstance(), list[0]);
    const EntityStorage::CreateInstancesEvent range(storage.get(), zelData::EntityRange(storage.get(), 1, 3));
    EXPECT_EQ(range.getRange().size(), 2U);
    uint32 order[] = {2, 1, 0};
    const EntityStorage::PermuteEvent permute(storage.get(), Array<uint32>(order, 3));
    EXPECT_EQ(permute.getPermutation()[0], 2U);
}
