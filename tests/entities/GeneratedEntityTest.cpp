#include "EntityFixture.h"

#include <zel/EntityStorageEventEntity.h>
#include <zel/ReferencedEntity.h>
#include <zel/Thread.h>
#include <zel/ThreadTimelineEntryEntity.h>
#include <zel/ValueEventEntity.h>
#include <zelData/Type.h>

#include <support/FirstLife.h>
#include <support/PoolThreads.h>

#include <mutex>
#include <set>
#include <thread>

using zel::ref_ptr;
using zel::ReferencedModel;
using zel::ReferencedPtr;
using zel::ThreadTimelineEntryData;
using zel::ThreadTimelineEntryInstance;
using zel::ThreadTimelineEntryModel;
using zel::ThreadTimelineEntryPtr;
using zelData::EntityModel;
using zelData::EntityPtr;
using zelData::EntityStorage;
using zelData::getFormat;

namespace {

using GeneratedEntityTest = zelTest::EntityFixture;
using DefaultStoragesTest = zelTest::EntityFixture;
using GeneratedEntityDeathTest = zelTest::EntityFixture;

/// A class for an entity of which the test writes the file.
class ProbeModel : public EntityModel {
public:
    explicit ProbeModel(const zel::Name& name) : EntityModel(name) {}
    void initAttributeAccessors() override {
        addAttribute(new zelData::ScalarAttributeT<double>("extra", getFormat("Real")));
        s_extra = static_cast<zelData::ScalarAttributeT<double>*>(getAttribute("extra"));
    }
    void construct(EntityPtr instance) override {
        s_constructed.push_back(instance);
        s_extra->set(instance, 40 + instance.getId());
    }
    void shutdownCleanup() override { ++s_cleanups; }

    static zelData::ScalarAttributeT<double>* s_extra;
    static std::vector<EntityPtr> s_constructed;
    static int s_cleanups;
};
zelData::ScalarAttributeT<double>* ProbeModel::s_extra = nullptr;
std::vector<EntityPtr> ProbeModel::s_constructed;
int ProbeModel::s_cleanups = 0;

EntityModel::LoaderT<ProbeModel> s_probeLoader("Probe");

} // namespace

TEST_F(GeneratedEntityTest, ThreadTimelineEntryHasItsAttributesInOrder) {
    std::vector<std::string> attributes;
    for (const auto& attribute : ThreadTimelineEntryModel::instance()->getAttributes())
        attributes.push_back(attribute->getName() + " " + attribute->getDefaultFormat()->fullName());
    EXPECT_EQ(attributes,
              (std::vector<std::string>{"instance EntityPtr:default",
                                        "taskId UInt:32bit",
                                        "startTimeGlobal Real:64bit",
                                        "endTimeGlobal Real:64bit",
                                        "startTimeFrame Real:64bit",
                                        "endTimeFrame Real:64bit",
                                        "description String:default",
                                        "costEstimate UInt:32bit",
                                        "poolSize UInt:32bit",
                                        "jobType UInt:8bit",
                                        "jobPtr UInt:64bit",
                                        "extraDataTitle String:default",
                                        "extraData Real:64bit"}));
    EXPECT_EQ(zelData::getEntity("ThreadTimelineEntry"), ThreadTimelineEntryModel::instance());
}

TEST_F(GeneratedEntityTest, HandlesAndPlacesReachTheAttributes) {
    const ref_ptr<EntityStorage> storage(new EntityStorage(ThreadTimelineEntryModel::instance()));
    const ThreadTimelineEntryPtr entry(storage->createInstance());
    entry.setTaskId(7);
    entry.setDescription("sweep");
    entry.setJobType(3);
    entry.setExtraData(2.5);
    EXPECT_EQ(entry.getTaskId(), 7U);
    EXPECT_EQ(entry.getDescription(), "sweep");
    auto* data = dynamic_cast<ThreadTimelineEntryData*>(storage->getData());
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(data->taskId.size(), 1U);
    EXPECT_EQ(data->taskId[0], 7U);
    static_cast<void>(storage->createInstances(100));
    EXPECT_EQ(data->description[0], "sweep");
    const ThreadTimelineEntryInstance place(data, 0);
    EXPECT_EQ(place.getJobType(), 3);
    place.setJobPtr(99);
    EXPECT_EQ(entry.getJobPtr(), 99U);
    EXPECT_EQ(place.getExtraData(), 2.5);
}

