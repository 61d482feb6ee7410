#include "ParameterFixture.h"

#include <zel/Model.h>
#include <zel/ParameterBinding.h>
#include <zel/ParameterTable.h>
#include <zel/Pointer.h>
#include <zel/PointerParameter.h>
#include <zel/ScalarParameter.h>
#include <zel/XmlLoader.h>

#include <json/value.h>

using testing::HasSubstr;
using zel::Object;
using zel::Parameter;
using zel::ParameterBinding;
using zel::Path;
using zel::Pointer;
using zel::PointerParameter;
using zel::ref_ptr;
using zel::ScalarParameter;
using zelData::getFormat;
using zelData::ValueT;
using zelTest::ParameterEvents;
using zelTest::whatOf;

namespace {

class ParameterTest : public zelTest::ParameterFixture {
protected:
    ScalarParameter* real(const char* name, const Path& path = Path()) {
        return add(new ScalarParameter(name, getFormat("Real"), zelData::AccessMode::READ, path)).get();
    }
};
using ParameterDeathTest = ParameterTest;

} // namespace

TEST_F(ParameterTest, MetaTypesHaveTheirNames) {
    using MetaType = Parameter::MetaType;
    EXPECT_STREQ(Parameter::getMetaTypeName(MetaType::Scalar), "SCALAR");
    EXPECT_STREQ(Parameter::getMetaTypeName(MetaType::Array), "Array");
    EXPECT_STREQ(Parameter::getMetaTypeName(MetaType::Pointer), "POINTER");
    EXPECT_STREQ(Parameter::getMetaTypeName(MetaType::Unresolved), "UNRESOLVED");
    EXPECT_STREQ(Parameter::getMetaTypeName(MetaType::EntityData), "ENTITY_DATA");
    EXPECT_STREQ(Parameter::getMetaTypeName(MetaType::EntityPtr), "ENTITY_PTR");
    EXPECT_STREQ(Parameter::getMetaTypeName(MetaType::EntityInstance), "ENTITY_INSTANCE");
    EXPECT_STREQ(Parameter::getMetaTypeName(static_cast<MetaType>(99)), "UNKNOWN");
}

TEST_F(ParameterTest, EveryTagHasItsModelAndLoader) {
    for (const char* tag : {"Parameter.Scalar",
                            "Parameter.Array",
                            "Parameter.Pointer",
                            "Parameter.EntityData",
                            "Parameter.EntityPtr",
                            "Parameter.EntityInstance",
                            "Parameter.Unresolved",
                            "Parameter.HashTable"})
        EXPECT_TRUE(zel::XmlLoaderRegistrator::hasLoadFunction(std::string(tag))) << tag;
    EXPECT_EQ(Parameter::ClassModel()->getPath(), Path("Parameter"));
    EXPECT_EQ(ScalarParameter::ClassModel()->getPath(), Path("Parameter.Scalar"));
    EXPECT_TRUE(PointerParameter::ClassModel()->is(Parameter::ClassModel()));
}

TEST_F(ParameterTest, BindsByPathThroughTheScopesAroundTheTask) {
    auto* value = put(new ValueT<double>("mass", 3.0));
    const ScalarParameter* parameter = real("mass", "mass"); // not itself
    EXPECT_EQ(parameter->getBinding(), value);
    EXPECT_EQ(parameter->getBindPath(), Path("mass"));
}

TEST_F(ParameterTest, PathThatLeadsNowhereBindsAtTheNextRebind) {
    ScalarParameter* parameter = real("p", "@late");
    const ParameterEvents events(parameter);
    EXPECT_EQ(parameter->getBinding(), nullptr);
    const ref_ptr<ValueT<double>> value(new ValueT<double>("late", 2.0));
    Object::setEnableRebind(false);
    top->addObject(value.get());
    EXPECT_EQ(parameter->getBinding(), nullptr);
    parameter->rebind();
    EXPECT_EQ(parameter->getBinding(), nullptr) << "the switch stops all rebinds";
    Object::setEnableRebind(true);
    parameter->rebind();
    EXPECT_EQ(parameter->getBinding(), value.get());
    EXPECT_EQ(events.bound, 1);
    EXPECT_EQ(events.unbound, 0);
}

