#include "EntityFixture.h"

#include <zelData/Buffer.h>
#include <zelData/EntityPtr.h>
#include <zelData/EntityStorage.h>
#include <zelData/ValueT.h>
#include <zelStream/InputArchive.h>
#include <zelStream/OutputArchive.h>
#include <zelStream/XMLInputArchive.h>
#include <zelStream/XMLOutputArchive.h>

#include <gmock/gmock.h>

#include <functional>
#include <sstream>

// Ids that survive a save and a load.

using testing::ElementsAre;
using testing::HasSubstr;
using zel::ref_ptr;
using zel::uint32;
using zel::uint64;
using zelData::EntityPtr;
using zelData::EntityStorage;
using zelStream::InputArchive;
using zelStream::OutputArchive;
using zelTest::whatOf;

namespace {

using Ids = zel::VectorPOD<uint32>;

/// Hears of all that happens to the instances.
struct Ear final : EntityStorage::EventListener {
    void createInstanceCallback(EntityStorage*, EntityPtr) override { ++count; }
    void createInstancesCallback(EntityStorage*, zelData::EntityRange) override { ++count; }
    void createInstancesCallback(EntityStorage*, zelData::Array<EntityPtr>) override { ++count; }
    void destroyInstanceCallback(EntityStorage*, EntityPtr) override { ++count; }
    void destroyInstancesCallback(EntityStorage*, zelData::EntityRange) override { ++count; }
    void destroyInstancesCallback(EntityStorage*, zelData::Array<EntityPtr>) override { ++count; }
    void permuteCallback(EntityStorage*, zelData::Array<uint32>) override { ++count; }
    int count = 0;
};

/// Hears of changes of tables.
struct TableEar final : zelData::Buffer::EventListener {
    void updateCallback(zelData::Buffer* buffer) override { heard.push_back(buffer); }
    std::vector<zelData::Buffer*> heard;
};

/// Stores what the function writes, and lets another one read it.
std::string stored(const std::function<void(OutputArchive&)>& write) {
    std::ostringstream stream;
    OutputArchive archive;
    archive.open(stream);
    write(archive);
    archive.close();
    return stream.str();
}

void restored(const std::string& bytes, const std::function<void(InputArchive&)>& read) {
    std::istringstream stream(bytes);
    InputArchive archive;
    archive.open(stream);
    read(archive);
}

/// An archive of a capacity and ids that a test makes up.
std::string tableOf(uint64 capacity, const std::vector<uint32>& ids) {
    return stored([&](OutputArchive& archive) {
        archive.beginSection("capacity");
        archive.write(capacity);
        archive.endSection("capacity");
        for (const uint32 id : ids) {
            archive.beginSection("id");
            archive.write(id);
            archive.endSection("id");
        }
    });
}

class EntityStorageArchiveTest : public zelTest::EntityFixture {
protected:
    ref_ptr<EntityStorage> makeStorage(uint64 capacity) {
        if (model == nullptr)
            model = entity("Stored", "<Attribute.Scalar name='mass' type='Real' value='5'/>");
        return ref_ptr<EntityStorage>(new EntityStorage(model, "storage", capacity));
    }
    /// Eight slots: three live instances with the ids 4, 1, 3 and behind them a stack of free ones.
    ref_ptr<EntityStorage> makeUsed() {
        const ref_ptr<EntityStorage> storage = makeStorage(8);
        storage->createInstances(5);
        storage->destroyInstance(0);
        storage->destroyInstance(2);
        return storage;
    }
    static std::string store(const EntityStorage& storage) {
        return stored([&](OutputArchive& archive) { storage.storePermutation(archive); });
    }
    static void restore(EntityStorage& storage, const std::string& bytes, bool skip = false) {
        restored(bytes, [&](InputArchive& archive) { storage.restorePermutation(archive, skip); });
    }
    static std::vector<uint32> idsOf(const EntityStorage& storage) {
        std::vector<uint32> ids;
        for (uint64 i = 0; i < storage.capacity(); ++i)
            ids.push_back(storage.getId(i));
        return ids;
    }
    static void expectBad(const std::string& bytes, const std::string& text) {
        Ids ids{7};
        restored(bytes, [&](InputArchive& archive) {
            EXPECT_THAT(whatOf([&] { EntityStorage::extractPermutation(ids, archive); }), HasSubstr(text));
        });
        EXPECT_THAT(ids, ElementsAre(7));
    }

