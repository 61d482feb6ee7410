#include <zel/CpuDevice.h>
#include <zel/Job.h>
#include <zel/ParallelTask.h>
#include <zel/SerialTask.h>
#include <zel/SyncTag.h>
#include <zel/SystemInformation.h>
#include <zel/Thread.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>

#include <pthread.h>
#include <sched.h>
#include <support/PoolThreads.h>
#include <support/WhatOf.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using testing::HasSubstr;
using zel::ref_ptr;
using zel::Thread;
using zelTest::onEachThread;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool Sanitized = true;
#else
constexpr bool Sanitized = false;
#endif

using zelTest::whatOf;

namespace {

class ThreadTest : public testing::Test {
protected:
    void SetUp() override {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        zelCore::init();
    }
    void TearDown() override { zelCore::shutdown(); }
};
using ThreadDeathTest = ThreadTest;

ref_ptr<zel::SerialTask> serial(const zel::Callback& work) {
    return new zel::SerialTask("task", work);
}

} // namespace

TEST_F(ThreadTest, InitMakesOneThread) {
    EXPECT_EQ(zel::getNumThreads(), 1U);
    ASSERT_NE(Thread::getCurrentThread(), nullptr);
    EXPECT_EQ(zel::getCurrentThread(), Thread::getCurrentThread());
    EXPECT_EQ(Thread::getCurrentThread()->getId(), 0U);
    EXPECT_EQ(Thread::getCurrentThread()->getIndex(), 0U);
    EXPECT_FALSE(Thread::isShuttingDown());
    EXPECT_FALSE(zel::forcedShutdown());
}

TEST_F(ThreadTest, WithOneThreadJobsRunOnTheCaller) {
    Thread* ranOn = nullptr;
    serial([&] { ranOn = Thread::getCurrentThread(); })->execute();
    EXPECT_EQ(ranOn, Thread::getCurrentThread());
}

TEST_F(ThreadTest, WorkersHaveIdsFromOneUpward) {
    zel::setNumThreads(4);
    EXPECT_EQ(zel::getNumThreads(), 4U);
    std::set<zel::uint32> ids;
    onEachThread([&] {
        ids.insert(Thread::getCurrentThread()->getId());
        EXPECT_EQ(Thread::getCurrentThread()->getIndex(), Thread::getCurrentThread()->getId());
    });
    EXPECT_EQ(ids, (std::set<zel::uint32>{0, 1, 2, 3}));
}

TEST_F(ThreadTest, ZeroMeansOneThreadForEachProcessor) {
    zel::setNumThreads(0);
    EXPECT_EQ(zel::getNumThreads(), zel::SystemInformation::getNumCpu());
    zel::setNumThreads(1);
    EXPECT_EQ(zel::getNumThreads(), 1U);
}

TEST_F(ThreadTest, NumberOfThreadsIsClampedTo1024) {
    // Under a sanitizer a thousand threads take too much memory; there a promise shows the clamp.
    if (Sanitized) {
        size_t before = 0;
        serial([&] {
            zel::setNumThreads(5000);
            before = zel::getNumThreads();
            zel::setNumThreads(3);
        })->execute();
        EXPECT_EQ(before, 1U);
        EXPECT_EQ(zel::getNumThreads(), 3U);
        return;
    }
    zel::setNumThreads(5000);
    EXPECT_EQ(zel::getNumThreads(), 1024U);
    zel::setNumThreads(1);
}

TEST_F(ThreadTest, ChangeDuringATaskTakesEffectWhenTheSystemIsIdle) {
    size_t during = 0;
    serial([&] {
        zel::setNumThreads(3);
        during = zel::getNumThreads();
    })->execute();
    EXPECT_EQ(during, 1U);
    EXPECT_EQ(zel::getNumThreads(), 3U);
}

TEST_F(ThreadTest, GrowsAndShrinksAThousandTimes) {
    constexpr int Rounds = Sanitized ? 100 : 1000;
    std::atomic<int> runs{0};
    const ref_ptr<zel::SerialTask> task = serial([&] { runs.fetch_add(1); });
    for (int i = 0; i < Rounds; ++i) {
        zel::setNumThreads(1 + static_cast<size_t>(i) % 4);
        task->execute();
    }
    EXPECT_EQ(runs.load(), Rounds);
}

