#include "Fragile.h"

#include <zelData/EntityData.h>
#include <zelData/GeneratedEntity.h>
#include <zelData/ScalarAttribute.h>

#include <functional>
#include <vector>

// Storages over the columns of another one.

using zel::ref_ptr;
using zel::uint32;
using zel::uint64;
using zelData::Array;
using zelData::Attribute;
using zelData::Buffer;
using zelData::EntityModel;
using zelData::EntityPtr;
using zelData::EntityRange;
using zelData::EntityStorage;
using zelData::getFormat;
using zelTest::Fault;

namespace {

zelData::EntityModel::LoaderT<zelTest::FragileModel> s_loader("FragileShare");

/// A view that shows one column.
class MassData : public zelData::EntityData {
public:
    explicit MassData(EntityStorage* storage) : EntityData(storage) {
        zelData::bindColumn(this, storage->getEntityModel()->getAttribute("mass"), mass);
    }
    Array<double> mass;
};
class MassModel : public EntityModel {
public:
    explicit MassModel(const zel::Name& name) : EntityModel(name) {}
    zelData::EntityData* createData(EntityStorage* storage) override { return new MassData(storage); }
};
zelData::EntityModel::LoaderT<MassModel> s_massLoader("MassShare");

class EntityStorageShareTest : public zelTest::FragileFixture {
protected:
    void SetUp() override {
        FragileFixture::SetUp();
        write("MassShare",
              "<Entity.Model name='MassShare'><Attribute.Scalar name='mass' type='Real' value='5'/>"
              "</Entity.Model>");
        model = zelData::getEntity("MassShare");
        master = new EntityStorage(model);
        share = master->createSharedStorage();
    }
    void TearDown() override {
        master->verifyConsistency();
        share->verifyConsistency();
        share = nullptr;
        master = nullptr;
        FragileFixture::TearDown();
    }
    static const Array<double>& massOf(const ref_ptr<EntityStorage>& storage) {
        return dynamic_cast<MassData*>(storage->getData())->mass;
    }

    EntityModel* model = nullptr;
    ref_ptr<EntityStorage> master;
    ref_ptr<EntityStorage> share;
};

/// Does something when a storage tells of new instances.
struct OnCreation : EntityStorage::EventListener {
    void createInstancesCallback(EntityStorage* from, EntityRange range) override { work(from, range); }
    void createInstancesCallback(EntityStorage*, Array<EntityPtr>) override {}
    std::function<void(EntityStorage*, EntityRange)> work;
};

} // namespace

TEST_F(EntityStorageShareTest, AnAttributeThatComesLaterIsThereInAll) {
    static_cast<void>(share->createInstances(3));
    const double seven = 7;
    const ref_ptr<zelData::Value> value(new zelData::Value("default", getFormat("Real:64bit")));
    value->set(&seven);
    auto* late = new zelData::ScalarAttribute("late", getFormat("Real:64bit"), value.get());
    model->addAttribute(late);
    ASSERT_NE(master->getBuffer(late), nullptr);
    EXPECT_EQ(share->getBuffer(late), master->getBuffer(late));
    EXPECT_EQ(master->getBuffer(late)->size(), 3U);
    static_cast<void>(share->createInstance());
    EXPECT_EQ(master->getBuffer(late)->data<double>()[3], 7);
}

TEST_F(EntityStorageShareTest, CustomColumnsOfTwoDoNotTakeEachOthersPlace) {
    auto* ofShare = new zelData::ScalarAttribute("ofShare", getFormat("Real:64bit"));
    share->addCustomAttribute(ofShare);
    auto* ofMaster = new zelData::ScalarAttribute("ofMaster", getFormat("Real:64bit"));
    master->addCustomAttribute(ofMaster);
    EXPECT_EQ(master->getBuffer(ofShare), nullptr);
    EXPECT_EQ(share->getBuffer(ofMaster), master->getBuffer(ofMaster));
    static_cast<void>(master->createInstances(3));
    ASSERT_EQ(share->getBuffer(ofShare)->size(), 3U);
    for (uint64 i = 0; i < 3; ++i)
        share->getBuffer(ofShare)->data<double>()[i] = static_cast<double>(i);
    master->destroyInstance(0);
    EXPECT_EQ(share->getBuffer(ofShare)->data<double>()[0], 2);
    master->reorder(zel::VectorPOD<uint32>{1, 0});
    EXPECT_EQ(share->getBuffer(ofShare)->data<double>()[0], 1);
}

TEST_F(EntityStorageShareTest, ConstructsNothingWhenItComes) {
    EntityModel* fragile = loadModel("FragileShare");
    const ref_ptr<EntityStorage> storage(new EntityStorage(fragile));
    static_cast<void>(storage->createInstances(3));
    storage->getBuffer("mass")->data<double>()[1] = 8;
    Fault::arm(false, 0); // the first element or constructor would fail
    const ref_ptr<EntityStorage> other(storage->createSharedStorage());
    EXPECT_TRUE(Fault::isArmed());
    Fault::disarm();
    EXPECT_EQ(other->getBuffer("mass")->data<double>()[1], 8);
    EXPECT_EQ(other->size(), 3U);
    // One that is created is constructed once.
    Fault::arm(false, 100);
    static_cast<void>(other->createInstance());
    const auto cost = [](EntityStorage& of) {
        for (uint64 n = 0;; ++n) {
            Fault::arm(false, n);
            try {
                static_cast<void>(of.createInstance());
                Fault::disarm();
                return n;
            } catch (const std::runtime_error&) {
                Fault::disarm();
            }
        }
    };
    const ref_ptr<EntityStorage> alone(new EntityStorage(fragile));
    EXPECT_EQ(cost(*other), cost(*alone));
}

