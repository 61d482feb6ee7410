#include "EntityFixture.h"

#include <zelData/Buffer.h>
#include <zelData/EntityData.h>
#include <zelData/EntityPtr.h>
#include <zelData/EntityRange.h>
#include <zelData/Format.h>
#include <zelData/ScalarAttribute.h>
#include <zelData/SpareBlocks.h>
#include <zelData/Type.h>
#include <zelData/ValueT.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

using testing::HasSubstr;
using zel::Name;
using zel::ref_ptr;
using zel::uint32;
using zel::uint64;
using zelData::Array;
using zelData::Buffer;
using zelData::EntityModel;
using zelData::EntityPtr;
using zelData::EntityRange;
using zelData::EntityStorage;
using zelTest::whatOf;

namespace {

const char* const BodyAttributes = "<Attribute.Scalar name='mass' type='Real' value='5'/>"
                                   "<Attribute.Scalar name='title' type='String' value='none'/>";

class EntityStorageTest : public zelTest::EntityFixture {
protected:
    void SetUp() override {
        EntityFixture::SetUp();
        model = entity("Body", BodyAttributes);
        ASSERT_NE(model, nullptr);
        storage = new EntityStorage(model);
    }
    void TearDown() override {
        if (storage)
            storage->verifyConsistency();
        storage = nullptr;
        EntityFixture::TearDown();
    }

    [[nodiscard]] double* masses() { return storage->getBuffer("mass")->data<double>(); }
    [[nodiscard]] zel::String* titles() { return storage->getBuffer("title")->data<zel::String>(); }
    /// An instance with a mass that tells it from the others.
    EntityPtr create(double mass) {
        const EntityPtr instance = storage->createInstance();
        masses()[instance.getIndex()] = mass;
        titles()[instance.getIndex()] = std::to_string(static_cast<int>(mass));
        return instance;
    }
    [[nodiscard]] double mass(const EntityPtr& instance) { return masses()[instance.getIndex()]; }

    EntityModel* model = nullptr;
    ref_ptr<EntityStorage> storage;
};
using EntityStorageDeathTest = EntityStorageTest;

/// Writes down what a storage tells.
class Recorder : public EntityStorage::EventListener {
public:
    void destroyCallback(EntityStorage*) override { events.push_back("gone"); }
    void createInstanceCallback(EntityStorage*, EntityPtr instance) override {
        events.push_back("create " + std::to_string(instance.getId()));
    }
    void createInstancesCallback(EntityStorage*, EntityRange range) override {
        events.push_back("create " + text(range));
    }
    void createInstancesCallback(EntityStorage*, Array<EntityPtr> instances) override {
        events.push_back("create list " + std::to_string(instances.size()));
    }
    void destroyInstanceCallback(EntityStorage* from, EntityPtr instance) override {
        events.push_back("destroy " + std::to_string(instance.getId()) + " of " +
                         std::to_string(from->size()));
    }
    void destroyInstancesCallback(EntityStorage* from, EntityRange range) override {
        events.push_back("destroy " + text(range) + " of " + std::to_string(from->size()));
    }
    void destroyInstancesCallback(EntityStorage* from, Array<EntityPtr> instances) override {
        events.push_back("destroy list " + std::to_string(instances.size()) + " of " +
                         std::to_string(from->size()));
    }
    void permuteCallback(EntityStorage*, Array<uint32> permutation) override {
        events.push_back("permute " + std::to_string(permutation.size()));
    }

    std::vector<std::string> events;

private:
    static std::string text(const EntityRange& range) {
        return std::to_string(range.begin()) + ".." + std::to_string(range.end());
    }
};

} // namespace

TEST_F(EntityStorageTest, GivesIdsInAscendingOrder) {
    EXPECT_EQ(storage->capacity(), 32U);
    EXPECT_TRUE(storage->empty());
    EXPECT_EQ(storage->createInstance().getId(), 0U);
    EXPECT_EQ(storage->createInstance().getId(), 1U);
    EXPECT_EQ(storage->size(), 2U);
}

TEST_F(EntityStorageTest, MovesTheLastInstanceIntoTheHole) {
    const EntityPtr first = create(10);
    const EntityPtr second = create(11);
    const EntityPtr third = create(12);
    storage->destroyInstance(first.getId());
    EXPECT_EQ(storage->getId(uint64{0}), 2U);
    EXPECT_EQ(third.getIndex(), 0U);
    EXPECT_EQ(mass(third), 12);
    EXPECT_EQ(mass(second), 11);
    const EntityPtr fourth = storage->createInstance();
    EXPECT_EQ(fourth.getId(), 0U);
    EXPECT_EQ(fourth.getIndex(), 2U);
    EXPECT_EQ(mass(fourth), 5);
    EXPECT_EQ(titles()[2], "none");
}

TEST_F(EntityStorageTest, ReusesTheLastFreedIdFirst) {
    for (int i = 0; i < 5; ++i)
        static_cast<void>(storage->createInstance());
    storage->destroyInstance(1);
    storage->destroyInstance(3);
    EXPECT_EQ(storage->createInstance().getId(), 3U);
    EXPECT_EQ(storage->createInstance().getId(), 1U);
    EXPECT_EQ(storage->createInstance().getId(), 5U);
}

TEST_F(EntityStorageTest, GrowsByAHalfAndKeepsHandlesValid) {
    std::vector<EntityPtr> instances;
    for (int i = 0; i < 33; ++i)
        instances.push_back(create(i));
    EXPECT_EQ(storage->capacity(), 49U);
    for (int i = 0; i < 33; ++i) {
        EXPECT_EQ(mass(instances[static_cast<size_t>(i)]), i);
        EXPECT_EQ(titles()[i], std::to_string(i));
    }
    EXPECT_EQ(storage->getBuffer("mass")->capacity(), 49U);
}

TEST_F(EntityStorageTest, ReservesExactlyForManyInstances) {
    const EntityRange range = storage->createInstances(1001);
    EXPECT_EQ(storage->capacity(), 1001U);
    EXPECT_EQ(range, EntityRange(storage.get(), 0, 1001));
    EXPECT_EQ(range[1000].getId(), 1000U);
}

