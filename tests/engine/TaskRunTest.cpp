// What a run consists of: dependencies between tasks that do not run together neither start nor hold
// anything.
#include <zel/Clock.h>
#include <zel/SerialTask.h>
#include <zel/TaskGroup.h>
#include <zel/Thread.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>

#include <gtest/gtest.h>

#include <mutex>
#include <string>

using zel::Clock;
using zel::ref_ptr;
using zel::SerialTask;
using zel::Task;
using zel::TaskGroup;

namespace {

class TaskRunTest : public testing::TestWithParam<size_t> {
protected:
    void SetUp() override {
        zelCore::init();
        zel::setNumThreads(GetParam());
    }
    void TearDown() override { zelCore::shutdown(); }

    /// A task that notes its name.
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
    std::string tick(Clock* clock, int count) {
        m_order.clear();
        for (int i = 0; i < count; ++i) {
            clock->tick(false);
            m_order += ' ';
        }
        return m_order;
    }

    /// Two groups below one, with a task each, of which the second waits for the first: an edge within "top".
    struct TwoGroups {
        ref_ptr<TaskGroup> top;
        TaskGroup* g;
        TaskGroup* h;
        SerialTask* a;
        SerialTask* b;
    };
    TwoGroups twoGroups() {
        TwoGroups all{ref_ptr<TaskGroup>(new TaskGroup("top")),
                      new TaskGroup("g"),
                      new TaskGroup("h"),
                      noting("a"),
                      noting("b")};
        all.top->addSubtask(all.g);
        all.top->addSubtask(all.h);
        all.g->addSubtask(all.a);
        all.h->addSubtask(all.b);
        all.b->addDependency(all.a);
        return all;
    }

    std::string m_order;
    std::mutex m_mutex;
};

class TaskRunDeathTest : public testing::Test {
protected:
    void SetUp() override {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        zelCore::init();
    }
    void TearDown() override { zelCore::shutdown(); }
};

INSTANTIATE_TEST_SUITE_P(Threads, TaskRunTest, testing::Values(1U, 2U, 4U));

} // namespace

// Clocks

TEST_P(TaskRunTest, ATaskOfASlaveRunsAfterTheMastersInTheFramesOfBoth) {
    const ref_ptr<Clock> master(new Clock("master", 10));
    const ref_ptr<Clock> slave(new Clock("slave", 5));
    master->addSlave(slave.get());
    const ref_ptr<SerialTask> m(noting("m"));
    const ref_ptr<SerialTask> s(noting("s"));
    s->addDependency(m.get());
    slave->addFrameTask(s.get());
    master->addFrameTask(m.get());
    EXPECT_EQ(tick(master.get(), 6), "m m m ms m ms ");
}

TEST_P(TaskRunTest, ATaskOfTheMasterRunsAfterTheSlavesInTheFramesOfBoth) {
    const ref_ptr<Clock> master(new Clock("master", 10));
    const ref_ptr<Clock> slave(new Clock("slave", 5));
    master->addSlave(slave.get());
    const ref_ptr<SerialTask> m(noting("m"));
    const ref_ptr<SerialTask> s(noting("s"));
    m->addDependency(s.get());
    slave->addFrameTask(s.get());
    master->addFrameTask(m.get());
    EXPECT_EQ(tick(master.get(), 6), "m m m sm m sm ");
}

TEST_P(TaskRunTest, SubtasksOfFrameTasksKeepTheirOrderAcrossTheGroups) {
    const ref_ptr<Clock> clock(new Clock("clock", 10));
    const ref_ptr<TaskGroup> g(new TaskGroup("g"));
    const ref_ptr<TaskGroup> h(new TaskGroup("h"));
    g->addSubtask(noting("g"));
    h->addSubtask(noting("h"));
    g->getSubtasks()[0]->addDependency(h->getSubtasks()[0]);
    clock->addFrameTask(g.get());
    clock->addFrameTask(h.get());
    EXPECT_EQ(tick(clock.get(), 2), "hg hg ");
    clock->removeFrameTask(h.get());
    EXPECT_EQ(tick(clock.get(), 2), "g g ");
    EXPECT_EQ(run(h.get()), "h");
}

TEST_P(TaskRunTest, ATaskOutsideOfTheFrameIsNotWaitedFor) {
    const ref_ptr<Clock> clock(new Clock("clock", 10));
    const ref_ptr<SerialTask> a(noting("a"));
    const ref_ptr<SerialTask> b(noting("b"));
    a->addDependency(b.get());
    clock->addFrameTask(a.get());
    clock->addFrameTask(b.get());
    EXPECT_EQ(tick(clock.get(), 2), "ba ba ");
    clock->removeFrameTask(b.get());
    EXPECT_EQ(tick(clock.get(), 2), "a a ");
    clock->addFrameTask(b.get());
    EXPECT_EQ(tick(clock.get(), 2), "ba ba ");
}

TEST_P(TaskRunTest, AFrameTaskMayJoinAGroupLater) {
    const ref_ptr<Clock> clock(new Clock("clock", 10));
    const ref_ptr<TaskGroup> group(new TaskGroup("group", true));
    const ref_ptr<SerialTask> b(noting("b"));
    clock->addFrameTask(b.get());
    group->addSubtask(noting("a"));
    group->addSubtask(b.get());
    group->addSubtask(noting("c"));
    EXPECT_EQ(tick(clock.get(), 3), "b b b ");
    EXPECT_EQ(run(group.get()), "abc");
    EXPECT_EQ(tick(clock.get(), 1), "b ");
}

