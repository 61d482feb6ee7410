// Tasks that are executed by themselves while they are part of a run as well.
#include <zel/Clock.h>
#include <zel/ParallelTask.h>
#include <zel/SerialTask.h>
#include <zel/TaskGroup.h>
#include <zel/Thread.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>

#include <gtest/gtest.h>
#include <support/Stress.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

using zel::Clock;
using zel::ref_ptr;
using zel::SerialTask;
using zel::Task;
using zel::TaskGroup;

namespace {

constexpr int Rounds = 2000 / static_cast<int>(zelTest::StressDivisor);

/// Counts the runs of a task, and those that overlap.
struct Counter {
    std::atomic<int> runs{0};
    std::atomic<int> overlaps{0};

    void operator()() {
        if (m_inside.fetch_add(1) != 0)
            ++overlaps;
        for (int i = 0; i < 100; ++i)
            m_work.fetch_add(1, std::memory_order_relaxed);
        m_inside.fetch_sub(1);
        ++runs;
    }

private:
    std::atomic<int> m_inside{0};
    std::atomic<unsigned> m_work{0};
};

class TaskSharedRunTest : public testing::TestWithParam<size_t> {
protected:
    void SetUp() override {
        zelCore::init();
        zel::setNumThreads(GetParam());
    }
    void TearDown() override { zelCore::shutdown(); }

    /// A task that counts.
    SerialTask* counting(const char* name) {
        return new SerialTask(name, [this] { m_counter(); });
    }
    /// Calls the functions so many times, each on a thread of its own, the first one here.
    static void runAtOnce(const std::vector<std::function<void()>>& functions) {
        std::vector<std::thread> threads;
        for (size_t i = 1; i < functions.size(); ++i)
            threads.emplace_back([&functions, i] { repeat(functions[i]); });
        repeat(functions.front());
        for (std::thread& thread : threads)
            thread.join();
    }
    static void repeat(const std::function<void()>& function) {
        for (int i = 0; i < Rounds; ++i)
            function();
    }

    Counter m_counter;
    zel::Job m_job; // outlives the threads
};

class TaskSharedRunDeathTest : public testing::Test {
protected:
    void SetUp() override {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        zelCore::init();
    }
    void TearDown() override { zelCore::shutdown(); }
};

} // namespace

TEST_P(TaskSharedRunTest, ASubtaskMayExecuteAnotherOneOfItsGroup) {
    const ref_ptr<TaskGroup> group(new TaskGroup("g"));
    SerialTask* const x = counting("x");
    group->addSubtask(x);
    group->addSubtask(new SerialTask("u", [x] { x->execute(); }));
    repeat([&] { group->execute(); });
    EXPECT_EQ(m_counter.runs, 2 * Rounds);
    EXPECT_EQ(m_counter.overlaps, 0);
}

TEST_P(TaskSharedRunTest, ManySubtasksMayExecuteOneOfTheirGroup) {
    const ref_ptr<TaskGroup> group(new TaskGroup("g"));
    SerialTask* const x = counting("x");
    for (int i = 0; i < 6; ++i) {
        group->addSubtask(new SerialTask("u", [x] { x->execute(); }));
        if (i == 3)
            group->addSubtask(x);
    }
    repeat([&] { group->execute(); });
    EXPECT_EQ(m_counter.runs, 7 * Rounds);
    EXPECT_EQ(m_counter.overlaps, 0);
}

TEST_P(TaskSharedRunTest, ASubtaskMayBeExecutedFromOutsideWhileItsGroupRuns) {
    const ref_ptr<TaskGroup> group(new TaskGroup("g"));
    std::atomic<int> numBefore{0};
    std::atomic<int> numBehind{0};
    std::atomic<int> early{0};
    group->addSubtask(new SerialTask("a", [&] { ++numBefore; }));
    SerialTask* const x = counting("x");
    group->addSubtaskAfter(x, group->getSubtasks()[0]);
    group->addSubtaskAfter(new SerialTask("b",
                                          [&] {
                                              if (++numBehind > numBefore)
                                                  ++early;
                                          }),
                           x);
    runAtOnce({[&] { group->execute(); }, [&] { x->execute(); }, [&] { x->execute(); }});
    EXPECT_EQ(m_counter.runs, 3 * Rounds);
    EXPECT_EQ(m_counter.overlaps, 0);
    EXPECT_EQ(numBehind, Rounds);
    EXPECT_EQ(early, 0);
}

TEST_P(TaskSharedRunTest, GroupsWithinGroupsMayBeExecutedAtEachLevel) {
    const ref_ptr<TaskGroup> outer(new TaskGroup("outer", true));
    auto* const inner = new TaskGroup("inner", true);
    outer->addSubtask(new SerialTask("first", [] {}));
    outer->addSubtask(inner);
    outer->addSubtask(new SerialTask("last", [] {}));
    inner->addSubtask(new SerialTask("a", [] {}));
    auto* const x = new zel::ParallelTask("x", [this] { m_counter(); });
    inner->addSubtask(x);
    runAtOnce({[&] { outer->execute(); }, [&] { inner->execute(); }, [&] { x->execute(); }});
    EXPECT_EQ(m_counter.runs, 3 * Rounds);
    EXPECT_EQ(m_counter.overlaps, 0);
}