TEST_F(EntityStorageTest, GrowsByAHalfForUpToAThousandInstances) {
    static_cast<void>(storage->createInstances(1000));
    EXPECT_EQ(storage->capacity(), 1500U);
}

TEST_F(EntityStorageTest, CreatesNoInstances) {
    EXPECT_TRUE(storage->createInstances(0).empty());
    EXPECT_EQ(storage->size(), 0U);
}

TEST_F(EntityStorageTest, NewInstancesHoldTheDefaultValues) {
    static_cast<void>(storage->createInstances(3));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(masses()[i], 5);
        EXPECT_EQ(titles()[i], "none");
    }
}

TEST_F(EntityStorageTest, DestroysARepeatedHandleOnce) {
    const EntityPtr first = create(10);
    const EntityPtr second = create(11);
    const EntityPtr list[] = {first, first};
    storage->destroyInstances(list, 2);
    EXPECT_EQ(storage->size(), 1U);
    EXPECT_EQ(mass(second), 11);
}

TEST_F(EntityStorageTest, DestroysAListInOnePassPerColumn) {
    std::vector<EntityPtr> instances;
    for (int i = 0; i < 200; ++i)
        instances.push_back(create(i));
    std::vector<EntityPtr> victims;
    for (size_t i = 0; i < 200; i += 3)
        victims.push_back(instances[i]);
    victims.push_back(instances[0]);
    storage->destroyInstances(victims.data(), victims.size());
    EXPECT_EQ(storage->size(), 133U);
    for (size_t i = 0; i < 200; ++i) {
        EXPECT_EQ(storage->isAlive(instances[i].getId()), i % 3 != 0);
        if (i % 3 != 0) {
            EXPECT_EQ(mass(instances[i]), static_cast<double>(i));
            EXPECT_EQ(titles()[instances[i].getIndex()], std::to_string(i));
        }
    }
}

TEST_F(EntityStorageTest, DestroysAFewOfMany) {
    std::vector<EntityPtr> instances;
    for (int i = 0; i < 1000; ++i)
        instances.push_back(create(i));
    const EntityPtr victims[] = {instances[7], instances[990], instances[7], instances[999], instances[500]};
    storage->destroyInstances(victims, 5);
    EXPECT_EQ(storage->size(), 996U);
    for (size_t i = 0; i < 1000; ++i)
        if (storage->isAlive(instances[i].getId())) {
            EXPECT_EQ(mass(instances[i]), static_cast<double>(i));
        }
}

TEST_F(EntityStorageTest, DestroysAnEmptyListWithoutAnEvent) {
    Recorder recorder;
    storage->addListener(&recorder);
    storage->destroyInstances(nullptr, 0);
    storage->destroyInstances(EntityRange(storage.get(), 0, 0));
    EXPECT_TRUE(recorder.events.empty());
    storage->removeListener(&recorder);
}

TEST_F(EntityStorageTest, DestroysARange) {
    std::vector<EntityPtr> instances;
    for (int i = 0; i < 10; ++i)
        instances.push_back(create(i));
    storage->destroyInstances(EntityRange(storage.get(), 2, 5));
    EXPECT_EQ(storage->size(), 7U);
    for (size_t i = 0; i < 10; ++i)
        if (i < 2 || i >= 5) {
            EXPECT_EQ(mass(instances[i]), static_cast<double>(i));
        }
}

TEST_F(EntityStorageTest, ClearKeepsTheOrderOfTheTable) {
    for (int i = 0; i < 3; ++i)
        static_cast<void>(storage->createInstance());
    storage->destroyInstance(0);
    storage->clear();
    EXPECT_EQ(storage->size(), 0U);
    EXPECT_EQ(storage->createInstance().getId(), 2U);
    EXPECT_EQ(storage->createInstance().getId(), 1U);
    EXPECT_EQ(storage->createInstance().getId(), 0U);
}

TEST_F(EntityStorageTest, ResetNumbersAnew) {
    for (int i = 0; i < 3; ++i)
        static_cast<void>(storage->createInstance());
    storage->destroyInstance(0);
    storage->reset();
    EXPECT_EQ(storage->createInstance().getId(), 0U);
    EXPECT_EQ(storage->createInstance().getId(), 1U);
}

TEST_F(EntityStorageTest, PreDestroyLowersTheSizeAndLeavesTheValue) {
    const EntityPtr first = create(10);
    const EntityPtr second = create(11);
    Recorder recorder;
    storage->addListener(&recorder);
    storage->preDestroy(first);
    EXPECT_EQ(storage->size(), 1U);
    EXPECT_EQ(storage->getSizeValue()->get(), 2U);
    EXPECT_EQ(mass(second), 11);
    EXPECT_TRUE(recorder.events.empty());
    storage->removeListener(&recorder);
    storage->getSizeValue()->set(storage->size());
    EXPECT_EQ(storage->getBuffer("mass")->size(), 1U);
}

// Events

TEST_F(EntityStorageTest, TellsOfCreationAfterAndOfDestructionBefore) {
    Recorder recorder;
    storage->addListener(&recorder);
    storage->addListener(&recorder);
    EXPECT_TRUE(storage->hasListener(&recorder));
    const EntityPtr first = storage->createInstance();
    const EntityRange range = storage->createInstances(3);
    storage->destroyInstance(first.getId());
    const EntityPtr list[] = {storage->getInstance(0), storage->getInstance(1)};
    storage->destroyInstances(list, 2);
    storage->destroyInstances(list, 0);
    storage->destroyInstances(EntityRange(storage.get(), 0, 1));
    EXPECT_EQ(range.size(), 3U);
    EXPECT_EQ(recorder.events,
              (std::vector<std::string>{
                  "create 0", "create 1..4", "destroy 0 of 4", "destroy list 2 of 3", "destroy 0..1 of 1"}));
    storage->removeListener(&recorder);
    EXPECT_FALSE(storage->hasListener(&recorder));
}

