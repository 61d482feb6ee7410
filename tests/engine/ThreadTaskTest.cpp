#include <zel/Parameter.h>
#include <zel/Thread.h>
#include <zel/ThreadTask.h>
#include <zel/observer_ptr.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>

#include <mutex>
#include <set>
#include <string>

using zel::ref_ptr;
using zel::Thread;
using zel::ThreadTask;

namespace {

class ThreadTaskTest : public testing::Test {
protected:
    void SetUp() override { zelCore::init(); }
    void TearDown() override {
        zel::setNumThreads(1);
        zelCore::shutdown();
    }

    /// Notes the thread that runs it.
    zel::Callback noting() {
        return [this] {
            const std::lock_guard lock(m_mutex);
            m_ids.insert(Thread::getCurrentThread()->getId());
        };
    }

    std::mutex m_mutex;
    std::multiset<zel::uint32> m_ids;
};

using Ids = std::multiset<zel::uint32>;

} // namespace

TEST_F(ThreadTaskTest, RunsOnceOnEachThread) {
    zel::setNumThreads(4);
    const ref_ptr<ThreadTask> task(new ThreadTask(noting(), 4));
    for (int i = 0; i < 20; ++i) {
        m_ids.clear();
        task->execute();
        ASSERT_EQ(m_ids, (Ids{0, 1, 2, 3}));
    }
    EXPECT_EQ(task->getName(), zel::Name("ThreadTask"));
}

TEST_F(ThreadTaskTest, RunsNoMoreJobsThanThereAreThreads) {
    zel::setNumThreads(2);
    const ref_ptr<ThreadTask> task(new ThreadTask("t", noting(), 100));
    task->execute();
    EXPECT_EQ(m_ids, (Ids{0, 1}));
    EXPECT_EQ(task->getNumThreads(), 100U);
}

TEST_F(ThreadTaskTest, FollowsTheNumberOfThreads) {
    const ref_ptr<ThreadTask> task(new ThreadTask("t", noting(), 16));
    for (const size_t threads : {8U, 1U, 3U, 16U, 2U}) {
        zel::setNumThreads(threads);
        m_ids.clear();
        task->execute();
        EXPECT_EQ(m_ids.size(), threads);
        EXPECT_EQ(task->getJobs().size(), threads);
    }
    task->setNumThreads(1);
    m_ids.clear();
    task->execute();
    EXPECT_EQ(m_ids, Ids{0});
    task->setNumThreads(0);
    m_ids.clear();
    task->execute();
    EXPECT_TRUE(m_ids.empty());
}

TEST_F(ThreadTaskTest, CallsBackAheadAndAfter) {
    zel::setNumThreads(2);
    std::string order;
    std::mutex mutex;
    const ref_ptr<ThreadTask> task(new ThreadTask(
        "t",
        [&] {
            const std::lock_guard lock(mutex);
            order += 'x';
        },
        [&] { order += ')'; },
        2));
    task->setPreCallback([&] { order += '('; });
    task->execute();
    task->execute();
    EXPECT_EQ(order, "(xx)(xx)");
}

TEST_F(ThreadTaskTest, KeepsTheNumberInAParameter) {
    const ref_ptr<ThreadTask> task(new ThreadTask("t", noting(), 3));
    ASSERT_EQ(task->getNumParameters(), 1U);
    EXPECT_EQ(task->getParameters()[0]->getName(), zel::Name("numThreads"));
}

TEST_F(ThreadTaskTest, DiesWithItsLastOwner) {
    ref_ptr<ThreadTask> task(new ThreadTask("t", noting(), 3));
    task->execute();
    const zel::observer_ptr<ThreadTask> observer(task.get());
    task = nullptr;
    EXPECT_EQ(observer.get(), nullptr);
}
