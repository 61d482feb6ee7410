#include <zel/Clock.h>
#include <zel/Component.h>
#include <zel/Model.h>
#include <zel/PointerParameter.h>
#include <zel/SerialTask.h>
#include <zel/Statistics.h>
#include <zel/TaskGroup.h>
#include <zel/XmlLoader.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/ValueT.h>

#include <support/LogCapture.h>
#include <support/ModelFiles.h>
#include <support/StreamCapture.h>
#include <support/TempDirectory.h>
#include <support/WhatOf.h>
#include <tinyxml.h>

#include <iostream>
#include <memory>
#include <sstream>
#include <string>

using testing::HasSubstr;
using zel::Component;
using zel::Object;
using zel::Path;
using zel::ref_ptr;
using zel::SerialTask;
using zel::Task;
using zel::TaskGroup;
using zelTest::whatOf;

namespace {

/// A tag of the tests' own: a task that notes its name.
std::string& order() {
    static std::string text;
    return text;
}

const zel::XmlLoaderRegistrator s_noting("TestNoting", [](zel::TiXmlElement* element, zel::Device* device) {
    const auto name = zel::parseAttribute<zel::Name>(element, "name");
    ref_ptr<SerialTask> task(new SerialTask(
        name, [name] { order() += name.str(); }, device));
    task->configure(element);
    return static_cast<Object*>(task.release_nodelete());
});

class TaskXmlTest : public testing::Test {
protected:
    void SetUp() override {
        zelCore::init();
        order().clear();
    }
    void TearDown() override { zelCore::shutdown(); }

    ref_ptr<Object> load(const std::string& element) {
        m_document = Object::openDocument(m_directory.write("t.xml", element));
        return ref_ptr<Object>(Object::load(m_document->RootElement(), nullptr));
    }
    ref_ptr<TaskGroup> group(const std::string& elements) {
        return ref_ptr<TaskGroup>(
            dynamic_cast<TaskGroup*>(load("<TaskGroup name='g'>" + elements + "</TaskGroup>").get()));
    }
    /// Configures a task by the element.
    void configure(Task* task, const std::string& element) {
        m_document = Object::openDocument(m_directory.write("t.xml", element));
        task->configure(m_document->RootElement());
    }
    std::string failure(const std::string& element) {
        m_document = Object::openDocument(m_directory.write("t.xml", element));
        return whatOf(
            [this] { const ref_ptr<TaskGroup> loaded(TaskGroup::load(m_document->RootElement(), nullptr)); });
    }

    zelTest::TempDirectory m_directory;
    std::unique_ptr<TiXmlDocument> m_document;
};
using TaskPathTest = TaskXmlTest;
using TaskPrintTest = TaskXmlTest;
using TaskStatisticsTest = TaskXmlTest;
using TaskModelTest = zelTest::ModelFiles;

} // namespace

TEST_F(TaskXmlTest, LoadsAGroupWithItsSubtasks) {
    const ref_ptr<Object> object = load("<TaskGroup name='g' sequential='true'>"
                                        "<description>of two</description>"
                                        "<TestNoting name='a'/><TestNoting name='b' enable='false'/>"
                                        "<TestNoting name='c'/><Value name='v' type='Real' value='1'/>"
                                        "</TaskGroup>");
    auto* group = dynamic_cast<TaskGroup*>(object.get());
    ASSERT_NE(group, nullptr);
    EXPECT_TRUE(group->isSequential());
    EXPECT_EQ(group->getNumSubtasks(), 3U);
    EXPECT_NE(group->findObject("v"), nullptr);
    group->execute();
    EXPECT_EQ(order(), "ac");
}

TEST_F(TaskXmlTest, LoadsGroupsInGroupsWithDependencies) {
    const ref_ptr<TaskGroup> top =
        group("<TestNoting name='a' depends='i'/>"
              "<TaskGroup name='i'>"
              "<TestNoting name='b' depends='c'/><TestNoting name='c'/></TaskGroup>"
              "<TestNoting name='d'/>"
              "<dependency parent='d' child='i.c'/>");
    top->execute();
    EXPECT_EQ(order(), "dcba");
}

TEST_F(TaskXmlTest, ConfiguresAnInstance) {
    const ref_ptr<TaskGroup> top = group("<TestNoting name='a'/><TestNoting instance='a' "
                                         "enable='false'/><Value instance='enable' value='true'/>");
    EXPECT_FALSE(top->getSubtasks()[0]->isEnabled());
    EXPECT_TRUE(top->isEnabled());
}

