#include "engine/TaskDisableHelper.h"

#include <zel/ParallelTask.h>
#include <zel/SerialTask.h>
#include <zel/TaskGroup.h>
#include <zel/Thread.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>

#include <support/TempDirectory.h>
#include <support/WhatOf.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

using zel::Job;
using zel::ParallelTask;
using zel::ref_ptr;
using zel::SerialTask;
using zel::Task;
using zel::TaskGroup;
using zel::Vector;

namespace {

class TaskGroupTest : public testing::Test {
protected:
    void SetUp() override {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        zelCore::init();
    }
    void TearDown() override { zelCore::shutdown(); }

    /// A task that notes its name when it runs.
    SerialTask* noting(const char* name) {
        return new SerialTask(name, [this, name] {
            const std::lock_guard lock(m_mutex);
            m_order += name;
        });
    }
    std::string run(Task* task) {
        m_order.clear();
        task->execute();
        return m_order;
    }

    std::mutex m_mutex;
    std::string m_order;
};
using TaskGroupDeathTest = TaskGroupTest;
using TaskEnableTest = TaskGroupTest;

std::string names(const Vector<Task*>& tasks) {
    std::string text;
    for (const Task* task : tasks)
        text += task->getName().str();
    return text;
}

} // namespace

TEST_F(TaskGroupTest, RunsNoSubtasksAtAll) {
    const ref_ptr<TaskGroup> group(new TaskGroup("g"));
    int ends = 0;
    group->postEvent.connect([&](Task*) { ++ends; });
    group->execute();
    group->execute();
    EXPECT_EQ(ends, 2);
}

TEST_F(TaskGroupTest, RunsEachSubtaskBetweenItsOwnJobs) {
    for (const size_t threads : {1U, 2U, 4U}) {
        zel::setNumThreads(threads);
        const ref_ptr<TaskGroup> group(new TaskGroup("g"));
        group->preEvent.connect([&](Task*) { m_order += '('; });
        group->postEvent.connect([&](Task*) { m_order += ')'; });
        for (int i = 0; i < 10; ++i)
            group->addSubtask(noting("x"));
        EXPECT_EQ(run(group.get()), "(xxxxxxxxxx)");
        EXPECT_EQ(run(group.get()), "(xxxxxxxxxx)");
        EXPECT_EQ(group->getNumSubtasks(), 10U);
        EXPECT_STREQ(group->getPreJob()->getName(), "Pre");
        EXPECT_STREQ(group->getPostJob()->getName(), "Post");
    }
}

TEST_F(TaskGroupTest, RunsSequentialSubtasksInOrder) {
    for (const size_t threads : {1U, 2U, 4U}) {
        zel::setNumThreads(threads);
        const ref_ptr<TaskGroup> group(new TaskGroup("g", true));
        group->addSubtask(noting("a"));
        group->addSubtask(noting("b"));
        group->addSubtask(noting("c"));
        for (int i = 0; i < 50; ++i)
            ASSERT_EQ(run(group.get()), "abc");
    }
}

TEST_F(TaskGroupTest, OwnsItsSubtasksAsChildren) {
    const ref_ptr<TaskGroup> group(new TaskGroup("g"));
    const ref_ptr<SerialTask> a(noting("a"));
    group->addSubtask(a.get());
    EXPECT_EQ(group->findObject("a"), a.get());
    EXPECT_EQ(a->getContext(), group.get());
    EXPECT_EQ(a->getGroup(), group.get());
    EXPECT_EQ(a->referenceCount(), 2);
}

TEST_F(TaskGroupTest, TellsOfEachSubtask) {
    struct Group : TaskGroup {
        using TaskGroup::TaskGroup;
        void subtaskAddedCallback(Task* subtask) override { added += subtask->getName().str(); }
        std::string added;
    };
    const ref_ptr<Group> group(new Group("g"));
    group->addSubtask(noting("a"));
    group->addSubtask(noting("b"));
    EXPECT_EQ(group->added, "ab");
}