TEST_F(GeneratedEntityTest, HandlesHaveTypesOfTheirOwn) {
    for (const char* name : {"ReferencedPtr",
                             "ReferencedInstance",
                             "ThreadTimelineEntryPtr",
                             "ThreadTimelineEntryInstance",
                             "ValueEventPtr",
                             "EntityStorageEventInstance"}) {
        zelData::Type* type = zelData::getType(name);
        ASSERT_NE(type, nullptr) << name;
        EXPECT_EQ(type->getDefaultFormat()->getName(), zel::Name("default"));
        EXPECT_NE(type->getFormat("ascii"), nullptr);
    }
    EXPECT_NE(zelData::getTransformer(getFormat("ReferencedInstance"), getFormat("EntityInstance")), nullptr);
    EXPECT_EQ(zelData::TypeBinding<ReferencedPtr>::getType(), zelData::getType("ReferencedPtr"));
}

TEST_F(GeneratedEntityTest, DerivedClassesShowTheAttributesOfTheirBase) {
    const ref_ptr<EntityStorage> storage(new EntityStorage(zel::EntityStorageEventModel::instance()));
    const zel::EntityStorageEventPtr event(storage->createInstance());
    event.setType(zel::EntityStorageEventModel::Permute);
    event.setObject(storage.get());
    event.setRange(zel::IndexRange(3, 5));
    EXPECT_EQ(event.getType(), 5U);
    auto* data = dynamic_cast<zel::EntityStorageEventData*>(storage->getData());
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(data->object[0], storage.get());
    EXPECT_EQ(data->range[0].end(), 5U);
    EXPECT_TRUE(storage->getEntityModel()->is(zel::ObjectEventModel::instance()));
    EXPECT_EQ(zel::ValueEventModel::instance()->getBaseEntity(), zel::ObjectEventModel::instance());
}

TEST_F(GeneratedEntityTest, AnEntityFromXmlDerivesFromAClass) {
    write("Counted",
          "<Entity.Model name='Counted' source='Referenced'><Attribute.Scalar name='mass' "
          "type='Real'/></Entity.Model>");
    EntityModel* model = zelData::getEntity("Counted");
    ASSERT_NE(model, nullptr);
    const ref_ptr<EntityStorage> storage(new EntityStorage(model));
    const ReferencedPtr instance(storage->createInstance());
    instance.setReferenceCount(3);
    EntityPtr observer = instance;
    instance.setObservers({&observer});
    storage->getBuffer("mass")->data<double>()[0] = 8;
    // Who counts and observes the instance stays with it.
    const ReferencedPtr copy(instance.copy());
    EXPECT_EQ(copy.getReferenceCount(), 0U);
    EXPECT_TRUE(copy.getObservers().empty());
    EXPECT_EQ(storage->getBuffer("mass")->data<double>()[copy.getIndex()], 8);
    // The observers go along with an instance that moves.
    const ref_ptr<EntityStorage> other(new EntityStorage(model));
    ReferencedPtr moved(instance);
    moved.transfer(other.get());
    EXPECT_EQ(moved.getStorage(), other.get());
    ASSERT_EQ(moved.getObservers().size(), 1U);
    EXPECT_EQ(moved.getObservers()[0], &observer);
    EXPECT_EQ(dynamic_cast<zel::ReferencedData*>(other->getData())->referenceCount.size(), 1U);
}

TEST_F(GeneratedEntityTest, TheClassOfAnEntityTakesPartInItsLoading) {
    write("Probe",
          "<Entity.Model name='Probe' hasConstructor='true'><Attribute.Scalar name='mass' "
          "type='Real'/></Entity.Model>");
    write("Child", "<Entity.Model name='Child' source='Probe'/>");
    EntityModel* model = zelData::getEntity("Probe");
    ASSERT_NE(dynamic_cast<ProbeModel*>(model), nullptr);
    EXPECT_NE(model->getAttribute("extra"), nullptr);
    const ref_ptr<EntityStorage> storage(new EntityStorage(model));
    static_cast<void>(storage->createInstances(3));
    ASSERT_EQ(ProbeModel::s_constructed.size(), 3U);
    EXPECT_EQ(ProbeModel::s_constructed[2], storage->getInstance(2));
    EXPECT_EQ(ProbeModel::s_extra->get(storage->getInstance(2)), 42);
    storage->resize(5, false);
    EXPECT_EQ(ProbeModel::s_constructed.size(), 3U);
    storage->resize(3, false);
    // A model without a class of its own leaves construction to its base.
    const ref_ptr<EntityStorage> children(new EntityStorage(zelData::getEntity("Child")));
    static_cast<void>(children->createInstance());
    EXPECT_EQ(ProbeModel::s_constructed.size(), 4U);
    ProbeModel::s_constructed.clear();
}

TEST_F(GeneratedEntityTest, ModelsCleanUpAtShutdown) {
    ZEL_FIRST_LIFE_ONLY();
    write("Probe", "<Entity.Model name='Probe'/>");
    static_cast<void>(zelData::getEntity("Probe"));
    const int before = ProbeModel::s_cleanups;
    zelCore::shutdown();
    EXPECT_EQ(ProbeModel::s_cleanups, before + 1);
    EXPECT_EQ(EntityModel::getInstanceAttribute(), nullptr);
}

