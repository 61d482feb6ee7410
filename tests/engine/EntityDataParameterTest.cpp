#include "CountCommits.h"
#include "ParameterFixture.h"

#include <zel/ArrayParameter.h>
#include <zel/EntityDataParameter.h>
#include <zel/GlobalResultStorage.h>
#include <zelData/EntityData.h>

#include <support/ModelFiles.h>

using testing::HasSubstr;
using zel::ArrayParameter;
using zel::EntityDataParameter;
using zel::GlobalResult;
using zel::Path;
using zel::ref_ptr;
using zelData::EntityModel;
using zelData::EntityStorage;
using zelData::getFormat;
using zelData::ScalarAttribute;
using zelTest::CountCommits;
using zelTest::ParameterEvents;

namespace {

constexpr zel::uint32 WrittenTo = zelData::AccessMode::READ_WRITE;

class EntityDataParameterTest : public zelTest::ParameterFixture {
protected:
    void SetUp() override {
        ParameterFixture::SetUp();
        model = zelTest::makeEntity("Particle",
                                    {new ScalarAttribute("mass", getFormat("Real")),
                                     new ScalarAttribute("position", getFormat("Vec3"))});
        storage = new EntityStorage(model.get(), "particles");
        top->addObject(storage.get());
    }
    void TearDown() override {
        storage = nullptr;
        ParameterFixture::TearDown();
        model = nullptr;
    }
    EntityDataParameter* make(zel::uint32 mode = zelData::AccessMode::READ, const Path& path = Path()) {
        return add(new EntityDataParameter("p", model.get(), mode, path)).get();
    }
    static ArrayParameter*
    column(EntityDataParameter* parameter, const char* name, zel::uint32 mode = zelData::AccessMode::READ) {
        auto* child = new ArrayParameter(name, static_cast<const zelData::Format*>(nullptr), mode);
        parameter->addChildParameter(child);
        return child;
    }

    ref_ptr<EntityModel> model;
    ref_ptr<EntityStorage> storage;
};
using EntityDataParameterDeathTest = EntityDataParameterTest;

} // namespace

TEST_F(EntityDataParameterTest, TakesTheViewAndTheColumns) {
    EntityDataParameter* parameter = make(zelData::AccessMode::READ, "particles");
    EXPECT_TRUE(parameter->isValid());
    EXPECT_EQ(parameter->getStorage(), storage.get());
    EXPECT_EQ(parameter->getData(), storage->getData());
    EXPECT_FALSE(parameter->needsUpdate());
    const ArrayParameter* mass = column(parameter, "mass");
    EXPECT_EQ(mass->getBuffer(), storage->getBuffer(zel::Name("mass")));
    EXPECT_EQ(mass->getTask(), task.get());
    EXPECT_TRUE(parameter->needsUpdate());
    EXPECT_FALSE(parameter->needsCommit());
    parameter->unbind();
    EXPECT_FALSE(parameter->isValid());
    EXPECT_EQ(mass->getBuffer(), nullptr);
    parameter->bind(storage.get());
    EXPECT_EQ(mass->getBuffer(), storage->getBuffer(zel::Name("mass")));
}

TEST_F(EntityDataParameterTest, TakesStoragesOfDerivedEntities) {
    const auto derived = zelTest::makeEntity("Charged", {}, model.get());
    const ref_ptr<EntityStorage> other(new EntityStorage(derived.get(), "charged"));
    EntityDataParameter* parameter = make();
    parameter->bind(other.get());
    EXPECT_TRUE(parameter->isValid());
    parameter->unbind();
}