TEST_F(TaskGroupTest, InsertsIntoTheChainOfASequentialGroup) {
    const ref_ptr<TaskGroup> group(new TaskGroup("g", true));
    SerialTask* a = noting("a");
    SerialTask* d = noting("d");
    group->addSubtask(a);
    group->addSubtask(d);
    SerialTask* b = noting("b");
    group->addSubtaskAfter(b, a);
    SerialTask* c = noting("c");
    group->addSubtaskBefore(c, d);
    group->addSubtaskBefore(noting("0"), a);
    group->addSubtaskAfter(noting("e"), d);
    group->addSubtaskBetween(noting("-"), b, c);
    EXPECT_EQ(names(group->getSubtasks()), "0ab-cde");
    EXPECT_EQ(names(d->getParents()), "c");
    EXPECT_EQ(names(a->getChildren()), "b");
    EXPECT_EQ(run(group.get()), "0ab-cde");
}

TEST_F(TaskGroupTest, AddsDependenciesAroundASubtaskOfAParallelGroup) {
    const ref_ptr<TaskGroup> group(new TaskGroup("g"));
    SerialTask* a = noting("a");
    SerialTask* c = noting("c");
    group->addSubtask(a);
    group->addSubtask(c);
    SerialTask* b = noting("b");
    group->addSubtaskBetween(b, a, c);
    EXPECT_EQ(names(b->getParents()), "a");
    EXPECT_EQ(names(b->getChildren()), "c");
    EXPECT_EQ(run(group.get()), "abc");
}

TEST_F(TaskGroupTest, ClosesTheGapThatASubtaskLeaves) {
    const ref_ptr<TaskGroup> group(new TaskGroup("g", true));
    for (const char* name : {"a", "b", "c", "d"})
        group->addSubtask(noting(name));
    EXPECT_TRUE(group->removeSubtask("b"));
    EXPECT_FALSE(group->removeSubtask("b"));
    EXPECT_FALSE(group->removeSubtask(group.get()));
    EXPECT_EQ(run(group.get()), "acd");
    EXPECT_TRUE(group->removeSubtask(group->getSubtasks()[2]));
    EXPECT_TRUE(group->removeSubtask("a"));
    EXPECT_EQ(run(group.get()), "c");
    group->removeAllSubtasks();
    EXPECT_EQ(run(group.get()), "");
    EXPECT_EQ(group->findObject("c"), nullptr);
}

TEST_F(TaskGroupTest, LetsASubtaskGoHoweverItLeaves) {
    const ref_ptr<TaskGroup> group(new TaskGroup("g"));
    const ref_ptr<SerialTask> a(noting("a"));
    const ref_ptr<SerialTask> b(noting("b"));
    group->addSubtask(a.get());
    group->addSubtask(b.get());
    group->removeObject(a.get());
    EXPECT_EQ(a->getGroup(), nullptr);
    EXPECT_EQ(run(group.get()), "b");
    group->removeAllObjects();
    EXPECT_EQ(group->getNumSubtasks(), 0U);
    EXPECT_EQ(run(group.get()), "");
    EXPECT_EQ(run(a.get()), "a"); // alone, as any task
}

TEST_F(TaskGroupTest, LeavesNoDependencyOnATaskThatIsGone) {
    const ref_ptr<TaskGroup> group(new TaskGroup("g"));
    const ref_ptr<SerialTask> a(noting("a"));
    const ref_ptr<SerialTask> b(noting("b"));
    group->addSubtask(a.get());
    group->addSubtask(b.get());
    b->addDependency(a.get());
    group->removeSubtask(a.get());
    EXPECT_FALSE(b->hasDependency(a.get()));
    EXPECT_EQ(run(group.get()), "b");
}

TEST_F(TaskGroupTest, SerializesWhatLacksOrder) {
    const ref_ptr<TaskGroup> group(new TaskGroup("g"));
    for (const char* name : {"a", "b", "c"})
        group->addSubtask(noting(name));
    Task* b = group->getSubtasks()[1];
    b->addDependency(group->getSubtasks()[0]);
    group->serialize(false);
    EXPECT_EQ(names(b->getParents()), "a");
    EXPECT_EQ(names(group->getSubtasks()[2]->getParents()), "b");
    EXPECT_FALSE(group->isSequential());
    group->serialize(true);
    EXPECT_TRUE(group->isSequential());
    group->setSequential(false);
    group->addSubtask(noting("d"));
    EXPECT_TRUE(group->getSubtasks()[3]->getParents().empty());
    group->setSequential(true);
    EXPECT_EQ(names(group->getSubtasks()[3]->getParents()), "c");
}