TEST_F(ThreadTest, JobWithATargetRunsThere) {
    zel::setNumThreads(3);
    const std::set<Thread*> threads = onEachThread();
    for (int round = 0; round < 50; ++round)
        for (Thread* target : threads) {
            Thread* ranOn = nullptr;
            zel::Job job([&] { ranOn = Thread::getCurrentThread(); });
            job.setTargetThread(target);
            const ref_ptr<zel::ParallelTask> task(new zel::ParallelTask("targeted"));
            task->addJob(&job);
            task->execute();
            ASSERT_EQ(ranOn, target);
            ASSERT_EQ(job.getExecutingThread(), target);
            task->removeAllJobs();
        }
}

TEST_F(ThreadTest, AWorkerThatIsWokenHasTheProcessorsThatItHad) {
    zel::setNumThreads(2);
    Thread* worker = nullptr;
    for (Thread* thread : zelTest::onEachThread())
        if (thread->getId() == 1)
            worker = thread;
    ASSERT_NE(worker, nullptr);
    zel::uint64 processors = 0; // the first 64
    zel::Job job([&processors] {
        cpu_set_t set;
        ASSERT_EQ(pthread_getaffinity_np(pthread_self(), sizeof(set), &set), 0);
        processors = 0;
        for (size_t i = 0; i < 64; ++i)
            processors |= zel::uint64{CPU_ISSET(i, &set) ? 1U : 0U} << i;
    });
    job.setTargetThread(worker);
    const ref_ptr<zel::ParallelTask> task(new zel::ParallelTask("look"));
    task->addJob(&job);
    task->execute();
    // As it was, bound to one processor, and as before; set while the worker sleeps, or nearly so.
    std::vector<zel::uint64> masks(1, processors);
    for (size_t i = 0; i < 64 && masks.size() < 4; ++i)
        if ((processors >> i) & 1)
            masks.push_back(zel::uint64{1} << i);
    masks.push_back(processors);
    for (const zel::uint64 mask : masks) {
        ASSERT_TRUE(worker->setThreadAffinity(mask));
        for (int round = 0; round < 20; ++round) {
            // Mostly long enough for the worker to fall asleep; the result does not depend on it.
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            task->execute();
            ASSERT_EQ(processors, mask);
        }
    }
    task->removeAllJobs();
}

TEST_F(ThreadTest, JobWaitsUntilItsTagIsReady) {
    struct Later : zel::SyncTag {
        zel::int32 wait() override { return 1; }
        zel::int32 getStatus() override { return calls++ < 5 ? 0 : 1; }
        int calls = 0;
    };
    const ref_ptr<Later> tag(new Later);
    bool ran = false;
    zel::Job job([&] { ran = true; });
    job.setSyncTag(tag.get());
    const ref_ptr<zel::ParallelTask> task(new zel::ParallelTask("tagged"));
    task->addJob(&job);
    task->execute();
    EXPECT_TRUE(ran);
    EXPECT_EQ(tag->calls, 6);
    task->removeAllJobs();
}

TEST_F(ThreadTest, JobWithTheTagOfTheCpuDeviceRuns) {
    bool ran = false;
    zel::Job job([&] { ran = true; });
    job.setSyncTag(new zel::CpuDevice::SyncTag);
    const ref_ptr<zel::ParallelTask> task(new zel::ParallelTask("tagged"));
    task->addJob(&job);
    task->execute();
    EXPECT_TRUE(ran);
    task->removeAllJobs();
}

TEST_F(ThreadDeathTest, FailedTagEndsTheProcess) {
    struct Failed : zel::SyncTag {
        zel::int32 wait() override { return SYNC_TAG_ERROR; }
        zel::int32 getStatus() override { return SYNC_TAG_ERROR; }
    };
    EXPECT_DEATH(
        {
            zel::Job job([] {});
            job.setSyncTag(new Failed);
            const ref_ptr<zel::ParallelTask> task(new zel::ParallelTask("tagged"));
            task->addJob(&job);
            task->execute();
        },
        "zelVerify failed: `status != SyncTag::SYNC_TAG_ERROR'");
}

