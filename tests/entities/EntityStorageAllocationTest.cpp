// What instances cost in memory: bytes, and calls of malloc.

#include "EntityFixture.h"

#include <zelData/Buffer.h>

#include <algorithm>
#include <numeric>
#include <random>

using zel::ref_ptr;
using zel::uint32;
using zel::uint64;
using zelData::EntityModel;
using zelData::EntityPtr;
using zelData::EntityStorage;

namespace {

class EntityAllocationTest : public zelTest::EntityFixture {
protected:
    EntityModel* particle() {
        return entity("Particle",
                      "<Attribute.Scalar name='position' type='Vec3:64bit'/>"
                      "<Attribute.Scalar name='velocity' type='Vec3:64bit'/>"
                      "<Attribute.Scalar name='mass' type='Real:64bit'/>"
                      "<Attribute.Scalar name='flags' type='UInt:32bit'/>");
    }
};

} // namespace

TEST_F(EntityAllocationTest, AnInstanceTakesItsPayloadAHandleAndAnId) {
    constexpr uint64 Payload = 32 + 32 + 8 + 4;
    const ref_ptr<EntityStorage> storage(new EntityStorage(particle()));
    // Many at once leave no slack at all.
    static_cast<void>(storage->createInstances(10'000));
    EXPECT_EQ(storage->getNumBytes(), 10'000 * (Payload + 16 + 4));
    EXPECT_EQ(storage->getIdToIndexBuffer()->capacity(), 10'000U);
    // One more, and all grow by half.
    static_cast<void>(storage->createInstance());
    EXPECT_EQ(storage->capacity(), 15'001U);
    EXPECT_EQ(storage->getNumBytes(), 15'001 * (Payload + 16 + 4));
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

#include "support/AllocationCounter.h"

using zelTest::allocationsOf;

TEST_F(EntityAllocationTest, TheCounterCounts) {
    EXPECT_EQ(allocationsOf([] { std::free(std::malloc(7)); }), 1U);
}

TEST_F(EntityAllocationTest, AWarmStorageAllocatesNothingPerInstance) {
    constexpr uint64 Count = 1000;
    const ref_ptr<EntityStorage> storage(new EntityStorage(particle()));
    std::vector<uint32> ids(Count);
    std::iota(ids.begin(), ids.end(), 0U);
    std::shuffle(ids.begin(), ids.end(), std::mt19937(1));
    std::vector<EntityPtr> list;
    for (uint64 i = 0; i < Count / 2; ++i)
        list.emplace_back(storage.get(), ids[i]);
    const auto cycle = [&] {
        for (uint64 i = 0; i < Count; ++i)
            static_cast<void>(storage->createInstance());
        for (uint64 i = 0; i < Count / 2; ++i)
            storage->destroyInstance(ids[i]);
        static_cast<void>(storage->createInstances(Count / 2));
        storage->destroyInstances(list.data(), list.size());
        storage->clear();
    };
    cycle();
    storage->reset();
    cycle(); // the scratch of lists has its size as well
    storage->reset();
    EXPECT_EQ(allocationsOf(cycle), 0U);
}

TEST_F(EntityAllocationTest, ManyInstancesAreAFewBlocks) {
    const ref_ptr<EntityStorage> storage(new EntityStorage(particle()));
    EXPECT_LE(allocationsOf([&storage] { static_cast<void>(storage->createInstances(100'000)); }), 16U);
}

#endif