TEST_F(ParameterTest, PathThatLeadsNowhereAnyMoreUnbindsAndStays) {
    auto* value = put(new ValueT<double>("v", 2.0));
    ScalarParameter* parameter = real("p", "v");
    const ParameterEvents events(parameter);
    top->removeObject(value);
    parameter->rebind();
    EXPECT_EQ(parameter->getBinding(), nullptr);
    EXPECT_EQ(events.unbound, 1);
    EXPECT_EQ(parameter->getBindPath(), Path("v"));
    put(new ValueT<double>("v", 5.0));
    EXPECT_EQ(*static_cast<double*>(parameter->getData()), 5.0);
}

TEST_F(ParameterTest, BindingThePresentObjectFiresNothing) {
    auto* value = put(new ValueT<double>("v", 2.0));
    ScalarParameter* parameter = real("p", "v");
    const ParameterEvents events(parameter);
    parameter->bind(value);
    parameter->rebind();
    parameter->bind(Path("v"));
    EXPECT_EQ(events.bound + events.unbound + events.updated, 0);
    parameter->unbind();
    EXPECT_EQ(events.unbound, 1);
    parameter->bind(static_cast<Object*>(nullptr));
    parameter->unbind();
    EXPECT_EQ(events.unbound, 1);
    EXPECT_EQ(events.bound, 0);
}

TEST_F(ParameterTest, AnotherBindingFiresUnbindAheadOfBind) {
    auto* first = put(new ValueT<double>("a", 1.0));
    auto* second = put(new ValueT<double>("b", 2.0));
    ScalarParameter* parameter = real("p");
    parameter->bind(first);
    std::string order;
    static_cast<void>(parameter->unbindEvent.connect([&](Parameter* p) {
        EXPECT_EQ(p->getBinding(), first);
        order += "u";
    }));
    static_cast<void>(parameter->bindEvent.connect([&](Parameter* p) {
        EXPECT_EQ(p->getBinding(), second);
        order += "b";
    }));
    parameter->bind(second);
    EXPECT_EQ(order, "ub");
}

TEST_F(ParameterTest, SetForgetsThePathAndBindKeepsIt) {
    auto* value = put(new ValueT<double>("v", 2.0));
    put(new ValueT<double>("w", 3.0));
    ScalarParameter* parameter = real("p", "w");
    parameter->bind(value);
    EXPECT_EQ(parameter->getBindPath(), Path("w"));
    parameter->rebind();
    EXPECT_EQ(parameter->getBinding()->getName(), zel::Name("w"));
    parameter->set(static_cast<Object*>(value));
    EXPECT_TRUE(parameter->getBindPath().empty());
    parameter->rebind();
    EXPECT_EQ(parameter->getBinding(), value);
    parameter->unbind();
    EXPECT_EQ(parameter->getBinding(), nullptr);
}

TEST_F(ParameterTest, PointersAreFollowedToTheirEnd) {
    auto* value = put(new ValueT<double>("v", 2.0));
    auto* pointer = put(new Pointer("pointer", value));
    auto* second = put(new Pointer("second", pointer));
    const auto parameter = add(new PointerParameter("object", Path("second")));
    EXPECT_EQ(parameter->getObject(), value);
    ScalarParameter* scalar = real("p");
    scalar->bind(parameter.get());
    EXPECT_EQ(scalar->getBinding(), value);
    scalar->bind(second);
    EXPECT_EQ(scalar->getBinding(), value);
    pointer->unbind();
    scalar->bind(second);
    EXPECT_EQ(scalar->getBinding(), nullptr) << "a pointer at nothing ends the binding";
}

TEST_F(ParameterTest, PointersInACircleAreNothing) {
    auto* first = put(new Pointer("first"));
    auto* second = put(new Pointer("second", first));
    first->bind(second);
    ScalarParameter* parameter = real("p");
    parameter->bind(first);
    EXPECT_EQ(parameter->getBinding(), nullptr);
    EXPECT_EQ(top->getResource(Path("first.anything")), nullptr);
    first->unbind();
}

TEST_F(ParameterTest, CircleOfParametersIsRefused) {
    ScalarParameter* a = real("a");
    ScalarParameter* b = real("b");
    a->bind(b);
    EXPECT_EQ(whatOf([&] { b->bind(a); }),
              "top.task.b: Can not be bound to 'top.task.a', which depends on it");
    EXPECT_EQ(whatOf([&] { a->bind(a); }),
              "top.task.a: Can not be bound to 'top.task.a', which depends on it");
    EXPECT_EQ(a->getBinding(), b);
}

