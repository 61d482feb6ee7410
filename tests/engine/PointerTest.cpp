#include "ParameterFixture.h"

#include <zel/Model.h>
#include <zel/Pointer.h>

using testing::HasSubstr;
using zel::Component;
using zel::Object;
using zel::Path;
using zel::Pointer;
using zel::ref_ptr;
using zelData::Value;
using zelData::ValueT;

namespace {

class PointerTest : public zelTest::ParameterFixture {
protected:
    static Object* content(Pointer* pointer) { return *static_cast<Object**>(pointer->getData()); }
};

} // namespace

TEST_F(PointerTest, HoldsTheObjectAsItsContent) {
    const ref_ptr<Object> object(new Object("o"));
    const ref_ptr<Pointer> pointer(new Pointer("p", object.get()));
    EXPECT_EQ(pointer->getFormat(), zelData::getFormat("ObjectPointer"));
    EXPECT_EQ(content(pointer.get()), object.get());
    EXPECT_EQ(pointer->getObject(), object.get());
    EXPECT_EQ(object->referenceCount(), 1);
    pointer->unbind();
    EXPECT_EQ(content(pointer.get()), nullptr);
    EXPECT_FALSE(object->hasListener(static_cast<Object::EventListener*>(pointer.get())));
}

TEST_F(PointerTest, AnotherObjectEndsListeningToTheOld) {
    ref_ptr<Object> first(new Object("first"));
    const ref_ptr<Object> second(new Object("second"));
    const ref_ptr<Pointer> pointer(new Pointer("p", first.get()));
    EXPECT_TRUE(pointer->bind(second.get()));
    first = nullptr;
    EXPECT_EQ(content(pointer.get()), second.get());
}

TEST_F(PointerTest, DeathOfTheObjectClearsTheValueWithAnUpdate) {
    const ref_ptr<Pointer> pointer(new Pointer("p"));
    ref_ptr<Object> object(new Object("o"));
    pointer->bind(object.get());
    int updates = 0;
    static_cast<void>(pointer->updateEvent.connect([&](Value*) { ++updates; }));
    object = nullptr;
    EXPECT_EQ(content(pointer.get()), nullptr);
    EXPECT_EQ(pointer->getObject(), nullptr);
    EXPECT_EQ(updates, 1);
}

TEST_F(PointerTest, MayPointAtAValueWithoutFollowingIt) {
    auto* value = put(new ValueT<double>("v", 1.0));
    auto* pointer = put(new Pointer("p"));
    pointer->bind(value);
    EXPECT_EQ(content(pointer), value);
    EXPECT_EQ(pointer->getBinding(), nullptr);
}

TEST_F(PointerTest, PathBindsAtRebindAndStays) {
    auto* pointer = put(new Pointer("p", Path("o")));
    EXPECT_EQ(pointer->getObject(), nullptr);
    auto* object = put(new Object("o"));
    EXPECT_EQ(pointer->getObject(), object);
    EXPECT_EQ(pointer->getBindPath(), Path("o"));
    top->removeObject(object);
    EXPECT_EQ(pointer->getObject(), nullptr);
    auto* other = put(new Object("o"));
    EXPECT_EQ(pointer->getObject(), other);
    pointer->unbind();
    EXPECT_TRUE(pointer->getBindPath().empty());
    top->rebind();
    EXPECT_EQ(pointer->getObject(), nullptr);
}

TEST_F(PointerTest, PathsLeadThroughIt) {
    auto* part = put(new Component("part", Component::ClassModel()));
    auto* value = new ValueT<double>("mass", 2.0);
    part->addObject(value);
    auto* pointer = put(new Pointer("p", part));
    auto* outer = put(new Pointer("outer", pointer));
    EXPECT_EQ(top->getResource(Path("p.mass")), value);
    EXPECT_EQ(top->getResource(Path("outer.mass")), value);
    EXPECT_EQ(top->getResource(Path("p")), pointer);
    EXPECT_EQ(top->getResource(Path("outer"), Component::ClassModel()), part);
    EXPECT_EQ(top->getResource(Path("p"), Pointer::ClassModel()), pointer);
    EXPECT_EQ(top->getResource(Path("p"), Object::ClassModel()), pointer) << "it is of the model itself";
    EXPECT_EQ(top->getResource(Path("p"), zel::Task::ClassModel()), nullptr);
    pointer->unbind();
    EXPECT_EQ(top->getResource(Path("p.mass")), nullptr);
    EXPECT_EQ(outer->getResource(Path("mass")), nullptr);
}

TEST_F(PointerTest, FirstOfANameThatLeadsToTheModelIsFound) {
    put(new Object("x"));
    put(new Pointer("x"));
    put(new Pointer("x", task.get()));
    EXPECT_EQ(top->getResource(Path("x"), zel::Task::ClassModel()), task.get());
    auto* component = put(new zel::SerialTask("x"));
    EXPECT_EQ(top->getResource(Path("x"), zel::Task::ClassModel()), component)
        << "what is of the model itself comes first";
}

TEST_F(PointerTest, DependentValuesSeeTheObject) {
    auto* pointer = put(new Pointer("p", top.get()));
    auto* value = put(new Value("v", zelData::getFormat("ObjectPointer")));
    value->Value::bind(static_cast<Value*>(pointer));
    EXPECT_EQ(*static_cast<Object**>(value->getData()), top.get());
    pointer->bind(task.get());
    EXPECT_EQ(*static_cast<Object**>(value->getData()), task.get());
}

TEST_F(PointerTest, LoadsFromXml) {
    put(new Object("o"));
    auto* pointer = put(Pointer::load(parse("<Pointer name='p' bind='o'/>"), nullptr));
    EXPECT_EQ(pointer->getName(), zel::Name("p"));
    EXPECT_EQ(pointer->getObject()->getName(), zel::Name("o"));
    EXPECT_THAT(failure<Pointer>("<Pointer bind='o'/>"),
                HasSubstr("] XML error: Pointer does not have a name!. Error at row 2"));
}
