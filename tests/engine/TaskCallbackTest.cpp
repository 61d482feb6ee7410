// What callbacks may do to a task while its parameters, subtasks and place change.
#include <zel/ArrayParameter.h>
#include <zel/Clock.h>
#include <zel/ScalarParameter.h>
#include <zel/SerialTask.h>
#include <zel/TaskGroup.h>
#include <zel/observer_ptr.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/Buffer.h>
#include <zelData/Format.h>
#include <zelData/Type.h>
#include <zelData/ValueT.h>

#include <gtest/gtest.h>
#include <support/LogCapture.h>
#include <support/WhatOf.h>

#include <stdexcept>
#include <string>
#include <utility>

using zel::Clock;
using zel::Component;
using zel::Name;
using zel::Object;
using zel::observer_ptr;
using zel::Parameter;
using zel::ref_ptr;
using zel::ScalarParameter;
using zel::SerialTask;
using zel::Task;
using zel::TaskGroup;
using zelTest::LogCapture;
using zelTest::whatOf;

namespace {

class TaskCallbackTest : public testing::Test {
protected:
    void SetUp() override { zelCore::init(); }
    void TearDown() override { zelCore::shutdown(); }

    static ScalarParameter* parameter() { return new ScalarParameter("x", zelData::getFormat("Real:64bit")); }
    static void fail(Component*, Object*) { throw std::runtime_error("no"); }
    /// The names of a group's subtasks.
    static std::string namesOf(const TaskGroup& group) {
        std::string names;
        for (const Task* subtask : group.getSubtasks())
            names += subtask->getName().c_str();
        return names;
    }
    static ref_ptr<TaskGroup> groupOfThree() {
        ref_ptr<TaskGroup> group(new TaskGroup("g", true));
        for (const char* name : {"a", "b", "c"})
            group->addSubtask(new SerialTask(name));
        return group;
    }
    /// What is told when an object goes whose callback throws at each child that leaves.
    template <typename T>
    static std::string whenGoing(T* created) {
        ref_ptr<T> object(created);
        object->removeObjectEvent.connect(&fail);
        const LogCapture log(zel::Notify::Warning);
        object = nullptr;
        return log.text();
    }
};

} // namespace

TEST_F(TaskCallbackTest, AnObjectWhoseCallbackThrowsGoesWithAWarning) {
    const std::string end = "' was destroyed: no\n";
    EXPECT_EQ(whenGoing(new SerialTask("t")), "While 'enable" + end);
    EXPECT_EQ(whenGoing(new Clock::Event("e")),
              "While 'enabled" + end + "While 'repeating" + end + "While 'interval" + end +
                  "While 'startDelay" + end);
    auto* const group = new TaskGroup("g");
    group->addSubtask(new SerialTask("s"));
    EXPECT_EQ(whenGoing(group), "While 'g" + end + "While 'enable" + end);
    auto* const clock = new Clock("c", 10);
    clock->addEvent(new Clock::Event("e"));
    EXPECT_NE(whenGoing(clock).find("While 'frame" + end), std::string::npos);
}

TEST_F(TaskCallbackTest, AMasterWhoseCallbackThrowsLetsADyingSlaveGoWithAWarning) {
    const ref_ptr<Clock> master(new Clock("m", 10));
    ref_ptr<Clock> slave(new Clock("s", 10));
    master->addSlave(slave.get());
    const zel::uint64 connection = master->removeObjectEvent.connect(&fail);
    const LogCapture log(zel::Notify::Warning);
    slave = nullptr;
    EXPECT_EQ(log.text(), "While 's' was destroyed: no\n");
    EXPECT_TRUE(master->getSlaves().empty());
    master->removeObjectEvent.disconnect(connection);
}

TEST_F(TaskCallbackTest, AParameterThatACallbackTakesOutAgainIsGone) {
    const ref_ptr<SerialTask> task(new SerialTask("t"));
    task->addObjectEvent.connect([&](Component*, Object* object) {
        if (auto* added = dynamic_cast<Parameter*>(object))
            task->removeParameter(added);
    });
    int numAdded = 0;
    task->parameterAddedEvent.connect([&](Task*, Parameter*) { ++numAdded; });
    const observer_ptr<Parameter> gone(parameter());
    task->addParameter(gone.get());
    EXPECT_EQ(gone.get(), nullptr);
    EXPECT_EQ(task->getNumParameters(), 0U);
    EXPECT_EQ(numAdded, 0);
}

