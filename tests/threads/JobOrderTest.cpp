// In which order jobs leave a queue, and when a waiter for one is let go.
#include <zel/Job.h>
#include <zel/SyncTag.h>
#include <zel/Thread.h>
#include <zel/WaitJob.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <random>
#include <thread>
#include <vector>

namespace {

using zel::Job;
using zel::ref_ptr;

class JobOrderTest : public testing::Test {
protected:
    JobOrderTest() { zelCore::init(); }
    ~JobOrderTest() override { zelCore::shutdown(); }

    /// Works until there is nothing left to do.
    static void work() { zel::Thread::getCurrentThread()->doWork(); }
};

/// Not ready until somebody opens it.
class Gate : public zel::SyncTag {
public:
    zel::int32 getStatus() override { return m_open ? 1 : 0; }
    void open() { m_open = true; }

private:
    std::atomic<bool> m_open{false};
};

TEST_F(JobOrderTest, EqualJobsLeaveInTheOrderInWhichTheyCame) {
    constexpr size_t Count = 1000;
    std::vector<size_t> order;
    std::vector<size_t> ran;
    std::vector<Job> jobs(Count);
    for (size_t i = 0; i < Count; ++i) {
        jobs[i].setCallback([i, &ran] { ran.push_back(i); });
        jobs[i].setPriority(3);
        order.push_back(i);
    }
    std::mt19937 random(7);
    for (int i = 0; i < 3; ++i) {
        std::shuffle(order.begin(), order.end(), random);
        ran.clear();
        for (const size_t index : order)
            jobs[index].spawn();
        work();
        EXPECT_EQ(ran, order);
    }
}

TEST_F(JobOrderTest, JobsLeaveByPriorityAndEqualOnesInTheOrderInWhichTheyCame) {
    struct Spawner : Job {
        std::vector<Job*> spawned;
        std::vector<const Job*>* ran = nullptr;
        void implementation() override {
            ran->push_back(this);
            for (Job* job : spawned)
                job->spawn();
        }
    };
    for (unsigned seed = 1; seed <= 200; ++seed) {
        std::mt19937 random(seed);
        const unsigned numPriorities = 1 + seed % 4;
        std::vector<Spawner> jobs(300);
        std::vector<const Job*> ran;
        for (size_t i = 0; i < jobs.size(); ++i) {
            jobs[i].ran = &ran;
            jobs[i].setPriority(random() % 8 == 0 ? static_cast<zel::uint32>(random() % numPriorities) : 1);
            // Some come from outside, the others from a job before them.
            if (i >= 40)
                jobs[random() % i].spawned.push_back(&jobs[i]);
        }
        for (size_t i = 0; i < 40; ++i)
            jobs[i].spawn();
        work();

        std::vector<const Job*> expected;
        std::vector<Spawner*> queue;
        for (size_t i = 0; i < 40; ++i)
            queue.push_back(&jobs[i]);
        while (!queue.empty()) {
            const auto best = std::max_element(queue.begin(), queue.end(), [](const Job* a, const Job* b) {
                return a->getPriority() < b->getPriority();
            }); // the first of the best
            Spawner* const next = *best;
            queue.erase(best);
            expected.push_back(next);
            for (Job* job : next->spawned)
                queue.push_back(static_cast<Spawner*>(job));
        }
        ASSERT_EQ(ran, expected) << "seed " << seed;
    }
}

TEST_F(JobOrderTest, AmongEqualJobsThreadsTakeThoseOfTheirOwnFirst) {
    std::vector<int> ran;
    std::vector<Job> jobs(6);
    const zel::uint16 homes[] = {1, 0, Job::NoHome, 1, 0, 0};
    for (int i = 0; i < 6; ++i) {
        jobs[static_cast<size_t>(i)].setCallback([i, &ran] { ran.push_back(i); });
        jobs[static_cast<size_t>(i)].setHome(homes[i]);
        jobs[static_cast<size_t>(i)].setPriority(i == 3 ? 8 : 7);
    }
    for (Job& job : jobs)
        job.spawn();
    work();
    // The best one first, whoever it is for; then our own, and in the end those of others.
    EXPECT_EQ(ran, (std::vector<int>{3, 1, 4, 5, 0, 2}));
}

TEST_F(JobOrderTest, AJobOfOursThatIsNotReadyLetsThoseOfOthersGoAhead) {
    const ref_ptr<Gate> gate(new Gate);
    std::vector<int> ran;
    Job ours([&ran] { ran.push_back(0); });
    ours.setHome(0);
    ours.setSyncTag(gate.get());
    Job theirs([&] {
        ran.push_back(1);
        gate->open();
    });
    theirs.setHome(1);
    theirs.spawn();
    ours.spawn();
    work();
    EXPECT_EQ(ran, (std::vector<int>{1, 0}));
}

TEST_F(JobOrderTest, AJobThatIsNotReadyLetsItsEqualsGoAhead) {
    // Whichever of the two lies at the lower address, and whichever comes first.
    for (const size_t waiting : {0U, 1U}) {
        for (const size_t first : {0U, 1U}) {
            const ref_ptr<Gate> gate(new Gate);
            std::vector<Job> jobs(2);
            bool ran = false;
            jobs[waiting].setSyncTag(gate.get());
            jobs[waiting].setCallback([&ran] { ran = true; });
            jobs[1 - waiting].setCallback([&] { gate->open(); });
            jobs[first].spawn();
            jobs[1 - first].spawn();
            work();
            EXPECT_TRUE(ran);
        }
    }
}

TEST_F(JobOrderTest, AJobThatIsNotReadyLeavesRoomForWhatOthersSend) {
    zel::Thread* thread = zel::Thread::getCurrentThread();
    const ref_ptr<Gate> gate(new Gate);
    bool ran = false;
    Job waiting([&ran] { ran = true; });
    waiting.setSyncTag(gate.get());
    Job opening([&] { gate->open(); });
    waiting.spawn();
    thread->pushTargetJob(thread, &opening, false);
    work();
    EXPECT_TRUE(ran);
}

TEST_F(JobOrderTest, AWaiterIsLetGoWhenTheDependentsKnow) {
    constexpr size_t Count = 2000;
    for (int round = 0; round < 100; ++round) {
        auto target = std::make_unique<Job>();
        Job never;
        std::vector<std::unique_ptr<Job>> dependents;
        for (size_t i = 0; i < Count; ++i) {
            dependents.push_back(std::make_unique<Job>());
            target->addDependent(dependents.back().get());
            never.addDependent(dependents.back().get());
        }
        auto wait = std::make_unique<zel::WaitJob>(target.get());
        bool known = true;
        std::thread waiter([&] {
            wait->wait();
            for (const auto& dependent : dependents)
                known = dependent->resolve() && known;
            // Nobody touches the target any more.
            wait.reset();
            target.reset();
        });
        target->spawn();
        work();
        waiter.join();
        ASSERT_TRUE(known) << "in round " << round;
    }
}

} // namespace