TEST_F(GeneratedEntityDeathTest, APathHasOneLoader) {
    EXPECT_DEATH(EntityModel::LoaderT<ProbeModel>("Probe"),
                 "zelVerify failed: `!s_entityLoaderTable\\(\\).contains\\(modelPath\\)'");
}

TEST_F(GeneratedEntityDeathTest, AModelThatCannotBeLoadedIsFatal) {
    EXPECT_DEATH(
        {
            std::atomic<ProbeModel*> slot{nullptr};
            static_cast<void>(zelData::getGeneratedModel("Probe", slot));
        },
        "Could not load entity 'Probe'");
}

// Default storages

TEST_F(DefaultStoragesTest, EachThreadHasItsOwn) {
    EntityModel* model = entity("Body");
    EntityStorage* mine = model->getDefaultStorage();
    EXPECT_EQ(mine->capacity(), 32U);
    EXPECT_EQ(model->getDefaultStorage(), mine);
    EXPECT_EQ(zel::Thread::getCurrentThread()->getDefaultStorage(model), mine);
    zel::setNumThreads(3);
    std::set<EntityStorage*> storages;
    zelTest::onEachThread([&] {
        storages.insert(model->getDefaultStorage());
        static_cast<void>(model->createInstanceWrapper());
    });
    EXPECT_EQ(storages.size(), 3U);
    EXPECT_TRUE(storages.contains(mine));
    zel::setNumThreads(1);
    for (EntityStorage* storage : storages) // they outlive their threads
        EXPECT_EQ(storage->size(), 1U);
}

TEST_F(DefaultStoragesTest, ThreadsFromOutsideShareOne) {
    EntityModel* model = entity("Body");
    EntityStorage* outside[2] = {};
    for (EntityStorage*& storage : outside)
        std::thread([&] { storage = model->getDefaultStorage(); }).join();
    EXPECT_NE(outside[0], nullptr);
    EXPECT_EQ(outside[0], outside[1]);
    EXPECT_NE(outside[0], model->getDefaultStorage());
}

TEST_F(DefaultStoragesTest, ThreadsFromOutsideCreateOneAfterTheOther) {
    EntityModel* model = entity("Body");
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([model] {
            for (int k = 0; k < 5000; ++k)
                static_cast<void>(model->createInstanceWrapper());
        });
    for (std::thread& thread : threads)
        thread.join();
    std::thread([model] {
        EXPECT_EQ(model->getDefaultStorage()->size(), 20000U);
        model->getDefaultStorage()->verifyConsistency();
    }).join();
}

TEST_F(DefaultStoragesTest, AThreadMayForgetItsOwn) {
    EntityModel* model = entity("Body");
    EntityStorage* first = model->getDefaultStorage();
    const EntityPtr instance = model->createInstanceWrapper();
    zel::Thread::getCurrentThread()->freeDefaultStorages();
    EXPECT_NE(model->getDefaultStorage(), first);
    EXPECT_EQ(instance.getIndex(), 0U); // the old one is still there
}

TEST_F(DefaultStoragesTest, CountedEntitiesGetNewOnesWhenManyThreadsCreate) {
    EXPECT_FALSE(zel::getEntityCreationThreadSafe());
    EXPECT_EQ(ReferencedModel::defaultStorage(), ReferencedModel::defaultStorage());
    zel::setEntityCreationThreadSafe(true);
    EXPECT_TRUE(EntityModel::isThreadSafe());
    EXPECT_NE(ReferencedModel::defaultStorage(), ReferencedModel::defaultStorage());
    EXPECT_EQ(ReferencedModel::defaultStorage()->capacity(), 32U);
    EntityModel* model = entity("Body");
    EXPECT_EQ(model->getDefaultStorage(), model->getDefaultStorage());
    zel::setEntityCreationThreadSafe(false);
    const ReferencedPtr instance = ReferencedModel::createInstance();
    EXPECT_EQ(instance.getStorage(), ReferencedModel::defaultStorage());
}

TEST_F(DefaultStoragesTest, GoAtShutdown) {
    ZEL_FIRST_LIFE_ONLY();
    struct Listener : EntityStorage::EventListener {
        void destroyCallback(EntityStorage*) override { ++gone; }
        int gone = 0;
    } listener;
    EntityModel* model = entity("Body");
    model->getDefaultStorage()->addListener(&listener);
    std::thread([&] { model->getDefaultStorage()->addListener(&listener); }).join();
    zelCore::shutdown();
    EXPECT_EQ(listener.gone, 2);
}
