#include "support/LogCapture.h"
#include "support/ModelFiles.h"
#include "support/WhatOf.h"

#include <zel/Clock.h>
#include <zel/Component.h>
#include <zel/LambdaKernel.h>
#include <zel/Name.h>
#include <zel/ScalarParameter.h>
#include <zel/SerialTask.h>
#include <zel/TaskPlugin.h>
#include <zel/UnresolvedParameter.h>
#include <zel/UnresolvedTask.h>
#include <zel/Vec.h>
#include <zel/ref_ptr.h>
#include <zelData/Buffer.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>
#include <zelData/FunctionValue.h>
#include <zelData/ScalarAttribute.h>
#include <zelData/Type.h>
#include <zelData/Value.h>
#include <zelData/ValueT.h>
#include <zelIO/Environment.h>
#include <zelIO/FilePathContainer.h>

#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using zel::Component;
using zel::ref_ptr;
using zelData::FunctionValue;
using zelData::Value;
using zelData::ValueT;
using zelTest::LogCapture;
using zelTest::whatOf;

namespace {

class FunctionValueTest : public zelTest::ModelFiles {
protected:
    void SetUp() override {
        ModelFiles::SetUp();
        top = new Component("top");
    }
    void TearDown() override {
        top = nullptr;
        ModelFiles::TearDown();
    }

    template <typename T>
    ValueT<T>* add(const char* name, T content) {
        auto* value = new ValueT<T>(name, content);
        top->addObject(value);
        return value;
    }
    Value* add(const char* name, const char* format, const std::string& expression) {
        auto* value = new Value(name, format == nullptr ? nullptr : zelData::getFormat(format));
        top->addObject(value);
        value->setExpression(expression);
        return value;
    }
    template <typename T>
    static T content(Value* value) {
        return *static_cast<const T*>(value->getData());
    }
    /// The result of an expression without a format of its own, as type, format and text.
    std::string computed(const std::string& expression) {
        const ref_ptr<Value> value(add("computed", nullptr, expression));
        const std::string text = value->getFormat() == nullptr
                                     ? "nothing"
                                     : value->getFormat()->fullName() + " " + value->toString();
        top->removeObject(value.get());
        return text;
    }

    ref_ptr<Component> top;
};

} // namespace

TEST_F(FunctionValueTest, ComputesFromOtherValues) {
    add("a", 6.0);
    add("b", 7.0);
    Value* const c = add("c", "Real", "Math.Mul(@a, @b)");
    EXPECT_EQ(content<double>(c), 42);
    const auto* function = dynamic_cast<FunctionValue*>(c->getBinding());
    ASSERT_NE(function, nullptr);
    EXPECT_EQ(function->getName().str(), "FunctionValue(Math.Mul(@a, @b))");
    EXPECT_EQ(function->getProxy()->getName().str(), "UnresolvedTask(Math.Mul(@a, @b))");
    ASSERT_NE(function->getTask(), nullptr);
    EXPECT_EQ(function->getTask()->getContext(), top.get());
}

TEST_F(FunctionValueTest, ChangeOfAnArgumentRecomputesAndPropagates) {
    auto* const a = add("a", 2.0);
    Value* const square = add("square", "Real", "Math.Mul(@a, @a)");
    Value* const follower = add("follower", "Real:32bit", "@square");
    int updates = 0;
    square->updateEvent.connect([&](Value*) { ++updates; });
    a->set(3);
    EXPECT_EQ(content<double>(square), 9);
    EXPECT_EQ(content<float>(follower), 9);
    EXPECT_GE(updates, 1);
}

TEST_F(FunctionValueTest, NestedCallsAndLiterals) {
    auto* const a = add("a", 5.0);
    Value* const value = add("v", "Real", "Math.Add(Math.Mul(@a, 2), 1)");
    EXPECT_EQ(content<double>(value), 11);
    a->set(-1.5);
    EXPECT_EQ(content<double>(value), -2);
}

