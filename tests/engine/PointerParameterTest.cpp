#include "ParameterFixture.h"

#include <zel/Model.h>
#include <zel/PointerParameter.h>

using zel::Component;
using zel::Object;
using zel::Parameter;
using zel::Path;
using zel::PointerParameter;
using zel::ref_ptr;
using zelData::ValueT;
using zelTest::ParameterEvents;

namespace {

using PointerParameterTest = zelTest::ParameterFixture;

} // namespace

TEST_F(PointerParameterTest, PointsAtObjectsOfAnyKind) {
    const auto parameter = add(new PointerParameter("p"));
    EXPECT_FALSE(parameter->isValid());
    EXPECT_EQ(parameter->getType(), zelData::getType("ObjectPointer"));
    EXPECT_EQ(parameter->getMetaType(), Parameter::MetaType::Pointer);
    const ref_ptr<Object> object(new Object("o"));
    parameter->bind(object.get());
    EXPECT_TRUE(parameter->isValid());
    EXPECT_EQ(parameter->getObject(), object.get());
    EXPECT_EQ(object->referenceCount(), 1) << "it keeps nothing alive";
    const auto direct = add(new PointerParameter("direct", top.get()));
    EXPECT_EQ(direct->getObject(), top.get());
}

TEST_F(PointerParameterTest, DeathOfTheObjectClearsItAndFiresUnbind) {
    const auto parameter = add(new PointerParameter("p"));
    const ParameterEvents events(parameter.get());
    ref_ptr<Object> object(new Object("o"));
    parameter->bind(object.get());
    object = nullptr;
    EXPECT_EQ(parameter->getObject(), nullptr);
    EXPECT_FALSE(parameter->isValid());
    EXPECT_EQ(events.unbound, 1);
    EXPECT_EQ(events.bound, 1);
}

TEST_F(PointerParameterTest, AnotherObjectTakesThePlaceOfADeadOne) {
    const auto parameter = add(new PointerParameter("p", Path("o")));
    put(new Object("o"));
    ASSERT_NE(parameter->getObject(), nullptr);
    top->removeObject("o", 0);
    EXPECT_EQ(parameter->getObject(), nullptr);
    auto* other = put(new Object("o"));
    EXPECT_EQ(parameter->getObject(), other);
}

TEST_F(PointerParameterTest, LetsGoOfTheOldObject) {
    const auto parameter = add(new PointerParameter("p"));
    ref_ptr<Object> first(new Object("first"));
    const ref_ptr<Object> second(new Object("second"));
    parameter->bind(first.get());
    parameter->bind(second.get());
    EXPECT_FALSE(first->hasListener(parameter.get()));
    EXPECT_TRUE(second->hasListener(parameter.get()));
    first = nullptr;
    EXPECT_EQ(parameter->getObject(), second.get());
}

TEST_F(PointerParameterTest, ForwardsTheUpdatesOfAValue) {
    auto* value = put(new ValueT<double>("v", 1.0));
    const auto parameter = add(new PointerParameter("p", value));
    const ParameterEvents events(parameter.get());
    value->set(2.0);
    EXPECT_EQ(events.updated, 1);
    parameter->unbind();
    value->set(3.0);
    EXPECT_EQ(events.updated, 1);
}

TEST_F(PointerParameterTest, DeathOfAValueIsNoUpdate) {
    const auto parameter = add(new PointerParameter("p"));
    {
        const ref_ptr<ValueT<double>> value(new ValueT<double>("v", 1.0));
        parameter->bind(value.get());
    }
    EXPECT_EQ(parameter->getObject(), nullptr);
    parameter->unbind();
}

TEST_F(PointerParameterTest, DiesAheadOfItsObject) {
    const ref_ptr<ValueT<double>> value(new ValueT<double>("v", 1.0));
    { const ref_ptr<PointerParameter> parameter(new PointerParameter("p", value.get())); }
    value->set(2.0);
    EXPECT_TRUE(value->updateEvent.empty());
}

TEST_F(PointerParameterTest, PathsLeadThroughIt) {
    auto* part = put(new Component("part", Component::ClassModel()));
    auto* value = new ValueT<double>("mass", 2.0);
    part->addObject(value);
    add(new PointerParameter("p", part));
    EXPECT_EQ(top->getResource(Path("task.p.mass")), value);
    EXPECT_EQ(task->getResource(Path("p.mass")), value);
    EXPECT_EQ(task->getResource(Path("p"), Component::ClassModel()), part);
    EXPECT_EQ(task->getResource(Path("p"))->getName(), zel::Name("p")) << "without a model the parameter";
    EXPECT_EQ(task->getResource(Path("p.nothing")), nullptr);
}

TEST_F(PointerParameterTest, LoadsFromXml) {
    put(new Object("o"));
    const auto parameter =
        add(PointerParameter::load(parse("<Parameter.Pointer name='p' bind='o'/>"), nullptr));
    EXPECT_EQ(parameter->getObject()->getName(), zel::Name("o"));
}
