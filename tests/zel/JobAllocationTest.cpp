// A second run of the same job graph allocates nothing: counted in operator new and malloc.
#include <zel/ByteAllocator.h>
#include <zel/Clock.h>
#include <zel/Job.h>
#include <zel/ParallelTask.h>
#include <zel/SerialTask.h>
#include <zel/TaskGroup.h>
#include <zel/Thread.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>

#include <atomic>
#include <memory>
#include <vector>

using zel::Clock;
using zel::Job;
using zel::ParallelTask;
using zel::ref_ptr;
using zel::SerialTask;
using zel::TaskGroup;

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

#include "support/AllocationCounter.h"

using zelTest::allocationsOf;

TEST(JobAllocationTest, CounterSeesBothAllocators) {
    EXPECT_EQ(allocationsOf([] { ::operator delete(::operator new(3)); }), 1U);
    EXPECT_EQ(allocationsOf([] {
                  void* block = zel::ByteAllocator::standaloneAllocateBytes(100);
                  zel::ByteAllocator::standaloneDeallocateTypes(block);
                  std::free(std::malloc(7));
              }),
              2U);
}

TEST(JobAllocationTest, SecondRunOfTheSameGraphAllocatesNothing) {
    for (const size_t threads : {1U, 2U, 4U}) {
        zelCore::init();
        zel::setNumThreads(threads);
        std::atomic<int> runs{0};
        std::vector<std::unique_ptr<Job>> jobs;
        const ref_ptr<ParallelTask> task(new ParallelTask("p"));
        for (size_t i = 0; i < 1000; ++i) {
            jobs.push_back(std::make_unique<Job>([&runs] { runs.fetch_add(1); }));
            task->addJob(jobs.back().get());
            if (i >= 100)
                jobs[i - 100]->addDependent(jobs.back().get());
        }
        // Queues grow to what a run needs; with several threads each of them must once have had the longest.
        size_t last = 1;
        for (int attempt = 0; attempt < 200 && last != 0; ++attempt)
            last = allocationsOf([&task] { task->execute(); });
        EXPECT_EQ(last, 0U);
        size_t total = 0;
        for (int i = 0; threads == 1 && i < 20; ++i)
            total += allocationsOf([&task] { task->execute(); });
        EXPECT_EQ(total, 0U);
        zel::setNumThreads(1);
    }
    zelCore::shutdown();
}

TEST(JobAllocationTest, RunsOfNestedGroupsAllocateNothing) {
    zelCore::init();
    const ref_ptr<TaskGroup> outer(new TaskGroup("outer"));
    for (int i = 0; i < 3; ++i) {
        auto* middle = new TaskGroup("middle", true);
        outer->addSubtask(middle);
        for (int j = 0; j < 3; ++j) {
            auto* inner = new TaskGroup("inner");
            middle->addSubtask(inner);
            for (int k = 0; k < 5; ++k)
                inner->addSubtask(new SerialTask("t", [] {}));
            inner->getSubtasks()[0]->setEnable(false);
            inner->setEnable(j != 1);
        }
    }
    outer->execute();
    EXPECT_EQ(allocationsOf([&outer] {
                  for (int i = 0; i < 10; ++i)
                      outer->execute();
              }),
              0U);
    zelCore::shutdown();
}

TEST(JobAllocationTest, TicksAllocateNothingOnceTheTablesHaveGrown) {
    zelCore::init();
    zel::Object::setEnableRebind(false); // the tree is built at once
    const ref_ptr<Clock> clock(new Clock("c", 10));
    int runs = 0;
    std::vector<ref_ptr<SerialTask>> tasks;
    for (int i = 0; i < 10; ++i) {
        tasks.push_back(new SerialTask("t", [&runs] { ++runs; }));
        clock->addFrameTask(tasks.back().get());
    }
    int fired = 0;
    for (int i = 0; i < 1000; ++i)
        clock->addEvent(new Clock::Event([&fired] { ++fired; }, 0.1 + i * 0.01, i * 0.01));
    for (int i = 0; i < 1000; ++i)
        clock->tick(false);
    const int before = fired;
    EXPECT_EQ(allocationsOf([&clock] {
                  for (int i = 0; i < 1000; ++i)
                      clock->tick(false);
              }),
              0U);
    EXPECT_EQ(runs, 20000);
    EXPECT_GT(fired - before, 1000);
    zel::Object::setEnableRebind(true);
    zelCore::shutdown();
}

#endif