TEST_F(FunctionValueTest, LiteralsTakeTheFormatOfTheOtherArgument) {
    add("i", zel::int64{7});
    add("u", zel::uint64{7});
    add("r", 0.5);
    add("f", nullptr, "Real:32bit(0.5)");
    EXPECT_EQ(computed("Math.Mul(@i, 3)"), "Int:64bit 21");
    EXPECT_EQ(computed("Math.Mul(3, @u)"), "UInt:64bit 21");
    EXPECT_EQ(computed("Math.Add(@u, -3)"), "nothing"); // an unsigned and a signed number: no such sum
    EXPECT_EQ(computed("Math.Mul(@i, 0.5)"), "Real:64bit 3.5");
    EXPECT_EQ(computed("Math.Mul(@r, 3)"), "Real:64bit 1.5");
    EXPECT_EQ(computed("Math.Mul(@f, 3)"), "Real:32bit 1.5");
    EXPECT_EQ(computed("Math.Add(1, 2)"), "Real:64bit 3");
    EXPECT_EQ(computed("Math.Cos(PI)"), "Real:64bit -1");
    EXPECT_EQ(content<zel::int64>(add("j", "Int", "Math.Add(1, 2)")), 3);
}

TEST_F(FunctionValueTest, ExplicitFormsAreArguments) {
    EXPECT_EQ(computed("Math.Add(Int(1), Int(2))"), "Int:64bit 3");
    EXPECT_EQ(computed("Real:32bit(Math.Add(Int(1), Int(2)))"), "Real:32bit 3");
    EXPECT_EQ(computed("Math.Length(Vec3(3, 4, 0))"), "Real:64bit 5");
}

TEST_F(FunctionValueTest, NarrowNumbersAreConverted) {
    add("a", nullptr, "Int:8bit(100)");
    add("b", nullptr, "Real:32bit(0.25)");
    add("c", 2.0);
    EXPECT_EQ(computed("Math.Mul(@a, @a)"), "Int:64bit 10000");
    EXPECT_EQ(computed("Math.Mul(@b, @b)"), "Real:32bit 0.0625");
    EXPECT_EQ(computed("Math.Mul(@b, @c)"), "Real:64bit 0.5");
}

TEST_F(FunctionValueTest, ResultIsConvertedToTheFormatOfTheValue) {
    add("a", 2.75);
    EXPECT_EQ(content<zel::int64>(add("i", "Int", "Math.Add(@a, @a)")), 5);
    EXPECT_EQ(content<float>(add("f", "Real:32bit", "Math.Add(@a, @a)")), 5.5F);
}

TEST_F(FunctionValueTest, ArgumentsThatComeLaterAreFoundThen) {
    Value* const value = add("v", "Real", "Math.Add(@late, 1)");
    EXPECT_EQ(content<double>(value), 0); // the default until then
    EXPECT_FALSE(dynamic_cast<FunctionValue*>(value->getBinding())->getProxy()->isReady());
    add("late", 4.0);
    EXPECT_EQ(content<double>(value), 5);
}

TEST_F(FunctionValueTest, WaitsWhileAnArgumentHasNoContent) {
    auto* const a = add("a", 1.0);
    auto* const b = add("b", 2.0);
    Value* const sum = add("sum", "Real:64bit", "Math.Add(@a, @b)");
    EXPECT_EQ(content<double>(sum), 3);
    const ref_ptr<Value> untyped(
        new Value(zel::Name("untyped"), static_cast<const zelData::Format*>(nullptr)));
    b->bind(untyped.get());
    EXPECT_EQ(b->getData(), nullptr);
    a->set(10.0);
    EXPECT_EQ(content<double>(sum), 3) << "the former result stays";
    untyped->set(ref_ptr<Value>(new ValueT<double>("content", 5.0)).get());
    EXPECT_EQ(content<double>(sum), 15);
    a->set(20.0);
    EXPECT_EQ(content<double>(sum), 25);
}

TEST_F(FunctionValueTest, NamesOfTheTaskDoNotHideThoseOfTheTree) {
    add("arg0", 1.0);
    add("result", 2.0);
    EXPECT_EQ(computed("Math.Add(@arg0, @result)"), "Real:64bit 3");
}

TEST_F(FunctionValueTest, ArgumentOfAnotherTypeTakesAnotherFunction) {
    auto* const a = new Value("a", zelData::getFormat("Real"));
    top->addObject(a);
    Value* const value = add("v", nullptr, "Math.Mul(@a, 2)");
    EXPECT_STREQ(value->getFormat()->fullName().c_str(), "Real:64bit");
}

