#include "support/LogCapture.h"
#include "support/MemoryDevice.h"
#include "support/ModelFiles.h"
#include "support/WhatOf.h"

#include <zel/Component.h>
#include <zel/CpuDevice.h>
#include <zel/LambdaKernel.h>
#include <zel/ScalarParameter.h>
#include <zel/SerialTask.h>
#include <zel/TaskGroup.h>
#include <zel/TaskPlugin.h>
#include <zel/Thread.h>
#include <zel/UnresolvedParameter.h>
#include <zel/UnresolvedTask.h>
#include <zel/XmlLoader.h>
#include <zel/ref_ptr.h>
#include <zelData/Type.h>
#include <zelData/Value.h>
#include <zelData/ValueT.h>

#include <tinyxml.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using zel::Component;
using zel::Device;
using zel::Name;
using zel::Path;
using zel::ref_ptr;
using zel::ScalarParameter;
using zel::Task;
using zel::TaskPlugin;
using zel::TaskPluginImplementationT;
using zel::UnresolvedTask;
using zelData::getFormat;
using zelData::Value;
using zelData::ValueT;
using zelTest::LogCapture;
using zelTest::whatOf;

namespace {

std::vector<std::string> s_runs; // what the tasks below have done; one thread at a time

/// Notes its name and the value of its parameter.
class Note final : public zel::SerialTask {
public:
    Note(const Name& name, Device* device) : SerialTask(name, device) {
        m_x = new ScalarParameter("x", getFormat("Real:64bit"));
        addParameter(m_x);
    }
    void run() override {
        s_runs.push_back(std::string(getName().c_str()) + " " + std::string(m_x->getValue()->toString()));
    }

private:
    ScalarParameter* m_x; // owned by the task
};

/// Another task of one name.
class Other final : public zel::SerialTask {
public:
    using SerialTask::SerialTask;
    Other(const Name& name, Device* device) : SerialTask(name, device) {}
    void run() override { s_runs.push_back("other"); }
};

enum class Thrown { RuntimeError, LogicError, Number };

/// A task that can not be made.
class Thrower final : public zel::SerialTask {
public:
    Thrower(const Name& name, Device* device) : SerialTask(name, device) {
        if (s_thrown == Thrown::RuntimeError)
            throw std::runtime_error("out of ink");
        if (s_thrown == Thrown::LogicError)
            throw std::logic_error("out of ink");
        throw 42;
    }
    static Thrown s_thrown;
};

Thrown Thrower::s_thrown = Thrown::RuntimeError;

double s_seconds = 0;

/// Lets the reports' clock stand.
class ReportClock {
public:
    ReportClock() {
        s_seconds = 0;
        UnresolvedTask::setReportClock([] { return s_seconds; });
    }
    ReportClock(const ReportClock&) = delete;
    ReportClock& operator=(const ReportClock&) = delete;
    ~ReportClock() { UnresolvedTask::setReportClock(nullptr); }
};

class UnresolvedTaskTest : public zelTest::ModelFiles {
protected:
    void SetUp() override {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        ModelFiles::SetUp();
        zel::setNumThreads(1);
        s_runs.clear();
        top = new Component("top");
    }
    void TearDown() override {
        top = nullptr;
        ModelFiles::TearDown();
    }

    /// Loads a model "Frame" of the elements and adds it below the top.
    Component* load(const std::string& content) {
        directory.write("Components/zel/Frame.zelComponent",
                        "<Component name='Frame'>\n" + content + "</Component>");
        const ref_ptr<Component> frame(Component::load("Frame", nullptr));
        if (frame)
            top->addObject(frame.get());
        return frame.get();
    }
    static Task* find(Component* component, const char* name) {
        return dynamic_cast<Task*>(component->findObject(name));
    }
    static zel::Vector<zel::String> split(const char* text) {
        zel::Vector<zel::String> parts;
        UnresolvedTask::splitParameters(text, parts);
        return parts;
    }

    LogCapture log{zel::Notify::Warning};
    ref_ptr<Component> top;
};
using UnresolvedTaskDeathTest = UnresolvedTaskTest;

struct NotePlugin {
    TaskPlugin plugin{"Tested.Note", Device::Type::Cpu};
    TaskPluginImplementationT<Note> note{plugin, "Note"};
};

} // namespace

