#include <zel/Job.h>
#include <zel/JobGroup.h>
#include <zel/RangeJob.h>
#include <zel/Thread.h>
#include <zel/Vector.h>
#include <zelCore/zelCore.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

namespace {

using zel::Job;

class JobTest : public ::testing::Test {
protected:
    JobTest() { zelCore::init(); }
    ~JobTest() override { zelCore::shutdown(); }

    /// Works until there is nothing left to do.
    static void work() { zel::Thread::getCurrentThread()->doWork(); }
};

TEST_F(JobTest, RunsItsCallback) {
    int runs = 0;
    Job job([&runs] { ++runs; });
    job.spawn();
    work();
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(job.getExecutingThread(), zel::Thread::getCurrentThread());
}

TEST_F(JobTest, WithoutACallbackDoesNothing) {
    Job job("empty");
    job.spawn();
    work();
    EXPECT_EQ(job.getExecutingThread(), zel::Thread::getCurrentThread());
    EXPECT_STREQ(job.getName(), "empty");
}

TEST_F(JobTest, HasTheDocumentedDefaults) {
    const Job job;
    EXPECT_STREQ(job.getName(), "");
    EXPECT_TRUE(job.getDependents().empty());
    EXPECT_TRUE(job.getDependencies().empty());
    EXPECT_FALSE(job.getCallback());
    EXPECT_TRUE(job.getSpawnCallback());
    EXPECT_EQ(job.getStartTick(), 0U);
    EXPECT_EQ(job.getCycles(), 0U);
    EXPECT_FALSE(job.isTiming());
    EXPECT_EQ(job.getNumDependencies(), 0U);
    EXPECT_EQ(job.getTargetThread(), nullptr);
    EXPECT_EQ(job.getExecutingThread(), nullptr);
    EXPECT_EQ(job.getSyncTag(), nullptr);
    EXPECT_EQ(job.getPriority(), 0U);
    EXPECT_EQ(job.getPoolTag(), -1);
}

TEST_F(JobTest, RunsAfterAllItsDependencies) {
    std::vector<int> order;
    Job a([&order] { order.push_back(1); });
    Job b([&order] { order.push_back(1); });
    Job c([&order] { order.push_back(2); });
    a.addDependent(&c);
    b.addDependent(&c);
    a.spawn();
    b.spawn();
    work();
    EXPECT_EQ(order, (std::vector<int>{1, 1, 2}));
}

TEST_F(JobTest, ResolvesOncePerPassAndNeedsNoReset) {
    Job a;
    Job b;
    Job c;
    a.addDependent(&c);
    b.addDependent(&c);
    for (int pass = 0; pass < 3; ++pass) {
        EXPECT_FALSE(c.resolve());
        EXPECT_TRUE(c.resolve());
    }
}

TEST_F(JobTest, OfPriority100LeavesTheQueueBeforeOneOf0) {
    std::vector<int> order;
    std::vector<std::unique_ptr<Job>> jobs;
    for (int i = 0; i < 20; ++i)
        jobs.push_back(std::make_unique<Job>([&order] { order.push_back(0); }));
    Job urgent([&order] { order.push_back(100); }, "urgent", 100);
    for (size_t i = 0; i < 10; ++i)
        jobs[i]->spawn();
    urgent.spawn();
    for (size_t i = 10; i < 20; ++i)
        jobs[i]->spawn();
    work();
    ASSERT_EQ(order.size(), 21U);
    EXPECT_EQ(order.front(), 100);
}

TEST_F(JobTest, RemovedDependencyIsNotWaitedFor) {
    int runs = 0;
    Job a;
    Job b;
    Job c([&runs] { ++runs; });
    a.addDependent(&c);
    b.addDependent(&c);
    EXPECT_TRUE(b.removeDependent(&c));
    EXPECT_FALSE(b.removeDependent(&c));
    EXPECT_EQ(c.getNumDependencies(), 1U);
    a.spawn();
    work();
    EXPECT_EQ(runs, 1);
}

TEST_F(JobTest, MaySpawnJobs) {
    int runs = 0;
    Job inner([&runs] { ++runs; });
    Job outer([&inner] { inner.spawn(); });
    outer.spawn();
    work();
    EXPECT_EQ(runs, 1);
}

TEST_F(JobTest, SpawnCallbackSpawnsTheJob) {
    int runs = 0;
    Job job([&runs] { ++runs; });
    job.getSpawnCallback()();
    work();
    EXPECT_EQ(runs, 1);
}

TEST_F(JobTest, CopyHasTheWorkAndNoEdges) {
    int runs = 0;
    Job dependent;
    Job original([&runs] { ++runs; }, "original", 7);
    original.addDependent(&dependent);
    Job copy(original);
    EXPECT_STREQ(copy.getName(), "original");
    EXPECT_EQ(copy.getPriority(), 7U);
    EXPECT_TRUE(copy.getDependents().empty());
    copy.getSpawnCallback()(); // spawns the copy and not the original
    work();
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(original.getExecutingThread(), nullptr);
    EXPECT_NE(copy.getExecutingThread(), nullptr);
}

TEST_F(JobTest, MeasuresItsTime) {
    Job job([] {
        const auto start = zel::Timer::now();
        while (zel::Timer::now() - start < 1000) {
        }
    });
    job.spawn();
    work();
    EXPECT_GE(job.getCycles(), 1000U);
    EXPECT_NE(job.getStartTick(), 0U);
    EXPECT_FALSE(job.isTiming());
}

TEST_F(JobTest, MayStopItsClockEarly) {
    zel::uint64 cycles = 0;
    Job* self = nullptr;
    Job job([&] {
        self->stopTiming();
        cycles = self->getCycles();
        const auto start = zel::Timer::now();
        while (zel::Timer::now() - start < 1000) {
        }
    });
    self = &job;
    job.spawn();
    work();
    EXPECT_EQ(job.getCycles(), cycles);
}

TEST_F(JobTest, OfARangeGetsItself) {
    const zel::RangeJob* got = nullptr;
    zel::RangeJob job([&got](const zel::RangeJob& range) { got = &range; }, zel::IndexRange(3, 8));
    job.spawn();
    work();
    ASSERT_EQ(got, &job);
    EXPECT_EQ(got->getRange(), zel::IndexRange(3, 8));
}

TEST_F(JobTest, OfARangeWithoutACallbackThrows) {
    zel::RangeJob job;
    EXPECT_THROW(job.implementation(), std::bad_function_call);
}

TEST_F(JobTest, GroupRunsItsMembersInOrder) {
    std::vector<int> order;
    Job a([&order] { order.push_back(1); });
    Job b([&order] { order.push_back(2); });
    Job c([&order] { order.push_back(3); });
    zel::JobGroup group("group");
    group.addMember(&a);
    group.addMember(&b);
    group.addMember(&c);
    group.spawn();
    work();
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
    for (const Job* member : group.getMembers()) {
        EXPECT_NE(member->getStartTick(), 0U);
        EXPECT_FALSE(member->isTiming());
    }
}

TEST(JobDeathTest, SpawningOnAnUnregisteredThreadIsRefused) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    Job job;
    EXPECT_DEATH(job.spawn(), "zelVerify failed: `thread != nullptr'");
}

} // namespace