TEST_F(FunctionValueTest, ModelFilesMayHoldExpressions) {
    directory.write("Components/zel/Wheel.zelComponent",
                    "<Component name='Wheel'>"
                    "<Value name='area' type='Real' value='Math.Mul(PI, Math.Pow(@radius, 2))'/>"
                    "<Value name='radius' type='Real' value='2'/>"
                    "</Component>");
    const ref_ptr<Component> wheel(Component::load("Wheel", nullptr));
    ASSERT_TRUE(wheel);
    top->addObject(wheel.get());
    auto* const area = dynamic_cast<Value*>(wheel->findObject("area"));
    EXPECT_DOUBLE_EQ(content<double>(area), std::acos(-1) * 4);
    dynamic_cast<Value*>(wheel->findObject("radius"))->setExpression("1");
    EXPECT_DOUBLE_EQ(content<double>(area), std::acos(-1));
}

TEST_F(FunctionValueTest, SettingTheValueEndsTheFunction) {
    auto* const a = add("a", 1.0);
    Value* const value = add("v", "Real", "Math.Add(@a, 1)");
    value->setExpression("5");
    a->set(10);
    EXPECT_EQ(content<double>(value), 5);
    value->setExpression("Math.Mul(@a, 3)");
    EXPECT_EQ(content<double>(value), 30);
}

TEST_F(FunctionValueTest, RemovedValueKeepsItsContentAndNothingDangles) {
    add("a", 1.0);
    const ref_ptr<Value> value(add("v", "Real", "Math.Add(@a, 1)"));
    top->removeObject(value.get());
    EXPECT_EQ(content<double>(value.get()), 2);
    top = new Component("other");
    value->rebind();
    EXPECT_EQ(content<double>(value.get()), 2);
}

TEST_F(FunctionValueTest, DivisionOfRealNumbersByZeroIsInfinite) {
    add("zero", 0.0);
    EXPECT_EQ(content<double>(add("v", "Real", "Math.Div(1, @zero)")),
              std::numeric_limits<double>::infinity());
    EXPECT_TRUE(std::isnan(content<double>(add("w", "Real", "Math.Div(0, @zero)"))));
}

TEST_F(FunctionValueTest, DivisionOfIntegersByZeroIsAnErrorAndTheOldResultStays) {
    auto* const divisor = add("divisor", zel::int64{2});
    Value* const value = add("v", "Int", "Math.Div(10, @divisor)");
    EXPECT_EQ(content<zel::int64>(value), 5);
    EXPECT_THAT(whatOf([&] { divisor->set(0); }), HasSubstr("an integer can not be divided by zero"));
    EXPECT_EQ(content<zel::int64>(value), 5);
    divisor->set(5);
    EXPECT_EQ(content<zel::int64>(value), 2);
    EXPECT_EQ(computed("Math.Div(Int(-9223372036854775808), Int(-1))"), "Int:64bit -9223372036854775808");
}

TEST_F(FunctionValueTest, AFunctionThatFailsAtFirstIsComputedOnceItCan) {
    ASSERT_NE(add("warm", "Int", "Math.Div(1, Int(1))"), nullptr);
    Value* const value = add("v", "Int", "Math.Div(10, @late)");
    zel::ref_ptr<Value> late(new Value("late", zelData::getFormat("Int"))); // 0
    EXPECT_THAT(whatOf([&] { top->addObject(late.get()); }),
                HasSubstr("an integer can not be divided by zero"));
    EXPECT_EQ(content<zel::int64>(value), 0);
    EXPECT_THAT(whatOf([&] { late->setExpression("-0"); }),
                HasSubstr("an integer can not be divided by zero"));
    late->setExpression("5");
    EXPECT_EQ(content<zel::int64>(value), 2);
}

