#include <zel/ArrayParameter.h>
#include <zel/Component.h>
#include <zel/ParameterBinding.h>
#include <zel/ParameterTable.h>
#include <zel/PointerParameter.h>
#include <zel/ScalarParameter.h>
#include <zel/SerialTask.h>
#include <zel/TaskGroup.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/AccessMode.h>
#include <zelData/Format.h>
#include <zelData/Type.h>
#include <zelData/ValueT.h>

#include <support/LogCapture.h>
#include <support/StreamCapture.h>
#include <support/TempDirectory.h>
#include <support/WhatOf.h>
#include <tinyxml.h>

#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <utility>

using testing::HasSubstr;
using zel::ArrayParameter;
using zel::Component;
using zel::Object;
using zel::Parameter;
using zel::ParameterBinding;
using zel::ParameterTable;
using zel::PointerParameter;
using zel::ref_ptr;
using zel::ScalarParameter;
using zel::SerialTask;
using zel::Task;
using zel::Vector;
using zelData::getFormat;

namespace {

class TaskParameterTest : public testing::Test {
protected:
    void SetUp() override {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        zelCore::init();
        m_task = new SerialTask("t");
    }
    void TearDown() override {
        m_task = nullptr;
        zelCore::shutdown();
    }

    static ScalarParameter* real(const char* name, const char* format = "Real:64bit") {
        return new ScalarParameter(name, getFormat(format));
    }
    /// One that is valid only once it is bound.
    static PointerParameter* pointer(const char* name) { return new PointerParameter(name, zel::Path()); }

    ref_ptr<SerialTask> m_task;
};
using TaskParameterDeathTest = TaskParameterTest;
using TaskMatchTest = TaskParameterTest;

ParameterBinding binding(const char* format, bool promotion = false, bool writable = false) {
    ParameterBinding result;
    result.setFormat(getFormat(format));
    result.setMetaType(Parameter::MetaType::Scalar);
    result.setAllowFormatPromotion(promotion);
    result.setWritable(writable);
    return result;
}

} // namespace

TEST_F(TaskParameterTest, TakesParametersInAndLetsThemGo) {
    const ref_ptr<Parameter> a(real("a"));
    const ref_ptr<Parameter> b(real("b"));
    m_task->addParameter(a.get());
    m_task->addParameter(b.get(), 0);
    EXPECT_EQ(m_task->getNumParameters(), 2U);
    EXPECT_EQ(b->getIndex(), 0U);
    EXPECT_EQ(a->getIndex(), 1U);
    EXPECT_EQ(a->getTask(), m_task.get());
    EXPECT_EQ(m_task->findObject("a"), a.get());
    EXPECT_EQ(m_task->findParameter("b"), b.get());
    m_task->removeParameter(size_t{0});
    EXPECT_EQ(a->getIndex(), 0U);
    EXPECT_EQ(b->getTask(), nullptr);
    EXPECT_EQ(m_task->findObject("b"), nullptr);
    EXPECT_TRUE(m_task->removeParameter(a.get()));
    EXPECT_FALSE(m_task->removeParameter(a.get()));
    EXPECT_EQ(m_task->findParameter("a"), nullptr);
}

TEST_F(TaskParameterTest, TellsOfItsParameters) {
    struct Told : SerialTask {
        using SerialTask::SerialTask;
        void parameterAddedCallback(Parameter* parameter) override {
            text += "+" + parameter->getName().str();
        }
        void parameterRemovedCallback(Parameter* parameter) override {
            text += "-" + parameter->getName().str();
        }
        std::string text;
    };
    const ref_ptr<Told> task(new Told("t"));
    task->parameterAddedEvent.connect([&](Task* t, Parameter* p) {
        EXPECT_EQ(t, task.get());
        task->text += " added " + p->getName().str() + " ";
    });
    task->parameterRemovedEvent.connect(
        [&](Task*, Parameter* p) { task->text += " removed " + p->getName().str(); });
    const ref_ptr<Parameter> a(real("a"));
    task->addParameter(a.get());
    task->removeParameter(a.get());
    EXPECT_EQ(task->text, "+a added a -a removed a");
}

TEST_F(TaskParameterTest, OutlivesItsTask) {
    const ref_ptr<Parameter> a(real("a"));
    m_task->addParameter(a.get());
    m_task = nullptr;
    EXPECT_EQ(a->getTask(), nullptr);
    EXPECT_EQ(a->getContext(), nullptr);
}

