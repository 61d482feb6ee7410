// Random job graphs on any number of threads: every job once a run, and never before its dependencies.
#include <zel/Job.h>
#include <zel/ParallelTask.h>
#include <zel/SerialTask.h>
#include <zel/SyncTag.h>
#include <zel/Thread.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>

#include <support/PoolThreads.h>

#include <atomic>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <random>
#include <set>
#include <thread>
#include <vector>

using zel::Job;
using zel::ParallelTask;
using zel::ref_ptr;
using zel::Thread;

namespace {

#if defined(__SANITIZE_THREAD__)
constexpr size_t RunsPerThreadCount = 8;
#elif defined(__SANITIZE_ADDRESS__)
constexpr size_t RunsPerThreadCount = 25;
#else
constexpr size_t RunsPerThreadCount = 250; // a thousand in all with 1, 2, 4 and 16 threads
#endif

/// Printed, and taken from the environment to repeat a failure.
unsigned chosenSeed() {
    const char* fixed = std::getenv("ZEL_STRESS_SEED");
    const unsigned seed =
        fixed != nullptr ? static_cast<unsigned>(std::strtoul(fixed, nullptr, 10)) : std::random_device()();
    std::cout << "ZEL_STRESS_SEED=" << seed << '\n';
    return seed;
}

/// Ready only when it is asked for the third time.
class SlowTag : public zel::SyncTag {
public:
    zel::int32 getStatus() override { return m_calls.fetch_add(1) % 3 == 2 ? 1 : 0; }

private:
    std::atomic<int> m_calls{0};
};

/// A graph of jobs with edges from lower to higher indices. Some jobs spawn a further one of their own.
class Graph {
public:
    static constexpr size_t NumJobs = 10'000;

    Graph(unsigned seed, const std::vector<Thread*>& threads)
        : m_nodes(NumJobs), m_task(new ParallelTask("graph")) {
        std::mt19937 random(seed);
        for (size_t i = 0; i < NumJobs; ++i) {
            Node& node = m_nodes[i];
            node.job = std::make_unique<Job>([this, i] { run(i); });
            node.job->setPriority(static_cast<zel::uint32>(random() % 5));
            if (random() % 20 == 0)
                node.job->setTargetThread(threads[random() % threads.size()]);
            if (random() % 50 == 0)
                node.job->setSyncTag(new SlowTag);
            m_task->addJob(node.job.get());
            if (i > 0)
                for (size_t edges = random() % 4; edges-- > 0;) {
                    // Mostly near ones, so that there are long chains beside wide layers.
                    const size_t parent =
                        random() % 2 == 0 ? random() % i : i - 1 - random() % std::min<size_t>(i, 50);
                    node.parents.push_back(parent);
                    m_nodes[parent].job->addDependent(node.job.get());
                }
            if (random() % 10 == 0) {
                // The last job of the task waits for it; it is started by its node alone.
                node.spawned =
                    std::make_unique<Job>([this] { m_spawnedRuns.fetch_add(1, std::memory_order_relaxed); });
                node.spawned->addDependent(m_task->getPostJob());
                ++m_numSpawning;
            }
        }
    }
    Graph(const Graph&) = delete;
    Graph& operator=(const Graph&) = delete;

    void execute() {
        ++m_run;
        m_spawnedRuns = 0;
        m_task->execute();
        for (const Node& node : m_nodes)
            ASSERT_EQ(node.runs.load(std::memory_order_relaxed), m_run);
        ASSERT_EQ(m_wrong.load(), 0U) << "jobs that ran before a dependency, or on the wrong thread";
        ASSERT_EQ(m_spawnedRuns.load(), m_numSpawning);
    }

private:
    struct Node {
        std::unique_ptr<Job> job;
        std::unique_ptr<Job> spawned;
        std::vector<size_t> parents;
        // Relaxed: that it is seen by the dependents is what the scheduler has to see to.
        std::atomic<size_t> runs{0};
    };

    void run(size_t index) {
        Node& node = m_nodes[index];
        for (const size_t parent : node.parents)
            if (m_nodes[parent].runs.load(std::memory_order_relaxed) != m_run)
                m_wrong.fetch_add(1);
        const Thread* target = node.job->getTargetThread();
        if (target != nullptr && target != Thread::getCurrentThread())
            m_wrong.fetch_add(1);
        node.runs.fetch_add(1, std::memory_order_relaxed);
        if (node.spawned)
            node.spawned->spawn();
    }

    std::vector<Node> m_nodes;
    ref_ptr<ParallelTask> m_task;
    size_t m_run = 0;
    size_t m_numSpawning = 0;
    std::atomic<size_t> m_wrong{0};
    std::atomic<size_t> m_spawnedRuns{0};
};

std::vector<Thread*> poolThreads() {
    const std::set<Thread*> threads = zelTest::onEachThread();
    return {threads.begin(), threads.end()};
}

class JobGraphStressTest : public testing::TestWithParam<size_t> {
protected:
    void SetUp() override {
        zelCore::init();
        zel::setNumThreads(GetParam());
    }
    void TearDown() override { zelCore::shutdown(); }
};

} // namespace

TEST_P(JobGraphStressTest, EveryJobRunsOnceAndNeverBeforeItsDependencies) {
    const std::vector<Thread*> threads = poolThreads();
    ASSERT_EQ(threads.size(), GetParam());
    Graph graph(chosenSeed(), threads);
    for (size_t i = 0; i < RunsPerThreadCount; ++i)
        graph.execute();
}

TEST_P(JobGraphStressTest, OutsideThreadsComeAndGoMeanwhile) {
    std::atomic<bool> stop{false};
    std::atomic<size_t> executed{0};
    std::vector<std::thread> outside;
    for (int i = 0; i < 3; ++i)
        outside.emplace_back([&] {
            while (!stop.load()) {
                std::atomic<int> runs{0};
                zel::Vector<Job> jobs(4, Job([&runs] { runs.fetch_add(1); }));
                const ref_ptr<ParallelTask> task(new ParallelTask("outside"));
                for (Job& job : jobs)
                    task->addJob(&job);
                task->execute();
                EXPECT_EQ(runs.load(), 4);
                task->removeAllJobs();
                executed.fetch_add(1);
            }
        });
    const std::vector<Thread*> threads = poolThreads();
    Graph graph(chosenSeed(), threads);
    for (size_t i = 0; i < std::max<size_t>(3, RunsPerThreadCount / 25); ++i)
        graph.execute();
    while (executed.load() < 20)
        std::this_thread::yield();
    stop = true;
    for (std::thread& thread : outside)
        thread.join();
}

INSTANTIATE_TEST_SUITE_P(Threads, JobGraphStressTest, testing::Values(1, 2, 4, 16));
