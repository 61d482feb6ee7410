#include <zel/Component.h>
#include <zel/Model.h>
#include <zel/ParallelTask.h>
#include <zel/RangeJob.h>
#include <zel/SerialTask.h>
#include <zel/TaskGroup.h>
#include <zel/Thread.h>
#include <zel/WaitJob.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>

#include <atomic>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using zel::ParallelTask;
using zel::ref_ptr;
using zel::SerialTask;
using zel::Task;
using zel::TaskGroup;
using zel::Thread;

namespace {

class TaskTest : public testing::Test {
protected:
    void SetUp() override {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        zelCore::init();
    }
    void TearDown() override { zelCore::shutdown(); }
};
using TaskDeathTest = TaskTest;
using SerialTaskTest = TaskTest;
using ParallelTaskTest = TaskTest;
using WaitJobTest = TaskTest;

ref_ptr<SerialTask> serial(const char* name, const zel::Callback& work = {}) {
    return new SerialTask(name, work);
}

/// Runs several tasks in one go: spawns those without parents, and waits for the last.
void executeTogether(const std::vector<ref_ptr<SerialTask>>& tasks) {
    const ref_ptr<ParallelTask> frame(new ParallelTask("frame"));
    for (const auto& task : tasks) {
        frame->getDispatchJob()->addDependent(task->getJob());
        task->getJob()->addDependent(frame->getPostJob());
    }
    frame->execute();
    for (const auto& task : tasks) {
        frame->getDispatchJob()->removeDependent(task->getJob());
        task->getJob()->removeDependent(frame->getPostJob());
    }
}

/// Tasks nested to a depth, each executed by the one above.
void nest(int depth) {
    if (depth > 0)
        serial("nested", [depth] { nest(depth - 1); })->execute();
}

} // namespace

TEST_F(TaskTest, HasAModelAndLivesInTheTree) {
    const ref_ptr<zel::Component> component(new zel::Component("c"));
    component->addObject(serial("t").get());
    EXPECT_EQ(component->findObject("t", Task::ClassModel()), component->findObject("t"));
    EXPECT_TRUE(Task::ClassModel()->is(zel::Component::ClassModel()));
}

TEST_F(TaskTest, ExecutesAgainAndAgain) {
    int runs = 0;
    const ref_ptr<SerialTask> task = serial("t", [&] { ++runs; });
    for (int i = 0; i < 100; ++i)
        task->execute();
    EXPECT_EQ(runs, 100);
    EXPECT_FALSE(task->isRunning());
}

TEST_F(TaskTest, IsRunningWhileItRuns) {
    bool during = false;
    ref_ptr<SerialTask> task = serial("t");
    task->setDispatch([&] { during = task->isRunning() && task->getThread() == Thread::getCurrentThread(); });
    task->execute();
    EXPECT_TRUE(during);
    EXPECT_EQ(task->getThread(), nullptr);
}

TEST_F(TaskTest, FiresItsEventsAroundTheWork) {
    std::string order;
    const ref_ptr<SerialTask> task = serial("t", [&] { order += "work "; });
    task->preEvent.connect([&](Task* t) {
        EXPECT_EQ(t, task.get());
        order += "pre ";
    });
    task->postEvent.connect([&](Task*) { order += "post "; });
    task->execute();
    EXPECT_EQ(order, "pre work post ");
}

TEST_F(TaskTest, RunsAfterItsParents) {
    for (const size_t threads : {1U, 2U, 4U}) {
        zel::setNumThreads(threads);
        std::mutex mutex;
        std::string order;
        const auto note = [&](char c) {
            return [&, c] {
                const std::lock_guard lock(mutex);
                order += c;
            };
        };
        const auto a = serial("a", note('a'));
        const auto b = serial("b", note('b'));
        const auto c = serial("c", note('c'));
        c->addDependency(b.get());
        b->addDependency(a.get());
        for (int i = 0; i < 20; ++i)
            executeTogether({c, b, a});
        std::string expected;
        for (int i = 0; i < 20; ++i)
            expected += "abc";
        EXPECT_EQ(order, expected);
    }
}