TEST_F(EntityStorageTest, TellsOfResizesByWhoever) {
    Recorder recorder;
    storage->addListener(&recorder);
    storage->resize(5);
    storage->resize(5);
    storage->getSizeValue()->set(2);
    storage->clear();
    EXPECT_EQ(recorder.events,
              (std::vector<std::string>{"create 0..5", "destroy 2..5 of 5", "destroy 0..2 of 2"}));
    storage->removeListener(&recorder);
}

TEST_F(EntityStorageTest, TellsOfItsEnd) {
    Recorder recorder;
    storage->addListener(&recorder);
    storage = nullptr;
    EXPECT_EQ(recorder.events, (std::vector<std::string>{"gone"}));
}

TEST_F(EntityStorageTest, SaysNothingWhileEventsAreOff) {
    Recorder recorder;
    storage->addListener(&recorder);
    storage->setEnableEvents(false);
    const EntityPtr instance = storage->createInstance();
    static_cast<void>(storage->createInstances(3));
    storage->resize(8);
    storage->destroyInstances(&instance, 1);
    storage->clear();
    EXPECT_TRUE(recorder.events.empty());
    storage->removeListener(&recorder);
}

TEST_F(EntityStorageTest, AListenerMayRemoveItself) {
    struct Once : Recorder {
        void createInstanceCallback(EntityStorage* from, EntityPtr instance) override {
            Recorder::createInstanceCallback(from, instance);
            from->removeListener(this);
        }
    } once;
    Recorder other;
    storage->addListener(&once);
    storage->addListener(&other);
    static_cast<void>(storage->createInstance());
    static_cast<void>(storage->createInstance());
    EXPECT_EQ(once.events.size(), 1U);
    EXPECT_EQ(other.events.size(), 2U);
    storage->removeListener(&other);
}

TEST_F(EntityStorageTest, AListenerMayCreateInstances) {
    struct Doubling : Recorder {
        void createInstanceCallback(EntityStorage* from, EntityPtr instance) override {
            Recorder::createInstanceCallback(from, instance);
            if (from->size() < 3)
                static_cast<void>(from->createInstance());
        }
    } doubling;
    storage->addListener(&doubling);
    EXPECT_EQ(storage->createInstance().getId(), 0U);
    EXPECT_EQ(doubling.events, (std::vector<std::string>{"create 0", "create 1", "create 2"}));
    storage->removeListener(&doubling);
}

// Batches

TEST_F(EntityStorageTest, ABatchTellsOfItsInstancesAtItsEnd) {
    static_cast<void>(storage->createInstance());
    Recorder recorder;
    storage->addListener(&recorder);
    storage->beginBatch();
    EXPECT_TRUE(storage->isBatchOpen());
    static_cast<void>(storage->createInstance());
    static_cast<void>(storage->createInstances(2));
    storage->resize(20);
    EXPECT_TRUE(recorder.events.empty());
    storage->commitBatch(6);
    EXPECT_FALSE(storage->isBatchOpen());
    EXPECT_EQ(storage->size(), 6U);
    EXPECT_EQ(recorder.events, (std::vector<std::string>{"create 1..6"}));
    storage->removeListener(&recorder);
}

TEST_F(EntityStorageTest, AnEmptyBatchTellsNothing) {
    Recorder recorder;
    storage->addListener(&recorder);
    storage->beginBatch();
    storage->resize(20);
    storage->commitBatch(0);
    EXPECT_TRUE(recorder.events.empty());
    EXPECT_EQ(storage->size(), 0U);
    storage->removeListener(&recorder);
}

TEST_F(EntityStorageDeathTest, ABatchMayNotShrinkBelowItsBegin) {
    static_cast<void>(storage->createInstances(3));
    storage->beginBatch();
    EXPECT_DEATH(storage->commitBatch(2), "zelVerify failed: `m_batchIndex <= size'");
}

TEST_F(EntityStorageDeathTest, OneBatchAtATime) {
    storage->beginBatch();
    EXPECT_DEATH(storage->beginBatch(), "zelVerify failed: `m_batchIndex == InvalidIndex'");
}

TEST_F(EntityStorageDeathTest, NoBatchNoCommit) {
    EXPECT_DEATH(storage->commitBatch(0), "zelVerify failed: `m_batchIndex != InvalidIndex'");
}

// Size

TEST_F(EntityStorageTest, ReserveNeverGivesRoomBack) {
    storage->reserve(100);
    EXPECT_EQ(storage->capacity(), 100U);
    EXPECT_EQ(storage->getCapacityValue()->get(), 100U);
    storage->reserve(50);
    EXPECT_EQ(storage->capacity(), 100U);
    storage->getCapacityValue()->set(10);
    EXPECT_EQ(storage->capacity(), 100U);
    static_cast<void>(storage->createInstances(100));
    EXPECT_EQ(storage->capacity(), 100U);
    EXPECT_EQ(storage->getId(uint64{99}), 99U);
}

TEST_F(EntityStorageTest, ResizeWithoutInitialisationLeavesElementsAlone) {
    static_cast<void>(storage->createInstances(3));
    masses()[2] = 77;
    storage->resize(2, false);
    storage->resize(3, false);
    EXPECT_EQ(masses()[2], 77);
    titles()[2] = "x"; // still constructed: it was not destroyed
    storage->resize(2);
    storage->resize(3);
    EXPECT_EQ(masses()[2], 5);
    EXPECT_EQ(titles()[2], "none");
}

TEST_F(EntityStorageTest, PresizeSetsTheSizeWithoutTheValue) {
    Recorder recorder;
    storage->addListener(&recorder);
    model = entity("Plain", "<Attribute.Scalar name='mass' type='Real'/>");
    const ref_ptr<EntityStorage> plain(new EntityStorage(model));
    plain->addListener(&recorder);
    plain->presize(40, 64);
    EXPECT_EQ(plain->size(), 40U);
    EXPECT_EQ(plain->capacity(), 64U);
    EXPECT_EQ(plain->getSizeValue()->get(), 0U);
    EXPECT_EQ(plain->getBuffer("mass")->size(), 40U);
    EXPECT_EQ(plain->getData()->getNumElements(), 40U);
    EXPECT_TRUE(recorder.events.empty());
    plain->verifyConsistency();
    plain->removeListener(&recorder);
    storage->removeListener(&recorder);
}