TEST_F(TaskXmlTest, BindsTheSwitchToAValue) {
    const ref_ptr<Component> component(new Component("top"));
    const ref_ptr<zelData::ValueT<bool>> value(new zelData::ValueT<bool>("on", false));
    component->addObject(value.get());
    component->addObject(load("<TestNoting name='a' enable='on'/>").get());
    component->addObject(load("<TestNoting name='b' enable='@on'/>").get());
    auto* a = dynamic_cast<Task*>(component->findObject("a"));
    auto* b = dynamic_cast<Task*>(component->findObject("b"));
    EXPECT_FALSE(a->isEnabled());
    EXPECT_FALSE(b->isEnabled());
    value->set(true);
    EXPECT_TRUE(a->isEnabled());
    EXPECT_TRUE(b->isEnabled());
}

TEST_F(TaskXmlTest, ExecutesWhatDispatchNames) {
    const ref_ptr<Component> component(new Component("top"));
    component->addObject(load("<TestNoting name='a'/>").get());
    const ref_ptr<SerialTask> task(new SerialTask("t"));
    configure(task.get(), "<Task name='t' dispatch='a'/>");
    component->addObject(task.get());
    task->execute();
    EXPECT_EQ(order(), "a");
}

TEST_F(TaskXmlTest, AnEmptyDependencyIsNone) {
    const ref_ptr<TaskGroup> group(new TaskGroup("g"));
    configure(group.get(), "<TaskGroup name='g'><TestNoting name='a' depends=''/></TaskGroup>");
    group->execute();
    EXPECT_EQ(order(), "a");
}

TEST_F(TaskXmlTest, RefusesBadElements) {
    EXPECT_THAT(failure("<TaskGroup/>"), HasSubstr("XML error: Must specify a name for the task!"));
    EXPECT_THAT(failure("<TaskGroup name='g' wait='x'/>"),
                HasSubstr("XML error: Old syntax, use depends instead"));
    EXPECT_THAT(failure("<TaskGroup name='g'><Argument name='x'/></TaskGroup>"),
                HasSubstr("XML error: Argument is old syntax..."));
    EXPECT_THAT(failure("<TaskGroup name='g'><TestNoting name='a' depends='b'/></TaskGroup>"),
                HasSubstr("XML error: Could not locate subtask 'b'"));
    EXPECT_THAT(
        failure("<TaskGroup name='g'><TestNoting name='a'/><dependency parent='x' child='a'/></TaskGroup>"),
        HasSubstr("XML error: Could not find dependency parent node 'x'"));
    EXPECT_THAT(
        failure("<TaskGroup name='g'><TestNoting name='a'/><dependency parent='a' child='x'/></TaskGroup>"),
        HasSubstr("XML error: Could not find dependency child node 'x'"));
    EXPECT_THAT(
        failure("<TaskGroup name='g'><TestNoting name='a'/><dependency parent='' child='a'/></TaskGroup>"),
        HasSubstr("XML error: Could not find dependency parent node ''"));
    EXPECT_THAT(failure("<TaskGroup name='g'><TestNoting name='a'/><dependency parent='a'/></TaskGroup>"),
                HasSubstr("XML error: "));
    for (const char* tag : {"Value", "Pointer", "Buffer", "Storage", "HashTable"})
        EXPECT_THAT(failure(std::string("<TaskGroup name='g'><") + tag + " instance='x'/></TaskGroup>"),
                    HasSubstr("XML error: No parameter with name 'x'"));
    EXPECT_THAT(failure("<TaskGroup name='g'><Object instance='x'/></TaskGroup>"),
                HasSubstr("XML error: Could not find instance 'x'"));
    EXPECT_THAT(failure("<TaskGroup name='g' sequential='maybe'/>"), HasSubstr("XML error: "));
    EXPECT_THAT(
        failure("<TaskGroup name='g'><TestNoting name='a'/><TestNoting instance='a' name='b'/></TaskGroup>"),
        HasSubstr("XML error: The task 'g.a' can not be renamed"));
}