TEST_F(EntityDataParameterTest, UpdateFollowsTheStorage) {
    EntityDataParameter* parameter = make(zelData::AccessMode::READ, "particles");
    const ArrayParameter* mass = column(parameter, "mass");
    storage->createInstances(10'000);
    parameter->update();
    EXPECT_EQ(mass->getArray().size(), 10'000U);
    EXPECT_EQ(mass->getArray().ptr(), mass->getBuffer()->getPtr());
}

TEST_F(EntityDataParameterTest, CommitAnnouncesWrittenColumns) {
    EntityDataParameter* parameter = make(WrittenTo, "particles");
    column(parameter, "mass", WrittenTo);
    column(parameter, "position");
    EXPECT_TRUE(parameter->needsCommit());
    CountCommits mass;
    CountCommits position;
    storage->getBuffer(zel::Name("mass"))->addListener(&mass);
    storage->getBuffer(zel::Name("position"))->addListener(&position);
    parameter->commit();
    EXPECT_EQ(mass.count, 1);
    EXPECT_EQ(position.count, 0);
    storage->getBuffer(zel::Name("mass"))->removeListener(&mass);
    storage->getBuffer(zel::Name("position"))->removeListener(&position);
}

TEST_F(EntityDataParameterTest, DoesNotKeepTheStorageAlive) {
    EntityDataParameter* parameter = make(WrittenTo, "particles");
    column(parameter, "mass");
    parameter->setGlobalResultMode(GlobalResult::APPEND);
    const ParameterEvents events(parameter);
    top->removeObject(storage.get());
    EXPECT_EQ(storage->referenceCount(), 1);
    storage = nullptr;
    EXPECT_EQ(parameter->getStorage(), nullptr);
    EXPECT_FALSE(parameter->isValid());
    EXPECT_FALSE(parameter->hasGlobalResult());
    EXPECT_EQ(events.unbound, 1);
}

TEST_F(EntityDataParameterTest, TaskInsideItsStorageIsNoCycle) {
    const ref_ptr<zel::SerialTask> inner(new zel::SerialTask("inner"));
    const ref_ptr<EntityDataParameter> parameter(new EntityDataParameter("p", model.get()));
    parameter->setTask(inner.get(), 0);
    inner->addObject(parameter.get());
    parameter->bind(storage.get());
    storage->addObject(inner.get());
    top->removeObject(storage.get());
    EXPECT_EQ(storage->referenceCount(), 1);
    storage = nullptr;
    EXPECT_FALSE(parameter->isValid());
}

TEST_F(EntityDataParameterTest, AnotherParameterStandsForItsStorage) {
    EntityDataParameter* first = make(zelData::AccessMode::READ, "particles");
    const auto second = add(new EntityDataParameter("second", model.get()));
    second->bind(first);
    EXPECT_EQ(second->getBinding(), storage.get());
}

TEST_F(EntityDataParameterTest, PathsLeadToTheColumns) {
    EntityDataParameter* parameter = make(zelData::AccessMode::READ, "particles");
    ArrayParameter* mass = column(parameter, "mass");
    EXPECT_EQ(task->getResource(Path("p.mass")), mass);
    EXPECT_EQ(task->getResource(Path("p.nothing")), nullptr);
    const auto array = add(new ArrayParameter("array", getFormat("Real")));
    array->bind(Path("p.mass"));
    EXPECT_EQ(array->getBuffer(), storage->getBuffer(zel::Name("mass")));
}

TEST_F(EntityDataParameterTest, ViewMayBeSetByItself) {
    EntityDataParameter* parameter = make();
    const ref_ptr<zelData::EntityData> view(new zelData::EntityData);
    parameter->setData(view.get());
    EXPECT_TRUE(parameter->isValid());
    EXPECT_EQ(parameter->getData(), view.get());
}

TEST_F(EntityDataParameterTest, GlobalResultComesWithStorageAndMode) {
    EntityDataParameter* parameter = make(WrittenTo);
    parameter->setGlobalResultMode(GlobalResult::TRUNCATE);
    EXPECT_FALSE(parameter->hasGlobalResult());
    parameter->bind(storage.get());
    ASSERT_TRUE(parameter->hasGlobalResult());
    EXPECT_TRUE(parameter->needsUpdate());
    EXPECT_TRUE(parameter->needsCommit());
    EXPECT_EQ(parameter->getGlobalResult()->getStorage(), storage.get());
    ASSERT_EQ(parameter->getGlobalResult()->getTargets().size(), 1U);
    EXPECT_EQ(parameter->getGlobalResult()->getTargets()[0], parameter);
    parameter->setGlobalResultMode(0);
    EXPECT_FALSE(parameter->hasGlobalResult());
    EXPECT_FALSE(parameter->needsCommit());
}

TEST_F(EntityDataParameterDeathTest, StorageOfAnotherEntityEndsTheProcess) {
    const auto other = zelTest::makeEntity("Wall", {});
    const ref_ptr<EntityStorage> walls(new EntityStorage(other.get(), "walls"));
    EntityDataParameter* parameter = make();
    EXPECT_DEATH(
        parameter->bind(walls.get()),
        "zelVerify failed: `m_storage->getEntityModel\\(\\)->is\\(m_entityModel\\)'.*top.task.p: Can "
        "not bind entity parameter of type 'Particle' to storage 'walls' which has entity type "
        "'Wall'");
    EXPECT_DEATH(parameter->bind(top.get()),
                 "top.task.p: Can not bind an entity parameter to 'top', which is no storage");
}

TEST_F(EntityDataParameterDeathTest, ChildWithoutAnAttributeEndsTheProcess) {
    EntityDataParameter* parameter = make();
    EXPECT_DEATH(column(parameter, "colour"), "top.task.p: The entity 'Particle' has no attribute 'colour'");
}

namespace {

/// With the entity "Dust" in a file.
class EntityDataParameterXmlTest : public zelTest::ModelFiles {
protected:
    void SetUp() override {
        ModelFiles::SetUp();
        directory.write(
            "Components/zel/Dust.zelEntity",
            "<Entity.Model name='Dust'><Attribute.Scalar name='mass' type='Real'/></Entity.Model>");
    }
    EntityDataParameter* load(const std::string& text) {
        document = zel::Object::openDocument(directory.write("m.xml", "\n" + text));
        return EntityDataParameter::load(document->RootElement(), nullptr);
    }
    std::unique_ptr<TiXmlDocument> document;
};

} // namespace

TEST_F(EntityDataParameterXmlTest, LoadsWithItsColumns) {
    const ref_ptr<EntityDataParameter> parameter(
        load("<Parameter.EntityData name='p' type='Dust' bind='dust' mode='READ_WRITE'>"
             "<Parameter.Array name='mass' type='Real' mode='WRITE'/></Parameter.EntityData>"));
    EXPECT_EQ(parameter->getEntityModel(), zelData::getEntity(Path("Dust")));
    EXPECT_EQ(parameter->getBindPath(), Path("dust"));
    EXPECT_TRUE(parameter->isWritten());
    ASSERT_EQ(parameter->getChildParameters().size(), 1U);
    EXPECT_TRUE(parameter->getChildParameters()[0]->isWritten());
}

TEST_F(EntityDataParameterXmlTest, BadColumnsFail) {
    const auto what = [this](const std::string& text) {
        return zelTest::whatOf([&] { const ref_ptr<EntityDataParameter> loaded(load(text)); });
    };
    EXPECT_THAT(what("<Parameter.EntityData name='p' type='Dust'><Parameter.Array name='x' type='Real'/>"
                     "</Parameter.EntityData>"),
                HasSubstr("] XML error: The entity 'Dust' has no attribute 'x'. Error at row 2"));
    EXPECT_THAT(what("<Parameter.EntityData name='p' type='Dust'><Parameter.Scalar name='mass'/>"
                     "</Parameter.EntityData>"),
                HasSubstr("] XML error: Only arrays can be parameters of columns. Error at row 2"));
}
