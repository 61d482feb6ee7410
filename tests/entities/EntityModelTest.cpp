#include "EntityFixture.h"

#include <zel/Component.h>
#include <zel/CpuDevice.h>
#include <zel/Model.h>
#include <zel/Namespace.h>
#include <zelData/ArrayAttribute.h>
#include <zelData/Buffer.h>
#include <zelData/EntityData.h>
#include <zelData/Format.h>
#include <zelData/PointerAttribute.h>
#include <zelData/ScalarAttribute.h>
#include <zelData/SharedAttribute.h>
#include <zelData/Type.h>
#include <zelData/ValueT.h>
#include <zelData/VectorAttribute.h>

using testing::HasSubstr;
using zel::Name;
using zel::Path;
using zel::ref_ptr;
using zelData::Attribute;
using zelData::EntityModel;
using zelData::EntityPtr;
using zelData::EntityStorage;
using zelData::getEntity;
using zelData::getFormat;
using zelData::ScalarAttribute;
using zelData::SharedAttribute;
using zelData::Value;
using zelTest::LogCapture;

namespace {

class EntityModelTest : public zelTest::EntityFixture {
protected:
    /// What loading the element as an entity fails with.
    std::string xmlFailure(const std::string& text) {
        return zelTest::whatOf([&] { static_cast<void>(EntityModel::load(parse(text), nullptr)); });
    }
};
using AttributeTest = EntityModelTest;
using EntityModelDeathTest = EntityModelTest;
using AttributeDeathTest = EntityModelTest;
using EntityModelMaliciousTest = EntityModelTest;

ScalarAttribute* scalar(const char* name, const char* format = "Real") {
    return new ScalarAttribute(name, getFormat(format));
}

std::vector<std::string> names(const EntityModel* model) {
    std::vector<std::string> result;
    for (const auto& attribute : model->getAttributes())
        result.push_back(attribute->getName().str());
    return result;
}

} // namespace

// Attributes

TEST_F(AttributeTest, TakesTheDefaultFormatOfItsType) {
    const ref_ptr<ScalarAttribute> attribute(new ScalarAttribute("mass", zelData::getType("Real")));
    EXPECT_EQ(attribute->getDefaultFormat(), getFormat("Real:64bit"));
    EXPECT_EQ(attribute->getAttributeId(), zel::InvalidIndex);
    EXPECT_EQ(attribute->getEntity(), nullptr);
    EXPECT_EQ(attribute->fullName(), "mass");
    EXPECT_EQ(attribute->getNumElements(), 1U);
    attribute->setDefaultFormat(getFormat("Real:32bit"));
    EXPECT_EQ(attribute->getDefaultFormat(), getFormat("Real:32bit"));
}

TEST_F(AttributeTest, ANewFormatConvertsTheDefaultValue) {
    EntityModel* model = entity("Body", "<Attribute.Scalar name='mass' type='Real' value='2.5'/>");
    model->getAttribute("mass")->setDefaultFormat(getFormat("Real:32bit"));
    const ref_ptr<EntityStorage> storage(new EntityStorage(model));
    static_cast<void>(storage->createInstance());
    EXPECT_EQ(storage->getBuffer("mass")->data<float>()[0], 2.5F);
}

TEST_F(AttributeDeathTest, TheDefaultValueIsOfTheAttributesType) {
    const ref_ptr<ScalarAttribute> attribute(scalar("mass"));
    const ref_ptr<Value> value(new Value("default", getFormat("UInt")));
    EXPECT_DEATH(attribute->setDefaultValue(value.get()),
                 "zelVerify failed: `value->getType\\(\\) == this->getType\\(\\)'");
    const ref_ptr<Value> fits(new Value("default", getFormat("Real")));
    attribute->setDefaultValue(fits.get());
    EXPECT_EQ(attribute->getDefaultValue(), fits.get());
}

TEST_F(AttributeDeathTest, TheNumberOfElementsIsAnUnsignedNumber) {
    const ref_ptr<Value> value(new Value("numElements", getFormat("Real")));
    EXPECT_DEATH(ScalarAttribute("mass", getFormat("Real"), nullptr, value.get()),
                 "mass: the number of elements must be a value of the format UInt:64bit");
}