TEST_F(EntityStorageShareTest, HasACapacityOfItsOwn) {
    master->reserve(1000);
    EXPECT_EQ(share->capacity(), 1000U); // as one that is there hears of it
    const ref_ptr<EntityStorage> late(master->createSharedStorage());
    EXPECT_EQ(late->capacity(), 32U);
    master->resize(33);
    EXPECT_EQ(late->capacity(), 49U);
    EXPECT_EQ(master->capacity(), 1000U);
    const ref_ptr<EntityStorage> later(master->createSharedStorage());
    EXPECT_EQ(later->capacity(), 33U);
    EXPECT_EQ(later->getCapacityValue()->get(), 33U);
    static_cast<void>(later->createInstance());
    late->verifyConsistency();
    later->verifyConsistency();
    EXPECT_EQ(master->size(), 34U);
}

TEST_F(EntityStorageShareTest, HearsOfInstancesWhenAllColumnsHaveThem) {
    OnCreation listener;
    uint64 told = 0;
    listener.work = [&](EntityStorage* from, EntityRange range) {
        EXPECT_EQ(from, share.get());
        told += range.size();
        EXPECT_EQ(master->size(), range.end());
        EXPECT_EQ(master->getBuffer("mass")->size(), range.end());
        EXPECT_EQ(massOf(share)[range.end() - 1], 5);
        EXPECT_EQ(master->getSizeValue()->get(), range.end());
    };
    share->addListener(&listener);
    static_cast<void>(master->createInstances(100));
    master->resize(200);
    share->removeListener(&listener);
    EXPECT_EQ(told, 200U);
}

TEST_F(EntityStorageShareTest, IsPresizedWithTheOthers) {
    static_cast<void>(master->createInstances(3));
    master->presize(50, 60);
    EXPECT_EQ(share->size(), 50U);
    EXPECT_EQ(share->capacity(), 60U);
    EXPECT_EQ(massOf(share).size(), 50U);
    static_cast<void>(share->createInstance());
    EXPECT_EQ(master->size(), 51U);
    share->verifyConsistency();
}

TEST_F(EntityStorageShareTest, TakesTheSizeOfAKeyFrame) {
    static_cast<void>(master->createInstances(3));
    master->keyFrameResize(20, 100);
    EXPECT_EQ(share->size(), 20U);
    EXPECT_EQ(share->capacity(), 100U);
    share->verifyConsistency();
    share->keyFrameResize(5, 10);
    EXPECT_EQ(master->size(), 5U);
    EXPECT_EQ(master->capacity(), 10U);
    static_cast<void>(share->createInstance());
    EXPECT_EQ(master->size(), 6U);
    EXPECT_EQ(master->getCapacityValue()->get(), 10U);
}

TEST_F(EntityStorageShareTest, LosesAColumnThatIsTakenAway) {
    static_cast<void>(master->createInstances(3));
    EXPECT_EQ(massOf(share).size(), 3U);
    const ref_ptr<Buffer> mass(master->getBuffer("mass"));
    master->unregisterBuffer(mass.get());
    EXPECT_EQ(mass->getStorage(), nullptr);
    EXPECT_EQ(share->getBuffer("mass"), nullptr);
    EXPECT_EQ(share->getBuffer(model->getAttribute("mass")), nullptr);
    EXPECT_TRUE(massOf(master).empty());
    EXPECT_TRUE(massOf(share).empty());
    EXPECT_EQ(mass->reallocationEvent.size(), 0U);
    static_cast<void>(share->createInstances(100));
    EXPECT_EQ(mass->size(), 3U);
    EXPECT_TRUE(massOf(share).empty());
    EXPECT_EQ(share->getBuffer("nothing"), nullptr);
}

TEST_F(EntityStorageShareTest, HearsOfAPermutationAndOfADestructionByItsOwnHandles) {
    struct Recorder : EntityStorage::EventListener {
        void destroyInstanceCallback(EntityStorage* from, EntityPtr instance) override {
            EXPECT_EQ(instance.getStorage(), from);
            index = instance.getIndex();
        }
        void permuteCallback(EntityStorage* from, Array<uint32>) override {
            from->verifyConsistency();
            ++numPermutations;
        }
        uint32 index = 77;
        int numPermutations = 0;
    } recorder;
    static_cast<void>(master->createInstances(3));
    share->addListener(&recorder);
    master->reorder(zel::VectorPOD<uint32>{2, 0, 1});
    EXPECT_EQ(recorder.numPermutations, 1);
    master->destroyInstance(0); // which is at index 1 now
    EXPECT_EQ(recorder.index, 1U);
    share->removeListener(&recorder);
}