TEST_F(TaskGroupTest, RunsGroupsInGroups) {
    for (const size_t threads : {1U, 4U}) {
        zel::setNumThreads(threads);
        const ref_ptr<TaskGroup> outer(new TaskGroup("outer", true));
        outer->addSubtask(noting("a"));
        auto* inner = new TaskGroup("inner", true);
        inner->addSubtask(noting("b"));
        inner->addSubtask(noting("c"));
        outer->addSubtask(inner);
        outer->addSubtask(noting("d"));
        for (int i = 0; i < 20; ++i)
            ASSERT_EQ(run(outer.get()), "abcd");
        std::string walk;
        outer->traverse([&](Task* task) { walk += task->getName().str() + " "; }, true);
        EXPECT_EQ(walk, "outer a inner b c d ");
        walk.clear();
        outer->traverse([&](Task* task) { walk += task->getName().str() + " "; }, false);
        EXPECT_EQ(walk, "a b c inner d outer ");
    }
}

TEST_F(TaskGroupTest, OrdersTasksOfDifferentGroups) {
    const ref_ptr<TaskGroup> outer(new TaskGroup("outer"));
    auto* first = new TaskGroup("first");
    auto* second = new TaskGroup("second");
    SerialTask* a = noting("a");
    SerialTask* b = noting("b");
    first->addSubtask(a);
    second->addSubtask(b);
    outer->addSubtask(first);
    outer->addSubtask(second);
    a->addDependency(b);
    EXPECT_EQ(run(outer.get()), "ba");
    second->setEnable(false);
    EXPECT_EQ(run(outer.get()), "a");
    EXPECT_EQ(run(outer.get()), "a");
    second->setEnable(true);
    first->setEnable(false);
    EXPECT_EQ(run(outer.get()), "b");
    EXPECT_EQ(run(outer.get()), "b");
    first->setEnable(true);
    EXPECT_EQ(run(outer.get()), "ba");
}

TEST_F(TaskGroupTest, SumsWhatItsSubtasksCost) {
    Task::setProfilingMode(Task::ProfilingFull);
    const ref_ptr<TaskGroup> group(new TaskGroup("g"));
    group->addSubtask(noting("a"));
    group->addSubtask(noting("b"));
    group->execute();
    const auto& subtasks = group->getSubtasks();
    EXPECT_EQ(group->getComputeCost(), subtasks[0]->getComputeCost() + subtasks[1]->getComputeCost());
    EXPECT_GE(group->getOverhead(), subtasks[0]->getOverhead() + subtasks[1]->getOverhead());
    EXPECT_EQ(group->getNumAccumulatedRuns(), 1U);
    group->resetAccumulationTimers(true);
    EXPECT_EQ(subtasks[0]->getNumAccumulatedRuns(), 0U);
    Task::setProfilingMode(Task::ProfilingOff);
}

TEST_F(TaskGroupTest, RunsOnOneThreadIfToldSo) {
    zel::setNumThreads(2);
    const ref_ptr<TaskGroup> group(new TaskGroup("g"));
    zel::Thread* main = zel::Thread::getCurrentThread();
    for (int i = 0; i < 20; ++i)
        group->addSubtask(new SerialTask("t", [&] { EXPECT_EQ(zel::Thread::getCurrentThread(), main); }));
    group->setTargetThread(main);
    for (int i = 0; i < 20; ++i)
        group->execute();
}

TEST_F(TaskGroupTest, TakesATaskInPlaceOfAnother) {
    const ref_ptr<TaskGroup> group(new TaskGroup("g", true));
    for (const char* name : {"a", "b", "c"})
        group->addSubtask(noting(name));
    const ref_ptr<Task> b(group->getSubtasks()[1]);
    SerialTask* x = noting("x");
    b->replace(x);
    EXPECT_EQ(names(group->getSubtasks()), "axc");
    EXPECT_EQ(run(group.get()), "axc");
    EXPECT_EQ(b->getGroup(), nullptr);
    EXPECT_TRUE(b->getParents().empty());
    EXPECT_FALSE(group->getSubtasks()[2]->hasDependency(b.get()));
}