TEST_F(TaskCallbackTest, ATaskThatACallbackLetsGoOfStaysUntilItsParameterIsIn) {
    for (const bool byEvent : {false, true}) {
        ref_ptr<SerialTask> task(new SerialTask("t"));
        const observer_ptr<Task> observed(task.get());
        if (byEvent)
            task->parameterAddedEvent.connect([&](Task*, Parameter*) { task = nullptr; });
        else
            task->addObjectEvent.connect([&](Component*, Object*) { task = nullptr; });
        observed->addParameter(parameter());
        EXPECT_EQ(observed.get(), nullptr);
    }
    ref_ptr<SerialTask> task(new SerialTask("t"));
    const observer_ptr<Task> observed(task.get());
    task->addParameter(parameter());
    task->removeObjectEvent.connect([&](Component*, Object*) { task = nullptr; });
    observed->removeParameter(size_t{0});
    EXPECT_EQ(observed.get(), nullptr);
}

TEST_F(TaskCallbackTest, ParametersComeAndGoWithTheirEventsWhereACallbackThrows) {
    const ref_ptr<SerialTask> task(new SerialTask("t"));
    task->addObjectEvent.connect(&fail);
    const zel::uint64 connection = task->removeObjectEvent.connect(&fail);
    int numAdded = 0;
    int numRemoved = 0;
    task->parameterAddedEvent.connect([&](Task*, Parameter*) { ++numAdded; });
    task->parameterRemovedEvent.connect([&](Task*, Parameter*) { ++numRemoved; });
    EXPECT_EQ(whatOf([&] { task->addParameter(parameter()); }), "no");
    EXPECT_EQ(task->getNumParameters(), 1U);
    EXPECT_EQ(numAdded, 1);
    EXPECT_EQ(whatOf([&] { task->removeParameter(size_t{0}); }), "no");
    EXPECT_EQ(task->getNumParameters(), 0U);
    EXPECT_EQ(numRemoved, 1);
    task->removeObjectEvent.disconnect(connection);
}

TEST_F(TaskCallbackTest, AParameterThatLeavesTheComponentLeavesTheTask) {
    ref_ptr<SerialTask> first(new SerialTask("first"));
    const ref_ptr<SerialTask> second(new SerialTask("second"));
    const ref_ptr<zel::ArrayParameter> array(
        new zel::ArrayParameter("p", zelData::getFormat("Real:64bit"), zelData::AccessMode::READ));
    first->addParameter(array.get());
    first->addParameter(parameter());
    int numRemoved = 0;
    first->parameterRemovedEvent.connect([&](Task*, Parameter*) { ++numRemoved; });
    first->removeObject(array.get());
    EXPECT_EQ(numRemoved, 1);
    EXPECT_EQ(array->getTask(), nullptr);
    ASSERT_EQ(first->getNumParameters(), 1U);
    EXPECT_EQ(first->getParameters()[0]->getIndex(), 0U);
    second->addParameter(array.get());
    first = nullptr;
    EXPECT_EQ(array->getTask(), second.get());
    const ref_ptr<zelData::Buffer> buffer(new zelData::Buffer("b", zelData::getFormat("Real:64bit")));
    array->bind(buffer.get());
    EXPECT_EQ(array->getBinding(), buffer.get());
}

TEST_F(TaskCallbackTest, ATaskIsReplacedWhereACallbackTakesOutItsNeighbours) {
    const ref_ptr<TaskGroup> group(groupOfThree());
    group->removeObjectEvent.connect([&](Component*, Object* object) {
        if (object->getName() == Name("b"))
            group->removeSubtask(Name("c"));
    });
    group->getSubtasks()[1]->replace(new SerialTask("n"));
    EXPECT_EQ(namesOf(*group), "an");
    EXPECT_TRUE(group->getSubtasks()[1]->hasDependency(group->getSubtasks()[0]));
    group->execute();
}

