#include "ParameterFixture.h"

#include <zel/ScalarParameter.h>

using testing::HasSubstr;
using zel::Object;
using zel::Parameter;
using zel::Path;
using zel::ref_ptr;
using zel::ScalarParameter;
using zelData::getFormat;
using zelData::Value;
using zelData::ValueT;
using zelTest::ParameterEvents;

namespace {

class ScalarParameterTest : public zelTest::ParameterFixture {
protected:
    ScalarParameter*
    make(const char* name, const char* format, zel::uint32 mode = zelData::AccessMode::READ) {
        return add(new ScalarParameter(name, format == nullptr ? nullptr : getFormat(format), mode)).get();
    }
    static double content(const ScalarParameter* parameter) {
        return *static_cast<const double*>(parameter->getData());
    }
};
using ScalarParameterDeathTest = ScalarParameterTest;

} // namespace

TEST_F(ScalarParameterTest, HoldsTheDefaultUntilItIsBound) {
    const ScalarParameter* parameter = make("p", "Real");
    EXPECT_TRUE(parameter->isValid());
    EXPECT_EQ(content(parameter), 0.0);
    EXPECT_EQ(parameter->getMetaType(), Parameter::MetaType::Scalar);
    EXPECT_EQ(parameter->getType(), zelData::getType("Real"));
    EXPECT_FALSE(parameter->needsUpdate());
    EXPECT_FALSE(parameter->needsCommit());
}

TEST_F(ScalarParameterTest, SharesTheElementOfAValueOfItsFormat) {
    auto* value = put(new ValueT<double>("v", 2.0));
    ScalarParameter* parameter = make("p", "Real:64bit");
    const ParameterEvents events(parameter);
    parameter->bind(static_cast<Object*>(value));
    EXPECT_EQ(parameter->getData(), value->getData());
    EXPECT_EQ(events.bound, 1);
    const int updates = events.updated;
    value->set(3.0);
    EXPECT_EQ(content(parameter), 3.0);
    EXPECT_EQ(events.updated, updates + 1);
}

TEST_F(ScalarParameterTest, ConvertsAValueOfAnotherFormat) {
    auto* value = put(new Value("v", getFormat("Real:32bit")));
    const float content32 = 1.5F;
    value->set(&content32);
    ScalarParameter* parameter = make("p", "Real:64bit");
    parameter->bind(static_cast<Object*>(value));
    EXPECT_EQ(content(parameter), 1.5);
}

TEST_F(ScalarParameterTest, WithoutAFormatTakesThatOfTheValue) {
    const ScalarParameter* parameter = make("p", nullptr);
    EXPECT_FALSE(parameter->isValid());
    EXPECT_EQ(parameter->getType(), nullptr);
    EXPECT_EQ(parameter->getFormat(), nullptr);
    auto* value = put(new ValueT<double>("v", 2.0));
    const_cast<ScalarParameter*>(parameter)->bind(static_cast<Object*>(value)); // NOLINT
    EXPECT_TRUE(parameter->isValid());
    EXPECT_EQ(parameter->getFormat(), getFormat("Real"));
    EXPECT_EQ(parameter->getType(), zelData::getType("Real"));
}

TEST_F(ScalarParameterTest, FollowsAnotherParameter) {
    ScalarParameter* first = make("first", "Real");
    ScalarParameter* second = make("second", "Real");
    second->bind(first);
    auto* value = put(new ValueT<double>("v", 2.0));
    const ParameterEvents events(second);
    first->bind(static_cast<Object*>(value));
    EXPECT_EQ(content(second), 2.0);
    EXPECT_GE(events.updated, 1);
    first->unbind();
    EXPECT_EQ(content(second), 0.0);
}

TEST_F(ScalarParameterTest, UnbindingLeavesTheDefault) {
    auto* value = put(new ValueT<double>("v", 2.0));
    ScalarParameter* parameter = make("p", "Real");
    parameter->set(value);
    parameter->unbind();
    EXPECT_EQ(content(parameter), 0.0);
    value->set(5.0);
    EXPECT_EQ(content(parameter), 0.0);
    EXPECT_TRUE(value->getDependents().empty());
}

TEST_F(ScalarParameterTest, ExpressionMakesAValueOfItsOwn) {
    ScalarParameter* parameter = make("p", "Real");
    parameter->setExpression("1.5");
    EXPECT_EQ(content(parameter), 1.5);
    ASSERT_NE(parameter->getBinding(), nullptr);
    EXPECT_EQ(parameter->getBinding()->getContext(), parameter);
    ScalarParameter* open = make("open", nullptr);
    open->setExpression("Real:32bit(2.5)");
    EXPECT_EQ(open->getFormat(), getFormat("Real:32bit"));
}

TEST_F(ScalarParameterTest, PathInAnExpressionIsLookedUpAtRebind) {
    ScalarParameter* parameter = make("p", "Real");
    parameter->setExpression("@later");
    EXPECT_EQ(content(parameter), 0.0);
    auto* value = put(new ValueT<double>("later", 7.0)); // rebinds the tree
    EXPECT_EQ(content(parameter), 7.0);
    value->set(8.0);
    EXPECT_EQ(content(parameter), 8.0);
}