TEST_F(AttributeTest, ReadsAScalarFromXml) {
    const ref_ptr<ScalarAttribute> attribute(ScalarAttribute::load(
        parse("<Attribute.Scalar name='a' type='Vec3:32bit' value='1, 2, 3' numElements='4'/>")));
    EXPECT_EQ(attribute->getName(), Name("a"));
    EXPECT_EQ(attribute->getDefaultFormat()->fullName(), "Vec3:32bit");
    EXPECT_EQ(attribute->getDefaultValue()->getName(), Name("default"));
    EXPECT_EQ(attribute->getDefaultValue()->toString(), "1.000000, 2.000000, 3.000000");
    EXPECT_EQ(attribute->getNumElementsValue()->getName(), Name("numElements"));
    EXPECT_EQ(attribute->getNumElements(), 4U);
}

TEST_F(AttributeTest, SaysWhatAScalarLacks) {
    const auto load = [this](const char* text) {
        return zelTest::whatOf([&] { ref_ptr<ScalarAttribute>(ScalarAttribute::load(parse(text))); });
    };
    EXPECT_THAT(load("<Attribute.Scalar type='Real'/>"),
                HasSubstr("XML error: Attribute must have a name!. Error at row 1"));
    EXPECT_THAT(load("<Attribute.Scalar name='a'/>"), HasSubstr("XML error: Must specify a type!"));
    EXPECT_THAT(load("<Attribute.Scalar name='a' type='Rael'/>"),
                HasSubstr("XML error: No type named 'Rael'"));
    EXPECT_THAT(load("<Attribute.Scalar name='a' type='Real' defaultValue='5'/>"),
                HasSubstr("XML error: Attribute syntax update, Use 'value' instead!"));
    EXPECT_THAT(load("<Attribute.Scalar name='a' type='Vector&lt;Real>'/>"),
                HasSubstr("XML error: The type of the attribute has no format of its own"));
    for (const char* count : {"0", "-1", "1e30", "99999999999999999999", "2.5", "3x", "4294967296"})
        EXPECT_THAT(load(("<A name='a' type='Real' numElements='" + std::string(count) + "'/>").c_str()),
                    HasSubstr("XML error: Unable to parse attribute numElements"))
            << count;
}

TEST_F(AttributeTest, ReadsASharedOneFromXml) {
    const ref_ptr<SharedAttribute> attribute(
        SharedAttribute::load(parse("<Attribute.Shared name='g' type='Real:32bit' value='9.81'/>")));
    EXPECT_EQ(attribute->getExpression(), "9.81");
    EXPECT_EQ(attribute->getDefaultFormat()->fullName(), "Real:32bit");
    const ref_ptr<Value> value(attribute->createValue());
    EXPECT_EQ(value->toString(), "9.81");
    EXPECT_THAT(
        zelTest::whatOf([&] { ref_ptr<SharedAttribute>(SharedAttribute::load(parse("<A type='Real'/>"))); }),
        HasSubstr("XML error: Attribute must have a name."));
    EXPECT_THAT(
        zelTest::whatOf([&] { ref_ptr<SharedAttribute>(SharedAttribute::load(parse("<A name='a'/>"))); }),
        HasSubstr("XML error: Attribute must have a type."));
    EXPECT_THAT(zelTest::whatOf([&] {
                    ref_ptr<SharedAttribute>(SharedAttribute::load(parse("<A name='a' type='Rael'/>")));
                }),
                HasSubstr("XML error: No type named 'Rael'"));
}

TEST_F(AttributeTest, ReadsAPointerFromXml) {
    const ref_ptr<zelData::PointerAttribute> attribute(
        zelData::PointerAttribute::load(parse("<Attribute.Pointer name='parent'/>")));
    EXPECT_EQ(attribute->getType(), zelData::getType("Pointer"));
    EXPECT_THAT(zelTest::whatOf([&] {
                    ref_ptr<zelData::PointerAttribute>(
                        zelData::PointerAttribute::load(parse("<Attribute.Pointer/>")));
                }),
                HasSubstr("XML error: Attribute must have a name!"));
}

