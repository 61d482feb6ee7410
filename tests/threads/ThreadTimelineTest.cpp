#include <zel/Clock.h>
#include <zel/JobGroup.h>
#include <zel/LocalTimelineEntry.h>
#include <zel/ParallelTask.h>
#include <zel/RangeJob.h>
#include <zel/SerialTask.h>
#include <zel/Thread.h>
#include <zel/ThreadTimelineEntryEntity.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/EntityStorage.h>

#include <support/Stress.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

using zel::ParallelTask;
using zel::ref_ptr;
using zel::SerialTask;
using zel::Thread;
using zel::ThreadTimelineEntryData;
using zel::ThreadTimelineEntryModel;

namespace {

class ThreadTimelineTest : public testing::Test {
protected:
    void SetUp() override { zelCore::init(); }
    void TearDown() override {
        zel::setNumThreads(1);
        zelCore::shutdown();
    }

    /// The entries of the main thread after an export.
    static ref_ptr<zelData::EntityData> entries() {
        ThreadTimelineEntryModel* model = ThreadTimelineEntryModel::instance();
        return ref_ptr<zelData::EntityData>(
            model->createData(Thread::getCurrentThread()->getDefaultStorage(model)));
    }
    static size_t numEntries() {
        return Thread::getCurrentThread()->getDefaultStorage(ThreadTimelineEntryModel::instance())->size();
    }
    static std::vector<std::string> descriptions() {
        const ref_ptr<zelData::EntityData> view = entries();
        auto& data = static_cast<ThreadTimelineEntryData&>(*view);
        std::vector<std::string> texts;
        for (size_t i = 0; i < numEntries(); ++i)
            texts.push_back(data.description[i]);
        return texts;
    }
};

} // namespace

TEST_F(ThreadTimelineTest, NotesNothingWhileItIsOff) {
    EXPECT_FALSE(Thread::getEnableJobTimeline());
    Thread::setEnableJobTimeline(true); // a wish, no more
    EXPECT_TRUE(Thread::getEnableJobTimeline());
    const ref_ptr<SerialTask> task(new SerialTask("t", [] {}));
    task->execute();
    Thread::exportAllTimelines();
    EXPECT_EQ(numEntries(), 0U);
}

TEST_F(ThreadTimelineTest, TurnsJobsIntoEntities) {
    const ref_ptr<SerialTask> task(new SerialTask("work", [] {}));
    Thread::resetStartTick();
    task->execute();
    task->execute();
    Thread::exportAllTimelines();
    task->execute(); // after the frame
    ASSERT_EQ(numEntries(), 2U);
    const ref_ptr<zelData::EntityData> view = entries();
    auto& data = static_cast<ThreadTimelineEntryData&>(*view);
    EXPECT_EQ(data.taskId[0], task->getId());
    EXPECT_EQ(data.description[0], "work");
    EXPECT_EQ(data.costEstimate[0], SerialTask::priorityFor(0)); // no run before it was timed
    EXPECT_EQ(data.poolSize[0], 0U);
    EXPECT_EQ(data.jobType[0], 3);
    EXPECT_EQ(data.jobPtr[0], reinterpret_cast<zel::uint64>(task->getJob()));
    EXPECT_EQ(data.extraDataTitle[0], "");
    EXPECT_GE(data.startTimeFrame[0], 0);
    EXPECT_GE(data.endTimeFrame[0], data.startTimeFrame[0]);
    EXPECT_GE(data.startTimeFrame[1], data.endTimeFrame[0]);
    EXPECT_EQ(data.startTimeGlobal[0], data.startTimeFrame[0]); // of the first frame

    Thread::resetStartTick();
    task->execute();
    Thread::exportAllTimelines();
    ASSERT_EQ(numEntries(), 1U); // those of the frame before are gone
    const ref_ptr<zelData::EntityData> next = entries();
    auto& second = static_cast<ThreadTimelineEntryData&>(*next);
    EXPECT_GT(second.startTimeGlobal[0], second.startTimeFrame[0]);
}