TEST_F(FunctionValueTest, AnExpressionThatCanNotBeComputedIsRefusedAndNothingChanges) {
    auto* const a = add("a", zel::int64{7});
    add("zero", zel::int64{0});
    Value* const value = add("v", "Int", "Math.Add(@a, 1)");
    Value* const follower = add("w", "Int", "Math.Add(@v, 1)");
    const Value* const binding = value->getBinding();
    int updates = 0;
    value->updateEvent.connect([&](Value*) { ++updates; });
    for (const char* text : {"Math.Div(@a, @zero)",
                             "Math.Add(@v, 1)",
                             "Math.Add(@w, 1)",
                             "Math.Add(Math.Mul(@v, 2), 1)",
                             "Int(Math.Add(@w, 1))",
                             "Nothing.At(@v)"}) {
        EXPECT_NE(whatOf([&] { value->setExpression(text); }), "no exception") << text;
        EXPECT_EQ(value->getBinding(), binding) << text;
        EXPECT_EQ(content<zel::int64>(value), 8) << text;
    }
    EXPECT_EQ(updates, 0);
    auto* const untyped = new Value("u", static_cast<const zelData::Format*>(nullptr));
    top->addObject(untyped);
    for (const char* text : {"Math.Div(@a, @zero)", "Int(Math.Div(@a, @zero))", "Int(Math.Add(@u, 1))"}) {
        EXPECT_NE(whatOf([&] { untyped->setExpression(text); }), "no exception") << text;
        EXPECT_EQ(untyped->getFormat(), nullptr) << text;
        EXPECT_EQ(untyped->getBinding(), nullptr) << text;
    }
    a->set(1);
    EXPECT_EQ(content<zel::int64>(value), 2);
    EXPECT_EQ(content<zel::int64>(follower), 3);
}

TEST_F(FunctionValueTest, AFollowerMayLetGoOfTheFunctionWhileItIsComputed) {
    const std::vector<std::pair<const char*, std::function<void(Value*)>>> actions{
        {"unbind", [](Value* value) { value->unbind(true); }},
        {"set", [](Value* value) { value->setDefaultValue(); }},
        {"path", [](Value* value) { value->setExpression("@other"); }},
        {"function", [](Value* value) { value->setExpression("Math.Mul(@a, @other)"); }},
        {"bind", [](Value* value) { value->bind(static_cast<Value*>(nullptr)); }},
        {"remove", [this](Value* value) { top->removeObject(value); }},
        {"force", [](Value* value) { value->forceRemove(); }}};
    for (const auto& [name, action] : actions)
        for (const char* argument : {"@a", "@late"}) {
            SCOPED_TRACE(std::string(name) + ' ' + argument);
            top = new Component("top");
            auto* const a = add("a", 2.0);
            add("other", 3.0);
            Value* const value =
                add("v", "Real", std::string("Math.Add(Math.Mul(") + argument + ", 1), " + argument + ")");
            int calls = 0;
            value->updateEvent.connect([&, act = action](Value* updated) {
                if (++calls == 1)
                    act(updated);
            });
            if (std::string(argument) == "@late")
                add("late", 5.0);
            else
                a->set(4);
            EXPECT_GE(calls, 1);
            a->set(6);
            if (std::string(name) == "function") {
                EXPECT_EQ(content<double>(value), 18);
            }
        }
}

TEST_F(FunctionValueTest, AFollowerMayBePutIntoTheTreeWhileItTakesTheFunction) {
    add("a", 1.0);
    add("b", 2.0);
    const ref_ptr<Value> sum(new ValueT<double>("sum", 7.0));
    sum->updateEvent.connect([&](Value*) {
        if (sum->getContext() == nullptr)
            top->addObject(sum.get());
    });
    sum->setExpression("Math.Add(@a, @b)"); // takes the default at first, and tells of it
    EXPECT_EQ(sum->getContext(), top.get());
    EXPECT_EQ(content<double>(sum.get()), 3);
}

TEST_F(FunctionValueTest, AnArgumentThatIsAMemberMayGoWithItsOwner) {
    struct Owner : Component {
        explicit Owner(double content) : Component("owner"), member("m", content) { addObject(&member); }
        zelData::Val<double> member;
    };
    const LogCapture log(zel::Notify::Error);
    top->addObject(new Owner(2));
    Value* const value = add("v", "Real", "Math.Mul(@owner.m, 2)");
    EXPECT_EQ(content<double>(value), 4);
    const auto* const function = dynamic_cast<FunctionValue*>(value->getBinding());
    ASSERT_NE(function, nullptr);
    zel::Parameter* const argument = function->getProxy()->getProxyParameters().front().get();
    double last = 0;
    argument->unbindEvent.connect([&](zel::Parameter* unbound) {
        last = content<double>(dynamic_cast<Value*>(unbound->getBinding()));
    });
    top->removeObject(top->findObject("owner"));
    EXPECT_EQ(last, 2) << "the member is whole while they hear of its end";
    EXPECT_EQ(argument->getBinding(), nullptr);
    EXPECT_EQ(content<double>(value), 4) << "the last result stays";
    top->addObject(new Owner(3));
    value->rebind();
    EXPECT_EQ(content<double>(value), 6);
    EXPECT_EQ(log.text(), "");
}