TEST_F(TaskGroupTest, ReplacesATaskOfAPlainComponent) {
    const ref_ptr<zel::Component> component(new zel::Component("c"));
    const ref_ptr<SerialTask> a(noting("a"));
    const ref_ptr<SerialTask> b(noting("b"));
    component->addObject(a.get());
    b->addDependency(a.get());
    SerialTask* x = noting("x");
    a->replace(x);
    EXPECT_EQ(component->findObject("x"), x);
    EXPECT_EQ(component->findObject("a"), nullptr);
    EXPECT_EQ(names(b->getParents()), "x");
}

// Dot graphs

TEST_F(TaskGroupTest, WritesItsDependenciesAsAGraph) {
    const zelTest::TempDirectory directory;
    const auto old = std::filesystem::current_path();
    std::filesystem::current_path(directory.path().c_str());
    const ref_ptr<TaskGroup> group(new TaskGroup("one two three"));
    group->addSubtask(noting("a"));
    group->addSubtask(noting("b \"quoted\""));
    group->getSubtasks()[1]->addDependency(group->getSubtasks()[0]);
    group->writeDependencyDotGraph();
    std::ifstream file("one_two_three.dot");
    std::stringstream text;
    text << file.rdbuf();
    const std::string a = std::to_string(group->getSubtasks()[0]->getId());
    const std::string b = std::to_string(group->getSubtasks()[1]->getId());
    EXPECT_EQ(text.str(),
              "digraph {\n  " + a + " [label=\"a\"];\n  " + b + " [label=\"b \\\"quoted\\\"\"];\n\n  " + a +
                  " -> " + b + ";\n}\n");
    // The tool is installed with the other tools of the project, but a user may build without it.
    if (std::system("command -v dot > /dev/null") == 0) {                     // NOLINT(concurrency-mt-unsafe)
        EXPECT_EQ(std::system("dot -Tsvg one_two_three.dot > graph.svg"), 0); // NOLINT(concurrency-mt-unsafe)
        EXPECT_GT(std::filesystem::file_size("graph.svg"), 0U);
    }
    std::filesystem::current_path(old);
}

TEST_F(TaskGroupTest, SaysWhichGraphItCouldNotWrite) {
    const ref_ptr<TaskGroup> group(new TaskGroup("no/such/folder"));
    EXPECT_EQ(zelTest::whatOf([&] { group->writeDependencyDotGraph(); }),
              "Could not write the file 'no/such/folder.dot'");
}

// What ends the process

TEST_F(TaskGroupDeathTest, RefusesBadSubtasks) {
    const ref_ptr<TaskGroup> group(new TaskGroup("g"));
    const ref_ptr<TaskGroup> other(new TaskGroup("h"));
    const ref_ptr<SerialTask> a(noting("a"));
    const ref_ptr<SerialTask> b(noting("b"));
    group->addSubtask(a.get());
    EXPECT_DEATH(group->addSubtask(nullptr), "g: Adding nullptr subtask");
    EXPECT_DEATH(group->addSubtaskAfter(nullptr, a.get()), "zelVerify failed: `subtask'");
    EXPECT_DEATH(group->addSubtask(a.get()), "Subtask 'g.a' is already part of a group!");
    EXPECT_DEATH(other->addSubtask(a.get()), "Subtask 'g.a' is already part of a group!");
    EXPECT_DEATH(group->addSubtaskAfter(b.get(), b.get()), "g: 'b' is not a subtask of the group");
    EXPECT_DEATH(group->addSubtaskBefore(b.get(), nullptr), "g: 'nullptr' is not a subtask of the group");
}

TEST_F(TaskGroupDeathTest, FindsLoopsThroughGroups) {
    const ref_ptr<TaskGroup> group(new TaskGroup("g"));
    const ref_ptr<SerialTask> a(noting("a"));
    group->addSubtask(a.get());
    EXPECT_DEATH(a->addDependency(group.get()), "Detected dependency loop between g and g.a");
    EXPECT_DEATH(group->addDependency(a.get()), "Detected dependency loop between g.a and g");
    const ref_ptr<SerialTask> b(noting("b"));
    b->addDependency(a.get());
    EXPECT_DEATH(group->addDependency(b.get()), "Detected dependency loop between b and g");
}