TEST_P(TaskRunTest, AFrameTaskMayExecuteAnotherOneOfTheFrame) {
    const ref_ptr<Clock> clock(new Clock("clock", 10));
    const ref_ptr<SerialTask> b(noting("b"));
    const ref_ptr<SerialTask> a(new SerialTask("a", [&] { b->execute(); }));
    b->addDependency(a.get());
    clock->addFrameTask(a.get());
    clock->addFrameTask(b.get());
    EXPECT_EQ(tick(clock.get(), 3), "bb bb bb ");
}

// Groups

TEST_P(TaskRunTest, AGroupDoesNotStartTheGroupThatDependsOnIt) {
    const ref_ptr<TaskGroup> g(new TaskGroup("g"));
    const ref_ptr<TaskGroup> h(new TaskGroup("h"));
    g->addSubtask(noting("g"));
    h->addSubtask(noting("h"));
    h->addDependency(g.get());
    EXPECT_EQ(run(g.get()), "g");
    EXPECT_EQ(run(g.get()), "g");
    EXPECT_EQ(run(h.get()), "h");
    const ref_ptr<TaskGroup> both(new TaskGroup("both"));
    both->addSubtask(h.get());
    both->addSubtask(g.get());
    EXPECT_EQ(run(both.get()), "gh");
    EXPECT_EQ(run(g.get()), "g");
    EXPECT_EQ(run(h.get()), "h");
    EXPECT_EQ(run(both.get()), "gh");
}

TEST_P(TaskRunTest, ASubtaskExecutedAloneStartsNothingOfItsGroup) {
    const ref_ptr<TaskGroup> group(new TaskGroup("group", true));
    for (const char* name : {"a", "b", "c"})
        group->addSubtask(noting(name));
    int ends = 0;
    group->postEvent.connect([&](Task*) { ++ends; });
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(run(group->getSubtasks()[0]), "a");
        EXPECT_EQ(run(group->getSubtasks()[1]), "b");
        EXPECT_EQ(run(group->getSubtasks()[2]), "c");
    }
    EXPECT_EQ(ends, 0);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(run(group.get()), "abc");
    EXPECT_EQ(ends, 3);
}

TEST_P(TaskRunTest, ATaskOutsideMayDependOnASubtask) {
    const ref_ptr<TaskGroup> p(new TaskGroup("p"));
    p->addSubtask(noting("s"));
    const ref_ptr<SerialTask> outside(noting("o"));
    outside->addDependency(p->getSubtasks()[0]);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(run(p.get()), "s");
    EXPECT_EQ(run(outside.get()), "o");
}

TEST_P(TaskRunTest, AnEdgeDeepInTwoGroupsCountsWhereBothRun) {
    const auto [top, g, h, a, b] = twoGroups();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(run(h), "b");
        EXPECT_EQ(run(top.get()), "ab");
        EXPECT_EQ(run(g), "a");
    }
    const ref_ptr<TaskGroup> keep(h);
    top->removeSubtask(h);
    EXPECT_EQ(run(top.get()), "a");
    EXPECT_EQ(run(h), "b");
    b->removeDependency(a);
    EXPECT_EQ(b->getPreJob()->getNumDependencies(), 1U); // the group's
    EXPECT_EQ(run(h), "b");
}

TEST_P(TaskRunTest, EdgesOutOfAGroupCountAsTheyComeAndGoBetweenRuns) {
    const auto [top, g, h, a, b] = twoGroups();
    const ref_ptr<SerialTask> outside(noting("o"));
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(run(top.get()), "ab");
        outside->addDependency(b);
        EXPECT_EQ(run(top.get()), "ab");
        EXPECT_EQ(run(outside.get()), "o");
        outside->removeDependency(b);
        a->addDependency(outside.get());
        EXPECT_EQ(run(top.get()), "ab");
        EXPECT_EQ(run(outside.get()), "o");
        a->removeDependency(outside.get());
        EXPECT_EQ(run(g), "a");
        EXPECT_EQ(run(h), "b");
    }
}

// Loops

TEST_F(TaskRunDeathTest, ALoopThatASubtaskClosesIsRefused) {
    const ref_ptr<TaskGroup> group(new TaskGroup("G"));
    const ref_ptr<SerialTask> a(new SerialTask("A"));
    const ref_ptr<SerialTask> b(new SerialTask("B"));
    b->addDependency(a.get());
    a->addDependency(group.get());
    EXPECT_DEATH(group->addSubtask(b.get()), "Detected dependency loop between G and B");
}

TEST_F(TaskRunDeathTest, ALoopThatASubtaskAheadOfItsGroupClosesIsRefused) {
    const ref_ptr<TaskGroup> group(new TaskGroup("G"));
    const ref_ptr<TaskGroup> inner(new TaskGroup("B"));
    const ref_ptr<SerialTask> a(new SerialTask("A"));
    SerialTask* deep = new SerialTask("deep");
    inner->addSubtask(deep);
    a->addDependency(deep);
    group->addDependency(a.get());
    EXPECT_DEATH(group->addSubtask(inner.get()), "Detected dependency loop between G and B");
}