TEST_F(AttributeTest, ReadsContainersFromXml) {
    const ref_ptr<zelData::ArrayAttribute> array(
        zelData::ArrayAttribute::load(parse("<Attribute.Array name='a' type='Real'/>")));
    EXPECT_EQ(array->getType()->getName(), Name("Array<Real>"));
    EXPECT_EQ(array->getElementAttribute()->getDefaultFormat()->fullName(), "Real:64bit");
    const ref_ptr<zelData::VectorAttribute> vector(
        zelData::VectorAttribute::load(parse("<Attribute.Vector name='v' type='String'/>")));
    EXPECT_EQ(vector->getType()->getName(), Name("Vector<String>"));
    EXPECT_EQ(vector->getDefaultFormat()->getSize(), sizeof(zel::Vector<zel::String>));
    const ref_ptr<zelData::VectorAttribute> again(
        zelData::VectorAttribute::load(parse("<Attribute.Vector name='w' type='String'/>")));
    EXPECT_EQ(vector->getDefaultFormat(), again->getDefaultFormat());
}

TEST_F(AttributeDeathTest, ASetIsNotSupported) {
    EXPECT_DEATH(static_cast<void>(xmlFailure(
                     "<Entity.Model name='A'><Attribute.HashSet name='s' type='Real'/></Entity.Model>")),
                 "TODO: We want both bucket format and element attribute. Bucket size calculation\\? :/");
}

// The model

TEST_F(EntityModelTest, AllDeriveFromTheRoot) {
    EntityModel* root = EntityModel::getRootModel();
    EXPECT_EQ(root->getName(), Name("Entity"));
    EXPECT_EQ(EntityModel::getRootModel(), root);
    EXPECT_EQ(getEntity("Entity"), root);
    EXPECT_EQ(EntityModel::getInstanceAttribute(), root->getAttribute("instance"));
    EXPECT_EQ(EntityModel::getInstanceAttribute()->getAttributeId(), 0U);
    EntityModel* model = entity("Body");
    EXPECT_TRUE(model->is(root));
    EXPECT_EQ(model->getBaseEntity(), root);
    EXPECT_TRUE(root->getChildren().contains(model));
    EXPECT_EQ(names(model), (std::vector<std::string>{"instance"}));
}

TEST_F(EntityModelTest, LoadsAttributesAndDefaultValues) {
    EntityModel* model = entity("Body",
                                "<Attribute.Scalar name='mass' type='Real' value='5'/>"
                                "<Attribute.Pointer name='parent'/>");
    EXPECT_EQ(names(model), (std::vector<std::string>{"instance", "mass", "parent"}));
    EXPECT_EQ(model->getAttribute("mass")->fullName(), "Body.mass");
    EXPECT_EQ(model->getAttribute("mass")->getAttributeId(), 1U);
    EXPECT_EQ(model->getAttribute("mass")->getEntity(), model);
    EXPECT_EQ(model->getAttribute("nothing"), nullptr);
    EXPECT_EQ(model->findObject("mass"), model->getAttribute("mass"));
    const ref_ptr<EntityStorage> storage(new EntityStorage(model));
    static_cast<void>(storage->createInstances(3));
    EXPECT_EQ(storage->getBuffer("mass")->data<double>()[2], 5);
    EXPECT_EQ(storage->getBuffer("parent")->data<void*>()[2], nullptr);
}

TEST_F(EntityModelTest, IsFoundOnceByItsPath) {
    write("Robots/Arm", "<Entity.Model name='Arm'/>");
    EXPECT_TRUE(zelData::hasEntity("Robots.Arm"));
    EntityModel* arm = getEntity("Robots.Arm");
    ASSERT_NE(arm, nullptr);
    EXPECT_EQ(getEntity("Robots.Arm"), arm);
    EXPECT_EQ(arm->getPath(), Path("Robots.Arm"));
    EXPECT_FALSE(zelData::hasEntity("Robots.Leg"));
}

TEST_F(EntityModelTest, SaysWhatItDoesNotFind) {
    const LogCapture log;
    EXPECT_EQ(getEntity("Nothing.Here"), nullptr);
    EXPECT_THAT(log.text(), HasSubstr("Could not load entity 'Nothing.Here'"));
    EXPECT_EQ(getEntity(""), nullptr);
    EXPECT_FALSE(zelData::hasEntity(""));
    EXPECT_EQ(getEntity("Entity.Model"), nullptr);
}