TEST_F(ThreadTest, OutsideThreadRegistersOnceAndLeaves) {
    const size_t before = zel::getNumThreadsIncludingRegistered();
    std::thread([before] {
        EXPECT_EQ(Thread::getCurrentThread(), nullptr);
        EXPECT_THAT(Thread::getCurrentThreadDescription(), HasSubstr(", null"));
        Thread* thread = Thread::registerAsZelThread();
        EXPECT_EQ(Thread::getCurrentThread(), thread);
        EXPECT_EQ(Thread::registerAsZelThread(), thread);
        EXPECT_EQ(thread->getId(), static_cast<zel::uint32>(zel::InvalidIndex));
        EXPECT_EQ(thread->getIndex(), zel::getNumThreads());
        EXPECT_EQ(zel::getNumThreadsIncludingRegistered(), before + 1);
        EXPECT_TRUE(Thread::getPromotedThreads()->contains(thread));
        Thread::unregisterAsZelThread();
        EXPECT_EQ(Thread::getCurrentThread(), nullptr);
        Thread::unregisterAsZelThread();
    }).join();
    EXPECT_EQ(zel::getNumThreadsIncludingRegistered(), before);
}

TEST_F(ThreadTest, IndexAsksTheCallingThreadAndClosesUpWhenAnotherLeaves) {
    std::atomic<int> stage{0};
    const auto await = [&stage](int value) {
        while (stage.load() < value)
            std::this_thread::yield();
    };
    std::thread first([&] {
        Thread::registerAsZelThread();
        stage = 1;
        await(2);
        Thread::unregisterAsZelThread();
        stage = 3;
    });
    await(1);
    std::thread second([&] {
        Thread* thread = Thread::registerAsZelThread();
        EXPECT_EQ(thread->getIndex(), zel::getNumThreads() + 1);
        stage = 2;
        await(3);
        EXPECT_EQ(thread->getIndex(), zel::getNumThreads());
        Thread::unregisterAsZelThread();
    });
    first.join();
    second.join();
}

TEST_F(ThreadTest, DescriptionNamesTheThread) {
    EXPECT_THAT(Thread::getCurrentThreadDescription(), testing::MatchesRegex("[0-9]+, 0"));
}

TEST_F(ThreadTest, EachThreadMakesItsOwnUuids) {
    const zel::Uuid first = Thread::getCurrentThread()->generateUuid();
    const zel::Uuid second = Thread::getCurrentThread()->generateUuid();
    EXPECT_FALSE(first == second);
    EXPECT_FALSE(first == zel::Uuid());
}

TEST_F(ThreadTest, TimersAreReset) {
    zel::Task::setProfilingMode(zel::Task::ProfilingWallTime);
    serial([] {})->execute();
    zel::Task::setProfilingMode(zel::Task::ProfilingOff);
    Thread* thread = Thread::getCurrentThread();
    EXPECT_GT(thread->getOverheadTimer().getTicks(), 0U);
    thread->resetOverheadTime();
    EXPECT_EQ(thread->getOverheadTimer().getTicks(), 0U);
    EXPECT_EQ(thread->getIdleTimer().getTicks(), 0U);
    EXPECT_EQ(thread->getActivationTimer().getTicks(), 0U);
}

TEST_F(ThreadTest, NewMainThreadReplacesTheOldOne) {
    Thread* old = Thread::getCurrentThread();
    EXPECT_EQ(Thread::makeCurrentThreadMainThread(), old);
    std::thread([old] {
        Thread* fresh = Thread::makeCurrentThreadMainThread();
        EXPECT_NE(fresh, old);
        EXPECT_EQ(fresh->getId(), 0U);
        EXPECT_EQ(old->getId(), Thread::DiscardedMainThread);
        bool ran = false;
        serial([&] { ran = true; })->execute();
        EXPECT_TRUE(ran);
        zelCore::shutdown();
    }).join();
    // The discarded object is kept, for whoever still points to it.
    EXPECT_EQ(old->getId(), Thread::DiscardedMainThread);
}

TEST_F(ThreadTest, DiscardedMainThreadMayNotWork) {
    // Discarded main threads are never collected; a static pointer tells the leak check so.
    static Thread* old = nullptr;
    old = Thread::getCurrentThread();
    std::thread([] { Thread::makeCurrentThreadMainThread(); }).join();
    try {
        old->doWork();
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "This thread is a discarded main thread!");
    }
}

