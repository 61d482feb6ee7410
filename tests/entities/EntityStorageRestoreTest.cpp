#include "EntityFixture.h"

#include <zelData/Buffer.h>
#include <zelData/EntityData.h>
#include <zelData/EntityStorage.h>
#include <zelData/ValueT.h>

#include <support/Stress.h>

#include <algorithm>
#include <random>

// Bringing a storage back to a size and a table of ids that were recorded.

using testing::ElementsAre;
using zel::ref_ptr;
using zel::uint32;
using zel::uint64;
using zelData::EntityStorage;

namespace {

using Table = zel::VectorPOD<uint32>;

Table tableOf(const EntityStorage& storage) {
    Table table;
    for (uint64 id = 0; id < storage.capacity(); ++id)
        table.push_back(storage.getIndex(static_cast<uint32>(id)));
    return table;
}

class EntityStorageRestoreTest : public zelTest::EntityFixture {
protected:
    ref_ptr<EntityStorage> makeStorage(uint64 capacity = EntityStorage::DefaultCapacity) {
        if (model == nullptr)
            model = entity("Restored",
                           "<Attribute.Scalar name='mass' type='Real' value='5'/>"
                           "<Attribute.Scalar name='title' type='String'/>");
        return ref_ptr<EntityStorage>(new EntityStorage(model, "storage", capacity));
    }
    static void expectEqual(const EntityStorage& a, const EntityStorage& b) {
        a.verifyConsistency();
        b.verifyConsistency();
        ASSERT_EQ(a.size(), b.size());
        ASSERT_EQ(a.capacity(), b.capacity());
        ASSERT_EQ(a.getSizeValue()->get(), b.size());
        ASSERT_EQ(a.getCapacityValue()->get(), b.capacity());
        ASSERT_EQ(a.getData()->getNumElements(), b.size());
        for (uint64 i = 0; i < a.capacity(); ++i)
            ASSERT_EQ(a.getId(i), b.getId(i)) << i;
        for (uint64 i = 0; i < b.size(); ++i)
            ASSERT_EQ(a.getInstanceBuffer()->data<zelData::EntityPtr>()[i].getStorage(), &a);
        ASSERT_EQ(a.getBuffer("mass")->size(), b.size());
        ASSERT_EQ(a.getBuffer("title")->size(), b.size());
    }