TEST_F(EntityStorageTest, KeyFrameResizeSetsBoth) {
    static_cast<void>(storage->createInstances(10));
    storage->keyFrameResize(4, 32);
    EXPECT_EQ(storage->size(), 4U);
    EXPECT_EQ(storage->capacity(), 32U);
    storage->keyFrameResize(20, 32);
    EXPECT_EQ(storage->size(), 20U);
    storage->keyFrameResize(8, 100);
    EXPECT_EQ(storage->size(), 8U);
    EXPECT_EQ(storage->capacity(), 100U);
    EXPECT_EQ(storage->getCapacityValue()->get(), 100U);
    EXPECT_EQ(storage->getBuffer("mass")->capacity(), 100U);
    storage->verifyConsistency();
    // The own callback is back in its place.
    storage->reserve(200);
    EXPECT_EQ(storage->capacity(), 200U);
    static_cast<void>(storage->createInstances(150));
    EXPECT_EQ(masses()[157], 5);
}

TEST_F(EntityStorageTest, KeyFrameResizeGrowsBeyondTheOldCapacity) {
    storage->keyFrameResize(60, 64);
    EXPECT_EQ(storage->size(), 60U);
    EXPECT_EQ(storage->capacity(), 64U);
    EXPECT_NE(storage->getBuffer("mass")->getPtr(), nullptr);
    for (uint64 i = 0; i < 60; ++i) // the key frame brings the elements
        new (titles() + i) zel::String("frame");
    storage->verifyConsistency();
}

TEST_F(EntityStorageTest, KeyFrameResizeMayLowerTheCapacity) {
    storage->reserve(100);
    static_cast<void>(storage->createInstances(90));
    storage->destroyInstance(3);
    storage->keyFrameResize(10, 16);
    EXPECT_EQ(storage->size(), 10U);
    EXPECT_EQ(storage->capacity(), 16U);
    storage->verifyConsistency();
}

TEST_F(EntityStorageDeathTest, KeyFrameResizeDemandsRoom) {
    EXPECT_DEATH(storage->keyFrameResize(5, 4), "zelVerify failed: `capacity >= size'");
}

TEST_F(EntityStorageTest, ASizeBeyondTheIdsIsRefusedAtEachDoor) {
    static_cast<void>(create(7));
    const char* const text = "Body: a storage holds at most 4294967295 instances";
    const uint64 tooMany = uint64{1} << 32;
    EXPECT_EQ(whatOf([&] { storage->getSizeValue()->set(~uint64{0}); }), text);
    EXPECT_EQ(whatOf([&] { storage->getCapacityValue()->set(tooMany); }), text);
    EXPECT_EQ(whatOf([&] { static_cast<void>(storage->createInstances(~uint64{0})); }), text);
    EXPECT_EQ(whatOf([&] { storage->reserve(tooMany); }), text);
    EXPECT_EQ(whatOf([&] { storage->resize(tooMany); }), text);
    EXPECT_EQ(whatOf([&] { storage->presize(1, tooMany); }), text);
    EXPECT_EQ(whatOf([&] { storage->keyFrameResize(1, tooMany); }), text);
    EXPECT_EQ(whatOf([&] { const ref_ptr<EntityStorage> other(new EntityStorage(model, tooMany)); }), text);
    EXPECT_EQ(storage->getSizeValue()->get(), 1U);
    EXPECT_EQ(storage->getCapacityValue()->get(), 32U);
    EXPECT_EQ(storage->size(), 1U);
    EXPECT_EQ(storage->capacity(), 32U);
    EXPECT_EQ(masses()[0], 7);
}

TEST_F(EntityStorageTest, AnArrayAttributeThatNoMemoryHoldsIsRefused) {
    EntityModel* wide =
        entity("Wide", "<Attribute.Scalar name='block' type='Real' numElements='4000000000'/>");
    const ref_ptr<EntityStorage> few(new EntityStorage(wide, 0));
    EXPECT_THAT(whatOf([&] { static_cast<void>(few->createInstances(uint64{1} << 20)); }),
                HasSubstr("block: 4194304000000000 elements of format 'Real:64bit' do not fit in memory"));
    EXPECT_EQ(few->size(), 0U);
    EXPECT_EQ(few->capacity(), 0U);
    EXPECT_EQ(few->getCapacityValue()->get(), 0U);
}

TEST_F(EntityStorageDeathTest, ADeadIdIsRefused) {
    EXPECT_DEATH(storage->destroyInstance(0), "Body: there is no instance with id 0");
    EXPECT_DEATH(storage->destroyInstance(4000), "Body: there is no instance with id 4000");
}

TEST_F(EntityStorageTest, FollowsAValueThatItsSizeIsBoundTo) {
    const ref_ptr<zelData::ValueT<uint64>> wanted(new zelData::ValueT<uint64>("wanted", 7));
    storage->getSizeValue()->bind(wanted.get());
    EXPECT_EQ(storage->size(), 7U);
    wanted->set(40);
    EXPECT_EQ(storage->size(), 40U);
    EXPECT_EQ(storage->capacity(), 60U);
    EXPECT_EQ(masses()[39], 5);
    static_cast<void>(storage->createInstance());
    wanted->set(3);
    EXPECT_EQ(storage->size(), 41U);
}

// Order