TEST_F(TaskParameterTest, WarnsOfWhatIsNotBound) {
    const ref_ptr<Component> top(new Component("top"));
    Parameter* a = pointer("a");
    Parameter* b = pointer("b");
    b->setRequired(false);
    m_task->addParameter(a);
    m_task->addParameter(b);
    a->bind(zel::Path("x.y"));
    const zelTest::StreamCapture out(std::cout);
    const zelTest::LogCapture log;
    top->addObject(m_task.get());
    EXPECT_THAT(log.text(),
                HasSubstr("Task 'top.t' on device '' has 1 unresolved parameters: \n  a -> x.y\n"));
    EXPECT_THAT(out.text(), HasSubstr("--== Task: t ==--\n[Parameters (2)]\n"));
    EXPECT_FALSE(m_task->verifyParameters());
    a->set(top.get());
    EXPECT_TRUE(m_task->verifyParameters());
}

TEST_F(TaskParameterTest, VerifiesOnlyInATree) {
    const zelTest::LogCapture log(zel::Notify::Warning);
    m_task->addParameter(pointer("a"));
    m_task->rebind();
    EXPECT_EQ(log.text(), "");
}

TEST_F(TaskParameterDeathTest, DoesNotRunWithoutARequiredParameter) {
    m_task->addParameter(pointer("a"));
    EXPECT_DEATH(m_task->execute(), "Parameter verification failed!");
    EXPECT_DEATH(m_task->addParameter(nullptr), "zelVerify failed: `parameter'");
    EXPECT_DEATH(m_task->removeParameter(size_t{1}), "zelVerify failed: `index < m_parameters.size\\(\\)'");
}

TEST_F(TaskParameterTest, RunsOnceTheParametersAreThere) {
    Parameter* a = pointer("a");
    m_task->addParameter(a);
    a->setRequired(false);
    int runs = 0;
    m_task->setDispatch([&] { ++runs; });
    m_task->execute();
    a->setRequired(true);
    const ref_ptr<Component> target(new Component("x"));
    a->set(target.get());
    m_task->execute();
    EXPECT_EQ(runs, 2);
}

TEST_F(TaskParameterTest, AnnouncesWhatARunHasWritten) {
    const ref_ptr<zelData::ValueT<double>> value(new zelData::ValueT<double>("v", 1));
    auto* a = new ScalarParameter("a", getFormat("Real:64bit"), zelData::AccessMode::WRITE);
    m_task->addParameter(a);
    a->set(value.get());
    int updates = 0;
    value->updateEvent.connect([&](zelData::Value*) { ++updates; });
    a->updateEvent.connect([&](Parameter*) { ++updates; });
    m_task->setDispatch([a] { *static_cast<double*>(a->getData()) = 3; });
    m_task->execute();
    EXPECT_EQ(value->get(), 3);
    EXPECT_GT(updates, 0);
}

TEST_F(TaskParameterTest, ListsWhatItsParametersAreBoundTo) {
    const ref_ptr<Component> top(new Component("top"));
    const ref_ptr<zelData::ValueT<double>> value(new zelData::ValueT<double>("v", 1));
    top->addObject(value.get());
    Parameter* a = real("a");
    a->bind(value.get());
    m_task->addParameter(a);
    m_task->addParameter(pointer("b"));
    std::ostringstream text;
    m_task->print(text);
    EXPECT_EQ(text.str(),
              "--== Task: t ==--\n"
              "[Parameters (2)]\n"
              "  a, type: [Real:64bit], binding: top.v\n"
              "  b, type: [ObjectPointer:64bit], binding: \n"
              "[Subtasks (0)]\n"
              "--== END ==--\n");
    std::ostringstream bindings;
    m_task->printBindings(bindings);
    EXPECT_EQ(bindings.str(), "a -> top.v\nb -> \n");
}

