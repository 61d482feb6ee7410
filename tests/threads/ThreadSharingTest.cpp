// Threads that are not alone: those outside the pool, jobs that execute tasks, and a pool that changes
// meanwhile.
#include <zel/Clock.h>
#include <zel/ParallelTask.h>
#include <zel/SerialTask.h>
#include <zel/SyncTag.h>
#include <zel/TaskGroup.h>
#include <zel/Thread.h>
#include <zel/ThreadTask.h>
#include <zel/WaitJob.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>

#include <sched.h>
#include <support/Stress.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using zel::Job;
using zel::ParallelTask;
using zel::ref_ptr;
using zel::SerialTask;
using zel::Task;
using zel::TaskGroup;
using zel::Thread;
using zel::ThreadTask;

namespace {

class ThreadSharingTest : public testing::Test {
protected:
    void SetUp() override {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        zelCore::init();
    }
    void TearDown() override { zelCore::shutdown(); }
};
using ThreadSharingDeathTest = ThreadSharingTest;

/// A task of a few jobs.
class Jobs {
public:
    Jobs(size_t count, const zel::Callback& work) : task(new ParallelTask("jobs")) {
        for (size_t i = 0; i < count; ++i) {
            m_jobs.push_back(std::make_unique<Job>(work));
            task->addJob(m_jobs.back().get());
        }
    }