TEST_F(EntityModelTest, ABrokenFileIsLoggedAndGivesNothing) {
    const LogCapture log;
    write("Broken", "<Entity.Model name='Broken'>\n<Attribute.Scalar type='Real'/></Entity.Model>");
    EXPECT_EQ(getEntity("Broken"), nullptr);
    EXPECT_THAT(log.text(), HasSubstr("XML error: Attribute must have a name!. Error at row 2"));
    EXPECT_THAT(log.text(), HasSubstr("Could not load entity 'Broken'"));
    write("Torn", "<Entity.Model name='Torn'>");
    EXPECT_EQ(getEntity("Torn"), nullptr);
    // What was mended is loaded.
    write("Broken", "<Entity.Model name='Broken'/>");
    EXPECT_NE(getEntity("Broken"), nullptr);
}

TEST_F(EntityModelTest, DerivesFromItsSource) {
    write("Body",
          "<Entity.Model name='Body' hasConstructor='true'><Attribute.Scalar name='mass' "
          "type='Real'/></Entity.Model>");
    write("Planet",
          "<Entity.Model name='Planet' source='Body'><Attribute.Scalar name='moons' "
          "type='UInt'/></Entity.Model>");
    EntityModel* planet = getEntity("Planet");
    ASSERT_NE(planet, nullptr);
    EXPECT_EQ(planet->getBaseEntity(), getEntity("Body"));
    EXPECT_TRUE(planet->is(getEntity("Body")));
    EXPECT_EQ(names(planet), (std::vector<std::string>{"instance", "mass", "moons"}));
    EXPECT_TRUE(planet->hasConstructor());
    EXPECT_EQ(planet->getAttribute("mass")->fullName(), "Body.mass");
}

TEST_F(EntityModelTest, FindsItsSourceBesideItFirst) {
    write("Sky/Body", "<Entity.Model name='Body'/>");
    write("Body", "<Entity.Model name='Body'/>");
    write("Sky/Star", "<Entity.Model name='Star' source='Body'/>");
    EXPECT_EQ(getEntity("Sky.Star")->getBaseEntity(), getEntity("Sky.Body"));
}

TEST_F(EntityModelTest, ALateAttributeReachesDerivedModelsAndTheirStorages) {
    EntityModel* body = entity("Body", "<Attribute.Scalar name='mass' type='Real'/>");
    write("Planet",
          "<Entity.Model name='Planet' source='Body'><Attribute.Scalar name='moons' "
          "type='UInt'/></Entity.Model>");
    EntityModel* planet = getEntity("Planet");
    const ref_ptr<EntityStorage> bodies(new EntityStorage(body));
    const ref_ptr<EntityStorage> planets(new EntityStorage(planet));
    static_cast<void>(planets->createInstances(40));
    const ref_ptr<Value> value(new Value("default", getFormat("Real")));
    value->setExpression("3");
    body->addAttribute(new ScalarAttribute("radius", getFormat("Real"), value.get()));
    EXPECT_EQ(planet->getAttribute("radius"), body->getAttribute("radius"));
    ASSERT_NE(bodies->getBuffer("radius"), nullptr);
    ASSERT_NE(planets->getBuffer("radius"), nullptr);
    EXPECT_EQ(planets->getBuffer("radius")->size(), 40U);
    EXPECT_EQ(planets->getBuffer("radius")->data<double>()[39], 3);
    EXPECT_NE(planet->getAttribute("radius")->getAttributeId(),
              planet->getAttribute("moons")->getAttributeId());
    static_cast<void>(planets->createInstance());
    EXPECT_EQ(planets->getBuffer("moons")->size(), 41U);
    planets->verifyConsistency();
}

TEST_F(EntityModelTest, ALateBaseComesFirst) {
    const ref_ptr<EntityModel> base(new EntityModel("Base"));
    base->addAttribute(scalar("a"));
    const ref_ptr<EntityModel> derived(new EntityModel("Derived"));
    derived->addAttribute(scalar("b"));
    derived->setBaseEntity(base.get());
    base->setBaseEntity(EntityModel::getRootModel());
    EXPECT_EQ(names(derived.get()), (std::vector<std::string>{"instance", "a", "b"}));
    for (zel::uint32 i = 0; i < 3; ++i)
        EXPECT_EQ(derived->getAttributes()[i]->getAttributeId(), i);
    const ref_ptr<EntityStorage> storage(new EntityStorage(derived.get()));
    static_cast<void>(storage->createInstance());
    EXPECT_EQ(storage->getBuffer("b")->size(), 1U);
}