    zelData::EntityModel* model = nullptr;
};
using EntityStorageRestoreDeathTest = EntityStorageRestoreTest;

/// Counts what it hears.
struct Ear : EntityStorage::EventListener {
    using EventListener::createInstancesCallback;
    using EventListener::destroyInstancesCallback;
    void createInstanceCallback(EntityStorage*, zelData::EntityPtr) override { ++count; }
    void createInstancesCallback(EntityStorage*, zelData::EntityRange) override { ++count; }
    void destroyInstancesCallback(EntityStorage*, zelData::EntityRange) override { ++count; }
    int count = 0;
};

TEST_F(EntityStorageRestoreTest, TheSameIdsAreAliveAndTheSameAreCreatedNext) {
    const ref_ptr<EntityStorage> original = makeStorage();
    original->createInstances(6);
    original->destroyInstance(1);
    original->destroyInstance(4);
    const ref_ptr<EntityStorage> other = makeStorage();
    other->createInstances(2);
    other->restoreInstances(original->size(), tableOf(*original));
    expectEqual(*other, *original);
    EXPECT_FALSE(other->isAlive(4));
    EXPECT_TRUE(other->isAlive(5));
    for (int i = 0; i < 40; ++i) // beyond the capacity
        ASSERT_EQ(other->createInstance().getId(), original->createInstance().getId());
    expectEqual(*other, *original);
}

TEST_F(EntityStorageRestoreTest, NewElementsHaveDefaultValuesAndOldOnesStay) {
    const ref_ptr<EntityStorage> original = makeStorage();
    original->createInstances(3);
    const ref_ptr<EntityStorage> other = makeStorage();
    other->createInstances(2);
    other->getBuffer("mass")->data<double>()[1] = 7;
    other->getBuffer("title")->data<zel::String>()[1] = "a title that is not short at all";
    other->restoreInstances(3, tableOf(*original));
    const double* masses = other->getBuffer("mass")->data<double>();
    EXPECT_EQ(masses[1], 7.0);
    EXPECT_EQ(masses[2], 5.0);
    EXPECT_EQ(other->getBuffer("title")->data<zel::String>()[2], "");
    other->restoreInstances(0, tableOf(*original));
    EXPECT_EQ(other->getBuffer("title")->size(), 0U);
}

TEST_F(EntityStorageRestoreTest, NoEventTellsOfIt) {
    const ref_ptr<EntityStorage> original = makeStorage();
    original->createInstances(5);
    const ref_ptr<EntityStorage> other = makeStorage();
    Ear ear;
    other->addListener(&ear);
    other->restoreInstances(5, tableOf(*original));
    other->restoreInstances(1, tableOf(*original));
    EXPECT_EQ(ear.count, 0);
    other->createInstance();
    EXPECT_EQ(ear.count, 1);
    other->removeListener(&ear);
}

TEST_F(EntityStorageRestoreTest, ASizeThatIsBoundIsNotWritten) {
    const ref_ptr<EntityStorage> other = makeStorage();
    const ref_ptr<zelData::ValueT<uint64>> size(new zelData::ValueT<uint64>("size", 2));
    other->getSizeValue()->bind(size.get());
    ASSERT_EQ(other->size(), 2U);
    Table table = tableOf(*other);
    other->restoreInstances(4, table);
    EXPECT_EQ(other->getSizeValue()->getBinding(), size.get());
    EXPECT_EQ(other->size(), 4U);
    size->set(4);
    EXPECT_EQ(other->size(), 4U);
    size->set(3);
    EXPECT_EQ(other->size(), 3U);
}

TEST_F(EntityStorageRestoreTest, TablesThatAreNoneAreRefusedAheadOfAnyChange) {
    const ref_ptr<EntityStorage> storage = makeStorage();
    storage->createInstances(3);
    const Table old = tableOf(*storage);
    const auto refuse = [&](uint64 size, const Table& table) {
        EXPECT_EQ(zelTest::whatOf([&] { storage->restoreInstances(size, table); }),
                  "storage: the table of ids is none of a storage of " + std::to_string(size) + " instances");
        EXPECT_EQ(storage->size(), 3U);
        EXPECT_EQ(tableOf(*storage).size(), old.size());
        storage->verifyConsistency();
    };
    Table table = old;
    refuse(33, table);
    table[4] = 5; // twice
    refuse(3, table);
    table[4] = 32; // beyond the capacity
    refuse(3, table);
    refuse(1, Table());
}

TEST_F(EntityStorageRestoreDeathTest, StoragesWithoutATableAndOpenBatchesAreRefused) {
    const ref_ptr<EntityStorage> storage = makeStorage();
    const Table table = tableOf(*storage);
    storage->beginBatch();
    EXPECT_DEATH(storage->restoreInstances(0, table), "storage: a batch is open");
    storage->commitBatch(0);
    storage->setUseInstanceTable(false);
    EXPECT_DEATH(storage->restoreInstances(0, table), "storage: the storage has no table of ids");
}

TEST_F(EntityStorageRestoreTest, StoragesThatShareColumnsKeepTheirOwnTablesAndCapacities) {
    const ref_ptr<EntityStorage> original = makeStorage();
    const ref_ptr<EntityStorage> originalShare(original->createSharedStorage());
    originalShare->reserve(100);
    original->createInstances(10);
    original->destroyInstance(3);
    originalShare->destroyInstance(originalShare->getId(2));
    const ref_ptr<EntityStorage> other = makeStorage();
    const ref_ptr<EntityStorage> otherShare(other->createSharedStorage());
    other->restoreInstances(original->size(), tableOf(*original));
    otherShare->restoreInstances(originalShare->size(), tableOf(*originalShare));
    expectEqual(*other, *original);
    expectEqual(*otherShare, *originalShare);
    // And the other way round.
    const ref_ptr<EntityStorage> third = makeStorage(200);
    const ref_ptr<EntityStorage> thirdShare(third->createSharedStorage());
    thirdShare->restoreInstances(originalShare->size(), tableOf(*originalShare));
    third->restoreInstances(original->size(), tableOf(*original));
    expectEqual(*third, *original);
    expectEqual(*thirdShare, *originalShare);
}

/// One storage lives, another one is brought to its state again and again, and lives on from there beside it.
TEST_F(EntityStorageRestoreTest, RandomStoragesLiveOnAsTheOriginalWouldHave) {
    std::mt19937 random(zelTest::stressSeed());
    const ref_ptr<EntityStorage> other = makeStorage();
    for (unsigned round = 0; round < 200 / zelTest::StressDivisor; ++round) {
        const ref_ptr<EntityStorage> original = makeStorage(random() % 60);
        const auto live = [&](EntityStorage& storage, std::mt19937 choice) {
            for (auto i = choice() % 40; i != 0; --i) {
                const auto n = storage.size();
                switch (choice() % 6) {
                case 0:
                    storage.createInstances(choice() % 30);
                    break;
                case 1:
                    if (n != 0)
                        storage.swapInstances(choice() % n, choice() % n);
                    break;
                case 2:
                    if (n != 0)
                        storage.resize(choice() % n);
                    break;
                case 3:
                    storage.createInstance();
                    break;
                default:
                    if (n != 0)
                        storage.destroyInstance(storage.getId(choice() % n));
                }
            }
        };
        live(*original, random);
        random.discard(1);
        other->restoreInstances(original->size(), tableOf(*original));
        expectEqual(*other, *original);
        live(*original, random);
        live(*other, random);
        expectEqual(*other, *original);
        random.discard(1);
    }
}

} // namespace