TEST_F(FunctionValueTest, FunctionsOfClocksEventsAndKernelsOutliveThem) {
    struct Doubled {
        const char* argument;
        std::function<zel::Object*()> make;
    };
    const Doubled all[] = {
        {"@owner.time", [] { return new zel::Clock("owner", 10); }},
        {"@owner.interval", [] { return new zel::Clock::Event(zel::Name("owner")); }},
        {"@owner.minJobSize", [] { return new zel::LambdaKernel("owner", [](const zel::RangeJob&) {}); }}};
    for (const Doubled& each : all) {
        SCOPED_TRACE(each.argument);
        const LogCapture log(zel::Notify::Error);
        top->addObject(each.make());
        Value* const value = add("v", nullptr, std::string("Math.Add(") + each.argument + ", 1)");
        EXPECT_NE(value->getData(), nullptr);
        top->removeObject(top->findObject("owner"));
        EXPECT_NE(value->getData(), nullptr);
        top->removeObject(value);
        EXPECT_EQ(log.text(), "");
    }
}

TEST_F(FunctionValueTest, ALongChainOfFunctionsIsBuiltAndFollowed) {
    constexpr int length = 300;
    auto* const first = add("v0", 1.0);
    for (int i = 1; i <= length; ++i)
        add(("v" + std::to_string(i)).c_str(), "Real", "Math.Add(@v" + std::to_string(i - 1) + ", 1)");
    auto* const last = dynamic_cast<Value*>(top->findObject(("v" + std::to_string(length)).c_str()));
    EXPECT_EQ(content<double>(last), length + 1);
    first->set(5);
    EXPECT_EQ(content<double>(last), length + 5);
    EXPECT_THAT(whatOf([&] { first->setExpression("Math.Add(@v" + std::to_string(length) + ", 1)"); }),
                HasSubstr("The function depends on its own result"));
}

TEST_F(FunctionValueTest, FunctionOfItselfIsRefused) {
    Value* const value = add("v", "Real", "1");
    EXPECT_THAT(whatOf([&] { value->setExpression("Math.Add(@v, 1)"); }),
                HasSubstr("The function depends on its own result"));
    EXPECT_EQ(content<double>(value), 1);
}

TEST_F(FunctionValueTest, FunctionsOfEachOtherAreRefused) {
    Value* const a = add("a", "Real", "1");
    add("b", "Real", "Math.Add(@a, 1)");
    EXPECT_THAT(whatOf([&] { a->setExpression("Math.Add(@b, 1)"); }),
                HasSubstr("The function depends on its own result"));
}

TEST_F(FunctionValueTest, AnArgumentCanNotFollowTheResult) {
    Value* const a = add("a", "Real", "1");
    Value* const b = add("b", "Real", "Math.Add(@a, 1)");
    Value* const c = add("c", "Real", "@b");
    for (Value* other : {b, c})
        EXPECT_THAT(
            whatOf([&] { a->bind(other); }),
            HasSubstr("a: Can not be bound to 'top." + other->getName().str() + "', which depends on it"));
    EXPECT_EQ(a->getBinding(), nullptr);
}

TEST_F(FunctionValueTest, AFunctionThatIsNotFoundIsRefusedAsItsOwnArgumentToo) {
    Value* const value = add("v", "Real", "1");
    EXPECT_THAT(whatOf([&] { value->setExpression("Nothing.At(@v, 1)"); }),
                HasSubstr("The function depends on its own result"));
}