TEST_F(EntityModelDeathTest, ASecondBaseIsRefused) {
    EntityModel* model = entity("Body");
    EntityModel* other = entity("Other");
    EXPECT_DEATH(model->setBaseEntity(other),
                 "`!this->getSource\\(\\)', Entity Body already has base entity Entity!");
    EXPECT_DEATH(model->setBaseEntity(nullptr), "zelVerify failed: `base'");
}

TEST_F(EntityModelDeathTest, ChildrenAreEnteredOnce) {
    EntityModel* model = entity("Body");
    EXPECT_DEATH(EntityModel::getRootModel()->addChild(model),
                 "zelVerify failed: `!m_children.contains\\(child\\)'");
    EXPECT_DEATH(model->removeChild(model), "zelVerify failed: `m_children.contains\\(child\\)'");
}

TEST_F(EntityModelDeathTest, AttributesAreCheckedOnTheirWayIn) {
    EntityModel* model = entity("Body", "<Attribute.Scalar name='mass' type='Real'/>");
    EntityModel* other = entity("Other");
    EXPECT_DEATH(model->addAttribute(nullptr), "zelVerify failed: `attribute'");
    EXPECT_DEATH(model->addAttribute(scalar("mass")),
                 "`!this->getAttribute\\(attribute->getName\\(\\)\\)', Body: There is already an attribute "
                 "registered with "
                 "name 'mass'");
    EXPECT_DEATH(other->addAttribute(model->getAttribute("mass")),
                 "`!attribute->getEntity\\(\\)', Attributes may only be added to one entity!");
}

TEST_F(EntityModelTest, TheOldTagWorksAndWarns) {
    const LogCapture log;
    EntityModel* model = entity("Body", "<Attribute name='mass' type='Real'/>");
    EXPECT_NE(model->getAttribute("mass"), nullptr);
    EXPECT_THAT(log.text(), HasSubstr("Attribute is old syntax, use Attribute.Scalar"));
}

TEST_F(EntityModelTest, CountsTheBytesOfItsColumns) {
    EntityModel* model = entity("Body",
                                "<Attribute.Scalar name='mass' type='Real:32bit'/>"
                                "<Attribute.Scalar name='position' type='Vec3'/>"
                                "<Attribute.Shared name='g' type='Real'/>");
    EXPECT_EQ(model->getNumBytes(), 16U + 4 + 32);
    const ref_ptr<zel::CpuDevice> device(new zel::CpuDevice("device"));
    EXPECT_EQ(model->getNumBytes(device.get()), 16U + 8 + 32);
    device->setTypeFormat("Vec3", "32bit");
    EXPECT_EQ(model->getNumBytes(device.get()), 16U + 8 + 16);
}

TEST_F(EntityModelDeathTest, ContainersHaveNoSizeOfTheirOwn) {
    EntityModel* model = entity("Body", "<Attribute.Array name='a' type='Real'/>");
    EXPECT_DEATH(static_cast<void>(model->getNumBytes()),
                 "Container attribute size can not be determined for a generic entity instance");
}

TEST_F(EntityModelTest, SharedAttributesAreValuesOfTheStorage) {
    EntityModel* model = entity("Body", "<Attribute.Shared name='g' type='Real' value='9.5'/>");
    const ref_ptr<EntityStorage> storage(new EntityStorage(model));
    auto* value = dynamic_cast<Value*>(storage->findObject("g"));
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(value->toString(), "9.5");
    EXPECT_EQ(storage->getBuffer(model->getAttribute("g")), nullptr);
}