TEST_F(EntityStorageTest, HandlesSurviveAPermutation) {
    std::vector<EntityPtr> instances;
    for (int i = 0; i < 10; ++i)
        instances.push_back(create(i));
    storage->destroyInstance(4);
    storage->destroyInstance(0);
    Recorder recorder;
    storage->addListener(&recorder);
    const std::vector<double> before(masses(), masses() + 8);
    zel::VectorPOD<uint32> permutation{7, 6, 5, 4, 3, 2, 0, 1};
    storage->reorder(permutation);
    for (size_t i = 0; i < 8; ++i)
        EXPECT_EQ(masses()[i], before[permutation[i]]);
    for (size_t i = 0; i < 10; ++i)
        if (i != 4 && i != 0) {
            EXPECT_EQ(mass(instances[i]), static_cast<double>(i));
            EXPECT_EQ(titles()[instances[i].getIndex()], std::to_string(i));
        }
    EXPECT_EQ(recorder.events, (std::vector<std::string>{"permute 8"}));
    storage->verifyConsistency();
    EXPECT_EQ(storage->createInstance().getId(), 0U); // the free ids kept their order
    EXPECT_EQ(storage->createInstance().getId(), 4U);
    storage->removeListener(&recorder);
}

TEST_F(EntityStorageTest, PermutesInSteps) {
    for (int i = 0; i < 6; ++i)
        static_cast<void>(create(i));
    zel::VectorPOD<uint32> permutation{5, 4, 3, 2, 1, 0};
    const Array<uint32> view(permutation);
    storage->preparePermutation();
    storage->reorderAttributes(zel::IndexRange(3, 6), view);
    storage->reorderAttributes(zel::IndexRange(0, 3), view);
    storage->commitPermutation(view);
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(masses()[i], 5 - i);
    EXPECT_EQ(storage->getIndex(0), 5U);
}

TEST_F(EntityStorageTest, ReordersAgainInTheMemoryThatTheLastTimeLeft) {
    zelData::SpareBlocks spares;
    std::vector<double> expected;
    for (int round = 0; round < 3; ++round) { // the storage grows in between
        for (int i = 0; i < 5 + 20 * round; ++i) {
            expected.push_back(static_cast<double>(expected.size()));
            static_cast<void>(create(static_cast<int>(expected.back())));
        }
        for (int repeat = 0; repeat < 3; ++repeat) {
            zel::VectorPOD<uint32> permutation(expected.size());
            for (size_t i = 0; i < permutation.size(); ++i)
                permutation[i] = static_cast<uint32>((i + 3) % permutation.size());
            storage->reorder(Array<uint32>(permutation), &spares);
            std::rotate(expected.begin(), expected.begin() + 3, expected.end());
            for (size_t i = 0; i < expected.size(); ++i) {
                EXPECT_EQ(masses()[i], expected[i]);
                EXPECT_EQ(titles()[i], std::to_string(static_cast<int>(expected[i])));
            }
            EXPECT_GT(spares.size(), 0U);
            storage->verifyConsistency();
        }
    }
}

TEST_F(EntityStorageTest, AnEmptyStorageIsInOrder) {
    Recorder recorder;
    storage->addListener(&recorder);
    storage->reorder(zel::VectorPOD<uint32>());
    EXPECT_TRUE(recorder.events.empty());
    storage->removeListener(&recorder);
}

TEST_F(EntityStorageDeathTest, APermutationHasTheLengthOfTheStorage) {
    static_cast<void>(storage->createInstances(3));
    const zel::VectorPOD<uint32> permutation{0, 1};
    EXPECT_DEATH(storage->reorder(permutation), "zelVerify failed: `permutation.size\\(\\) == m_size'");
    zel::VectorPOD<uint32> whole{0, 1};
    EXPECT_DEATH(storage->commitPermutation(Array<uint32>(whole)),
                 "zelVerify failed: `permutation.size\\(\\) == m_size'");
}

TEST_F(EntityStorageTest, SwapsInstances) {
    const EntityPtr first = create(10);
    const EntityPtr second = create(11);
    storage->swapInstances(0, 1);
    EXPECT_EQ(first.getIndex(), 1U);
    EXPECT_EQ(mass(first), 10);
    EXPECT_EQ(mass(second), 11);
    storage->swapInstances(1, 1);
    EXPECT_EQ(first.getIndex(), 1U);
}

TEST_F(EntityStorageTest, SwapsAListOfPairsOneAfterTheOther) {
    std::vector<EntityPtr> instances;
    for (int i = 0; i < 4; ++i)
        instances.push_back(create(i));
    storage->swapInstances({{0, 1}, {1, 2}, {3, 3}});
    EXPECT_EQ(masses()[0], 1);
    EXPECT_EQ(masses()[1], 2);
    EXPECT_EQ(masses()[2], 0);
    for (size_t i = 0; i < 4; ++i)
        EXPECT_EQ(mass(instances[i]), static_cast<double>(i));
}

TEST_F(EntityStorageTest, SwapsIdentitiesAndLeavesTheData) {
    const EntityPtr first = create(10);
    const EntityPtr second = create(11);
    storage->swapInstanceIds(first.getId(), second.getId());
    EXPECT_EQ(mass(first), 11);
    EXPECT_EQ(mass(second), 10);
    EXPECT_EQ(masses()[0], 10);
}

TEST_F(EntityStorageTest, TheGlobalOrderIgnoresPermutations) {
    static_cast<void>(storage->createInstances(3));
    Buffer* order = storage->getOrCreateGlobalOrderBuffer();
    EXPECT_EQ(storage->getOrCreateGlobalOrderBuffer(), order);
    EXPECT_EQ(order->getFormat()->fullName(), "UInt:32bit");
    storage->reorder(zel::VectorPOD<uint32>{2, 1, 0});
    for (uint32 i = 0; i < 3; ++i)
        EXPECT_EQ(order->data<uint32>()[i], i);
    static_cast<void>(storage->createInstance());
    static_cast<void>(storage->createInstances(2));
    ASSERT_EQ(order->size(), 6U);
    EXPECT_EQ(order->data<uint32>()[3], 3U);
    EXPECT_EQ(order->data<uint32>()[5], 5U);
    EXPECT_EQ(storage->getData()->getGlobalOrder().size(), 6U);
    EXPECT_EQ(storage->getData()->getGlobalOrder()[4], 4U);
}

// Copies