TEST_F(TaskParameterTest, BindsByXml) {
    const zelTest::TempDirectory directory;
    const auto configure = [&](const std::string& children) {
        const auto document =
            Object::openDocument(directory.write("t.xml", "<Task name='t'>" + children + "</Task>"));
        m_task->configure(document->RootElement());
    };
    const ref_ptr<Component> top(new Component("top"));
    const ref_ptr<Component> inner(new Component("inner"));
    const ref_ptr<zelData::ValueT<double>> value(new zelData::ValueT<double>("a", 1.5));
    inner->addObject(value.get());
    top->addObject(inner.get());
    Parameter* a = real("a");
    Parameter* b = real("b");
    m_task->addParameter(a);
    m_task->addParameter(b);
    configure("<Value instance='a' source='inner' type='Real'/><Value instance='b' bind='inner.a'/>"
              "<Parameter.Scalar name='c' type='Real'/>");
    EXPECT_EQ(m_task->getNumParameters(), 3U);
    EXPECT_EQ(a->getBindPath(), zel::Path("inner.a"));
    top->addObject(m_task.get());
    EXPECT_EQ(a->getBinding(), value.get());
    EXPECT_EQ(b->getBinding(), value.get());
    const ref_ptr<SerialTask> other(new SerialTask("other"));
    Parameter* const elsewhere = real("a");
    other->addParameter(elsewhere);
    inner->addObject(other.get());
    configure("<Value instance='a' source='inner' task='other'/><Value instance='b' task='t' bind='a'/>");
    EXPECT_EQ(a->getBinding(), elsewhere);
    EXPECT_EQ(b->getBinding(), a);
    EXPECT_THAT(zelTest::whatOf([&] { configure("<Value instance='a' type='String'/>"); }),
                HasSubstr("XML error: Parameter 'a' is not of type 'String'"));
    EXPECT_THAT(zelTest::whatOf([&] { configure("<Value instance='z' bind='x'/>"); }),
                HasSubstr("XML error: No parameter with name 'z'"));
}

// Matching by name

TEST_F(TaskMatchTest, MatchesNothingByDefault) {
    ParameterTable table;
    EXPECT_EQ(m_task->matchParameters(table), 1U);
    table.insert("a", ref_ptr<Parameter>(real("a")));
    EXPECT_EQ(m_task->matchParameters(table), 1024U);
}

TEST_F(TaskMatchTest, MatchesByNameAndFormat) {
    m_task->addParameter(real("a"));
    ParameterTable table;
    table.insert("a", ref_ptr<Parameter>(real("a")));
    EXPECT_EQ(m_task->matchParameters(table), 32U);
    ParameterTable narrow;
    narrow.insert("a", ref_ptr<Parameter>(real("a", "Real:32bit")));
    const bool isDefault = zelData::getType("Real")->getDefaultFormat() == getFormat("Real:64bit");
    EXPECT_EQ(m_task->matchParameters(narrow), isDefault ? 64U : 512U);
}

TEST_F(TaskMatchTest, RefusesOtherTypesAndKinds) {
    m_task->addParameter(real("a"));
    ParameterTable table;
    table.insert("a", ref_ptr<Parameter>(real("a", "Int:32bit")));
    EXPECT_EQ(m_task->matchParameters(table), 512U);
    ParameterTable arrays;
    arrays.insert("a", ref_ptr<Parameter>(new ArrayParameter("a", getFormat("Real:64bit"))));
    EXPECT_EQ(m_task->matchParameters(arrays), 512U);
    ParameterTable untyped;
    untyped.insert("a", ref_ptr<Parameter>(new ScalarParameter("a", nullptr)));
    EXPECT_EQ(m_task->matchParameters(untyped), 256U);
}

TEST_F(TaskMatchTest, RefusesABindingWithoutAParameter) {
    m_task->addParameter(real("a"));
    ParameterTable table;
    table.insert("a", ref_ptr<Parameter>(real("a")));
    table.insert("b", ref_ptr<Parameter>(real("b")));
    EXPECT_EQ(m_task->matchParameters(table), 1024U | 32U);
}

TEST_F(TaskMatchTest, SaysWhyAParameterNeedsNoBinding) {
    m_task->addParameter(real("a"));
    Parameter* b = pointer("b");
    m_task->addParameter(b);
    ParameterTable table;
    table.insert("a", ref_ptr<Parameter>(real("a")));
    EXPECT_EQ(m_task->matchParameters(table), 128U | 32U);
    b->setRequired(false);
    EXPECT_EQ(m_task->matchParameters(table), 32U | 4U);
    b->setRequired(true);
    b->bind(zel::Path("somewhere"));
    EXPECT_EQ(m_task->matchParameters(table), 32U | 16U);
    const ref_ptr<Component> target(new Component("x"));
    b->set(target.get());
    EXPECT_EQ(m_task->matchParameters(table), 32U | 8U | 2U);
}

// Matching by position