TEST_F(TaskTest, KnowsItsDependencies) {
    const auto a = serial("a");
    const auto b = serial("b");
    const auto c = serial("c");
    c->addDependency(b.get());
    b->addDependency(a.get());
    EXPECT_TRUE(c->hasDependency(a.get()));
    EXPECT_FALSE(a->hasDependency(c.get()));
    EXPECT_EQ(b->getParents(), zel::Vector<Task*>({a.get()}));
    EXPECT_EQ(b->getChildren(), zel::Vector<Task*>({c.get()}));
    EXPECT_TRUE(b->removeDependency(a.get()));
    EXPECT_FALSE(b->removeDependency(a.get()));
    EXPECT_FALSE(c->hasDependency(a.get()));
    EXPECT_EQ(b->getJob()->getNumDependencies(), 0U);
}

TEST_F(TaskTest, LeavesItsNeighboursWhenItGoes) {
    const auto a = serial("a");
    const auto c = serial("c");
    {
        const auto b = serial("b");
        b->addDependency(a.get());
        c->addDependency(b.get());
    }
    EXPECT_TRUE(a->getChildren().empty());
    EXPECT_TRUE(c->getParents().empty());
    EXPECT_TRUE(a->getJob()->getDependents().empty());
    EXPECT_EQ(c->getJob()->getNumDependencies(), 0U);
    a->execute();
    c->execute();
}

TEST_F(TaskDeathTest, DependencyLoopIsRefused) {
    const auto a = serial("a");
    const auto b = serial("b");
    b->addDependency(a.get());
    EXPECT_DEATH(a->addDependency(b.get()), "Detected dependency loop between b and a");
    EXPECT_DEATH(a->addDependency(a.get()), "Detected dependency loop between a and a");
}

TEST_F(TaskDeathTest, DependencyOnNothingIsRefused) {
    const auto a = serial("a");
    EXPECT_DEATH(a->addDependency(nullptr), "zelVerify failed: `task'");
    EXPECT_DEATH(Task::addConnection(nullptr, a.get()), "zelVerify failed: `parent'");
    EXPECT_DEATH(Task::addConnection(a.get(), nullptr), "zelVerify failed: `child'");
}

TEST_F(TaskTest, UnknownThreadIsRegisteredForTheDurationOfExecute) {
    const auto task = serial("t", [] {
        EXPECT_EQ(Thread::getCurrentThread()->getId(), static_cast<zel::uint32>(zel::InvalidIndex));
    });
    std::thread([&task] {
        EXPECT_EQ(Thread::getCurrentThread(), nullptr);
        task->execute();
        EXPECT_EQ(Thread::getCurrentThread(), nullptr);
    }).join();
}

TEST_F(TaskTest, RegisteredThreadStaysRegisteredAfterExecute) {
    std::thread([] {
        const Thread* thread = Thread::registerAsZelThread();
        serial("t")->execute();
        EXPECT_EQ(Thread::getCurrentThread(), thread);
        Thread::unregisterAsZelThread();
    }).join();
}

TEST_F(TaskTest, IsExecutedByOneThreadAtATime) {
    std::atomic<int> inside{0};
    int runs = 0;
    const auto task = serial("t", [&] {
        EXPECT_EQ(inside.fetch_add(1), 0);
        ++runs;
        inside.fetch_sub(1);
    });
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&task] {
            for (int round = 0; round < 100; ++round)
                task->execute();
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(runs, 400);
}

TEST_F(TaskTest, SixtyFourTasksMayBeNested) {
    int depth = 0;
    std::function<void()> deeper = [&] {
        if (++depth < 64)
            serial("nested", deeper)->execute();
    };
    serial("outer", deeper)->execute();
    EXPECT_EQ(depth, 64);
}

TEST_F(TaskDeathTest, SixtyFifthNestedTaskIsRefused) {
    EXPECT_DEATH(nest(65), "zelVerify failed: `thread->m_numFrames < ZEL_THREAD_FRAME_STACK_MAX_DEPTH'");
}

