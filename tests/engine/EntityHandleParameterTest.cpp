#include "CountCommits.h"
#include "ParameterFixture.h"

#include <zel/EntityInstanceParameter.h>
#include <zel/EntityPtrParameter.h>
#include <zel/ScalarParameter.h>
#include <zelData/EntityData.h>
#include <zelData/EntityFormats.h>

#include <support/ModelFiles.h>

using zel::EntityInstanceParameter;
using zel::EntityPtrParameter;
using zel::Object;
using zel::Parameter;
using zel::Path;
using zel::ref_ptr;
using zelData::EntityInstance;
using zelData::EntityModel;
using zelData::EntityPtr;
using zelData::EntityStorage;
using zelData::getFormat;
using zelData::ScalarAttribute;
using zelData::Value;
using zelTest::CountCommits;
using zelTest::ParameterEvents;

namespace {

class EntityHandleParameterTest : public zelTest::ParameterFixture {
protected:
    void SetUp() override {
        ParameterFixture::SetUp();
        model = zelTest::makeEntity("Particle", {new ScalarAttribute("mass", getFormat("Real"))});
        storage = new EntityStorage(model.get(), "particles");
        top->addObject(storage.get());
        handle = storage->createInstance();
        parameter = add(new EntityPtrParameter("p", model.get()));
    }
    void TearDown() override {
        parameter = nullptr;
        storage = nullptr;
        ParameterFixture::TearDown();
        model = nullptr;
    }
    Value* putHandle(const EntityPtr& content) {
        auto* value = put(new Value("handle", getFormat("EntityPtr")));
        value->set(&content);
        return value;
    }

    ref_ptr<EntityModel> model;
    ref_ptr<EntityStorage> storage;
    ref_ptr<EntityPtrParameter> parameter;
    EntityPtr handle;
};
using EntityHandleParameterDeathTest = EntityHandleParameterTest;

} // namespace

TEST_F(EntityHandleParameterTest, TakesAHandle) {
    EXPECT_FALSE(parameter->isValid());
    EXPECT_TRUE(parameter->getHandle().isNull());
    EXPECT_EQ(parameter->getMetaType(), Parameter::MetaType::EntityPtr);
    EXPECT_EQ(parameter->getType(), zelData::getType("EntityPtr"));
    parameter->bind(handle);
    EXPECT_TRUE(parameter->isValid());
    EXPECT_EQ(parameter->getHandle(), handle);
    parameter->unbind();
    EXPECT_FALSE(parameter->isValid());
}

TEST_F(EntityHandleParameterTest, FollowsAValueThatHoldsAHandle) {
    Value* value = putHandle(EntityPtr());
    parameter->bind(Path("handle"));
    EXPECT_EQ(parameter->getBinding(), value);
    EXPECT_FALSE(parameter->isValid());
    const ParameterEvents events(parameter.get());
    value->set(&handle);
    EXPECT_TRUE(parameter->isValid());
    EXPECT_EQ(parameter->getHandle(), handle);
    EXPECT_EQ(events.updated, 1);
}

TEST_F(EntityHandleParameterTest, FollowsParametersThatHoldAHandle) {
    putHandle(handle);
    const auto scalar = add(new zel::ScalarParameter("s", getFormat("EntityPtr")));
    scalar->bind(Path("handle"));
    parameter->bind(scalar.get());
    EXPECT_EQ(parameter->getHandle(), handle);
    const auto other = add(new EntityPtrParameter("other", model.get()));
    other->bind(parameter.get());
    EXPECT_EQ(other->getHandle(), handle);
}

TEST_F(EntityHandleParameterTest, CommitsTheColumnsThatAreWritten) {
    const zelData::Attribute* mass = model->getAttribute("mass");
    parameter->bind(handle);
    EXPECT_FALSE(parameter->needsCommit());
    CountCommits listener;
    storage->getBuffer(mass)->addListener(&listener);
    parameter->registerAttributeAccess(mass, zelData::AccessMode::READ);
    EXPECT_FALSE(parameter->needsCommit());
    parameter->commit();
    EXPECT_EQ(listener.count, 0);
    parameter->registerAttributeAccess(mass, zelData::AccessMode::WRITE);
    EXPECT_EQ(parameter->getAttributeAccess(mass), zelData::AccessMode::READ_WRITE);
    EXPECT_EQ(parameter->getAttributeAccess(zelData::EntityModel::getInstanceAttribute()), 0U);
    EXPECT_TRUE(parameter->needsCommit());
    parameter->commit();
    EXPECT_EQ(listener.count, 1);
    parameter->unbind();
    parameter->commit();
    EXPECT_EQ(listener.count, 1);
    storage->getBuffer(mass)->removeListener(&listener);
}