    zelData::EntityModel* model = nullptr;
};
using EntityStorageArchiveDeathTest = EntityStorageArchiveTest;
using EntityStorageArchiveMaliciousTest = EntityStorageArchiveTest;

} // namespace

TEST_F(EntityStorageArchiveTest, TheTableIsStoredSlotBySlotWithTheFreeStack) {
    const ref_ptr<EntityStorage> storage = makeUsed();
    Ids ids;
    restored(store(*storage), [&](InputArchive& archive) {
        EntityStorage::extractPermutation(ids, archive);
        EXPECT_TRUE(archive.isAtEnd());
    });
    ASSERT_EQ(storage->size(), 3U);
    EXPECT_THAT(ids, ElementsAre(4, 1, 3, 2, 0, 5, 6, 7));
    EXPECT_EQ(store(*storage), tableOf(8, {4, 1, 3, 2, 0, 5, 6, 7}));
}

TEST_F(EntityStorageArchiveTest, HandlesSurviveASaveAndALoadUnchanged) {
    const ref_ptr<EntityStorage> original = makeUsed();
    for (uint64 i = 0; i < original->size(); ++i)
        original->getBuffer("mass")->data<double>()[i] = 10.0 * original->getId(i);

    const ref_ptr<EntityStorage> loaded = makeStorage(8);
    restore(*loaded, store(*original));
    loaded->createInstances(original->size());
    for (uint64 i = 0; i < original->size(); ++i)
        loaded->getBuffer("mass")->data<double>()[i] = original->getBuffer("mass")->data<double>()[i];
    for (const uint32 id : {1U, 3U, 4U}) {
        const EntityPtr handle(loaded.get(), id);
        ASSERT_TRUE(loaded->isAlive(id));
        EXPECT_EQ(handle.getIndex(), original->getIndex(id));
        EXPECT_EQ(loaded->getBuffer("mass")->data<double>()[handle.getIndex()], 10.0 * id);
        EXPECT_EQ(loaded->getInstance(handle.getIndex()), handle);
    }
    EXPECT_FALSE(loaded->isAlive(0));
    EXPECT_FALSE(loaded->isAlive(2));
}

TEST_F(EntityStorageArchiveTest, TheOrderOfTheFreeStackIsKept) {
    const ref_ptr<EntityStorage> original = makeUsed();
    const ref_ptr<EntityStorage> loaded = makeStorage(8);
    restore(*loaded, store(*original));
    loaded->createInstances(3);
    for (int i = 0; i < 7; ++i) // beyond the capacity, too
        EXPECT_EQ(loaded->createInstance().getId(), original->createInstance().getId());
    EXPECT_EQ(idsOf(*loaded), idsOf(*original));
    loaded->verifyConsistency();
}

TEST_F(EntityStorageArchiveTest, SlotsBeyondTheStoredOnesGetTheIdsOfTheirIndices) {
    const ref_ptr<EntityStorage> original = makeStorage(32);
    original->createInstances(32);
    original->destroyInstance(0);
    const ref_ptr<EntityStorage> loaded = makeStorage(64);
    restore(*loaded, store(*original));
    EXPECT_EQ(loaded->capacity(), 64U);
    for (uint32 i = 0; i < 32; ++i)
        EXPECT_EQ(loaded->getId(i), original->getId(i)) << i;
    for (uint32 i = 32; i < 64; ++i) {
        EXPECT_EQ(loaded->getId(i), i);
        EXPECT_EQ(loaded->getIndex(i), i);
    }
    EXPECT_EQ(loaded->getInstance(40).getStorage(), loaded.get());
}

TEST_F(EntityStorageArchiveTest, AStorageThatIsTooSmallGrows) {
    const ref_ptr<EntityStorage> original = makeUsed();
    const ref_ptr<EntityStorage> loaded = makeStorage(2);
    restore(*loaded, store(*original));
    EXPECT_EQ(loaded->capacity(), 8U);
    EXPECT_EQ(loaded->getCapacityValue()->get(), 8U);
    EXPECT_EQ(idsOf(*loaded), idsOf(*original));
}

TEST_F(EntityStorageArchiveTest, WhatAStorageDidBeforeItWasEmptyIsForgotten) {
    const ref_ptr<EntityStorage> original = makeUsed();
    const ref_ptr<EntityStorage> loaded = makeUsed();
    loaded->destroyInstance(4);
    loaded->clear();
    restore(*loaded, store(*original));
    EXPECT_EQ(idsOf(*loaded), idsOf(*original));
    loaded->verifyConsistency();
}