TEST_F(ParameterTest, FailedBindingLeavesNone) {
    // Types that fit, and formats without a way between them.
    auto* good = put(new ValueT<double>("good", 1.0));
    const ref_ptr<ScalarParameter> parameter(new ScalarParameter("p", nullptr));
    parameter->bind(good);
    ScalarParameter* self = parameter.get();
    auto* dependent = put(new zelData::Value("dependent", static_cast<const zelData::Format*>(nullptr)));
    dependent->zelData::Value::bind(self->getValue());
    // The value would follow itself.
    EXPECT_THAT(whatOf([&] { self->bind(dependent); }), HasSubstr("which depends on it"));
    EXPECT_EQ(self->getBinding(), nullptr);
    dependent->unbind(true);
}

TEST_F(ParameterTest, CallbacksMayRemoveThemselvesAndOthersWhileTheyRun) {
    ScalarParameter* parameter = real("p");
    std::string order;
    zel::uint64 first = 0;
    zel::uint64 second = 0;
    first = parameter->bindEvent.connect([&](Parameter* p) {
        order += "1";
        p->bindEvent.disconnect(first);
        p->bindEvent.disconnect(second);
    });
    second = parameter->bindEvent.connect([&](Parameter*) { order += "2"; });
    static_cast<void>(parameter->bindEvent.connect([&](Parameter*) { order += "3"; }));
    parameter->bind(put(new ValueT<double>("a", 1.0)));
    parameter->bind(put(new ValueT<double>("b", 1.0)));
    EXPECT_EQ(order, "133");
    EXPECT_EQ(parameter->bindEvent.size(), 1U);
}

TEST_F(ParameterTest, CallbackMayBindAgain) {
    auto* first = put(new ValueT<double>("a", 1.0));
    auto* second = put(new ValueT<double>("b", 2.0));
    ScalarParameter* parameter = real("p");
    static_cast<void>(
        parameter->bindEvent.connect([&](Parameter* p) { p->bind(static_cast<Object*>(second)); }, true));
    parameter->bind(first);
    EXPECT_EQ(parameter->getBinding(), second);
    EXPECT_EQ(*static_cast<double*>(parameter->getData()), 2.0);
}

TEST_F(ParameterTest, CallbackMayDropTheLastOwner) {
    ref_ptr<ScalarParameter> parameter(new ScalarParameter("p", getFormat("Real")));
    ScalarParameter* raw = parameter.get();
    bool called = false;
    static_cast<void>(parameter->bindEvent.connect([&](Parameter*) {
        parameter = nullptr;
        called = true;
    }));
    raw->bind(put(new ValueT<double>("a", 1.0)));
    EXPECT_TRUE(called);
}

TEST_F(ParameterTest, ValueThatOnlyTheBindingHoldsLives) {
    ScalarParameter* parameter = real("p");
    parameter->bind(static_cast<Object*>(new ValueT<double>("v", 4.0)));
    EXPECT_EQ(*static_cast<double*>(parameter->getData()), 4.0);
}

TEST_F(ParameterTest, BelongsToATaskAtAnIndex) {
    const ref_ptr<ScalarParameter> parameter(new ScalarParameter("p", nullptr));
    EXPECT_EQ(parameter->getTask(), nullptr);
    EXPECT_EQ(parameter->getIndex(), zel::InvalidIndex);
    parameter->setTask(task.get(), 3);
    EXPECT_EQ(parameter->getTask(), task.get());
    EXPECT_EQ(parameter->getIndex(), 3U);
    parameter->setTask(nullptr);
    EXPECT_EQ(parameter->getTask(), nullptr);
    EXPECT_EQ(parameter->getIndex(), zel::InvalidIndex);
}

TEST_F(ParameterTest, IsRequiredUnlessToldOtherwise) {
    const ref_ptr<ScalarParameter> parameter(new ScalarParameter("p", nullptr));
    EXPECT_TRUE(parameter->isRequired());
    parameter->setRequired(false);
    EXPECT_FALSE(parameter->isRequired());
}