TEST_F(TaskXmlTest, LoadsOnlyTasksAsTasks) {
    m_document = Object::openDocument(m_directory.write("t.xml", "<Value name='v'/>"));
    EXPECT_THAT(whatOf([this] { static_cast<void>(Task::load(m_document->RootElement(), nullptr)); }),
                HasSubstr("XML error: 'Value' is no task"));
    m_document = Object::openDocument(m_directory.write("t.xml", "<TaskGroup name='g'/>"));
    const ref_ptr<Task> task(Task::load(m_document->RootElement(), nullptr));
    EXPECT_EQ(task->getName(), zel::Name("g"));
}

TEST_F(TaskXmlTest, SaysThatItCanNotBeSaved) {
    const ref_ptr<SerialTask> task(new SerialTask("t"));
    const zelTest::StreamCapture out(std::cout);
    TiXmlElement element("e");
    task->save(&element);
    EXPECT_EQ(out.text(), "Task::save() TODO Implementation\n");
}

TEST_F(TaskModelTest, DescribesATaskByAFile) {
    directory.write("Components/zel/Step.zelTask", "<Task name='Step' implementation='zel.SomeTask'/>");
    zel::Model* model = zel::Model::getModel("Step");
    ASSERT_NE(model, nullptr);
    EXPECT_TRUE(model->is(Task::ClassModel()));
    EXPECT_EQ(model->getImplementationName(), zel::Name("zel.SomeTask"));
}

TEST_F(TaskModelTest, RefusesADescriptionWithoutAName) {
    directory.write("Components/zel/Bad.zelTask", "<Task/>");
    EXPECT_THAT(whatOf([] { static_cast<void>(zel::Model::getModel("Bad")); }),
                HasSubstr("XML error: Must specify a name for the task!. Error at row 1"));
}

// Paths

TEST_F(TaskPathTest, DependsOnATaskOnceItIsThere) {
    const ref_ptr<Component> component(new Component("top"));
    const ref_ptr<SerialTask> a(new SerialTask("a"));
    const ref_ptr<SerialTask> b(new SerialTask("b"));
    b->addDependency(Path("a"));
    component->addObject(b.get());
    EXPECT_TRUE(b->getParents().empty());
    component->addObject(a.get());
    EXPECT_EQ(b->getParents(), zel::Vector<Task*>({a.get()}));
    component->rebind();
    EXPECT_EQ(b->getParents().size(), 1U);
}

TEST_F(TaskPathTest, ExecutesWhenATriggerIsUpdated) {
    const ref_ptr<Component> component(new Component("top"));
    const ref_ptr<zelData::ValueT<double>> value(new zelData::ValueT<double>("v", 0));
    component->addObject(value.get());
    int runs = 0;
    ref_ptr<SerialTask> task(new SerialTask("t", [&] {
        ++runs;
        value->set(5); // not a trigger of its own
    }));
    task->addTriggerPath("v");
    value->set(1);
    EXPECT_EQ(runs, 0);
    component->addObject(task.get());
    value->set(2);
    EXPECT_EQ(runs, 1);
    component->removeObject(task.get());
    value->set(3);
    EXPECT_EQ(runs, 1);
    component->addObject(task.get());
    component->removeObject(value.get());
    component->rebind();
    value->set(4);
    EXPECT_EQ(runs, 1);
    task = nullptr;
    value->set(5);
}

TEST_F(TaskPathTest, LeavesATreeWithoutAWord) {
    const ref_ptr<Component> component(new Component("top"));
    ref_ptr<Component> inner(new Component("inner"));
    component->addObject(inner.get());
    component->addObject(new zelData::ValueT<double>("v", 0));
    const ref_ptr<SerialTask> task(new SerialTask("t"));
    auto* parameter = new zel::PointerParameter("p", Path("v"));
    task->addParameter(parameter);
    zelTest::LogCapture log;
    inner->addObject(task.get());
    EXPECT_TRUE(parameter->isValid());
    component->removeObject(inner.get());
    EXPECT_FALSE(parameter->isValid());
    EXPECT_EQ(log.text(), "");
    inner->rebind();
    EXPECT_THAT(log.text(), HasSubstr("has 1 unresolved parameters"));
}