TEST_F(EntityModelTest, SharedBuffersAndStoragesAreChildrenOfEachStorage) {
    write("Leaf", "<Entity.Model name='Leaf'/>");
    EntityModel* model = entity("Tree",
                                "<Shared.Buffer name='colours' type='Vec3:32bit'/>"
                                "<Shared.Storage name='leaves' entity='Leaf'/>");
    const ref_ptr<EntityStorage> storage(new EntityStorage(model));
    ASSERT_NE(storage->getBuffer("colours"), nullptr);
    EXPECT_EQ(storage->getBuffer("colours")->getFormat()->fullName(), "Vec3:32bit");
    auto* leaves = dynamic_cast<EntityStorage*>(storage->findObject("leaves"));
    ASSERT_NE(leaves, nullptr);
    EXPECT_EQ(leaves->getEntityModel(), getEntity("Leaf"));
    EXPECT_EQ(leaves->capacity(), 32U);
}

TEST_F(EntityModelMaliciousTest, AStorageIsNoPartOfItself) {
    EntityModel* model = entity("Tree", "<Shared.Storage name='trees' entity='Tree'/>");
    EXPECT_THAT(zelTest::whatOf([&] { ref_ptr<EntityStorage>(new EntityStorage(model)); }),
                HasSubstr("A storage of the entity 'Tree' can not be a part of itself"));
    model = entity("Lost", "<Shared.Storage name='trees' entity='Nothing'/>");
    EXPECT_THAT(zelTest::whatOf([&] { ref_ptr<EntityStorage>(new EntityStorage(model)); }),
                HasSubstr("Unable to load entity 'Nothing'"));
}

TEST_F(EntityModelMaliciousTest, SaysWhatIsWrongInTheXml) {
    EXPECT_THAT(xmlFailure("<Entity.Model/>"), HasSubstr("Could not locate attribute 'name'"));
    EXPECT_THAT(
        xmlFailure("<Entity.Model name='A' source='Nothing'/>"),
        HasSubstr(
            "XML error: Unable to load source entity 'Nothing': looked for 'Nothing.zelEntity', also below"));
    EXPECT_THAT(xmlFailure("<Entity.Model instance='Nothing'/>"),
                HasSubstr("Unable to load entity 'Nothing'"));
    EXPECT_THAT(xmlFailure("<Entity.Model name='A' useInstanceTable='maybe'/>"),
                HasSubstr("Unable to parse attribute useInstanceTable"));
    EXPECT_THAT(xmlFailure("<Entity.Model name='A' hasConstructor=''/>"),
                HasSubstr("Unable to parse attribute hasConstructor"));
    EXPECT_THAT(xmlFailure("<Entity.Model name='A'>\n<Attribute.Matrix name='m'/></Entity.Model>"),
                HasSubstr("XML error: Invalid attribute type 'Attribute.Matrix'. Error at row 2"));
    EXPECT_THAT(xmlFailure("<Entity.Model name='A'><Shared.Buffer type='Real'/></Entity.Model>"),
                HasSubstr("XML error: Shared buffer must have a name"));
    EXPECT_THAT(xmlFailure("<Entity.Model name='A'><Shared.Storage name='s'/></Entity.Model>"),
                HasSubstr("XML error: Shared storage must have a specified entity"));
    EXPECT_THAT(xmlFailure("<Entity.Model name='A'><Shared.Storage entity='Entity'/></Entity.Model>"),
                HasSubstr("XML error: Shared storage must have a name"));
}

TEST_F(EntityModelMaliciousTest, CirclesOfSourcesEnd) {
    const LogCapture log;
    write("Self", "<Entity.Model name='Self' source='Self'/>");
    EXPECT_EQ(getEntity("Self"), nullptr);
    write("A", "<Entity.Model name='A' source='B'/>");
    write("B", "<Entity.Model name='B' source='C'/>");
    write("C", "<Entity.Model name='C' source='A'/>");
    EXPECT_EQ(getEntity("A"), nullptr);
    EXPECT_THAT(log.text(), HasSubstr("XML error: Unable to load source entity 'A'"));
    EXPECT_THAT(log.text(), HasSubstr("XML error: Unable to load source entity 'B'"));
}

TEST_F(EntityModelTest, AnInstanceNamesAnExistingModel) {
    EntityModel* model = entity("Body");
    EXPECT_EQ(EntityModel::load(parse("<Entity.Model instance='Body'/>"), nullptr), model);
}