TEST_F(TaskMatchTest, MatchesByPosition) {
    Vector<ParameterBinding> bindings;
    EXPECT_EQ(m_task->matchParameters(bindings, false), 127U);
    m_task->addParameter(real("a"));
    EXPECT_EQ(m_task->matchParameters(bindings, false), 0xF80U);
    bindings.push_back(binding("Real:64bit"));
    EXPECT_EQ(m_task->matchParameters(bindings, false), 127U);
    bindings[0].setMetaType(Parameter::MetaType::Array);
    EXPECT_EQ(m_task->matchParameters(bindings, true), 0xF80U);
}

TEST_F(TaskMatchTest, BindingsKeepTheirFormatsWhereOneOfThemDoesNotFit) {
    m_task->addParameter(real("a", "Real:32bit"));
    m_task->addParameter(new ScalarParameter("b", getFormat("Vec3:32bit")));
    Vector<ParameterBinding> bindings;
    bindings.push_back(binding("UInt:64bit", true));
    bindings.push_back(binding("Real:64bit", true));
    EXPECT_EQ(m_task->matchParameters(bindings, true), Task::MatchFailed);
    EXPECT_EQ(bindings[0].getFormat(), getFormat("UInt:64bit"));
    EXPECT_EQ(bindings[1].getFormat(), getFormat("Real:64bit"));
}

TEST_F(TaskMatchTest, WritesOnlyWhatMayBeWritten) {
    m_task->addParameter(new ScalarParameter("a", getFormat("Real:64bit"), zelData::AccessMode::READ_WRITE));
    Vector<ParameterBinding> bindings{binding("Real:64bit")};
    EXPECT_EQ(m_task->matchParameters(bindings, false), 0xF80U);
    bindings[0].setWritable(true);
    EXPECT_EQ(m_task->matchParameters(bindings, false), 127U);
}

TEST_F(TaskMatchTest, PromotesFormatsInASecondLifeOfTheLibraryToo) {
    for (int life = 0; life < 2; ++life) {
        m_task->addParameter(real("a", "Real:64bit"));
        Vector<ParameterBinding> bindings{binding("Real:32bit", true)};
        EXPECT_EQ(m_task->matchParameters(bindings, true), 127U) << life;
        bindings.clear();
        TearDown();
        SetUp();
    }
}

TEST_F(TaskMatchTest, PromotesFormatsOfItsTable) {
    const std::pair<const char*, const char*> pairs[] = {
        {"Real:32bit", "Real:64bit"}, {"Real:64bit", "Real:32bit"}, {"Vec4:64bit", "Vec4:32bit"},
        {"Int:32bit", "UInt:32bit"},  {"Int:64bit", "Int:8bit"},    {"Int:64bit", "Int:16bit"},
        {"Int:64bit", "Int:32bit"},   {"Int:64bit", "UInt:8bit"},   {"Int:64bit", "UInt:16bit"},
        {"Int:64bit", "UInt:32bit"},  {"Int:64bit", "UInt:64bit"},  {"UInt:32bit", "Real:32bit"},
        {"UInt:32bit", "Real:64bit"}, {"UInt:32bit", "UInt:64bit"}, {"UInt:32bit", "Int:32bit"},
        {"UInt:32bit", "Int:64bit"},  {"UInt:64bit", "Real:32bit"}, {"UInt:64bit", "Real:64bit"},
        {"UInt:64bit", "Int:64bit"},
    };
    for (const auto& [from, to] : pairs) {
        const ref_ptr<SerialTask> task(new SerialTask("t"));
        task->addParameter(real("a", to));
        Vector<ParameterBinding> bindings{binding(from, true)};
        EXPECT_EQ(task->matchParameters(bindings, false), 0xF80U) << from;
        EXPECT_EQ(task->matchParameters(bindings, true), 127U) << from << " " << to;
        EXPECT_EQ(bindings[0].getFormat(), getFormat(to));
        Vector<ParameterBinding> stubborn{binding(from, false)};
        EXPECT_EQ(task->matchParameters(stubborn, true), 0xF80U) << from;
        EXPECT_EQ(stubborn[0].getFormat(), getFormat(from));
    }
    m_task->addParameter(real("a", "Int:32bit"));
    Vector<ParameterBinding> bindings{binding("Real:64bit", true)};
    EXPECT_EQ(m_task->matchParameters(bindings, true), 0xF80U); // not in the table
    bindings[0].setFormat(zelData::Format::Auto());
    EXPECT_EQ(m_task->matchParameters(bindings, true), 127U);
    EXPECT_EQ(bindings[0].getFormat(), getFormat("Int:32bit"));
}