TEST_F(EntityHandleParameterTest, InstanceParameterTakesAPlace) {
    const auto place = add(new EntityInstanceParameter("i", model.get()));
    EXPECT_FALSE(place->isValid());
    place->bind(EntityInstance(storage->getData(), 0));
    EXPECT_TRUE(place->isValid());
    EXPECT_EQ(place->getHandle().getIndex(), 0U);
    EXPECT_EQ(place->getMetaType(), Parameter::MetaType::EntityInstance);
    const zelData::Attribute* mass = model->getAttribute("mass");
    CountCommits listener;
    storage->getBuffer(mass)->addListener(&listener);
    place->registerAttributeAccess(mass, zelData::AccessMode::WRITE);
    place->commit();
    EXPECT_EQ(listener.count, 1);
    storage->getBuffer(mass)->removeListener(&listener);
}

TEST_F(EntityHandleParameterTest, HandleOfAGeneratedClassFits) {
    struct ParticlePtr : EntityPtr {
        using EntityPtr::EntityPtr;
    };
    zelData::createEntityPtrFormats<ParticlePtr>("ParticlePtr");
    const ref_ptr<Value> value(new Value("v", getFormat("ParticlePtr")));
    const ParticlePtr content(storage.get(), handle.getId());
    value->set(&content);
    parameter->bind(value.get());
    EXPECT_EQ(parameter->getHandle(), handle);
}

TEST_F(EntityHandleParameterDeathTest, MisfitsEndTheProcess) {
    auto* number = put(new zelData::ValueT<double>("number", 1.0));
    EXPECT_DEATH(parameter->bind(static_cast<Object*>(number)),
                 "top.task.p: Can not bind parameter of type EntityPtr to value of type Real \\(path: "
                 "top.number\\)");
    const auto other = zelTest::makeEntity("Wall", {});
    const ref_ptr<EntityStorage> walls(new EntityStorage(other.get(), "walls"));
    const EntityPtr wall = walls->createInstance();
    EXPECT_DEATH(parameter->bind(wall),
                 "Can not bind entity parameter of type 'Particle' to storage 'walls' which has entity type "
                 "'Wall'");
    Value* value = putHandle(handle);
    parameter->bind(static_cast<Object*>(value));
    EXPECT_DEATH(value->set(&wall), "which has entity type 'Wall'");
}

TEST_F(EntityHandleParameterDeathTest, UnknownModeEndsTheProcess) {
    EXPECT_DEATH(parameter->registerAttributeAccess(model->getAttribute("mass"), 4), "Unknown mode 4");
}

using EntityHandleParameterXmlTest = zelTest::ModelFiles;

TEST_F(EntityHandleParameterXmlTest, LoadsFromXml) {
    directory.write("Components/zel/Dust.zelEntity", "<Entity.Model name='Dust'/>");
    const auto document = Object::openDocument(
        directory.write("m.xml",
                        "<a><Parameter.EntityPtr name='p' type='Dust' bind='x.y' required='false'/>"
                        "<Parameter.EntityInstance name='i' type='Dust'/></a>"));
    zel::TiXmlElement* element = document->RootElement()->FirstChildElement();
    const ref_ptr<EntityPtrParameter> pointer(EntityPtrParameter::load(element, nullptr));
    EXPECT_EQ(pointer->getEntityModel(), zelData::getEntity(Path("Dust")));
    EXPECT_EQ(pointer->getBindPath(), Path("x.y"));
    EXPECT_FALSE(pointer->isRequired());
    const ref_ptr<EntityInstanceParameter> place(
        EntityInstanceParameter::load(element->NextSiblingElement(), nullptr));
    EXPECT_EQ(place->getName(), zel::Name("i"));
}