TEST_F(EntityModelTest, AComponentFileMayHoldEntities) {
    directory.write(
        "Components/zel/World.zelComponent",
        "<Entity.Model name='Stone'><Attribute.Scalar name='mass' type='Real'/></Entity.Model>"
        "<Entity.Model instance='Entity'/>"
        "<Component name='World'><Entity.Storage name='stones' entity='Stone' numElements='3'/></Component>");
    const ref_ptr<zel::Component> world(zel::Component::load("World", nullptr));
    ASSERT_TRUE(world);
    auto* stones = dynamic_cast<EntityStorage*>(world->findObject("stones"));
    ASSERT_NE(stones, nullptr);
    EXPECT_EQ(stones->size(), 3U);
    EXPECT_EQ(stones->getEntityModel(), getEntity("Stone"));
    const ref_ptr<zel::Component> again(zel::Component::load("World", nullptr));
    EXPECT_EQ(dynamic_cast<EntityStorage*>(again->findObject("stones"))->getEntityModel(),
              getEntity("Stone"));
}

TEST_F(EntityModelTest, AModelIsEnteredOncePerName) {
    EntityModel* model = EntityModel::load(parse("<Entity.Model name='Loose'/>"), nullptr);
    EXPECT_EQ(getEntity("Loose"), model);
    EXPECT_THAT(xmlFailure("<Entity.Model name='Loose'/>"),
                HasSubstr("A model 'Loose' exists already in namespace ''"));
}

TEST_F(EntityModelTest, FindsTheFileOfAnEntity) {
    const std::string file = write("Robots/Arm", "<Entity.Model name='Arm'/>");
    zel::String path;
    zel::String implementation;
    EXPECT_TRUE(EntityModel::findEntityPath("Robots.Arm", path, implementation));
    EXPECT_EQ(path, file);
    EXPECT_EQ(implementation, "zel::Robots::Arm");
    EXPECT_FALSE(EntityModel::findEntityPath("Robots.Leg", path, implementation));
}

TEST_F(EntityModelTest, TellsOfNewStorages) {
    EntityModel* model = entity("Body");
    std::vector<EntityStorage*> storages;
    model->storageCreationEvent.connect([&storages](EntityStorage* storage) {
        const ref_ptr<EntityStorage> held(storage);
        EXPECT_NE(held->getInstanceBuffer(), nullptr);
        storages.push_back(storage);
    });
    EXPECT_EQ(model->storageCreationEvent.getName(), Name("StorageCreationEvent"));
    const ref_ptr<EntityStorage> storage(new EntityStorage(model));
    EXPECT_EQ(storages, (std::vector<EntityStorage*>{storage.get()}));
    EXPECT_TRUE(model->getStorages().contains(storage.get()));
}

TEST_F(EntityModelTest, Prints) {
    EntityModel* model = entity("Body", "<Attribute.Scalar name='mass' type='Real'/>");
    write("Planet", "<Entity.Model name='Planet' source='Body'/>");
    static_cast<void>(getEntity("Planet"));
    std::ostringstream stream;
    model->print(stream);
    EXPECT_EQ(stream.str(),
              "--== EntityModel: Body (base entity: Entity) ==--\n[Child entities (1)]\n  * Planet\n"
              "[Attributes (2)]\n  * instance\n  * mass\n--== END ==--\n");
}

// Storages in XML

TEST_F(EntityModelTest, ReadsAStorageFromXml) {
    static_cast<void>(entity("Body",
                             "<Attribute.Scalar name='mass' type='Real' value='2'/>"
                             "<Attribute.Shared name='g' type='Real' value='9.5'/>"));
    const ref_ptr<EntityStorage> storage(EntityStorage::load(
        parse("<Entity.Storage name='bodies' entity='Body' capacity='100' numElements='7'>"
              "<Value name='own' type='Real' value='3'/><Value instance='g' value='1.5'/></Entity.Storage>"),
        nullptr));
    EXPECT_EQ(storage->getName(), Name("bodies"));
    EXPECT_EQ(storage->size(), 7U);
    EXPECT_EQ(storage->capacity(), 100U);
    EXPECT_EQ(storage->getBuffer("mass")->data<double>()[6], 2);
    EXPECT_EQ(dynamic_cast<Value*>(storage->findObject("own"))->toString(), "3");
    EXPECT_EQ(dynamic_cast<Value*>(storage->findObject("g"))->toString(), "1.5");
    EXPECT_EQ(storage->getResource("numElements"), storage->getSizeValue());
    EXPECT_EQ(storage->getResource("bodies", getEntity("Body")), storage.get());
    EXPECT_EQ(storage->getResource("bodies.mass"), storage->getBuffer("mass"));
}