TEST_F(TaskDeathTest, AddingAnActiveTaskIsRefused) {
    EXPECT_DEATH(
        {
            ref_ptr<SerialTask> task = serial("t");
            task->setDispatch([&] { Thread::addTask(task.get()); });
            task->execute();
        },
        "zelVerify failed: `!s_activeTasks.contains\\(task\\)'");
}

TEST_F(TaskDeathTest, ExecutingATaskFromItsOwnRunIsRefused) {
    EXPECT_DEATH(
        {
            ref_ptr<SerialTask> task = serial("t");
            task->setDispatch([&] { task->execute(); });
            task->execute();
        },
        "zelVerify failed: `!s_activeTasks.contains\\(task\\)'");
}

namespace {

/// A task whose first run has a job aside that belongs to no task and runs before its last part.
ref_ptr<TaskGroup> withJobAside(const char* name, const zel::Callback& work) {
    const ref_ptr<TaskGroup> group(new TaskGroup(name, true));
    const auto job = std::make_shared<zel::Job>(work);
    job->setPriority(std::numeric_limits<zel::uint32>::max());
    group->addSubtask(new SerialTask("first", [job, spawned = false]() mutable {
        if (!std::exchange(spawned, true))
            Thread::getCurrentThread()->spawn(job.get());
    }));
    group->addSubtask(new SerialTask("last", [] {}));
    return group;
}

} // namespace

TEST_F(TaskDeathTest, JobThatEndsTheTaskBelowItIsFound) {
    EXPECT_DEATH(
        {
            zel::setNumThreads(1);
            withJobAside("t", [] { Thread::getCurrentThread()->blockingDoWork(); })->execute();
        },
        "zelVerify failed: `frameIndex == m_numFrames-1', Frame stack error in task t");
}

TEST_F(TaskDeathTest, JobThatExchangesTheTasksBelowItIsFound) {
    EXPECT_DEATH(
        {
            zel::setNumThreads(1);
            ref_ptr<TaskGroup> inner;
            ref_ptr<TaskGroup> outer;
            inner = withJobAside("inner", [&] {
                Thread::getCurrentThread()->blockingDoWork();
                Thread::getCurrentThread()->blockingDoWork();
                Thread::addTask(inner.get());
                Thread::addTask(outer.get());
            });
            outer = withJobAside("outer", [&] { inner->execute(); });
            outer->execute();
        },
        "inner: Frame stack inconsistency in thread 0");
}

TEST_F(TaskDeathTest, AddingATaskWithoutAThreadIsRefused) {
    const auto task = serial("t");
    EXPECT_DEATH(Thread::addTask(task.get()), "zelVerify failed: `thread'");
}

TEST_F(TaskDeathTest, RunningTaskMayNotBeDestroyed) {
    EXPECT_DEATH(
        {
            auto* task = new SerialTask("busy");
            task->beginCallback();
            delete task;
        },
        "Task 0x[0-9a-f]+ \\(busy\\) is still running as destructor is called");
}

TEST_F(TaskTest, MeasuresWhatTheProfilingModeAsksFor) {
    const auto task = serial("t", [] {
        const zel::uint64 start = zel::Timer::now();
        while (zel::Timer::toMilliseconds(zel::Timer::now() - start) < 0.2) {
        }
    });
    task->execute();
    EXPECT_EQ(task->getWallTime(), 0);
    Task::setProfilingMode(Task::ProfilingWallTime);
    task->execute();
    EXPECT_GT(task->getWallTime(), 0.1F);
    EXPECT_EQ(task->getNumAccumulatedRuns(), 0U);
    Task::setProfilingMode(Task::ProfilingFull);
    task->execute();
    EXPECT_GT(task->getComputeCost(), 0.1F);
    EXPECT_EQ(task->getNumAccumulatedRuns(), 1U);
    EXPECT_EQ(task->getAccumulatedComputeCost(), task->getComputeCost());
    task->resetAccumulationTimers(true);
    EXPECT_EQ(task->getNumAccumulatedRuns(), 0U);
    Task::setProfilingMode(Task::ProfilingOff);
    task->execute();
    EXPECT_EQ(task->getComputeCost(), 0);
}

