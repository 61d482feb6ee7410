#include "ParameterFixture.h"

#include <zel/ArrayParameter.h>
#include <zel/Pointer.h>
#include <zel/ScalarParameter.h>
#include <zel/UnresolvedParameter.h>

using testing::HasSubstr;
using zel::Object;
using zel::Parameter;
using zel::Path;
using zel::ref_ptr;
using zel::UnresolvedParameter;
using zelData::getFormat;
using zelData::Value;
using zelData::ValueT;
using zelTest::ParameterEvents;
using MetaType = Parameter::MetaType;

namespace {

class UnresolvedParameterTest : public zelTest::ParameterFixture {
protected:
    ref_ptr<UnresolvedParameter> make(const char* name = "u") { return add(new UnresolvedParameter(name)); }
    ref_ptr<UnresolvedParameter> load(const std::string& text) {
        return add(UnresolvedParameter::load(parse(text), nullptr));
    }
};
using UnresolvedParameterDeathTest = UnresolvedParameterTest;

} // namespace

TEST_F(UnresolvedParameterTest, IsNotValidWhileItsKindIsOpen) {
    const auto parameter = make();
    EXPECT_EQ(parameter->getMetaType(), MetaType::Unresolved);
    EXPECT_EQ(parameter->getType(), nullptr);
    EXPECT_FALSE(parameter->isValid());
}

TEST_F(UnresolvedParameterTest, LearnsItsKindFromWhatItIsBoundTo) {
    const auto parameter = make();
    const auto bindTo = [&](Object* object) {
        parameter->bind(object);
        EXPECT_EQ(parameter->getTarget(), object);
        return parameter->getMetaType();
    };
    EXPECT_EQ(bindTo(put(new ValueT<double>("v", 2.0))), MetaType::Scalar);
    EXPECT_EQ(parameter->getFormat(), getFormat("Real"));
    EXPECT_TRUE(parameter->isValid());
    EXPECT_EQ(bindTo(putBuffer("b", "Int:32bit")), MetaType::Array);
    EXPECT_EQ(parameter->getFormat(), getFormat("Int:32bit"));
    EXPECT_TRUE(parameter->isValid());
    EXPECT_EQ(bindTo(top.get()), MetaType::Pointer);
    EXPECT_TRUE(parameter->isValid());
    EXPECT_EQ(bindTo(add(new zel::ScalarParameter("s", getFormat("Vec3"))).get()), MetaType::Scalar);
    EXPECT_EQ(parameter->getType(), zelData::getType("Vec3"));
    EXPECT_EQ(bindTo(add(new zel::ArrayParameter("a", getFormat("Vec3"))).get()), MetaType::Array);
    EXPECT_EQ(parameter->getType(), zelData::getType("Vec3"));
    EXPECT_EQ(bindTo(put(new Value("handle", getFormat("EntityPtr")))), MetaType::EntityPtr);
    EXPECT_EQ(bindTo(put(new Value("place", getFormat("EntityInstance")))), MetaType::EntityInstance);
    const auto model = zelTest::makeEntity("Particle", {});
    EXPECT_EQ(bindTo(put(new zelData::EntityStorage(model.get(), "particles"))), MetaType::EntityData);
    EXPECT_TRUE(parameter->isValid());
    parameter->unbind();
    EXPECT_EQ(parameter->getMetaType(), MetaType::Unresolved);
    EXPECT_EQ(parameter->getFormat(), nullptr);
    EXPECT_FALSE(parameter->isValid());
}

TEST_F(UnresolvedParameterTest, ScalarIsAsValidAsItsTarget) {
    const auto parameter = make();
    auto* untyped = put(new Value("untyped", static_cast<const zelData::Format*>(nullptr)));
    parameter->bind(static_cast<Object*>(untyped));
    EXPECT_EQ(parameter->getMetaType(), MetaType::Scalar);
    EXPECT_FALSE(parameter->isValid()) << "no type is known";
    const ParameterEvents events(parameter.get());
    untyped->setExpression("Real:32bit(2)");
    EXPECT_EQ(parameter->getFormat(), getFormat("Real:32bit")) << "the first update tells";
    EXPECT_GE(events.updated, 1);
    EXPECT_TRUE(parameter->isValid());
    const auto open = add(new zel::ScalarParameter("open", nullptr));
    parameter->bind(open.get());
    EXPECT_FALSE(parameter->isValid());
    open->setExpression("Real(1)");
    EXPECT_TRUE(parameter->isValid());
}

