// What callbacks may do to a group that takes a subtask in.
#include <zel/SerialTask.h>
#include <zel/TaskGroup.h>
#include <zel/observer_ptr.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>

#include <gtest/gtest.h>
#include <support/WhatOf.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <utility>

using zel::ref_ptr;
using zel::SerialTask;
using zel::Task;
using zel::TaskGroup;
using zelTest::whatOf;

namespace {

class TaskGroupCallbackTest : public testing::Test {
protected:
    void SetUp() override { zelCore::init(); }
    void TearDown() override { zelCore::shutdown(); }

    /// A task that notes its name when it runs; for groups that run one at a time.
    SerialTask* noting(const char* name) {
        return new SerialTask(name, [this, name] { m_order += name; });
    }
    std::string run(Task* task) {
        m_order.clear();
        task->execute();
        return m_order;
    }

    std::string m_order;
};

} // namespace

TEST_F(TaskGroupCallbackTest, LeavesASubtaskAloneThatACallbackLetsGo) {
    const ref_ptr<TaskGroup> group(new TaskGroup("g", true));
    group->addSubtask(noting("a"));
    const zel::observer_ptr<Task> gone(new SerialTask("b"));
    const auto connection = group->addObjectEvent.connect(
        [](zel::Component* component, zel::Object* object) { component->removeObject(object); });
    group->addSubtask(gone.get());
    EXPECT_EQ(gone.get(), nullptr);
    EXPECT_EQ(group->getNumSubtasks(), 1U);
    group->addObjectEvent.disconnect(connection);
    group->addSubtask(noting("c"));
    EXPECT_EQ(run(group.get()), "ac");
}

TEST_F(TaskGroupCallbackTest, TakesASubtaskInWhereACallbackRemovesItsNeighbours) {
    const ref_ptr<TaskGroup> group(new TaskGroup("g", true));
    Task* const a = noting("a");
    group->addSubtask(a);
    group->addSubtask(noting("b"));
    const auto connection = group->addObjectEvent.connect([&](zel::Component*, zel::Object* object) {
        if (object->getName() == zel::Name("c"))
            group->removeAllSubtasks();
    });
    group->addSubtaskAfter(noting("c"), a);
    group->addObjectEvent.disconnect(connection);
    EXPECT_EQ(run(group.get()), "c");
}

TEST_F(TaskGroupCallbackTest, KeepsTheOrderWhereACallbackRemovesTheNeighbourOrPutsAnotherBetween) {
    const ref_ptr<TaskGroup> group(new TaskGroup("g", true));
    Task* const a = noting("a");
    Task* const b = noting("b");
    Task* const c = noting("c");
    for (Task* task : {a, b, c})
        group->addSubtask(task);
    std::function<void()> action = [&] { group->removeSubtask(b); };
    group->addObjectEvent.connect([&](zel::Component*, zel::Object*) {
        if (action)
            std::exchange(action, nullptr)();
    });
    const auto expectOrder = [&] {
        std::string names;
        for (const Task* task : group->getSubtasks())
            names += task->getName().str();
        for (size_t i = 1; i < group->getNumSubtasks(); ++i)
            EXPECT_TRUE(group->getSubtasks()[i]->hasDependency(group->getSubtasks()[i - 1])) << names;
        EXPECT_EQ(run(group.get()), names);
    };
    group->addSubtaskAfter(noting("d"), b);
    expectOrder();
    action = [&] { group->addSubtaskAfter(noting("e"), a); };
    group->addSubtaskAfter(noting("f"), a);
    expectOrder();
    action = [&] { group->removeSubtask(c); };
    group->addSubtaskBefore(noting("g"), c);
    expectOrder();
    action = [&] { group->removeSubtask(a); };
    group->addSubtaskBefore(noting("h"), a);
    expectOrder();
    EXPECT_EQ(group->getNumSubtasks(), 5U);
}

TEST_F(TaskGroupCallbackTest, TakesASubtaskInWhereACallbackThrows) {
    const ref_ptr<TaskGroup> group(new TaskGroup("g", true));
    group->addSubtask(noting("a"));
    const auto connection = group->addObjectEvent.connect(
        [](zel::Component*, zel::Object*) { throw std::runtime_error("callback"); });
    EXPECT_EQ(whatOf([&] { group->addSubtask(noting("b")); }), "callback");
    group->addObjectEvent.disconnect(connection);
    group->addSubtask(noting("c"));
    EXPECT_EQ(run(group.get()), "abc");
}

TEST_F(TaskGroupCallbackTest, CallsSubtasksThatOverrideRebindWheneverOthersComeAndGo) {
    struct Counting : SerialTask {
        using SerialTask::SerialTask;
        void rebind() override { ++rebinds; }
        int rebinds = 0;
    };
    const ref_ptr<TaskGroup> group(new TaskGroup("g"));
    auto* const counting = new Counting("a");
    group->addSubtask(counting);
    const int before = counting->rebinds;
    group->addSubtask(noting("b"));
    EXPECT_EQ(counting->rebinds, before + 1);
}
