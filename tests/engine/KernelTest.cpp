#include "support/ModelFiles.h"
#include "support/PoolThreads.h"
#include "support/WhatOf.h"

#include <zel/ArrayParameter.h>
#include <zel/CpuDevice.h>
#include <zel/CpuKernel.h>
#include <zel/GlobalResultBuffer.h>
#include <zel/Kernel.h>
#include <zel/LambdaKernel.h>
#include <zel/Model.h>
#include <zel/RangeJob.h>
#include <zel/Thread.h>
#include <zel/Timer.h>
#include <zel/Vector.h>
#include <zel/WaitJob.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/Buffer.h>
#include <zelData/Type.h>

#include <tinyxml.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

using testing::HasSubstr;
using zel::LambdaKernel;
using zel::RangeJob;
using zel::ref_ptr;
using zel::size_t;
using zelTest::whatOf;

namespace {

class KernelTest : public testing::Test {
protected:
    void SetUp() override {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        zelCore::init();
        zel::setNumThreads(1);
    }
    void TearDown() override { zelCore::shutdown(); }
};
using KernelDeathTest = KernelTest;

ref_ptr<LambdaKernel> kernel(LambdaKernel::Function function = [](const RangeJob&) {}) {
    return new LambdaKernel("kernel", std::move(function));
}

const RangeJob& job(const zel::CpuKernel& kernel, size_t index) {
    return static_cast<const RangeJob&>(*kernel.getJobs()[index]);
}

size_t sizeOf(const RangeJob& job) {
    return job.getRange().end() - job.getRange().begin();
}

/// Cuts n items for so many threads, by the defaults or what has been set.
void dispatch(LambdaKernel& kernel, size_t n, size_t numThreads) {
    zel::setNumThreads(numThreads);
    kernel.setNumWorkItems(n);
    kernel.execute();
}

/// The jobs lie side by side and cover n items.
void expectSeamless(const zel::CpuKernel& kernel, size_t n) {
    size_t next = 0;
    for (size_t i = 0; i < kernel.getJobs().size(); ++i) {
        EXPECT_EQ(job(kernel, i).getRange().begin(), next);
        next = job(kernel, i).getRange().end();
    }
    EXPECT_EQ(next, n);
}

TiXmlElement element(const std::string& text) {
    TiXmlDocument document;
    document.Parse(text.c_str());
    return *document.RootElement();
}

} // namespace