TEST_F(EntityStorageArchiveTest, SkippingReadsTheTableAndLeavesTheStorage) {
    const ref_ptr<EntityStorage> original = makeUsed();
    const ref_ptr<EntityStorage> loaded = makeUsed(); // and not empty
    loaded->destroyInstance(3);
    const std::vector<uint32> before = idsOf(*loaded);
    const std::string bytes = stored([&](OutputArchive& archive) {
        original->storePermutation(archive);
        archive.write("behind");
    });
    restored(bytes, [&](InputArchive& archive) {
        loaded->restorePermutation(archive, true);
        std::string behind;
        archive.read(behind);
        EXPECT_EQ(behind, "behind");
    });
    EXPECT_EQ(idsOf(*loaded), before);
    EXPECT_EQ(loaded->size(), 2U);
}

TEST_F(EntityStorageArchiveTest, WithoutAnInstanceTableNoIdsAreStoredOrTaken) {
    const ref_ptr<EntityStorage> plain = makeStorage(8);
    plain->setUseInstanceTable(false);
    EXPECT_EQ(store(*plain), tableOf(0, {}));
    plain->createInstances(2);
    restore(*plain, store(*makeUsed()));
    EXPECT_EQ(plain->size(), 2U);
    EXPECT_EQ(plain->capacity(), 8U);
    EXPECT_EQ(plain->getId(1), 1U);
}

TEST_F(EntityStorageArchiveTest, ATableOfNoSlotsGivesIdsInAscendingOrder) {
    const ref_ptr<EntityStorage> loaded = makeUsed();
    loaded->clear();
    restore(*loaded, tableOf(0, {}));
    EXPECT_THAT(idsOf(*loaded), ElementsAre(0, 1, 2, 3, 4, 5, 6, 7));
}

TEST_F(EntityStorageArchiveTest, NoEventTellsOfARestoredTable) {
    const ref_ptr<EntityStorage> loaded = makeStorage(2);
    Ear ear;
    loaded->addListener(&ear);
    restore(*loaded, store(*makeUsed()));
    EXPECT_EQ(ear.count, 0);
    loaded->createInstance();
    EXPECT_EQ(ear.count, 1);
    loaded->removeListener(&ear);
}

TEST_F(EntityStorageArchiveTest, BuffersTellThatTheirTablesHaveChanged) {
    const ref_ptr<EntityStorage> loaded = makeStorage(8);
    TableEar ear;
    loaded->getInstanceBuffer()->addListener(&ear);
    loaded->getIdToIndexBuffer()->addListener(&ear);
    restore(*loaded, store(*makeUsed()));
    EXPECT_THAT(ear.heard, ElementsAre(loaded->getInstanceBuffer(), loaded->getIdToIndexBuffer()));
    loaded->getInstanceBuffer()->removeListener(&ear);
    loaded->getIdToIndexBuffer()->removeListener(&ear);
}

TEST_F(EntityStorageArchiveTest, BothByteOrdersAreRead) {
    const ref_ptr<EntityStorage> original = makeUsed();
    for (const bool isLittleEndian : {true, false}) {
        std::ostringstream stream;
        OutputArchive archive;
        archive.setLittleEndian(isLittleEndian);
        archive.open(stream);
        original->storePermutation(archive);
        archive.close();
        const ref_ptr<EntityStorage> loaded = makeStorage(8);
        restore(*loaded, stream.str());
        EXPECT_EQ(idsOf(*loaded), idsOf(*original));
    }
}

TEST_F(EntityStorageArchiveTest, XmlHoldsTheTableInSectionsOfItsOwn) {
    const ref_ptr<EntityStorage> original = makeUsed();
    std::stringstream stream;
    zelStream::XMLOutputArchive out;
    out.open(stream);
    original->storePermutation(out);
    out.close();
    EXPECT_THAT(stream.str(), HasSubstr("<capacity>8</capacity>"));
    EXPECT_THAT(stream.str(), HasSubstr("<id>4</id>"));

    const ref_ptr<EntityStorage> loaded = makeStorage(8);
    zelStream::XMLInputArchive in;
    in.open(stream);
    loaded->restorePermutation(in, false);
    EXPECT_EQ(idsOf(*loaded), idsOf(*original));
}