TEST_F(UnresolvedParameterTest, FollowsTheValue) {
    auto* value = put(new ValueT<double>("v", 2.0));
    const auto parameter = make();
    parameter->bind(Path("v"));
    const ParameterEvents events(parameter.get());
    value->set(3.0);
    EXPECT_EQ(events.updated, 1);
    EXPECT_EQ(*static_cast<double*>(parameter->getValue()->getData()), 3.0);
    parameter->unbind();
    value->set(4.0);
    EXPECT_EQ(events.updated, 1);
    EXPECT_EQ(parameter->getValue(), nullptr);
}

TEST_F(UnresolvedParameterTest, ExpressionMakesItScalar) {
    const auto parameter = make();
    parameter->setExpression("Real:32bit(1.5)");
    EXPECT_EQ(parameter->getMetaType(), MetaType::Scalar);
    EXPECT_TRUE(parameter->isValid());
    const auto byPath = make("w");
    byPath->setExpression("@later");
    EXPECT_FALSE(byPath->isValid());
    put(new ValueT<double>("later", 2.0));
    EXPECT_TRUE(byPath->isValid());
    EXPECT_EQ(*static_cast<double*>(byPath->getValue()->getData()), 2.0);
}

TEST_F(UnresolvedParameterTest, OtherParametersBindToItsTarget) {
    auto* value = put(new ValueT<double>("v", 2.0));
    const auto parameter = make();
    parameter->bind(static_cast<Object*>(value));
    const auto real = add(new zel::ScalarParameter("real", getFormat("Real")));
    real->bind(parameter.get());
    EXPECT_EQ(real->getBinding(), value);
}

TEST_F(UnresolvedParameterTest, UpdateAndCommitGoToTheTarget) {
    const auto array = add(new zel::ArrayParameter("a", getFormat("Real"), zelData::AccessMode::READ_WRITE));
    zelData::Buffer* buffer = putBuffer("b");
    array->bind(buffer);
    const auto parameter = make();
    EXPECT_FALSE(parameter->needsUpdate());
    parameter->bind(array.get());
    EXPECT_TRUE(parameter->needsUpdate());
    EXPECT_TRUE(parameter->needsCommit());
    buffer->resize(1000);
    parameter->update();
    EXPECT_EQ(array->getArray().size(), 1000U);
    const zel::uint64 revision = buffer->getRevision();
    parameter->commit();
    EXPECT_EQ(buffer->getRevision(), revision + 1);
    EXPECT_FALSE(parameter->hasGlobalResult());
    array->setGlobalResultMode(1);
    EXPECT_TRUE(parameter->hasGlobalResult());
    parameter->prepareGlobalResultSorting(3);
}

TEST_F(UnresolvedParameterTest, TagTellsTheKind) {
    EXPECT_EQ(load("<Value instance='a' type='Real' value='2'/>")->getMetaType(), MetaType::Scalar);
    EXPECT_EQ(load("<Buffer instance='a' bind='x'/>")->getMetaType(), MetaType::Array);
    EXPECT_EQ(load("<Pointer instance='a'/>")->getMetaType(), MetaType::Pointer);
    EXPECT_EQ(load("<HashTable instance='a'/>")->getMetaType(), MetaType::Pointer);
    EXPECT_EQ(load("<Storage instance='a'/>")->getMetaType(), MetaType::EntityData);
    EXPECT_EQ(load("<EntityPtr instance='a'/>")->getMetaType(), MetaType::EntityPtr);
    EXPECT_EQ(load("<EntityInstance instance='a'/>")->getMetaType(), MetaType::EntityInstance);
    EXPECT_EQ(load("<Parameter.Unresolved instance='a'/>")->getMetaType(), MetaType::Unresolved);
    EXPECT_EQ(load("<Parameter.Unresolved instance='a'><Buffer/></Parameter.Unresolved>")->getMetaType(),
              MetaType::Array);
    EXPECT_EQ(load("<Parameter.Array instance='a'/>")->getMetaType(), MetaType::Array);
}