TEST_F(FunctionValueTest, AFunctionInAnotherOneIsRefusedAsItsOwnArgumentToo) {
    Value* const value = add("v", "Real", "1");
    EXPECT_THAT(whatOf([&] { value->setExpression("Math.Add(Math.Mul(@v, 2), 1)"); }),
                HasSubstr("The function depends on its own result"));
}

namespace {

/// Changes its own argument when it is computed.
struct Feedback : zel::SerialTask {
    Feedback(const zel::Name& name, zel::Device* device)
        : SerialTask(name, device)
        , argument(new zel::ScalarParameter("arg0", zelData::getFormat("Real:64bit")))
        , result(new zel::ScalarParameter(
              "result", zelData::getFormat("Real:64bit"), zelData::AccessMode::WRITE)) {
        addParameter(argument);
        addParameter(result);
    }
    void run() override {
        const double next = *static_cast<const double*>(argument->getValue()->getData()) + 1;
        argument->getValue()->getRootBinding()->set(&next);
    }
    zel::ScalarParameter* argument;
    zel::ScalarParameter* result;
};

zel::TaskPlugin s_feedbackPlugin("Tested.Feedback", zel::Device::Type::Cpu);
const zel::TaskPluginImplementationT<Feedback> s_feedback(s_feedbackPlugin, "Feedback");

} // namespace

TEST_F(FunctionValueTest, AFunctionThatChangesItsArgumentIsRefused) {
    add("a", 1.0);
    EXPECT_THAT(whatOf([&] { add("v", "Real:64bit", "Tested.Feedback(@a)"); }),
                HasSubstr("The function depends on its own result"));
}

TEST_F(FunctionValueTest, UnknownFunctionIsReportedOnceAndAgainAfterAChange) {
    LogCapture log;
    auto* const a = add("a", 1.0);
    Value* const value = add("v", "Real", "Nothing.At(@a, 2)");
    const auto reports = [&] {
        int count = 0;
        for (const auto& text : log.texts())
            if (std::string(text).find("No implementation has been found for requested task 'Nothing.At'") !=
                std::string::npos)
                ++count;
        return count;
    };
    EXPECT_EQ(reports(), 1);
    value->rebind();
    EXPECT_EQ(reports(), 1);
    a->set(2);
    EXPECT_EQ(reports(), 1);
    top->removeObject(a);
    add("a", 3.0);
    EXPECT_EQ(reports(), 2);
    EXPECT_EQ(content<double>(value), 0);
}

TEST_F(FunctionValueTest, BadExpressionsAreRefusedAndNothingChanges) {
    Value* const value = add("v", "Real", "1");
    const auto what = [&](const std::string& expression) {
        return whatOf([&] { value->setExpression(expression); });
    };
    EXPECT_THAT(what("Math.Add(@a, 1"),
                HasSubstr("'Math.Add(@a, 1' is no call of a function: there are no brackets"));
    EXPECT_THAT(what("Math.Add(Math.Mul(1, 2)"), HasSubstr("a bracket is not closed"));
    EXPECT_THAT(what("Math.Add(1, 2))"), HasSubstr("there is something behind the last bracket"));
    EXPECT_THAT(what("Math.Add(1, 2) + Math.Mul(3, 4)"),
                HasSubstr("there is something behind the last bracket"));
    EXPECT_THAT(what("Math.Add(1, )"), HasSubstr("an argument is empty"));
    EXPECT_THAT(what("Math.Add(, 1)"), HasSubstr("an argument is empty"));
    EXPECT_THAT(what("(1)"), HasSubstr("what stands before the bracket is no path"));
    EXPECT_THAT(what("a b(1)"), HasSubstr("what stands before the bracket is no path"));
    EXPECT_THAT(what("text"), HasSubstr("v: 'text' is no literal, path, explicit form or function"));
    EXPECT_EQ(content<double>(value), 1);
}

TEST_F(FunctionValueTest, NestingHasALimit) {
    const auto nested = [](size_t depth) {
        std::string text = "1";
        for (size_t i = 0; i < depth; ++i)
            text = "Math.Add(" + text + ", 1)";
        return text;
    };
    EXPECT_EQ(content<double>(add("v", "Real", nested(64))), 65);
    Value* const value = add("w", "Real", "1");
    for (const size_t depth : {65U, 10000U})
        EXPECT_THAT(whatOf([&] { value->setExpression(nested(depth)); }),
                    HasSubstr("brackets are nested more than 64 deep"));
}