TEST_F(SerialTaskTest, WithoutACallbackRunsItself) {
    struct Own : SerialTask {
        using SerialTask::SerialTask;
        void run() override { ++runs; }
        int runs = 0;
    };
    const ref_ptr<Own> task(new Own("own"));
    task->execute();
    EXPECT_EQ(task->runs, 1);
    serial("empty")->execute();
}

TEST_F(SerialTaskTest, PriorityFollowsTheLastRunAndNeverFallsBelow100) {
    EXPECT_EQ(SerialTask::priorityFor(0), 100U);
    EXPECT_EQ(SerialTask::priorityFor(0.001), 100U);
    EXPECT_EQ(SerialTask::priorityFor(1), 50000U);
    EXPECT_EQ(SerialTask::priorityFor(1e9), 4294967295U);
    const auto task = serial("t", [] {
        const zel::uint64 start = zel::Timer::now();
        while (zel::Timer::toMilliseconds(zel::Timer::now() - start) < 1) {
        }
    });
    task->execute();
    EXPECT_EQ(task->getJob()->getPriority(), 100U);
    task->execute();
    EXPECT_GE(task->getJob()->getPriority(), 50000U);
}

TEST_F(SerialTaskTest, IsOneJob) {
    const auto task = serial("name");
    EXPECT_EQ(task->getPreJob(), task->getPostJob());
    EXPECT_EQ(task->getPreJob(), task->getJob());
    EXPECT_STREQ(task->getJob()->getName(), "name");
    EXPECT_EQ(task->getJob()->getTask(), task.get());
    EXPECT_EQ(task->referenceCount(), 1) << "its job does not keep it alive";
}

TEST_F(ParallelTaskTest, RunsEachJobOnceOnAnyNumberOfThreads) {
    for (const size_t threads : {1U, 2U, 8U}) {
        zel::setNumThreads(threads);
        std::vector<std::atomic<int>> runs(1000);
        zel::Vector<zel::RangeJob> jobs;
        for (size_t i = 0; i < 10; ++i)
            jobs.push_back(zel::RangeJob(
                [&runs](const zel::RangeJob& job) {
                    for (size_t k = job.getRange().begin(); k < job.getRange().end(); ++k)
                        runs[k].fetch_add(1);
                },
                zel::IndexRange(100 * i, 100 * (i + 1))));
        const ref_ptr<ParallelTask> task(new ParallelTask("p"));
        for (zel::RangeJob& job : jobs)
            task->addJob(&job);
        for (int i = 0; i < 100; ++i)
            task->execute();
        for (const auto& count : runs)
            ASSERT_EQ(count.load(), 100);
        task->removeAllJobs();
    }
}

TEST_F(ParallelTaskTest, WithoutJobsStillEnds) {
    const ref_ptr<ParallelTask> task(new ParallelTask("p"));
    int ended = 0;
    task->postEvent.connect([&](Task*) { ++ended; });
    task->execute();
    EXPECT_EQ(ended, 1);
}

TEST_F(ParallelTaskTest, DispatchAddsTheJobsOfARun) {
    zel::setNumThreads(2);
    std::vector<std::unique_ptr<zel::Job>> jobs;
    std::atomic<int> runs{0};
    ref_ptr<ParallelTask> task;
    task = new ParallelTask("p", [&] {
        task->removeAllJobs();
        jobs.clear();
        for (int i = 0; i < 5; ++i) {
            jobs.push_back(std::make_unique<zel::Job>([&] { runs.fetch_add(1); }));
            task->addJob(jobs.back().get());
        }
    });
    for (int i = 0; i < 20; ++i)
        task->execute();
    EXPECT_EQ(runs.load(), 100);
    EXPECT_EQ(task->getJobs().size(), 5U);
    task->removeAllJobs();
    EXPECT_EQ(task->getJobs().size(), 0U);
}