    ref_ptr<ParallelTask> task;

private:
    std::vector<std::unique_ptr<Job>> m_jobs;
};

/// The threads of the pool by their numbers.
std::vector<Thread*> poolThreads() {
    std::vector<Thread*> threads(zel::getNumThreads());
    const ref_ptr<ThreadTask> task(new ThreadTask(
        [&] { threads[Thread::getCurrentThread()->getId()] = Thread::getCurrentThread(); }, threads.size()));
    task->execute();
    return threads;
}

void waitFor(const std::atomic<bool>& flag) {
    while (!flag)
        sched_yield();
}

std::string whatOf(const zel::Callback& call) {
    try {
        call();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "";
}

constexpr const char* NeedsMainThread = "A task with a job for each thread needs the main thread, which "
                                        "executes no task now: execute it on the main "
                                        "thread, or within a task of that thread";

} // namespace

// Work of threads outside the pool

TEST_F(ThreadSharingTest, AThreadOfThePoolTakesItsShareOfTheWorkOfAnOutsideThread) {
    zel::setNumThreads(2);
    std::thread([] {
        Thread::registerAsZelThread();
        for (int i = 0; i < 300; ++i) {
            // Each of the two waits for the other one to begin.
            std::atomic<int> begun{0};
            Jobs jobs(2, [&] {
                ++begun;
                while (begun < 2)
                    sched_yield();
            });
            jobs.task->execute();
        }
        Thread::unregisterAsZelThread();
    }).join();
}

TEST_F(ThreadSharingTest, SeveralOutsideThreadsDoNotKeepThePoolAsleep) {
    zel::setNumThreads(2);
    zelTest::onThreads(3, 1, [](size_t, std::mt19937&) {
        Thread::registerAsZelThread();
        for (int i = 0; i < 50; ++i) {
            std::atomic<bool> onPool{false};
            Jobs jobs(8, [&] {
                if (Thread::getCurrentThread()->getId() < 2)
                    onPool = true;
                // The outside thread keeps what it has till the pool has taken a job.
                else
                    waitFor(onPool);
            });
            jobs.task->execute();
        }
        Thread::unregisterAsZelThread();
    });
}

namespace {

/// Holds jobs back till it is opened, and knows whether a thread outside the pool has had one in hand.
class SharedGate : public zel::SyncTag {
public:
    zel::int32 getStatus() override {
        if (Thread::getCurrentThread()->getId() == zel::InvalidIndex)
            seenOutside = true;
        return open ? 1 : 0;
    }
    std::atomic<bool> open{false};
    std::atomic<bool> seenOutside{false};
};

} // namespace

TEST_F(ThreadSharingTest, AThreadOutsideThePoolLeavesNoJobsOfOthersBehind) {
    for (const size_t threads : {1U, 2U})
        for (const bool registered : {false, true}) {
            zel::setNumThreads(threads);
            const ref_ptr<SharedGate> gate(new SharedGate);
            std::atomic<int> runs{0};
            std::vector<std::unique_ptr<Job>> jobs;
            for (int i = 0; i < 6; ++i) {
                jobs.push_back(std::make_unique<Job>([&] { ++runs; }));
                jobs.back()->setSyncTag(gate.get());
                jobs.back()->spawn();
            }
            Job onMainThread([&] { waitFor(gate->seenOutside); });
            onMainThread.setTargetThread(Thread::getCurrentThread());
            std::thread outside([&] {
                if (registered)
                    Thread::registerAsZelThread();
                // Its only job runs elsewhere, so that it takes one of the others.
                const ref_ptr<ParallelTask> task(new ParallelTask("p"));
                task->addJob(&onMainThread);
                task->execute();
                task->removeAllJobs();
                gate->open = true;
                while (runs < 6)
                    sched_yield();
                if (registered)
                    Thread::unregisterAsZelThread();
            });
            while (runs < 6)
                Thread::getCurrentThread()->doWork();
            outside.join();
            zel::setNumThreads(1); // a worker may still be looking at its last job
        }
}

// Changes of the pool

TEST_F(ThreadSharingTest, WhatAWorkerHasNotBegunIsDoneByOthersWhenItGoes) {
    for (const size_t stay : {1U, 3U})
        for (int i = 0; i < 20; ++i) {
            zel::setNumThreads(4);
            Thread* const worker = poolThreads()[3];
            std::atomic<int> runs{0};
            Job waked([&] { ++runs; });
            Job unwaked([&] { ++runs; });
            worker->pushTargetJob(worker, &unwaked, false);
            worker->pushTargetJob(worker, &waked, true);
            zel::setNumThreads(stay);
            while (runs < 2)
                Thread::getCurrentThread()->doWork();
            zel::setNumThreads(1);
        }
}

TEST_F(ThreadSharingTest, AJobOutsideOfTasksExecutesTasksWhileThePoolChanges) {
    for (const bool grow : {true, false}) {
        zel::setNumThreads(3);
        const std::vector<Thread*> threads = poolThreads();
        std::atomic<bool> begun{false};
        std::atomic<int> runs{0};
        Jobs inner(4, [&] { ++runs; });
        Job job([&] {
            begun = true;
            for (int i = 0; i < 5000; ++i)
                inner.task->execute();
        });
        job.setTargetThread(threads[1]);
        zel::WaitJob wait(&job);
        job.spawn();
        waitFor(begun);
        // While a task is active, the change is left to whoever ends the last one; in between it begins here.
        const size_t wanted = grow ? 4 : 2;
        while (zel::getNumThreads() != wanted)
            zel::setNumThreads(wanted);
        wait.wait();
        EXPECT_EQ(runs, 20000);
    }
}

// One task executed by several jobs

TEST_F(ThreadSharingTest, JobsOfOneRunShareATask) {
    for (const size_t threads : {1U, 2U, 4U}) {
        zel::setNumThreads(threads);
        std::atomic<int> runs{0};
        Jobs shared(4, [&] { ++runs; });
        const ref_ptr<TaskGroup> group(new TaskGroup("g"));
        for (int i = 0; i < 80; ++i)
            group->addSubtask(new SerialTask("t", [&] { shared.task->execute(); }));
        for (int i = 0; i < 50; ++i)
            group->execute();
        EXPECT_EQ(runs, 4 * 80 * 50);
    }
}

TEST_F(ThreadSharingTest, OutsideThreadsShareATaskWithThePool) {
    zel::setNumThreads(2);
    std::atomic<int> runs{0};
    Jobs shared(4, [&] { ++runs; });
    zelTest::onThreads(3, 1, [&](size_t, std::mt19937&) {
        const ref_ptr<TaskGroup> group(new TaskGroup("g"));
        for (int i = 0; i < 10; ++i)
            group->addSubtask(new SerialTask("t", [&] { shared.task->execute(); }));
        for (int i = 0; i < 20; ++i)
            group->execute();
    });
    EXPECT_EQ(runs, 4 * 10 * 20 * 3);
}

TEST_F(ThreadSharingDeathTest, ATaskThatAJobOfItsOwnExecutesIsRefused) {
    const auto recurse = [] {
        ref_ptr<ParallelTask> task(new ParallelTask("p"));
        Job job([&] { task->execute(); });
        task->addJob(&job);
        task->execute();
    };
    EXPECT_DEATH(recurse(), "!s_activeTasks.contains\\(task\\)");
    const auto recurseDeeper = [] {
        const ref_ptr<TaskGroup> group(new TaskGroup("g"));
        group->addSubtask(new SerialTask("outer", [&] {
            ref_ptr<SerialTask>(new SerialTask("inner", [&] { group->execute(); }))->execute();
        }));
        group->execute();
    };
    EXPECT_DEATH(recurseDeeper(), "!s_activeTasks.contains\\(task\\)");
}

// After an exception

TEST_F(ThreadSharingDeathTest, ATaskThatHasThrownLeavesNoTraceAmongTheActiveOnes) {
    const auto child = [] {
        // The next one often has the address of the one before.
        for (int i = 0; i < 20; ++i)
            static_cast<void>(whatOf([] {
                const ref_ptr<SerialTask> task(new SerialTask("t", [] { throw std::runtime_error("bad"); }));
                task->execute();
            }));
        zelCore::shutdown(); // forced all the same: what the tasks have left in the queues is lost
        _exit(zel::forcedShutdown() ? 3 : 4);
    };
    EXPECT_EXIT(child(), testing::ExitedWithCode(3), "");
}

// Jobs for each thread

TEST_F(ThreadSharingTest, AThreadTaskNeedsTheMainThread) {
    zel::setNumThreads(2);
    int runs = 0;
    const ref_ptr<ThreadTask> task(new ThreadTask([&] { ++runs; }, 2));
    const ref_ptr<TaskGroup> group(new TaskGroup("group"));
    const ref_ptr<TaskGroup> inner(new TaskGroup("inner"));
    group->addSubtask(inner.get());
    inner->addSubtask(new ThreadTask([&] { ++runs; }, 2));
    std::thread([&] {
        EXPECT_EQ(whatOf([&] { task->execute(); }), NeedsMainThread);
        EXPECT_EQ(whatOf([&] { group->execute(); }), NeedsMainThread);
        group->removeSubtask(inner.get());
        group->execute();
        EXPECT_EQ(whatOf([] { Thread::exportAllTimelines(); }), NeedsMainThread);
        EXPECT_EQ(Thread::getCurrentThread(), nullptr);
    }).join();
    EXPECT_EQ(runs, 0);
    EXPECT_FALSE(Task::hasUnhandledException());
}

TEST_F(ThreadSharingTest, AClockWithATimelineNeedsTheMainThread) {
    const ref_ptr<zel::Clock> clock(new zel::Clock("c", 10));
    clock->setIsThreadTimelineResponsible(true);
    Thread::setEnableJobTimeline(true);
    std::thread([&] { EXPECT_EQ(whatOf([&] { clock->tick(false); }), NeedsMainThread); }).join();
    EXPECT_EQ(clock->getFrame(), 0U);
    Thread::setEnableJobTimeline(false);
    const ref_ptr<ThreadTask> task(new ThreadTask([] {}, 2));
    clock->addFrameTask(task.get());
    std::thread([&] { EXPECT_EQ(whatOf([&] { clock->tick(false); }), NeedsMainThread); }).join();
    clock->tick(false);
    EXPECT_EQ(clock->getFrame(), 1U);
}

TEST_F(ThreadSharingTest, TheMainThreadStaysForTheJobsOfAThreadTask) {
    zel::setNumThreads(2);
    for (int i = 0; i < 100; ++i) {
        std::mutex mutex;
        std::multiset<zel::uint32> ids;
        std::atomic<bool> atWork{false};
        std::atomic<bool> begun{false};
        const ref_ptr<ThreadTask> each(new ThreadTask(
            [&] {
                const std::lock_guard lock(mutex);
                ids.insert(Thread::getCurrentThread()->getId());
            },
            2));
        each->setPreCallback([&] { begun = true; });
        std::thread outside([&] {
            waitFor(atWork);
            each->execute();
        });
        const ref_ptr<SerialTask> task(new SerialTask("t", [&] {
            atWork = true;
            waitFor(begun);
        }));
        task->setTargetThread(Thread::getCurrentThread());
        task->execute();
        outside.join();
        EXPECT_EQ(ids, (std::multiset<zel::uint32>{0, 1}));
    }
}

// Child processes

TEST_F(ThreadSharingTest, AForkedChildMayShutDownAndLeave) {
    for (const size_t threads : {1U, 3U}) {
        zel::setNumThreads(threads);
        Jobs jobs(8, [] {});
        std::atomic<bool> end{false};
        // With others at work, some of them hold a lock at times.
        std::thread outside([&] {
            while (!end && threads > 1)
                jobs.task->execute();
        });
        for (int i = 0; i < 20; ++i) {
            const pid_t child = fork();
            if (child == 0) {
                alarm(20); // ends a child that waits for ever
                zelCore::shutdown();
                // As _exit, which a sanitizer takes as the time to look for the threads of the parent.
                syscall(SYS_exit_group, zelCore::isShutdown() ? 3 : 4);
            }
            int status = 0;
            ASSERT_EQ(waitpid(child, &status, 0), child);
            EXPECT_TRUE(WIFEXITED(status));
            EXPECT_EQ(WEXITSTATUS(status), 3);
        }
        end = true;
        outside.join();
    }
}

// What others may call

TEST_F(ThreadSharingTest, StealsWhatWasHandedToIt) {
    Thread* thread = Thread::getCurrentThread();
    int runs = 0;
    Job job([&] { ++runs; });
    thread->pushTargetJob(thread, &job, false);
    thread->stealWork();
    EXPECT_EQ(runs, 0);
    thread->doWork();
    EXPECT_EQ(runs, 1);
}

TEST_F(ThreadSharingDeathTest, CompletesOnlyWhatItExecutes) {
    const ref_ptr<SerialTask> task(new SerialTask("t"));
    EXPECT_DEATH(Thread::getCurrentThread()->completeFrame(task.get()),
                 "Unable to find task 't' in frame stack of thread 0");
}

namespace {

/// A task that overrides no more than it has to.
class OwnTask : public Task {
public:
    OwnTask() : Task("own"), m_job([this] { run(); }) {}
    ~OwnTask() override { disconnect(); }

    Job* getPreJob() override { return &m_job; }
    Job* getPostJob() override { return &m_job; }
    Thread* thread = nullptr;

private:
    void run() {
        beginCallback();
        thread = Thread::getCurrentThread();
        endCallback(0, 0);
    }
    Job m_job;
};

} // namespace

TEST_F(ThreadSharingTest, ATaskOfOnesOwnHasATargetThread) {
    zel::setNumThreads(2);
    Thread* const worker = poolThreads()[1];
    const ref_ptr<TaskGroup> group(new TaskGroup("g"));
    const ref_ptr<OwnTask> task(new OwnTask);
    group->addSubtask(task.get());
    task->setTargetThread(worker);
    group->execute();
    EXPECT_EQ(task->thread, worker);
    task->setTargetThread(nullptr);
    EXPECT_EQ(task->getPreJob()->getTargetThread(), nullptr);
}