// Calls

TEST_F(UnresolvedTaskTest, CallGivesNumberedParameters) {
    const ref_ptr<UnresolvedTask> task(UnresolvedTask::parse("  Math.Mul( @a ,@b )"));
    EXPECT_EQ(task->getImplementationName(), Path("Math.Mul"));
    EXPECT_STREQ(task->getName().c_str(), "UnresolvedTask(Math.Mul( @a ,@b ))");
    ASSERT_EQ(task->getProxyParameters().size(), 2U);
    EXPECT_STREQ(task->getProxyParameters()[0]->getName().c_str(), "arg0");
    EXPECT_STREQ(task->getProxyParameters()[1]->getName().c_str(), "arg1");
    EXPECT_FALSE(task->isReady());
}

TEST_F(UnresolvedTaskTest, SplitsAtTheOutermostBracket) {
    EXPECT_THAT(split("name(a, b, c)"), ElementsAre("name", "a", "b", "c"));
    EXPECT_THAT(split(" f ( a , g(b, h(c)) ) "), ElementsAre("f", "a", "g(b, h(c))"));
    EXPECT_THAT(split("f()"), ElementsAre("f"));
    EXPECT_THAT(split("f( )"), ElementsAre("f"));
    EXPECT_THAT(split("f(,)"), ElementsAre("f", "", ""));
    EXPECT_THAT(split("name"), ElementsAre("name"));
    EXPECT_THAT(split(""), ElementsAre(""));
    EXPECT_THAT(split("a, b"), ElementsAre("a, b"));
}

TEST_F(UnresolvedTaskTest, BracketsMustMatch) {
    EXPECT_EQ(whatOf([] { split("f(a"); }), "'f(a' is no call of a function: a bracket is not closed");
    EXPECT_EQ(whatOf([] { split("f)a"); }),
              "'f)a' is no call of a function: a bracket is closed that has not been opened");
    EXPECT_EQ(whatOf([] { split("f(a) b"); }),
              "'f(a) b' is no call of a function: there is something behind the last bracket");
    EXPECT_THAT(whatOf([] { split(std::string(10000, '(').c_str()); }),
                HasSubstr("nested more than 64 deep"));
}

TEST_F(UnresolvedTaskTest, NameAndDevice) {
    const ref_ptr<UnresolvedTask> task(new UnresolvedTask(Name(), nullptr, "a.B", "b"));
    EXPECT_STREQ(task->getName().c_str(), "UnresolvedTask(a.B)");
    EXPECT_STREQ(task->getInstanceName().c_str(), "b");
    EXPECT_EQ(task->getDevice(), zel::CpuDevice::instance());
    EXPECT_EQ(task->getInstance(), nullptr);
}

// In model files