TEST_P(TaskSharedRunTest, ADisabledSubtaskIsPassedByAll) {
    const ref_ptr<TaskGroup> group(new TaskGroup("g"));
    SerialTask* const x = counting("x");
    group->addSubtask(x);
    group->addSubtask(new SerialTask("u", [x] { x->execute(); }));
    x->setEnable(false);
    runAtOnce({[&] { group->execute(); }, [&] { x->execute(); }});
    EXPECT_EQ(m_counter.runs, 0);
    x->setEnable(true);
    group->execute();
    EXPECT_EQ(m_counter.runs, 2);
}

TEST_P(TaskSharedRunTest, AFrameTaskMayBeExecutedFromOutside) {
    const ref_ptr<Clock> clock(new Clock("k", 10));
    const ref_ptr<SerialTask> a(new SerialTask("a", [] {}));
    const ref_ptr<SerialTask> x(counting("x"));
    x->addDependency(a.get());
    clock->addFrameTask(a.get());
    clock->addFrameTask(x.get());
    runAtOnce({[&] { clock->tick(); }, [&] { x->execute(); }, [&] { x->execute(); }});
    EXPECT_EQ(m_counter.runs, 3 * Rounds);
    EXPECT_EQ(m_counter.overlaps, 0);
}

TEST_P(TaskSharedRunTest, ClocksOnSeveralThreadsMayShareATask) {
    const ref_ptr<Clock> k(new Clock("k", 10));
    const ref_ptr<Clock> s(new Clock("s", 10));
    const ref_ptr<SerialTask> x(counting("x"));
    k->addFrameTask(x.get());
    s->addFrameTask(x.get());
    runAtOnce({[&] { k->tick(); }, [&] { s->tick(); }});
    EXPECT_EQ(m_counter.runs, 2 * Rounds);
    EXPECT_EQ(m_counter.overlaps, 0);
}

TEST_P(TaskSharedRunTest, AClockMayTickInAFrameThatSharesItsTask) {
    const ref_ptr<Clock> outer(new Clock("outer", 10));
    const ref_ptr<Clock> inner(new Clock("inner", 20));
    const ref_ptr<SerialTask> x(counting("x"));
    inner->addFrameTask(x.get());
    outer->addFrameTask(inner.get());
    outer->addFrameTask(x.get());
    repeat([&] { outer->tick(); });
    EXPECT_EQ(m_counter.runs, 2 * Rounds);
    EXPECT_EQ(m_counter.overlaps, 0);
    EXPECT_EQ(inner->getFrame(), static_cast<size_t>(Rounds));
}

TEST_P(TaskSharedRunTest, SharedFrameTasksKeepTheirOrderInEachFrame) {
    const ref_ptr<Clock> outer(new Clock("outer", 10));
    const ref_ptr<Clock> inner(new Clock("inner", 20));
    std::atomic<int> first{0};
    std::atomic<int> late{0};
    const ref_ptr<SerialTask> a(new SerialTask("a", [&] { ++first; }));
    const ref_ptr<SerialTask> x(counting("x"));
    const ref_ptr<SerialTask> own(new SerialTask("own", [&] {
        if (m_counter.runs % 2 != 1 || first != m_counter.runs)
            ++late;
    }));
    x->addDependency(a.get());
    x->addDependency(inner.get());
    a->addDependency(inner.get());
    own->addDependency(x.get());
    for (Task* task : {static_cast<Task*>(a.get()), static_cast<Task*>(x.get())}) {
        inner->addFrameTask(task);
        outer->addFrameTask(task);
    }
    inner->addFrameTask(own.get());
    outer->addFrameTask(inner.get());
    repeat([&] { outer->tick(); });
    EXPECT_EQ(m_counter.runs, 2 * Rounds);
    EXPECT_EQ(late, 0);
}

TEST_P(TaskSharedRunTest, ASubtaskExecutedAloneStartsTheJobsThatAreTiedToItsOwn) {
    const ref_ptr<TaskGroup> group(new TaskGroup("g"));
    auto* const x = new SerialTask("x", [] {});
    std::atomic<int> numRuns{0};
    m_job.setCallback([&numRuns] { ++numRuns; });
    const ref_ptr<SerialTask> other(new SerialTask("other", [] {}));
    group->addSubtask(x);
    x->getPostJob()->addDependent(&m_job);
    x->execute();
    while (numRuns == 0)
        other->execute(); // works off what is queued
    x->getPostJob()->removeDependent(&m_job);
    EXPECT_EQ(numRuns, 1);
}

INSTANTIATE_TEST_SUITE_P(Threads, TaskSharedRunTest, testing::Values(1, 2, 8));

TEST_F(TaskSharedRunDeathTest, AJobThatExecutesItsOwnTaskInARunOfTheGroupEndsTheProcess) {
    const ref_ptr<TaskGroup> group(new TaskGroup("g"));
    SerialTask* self = nullptr;
    self = new SerialTask("x", [&self] { self->execute(); });
    group->addSubtask(self);
    EXPECT_DEATH(group->execute(), "zelVerify failed: `!s_activeTasks.contains\\(task\\)'");
}