TEST_F(TaskPathTest, RunsInTheFramesOfAClockThatATriggerNames) {
    const ref_ptr<Component> component(new Component("top"));
    const ref_ptr<zel::Clock> clock(new zel::Clock("clock", 10));
    component->addObject(clock.get());
    int runs = 0;
    ref_ptr<SerialTask> task(new SerialTask("t", [&runs] { ++runs; }));
    task->addTriggerPath("clock");
    clock->tick();
    EXPECT_EQ(runs, 0);
    component->addObject(task.get());
    clock->tick();
    clock->tick();
    EXPECT_EQ(runs, 2);
    component->rebind();
    clock->tick();
    EXPECT_EQ(runs, 3);
    component->removeObject(task.get());
    clock->tick();
    EXPECT_EQ(runs, 3);
    component->addObject(task.get());
    component->removeObject(task.get());
    task = nullptr;
    clock->tick();
    EXPECT_EQ(runs, 3);
}

TEST_F(TaskPathTest, TaskOfAGroupIsInNoFrameOfItsOwn) {
    const ref_ptr<Component> component(new Component("top"));
    component->addObject(new zel::Clock("clock", 10));
    auto* task = new SerialTask("t");
    const ref_ptr<TaskGroup> owner(new TaskGroup("g"));
    owner->addSubtask(task);
    component->addObject(owner.get());
    task->addTriggerPath("clock");
    EXPECT_EQ(whatOf([&] { task->rebind(); }),
              "top.g.t: A task of a group can not run in the frames of the clock 'top.clock'");
}

TEST_F(TaskPathTest, GivesItsTriggersToTheTaskThatReplacesIt) {
    const ref_ptr<Component> component(new Component("top"));
    const ref_ptr<zel::Clock> clock(new zel::Clock("clock", 10));
    const ref_ptr<zelData::ValueT<double>> value(new zelData::ValueT<double>("v", 0));
    component->addObject(clock.get());
    component->addObject(value.get());
    std::string runs;
    const ref_ptr<SerialTask> old(new SerialTask("t", [&runs] { runs += 'o'; }));
    old->addTriggerPath("clock");
    old->addTriggerPath("v");
    component->addObject(old.get());
    clock->tick();
    value->set(1);
    EXPECT_EQ(runs, "oo");
    const ref_ptr<SerialTask> fresh(new SerialTask("t", [&runs] { runs += 'f'; }));
    old->replace(fresh.get());
    clock->tick();
    value->set(2);
    EXPECT_EQ(runs, "ooff");
    old->rebind();
    value->set(3);
    EXPECT_EQ(runs, "oofff");
}

TEST_F(TaskPathTest, MayBeReplacedByWhatItsOwnTriggerRuns) {
    const ref_ptr<Component> component(new Component("top"));
    const ref_ptr<zelData::ValueT<double>> value(new zelData::ValueT<double>("v", 0));
    component->addObject(value.get());
    int runs = 0;
    const ref_ptr<SerialTask> fresh(new SerialTask("t", [&runs] { ++runs; }));
    ref_ptr<SerialTask> old(new SerialTask("t"));
    old->setDispatch([&] { old->replace(fresh.get()); });
    old->addTriggerPath("v");
    component->addObject(old.get());
    value->set(1);
    const int first = runs;
    value->set(2);
    EXPECT_EQ(runs, first + 1);
}

TEST_F(TaskPathTest, RebindsWhenAResolvingValueIsUpdated) {
    struct Counting : SerialTask {
        using SerialTask::SerialTask;
        void rebind() override {
            ++rebinds;
            SerialTask::rebind();
        }
        int rebinds = 0;
    };
    const ref_ptr<Component> component(new Component("top"));
    const ref_ptr<zelData::ValueT<double>> value(new zelData::ValueT<double>("v", 0));
    component->addObject(value.get());
    const ref_ptr<Counting> task(new Counting("t"));
    task->addResolvePath("v");
    component->addObject(task.get());
    const int before = task->rebinds;
    value->set(2);
    EXPECT_EQ(task->rebinds, before + 1);
}

TEST_F(TaskPathTest, LooksInItsBindContextAsWell) {
    const ref_ptr<Component> component(new Component("top"));
    const ref_ptr<Component> other(new Component("other"));
    const ref_ptr<zelData::ValueT<double>> value(new zelData::ValueT<double>("v", 0));
    other->addObject(value.get());
    component->addObject(other.get());
    const ref_ptr<SerialTask> task(new SerialTask("t"));
    configure(task.get(), "<Task name='t' bindContext='other'/>");
    component->addObject(task.get());
    EXPECT_EQ(task->getResource("v"), value.get());
    EXPECT_EQ(task->getResource("w"), nullptr);
    component->removeObject(other.get());
    component->rebind();
    EXPECT_EQ(task->getResource("v"), nullptr);
}