TEST_F(ThreadTest, WorkerCannotBecomeTheMainThread) {
    std::thread([] {
        Thread::registerAsZelThread();
        try {
            Thread::makeCurrentThreadMainThread();
            FAIL();
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), "Can not convert an existing work thread to the main thread");
        }
        Thread::unregisterAsZelThread();
    }).join();
}

TEST_F(ThreadDeathTest, SecondStartOfARunningThread) {
    EXPECT_DEATH(
        {
            auto* thread = new Thread(7);
            thread->start();
            thread->start();
        },
        "\\[0x[0-9a-f]+\\]: Thread 7 is already started");
}

TEST_F(ThreadDeathTest, StopOfAThreadThatDoesNotRun) {
    EXPECT_DEATH(
        {
            auto* thread = new Thread(7);
            thread->stop();
        },
        "\\[0x[0-9a-f]+\\] Thread 7 is already stopped");
}

TEST_F(ThreadDeathTest, IdAboveTheLimit) {
    EXPECT_DEATH(new Thread(1024), "Max num threads \\(1024\\) exceeded!");
}

TEST_F(ThreadDeathTest, WaitingWithoutATask) {
    EXPECT_DEATH(Thread::getCurrentThread()->blockingDoWork(), "zelVerify failed: `m_numFrames > 0'");
}

TEST_F(ThreadDeathTest, JobLeftInTheQueueOfAThreadThatGoes) {
    EXPECT_DEATH(
        {
            Thread* thread = new Thread(zel::InvalidIndex);
            auto* job = new zel::Job([] {});
            thread->pushTargetJob(thread, job, false);
            delete thread;
        },
        "zelVerify failed: `forcedShutdown\\(\\) \\|\\| m_pushedJobs\\.empty\\(\\)'");
    EXPECT_DEATH(
        {
            Thread* thread = new Thread(zel::InvalidIndex);
            auto* job = new zel::Job([] {});
            thread->spawn(job);
            delete thread;
        },
        "zelVerify failed: `forcedShutdown\\(\\) \\|\\| m_sharedJobs\\.empty\\(\\)'");
}

TEST_F(ThreadDeathTest, ShutdownWithATaskStillActiveIsForced) {
    // Everything that is refused afterwards, in the child. Its cancelled workers are never joined.
    setenv("TSAN_OPTIONS", "report_thread_leaks=0", 1);
    EXPECT_EXIT(
        {
            zel::setNumThreads(3);
            struct Counting : zel::Singleton {
                Counting() : Singleton(10000) {}
                void shutdown() override { std::fprintf(stderr, "a singleton was shut down\n"); }
                std::string getClassName() const override { return "Counting"; }
            };
            static Counting* singleton = new Counting;
            static_cast<void>(singleton);
            const ref_ptr<zel::SerialTask> task = serial([] {
                zelCore::shutdown();
                _exit(zel::forcedShutdown() ? 5 : 6);
            });
            task->execute();
        },
        testing::ExitedWithCode(5),
        "^$");
    EXPECT_DEATH(
        {
            const ref_ptr<zel::SerialTask> task = serial([] {
                zelCore::shutdown();
                Thread::getCurrentThread()->doWork();
            });
            task->execute();
        },
        "ZEL was forcefully shutdown, further execution is not allowed!");
}

TEST_F(ThreadTest, ForcedShutdownSaysSoOnTheStandardOutput) {
    const auto child = [] {
        testing::internal::CaptureStdout();
        serial([] {
            zelCore::shutdown();
            const bool told = testing::internal::GetCapturedStdout() ==
                              "Forced shutdown detected, killing worker threads...\n";
            _exit(told ? 3 : 4);
        })->execute();
    };
    EXPECT_EXIT(child(), testing::ExitedWithCode(3), "");
}

TEST_F(ThreadTest, ExceptionOfAJobReachesTheCallerOfExecute) {
    const auto child = [] {
        try {
            serial([] { throw std::runtime_error("from the job"); })->execute();
        } catch (const std::runtime_error& error) {
            _exit(std::string(error.what()) == "from the job" && zel::Task::hasUnhandledException() ? 3 : 4);
        }
        _exit(5);
    };
    EXPECT_EXIT(child(), testing::ExitedWithCode(3), "");
}