// The enable switch

TEST_F(TaskEnableTest, PassesADisabledTask) {
    const ref_ptr<SerialTask> task(noting("a"));
    int events = 0;
    task->preEvent.connect([&](Task*) { ++events; });
    task->postEvent.connect([&](Task*) { ++events; });
    task->setEnable(false);
    EXPECT_FALSE(task->isEnabled());
    EXPECT_TRUE(task->isPassed());
    EXPECT_EQ(run(task.get()), "");
    EXPECT_EQ(events, 0);
    task->setEnable(true);
    EXPECT_EQ(run(task.get()), "a");
    EXPECT_EQ(events, 2);
}

TEST_F(TaskEnableTest, IsAValueOfTheTask) {
    const ref_ptr<SerialTask> task(noting("a"));
    auto* value = dynamic_cast<zelData::Value*>(task->getResource("enable"));
    ASSERT_NE(value, nullptr);
    const ref_ptr<zelData::ValueT<bool>> other(new zelData::ValueT<bool>("other", false));
    value->bind(other.get());
    EXPECT_EQ(run(task.get()), "");
    other->set(true);
    EXPECT_EQ(run(task.get()), "a");
}

TEST_F(TaskEnableTest, FlowsThroughADisabledTask) {
    for (const size_t threads : {1U, 4U}) {
        zel::setNumThreads(threads);
        const ref_ptr<TaskGroup> group(new TaskGroup("g", true));
        for (const char* name : {"a", "b", "c", "d"})
            group->addSubtask(noting(name));
        group->getSubtasks()[1]->setEnable(false);
        group->getSubtasks()[2]->setEnable(false);
        for (int i = 0; i < 50; ++i)
            ASSERT_EQ(run(group.get()), "ad");
        group->getSubtasks()[2]->setEnable(true);
        for (int i = 0; i < 50; ++i)
            ASSERT_EQ(run(group.get()), "acd");
    }
}

TEST_F(TaskEnableTest, RunsOnlyTheGroupItselfWithAllSubtasksDisabled) {
    const ref_ptr<TaskGroup> group(new TaskGroup("g"));
    group->preEvent.connect([&](Task*) { m_order += '('; });
    group->postEvent.connect([&](Task*) { m_order += ')'; });
    for (int i = 0; i < 5; ++i) {
        SerialTask* task = noting("x");
        task->preEvent.connect([](Task*) { FAIL(); });
        task->setEnable(false);
        group->addSubtask(task);
    }
    EXPECT_EQ(run(group.get()), "()");
    EXPECT_EQ(run(group.get()), "()");
}

TEST_F(TaskEnableTest, PassesWhatIsInADisabledGroup) {
    const ref_ptr<TaskGroup> outer(new TaskGroup("outer"));
    auto* group = new TaskGroup("g");
    auto* inner = new TaskGroup("i");
    group->addSubtask(noting("a"));
    group->addSubtask(inner);
    inner->addSubtask(noting("b"));
    SerialTask* c = noting("c");
    c->setEnable(false);
    inner->addSubtask(c);
    outer->addSubtask(group);
    group->setEnable(false);
    EXPECT_EQ(run(outer.get()), "");
    EXPECT_TRUE(inner->isPassed());
    EXPECT_TRUE(inner->isEnabled());
    c->setEnable(true); // no matter
    EXPECT_EQ(run(outer.get()), "");
    c->setEnable(false);
    inner->setEnable(false);
    group->setEnable(true);
    EXPECT_EQ(run(outer.get()), "a");
    inner->setEnable(true);
    std::string order = run(outer.get());
    std::sort(order.begin(), order.end());
    EXPECT_EQ(order, "ab");
}

TEST_F(TaskGroupDeathTest, DisabledGroupKnowsItsSubtasks) {
    class OpenGroup : public TaskGroup {
    public:
        using TaskGroup::TaskGroup;
        void forget(Task* subtask) { getDisableHelper()->removeSubtask(subtask, true); }
    };
    const ref_ptr<OpenGroup> group(new OpenGroup("g"));
    const ref_ptr<SerialTask> stranger(noting("s"));
    group->setEnable(false);
    EXPECT_DEATH(group->forget(stranger.get()),
                 "zelVerify failed: `m_oldPreChildren.findAndErase\\(subtask->getPreJob\\(\\)\\)'");
}