TEST_F(EntityModelMaliciousTest, SaysWhatIsWrongWithAStorage) {
    static_cast<void>(entity("Body"));
    const auto load = [this](const std::string& text) {
        return zelTest::whatOf([&] { ref_ptr<EntityStorage>(EntityStorage::load(parse(text), nullptr)); });
    };
    EXPECT_THAT(load("<Entity.Storage/>"), HasSubstr("XML error: Must specify an entity for the storage"));
    EXPECT_THAT(load("<Entity.Storage entity='Nothing'/>"),
                HasSubstr("XML error: Unable to load entity 'Nothing'"));
    EXPECT_THAT(load("<Entity.Storage entity='Body'><Value instance='g'/></Entity.Storage>"),
                HasSubstr("XML error: Body: Could not locate value instance 'g'"));
    for (const char* count : {"-1", "1e30", "99999999999999999999", "2.5", "3x", "4294967296"}) {
        EXPECT_THAT(load("<Entity.Storage entity='Body' numElements='" + std::string(count) + "'/>"),
                    HasSubstr("XML error: Unable to parse attribute numElements"))
            << count;
        EXPECT_THAT(load("<Entity.Storage entity='Body' capacity='" + std::string(count) + "'/>"),
                    HasSubstr("XML error: Unable to parse attribute capacity"))
            << count;
    }
    EXPECT_THAT(load("<Entity.Storage entity='Body' capacity=''/>"),
                HasSubstr("XML error: Unable to parse attribute capacity"));
}

// Vectors

TEST_F(EntityModelTest, VectorsOfAllListedTypesThatCanBeCopied) {
    int number = 0;
    for (const char* type : {"AffineMatrix4x4",
                             "Bool",
                             "Bound1",
                             "Bound1i",
                             "Bound1u",
                             "Bound2",
                             "Bound2i",
                             "Bound2u",
                             "Bound3",
                             "Bound3i",
                             "Bound3u",
                             "EntityInstance",
                             "EntityPtr",
                             "IndexRange",
                             "Int",
                             "Line",
                             "Matrix3x3",
                             "Matrix4x4",
                             "Name",
                             "ObjectPointer",
                             "Plane",
                             "Pointer",
                             "Quat",
                             "Range6",
                             "Real",
                             "SPDMatrix3x3",
                             "String",
                             "UInt",
                             "Uuid",
                             "Vec2",
                             "Vec2i",
                             "Vec2u",
                             "Vec3",
                             "Vec3i",
                             "Vec3u",
                             "Vec4",
                             "Vec4i",
                             "Vec4u",
                             "Bound3:32bit",
                             "Vec3i:8bit",
                             "Vec3u:32bit",
                             "Matrix3x3:32bit"}) {
        std::string text(type);
        const std::size_t colon = text.find(':');
        std::string attributes = "type='" + text.substr(0, colon) + "'";
        if (colon != std::string::npos)
            attributes += " format='" + text.substr(colon + 1) + "'";
        EntityModel* model =
            entity("V" + std::to_string(number++), "<Attribute.Vector name='list' " + attributes + "/>");
        ASSERT_NE(model, nullptr) << type;
        const ref_ptr<EntityStorage> storage(new EntityStorage(model));
        static_cast<void>(storage->createInstances(2));
        EXPECT_EQ(storage->getBuffer("list")->size(), 2U) << type;
    }
}

TEST_F(EntityModelTest, VectorsOfWhatCanNotBeCopiedAreAnErrorOfTheFile) {
    const std::string text = "<Attribute.Vector name='locks' type='SpinMutex'/>";
    EXPECT_THAT(
        zelTest::whatOf([&] { ref_ptr<Attribute>(zelData::VectorAttribute::load(parse(text))); }),
        HasSubstr("XML error: No vectors are made of elements of 'SpinMutex:default'. Error at row 1"));
    EXPECT_NE(xmlFailure("<Entity.Model name='Locks'>" + text + "</Entity.Model>"), "no exception");
}
