// A second run of the same job graph allocates nothing: counted in operator new and malloc. Nor does one that
// appends to global results.
#include <zel/ArrayParameter.h>
#include <zel/ByteAllocator.h>
#include <zel/Clock.h>
#include <zel/EntityDataParameter.h>
#include <zel/GlobalResultBuffer.h>
#include <zel/GlobalResultStorage.h>
#include <zel/Job.h>
#include <zel/LambdaKernel.h>
#include <zel/ParallelTask.h>
#include <zel/RangeJob.h>
#include <zel/SerialTask.h>
#include <zel/TaskGroup.h>
#include <zel/Thread.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/Buffer.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>
#include <zelData/ScalarAttribute.h>
#include <zelData/Type.h>

#include <algorithm>
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

namespace {

/// The allocations of a run of a task whose jobs append through the parameter, when it has run before.
template <typename ParameterType, typename Append>
size_t allocationsOfAppending(ParameterType* parameter, const Append& append) {
    const ref_ptr<ParallelTask> task(
        new ParallelTask("append", [&task] { task->prepareGlobalResultSorting(20); }));
    task->addParameter(parameter);
    std::vector<std::unique_ptr<Job>> jobs;
    for (unsigned i = 0; i < 20; ++i) {
        jobs.push_back(std::make_unique<Job>([&append, i] { append(i); }));
        task->addJob(jobs.back().get());
    }
    for (int i = 0; i < 5; ++i)
        task->execute();
    const size_t allocations = allocationsOf([&task] { task->execute(); });
    task->removeAllJobs();
    task->removeParameter(parameter);
    return allocations;
}

} // namespace

TEST(GlobalResultAllocationTest, RunWithoutOverflowAllocatesNothing) {
    zelCore::init();
    zel::setNumThreads(1);
    const std::vector<zel::uint64> data(100, 7);
    {
        const ref_ptr<zelData::Buffer> buffer(new zelData::Buffer("b", zelData::getFormat("UInt:64bit")));
        for (const bool sorted : {false, true}) {
            const ref_ptr<zel::ArrayParameter> parameter(
                new zel::ArrayParameter("p", buffer->getFormat(), zelData::AccessMode::WRITE, buffer.get()));
            parameter->setGlobalResultMode(zel::GlobalResult::TRUNCATE);
            EXPECT_EQ(allocationsOfAppending(parameter.get(),
                                             [&](unsigned job) {
                                                 parameter->getGlobalResult()->commit(
                                                     parameter->getArray(),
                                                     data.size(),
                                                     data.data(),
                                                     sorted ? job : zel::InvalidIndex);
                                             }),
                      0U)
                << sorted;
            EXPECT_EQ(buffer->size(), 2000U);
        }
        const ref_ptr<zelData::EntityModel> model(new zelData::EntityModel("Track"));
        model->setBaseEntity(zelData::EntityModel::getRootModel());
        model->addAttribute(new zelData::ScalarAttribute("number", buffer->getFormat()));
        model->addAttribute(new zelData::ScalarAttribute("weight", zelData::getFormat("Real:32bit")));
        model->addAttribute(new zelData::ScalarAttribute("place", zelData::getFormat("Vec3:64bit")));
        const ref_ptr<zelData::EntityStorage> storage(new zelData::EntityStorage(model.get(), "tracks"));
        const zelData::Buffer* column = storage->getBuffer(zel::Name("number"));
        for (const bool sorted : {false, true}) {
            const ref_ptr<zel::EntityDataParameter> parameter(
                new zel::EntityDataParameter("p", model.get(), zelData::AccessMode::WRITE));
            parameter->bind(storage.get());
            parameter->setGlobalResultMode(zel::GlobalResult::TRUNCATE);
            EXPECT_EQ(allocationsOfAppending(
                          parameter.get(),
                          [&](unsigned job) {
                              zel::GlobalResult* const result = parameter->getGlobalResult();
                              auto transaction = result->allocateResult(data.size());
                              std::fill_n(static_cast<zel::uint64*>(transaction.getElements(column)),
                                          data.size(),
                                          job);
                              if (sorted)
                                  result->setSortIndex(transaction, 19 - job);
                              result->reportCompletedTransaction(&transaction);
                          }),
                      0U)
                << sorted;
            ASSERT_EQ(storage->size(), 2000U);
            EXPECT_EQ(column->data<zel::uint64>()[0] > column->data<zel::uint64>()[1999], sorted);
        }
    }
    zelCore::shutdown();
}

