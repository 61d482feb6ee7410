#include "ArchiveFixture.h"

#include <zel/Component.h>
#include <zel/Thread.h>
#include <zelStream/StorageStream.h>

#include <set>
#include <thread>

using fleet::Rumour;
using fleet::Scripted;
using fleet::Vehicle;
using fleet::Wheel;
using zel::ref_ptr;
using zelStream::InputArchive;
using zelStream::OutputArchive;
using zelStream::Serializable;
using zelTest::ArchiveBytes;
using zelTest::Opened;
using zelTest::uuidOf;

namespace fleet {

namespace {

/// Counted through another base already: it stores itself through a member.
class Beacon : public zel::Component {
public:
    class State : public Serializable {
    public:
        void store(OutputArchive& archive) const override {
            archive.write(range);
            archive.write(keeper.get());
        }
        void restore(InputArchive& archive) override {
            archive.read(range);
            archive.read(keeper);
        }

        double range = 0;
        ref_ptr<Vehicle> keeper;
    };

    using Component::Component;

    State state;
};

} // namespace

} // namespace fleet

namespace {

class SerializableTest : public zelTest::ArchiveFixture {
protected:
    void TearDown() override {
        Serializable::setEnableUuidGeneration(true);
        ArchiveFixture::TearDown();
    }
};

TEST_F(SerializableTest, ANewObjectHasAUuidAndIsEnabled) {
    const Wheel wheel;
    EXPECT_NE(wheel.getUuid(), zel::Uuid());
    EXPECT_NE(wheel.getUuid(), Wheel().getUuid());
    EXPECT_TRUE(wheel.isSerializationEnabled());
    EXPECT_FALSE(wheel.isFinished());
    EXPECT_FALSE(wheel.isDynamicallyAllocated());
    EXPECT_EQ(wheel.getArchive(), nullptr);
    EXPECT_EQ(wheel.referenceCount(), 0);
}

TEST_F(SerializableTest, FlagsAndUuidAreSet) {
    Wheel wheel;
    wheel.setUuid(uuidOf(3));
    wheel.setFinished(true);
    wheel.setDynamicallyAllocated(true);
    wheel.setEnableSerialization(false);
    EXPECT_EQ(wheel.getUuid(), uuidOf(3));
    EXPECT_TRUE(wheel.isFinished());
    EXPECT_TRUE(wheel.isDynamicallyAllocated());
    EXPECT_FALSE(wheel.isSerializationEnabled());
    wheel.generateUuid();
    EXPECT_NE(wheel.getUuid(), uuidOf(3));
}

TEST_F(SerializableTest, ACopyIsANewObject) {
    Opened archive(start());
    Wheel wheel(2);
    wheel.setFinished(true);
    wheel.setDynamicallyAllocated(true);
    wheel.setEnableSerialization(false);
    wheel.setArchive(&*archive);
    const Wheel copy(wheel);
    EXPECT_EQ(copy.radius, 2);
    EXPECT_NE(copy.getUuid(), wheel.getUuid());
    EXPECT_NE(copy.getUuid(), zel::Uuid());
    EXPECT_FALSE(copy.isFinished());
    EXPECT_FALSE(copy.isDynamicallyAllocated());
    EXPECT_TRUE(copy.isSerializationEnabled());
    EXPECT_EQ(copy.getArchive(), nullptr);
}

TEST_F(SerializableTest, AssignmentLeavesTheIdentityOfTheTarget) {
    Opened archive(start());
    Wheel wheel(2);
    wheel.setFinished(true);
    wheel.setEnableSerialization(false);
    wheel.setArchive(&*archive);
    Wheel target;
    target.setUuid(uuidOf(4));
    target.setDynamicallyAllocated(true);
    target = wheel;
    EXPECT_EQ(target.radius, 2);
    EXPECT_EQ(target.getUuid(), uuidOf(4));
    EXPECT_FALSE(target.isFinished());
    EXPECT_TRUE(target.isDynamicallyAllocated());
    EXPECT_TRUE(target.isSerializationEnabled());
    EXPECT_EQ(target.getArchive(), nullptr);
}

TEST_F(SerializableTest, WithoutGenerationTheUuidIsZero) {
    EXPECT_TRUE(Serializable::isUuidGenerationEnabled());
    Serializable::setEnableUuidGeneration(false);
    EXPECT_FALSE(Serializable::isUuidGenerationEnabled());
    Wheel wheel;
    EXPECT_EQ(wheel.getUuid(), zel::Uuid());
    EXPECT_EQ(Wheel(wheel).getUuid(), zel::Uuid());
    wheel.generateUuid(); // is asked for
    EXPECT_NE(wheel.getUuid(), zel::Uuid());
    Serializable::setEnableUuidGeneration(true);
    EXPECT_NE(Wheel().getUuid(), zel::Uuid());
}

TEST_F(SerializableTest, UuidsOfManyThreadsAreAllDifferent) {
    constexpr std::size_t PerThread = 1000;
    std::vector<std::vector<zel::Uuid>> uuids(4);
    std::vector<std::thread> threads;
    for (auto& mine : uuids)
        threads.emplace_back([&mine] {
            for (std::size_t i = 0; i < PerThread; ++i)
                mine.push_back(Wheel().getUuid());
        });
    for (auto& thread : threads)
        thread.join();
    std::set<zel::Uuid> all;
    for (const auto& some : uuids)
        all.insert(some.begin(), some.end());
    EXPECT_EQ(all.size(), 4 * PerThread);
}

TEST_F(SerializableTest, TheNameOfAClassIsThatOfItsAgent) {
    EXPECT_EQ(Wheel().getClassName(), "fleet::Wheel");
    ASSERT_NE(Wheel().getStorageAgent(), nullptr);
    EXPECT_EQ(Wheel().getStorageAgent()->getClassName(), "fleet::Wheel");
    EXPECT_EQ(Wheel().getStorageAgent(), &Wheel::storageAgent());
    EXPECT_EQ(zelStream::StorageAgent::lookup("fleet::Wheel", nullptr), &Wheel::storageAgent());
}

TEST_F(SerializableTest, AClassWithoutAnAgentHasTheNameOfTheCompiler) {
    EXPECT_EQ(Rumour().getStorageAgent(), nullptr);
    EXPECT_EQ(Rumour().getClassName(), "fleet::Rumour");
}

TEST_F(SerializableTest, StoresUuidAndFlagAheadOfItsOwnData) {
    Wheel wheel(0.5);
    wheel.setUuid(uuidOf(6));
    EXPECT_EQ(written([&](OutputArchive& archive) { wheel._store(archive); }, true),
              ArchiveBytes().base(uuidOf(6)).scalar(0.5).bytes());
}

TEST_F(SerializableTest, RestoresUuidAndFlagAheadOfItsOwnData) {
    Opened archive(start().base(uuidOf(6), false).scalar(0.5));
    Wheel wheel;
    wheel._restore(*archive);
    EXPECT_EQ(wheel.getUuid(), uuidOf(6));
    EXPECT_FALSE(wheel.isSerializationEnabled());
    EXPECT_EQ(wheel.radius, 0.5);
}

TEST_F(SerializableTest, RestoringTwiceGivesEqualUuids) {
    const ref_ptr<Wheel> wheel(new Wheel(1));
    const std::string bytes = archiveOf([&](OutputArchive& archive) { archive.write(wheel.get()); });
    for (int i = 0; i < 2; ++i) {
        Opened archive(bytes);
        ref_ptr<Wheel> restored;
        archive->read(restored);
        EXPECT_NE(restored, wheel);
        EXPECT_EQ(restored->getUuid(), wheel->getUuid());
    }
}

TEST_F(SerializableTest, KnowsItsArchiveAsLongAsThatLives) {
    Wheel wheel;
    {
        Opened archive(start());
        wheel.setArchive(&*archive);
        EXPECT_EQ(wheel.getArchive(), &*archive);
        archive->close(); // it still is the archive that restored the object
        EXPECT_EQ(wheel.getArchive(), &*archive);
        wheel.setArchive(nullptr);
        EXPECT_EQ(wheel.getArchive(), nullptr);
        wheel.setArchive(&*archive);
    }
    EXPECT_EQ(wheel.getArchive(), nullptr);
}

TEST_F(SerializableTest, LightDataIsNothingByDefault) {
    zelStream::StorageStream stream;
    Wheel wheel(3);
    wheel.storeLightData(stream);
    EXPECT_EQ(stream.size(), 0U);
    wheel.restoreLightData(stream);
    EXPECT_EQ(wheel.radius, 3);
}

TEST_F(SerializableTest, LightDataIsBroughtBack) {
    zelStream::StorageStream stream;
    Vehicle vehicle("a");
    vehicle.fuel = 40;
    vehicle.storeLightData(stream);
    vehicle.fuel = 10;
    vehicle.name = "b";
    vehicle.restoreLightData(stream);
    EXPECT_EQ(vehicle.fuel, 40);
    EXPECT_EQ(vehicle.name, "b");
}

TEST_F(SerializableTest, AnObjectOfAnotherBaseStoresItselfThroughAMember) {
    const ref_ptr<fleet::Beacon> beacon(new fleet::Beacon("north"));
    const ref_ptr<fleet::Beacon> other(new fleet::Beacon("south"));
    beacon->state.range = 12.5;
    beacon->state.keeper = new Vehicle("tender");
    other->state.keeper = beacon->state.keeper;
    const std::string bytes = archiveOf([&](OutputArchive& archive) {
        archive.write(beacon->state);
        archive.write(other->state);
        archive.write(zel::int32{7});
    });

    const ref_ptr<fleet::Beacon> first(new fleet::Beacon("first"));
    ref_ptr<fleet::Beacon> second(new fleet::Beacon("second"));
    zel::int32 behind = 0;
    {
        Opened archive(bytes);
        EXPECT_TRUE(archive->read(first->state));
        EXPECT_TRUE(archive->read(second->state));
        archive->read(behind);
        EXPECT_EQ(second->state.referenceCount(), 0); // the archive holds no member of somebody else
    }
    EXPECT_EQ(behind, 7);
    EXPECT_EQ(first->state.range, 12.5);
    EXPECT_EQ(first->state.getUuid(), beacon->state.getUuid());
    ASSERT_NE(first->state.keeper, nullptr);
    EXPECT_EQ(first->state.keeper->name, "tender");
    EXPECT_EQ(first->state.keeper.get(), second->state.keeper.get());
    EXPECT_EQ(first->state.getArchive(), nullptr);
    second = nullptr;
    EXPECT_EQ(first->state.keeper->referenceCount(), 1);
}

} // namespace