TEST_F(EntityStorageTest, CopiesAnInstance) {
    const EntityPtr instance = create(10);
    const ref_ptr<EntityStorage> other(new EntityStorage(model));
    const EntityPtr copy = storage->copyInstance(instance.getId(), other.get());
    EXPECT_EQ(copy.getStorage(), other.get());
    EXPECT_EQ(other->getBuffer("mass")->data<double>()[0], 10);
    EXPECT_EQ(other->getBuffer("title")->data<zel::String>()[0], "10");
    EXPECT_EQ(storage->size(), 1U);
}

TEST_F(EntityStorageTest, CopiesToTheBaseEntity) {
    write("Planet",
          "<Entity.Model name='Planet' source='Body'><Attribute.Scalar name='moons' type='UInt'/>"
          "</Entity.Model>");
    const ref_ptr<EntityStorage> planets(new EntityStorage(zelData::getEntity("Planet")));
    const EntityPtr planet = planets->createInstance();
    planets->getBuffer("mass")->data<double>()[0] = 12;
    const EntityPtr copy = planets->copyInstance(planet.getId(), storage.get());
    EXPECT_EQ(mass(copy), 12);
    EXPECT_DEATH(static_cast<void>(storage->copyInstance(copy.getId(), planets.get())),
                 "zelVerify failed: `this->getEntityModel\\(\\)->is\\(target->getEntityModel\\(\\)\\)'");
    EXPECT_DEATH(static_cast<void>(storage->copyInstance(copy.getId(), nullptr)),
                 "zelVerify failed: `target'");
}

TEST_F(EntityStorageTest, TransfersAnInstance) {
    const EntityPtr instance = create(10);
    const EntityPtr stays = create(11);
    const ref_ptr<EntityStorage> other(new EntityStorage(model));
    EXPECT_EQ(storage->transferInstance(instance.getId(), storage.get()), instance);
    const EntityPtr moved = storage->transferInstance(instance.getId(), other.get());
    EXPECT_EQ(storage->size(), 1U);
    EXPECT_EQ(other->size(), 1U);
    EXPECT_EQ(other->getBuffer("mass")->data<double>()[moved.getIndex()], 10);
    EXPECT_EQ(mass(stays), 11);
}

TEST_F(EntityStorageDeathTest, StoragesThemselvesAreNotCopied) {
    EXPECT_DEATH(static_cast<void>(storage->clone()), "zelAbort: TODO");
    EXPECT_DEATH(EntityStorage::copy(storage.get(), storage.get()), "zelAbort: TODO");
}

// Columns

TEST_F(EntityStorageTest, FindsColumnsByNameAndAttribute) {
    EXPECT_EQ(storage->getBuffer("mass"), storage->getBuffer(model->getAttribute("mass")));
    EXPECT_EQ(storage->getBuffer("instance"), storage->getInstanceBuffer());
    EXPECT_EQ(storage->getBuffers()[0], storage->getInstanceBuffer());
    EXPECT_EQ(storage->getBuffer("nothing"), nullptr);
    EXPECT_EQ(storage->getIdToIndexBuffer()->getName(), Name("_idToIndex"));
    EXPECT_EQ(storage->getIdToIndexBuffer()->getFormat()->fullName(), "UInt:32bit");
    EXPECT_STREQ(EntityStorage::IndexToIdName, "_indexToId");
    EXPECT_EQ(storage->getElements(model->getAttribute("mass")), storage->getBuffer("mass")->getPtr());
    EXPECT_EQ(storage->getInstanceBuffer()->getFormat()->fullName(), "EntityPtr:default");
}

TEST_F(EntityStorageDeathTest, AnAttributeHasOneColumn) {
    EXPECT_DEATH(static_cast<void>(storage->createBuffer(model->getAttribute("mass"))),
                 "zelVerify failed: `!m_bufferTable.contains\\(attribute_\\)'");
    const ref_ptr<Buffer> free(new Buffer("free", zelData::getFormat("Real")));
    EXPECT_DEATH(storage->registerBuffer(free.get()), "zelVerify failed: `attribute'");
    EXPECT_DEATH(storage->explicityRegisterBuffer(free.get(), model->getAttribute("mass")),
                 "zelVerify failed: `!m_buffers\\[id\\]'");
}

TEST_F(EntityStorageTest, ColumnsComeAndGo) {
    static_cast<void>(storage->createInstances(3));
    zelData::Attribute* attribute = model->getAttribute("mass");
    const ref_ptr<Buffer> column(storage->getBuffer(attribute));
    storage->unregisterBuffer(column.get());
    EXPECT_EQ(storage->getBuffer(attribute), nullptr);
    static_cast<void>(storage->createInstance());
    EXPECT_EQ(column->size(), 3U);
    EXPECT_EQ(column->data<double>()[2], 5);
    const ref_ptr<Buffer> other(new Buffer("other", zelData::getFormat("Real")));
    storage->explicityRegisterBuffer(other.get(), attribute);
    EXPECT_EQ(storage->getBuffer(attribute), other.get());
    EXPECT_EQ(other->size(), 4U);
    static_cast<void>(storage->createInstance());
    EXPECT_EQ(other->size(), 5U);
}

TEST_F(EntityStorageTest, HasAttributesOfItsOwn) {
    static_cast<void>(storage->createInstances(3));
    const ref_ptr<zelData::ScalarAttribute> age(
        new zelData::ScalarAttribute("age", zelData::getFormat("UInt:32bit")));
    storage->addCustomAttribute(age.get());
    ASSERT_NE(storage->getBuffer("age"), nullptr);
    EXPECT_EQ(storage->getBuffer("age")->size(), 3U);
    EXPECT_EQ(age->fullName(), "age");
    // A later attribute of the entity finds a place of its own.
    model->addAttribute(new zelData::ScalarAttribute("late", zelData::getFormat("Real")));
    ASSERT_NE(storage->getBuffer("late"), nullptr);
    EXPECT_NE(model->getAttribute("late")->getAttributeId(), age->getAttributeId());
    const ref_ptr<EntityStorage> other(new EntityStorage(model));
    EXPECT_EQ(other->getBuffer("age"), nullptr);
    EXPECT_NE(other->getBuffer("late"), nullptr);
}