TEST_F(UnresolvedTaskTest, ImplementationTakesThePlaceInTheTree) {
    const NotePlugin plugin;
    Component* const frame =
        load("<Value name='v' type='Real' value='3'/>"
             "<Task name='note' source='Tested.Note'><Value instance='x' bind='v'/></Task>");
    Task* const task = find(frame, "note");
    ASSERT_NE(dynamic_cast<Note*>(task), nullptr);
    EXPECT_EQ(frame->getNumObjects(), 2U);
    task->execute();
    dynamic_cast<Value*>(frame->findObject("v"))->setExpression("4");
    task->execute();
    EXPECT_THAT(s_runs, ElementsAre("note 3", "note 4"));
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(UnresolvedTaskTest, ParametersBindInAnotherComponentAndToAnotherTask) {
    const NotePlugin plugin;
    directory.write("Components/zel/Part.zelComponent",
                    "<Component name='Part'><Value name='x' type='Real' value='3'/></Component>");
    Component* const frame =
        load("<Component name='part' source='Part'/>"
             "<Task name='a' source='Tested.Note'><Value instance='x' source='part'/></Task>"
             "<Task name='b' source='Tested.Note'><Value instance='x' task='a'/></Task>"
             "<Task name='c' source='Tested.Note'><Value instance='x' source='part' bind='x'/></Task>");
    for (const char* name : {"a", "b", "c"}) {
        ASSERT_NE(dynamic_cast<Note*>(find(frame, name)), nullptr) << name;
        find(frame, name)->execute();
    }
    EXPECT_THAT(s_runs, ElementsAre("a 3", "b 3", "c 3"));
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(UnresolvedTaskTest, LiteralsTakeTheTypeOfTheImplementation) {
    const NotePlugin plugin;
    Component* const frame =
        load("<Task name='a' source='Tested.Note'><Value instance='x' value='2.5'/></Task>"
             "<Task name='b' source='Tested.Note'><Value instance='x' value='Real(7)'/></Task>"
             "<Task name='c' source='Tested.Note'><Value instance='x' type='Int' value='7'/></Task>");
    find(frame, "a")->execute();
    find(frame, "b")->execute();
    EXPECT_THAT(s_runs, ElementsAre("a 2.5", "b 7"));
    EXPECT_NE(dynamic_cast<UnresolvedTask*>(find(frame, "c")), nullptr); // an integer is asked for
}

TEST_F(UnresolvedTaskTest, GroupRunsItInItsPlaceWithItsDependencies) {
    const NotePlugin plugin;
    Component* const frame = load("<TaskGroup name='group'>"
                                  "<Task name='second' source='Tested.Note' depends='first'/>"
                                  "<Task name='off' source='Tested.Note' enable='false'/>"
                                  "<Task name='first' source='Tested.Note'/>"
                                  "</TaskGroup>");
    auto* const group = dynamic_cast<zel::TaskGroup*>(frame->findObject("group"));
    ASSERT_NE(group, nullptr);
    ASSERT_EQ(group->getNumSubtasks(), 3U);
    for (Task* task : group->getSubtasks())
        EXPECT_NE(dynamic_cast<Note*>(task), nullptr);
    EXPECT_FALSE(find(group, "off")->isEnabled());
    group->execute();
    group->execute();
    EXPECT_THAT(s_runs, ElementsAre("first 0", "second 0", "first 0", "second 0"));
}

TEST_F(UnresolvedTaskTest, MissingImplementationIsReportedAndTheRunGoesOn) {
    const NotePlugin plugin;
    Component* const frame = load("<Value name='v' type='Real' value='3'/>"
                                  "<TaskGroup name='group' sequential='true'>"
                                  "<Task name='missing' source='Tested.Missing'>"
                                  "<Value instance='x' bind='v'/><Value instance='y' bind='nowhere'/>"
                                  "<Buffer instance='z' bind='nothing'/></Task>"
                                  "<Task name='note' source='Tested.Note'/>"
                                  "</TaskGroup>");
    auto* const group = dynamic_cast<zel::TaskGroup*>(frame->findObject("group"));
    const std::string report =
        "Unresolved task found in task graph! No implementation has been found for requested task "
        "'Tested.Missing'\n"
        "The following is a list of the parameters found in the unresolved task, along with its current "
        "state:\n"
        "  parameter instance 'x' is valid, autoBinds to v, bound to top.Frame.v\n"
        "  parameter instance 'y' is NOT valid, autoBinds to nowhere, bound to nullptr\n"
        "  parameter instance 'z' is NOT valid, autoBinds to nothing, bound to nullptr\n";
    const auto reports = [&] { return std::count(log.texts().begin(), log.texts().end(), report); };
    EXPECT_EQ(reports(), 0);
    group->execute();
    EXPECT_EQ(reports(), 1);
    group->execute();
    EXPECT_THAT(s_runs, ElementsAre("note 0", "note 0"));
}

TEST_F(UnresolvedTaskTest, OfManyImplementationsThoseThatFitBestAreTold) {
    TaskPlugin plugin("Tested.Many", Device::Type::Cpu);
    const TaskPluginImplementationT<Other> a(plugin, "A");
    const TaskPluginImplementationT<Other> b(plugin, "B");
    const TaskPluginImplementationT<Other> c(plugin, "C");
    const TaskPluginImplementationT<Other> d(plugin, "D");
    const TaskPluginImplementationT<Note> note(plugin, "Note");
    load("<Value name='v' type='Real' value='3'/><Task name='many' source='Tested.Many'>"
         "<Value instance='x' bind='v'/><Value instance='y' bind='v'/></Task>");
    const std::string text = log.texts().back();
    EXPECT_THAT(text, HasSubstr("\nThe implementation 'Note' takes:\n  'x' (SCALAR)"));
    EXPECT_THAT(text, HasSubstr("\nThe implementation 'A' takes:\n  and no 'x', which is given\n"));
    EXPECT_THAT(text, HasSubstr("\nThe implementation 'B' takes:"));
    EXPECT_EQ(text.find("'C'"), std::string::npos);
    EXPECT_THAT(text, testing::EndsWith("\n... and 2 more implementations\n"));
}

TEST_F(UnresolvedTaskTest, EqualReportsAreCountedInALineASecond) {
    Component* const frame = load("<Value name='v' type='Real' value='3'/>\n"
                                  "<Task name='missing' source='Tested.Missing'>"
                                  "<Value instance='x' bind='v'/></Task>");
    Task* const missing = find(frame, "missing");
    const auto told = [this](const std::string& text) {
        return std::count_if(log.texts().begin(), log.texts().end(), [&text](const std::string& message) {
            return message.find(text) != std::string::npos;
        });
    };
    const ReportClock clock;
    missing->execute();
    EXPECT_EQ(told("Unresolved task found in task graph!"), 1);
    size_t before = log.texts().size();
    for (int i = 0; i < 1000; ++i) {
        s_seconds += 0.0005;
        missing->execute();
    }
    EXPECT_EQ(log.texts().size(), before) << log.texts().back();
    s_seconds += 1;
    missing->execute();
    EXPECT_EQ(log.texts().size(), before + 1);
    EXPECT_EQ(log.texts().back(),
              "The task 'top.Frame.missing' (file '" + directory.path("Components/zel/Frame.zelComponent") +
                  "', row 3) has run 1001 more times without the implementation 'Tested.Missing'\n");
    missing->execute();
    s_seconds += 2;
    missing->execute();
    EXPECT_THAT(log.texts().back(), HasSubstr("has run 2 more times"));
    // What changes is told in full, and why there is nothing still.
    before = log.texts().size();
    directory.write("Components/zel/Tested/Missing.zelTask", "<Task name='Other' implementation='Other'/>");
    frame->removeObject(frame->findObject("v"));
    missing->execute();
    EXPECT_EQ(told("Unresolved task found in task graph!"), 2);
    EXPECT_EQ(told("Missing.zelTask' holds no task 'Missing' that fits"), 1);
    missing->execute();
    EXPECT_EQ(told("Unresolved task found in task graph!"), 2);
    EXPECT_EQ(told("Missing.zelTask' holds no task 'Missing' that fits"), 1);
}

TEST_F(UnresolvedTaskTest, SearchThatFailsIsNotRepeatedUntilAFileChanges) {
    const std::string content = "<Kernel name='Dim' device='CPU'/>";
    directory.write("Components/zel/Tested/Dim.zelKernel", content);
    Component* const frame = load("<Task name='dim' source='Tested.Dim'/>");
    Task* const dim = find(frame, "dim");
    const ReportClock clock;
    dim->execute();
    const auto missing = [this] {
        return std::count_if(log.texts().begin(), log.texts().end(), [](const std::string& message) {
            return message.rfind("TaskManager::create(...): Could not load plugin 'Tested.Dim'", 0) == 0;
        });
    };
    EXPECT_EQ(missing(), 1) << log.text();
    for (int i = 0; i < 10; ++i)
        dim->execute();
    EXPECT_EQ(missing(), 1) << log.text();
    directory.write("Components/zel/Tested/Dim.zelKernel", content + "\n");
    dim->execute();
    EXPECT_EQ(missing(), 2) << log.text();
}

TEST_F(UnresolvedTaskTest, ParameterOfUnknownKindIsReportedAsNotResolved) {
    const ref_ptr<UnresolvedTask> task(UnresolvedTask::parse("Tested.Missing(@nowhere)"));
    task->report();
    EXPECT_THAT(log.texts().back(),
                HasSubstr("\n  parameter instance 'arg0' (autoBind: @nowhere) is not resolved\n"));
}

TEST_F(UnresolvedTaskTest, ImplementationThatComesLaterRunsAndThenTakesThePlace) {
    Component* const frame =
        load("<Task name='note' source='Tested.Note'><Value instance='x' value='1'/></Task>");
    Task* const proxy = find(frame, "note");
    proxy->execute();
    EXPECT_THAT(s_runs, IsEmpty());
    const NotePlugin plugin;
    proxy->execute(); // the graph stays as it is while it runs
    EXPECT_EQ(find(frame, "note"), proxy);
    EXPECT_THAT(s_runs, ElementsAre("note 1"));
    top->rebind();
    EXPECT_NE(dynamic_cast<Note*>(find(frame, "note")), nullptr);
    find(frame, "note")->execute();
    EXPECT_THAT(s_runs, ElementsAre("note 1", "note 1"));
}

TEST_F(UnresolvedTaskTest, WhatAParameterNamesMayComeLater) {
    const NotePlugin plugin;
    Component* const frame =
        load("<Task name='note' source='Tested.Note'><Value instance='x' bind='late'/></Task>");
    EXPECT_NE(dynamic_cast<UnresolvedTask*>(find(frame, "note")), nullptr);
    frame->addObject(new ValueT<double>("late", 8));
    ASSERT_NE(dynamic_cast<Note*>(find(frame, "note")), nullptr);
    find(frame, "note")->execute();
    EXPECT_THAT(s_runs, ElementsAre("note 8"));
}

TEST_F(UnresolvedTaskTest, InnermostNamespaceWins) {
    TaskPlugin outer("Act", Device::Type::Cpu);
    const TaskPluginImplementationT<Other> outerAct(outer, "Act");
    TaskPlugin inner("Zoo.Act", Device::Type::Cpu);
    const TaskPluginImplementationT<Note> innerAct(inner, "Act");
    const auto resolve = [](const char* proxyPath) {
        const ref_ptr<UnresolvedTask> task(new UnresolvedTask(Name(), nullptr, "Act", "act"));
        task->setProxyPath(proxyPath);
        EXPECT_TRUE(task->instantiateProxy());
        return dynamic_cast<Note*>(task->getInstance()) != nullptr;
    };
    EXPECT_TRUE(resolve("Zoo"));
    EXPECT_TRUE(resolve("Zoo.Cage"));
    EXPECT_FALSE(resolve("Park"));
    EXPECT_FALSE(resolve(""));
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(UnresolvedTaskTest, NamespaceIsThatOfTheFile) {
    TaskPlugin inner("Zoo.Act", Device::Type::Cpu);
    const TaskPluginImplementationT<Other> act(inner, "Act");
    directory.write("Components/zel/Zoo/Cage.zelComponent",
                    "<Component name='Cage'><Task name='t' source='Act'/></Component>");
    const ref_ptr<Component> cage(Component::load("Zoo.Cage", nullptr));
    top->addObject(cage.get());
    EXPECT_NE(dynamic_cast<Other*>(cage->findObject("t")), nullptr);
}

TEST_F(UnresolvedTaskTest, KernelsTakeTheirSettings) {
    struct Plain final : zel::LambdaKernel {
        Plain(const Name& name, Device* device)
            : LambdaKernel(
                  name, [](const zel::RangeJob&) {}, device) {}
    };
    TaskPlugin plugin("Tested.Plain", Device::Type::Cpu);
    const TaskPluginImplementationT<Plain> plain(plugin, "Plain");
    Component* const frame =
        load("<Value name='n' type='UInt' value='32'/>"
             "<Task name='k' source='Tested.Plain' numJobsPerThread='2'>"
             "<Value instance='minJobSize' value='64'/><Value instance='maxJobSize' bind='n'/></Task>");
    auto* const kernel = dynamic_cast<zel::Kernel*>(frame->findObject("k"));
    ASSERT_NE(kernel, nullptr);
    EXPECT_EQ(kernel->getNumJobsPerThread(), 2U);
    EXPECT_EQ(kernel->getMinJobSize(), 64U);
    EXPECT_EQ(kernel->getMaxJobSize(), 32U);
}

TEST_F(UnresolvedTaskTest, BoundSwitchStaysBound) {
    const NotePlugin plugin;
    Component* const frame = load("<Value name='on' type='Bool' value='false'/>"
                                  "<Task name='note' source='Tested.Note' enable='@on'/>");
    ASSERT_NE(dynamic_cast<Note*>(find(frame, "note")), nullptr);
    EXPECT_FALSE(find(frame, "note")->isEnabled());
    dynamic_cast<Value*>(frame->findObject("on"))->setExpression("true");
    EXPECT_TRUE(find(frame, "note")->isEnabled());
}

TEST_F(UnresolvedTaskTest, TaskFileStandsForAnotherTaskWithItsParameters) {
    const NotePlugin plugin;
    directory.write("Components/zel/Alias.zelTask",
                    "<Task name='Alias' implementation='Alias' source='Tested.Note'/>");
    Component* const frame = load("<Value name='v' type='Real' value='3'/>"
                                  "<Task name='t' source='Alias'><Value instance='x' bind='v'/></Task>");
    ASSERT_NE(dynamic_cast<Note*>(find(frame, "t")), nullptr);
    find(frame, "t")->execute();
    EXPECT_THAT(s_runs, ElementsAre("t 3"));
}

TEST_F(UnresolvedTaskTest, TaskFilesThatStandForEachOtherAreUnresolved) {
    directory.write("Components/zel/A.zelTask", "<Task name='A' implementation='A' source='B'/>");
    directory.write("Components/zel/B.zelTask", "<Task name='B' implementation='B' source='A'/>");
    Component* const frame = load("<Task name='t' source='A'/>");
    find(frame, "t")->execute();
    EXPECT_THAT(log.text(), HasSubstr("Load loop detected for task"));
}

TEST_F(UnresolvedTaskTest, TriesAreThoseTold) {
    const NotePlugin plugin;
    directory.write("Components/zel/Tested/Described.zelKernel",
                    "<Kernel name='Described' dispatch='Tested.Note'/>");
    const LogCapture all(zel::Notify::Info);
    const ref_ptr<UnresolvedTask> task(new UnresolvedTask("proxy", nullptr, "Described", "d"));
    task->setProxyPath("Tested");
    task->tryKernel();
    ASSERT_NE(dynamic_cast<Note*>(task->getInstance()), nullptr);
    EXPECT_THAT(all.text(), HasSubstr("Proxy 'proxy' realized as Kernel: Tested.Described\n"));
    EXPECT_STREQ(task->getInstance()->getName().c_str(), "d");

    directory.write("Components/zel/Tested/Written.zelTask", "<Task name='Written' source='Tested.Note'/>");
    const ref_ptr<UnresolvedTask> other(new UnresolvedTask("proxy", nullptr, "Written", "w"));
    other->setProxyPath("Tested.Inner");
    other->tryTask();
    ASSERT_NE(other->getInstance(), nullptr);
    EXPECT_THAT(all.text(), HasSubstr("Proxy 'proxy' realized as Task: Tested.Written\n"));
}

TEST_F(UnresolvedTaskTest, FromTheCpuThereIsNoOtherDeviceToGoTo) {
    const ref_ptr<UnresolvedTask> task(new UnresolvedTask(Name(), nullptr, "Tested.Note", "note"));
    task->swapDevice();
    EXPECT_EQ(task->getDevice(), zel::CpuDevice::instance());
}

TEST_F(UnresolvedTaskTest, TaskForTheCpuAloneIsFoundFromADeviceOfNoKindAfterTheSwap) {
    const NotePlugin plugin;
    const ref_ptr<zelTest::MemoryDevice> device(
        new zelTest::MemoryDevice(Device::NativeByteOrder, static_cast<Device::Type>(0xFFFFFFFFU)));
    const ref_ptr<UnresolvedTask> task(new UnresolvedTask(Name(), device.get(), "Tested.Note", "note"));
    task->performLoadAttempts();
    EXPECT_EQ(task->getInstance(), nullptr);
    EXPECT_TRUE(task->instantiateProxy());
    EXPECT_EQ(task->getDevice(), zel::CpuDevice::instance());
    ASSERT_NE(dynamic_cast<Note*>(task->getInstance()), nullptr);
    EXPECT_EQ(task->getInstance()->getDevice(), zel::CpuDevice::instance());
}

TEST_F(UnresolvedTaskTest, TaskOfAnotherDeviceIsFoundThere) {
    TaskPlugin plugin("Tested.Elsewhere", zelTest::MemoryDevice::DeviceType);
    const TaskPluginImplementationT<Other> implementation(plugin, "Other");
    const ref_ptr<zelTest::MemoryDevice> device(new zelTest::MemoryDevice);
    const ref_ptr<UnresolvedTask> there(
        new UnresolvedTask(Name(), device.get(), "Tested.Elsewhere", "there"));
    EXPECT_TRUE(there->instantiateProxy());
    EXPECT_EQ(there->getInstance()->getDevice(), device.get());
    const ref_ptr<UnresolvedTask> here(new UnresolvedTask(Name(), nullptr, "Tested.Elsewhere", "here"));
    EXPECT_FALSE(here->instantiateProxy());
}

TEST_F(UnresolvedTaskDeathTest, DeviceOfAnUnknownTypeEndsTheProcess) {
    EXPECT_DEATH(
        {
            const ref_ptr<zelTest::MemoryDevice> device(new zelTest::MemoryDevice);
            const ref_ptr<UnresolvedTask> task(new UnresolvedTask(Name(), device.get(), "a", "a"));
            task->swapDevice();
        },
        "UnresolvedTask found a Device::Type enum value that it doesn't know how to create.");
}

TEST_F(UnresolvedTaskTest, ElementsWithoutSourceArePlaceholders) {
    const LogCapture all(zel::Notify::Info);
    Component* const frame = load("<Task name='later'/>");
    EXPECT_THAT(all.text(), HasSubstr("Creating dummy task for path later\n"));
    auto* const dummy = dynamic_cast<zel::DummyTask*>(frame->findObject("Dummy task: later"));
    ASSERT_NE(dummy, nullptr);
    dummy->execute();
}

TEST_F(UnresolvedTaskTest, PlaceholdersAndTasksWithoutANameMayDependOnOthers) {
    const NotePlugin plugin;
    Component* const frame = load("<TaskGroup name='group'><Task name='later' depends='first'/>"
                                  "<Task source='Tested.Note' depends='first'/>"
                                  "<Task name='first' source='Tested.Note'/></TaskGroup>");
    find(frame, "group")->execute();
    EXPECT_THAT(s_runs, ElementsAre("first 0", "Note 0"));
}

TEST_F(UnresolvedTaskTest, BadElementsAreRefusedWithTheRow) {
    const auto what = [](const char* text) {
        TiXmlDocument document;
        document.Parse(text);
        return whatOf([&] { static_cast<void>(UnresolvedTask::load(document.RootElement(), nullptr)); });
    };
    EXPECT_THAT(what("<Task/>"), HasSubstr("XML error: Must specify a name for the task. Error at row 1"));
    EXPECT_THAT(what("<Task name='t' source='a' device='Toaster'/>"),
                HasSubstr("XML error: Unknown device type Toaster. Error at row 1"));
    EXPECT_THAT(what("<Task name='t' source='a'>\n<Argument name='x'/></Task>"),
                HasSubstr("XML error: Argument is old syntax.... Error at row 2"));
    EXPECT_THAT(what("<Task name='t' source='a' wait='b'/>"), HasSubstr("Old syntax, use depends instead"));
}

TEST_F(UnresolvedTaskTest, BadSettingOfAFoundTaskLeavesItUnresolvedAndIsTold) {
    const NotePlugin plugin;
    load("<Task name='note' source='Tested.Note'>\n<Value instance='y' value='1'/></Task>");
    EXPECT_THAT(log.text(), HasSubstr("XML error: No parameter with name 'y'. Error at row 3"));
    EXPECT_THAT(log.text(), HasSubstr("Frame.zelComponent"));
}

TEST_F(UnresolvedTaskTest, ImplementationThatThrowsIsReportedAndTheRunGoesOn) {
    TaskPlugin plugin("Tested.Thrower", Device::Type::Cpu);
    const TaskPluginImplementationT<Thrower> thrower(plugin, "Thrower");
    const NotePlugin notes;
    for (const Thrown thrown : {Thrown::RuntimeError, Thrown::LogicError, Thrown::Number}) {
        Thrower::s_thrown = thrown;
        const LogCapture told(zel::Notify::Warning);
        const std::string what = thrown == Thrown::Number ? "an exception of an unknown type" : "out of ink";
        Component* const frame = load("<TaskGroup name='group' sequential='true'>"
                                      "<Task name='bad' source='Tested.Thrower'/>"
                                      "<Task name='note' source='Tested.Note'/>"
                                      "</TaskGroup>");
        EXPECT_THAT(told.text(),
                    HasSubstr("The implementation 'Thrower' of plug-in 'Tested.Thrower' has thrown while it "
                              "was made: " +
                              what + "\n"));
        EXPECT_THAT(told.text(),
                    HasSubstr("has no implementation 'Tested.Thrower'\nThe implementation 'Thrower' has "
                              "thrown while it was made: " +
                              what));
        s_runs.clear();
        dynamic_cast<zel::TaskGroup*>(frame->findObject("group"))->execute();
        EXPECT_THAT(s_runs, ElementsAre("note 0"));
        EXPECT_THAT(told.text(), HasSubstr("Unresolved task found in task graph!"));
        const ref_ptr<UnresolvedTask> call(UnresolvedTask::parse("Tested.Thrower()"));
        EXPECT_FALSE(call->instantiateProxy());
        top->removeObject(frame);
    }
}

TEST_F(UnresolvedTaskTest, DescriptionThatCanNotBeReadIsTheReasonTold) {
    const NotePlugin plugin;
    zel::Notify::instance()->setThrowOnError(false);
    directory.write("Components/zel/Tested/Note.zelKernel", "<Kernel name='Note'>\n<");
    load("<Task name='note' source='Tested.Note'><Value instance='x' value='1'/></Task>");
    zel::Notify::instance()->setThrowOnError(true);
    EXPECT_THAT(log.text(), HasSubstr("Tested/Note.zelKernel' can not be read: row "));
    EXPECT_THAT(log.text(), testing::Not(HasSubstr("takes:")));
    EXPECT_THAT(log.text(), testing::Not(HasSubstr("gives no plug-in")));
}

TEST_F(UnresolvedTaskTest, ImplementationThatFitsIsNotSaidToTakeSomethingElse) {
    const NotePlugin plugin;
    load("<Task name='note' source='Tested.Note'><Value instance='x' value='Real(1)'/>"
         "<Value instance='y' value='1'/></Task>");
    EXPECT_THAT(log.text(), HasSubstr("No parameter with name 'y'"));
    EXPECT_THAT(log.text(), HasSubstr("\nThe implementation 'Note' fits\nThe search has ended with: "));
    EXPECT_THAT(log.text(), testing::Not(HasSubstr("takes:")));
}

TEST_F(UnresolvedTaskTest, RetainedTasksGoWithTheNextCreation) {
    class Watched final : public UnresolvedTask {
    public:
        explicit Watched(bool& gone) : UnresolvedTask(Name(), nullptr, "a", "a"), m_gone(gone) {}
        ~Watched() override { m_gone = true; }

    private:
        bool& m_gone;
    };
    bool gone = false;
    (new Watched(gone))->retain();
    EXPECT_FALSE(gone);
    UnresolvedTask::deleteAllConfiguredProxies();
    EXPECT_TRUE(gone);
    for (int i = 0; i < 100000; ++i) // as many as need no stack
        (new UnresolvedTask("u", nullptr, "a", "a"))->retain();
    UnresolvedTask::deleteAllConfiguredProxies();
}

// Initializers

TEST_F(UnresolvedTaskTest, InitializerRunsOnceWhenTheComponentIsLoaded) {
    const NotePlugin plugin;
    Component* const frame = load("<Init source='Tested.Note'><Value instance='x' bind='v'/></Init>"
                                  "<Value name='v' type='Real' value='6'/>");
    EXPECT_THAT(s_runs, ElementsAre("Note 6"));
    EXPECT_EQ(frame->getNumObjects(), 1U);
}

TEST_F(UnresolvedTaskTest, SecondInitializerIsRefusedWithTheRow) {
    const NotePlugin plugin;
    const std::string what =
        whatOf([&] { load("<Init source='Tested.Note'/>\n<Init source='Tested.Note'/>"); });
    EXPECT_THAT(what, HasSubstr("XML error: Only one initializer plz!. Error at row 3"));
    EXPECT_THAT(s_runs, IsEmpty());
}

TEST_F(UnresolvedTaskTest, InitializerWithoutImplementationIsReportedAndGone) {
    Component* const frame = load("<Init source='Tested.Missing'/>");
    EXPECT_THAT(log.text(),
                HasSubstr("No implementation has been found for requested task 'Tested.Missing'"));
    EXPECT_EQ(frame->getNumObjects(), 0U);
    load("<Init/>");
    EXPECT_TRUE(zel::Object::getEnableRebind());
}