TEST_F(ThreadTimelineTest, ShowsTheSizeOfARange) {
    const ref_ptr<ParallelTask> task(new ParallelTask("p"));
    zel::RangeJob job([](const zel::RangeJob&) {}, zel::IndexRange(10, 35));
    task->addJob(&job);
    Thread::resetStartTick();
    task->execute();
    Thread::exportAllTimelines();
    const ref_ptr<zelData::EntityData> view = entries();
    auto& data = static_cast<ThreadTimelineEntryData&>(*view);
    bool found = false;
    for (size_t i = 0; i < numEntries(); ++i) {
        if (data.jobPtr[i] != reinterpret_cast<zel::uint64>(&job))
            continue;
        found = true;
        EXPECT_EQ(data.extraDataTitle[i], "numWorkItems");
        EXPECT_EQ(data.extraData[i], 25);
    }
    EXPECT_TRUE(found);
}

TEST_F(ThreadTimelineTest, ShowsTheMembersOfAGroupInItsPlace) {
    const ref_ptr<ParallelTask> task(new ParallelTask("p"));
    zel::Job a([] {}, "a");
    zel::Job b([] {}, "b");
    zel::JobGroup group("group");
    group.addMember(&a);
    group.addMember(&b);
    task->addJob(&group);
    Thread::resetStartTick();
    task->execute();
    Thread::exportAllTimelines();
    EXPECT_EQ(descriptions(), (std::vector<std::string>{"Pre", "p", "a", "b", "Post"}));
}

TEST_F(ThreadTimelineTest, TakesEntriesOfTheSystem) {
    Thread* thread = Thread::getCurrentThread();
    Thread::resetStartTick();
    for (int i = 0; i < 100; ++i)
        thread->reportSystemJob(zel::Timer::now(), zel::Timer::now(), "io", "bytes", i);
    zel::LocalTimelineEntry entry;
    EXPECT_EQ(entry.jobType, 3U);
    entry.description = "own";
    thread->pushTimelineEntry(entry);
    Thread::exportAllTimelines();
    ASSERT_EQ(numEntries(), 101U);
    const ref_ptr<zelData::EntityData> view = entries();
    auto& data = static_cast<ThreadTimelineEntryData&>(*view);
    EXPECT_EQ(data.description[99], "io");
    EXPECT_EQ(data.extraDataTitle[99], "bytes");
    EXPECT_EQ(data.extraData[99], 99);
    EXPECT_EQ(data.description[100], "own");
}

TEST_F(ThreadTimelineTest, ExportsEveryThreadOfThePool) {
    zel::setNumThreads(4);
    zel::Vector<zel::Job> jobs;
    jobs.resize(64);
    const ref_ptr<ParallelTask> task(new ParallelTask("p"));
    for (zel::Job& job : jobs) {
        job.setCallback([] {});
        task->addJob(&job);
    }
    for (int i = 0; i < 50; ++i) {
        Thread::resetStartTick();
        task->execute();
        Thread::exportAllTimelines();
        EXPECT_GE(numEntries(), 1U);
    }
    task->removeAllJobs();
}

TEST_F(ThreadTimelineTest, ExportsWhileThePoolChanges) {
    std::atomic<bool> end{false};
    std::thread other([&] {
        for (size_t i = 0; !end; ++i) {
            zel::setNumThreads(1 + i % 3);
            std::this_thread::sleep_for(std::chrono::microseconds(200)); // leaves room for exports
        }
    });
    const ref_ptr<SerialTask> task(new SerialTask("work", [] {}));
    task->setTargetThread(Thread::getCurrentThread());
    for (size_t i = 0; i < 10000 / zelTest::StressDivisor && !HasFailure(); ++i) {
        Thread::resetStartTick();
        if (i % 8 == 0)
            task->execute();
        Thread::exportAllTimelines();
        EXPECT_EQ(std::ranges::count(descriptions(), "work"), i % 8 == 0 ? 1 : 0);
    }
    end = true;
    other.join();
}

TEST_F(ThreadTimelineTest, IsFedByTheResponsibleClock) {
    const ref_ptr<zel::Clock> clock(new zel::Clock("c", 10));
    const ref_ptr<SerialTask> task(new SerialTask("work", [] {}));
    clock->addFrameTask(task.get());
    clock->setIsThreadTimelineResponsible(true);
    EXPECT_TRUE(clock->getIsThreadTimelineResponsible());
    clock->tick(false);
    EXPECT_EQ(numEntries(), 0U); // nobody asked for it
    Thread::setEnableJobTimeline(true);
    clock->tick(false);
    EXPECT_EQ(descriptions(), (std::vector<std::string>{"Pre", "work", "Post"}));
    clock->setIsThreadTimelineResponsible(false);
    clock->tick(false);
    EXPECT_EQ(numEntries(), 3U); // of the frame before
}