TEST(JobAllocationTest, StepOfAKernelAllocatesNothing) {
    zelCore::init();
    for (const size_t threads : {1U, 2U}) {
        zel::setNumThreads(threads);
        std::atomic<size_t> items{0};
        const ref_ptr<zel::LambdaKernel> kernel(
            new zel::LambdaKernel("kernel", [&items](const zel::RangeJob& job) {
                items.fetch_add(job.getRange().end() - job.getRange().begin());
            }));
        kernel->setNumWorkItems(200000);
        size_t last = 1;
        for (int attempt = 0; attempt < 200 && last != 0; ++attempt)
            last = allocationsOf([&kernel] { kernel->execute(); });
        EXPECT_EQ(last, 0U);
        // Nor does one whose number of items goes up and down below what it has had.
        size_t total = 0;
        for (int i = 0; threads == 1 && i < 20; ++i) {
            kernel->setNumWorkItems(i % 2 == 0 ? 150000 : 200000);
            total += allocationsOf([&kernel] { kernel->execute(); });
        }
        EXPECT_EQ(total, 0U);
        EXPECT_GE(items.load(), 200000U);
    }
    zel::setNumThreads(1);
    zelCore::shutdown();
}

TEST(JobAllocationTest, StepOfAClockWithGroupsKernelsAndResultsAllocatesNothing) {
    zelCore::init();
    zel::setNumThreads(2);
    {
        const zelData::Format* format = zelData::getFormat("Real:64bit");
        const ref_ptr<zelData::Buffer> numbers(new zelData::Buffer("numbers", format));
        const ref_ptr<zelData::Buffer> found(new zelData::Buffer("found", format));
        numbers->resize(10000);
        const ref_ptr<Clock> clock(new Clock("clock", 10));
        const ref_ptr<TaskGroup> step(new TaskGroup("step", true));
        const ref_ptr<TaskGroup> inner(new TaskGroup("inner"));
        const auto addKernel = [&](const char* name, zel::LambdaKernel::Function function) {
            auto* kernel = new zel::LambdaKernel(name, std::move(function));
            kernel->addParameter(
                new zel::ArrayParameter("numbers", format, zelData::AccessMode::READ_WRITE, numbers.get()));
            inner->addSubtask(kernel);
            kernel->rebind();
            return kernel;
        };
        addKernel("count", [&numbers](const zel::RangeJob& job) {
            for (zel::uint64 i = job.getRange().begin(); i < job.getRange().end(); ++i)
                numbers->data<double>()[i] += 1;
        });
        const ref_ptr<zel::ArrayParameter> output(
            new zel::ArrayParameter("output", format, zelData::AccessMode::WRITE, found.get()));
        addKernel("find", [&output](const zel::RangeJob& job) {
            const double first = static_cast<double>(job.getRange().begin());
            output->getGlobalResult()->commit(output->getArray(), 1, &first);
        })->addParameter(output.get());
        output->setGlobalResultMode(zel::GlobalResult::TRUNCATE);
        step->addSubtask(new SerialTask("serial", [] {}));
        step->addSubtask(inner.get());
        step->rebind();
        clock->addFrameTask(step.get());
        size_t last = 1;
        for (int attempt = 0; attempt < 200 && last != 0; ++attempt)
            last = allocationsOf([&clock] { clock->tick(); });
        EXPECT_EQ(last, 0U);
        EXPECT_GT(found->size(), 1U);
        EXPECT_GT(numbers->data<double>()[9999], 0);
    }
    zel::setNumThreads(1);
    zelCore::shutdown();
}

#endif