TEST_F(FunctionValueTest, ColumnsOfSeveralElementsNeedNoFunctions) {
    const ref_ptr<zelData::EntityModel> model(new zelData::EntityModel("Grid"));
    model->setBaseEntity(zelData::EntityModel::getRootModel());
    const ref_ptr<ValueT<zel::uint64>> three(new ValueT<zel::uint64>("numElements", 3));
    model->addAttribute(
        new zelData::ScalarAttribute("corners", zelData::getFormat("Real"), nullptr, three.get()));
    const auto expectFollows = [&model](const char* name) {
        const ref_ptr<zelData::EntityStorage> cells(new zelData::EntityStorage(model.get(), name));
        const zelData::Buffer* corners = cells->getBuffer("corners");
        cells->createInstances(100);
        EXPECT_EQ(corners->getNumElementsValue()->get(), 300U) << name;
        EXPECT_EQ(corners->getCapacityValue()->get(), 3 * cells->getCapacityValue()->get()) << name;
    };
    for (const char* name : {"a.b", "a(b)", "a, b", "@"}) // not to be named in an expression
        expectFollows(name);
    expectFollows("corners"); // as the column is called
    for (const auto type : {zelIO::Environment::PluginPath, zelIO::Environment::ResourcePath})
        zelIO::Environment::instance()->getFilePath(type).clear();
    LogCapture log(zel::Notify::Warning);
    expectFollows("cells"); // there is no library to multiply with
    EXPECT_EQ(log.text(), "");
}

TEST_F(FunctionValueTest, ColumnsOfSeveralElementsFollowTheirStorageAndNoOtherOfItsName) {
    directory.write("Components/zel/Grid.zelEntity",
                    "<Entity.Model name='Grid'>"
                    "<Attribute.Scalar name='corners' type='Real' numElements='3'/></Entity.Model>");
    zelData::EntityModel* model = zelData::getEntity("Grid");
    const ref_ptr<zelData::EntityStorage> cells(new zelData::EntityStorage(model, "cells"));
    cells->createInstances(4);
    cells->setName("others");
    top->addObject(cells.get());
    const ref_ptr<zelData::EntityStorage> second(new zelData::EntityStorage(model, "cells"));
    second->createInstances(50);
    top->addObject(second.get());
    top->rebind();
    cells->createInstance();
    second->createInstances(10);
    for (const auto& storage : {cells, second}) {
        const zelData::Buffer* corners = storage->getBuffer("corners");
        EXPECT_EQ(corners->size(), 3 * storage->size());
        EXPECT_EQ(corners->getNumElementsValue()->get(), 3 * storage->size());
        EXPECT_EQ(corners->getCapacityValue()->get(), 3 * storage->capacity());
    }
}

TEST_F(FunctionValueTest, ColumnsOfSeveralElementsFollowTheirStorage) {
    directory.write("Components/zel/Grid.zelEntity",
                    "<Entity.Model name='Grid'>"
                    "<Attribute.Scalar name='corners' type='Real' numElements='3'/></Entity.Model>");
    directory.write(
        "Components/zel/Mesh.zelComponent",
        "<Component name='Mesh'><Entity.Storage name='cells' entity='Grid' numElements='5'/></Component>");
    const ref_ptr<Component> mesh(Component::load("Mesh", nullptr));
    top->addObject(mesh.get());
    auto* cells = dynamic_cast<zelData::EntityStorage*>(mesh->findObject("cells"));
    ASSERT_NE(cells, nullptr);
    const zelData::Buffer* corners = cells->getBuffer("corners");
    EXPECT_EQ(corners->size(), 15U);
    EXPECT_EQ(corners->getNumElementsValue()->get(), 15U);
    EXPECT_STREQ(corners->getNumElementsValue()->getBinding()->getName().c_str(),
                 "FunctionValue(Math.Mul(@cells.numElements, @elementArraySize))");
    cells->createInstances(100);
    EXPECT_EQ(corners->getNumElementsValue()->get(), 315U);
    EXPECT_EQ(corners->getCapacityValue()->get(), 3 * cells->getCapacityValue()->get());
}