TEST_F(UnresolvedParameterTest, LoadsTypePathAndValue) {
    putBuffer("b", "Real:32bit");
    const auto value = load("<Value instance='a' type='Real' value='2.5' required='false'/>");
    EXPECT_EQ(value->getName(), zel::Name("a"));
    EXPECT_FALSE(value->isRequired());
    EXPECT_EQ(*static_cast<double*>(value->getValue()->getData()), 2.5);
    const auto array = load("<Buffer instance='x' bind='b'/>");
    EXPECT_EQ(array->getTarget()->getName(), zel::Name("b"));
    const auto nested =
        load("<Parameter.Unresolved instance='n'><Value value='Real(2)'/></Parameter.Unresolved>");
    EXPECT_TRUE(nested->isValid());
    const auto pointer = load("<Pointer instance='o' bind='b'/>");
    EXPECT_EQ(pointer->getMetaType(), MetaType::Pointer) << "whatever it leads to";
    EXPECT_EQ(pointer->getTarget()->getName(), zel::Name("b"));
}

TEST_F(UnresolvedParameterTest, PathBeginsAtTheSourceAndTheTask) {
    EXPECT_EQ(load("<Value instance='a' source='part'/>")->getBindPath(), zel::Path("part.a"));
    EXPECT_EQ(load("<Value instance='a' task='step' bind='b'/>")->getBindPath(), zel::Path("step.b"));
    EXPECT_EQ(load("<Value instance='a' source='part' task='step'/>")->getBindPath(),
              zel::Path("part.step.a"));
    EXPECT_TRUE(load("<Value instance='a'/>")->getBindPath().empty());
}

TEST_F(UnresolvedParameterTest, DeclaredTypeConvertsTheValue) {
    auto* value = put(new ValueT<double>("v", 2.5));
    const auto parameter = load("<Value instance='a' type='Real:32bit' bind='v'/>");
    EXPECT_EQ(parameter->getFormat(), getFormat("Real:32bit"));
    EXPECT_EQ(*static_cast<float*>(parameter->getValue()->getData()), 2.5F);
    value->set(3.5);
    EXPECT_EQ(*static_cast<float*>(parameter->getValue()->getData()), 3.5F);
}

TEST_F(UnresolvedParameterTest, BadXmlFails) {
    EXPECT_THAT(failure<UnresolvedParameter>("<Parameter.Unresolved name='a'/>"),
                HasSubstr("] XML error: UnresolvedParameter must be an instance. Error at row 2"));
    EXPECT_THAT(failure<UnresolvedParameter>("<Argument instance='a'/>"),
                HasSubstr("] XML error: Unknown parameter tag: Argument. Error at row 2"));
    EXPECT_THAT(
        failure<UnresolvedParameter>("<Parameter.Unresolved instance='a'><Apple/></Parameter.Unresolved>"),
        HasSubstr("] XML error: Unknown parameter tag: Apple. Error at row 2"));
    EXPECT_THAT(failure<UnresolvedParameter>("<Buffer instance='a' value='3'/>"),
                HasSubstr("] XML error: Only a single datum can have a value. Error at row 2"));
}

TEST_F(UnresolvedParameterDeathTest, MisfitsEndTheProcess) {
    auto* value = put(new ValueT<double>("v", 2.5));
    const auto array = load("<Buffer instance='a'/>");
    EXPECT_DEATH(array->bind(static_cast<Object*>(value)),
                 "top.task.a: Can not bind parameter of kind Array to 'top.v', which is of kind SCALAR");
    const auto text = load("<Value instance='t' type='String'/>");
    EXPECT_DEATH(text->bind(static_cast<Object*>(value)),
                 "top.task.t: Can not bind parameter of type String to value of type Real \\(path: top.v\\)");
}

TEST_F(UnresolvedParameterTest, CanNotFollowAFunctionOfItself) {
    EXPECT_THAT(zelTest::whatOf([&] { load("<Value instance='w' value='Math.Add(@w, 1)'/>"); }),
                HasSubstr("The function depends on its own result"));
}

TEST_F(UnresolvedParameterTest, CanNotFollowAFunctionOfOneThatFollowsIt) {
    const auto x = load("<Value instance='x' value='Math.Add(@w, 1)'/>");
    EXPECT_THAT(zelTest::whatOf([&] { load("<Value instance='w' value='Math.Add(@x, 1)'/>"); }),
                HasSubstr("The function depends on its own result"));
}