TEST_F(ScalarParameterTest, ValueBindsToTheValueOfAParameter) {
    ScalarParameter* parameter = make("p", "Real");
    auto* source = put(new ValueT<double>("source", 2.0));
    parameter->set(source);
    auto* value = put(new Value("v", getFormat("Real:32bit")));
    EXPECT_TRUE(value->bind(static_cast<Object*>(parameter)));
    EXPECT_EQ(value->getBinding(), parameter->getValue());
    EXPECT_EQ(*static_cast<float*>(value->getData()), 2.0F);
    source->set(3.0);
    EXPECT_EQ(*static_cast<float*>(value->getData()), 3.0F);
    auto* byPath = put(new Value("w", static_cast<const zelData::Format*>(nullptr)));
    byPath->bind(Path("task.p"));
    EXPECT_EQ(byPath->getBinding(), parameter->getValue());
}

TEST_F(ScalarParameterTest, CommitOfAWrittenOneTellsAllThatFollow) {
    auto* value = put(new ValueT<double>("v", 1.0));
    ScalarParameter* parameter = make("p", "Real", zelData::AccessMode::WRITE);
    parameter->set(value);
    EXPECT_TRUE(parameter->needsCommit());
    auto* dependent = put(new Value("d", getFormat("Real:32bit")));
    dependent->Value::bind(static_cast<Value*>(value));
    *static_cast<double*>(parameter->getData()) = 6.0;
    parameter->commit();
    EXPECT_EQ(value->get(), 6.0);
    EXPECT_EQ(*static_cast<float*>(dependent->getData()), 6.0F);
}

TEST_F(ScalarParameterTest, CommitBringsAConvertedResultBack) {
    auto* value = put(new Value("v", getFormat("Real:32bit")));
    ScalarParameter* parameter = make("p", "Real:64bit", zelData::AccessMode::READ_WRITE);
    parameter->set(value);
    *static_cast<double*>(parameter->getData()) = 2.5;
    parameter->commit();
    EXPECT_EQ(*static_cast<float*>(value->getData()), 2.5F);
}

TEST_F(ScalarParameterTest, ValueOutlivesItsParameter) {
    ref_ptr<ScalarParameter> parameter(new ScalarParameter("p", getFormat("Real")));
    parameter->setExpression("2");
    const ref_ptr<Value> value(parameter->getValue());
    parameter = nullptr;
    EXPECT_EQ(value->getContext(), nullptr);
    value->setExpression("3");
    EXPECT_EQ(*static_cast<double*>(value->getData()), 3.0);
}

TEST_F(ScalarParameterTest, LoadsFromXml) {
    const auto parameter = add(ScalarParameter::load(
        parse("<Parameter.Scalar name='p' type='Real' format='32bit' mode='READ_WRITE' value='1.5'/>"),
        nullptr));
    EXPECT_EQ(parameter->getName(), zel::Name("p"));
    EXPECT_EQ(parameter->getFormat(), getFormat("Real:32bit"));
    EXPECT_EQ(parameter->getAccessMode(), zelData::AccessMode::READ_WRITE);
    EXPECT_TRUE(parameter->isWritten());
    EXPECT_EQ(*static_cast<float*>(parameter->getData()), 1.5F);
    const auto open = add(ScalarParameter::load(parse("<Parameter.Scalar name='p'/>"), nullptr));
    EXPECT_EQ(open->getFormat(), nullptr);
    EXPECT_EQ(open->getAccessMode(), zelData::AccessMode::READ);
}

TEST_F(ScalarParameterTest, XmlOfAnUnknownTypeFails) {
    EXPECT_THAT(failure<ScalarParameter>("<Parameter.Scalar name='p' type='Nonsense'/>"),
                HasSubstr("XML error: No type named 'Nonsense'. Error at row 2"));
}

TEST_F(ScalarParameterDeathTest, MisfitNamesBothTypes) {
    ScalarParameter* parameter = make("p", "Real");
    auto* text = put(new Value("text", getFormat("String")));
    EXPECT_DEATH(
        parameter->bind(static_cast<Object*>(text)),
        "zelVerify failed: `m_value->isTypeCompatible\\(value\\)'.*top.task.p: Can not bind parameter "
        "of type Real to value of type String \\(path: top.text\\)");
    ScalarParameter* other = make("other", "String");
    EXPECT_DEATH(
        parameter->bind(other),
        "zelVerify failed: `m_value->isTypeCompatible\\(other->getValue\\(\\)\\)'.*top.task.p: Can not "
        "bind parameter of type Real to parameter of type String");
    EXPECT_DEATH(parameter->bind(top.get()),
                 "top.task.p: Can not bind a scalar parameter to 'top', which is no value");
}

TEST_F(ScalarParameterDeathTest, LiteralWithoutATypeEndsTheProcess) {
    ScalarParameter* parameter = make("p", nullptr);
    EXPECT_DEATH(parameter->setExpression("3"), "Can not have an implicitly typed literal");
}