TEST_F(EntityStorageArchiveTest, AStorageThatSharesTheColumnsKeepsIdsOfItsOwn) {
    const ref_ptr<EntityStorage> original = makeUsed();
    const ref_ptr<EntityStorage> loaded = makeStorage(4);
    const ref_ptr<EntityStorage> shared(loaded->createSharedStorage());
    shared->createInstances(3);
    shared->destroyInstance(0);
    shared->clear();
    const std::vector<uint32> before = idsOf(*shared);
    restore(*loaded, store(*original));
    EXPECT_EQ(idsOf(*shared), before);
    restore(*shared, tableOf(2, {1, 0}));
    for (const uint32 id : {4U, 1U, 3U})
        EXPECT_EQ(loaded->createInstance().getId(), id);
    EXPECT_EQ(shared->size(), 3U);
    EXPECT_EQ(shared->getId(0), 1U);
    EXPECT_EQ(shared->getId(1), 0U);
    EXPECT_EQ(shared->getId(2), 2U);
    loaded->verifyConsistency();
    shared->verifyConsistency();
}

// Damaged tables

TEST_F(EntityStorageArchiveDeathTest, AnIdBeyondTheCapacityIsRefused) {
    const ref_ptr<EntityStorage> storage = makeStorage(8);
    EXPECT_DEATH(restore(*storage, tableOf(2, {0, 2})), "zelVerify failed: `id < capacity'");
    EXPECT_DEATH(restore(*storage, tableOf(2, {0, 0xFFFFFFFF}), true), "zelVerify failed: `id < capacity'");
}

TEST_F(EntityStorageArchiveDeathTest, AStorageMustBeEmpty) {
    const ref_ptr<EntityStorage> storage = makeStorage(8);
    storage->createInstance();
    EXPECT_DEATH(restore(*storage, tableOf(2, {0, 1})),
                 "zelVerify failed: `this->empty\\(\\)', storage: Must be empty to restore permutation!");
}

TEST_F(EntityStorageArchiveDeathTest, AStorageMustStayEmptyWhileItGrows) {
    const ref_ptr<EntityStorage> storage = makeStorage(2);
    storage->getCapacityValue()->updateEvent.connect([&](zelData::Value*) { storage->createInstance(); });
    EXPECT_DEATH(restore(*storage, tableOf(3, {2, 1, 0})), "storage: Must be empty to restore permutation!");
}

TEST_F(EntityStorageArchiveDeathTest, AStorageMustHaveItsTable) {
    const ref_ptr<EntityStorage> storage = makeStorage(8);
    storage->unregisterBuffer(storage->getInstanceBuffer());
    EXPECT_DEATH(
        restore(*storage, tableOf(2, {0, 1})),
        "zelVerify failed: `m_instanceBuffer != nullptr', Entity Storage 'storage' has been asked to restore "
        "it's permutation table but it doesn't have an instance buffer\\.");
}

TEST_F(EntityStorageArchiveMaliciousTest, AnIdThatComesTwiceIsRefused) {
    expectBad(tableOf(3, {0, 2, 2}), "The id 2 is in two slots");
    const ref_ptr<EntityStorage> storage = makeStorage(8);
    EXPECT_THROW(restore(*storage, tableOf(3, {1, 0, 0})), zelStream::ArchiveException);
    EXPECT_EQ(idsOf(*storage), idsOf(*makeStorage(8)));
    EXPECT_THROW(restore(*storage, tableOf(3, {1, 0, 0}), true), zelStream::ArchiveException);
}

TEST_F(EntityStorageArchiveMaliciousTest, ATableThatEndsEarlyIsRefused) {
    expectBad(tableOf(3, {0, 1}), "Current scope: 'Archive/id'. ");
    expectBad(stored([](OutputArchive&) {}), "Current scope: 'Archive/capacity'. ");
    const ref_ptr<EntityStorage> storage = makeStorage(2);
    EXPECT_THROW(restore(*storage, tableOf(3, {2, 1})), zelStream::ArchiveException);
    EXPECT_EQ(storage->capacity(), 2U);
    EXPECT_EQ(idsOf(*storage), idsOf(*makeStorage(2)));
}

TEST_F(EntityStorageArchiveMaliciousTest, ACapacityBeyondTheFileAndTheMemoryIsNoMoreThanAnEarlyEnd) {
    for (const uint64 capacity : {~uint64{0}, uint64{1} << 61, uint64{1} << 44}) {
        const std::string bytes = tableOf(capacity, {0, 0xFFFFFFF0, 3});
        const ref_ptr<EntityStorage> storage = makeStorage(2);
        EXPECT_THROW(restore(*storage, bytes), zelStream::ArchiveException) << capacity;
        EXPECT_EQ(storage->capacity(), 2U);
    }
}