TEST_F(EntityStorageTest, AColumnOutlivesItsStorage) {
    static_cast<void>(create(3));
    const ref_ptr<Buffer> column(storage->getBuffer("title"));
    storage = nullptr;
    EXPECT_EQ(column->getStorage(), nullptr);
    EXPECT_EQ(column->data<zel::String>()[0], "3");
    column->resize(2);
    EXPECT_EQ(column->size(), 2U);
}

TEST_F(EntityStorageTest, ArraySizedElementsMoveTogether) {
    model = entity("Triple",
                   "<Attribute.Scalar name='values' type='UInt:32bit' value='9' numElements='3'/>"
                   "<Attribute.Scalar name='names' type='String' numElements='2'/>");
    const ref_ptr<EntityStorage> triples(new EntityStorage(model));
    Buffer* values = triples->getBuffer("values");
    std::vector<EntityPtr> instances;
    for (uint32 i = 0; i < 40; ++i) {
        instances.push_back(triples->createInstance());
        EXPECT_EQ(values->data<uint32>()[3 * i + 2], 9U);
        for (uint32 k = 0; k < 3; ++k)
            values->data<uint32>()[3 * i + k] = 10 * i + k;
        triples->getBuffer("names")->data<zel::String>()[2 * i + 1] = std::to_string(i);
    }
    EXPECT_EQ(values->size(), 120U);
    EXPECT_EQ(values->getNumElementsValue()->get(), 120U);
    triples->destroyInstance(instances[5].getId());
    const EntityPtr list[] = {instances[0], instances[7], instances[39]};
    triples->destroyInstances(list, 3);
    triples->swapInstances(3, 11);
    triples->swapInstances({{1, 2}, {4, 5}});
    zel::VectorPOD<uint32> permutation;
    for (uint32 i = 0; i < 36; ++i)
        permutation.push_back(35 - i);
    triples->reorder(permutation);
    EXPECT_EQ(values->size(), 108U);
    for (uint32 i = 0; i < 40; ++i) {
        if (!triples->isAlive(instances[i].getId()))
            continue;
        const uint32 index = instances[i].getIndex();
        for (uint32 k = 0; k < 3; ++k)
            EXPECT_EQ(values->data<uint32>()[3 * index + k], 10 * i + k);
        EXPECT_EQ(triples->getBuffer("names")->data<zel::String>()[2 * index + 1], std::to_string(i));
    }
    const ref_ptr<EntityStorage> other(new EntityStorage(model));
    const EntityPtr copy = triples->copyInstance(instances[8].getId(), other.get());
    EXPECT_EQ(other->getBuffer("values")->data<uint32>()[2], 82U);
    EXPECT_EQ(copy.getIndex(), 0U);
    triples->verifyConsistency();
}

TEST_F(EntityStorageTest, ArraysFollowTheirElements) {
    model = entity("Polygon", "<Attribute.Array name='corners' type='Real:32bit'/>");
    const ref_ptr<EntityStorage> polygons(new EntityStorage(model));
    Buffer* corners = polygons->getBuffer("corners");
    Buffer* elements = corners->getElementBuffer();
    ASSERT_NE(elements, nullptr);
    EXPECT_EQ(elements->getName(), Name("elements"));
    EXPECT_EQ(elements->getFormat()->fullName(), "Real:32bit");
    elements->resize(6);
    static_cast<void>(polygons->createInstances(2));
    auto* views = corners->data<Array<float>>();
    EXPECT_TRUE(views[0].empty());
    views[0] = Array<float>(elements, {0, 2});
    views[1] = Array<float>(elements, {2, 6});
    views[1][0] = 42;
    elements->resize(1000);
    EXPECT_EQ(views[1].data(), elements->data<float>() + 2);
    EXPECT_EQ(views[1][0], 42);
    static_cast<void>(polygons->createInstances(100));
    views = corners->data<Array<float>>();
    elements->resize(10000);
    EXPECT_EQ(views[0].data(), elements->data<float>());
    EXPECT_EQ(views[1][0], 42);
}

TEST_F(EntityStorageTest, VectorsGrowPerInstance) {
    model = entity("Path", "<Attribute.Vector name='points' type='Real'/>");
    const ref_ptr<EntityStorage> paths(new EntityStorage(model));
    std::vector<EntityPtr> instances;
    const auto points = [&](const EntityPtr& path) -> zel::Vector<double>& {
        return paths->getBuffer("points")->data<zel::Vector<double>>()[path.getIndex()];
    };
    for (int i = 0; i < 50; ++i) {
        instances.push_back(paths->createInstance());
        for (int k = 0; k < i; ++k)
            points(instances.back()).push_back(k);
    }
    paths->destroyInstance(instances[3].getId());
    for (size_t i = 4; i < 50; ++i)
        ASSERT_EQ(points(instances[i]).size(), i);
    EXPECT_EQ(points(instances[49]).back(), 48);
    EXPECT_EQ(paths->getBuffer("points")->getFormat()->fullName(), "Vector<Real>:Vector");
}

// Without a table

TEST_F(EntityStorageTest, WorksWithoutAnInstanceTable) {
    model =
        entity("Grain", "<Attribute.Scalar name='mass' type='Real' value='2'/>", "useInstanceTable='false'");
    const ref_ptr<EntityStorage> grains(new EntityStorage(model));
    EXPECT_FALSE(grains->useInstanceTable());
    EXPECT_EQ(grains->getInstanceBuffer(), nullptr);
    EXPECT_EQ(grains->getIdToIndexBuffer(), nullptr);
    Recorder recorder;
    grains->addListener(&recorder);
    EXPECT_EQ(grains->createInstance().getId(), 0U);
    EXPECT_EQ(grains->createInstances(9).size(), 9U);
    for (int i = 0; i < 10; ++i)
        grains->getBuffer("mass")->data<double>()[i] = i;
    grains->destroyInstance(0);
    EXPECT_EQ(grains->getBuffer("mass")->data<double>()[0], 9);
    const EntityPtr list[] = {grains->getInstance(0), grains->getInstance(1)};
    grains->destroyInstances(list, 2);
    EXPECT_EQ(grains->size(), 7U);
    grains->swapInstances(0, 1);
    EXPECT_TRUE(recorder.events.empty());
    grains->verifyConsistency();
    grains->removeListener(&recorder);
}