TEST_F(TaskEnableTest, LetsSubtasksComeAndGoWhileTheGroupIsDisabled) {
    const ref_ptr<TaskGroup> group(new TaskGroup("g", true));
    const ref_ptr<SerialTask> a(noting("a"));
    group->addSubtask(a.get());
    group->setEnable(false);
    group->addSubtask(noting("b"));
    EXPECT_EQ(run(group.get()), "");
    group->removeSubtask(a.get());
    EXPECT_FALSE(a->isPassed());
    EXPECT_EQ(run(a.get()), "a");
    group->setEnable(true);
    EXPECT_EQ(run(group.get()), "b");
}

TEST_F(TaskEnableTest, CutsTheJobsOfAParallelTask) {
    const ref_ptr<ParallelTask> task(new ParallelTask("p"));
    int runs = 0;
    Job first([&] { ++runs; });
    Job second([&] { ++runs; });
    task->addJob(&first);
    task->setEnable(false);
    task->execute();
    task->addJob(&second);
    task->execute();
    EXPECT_EQ(runs, 0);
    task->setEnable(true);
    task->execute();
    EXPECT_EQ(runs, 2);
    task->setEnable(false);
    task->removeAllJobs();
    task->execute();
    task->setEnable(true);
    task->execute();
    EXPECT_EQ(runs, 2);
}

TEST_F(TaskEnableTest, DiesInADisabledGroupAfterItsJobs) {
    ref_ptr<TaskGroup> group(new TaskGroup("g"));
    auto job = std::make_unique<Job>([] {});
    auto* task = new ParallelTask("p");
    task->addJob(job.get());
    group->addSubtask(task);
    group->setEnable(false);
    const ref_ptr<SerialTask> survivor(noting("a"));
    group->addSubtask(survivor.get());
    job = nullptr; // the jobs of a task may go first
    group = nullptr;
    EXPECT_FALSE(survivor->isPassed());
    EXPECT_EQ(run(survivor.get()), "a");
}

TEST_F(TaskEnableTest, KeepsWorkThatIsSetWhileDisabled) {
    const ref_ptr<SerialTask> task(noting("a"));
    task->setEnable(false);
    task->setDispatch([this] { m_order += 'z'; });
    EXPECT_EQ(run(task.get()), "");
    task->setEnable(true);
    EXPECT_EQ(run(task.get()), "z");
}

TEST_F(TaskEnableTest, ConnectsToTheNeighboursOfADisabledTask) {
    const ref_ptr<SerialTask> a(noting("a"));
    const ref_ptr<SerialTask> b(noting("b"));
    const ref_ptr<SerialTask> c(noting("c"));
    const ref_ptr<SerialTask> d(noting("d"));
    b->addDependency(a.get());
    c->addDependency(b.get());
    b->setEnable(false);
    d->connectToParent(b.get());
    EXPECT_EQ(d->getJob()->getDependencies(), zel::VectorPOD<Job*>({a->getJob()}));
    d->disconnectFromParent(b.get());
    EXPECT_TRUE(d->getJob()->getDependencies().empty());
    d->connectToChild(b.get());
    EXPECT_EQ(d->getJob()->getDependents(), zel::VectorPOD<Job*>({c->getJob()}));
    d->disconnectFromChild(b.get());
    EXPECT_TRUE(d->getJob()->getDependents().empty());
    EXPECT_EQ(c->getJob()->getNumDependencies(), 1U);
}

TEST_F(TaskEnableTest, WaitsForADisabledTaskToBePassed) {
    zel::setNumThreads(2);
    const ref_ptr<TaskGroup> group(new TaskGroup("g"));
    SerialTask* a = noting("a");
    group->addSubtask(a);
    a->setEnable(false);
    std::atomic<bool> done{false};
    std::thread waiter([&] {
        a->wait();
        done = true;
    });
    while (!done)
        group->execute();
    waiter.join();
    EXPECT_EQ(m_order, "");
}