TEST_F(TaskCallbackTest, ATaskIsReplacedWhereACallbackLetsGoOfWhatDependsOnIt) {
    const ref_ptr<TaskGroup> group(groupOfThree());
    ref_ptr<Task> outer(new SerialTask("outer"));
    outer->addDependency(group->getSubtasks()[1]);
    group->removeObjectEvent.connect([&](Component*, Object*) { outer = nullptr; });
    group->getSubtasks()[1]->replace(new SerialTask("n"));
    EXPECT_EQ(namesOf(*group), "anc");
    group->execute();
}

TEST_F(TaskCallbackTest, ATaskIsReplacedWhereACallbackThrows) {
    const ref_ptr<TaskGroup> group(groupOfThree());
    const zel::uint64 connection = group->removeObjectEvent.connect(&fail);
    EXPECT_EQ(whatOf([&] { group->getSubtasks()[1]->replace(new SerialTask("n")); }), "no");
    EXPECT_EQ(namesOf(*group), "anc");
    EXPECT_TRUE(group->getSubtasks()[2]->hasDependency(group->getSubtasks()[1]));
    EXPECT_TRUE(group->getSubtasks()[1]->hasDependency(group->getSubtasks()[0]));
    group->removeObjectEvent.disconnect(connection);
}

TEST_F(TaskCallbackTest, ACallbackMayTakeOutTheTaskThatReplacesAnother) {
    const ref_ptr<Component> component(new Component("c"));
    component->addObject(new SerialTask("a"));
    component->addObjectEvent.connect(
        [](Component* parent, Object* object) { parent->removeObject(object); });
    const observer_ptr<Task> gone(new SerialTask("n"));
    dynamic_cast<Task*>(component->findObject("a"))->replace(gone.get());
    EXPECT_EQ(gone.get(), nullptr);
    EXPECT_EQ(component->getNumObjects(), 0U);
}

TEST_F(TaskCallbackTest, ACallbackOfALeavingSubtaskMayRemoveThemAll) {
    const ref_ptr<TaskGroup> group(groupOfThree());
    const zel::uint64 connection =
        group->removeObjectEvent.connect([&](Component*, Object*) { group->removeAllSubtasks(); });
    group->removeSubtask(Name("b"));
    EXPECT_EQ(group->getNumSubtasks(), 0U);
    group->removeObjectEvent.disconnect(connection); // it would meet the end of the group
}

TEST_F(TaskCallbackTest, AGroupThatACallbackLetsGoOfStaysUntilItsSubtasksAreOut) {
    ref_ptr<TaskGroup> group(groupOfThree());
    const observer_ptr<TaskGroup> observed(group.get());
    int numLeft = 0;
    group->removeObjectEvent.connect([&](Component*, Object* object) {
        if (dynamic_cast<Task*>(object) != nullptr)
            ++numLeft;
        group = nullptr;
    });
    observed->removeAllSubtasks();
    EXPECT_EQ(observed.get(), nullptr);
    EXPECT_EQ(numLeft, 3);
}

TEST_F(TaskCallbackTest, AllSubtasksLeaveWhereACallbackThrows) {
    const ref_ptr<TaskGroup> group(groupOfThree());
    const zel::uint64 connection = group->removeObjectEvent.connect(&fail);
    EXPECT_EQ(whatOf([&] { group->removeAllSubtasks(); }), "no");
    EXPECT_EQ(group->getNumSubtasks(), 0U);
    group->removeObjectEvent.disconnect(connection);
}

TEST_F(TaskCallbackTest, WhatACallbackAddsToADyingGroupGoesWithoutFarewell) {
    ref_ptr<TaskGroup> group(groupOfThree());
    TaskGroup* const dying = group.get();
    const ref_ptr<Task> late(new SerialTask("late"));
    bool adds = true;
    group->removeObjectEvent.connect([&](Component*, Object*) {
        if (std::exchange(adds, false))
            dying->addSubtask(late.get());
    });
    group = nullptr;
    EXPECT_EQ(late->getGroup(), nullptr);
    EXPECT_EQ(late->getContext(), nullptr);
    late->execute();
}