TEST_F(ParallelTaskTest, JobsMayWaitForEachOther) {
    zel::setNumThreads(2);
    std::atomic<int> first{0};
    std::atomic<int> wrong{0};
    zel::Job a([&] { first.fetch_add(1); });
    zel::Job b([&] { first.fetch_add(1); });
    zel::Job c([&] { wrong.fetch_add(first.exchange(0) == 2 ? 0 : 1); });
    a.addDependent(&c);
    b.addDependent(&c);
    const ref_ptr<ParallelTask> task(new ParallelTask("p"));
    for (zel::Job* job : {&a, &b, &c})
        task->addJob(job);
    for (int i = 0; i < 1000; ++i)
        task->execute();
    EXPECT_EQ(wrong.load(), 0);
    task->removeAllJobs();
}

TEST_F(ParallelTaskTest, MayBeExecutedFromAJob) {
    zel::setNumThreads(2);
    std::atomic<int> inner{0};
    zel::Vector<zel::Job> outerJobs;
    for (int i = 0; i < 8; ++i)
        outerJobs.push_back(zel::Job([&inner] {
            zel::Vector<zel::Job> jobs(4, zel::Job([&inner] { inner.fetch_add(1); }));
            const ref_ptr<ParallelTask> task(new ParallelTask("inner"));
            for (zel::Job& job : jobs)
                task->addJob(&job);
            task->execute();
            task->removeAllJobs();
        }));
    const ref_ptr<ParallelTask> outer(new ParallelTask("outer"));
    for (zel::Job& job : outerJobs)
        outer->addJob(&job);
    for (int i = 0; i < 50; ++i)
        outer->execute();
    EXPECT_EQ(inner.load(), 50 * 8 * 4);
    outer->removeAllJobs();
}

TEST_F(ParallelTaskTest, HasAPreADispatchAndAPostJob) {
    const ref_ptr<ParallelTask> task(new ParallelTask("name"));
    EXPECT_STREQ(task->getPreJob()->getName(), "Pre");
    EXPECT_STREQ(task->getDispatchJob()->getName(), "name");
    EXPECT_STREQ(task->getPostJob()->getName(), "Post");
    EXPECT_EQ(task->getPreJob()->getTask(), task.get());
    EXPECT_EQ(task->referenceCount(), 1);
}

TEST_F(ParallelTaskTest, AddsUpTheCostOfItsJobs) {
    Task::setProfilingMode(Task::ProfilingFull);
    const auto busy = [] {
        const zel::uint64 start = zel::Timer::now();
        while (zel::Timer::toMilliseconds(zel::Timer::now() - start) < 0.2) {
        }
    };
    zel::Job a(busy);
    zel::Job b(busy);
    const ref_ptr<ParallelTask> task(new ParallelTask("p"));
    task->addJob(&a);
    task->addJob(&b);
    task->execute();
    Task::setProfilingMode(Task::ProfilingOff);
    EXPECT_GE(task->getComputeCost(), 0.39F);
    task->removeAllJobs();
}

TEST_F(WaitJobTest, OutsideThreadSleepsUntilTheTaskHasFinished) {
    std::atomic<int> runs{0};
    const auto task = serial("t", [&] { runs.fetch_add(1); });
    std::atomic<bool> waiting{false};
    std::thread outside([&] {
        zel::WaitJob job(task->getPostJob());
        waiting = true;
        job.wait();
        EXPECT_GE(runs.load(), 1);
    });
    while (!waiting)
        std::this_thread::yield();
    task->execute();
    outside.join();
}

TEST_F(WaitJobTest, FinishAfterTheConstructionCounts) {
    const auto task = serial("t");
    zel::WaitJob job(task->getPostJob());
    EXPECT_EQ(job.getPriority(), 100U);
    task->execute();
    job.wait();
    task->execute();
    job.wait();
}

TEST_F(WaitJobTest, ManyMayWaitForOneJob) {
    const auto task = serial("t");
    std::atomic<int> waiting{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&] {
            zel::WaitJob job(task->getPostJob());
            waiting.fetch_add(1);
            job.wait();
        });
    while (waiting.load() < 8)
        std::this_thread::yield();
    task->execute();
    for (std::thread& thread : threads)
        thread.join();
}