TEST_F(ThreadDeathTest, ExceptionOfAJobOnAWorkerEndsTheProcess) {
    EXPECT_DEATH(
        {
            zel::setNumThreads(2);
            zel::Vector<zel::Job> jobs(8, zel::Job([] {
                                           if (Thread::getCurrentThread()->getId() == 1)
                                               throw std::runtime_error("on a worker");
                                           zelTest::spin(0.05);
                                       }));
            const ref_ptr<zel::ParallelTask> task(new zel::ParallelTask("throwing"));
            for (zel::Job& job : jobs)
                task->addJob(&job);
            try {
                for (;;)
                    task->execute();
            } catch (const std::runtime_error&) {
                // This thread may see it first, on its way to sleep. It is the worker that ends the process.
                for (;;)
                    pause();
            }
        },
        "terminate called.*\n.*on a worker");
}

TEST_F(ThreadDeathTest, ThreadThatGoesToSleepSeesTheUnhandledException) {
    EXPECT_EXIT(
        {
            try {
                serial([] { throw std::runtime_error("first"); })->execute();
            } catch (const std::runtime_error&) {
            }
            try {
                Thread::getCurrentThread()->sleep();
            } catch (const std::runtime_error& error) {
                _exit(std::string(error.what()) == "first" ? 3 : 4);
            }
            _exit(5);
        },
        testing::ExitedWithCode(3),
        "");
}

TEST(FastRandomTest, SeedZeroStartsAtOne) {
    Thread::FastRandom random(0);
    EXPECT_EQ(random.getState(), 1U);
    EXPECT_EQ(random(), 69070U);
}

TEST(FastRandomTest, SeedsAboveTheModulusWrap) {
    EXPECT_EQ(Thread::FastRandom(4294967295U).getState(), 4U);
    EXPECT_EQ(Thread::FastRandom(4294967291U).getState(), 1U);
    EXPECT_EQ(Thread::FastRandom(4294967290U).getState(), 4294967290U);
}

TEST(FastRandomTest, FollowsTheLehmerRule) {
    Thread::FastRandom random(123456789);
    zel::uint64 state = 123456789;
    for (int i = 0; i < 1000; ++i) {
        state = state * 69070 % 4294967291;
        ASSERT_EQ(random(), state);
    }
}

TEST(FastRandomTest, DefaultSeedsFormTheSameSequenceOnEveryThread) {
    const auto sequence = [] {
        std::vector<zel::uint32> seeds;
        for (int i = 0; i < 5; ++i)
            seeds.push_back(Thread::FastRandom().getState());
        return seeds;
    };
    std::vector<zel::uint32> first;
    std::vector<zel::uint32> second;
    std::thread([&] { first = sequence(); }).join();
    std::thread([&] { second = sequence(); }).join();
    EXPECT_EQ(first, second);
}

TEST(PerThreadStorageTest, KeepsAValueForEachThread) {
    const pthread_key_t key = Thread::allocatePerThreadStorage();
    int mine = 0;
    EXPECT_EQ(Thread::readPerThreadStorage(key), nullptr);
    Thread::writePerThreadStorage(key, &mine);
    std::thread([key] { EXPECT_EQ(Thread::readPerThreadStorage(key), nullptr); }).join();
    EXPECT_EQ(Thread::readPerThreadStorage(key), &mine);
    Thread::freePerThreadStorage(key);
}

TEST(PerThreadStorageTest, FailuresAreExceptions) {
    constexpr pthread_key_t NoKey = 1U << 20;
    int value = 0;
    EXPECT_EQ(whatOf([&] { Thread::writePerThreadStorage(NoKey, &value); }),
              "Could not set value in a thread local storage");
    EXPECT_EQ(whatOf([] { Thread::freePerThreadStorage(NoKey); }), "Could not free a thread local storage.");
    std::vector<pthread_key_t> keys;
    EXPECT_EQ(whatOf([&keys] {
                  for (;;)
                      keys.push_back(Thread::allocatePerThreadStorage());
              }),
              "Could not create thread local storage key.");
    for (const pthread_key_t key : keys)
        Thread::freePerThreadStorage(key);
}