TEST_F(ParameterTest, JsonNamesTheBinding) {
    put(new ValueT<double>("v", 2.5));
    const ScalarParameter* parameter = real("p", "v");
    Json::Value json;
    parameter->buildNavigationTree(json);
    EXPECT_EQ(json["name"].asString(), "p");
    EXPECT_EQ(json["binding"].asString(), "top.v");
    EXPECT_EQ(json["value"].asString(), "2.5");
}

TEST_F(ParameterTest, BindingIsAPlainRecord) {
    ParameterBinding binding;
    EXPECT_EQ(binding.getValue(), nullptr);
    EXPECT_EQ(binding.getFormat(), nullptr);
    EXPECT_EQ(binding.getMetaType(), Parameter::MetaType::Unresolved);
    EXPECT_FALSE(binding.isWritable());
    EXPECT_FALSE(binding.getAllowFormatPromotion());
    double data = 1;
    binding.setValue(&data);
    binding.setFormat(getFormat("Real"));
    binding.setMetaType(Parameter::MetaType::Array);
    binding.setWritable(true);
    binding.setAllowFormatPromotion(true);
    EXPECT_EQ(binding.getValue(), &data);
    EXPECT_EQ(binding.getFormat(), getFormat("Real"));
    EXPECT_EQ(binding.getMetaType(), Parameter::MetaType::Array);
    EXPECT_TRUE(binding.isWritable());
    EXPECT_TRUE(binding.getAllowFormatPromotion());
}

TEST_F(ParameterTest, TableFindsParametersByName) {
    zel::ParameterTable table;
    table.insert("p", real("p"));
    ASSERT_TRUE(table.contains("p"));
    EXPECT_EQ(table.find("p")->value->getName(), zel::Name("p"));
}

TEST_F(ParameterTest, XmlReadsRequiredAndPath) {
    put(new ValueT<double>("v", 2.5));
    const auto parameter = add(ScalarParameter::load(
        parse("<Parameter.Scalar name='p' type='Real' required='false' bind='v'/>"), nullptr));
    EXPECT_FALSE(parameter->isRequired());
    EXPECT_EQ(parameter->getBindPath(), Path("v"));
    EXPECT_EQ(parameter->getBinding()->getName(), zel::Name("v"));
}

TEST_F(ParameterTest, XmlOfAnyTagWithoutANameFails) {
    for (const char* tag : {"Parameter.Scalar",
                            "Parameter.Array",
                            "Parameter.Pointer",
                            "Parameter.EntityData",
                            "Parameter.EntityPtr",
                            "Parameter.EntityInstance"}) {
        const std::string what = whatOf([&] {
            static_cast<void>(zel::XmlLoaderRegistrator::getLoadFunction(std::string(tag))(
                parse("<" + std::string(tag) + "/>"), nullptr));
        });
        EXPECT_THAT(what, HasSubstr("] XML error: Parameter does not have a name. Error at row 2")) << tag;
    }
}

TEST_F(ParameterTest, XmlOfEntityParametersWithoutATypeFails) {
    for (const char* tag : {"Parameter.EntityData", "Parameter.EntityPtr", "Parameter.EntityInstance"}) {
        const auto load = [&](const std::string& attributes) {
            return whatOf([&] {
                static_cast<void>(zel::XmlLoaderRegistrator::getLoadFunction(std::string(tag))(
                    parse("<" + std::string(tag) + attributes + "/>"), nullptr));
            });
        };
        EXPECT_THAT(load(" name='p'"), HasSubstr("] XML error: Parameter must have a type!. Error at row 2"))
            << tag;
        EXPECT_THAT(
            load(" name='p' type='No.Such'"),
            HasSubstr(
                "] XML error: Unable to load entity 'No.Such': looked for 'No/Such.zelEntity', also below"))
            << tag;
    }
}

TEST_F(ParameterTest, XmlRefusesABadBoolean) {
    EXPECT_THAT(failure<ScalarParameter>("<Parameter.Scalar name='p' required='maybe'/>"),
                HasSubstr("Unable to parse attribute required"));
}

TEST_F(ParameterDeathTest, UnknownAccessModeEndsTheProcess) {
    EXPECT_DEATH(ScalarParameter("p", nullptr, 7), "Unknown mode 7");
    EXPECT_THAT(
        failure<ScalarParameter>("<Parameter.Scalar name='p' mode='read'/>"),
        HasSubstr("Unknown mode 'read' (did you mean 'READ'?): it is READ, WRITE or READ_WRITE. Error at"));
}
