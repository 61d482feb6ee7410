#include <zel/SerialTask.h>
#include <zel/TaskJob.h>
#include <zel/Thread.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>

#include <gtest/gtest.h>

namespace {

using zel::ref_ptr;
using zel::SerialTask;
using zel::TaskJob;

class TaskJobTest : public ::testing::Test {
protected:
    TaskJobTest() { zelCore::init(); }
    ~TaskJobTest() override { zelCore::shutdown(); }

    /// Works until there is nothing left to do.
    static void work() { zel::Thread::getCurrentThread()->doWork(); }
};

TEST_F(TaskJobTest, ExecutesItsTask) {
    int runs = 0;
    const ref_ptr<SerialTask> task(new SerialTask("task", [&runs] { ++runs; }));
    TaskJob job(task.get());
    job.spawn();
    work();
    EXPECT_EQ(runs, 1);
    EXPECT_FALSE(task->isRunning());
}

TEST_F(TaskJobTest, ExecutesTheTaskThatItWasGivenLast) {
    int first = 0;
    int second = 0;
    const ref_ptr<SerialTask> one(new SerialTask("one", [&first] { ++first; }));
    const ref_ptr<SerialTask> two(new SerialTask("two", [&second] { ++second; }));
    TaskJob job(one.get());
    job.setExecutedTask(two.get());
    EXPECT_EQ(job.getExecutedTask(), two.get());
    job.spawn();
    work();
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 1);
}

TEST_F(TaskJobTest, CopyDoesNotReachBackToTheOriginal) {
    int first = 0;
    int second = 0;
    const ref_ptr<SerialTask> one(new SerialTask("one", [&first] { ++first; }));
    const ref_ptr<SerialTask> two(new SerialTask("two", [&second] { ++second; }));
    TaskJob original(one.get());
    TaskJob copy(original);
    TaskJob assigned;
    assigned = original;
    original.setExecutedTask(two.get());
    copy.spawn();
    work();
    assigned.spawn();
    work();
    EXPECT_EQ(first, 2);
    EXPECT_EQ(second, 0);
}

} // namespace