TEST_F(KernelTest, OneThreadRunsTheRangesInTheirOrder) {
    std::vector<size_t> begins;
    const auto task =
        kernel([&begins](const RangeJob& range) { begins.push_back(range.getRange().begin()); });
    dispatch(*task, 100'000, 1);
    EXPECT_EQ(begins.size(), task->getJobs().size());
    EXPECT_GT(begins.size(), 10U);
    EXPECT_TRUE(std::is_sorted(begins.begin(), begins.end()));
}

TEST_F(KernelTest, IsATaskOnTheCpuWithTheDefaultsTold) {
    const auto task = kernel();
    EXPECT_EQ(task->getDevice(), zel::CpuDevice::instance());
    EXPECT_TRUE(task->getModel()->is(zel::CpuKernel::ClassModel()));
    EXPECT_TRUE(task->getModel()->is(zel::Kernel::ClassModel()));
    EXPECT_TRUE(task->getModel()->is(zel::Task::ClassModel()));
    EXPECT_EQ(task->getNumJobsPerThread(), 4U);
    EXPECT_EQ(task->getMinJobSize(), 128U);
    EXPECT_EQ(task->getMaxJobSize(), 4096U);
    EXPECT_EQ(task->getCostPerElement(), 1U);
}

TEST_F(KernelTest, WithoutItemsThereAreNoJobsAndThePostJobStillRuns) {
    int calls = 0;
    const auto task = kernel([&](const RangeJob&) { ++calls; });
    dispatch(*task, 1000, 1);
    const int before = calls;
    int ends = 0;
    task->postEvent.connect([&](zel::Task*) { ++ends; });
    dispatch(*task, 0, 1);
    EXPECT_EQ(calls, before);
    EXPECT_EQ(task->getNumJobs(), 0U);
    EXPECT_TRUE(task->getJobs().empty());
    EXPECT_EQ(ends, 1);
}

TEST_F(KernelTest, ThousandItemsOnFourThreadsAreEightJobs) {
    const auto task = kernel();
    dispatch(*task, 1000, 4);
    ASSERT_EQ(task->getNumJobs(), 8U);
    ASSERT_EQ(task->getJobs().size(), 8U);
    for (size_t i = 0; i < 7; ++i) {
        EXPECT_EQ(sizeOf(job(*task, i)), 128U);
        EXPECT_EQ(job(*task, i).getPriority(), 128U);
    }
    EXPECT_EQ(sizeOf(job(*task, 7)), 104U);
    EXPECT_EQ(job(*task, 7).getPriority(), 104U);
    expectSeamless(*task, 1000);
}

TEST_F(KernelTest, MillionItemsOnOneThreadAreClampedToTheLargestJob) {
    const auto task = kernel();
    dispatch(*task, 1000000, 1);
    ASSERT_EQ(task->getNumJobs(), 245U);
    EXPECT_EQ(sizeOf(job(*task, 0)), 4096U);
    expectSeamless(*task, 1000000);
}

TEST_F(KernelTest, SizesAreRoundedUpToSixteen) {
    const auto task = kernel();
    dispatch(*task, 20001, 2); // 2500 each
    EXPECT_EQ(sizeOf(job(*task, 0)), 2512U);
    EXPECT_EQ(task->getNumJobs(), 8U);
    expectSeamless(*task, 20001);
}

TEST_F(KernelTest, SmallestSizeAboveTheLargestWinsOnlyOverSmallerOnes) {
    const auto task = kernel();
    task->setMinJobSize(1000);
    task->setMaxJobSize(100);
    dispatch(*task, 2000, 1); // 500, rounded to 512: below the smallest
    EXPECT_EQ(sizeOf(job(*task, 0)), 1000U);
    dispatch(*task, 8000, 1); // 2000: not below the smallest, so at most the largest
    EXPECT_EQ(sizeOf(job(*task, 0)), 100U);
}

TEST_F(KernelTest, BoundsOfZeroGiveJobsOfOneItem) {
    const auto task = kernel();
    task->setMinJobSize(0);
    dispatch(*task, 3, 1); // 0 items a job
    EXPECT_EQ(task->getNumJobs(), 3U);
    expectSeamless(*task, 3);
    task->setMaxJobSize(0);
    dispatch(*task, 100, 1);
    EXPECT_EQ(task->getNumJobs(), 100U);
}

TEST_F(KernelTest, MoreJobsThanFitIntoANumberAreManySmallOnes) {
    const auto task = kernel();
    task->setNumJobsPerThread(std::numeric_limits<size_t>::max());
    dispatch(*task, 256, 4);
    EXPECT_EQ(task->getNumJobs(), 2U);
}

TEST_F(KernelTest, CostPerElementWeighsThePriorityWhichSaturates) {
    const auto task = kernel();
    task->setCostPerElement(10);
    dispatch(*task, 1000, 4);
    EXPECT_EQ(job(*task, 0).getPriority(), 1280U);
    task->setCostPerElement(size_t{1} << 26); // 2^33 for 128 items
    task->execute();
    EXPECT_EQ(job(*task, 0).getPriority(), std::numeric_limits<zel::uint32>::max());
    task->setCostPerElement(std::numeric_limits<size_t>::max());
    task->execute();
    EXPECT_EQ(job(*task, 0).getPriority(), std::numeric_limits<zel::uint32>::max());
}

TEST_F(KernelTest, EachItemIsVisitedOnceOnAnyNumberOfThreads) {
    for (const size_t numThreads : {1U, 2U, 4U}) {
        for (const size_t n : {1U, 15U, 128U, 129U, 5000U, 100000U}) {
            std::vector<std::atomic<int>> visits(n);
            const auto task = kernel([&](const RangeJob& range) {
                for (size_t i = range.getRange().begin(); i != range.getRange().end(); ++i)
                    visits[i].fetch_add(1, std::memory_order_relaxed);
            });
            dispatch(*task, n, numThreads);
            task->execute();
            for (const auto& count : visits)
                ASSERT_EQ(count.load(), 2);
        }
    }
}

TEST_F(KernelTest, JobsStayWhileTheCutStays) {
    const auto task = kernel();
    dispatch(*task, 1000, 1);
    const zel::Job* const first = task->getJobs()[0];
    task->execute();
    EXPECT_EQ(task->getJobs()[0], first);
    dispatch(*task, 500, 1); // fewer: the same storage
    EXPECT_EQ(task->getJobs()[0], first);
    expectSeamless(*task, 500);
    task->removeAllJobs();
    task->execute();
    expectSeamless(*task, 500);
}

TEST_F(KernelTest, JobsInRowsAreTheSameJobs) {
    // The first run times the jobs, the later ones may put them into rows.
    for (const size_t numThreads : {1U, 2U, 3U}) {
        std::vector<std::atomic<int>> visits(50'000);
        const auto task = kernel([&visits](const RangeJob& range) {
            EXPECT_EQ(range.getExecutingThread(), zel::Thread::getCurrentThread());
            for (size_t i = range.getRange().begin(); i != range.getRange().end(); ++i)
                visits[i].fetch_add(1, std::memory_order_relaxed);
        });
        int runs = 0;
        for (const size_t n : {50'000U, 50'000U, 50'000U, 40'000U, 50'000U, 1'000U, 1'000U, 50'000U}) {
            dispatch(*task, n, numThreads);
            ++runs;
            ASSERT_EQ(task->getJobs().size(), task->getNumJobs());
            expectSeamless(*task, n);
        }
        EXPECT_EQ(visits[0].load(), runs);
        EXPECT_EQ(visits[999].load(), runs);
        EXPECT_EQ(visits[39'999].load(), runs - 2);
        EXPECT_EQ(visits[49'999].load(), runs - 3);

        // Who looks at the times of the jobs gets those of the last run.
        zel::Task::setProfilingMode(zel::Task::ProfilingFull);
        task->execute();
        task->execute();
        zel::Task::setProfilingMode(zel::Task::ProfilingOff);
        const zel::uint64 now = zel::Timer::now();
        for (const zel::Job* each : task->getJobs())
            EXPECT_LT(now - each->getStartTick(), now - task->getDispatchJob()->getStartTick());
    }
}

TEST_F(KernelTest, ARangeThatIsSmallRunsOnTheCaller) {
    zel::setNumThreads(2);
    const zel::Thread* const caller = zel::Thread::getCurrentThread();
    std::atomic<size_t> elsewhere{0};
    const auto task = kernel([&](const RangeJob&) {
        if (zel::Thread::getCurrentThread() != caller)
            elsewhere.fetch_add(1);
    });
    task->setNumWorkItems(1000);
    // From the second run on, unless the machine is busy.
    size_t quiet = 0;
    while (quiet < 100) {
        elsewhere = 0;
        task->execute();
        quiet = elsewhere == 0 ? quiet + 1 : 0;
    }
    EXPECT_EQ(task->getNumJobs(), 8U);
}

TEST_F(KernelTest, WaitersForAJobInARowAreLetGo) {
    const auto task = kernel();
    dispatch(*task, 1000, 1);
    task->execute();
    zel::WaitJob waiter(task->getJobs()[3]);
    task->execute();
    waiter.wait();
}

TEST_F(KernelTest, EdgesAmongItsJobsHold) {
    std::vector<size_t> begins;
    const auto task =
        kernel([&begins](const RangeJob& range) { begins.push_back(range.getRange().begin()); });
    dispatch(*task, 1000, 1);
    ASSERT_EQ(task->getJobs().size(), 4U);
    task->getJobs()[3]->addDependent(task->getJobs()[0]);
    for (int i = 0; i < 3; ++i) {
        begins.clear();
        task->execute();
        EXPECT_EQ(begins, (std::vector<size_t>{256, 512, 768, 0}));
    }
    task->getJobs()[3]->removeDependent(task->getJobs()[0]);
}

TEST_F(KernelTest, JobsThatAreAddedToThoseOfTheCutRunAsWell) {
    int runs = 0;
    zel::Job extra([&runs] { ++runs; });
    struct Own : LambdaKernel {
        explicit Own(zel::Job& job) : LambdaKernel("own", [](const RangeJob&) {}), more(job) {
            setDispatch([this] {
                generateJobs();
                addJob(&more);
            });
        }
        zel::Job& more;
    };
    const ref_ptr<Own> task(new Own(extra));
    task->setNumWorkItems(1000);
    for (int i = 1; i <= 5; ++i) {
        task->execute();
        EXPECT_EQ(runs, i);
        EXPECT_EQ(task->getJobs().size(), task->getNumJobs() + 1);
    }
    task->removeAllJobs();
    EXPECT_TRUE(extra.getDependents().empty());
}

TEST_F(KernelTest, PreDispatchRunsAheadOfEachDispatch) {
    struct Growing : LambdaKernel {
        Growing() : LambdaKernel("growing", [](const RangeJob&) {}) {}
        void preDispatch() override { setNumWorkItems(100 * ++runs); }
        size_t runs = 0;
    };
    const ref_ptr<Growing> task(new Growing);
    task->execute();
    expectSeamless(*task, 100);
    task->execute();
    expectSeamless(*task, 200);
}

TEST_F(KernelTest, DispatchOfOnesOwnReplacesTheCut) {
    struct Own : zel::CpuKernel {
        explicit Own(int& calls) : CpuKernel("own", zel::Callback([&calls] { ++calls; })) {}
        RangeJob* allocateRangeJobs(size_t) override { return nullptr; }
    };
    int calls = 0;
    const ref_ptr<Own> task(new Own(calls));
    task->execute();
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(task->getJobs().empty());
}

TEST_F(KernelTest, ComputeTimeIsThatOfTheJobsWithFullProfiling) {
    const auto task = kernel([](const RangeJob&) { zelTest::spin(0.2); });
    dispatch(*task, 100, 1);
    EXPECT_EQ(task->getComputeTime(), 0);
    zel::Task::setProfilingMode(zel::Task::ProfilingFull);
    task->execute();
    zel::Task::setProfilingMode(zel::Task::ProfilingOff);
    EXPECT_GE(task->getComputeTime(), 0.2F);
}

TEST_F(KernelTest, OwnNumberOfItemsOutlivesARebind) {
    const auto task = kernel();
    dispatch(*task, 100, 1);
    EXPECT_NE(task->getNumWorkItemsValue(), nullptr);
    task->rebind();
    EXPECT_EQ(task->getNumWorkItemsValue(), nullptr);
    task->execute();
    expectSeamless(*task, 100);
}

TEST_F(KernelTest, CountsTheItemsOfWhatItsParameterIsBoundToNow) {
    const ref_ptr<zelData::Buffer> large(new zelData::Buffer("large", zelData::getFormat("UInt:64bit")));
    const ref_ptr<zelData::Buffer> small(new zelData::Buffer("small", zelData::getFormat("UInt:64bit")));
    large->resize(1000);
    small->resize(10);
    const auto task = kernel();
    const ref_ptr<zel::ArrayParameter> input(
        new zel::ArrayParameter("input", zelData::getFormat("UInt:64bit")));
    input->setRequired(false);
    task->addParameter(input.get());
    input->bind(large.get());
    task->execute();
    expectSeamless(*task, 1000);
    input->bind(small.get());
    task->execute();
    expectSeamless(*task, 10);
    small->resize(300);
    task->execute();
    expectSeamless(*task, 300);
    input->unbind();
    task->execute();
    EXPECT_TRUE(task->getJobs().empty());
}

TEST_F(KernelTest, CountsTheItemsThatAnArrayHasAheadOfTheRunThatAppendsToIt) {
    for (const char* format : {"UInt:64bit", "String"})
        for (const bool reads : {false, true}) {
            const ref_ptr<zelData::Buffer> buffer(new zelData::Buffer("buffer", zelData::getFormat(format)));
            buffer->resize(10);
            const auto task = kernel();
            const ref_ptr<zel::ArrayParameter> input(
                new zel::ArrayParameter("input", zelData::getFormat(format)));
            const ref_ptr<zel::ArrayParameter> output(
                new zel::ArrayParameter("output", zelData::getFormat(format), zelData::AccessMode::WRITE));
            if (reads) {
                task->addParameter(input.get());
                input->bind(buffer.get());
            }
            task->addParameter(output.get());
            output->bind(buffer.get());
            output->setGlobalResultMode(zel::GlobalResult::APPEND);
            for (int run = 0; run < 2; ++run) {
                task->execute();
                expectSeamless(*task, 10);
                EXPECT_EQ(buffer->size(), 10U);
            }
        }
}

TEST_F(KernelTest, ModelFilesSetTheFourNumbers) {
    const auto task = kernel();
    TiXmlElement settings =
        element("<Kernel numJobsPerThread='2' minJobSize='16' maxJobSize='64' costPerElement='UInt(7)'/>");
    task->configure(&settings);
    EXPECT_EQ(task->getNumJobsPerThread(), 2U);
    EXPECT_EQ(task->getMinJobSize(), 16U);
    EXPECT_EQ(task->getMaxJobSize(), 64U);
    EXPECT_EQ(task->getCostPerElement(), 7U);
}

TEST_F(KernelTest, SortsAGlobalResultByItsJobs) {
    const ref_ptr<zelData::Buffer> numbers(new zelData::Buffer("numbers", zelData::getFormat("UInt:64bit")));
    const ref_ptr<zelData::Buffer> multiples(
        new zelData::Buffer("multiples", zelData::getFormat("UInt:64bit")));
    numbers->resize(50'000);
    for (zel::uint64 i = 0; i < numbers->size(); ++i)
        numbers->data<zel::uint64>()[i] = i;

    const ref_ptr<zel::ArrayParameter> input(
        new zel::ArrayParameter("input", zelData::getFormat("UInt:64bit")));
    const ref_ptr<zel::ArrayParameter> output(
        new zel::ArrayParameter("output", zelData::getFormat("UInt:64bit"), zelData::AccessMode::WRITE));
    LambdaKernel* self = nullptr;
    const ref_ptr<LambdaKernel> sieve = kernel([&](const RangeJob& job) {
        std::vector<zel::uint64> found;
        for (zel::uint64 i = job.getRange().begin(); i < job.getRange().end(); ++i)
            if (numbers->data<zel::uint64>()[i] % 7 == 0)
                found.push_back(i);
        output->getGlobalResult()->commit(
            output->getArray(), found.size(), found.data(), self->getJobIndex(job));
    });
    self = sieve.get();
    sieve->addParameter(input.get());
    sieve->addParameter(output.get());
    input->bind(numbers.get());
    output->setGlobalResultMode(zel::GlobalResult::TRUNCATE);
    output->bind(multiples.get());
    for (const size_t numThreads : {1U, 2U, 4U, 16U}) {
        zel::setNumThreads(numThreads);
        sieve->execute();
        ASSERT_EQ(multiples->size(), 7143U);
        for (zel::uint64 i = 0; i < multiples->size(); ++i)
            ASSERT_EQ(multiples->data<zel::uint64>()[i], 7 * i) << numThreads;
    }
}

TEST_F(KernelTest, NoJobsPerThreadIsRefusedWithTheRow) {
    const auto task = kernel();
    TiXmlElement settings = element("<Kernel numJobsPerThread='0'/>");
    EXPECT_THAT(whatOf([&] { task->configure(&settings); }),
                HasSubstr("XML error: numJobsPerThread must be at least 1. Error at row 1"));
}

TEST_F(KernelDeathTest, NoJobsPerThreadIsAFailedVerificationInCode) {
    const auto task = kernel();
    EXPECT_DEATH(task->setNumJobsPerThread(0), "kernel: numJobsPerThread must be at least 1");
}

TEST_F(KernelDeathTest, NoJobsPerThreadByBindingShowsAtTheDispatch) {
    EXPECT_DEATH(
        {
            const auto task = kernel();
            task->setNumWorkItems(10);
            dynamic_cast<zelData::Value&>(*task->findObject("numJobsPerThread")).setExpression("0");
            task->execute();
        },
        "kernel: numJobsPerThread must be at least 1");
}

TEST_F(KernelDeathTest, ExceptionInAParallelPhaseReachesTheCallerOrEndsTheProcess) {
    EXPECT_EXIT(
        {
            zel::setNumThreads(1);
            const auto task = kernel([](const RangeJob& range) {
                if (range.getRange().begin() == 256)
                    throw std::runtime_error("item 256 is bad");
            });
            task->setNumWorkItems(1000);
            try {
                task->execute();
            } catch (const std::runtime_error& error) {
                std::fputs(error.what(), stderr);
                _exit(zel::Task::hasUnhandledException() ? 3 : 4);
            }
        },
        testing::ExitedWithCode(3),
        "item 256 is bad");
}