// Listings

TEST_F(TaskPrintTest, ListsParametersAndSubtasks) {
    const ref_ptr<TaskGroup> top = group("<TestNoting name='a'/><TestNoting name='b'/>");
    std::ostringstream text;
    top->print(text);
    EXPECT_EQ(text.str(),
              "--== Task: g ==--\n"
              "[Parameters (0)]\n"
              "[Subtasks (2)]\n"
              "  a\n"
              "  b\n"
              "--== END ==--\n");
}

TEST_F(TaskPrintTest, PutsAMatchInWords) {
    const zelTest::StreamCapture out(std::cout);
    Task::printParameterMatch(0xFFF);
    EXPECT_EQ(out.text(),
              "Match failed:\n"
              " A parameter is still unbound\n"
              " A binding didn't have a type\n"
              " A binding's typde didn't match the corresponding parameter's type.\n"
              " Was given a binding that didn't have a corresponding parameter.\n"
              " Something was wrong with the parameter list. Need debugger.\n"
              "No-fail events:\n"
              " Given empty binding list. Kernel matched by default.\n"
              " Found a valid parameter. No new binding required.\n"
              " Found an optional parameter. No new binding required.\n"
              " Found an already bound parameter. No new binding required.\n"
              " Found a parameter with a bind path. No new binding required.\n"
              " Found a binding-parameter pair with the same format.\n"
              " Found a binding-parameter which will require data transformations.\n");
}

// Statistics

TEST_F(TaskStatisticsTest, ReportsItsTimes) {
    Task::setProfilingMode(Task::ProfilingFull);
    zel::Statistics::setEnable(true);
    {
        const ref_ptr<TaskGroup> outer(new TaskGroup("outer"));
        auto* task = new SerialTask("inner", [] {});
        outer->addSubtask(task);
        outer->execute();
        outer->execute();
        zel::Statistics::setEnable(false);
        outer->execute(); // not counted
        zel::Statistics::setEnable(true);
        auto* wall = dynamic_cast<zel::StatisticsDataT<double>*>(
            zel::Statistics::instance()->getData("inner", "WallTime").get());
        ASSERT_NE(wall, nullptr);
        EXPECT_EQ(wall->getCount(), 2);
        EXPECT_GT(wall->getAccumulated(), 0);
        auto* overhead = dynamic_cast<zel::StatisticsDataT<double>*>(
            zel::Statistics::instance()->getData("outer", "Overhead").get());
        EXPECT_EQ(overhead->getCount(), 2);
        auto* computeCost = dynamic_cast<zel::StatisticsDataT<double>*>(
            zel::Statistics::instance()->getData("inner", "ComputeCost").get());
        ASSERT_NE(computeCost, nullptr);
        EXPECT_EQ(computeCost->getCount(), 0); // no run adds to it
        EXPECT_EQ(zel::Statistics::instance()->getData(static_cast<void*>(outer.get()), "inner.WallTime"),
                  wall);
    }
    EXPECT_EQ(zel::Statistics::instance()->getData("outer", "WallTime"), nullptr);
    zel::Statistics::setEnable(false);
    Task::setProfilingMode(Task::ProfilingOff);
}

TEST_F(TaskStatisticsTest, IsNoProviderWithoutStatistics) {
    const ref_ptr<SerialTask> task(new SerialTask("quiet"));
    task->execute();
    EXPECT_EQ(zel::Statistics::instance()->getData("quiet", "WallTime"), nullptr);
}

TEST_F(TaskStatisticsTest, ComplainsOfAnAddressThatIsTaken) {
    zel::Statistics::setEnable(true);
    alignas(SerialTask) static unsigned char place[sizeof(SerialTask)];
    zel::Statistics::instance()->registerDataProvider(place, "old", nullptr);
    const std::string what = whatOf([] { new (place) SerialTask("t"); });
    EXPECT_EQ(what,
              "A task tried to register itself as a task timing provider, but Statistics doesn't allow it.\n"
              "This happens when another provider was deleted without being unregistered, and this task took "
              "over its address.\n");
    zel::Statistics::instance()->unregisterDataProvider(place);
    zel::Statistics::setEnable(false);
}