TEST_F(EntityStorageTest, TheTableCanBeMadeLater) {
    storage->setUseInstanceTable(false);
    EXPECT_EQ(storage->getInstanceBuffer(), nullptr);
    static_cast<void>(storage->createInstances(3));
    storage->setUseInstanceTable(true);
    storage->verifyConsistency();
    EXPECT_EQ(storage->getId(uint64{2}), 2U);
    EXPECT_EQ(storage->createInstance().getId(), 3U);
}

// Shared columns

TEST_F(EntityStorageTest, ASharedStorageSeesTheSameColumns) {
    const EntityPtr first = create(10);
    const EntityPtr second = create(11);
    const ref_ptr<EntityStorage> shared(storage->createSharedStorage());
    EXPECT_EQ(shared->size(), 2U);
    EXPECT_EQ(shared->getBuffer("mass"), storage->getBuffer("mass"));
    EXPECT_NE(shared->getInstanceBuffer(), storage->getInstanceBuffer());
    const EntityPtr own = shared->getInstance(1);
    EXPECT_EQ(mass(own), 11);

    static_cast<void>(create(12));
    EXPECT_EQ(shared->size(), 3U);
    static_cast<void>(shared->createInstance());
    EXPECT_EQ(storage->size(), 4U);
    EXPECT_EQ(masses()[3], 5);
    storage->destroyInstance(first.getId());
    EXPECT_EQ(shared->size(), 3U);
    EXPECT_EQ(mass(own), 11);
    EXPECT_EQ(mass(second), 11);
    shared->destroyInstance(shared->getId(uint64{0}));
    EXPECT_EQ(mass(second), 11);
    EXPECT_EQ(mass(own), 11);
    storage->resize(100);
    EXPECT_EQ(shared->size(), 100U);
    EXPECT_EQ(shared->capacity(), storage->capacity());
    zel::VectorPOD<uint32> permutation;
    for (uint32 i = 0; i < 100; ++i)
        permutation.push_back(99 - i);
    shared->reorder(permutation);
    EXPECT_EQ(mass(second), 11);
    EXPECT_EQ(mass(own), 11);
    storage->verifyConsistency();
    shared->verifyConsistency();
}

TEST_F(EntityStorageTest, ASharedStorageKeepsTheColumnsAlive) {
    static_cast<void>(create(10));
    ref_ptr<EntityStorage> shared(storage->createSharedStorage());
    storage = nullptr;
    EXPECT_EQ(shared->getBuffer("mass")->data<double>()[0], 10);
    shared->resize(40);
    EXPECT_EQ(shared->getBuffer("mass")->data<double>()[39], 5);
}

// Diagnosis

TEST_F(EntityStorageDeathTest, ATableThatContradictsItselfIsFound) {
    static_cast<void>(storage->createInstances(3));
    auto* idToIndex = storage->getIdToIndexBuffer()->data<uint32>();
    EXPECT_DEATH(
        {
            std::swap(idToIndex[0], idToIndex[1]);
            storage->verifyConsistency();
        },
        "`id == reverseId', Body: Symmetry failure, index 0 --> id 1, but id 1 --> index 1");
    EXPECT_DEATH(
        {
            idToIndex[2] = 77;
            storage->verifyConsistency();
        },
        "zelVerify failed: `index < capacity\\(\\)'");
}

TEST_F(EntityStorageTest, CountsItsBytes) {
    storage->reserve(100);
    EXPECT_EQ(storage->getNumBytes(), 100 * (16 + 4 + 8 + sizeof(zel::String)));
}

TEST_F(EntityStorageTest, Prints) {
    static_cast<void>(create(7));
    std::ostringstream stream;
    storage->print(stream);
    EXPECT_THAT(stream.str(), HasSubstr("--== Body (1 instances, 3 buffers) ==--\nBuffer: instance"));
    EXPECT_THAT(stream.str(), HasSubstr("\nBuffer: mass (Real:64bit)\n  [0]: 7\n"));
    EXPECT_THAT(stream.str(), HasSubstr("--== END STORAGE ==--\n"));
    testing::internal::CaptureStdout();
    storage->printInstanceTable();
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::StartsWith("Body: size: 1, capacity: 32\n0: 0\n1: 1\n"));
}

TEST_F(EntityStorageTest, AFrameStorageTakesItsSizeAsItIs) {
    const ref_ptr<EntityStorage> frame(new EntityStorage(model, "frame", true, 10, 20));
    EXPECT_EQ(frame->size(), 10U);
    EXPECT_EQ(frame->capacity(), 20U);
    EXPECT_EQ(frame->getInstanceBuffer(), nullptr);
    EXPECT_DEATH(EntityStorage(model, "frame", false, 10, 20), "zelVerify failed: `isFrameStorage'");
}

TEST_F(EntityStorageTest, AStorageNeedsNoEntity) {
    const ref_ptr<EntityStorage> plain(new EntityStorage(Name("plain")));
    EXPECT_EQ(plain->getEntityModel(), nullptr);
    plain->resize(10);
    EXPECT_EQ(plain->size(), 10U);
    plain->verifyConsistency();
}

TEST_F(EntityStorageDeathTest, AnEntityWithoutBaseHasNoStorages) {
    const ref_ptr<EntityModel> loose(new EntityModel("Loose"));
    EXPECT_DEATH(EntityStorage{loose.get()}, "Loose: the entity has no base entity");
}

TEST_F(EntityStorageTest, IsFoundByItsAddress) {
    EXPECT_EQ(EntityStorage::find(storage.get()), storage.get());
    EXPECT_EQ(EntityStorage::find(this), nullptr);
}
