// Random graphs of jobs, spawned or executed as tasks by several threads of the pool and outside of it, by
// other jobs and by dependencies, with targets, priorities, gates that other jobs open, and tasks that they
// execute; against a plain account of what is to run and after what.
#include <zel/Job.h>
#include <zel/ParallelTask.h>
#include <zel/SyncTag.h>
#include <zel/Thread.h>
#include <zel/ThreadTask.h>
#include <zel/WaitJob.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>

#include <support/Soak.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <thread>
#include <vector>

using zel::Job;
using zel::ParallelTask;
using zel::ref_ptr;
using zel::Thread;

namespace {

class NodeGate : public zel::SyncTag {
public:
    zel::int32 getStatus() override { return m_open ? 1 : 0; }
    void set(bool open) { m_open = open; }

private:
    std::atomic<bool> m_open{false};
};

/// A job, and what is known of it beside the graph itself. Whatever it needs lies ahead of it in the list.
struct Node {
    Job job;
    std::vector<Node*> parents;
    Node* spawner = nullptr;
    Node* opener = nullptr; // of the gate
    std::vector<Node*> spawned;
    std::vector<Node*> opened;
    ref_ptr<NodeGate> gate;
    int target = -1;              // of the pool, or behind it an outside thread
    size_t driver = 0;            // an outside thread that has to bring the job in; 0 for any
    ParallelTask* task = nullptr; // that it executes
    int microseconds = 0;         // that it takes
    // Of the last run: the numbers that a counter had.
    std::atomic<int> begin{-1};
    std::atomic<int> end{-1};
    std::atomic<int> runs{0};
    std::atomic<Thread*> thread{nullptr};
};

/// What the threads do that bring the jobs in: they spawn them and work, or some of them execute tasks.
enum class Way { Work, Execute };

class Driver {
public:
    Driver(unsigned seed, Way way) : m_random(seed), m_way(way) {}

    void run(int numRounds) {
        for (int i = 0; i < numRounds && !testing::Test::HasFatalFailure(); ++i) {
            if (i % 16 == 0)
                changeThreads();
            runGraph();
        }
        zel::setNumThreads(1);
    }

private:
    size_t below(size_t n) { return m_random() % n; }
    bool oneIn(size_t n) { return below(n) == 0; }

    void changeThreads() {
        constexpr size_t Numbers[] = {1, 2, 3, 5};
        zel::setNumThreads(Numbers[below(4)]);
        m_pool.assign(zel::getNumThreads(), nullptr);
        const ref_ptr<zel::ThreadTask> task(new zel::ThreadTask(
            [this] { m_pool[Thread::getCurrentThread()->getId()] = Thread::getCurrentThread(); },
            m_pool.size()));
        task->execute();
    }

    void runGraph() {
        m_numOutside = below(m_way == Way::Work ? 3 : 5);
        build();
        buildRuns();
        for (size_t passes = 1 + below(3); passes > 0; --passes) {
            pass();
            check();
            if (testing::Test::HasFatalFailure())
                break;
        }
        m_shared->removeAllJobs();
        for (const Run& run : m_runs)
            if (run.task)
                run.task->removeAllJobs();
        m_runs.clear();
        for (const auto& task : m_tasks)
            task->removeAllJobs();
        m_tasks.clear();
        m_parts.clear();
        m_nodes.clear();
        m_last.reset();
    }

    // The graph

    void build() {
        const size_t count = 1 + below(oneIn(8) ? 300 : 40);
        size_t numExecuting = 0;
        m_shared = makeTask();
        m_last = std::make_unique<Job>("last");
        for (size_t i = 0; i < count; ++i) {
            auto node = std::make_unique<Node>();
            chooseStart(*node);
            chooseGate(*node);
            if (oneIn(6))
                node->target = static_cast<int>(below(m_pool.size() + m_numOutside));
            // As many as can lie on the frame stack of one thread, one inside the other.
            if (oneIn(8) && ++numExecuting <= 15)
                node->task = oneIn(2) ? m_shared.get() : ownTask();
            node->job.setCallback([this, self = node.get()] { work(*self); });
            m_nodes.push_back(std::move(node));
        }
        // The last edge of each: the nodes may go when the last job knows of them.
        for (const auto& node : m_nodes)
            node->job.addDependent(m_last.get());
    }

    /// Some of the threads execute what falls to them as a task, and leave when it is complete.
    void buildRuns() {
        m_runs.resize(1 + m_numOutside);
        if (m_way == Way::Work)
            return;
        for (Run& run : m_runs) {
            if (!oneIn(4))
                run.task = new ParallelTask("run");
            run.registered = !run.task || oneIn(2);
        }
        for (size_t i = 0; i < m_nodes.size(); ++i) {
            Node& node = *m_nodes[i];
            if (oneIn(4))
                node.microseconds = static_cast<int>(below(300));
            const bool toOutside = node.target >= static_cast<int>(m_pool.size());
            const size_t target = toOutside ? 1 + static_cast<size_t>(node.target) - m_pool.size() : 0;
            // A thread is there for what its own task holds, and no longer.
            if (toOutside && (!m_runs[target].registered || (m_runs[target].task && node.spawner != nullptr)))
                node.target = -1;
            else if (toOutside && m_runs[target].task)
                node.driver = target;
            if (const Run& run = m_runs[driverOf(i)]; run.task && node.spawner == nullptr)
                run.task->addJob(&node.job);
        }
        if (m_runs[0].task)
            m_runs[0].task->addJob(m_last.get());
    }

    [[nodiscard]] size_t driverOf(size_t index) const {
        const size_t driver = m_nodes[index]->driver;
        return driver != 0 ? driver : index % m_runs.size();
    }

    void chooseStart(Node& node) {
        if (m_nodes.empty() || oneIn(4))
            return; // a driver spawns it
        if (oneIn(4)) {
            node.spawner = any();
            node.spawner->spawned.push_back(&node);
            return;
        }
        for (size_t n = 1 + below(3); n > 0; --n) {
            node.parents.push_back(any());
            node.parents.back()->job.addDependent(&node.job);
        }
    }

    void chooseGate(Node& node) {
        if (m_nodes.empty() || !oneIn(6)) {
            node.job.setPriority(static_cast<zel::uint32>(below(4)));
            return;
        }
        // A job that is not ready keeps those of lower priority waiting, so it has the lowest.
        node.gate = new NodeGate;
        node.job.setSyncTag(node.gate.get());
        node.opener = any();
        node.opener->opened.push_back(&node);
    }

    Node* any() { return m_nodes[below(m_nodes.size())].get(); }

    ref_ptr<ParallelTask> makeTask() {
        const ref_ptr<ParallelTask> task(new ParallelTask("inner"));
        for (size_t n = below(5); n > 0; --n) {
            m_parts.push_back(std::make_unique<Job>([this] { ++m_numParts; }));
            task->addJob(m_parts.back().get());
        }
        return task;
    }

    ParallelTask* ownTask() {
        m_tasks.push_back(makeTask());
        return m_tasks.back().get();
    }

    // A run

    void work(Node& node) {
        node.begin = m_counter++;
        ++node.runs;
        node.thread = Thread::getCurrentThread();
        for (Node* spawned : node.spawned)
            spawned->job.spawn();
        if (node.microseconds > 0) // long enough for others to run out of work
            std::this_thread::sleep_for(std::chrono::microseconds(node.microseconds));
        if (node.task != nullptr)
            node.task->execute();
        // Ahead of what waits for it: the end is what they see.
        node.end = m_counter++;
        for (Node* opened : node.opened)
            opened->gate->set(true);
    }

    void pass() {
        for (const auto& node : m_nodes) {
            node->begin = node->end = -1;
            node->runs = 0;
            if (node->gate)
                node->gate->set(false);
        }
        m_counter = 0;
        m_numParts = 0;
        m_finished = false;
        m_numReady = 0;
        m_threads = m_pool;
        m_threads.resize(m_pool.size() + m_numOutside);

        zel::WaitJob wait(m_last.get());
        std::vector<std::thread> threads;
        threads.emplace_back([&] {
            wait.wait();
            m_finished = true;
        });
        for (size_t i = 0; i < m_numOutside; ++i)
            threads.emplace_back([this, i] {
                const bool registered = m_runs[1 + i].registered;
                if (registered)
                    m_threads[m_pool.size() + i] = Thread::registerAsZelThread();
                drive(1 + i);
                if (registered)
                    Thread::unregisterAsZelThread();
            });
        drive(0);
        for (std::thread& thread : threads)
            thread.join();
    }

    /// Spawns what falls to this thread, and works till all is done; or executes it.
    void drive(size_t driver) {
        ++m_numReady;
        while (m_numReady < 1 + m_numOutside)
            std::this_thread::yield();
        for (size_t i = driver; i < m_nodes.size(); i += 1 + m_numOutside)
            if (m_nodes[i]->target >= 0)
                m_nodes[i]->job.setTargetThread(m_threads[static_cast<size_t>(m_nodes[i]->target)]);
        ++m_numReady;
        while (m_numReady < 2 * (1 + m_numOutside))
            std::this_thread::yield();
        if (const ref_ptr<ParallelTask>& task = m_runs[driver].task) {
            task->execute();
            return;
        }
        for (size_t i = 0; i < m_nodes.size(); ++i)
            if (Node& node = *m_nodes[i];
                driverOf(i) == driver && node.parents.empty() && node.spawner == nullptr)
                node.job.spawn();
        while (!m_finished)
            Thread::getCurrentThread()->doWork();
    }

    void check() const {
        size_t numParts = 0;
        for (const auto& node : m_nodes) {
            ASSERT_EQ(node->runs, 1);
            for (const Node* parent : node->parents)
                ASSERT_LT(parent->end, node->begin);
            if (node->spawner != nullptr) {
                ASSERT_LT(node->spawner->begin, node->begin);
            }
            if (node->opener != nullptr) {
                ASSERT_LT(node->opener->end, node->begin);
            }
            if (node->target >= 0) {
                ASSERT_EQ(node->thread, m_threads[static_cast<size_t>(node->target)]);
            }
            if (node->task != nullptr)
                numParts += node->task->getJobs().size();
        }
        ASSERT_EQ(m_numParts, numParts);
    }

    /// What one thread brings in.
    struct Run {
        ref_ptr<ParallelTask> task; // null where the thread spawns the jobs
        bool registered = true;     // and not only while it executes the task
    };

    std::mt19937 m_random;
    Way m_way;
    std::vector<Run> m_runs; // of the main thread, and behind it the outside threads
    std::vector<Thread*> m_pool;
    std::vector<Thread*> m_threads; // the pool, and behind it the outside threads
    size_t m_numOutside = 0;
    std::vector<std::unique_ptr<Node>> m_nodes;
    std::unique_ptr<Job> m_last; // after all nodes
    ref_ptr<ParallelTask> m_shared;
    std::vector<ref_ptr<ParallelTask>> m_tasks;
    std::vector<std::unique_ptr<Job>> m_parts; // of the tasks
    std::atomic<int> m_counter{0};
    std::atomic<size_t> m_numParts{0};
    std::atomic<size_t> m_numReady{0};
    std::atomic<bool> m_finished{false};
};

class JobSoakTest : public testing::Test {
protected:
    void SetUp() override { zelCore::init(); }
    void TearDown() override { zelCore::shutdown(); }

    static void soak(Way way) {
        zelTest::soak([way](unsigned seed) { Driver(seed, way).run(50); });
    }
};

class JobModelTest : public JobSoakTest, public testing::WithParamInterface<int> {};

} // namespace

TEST_P(JobModelTest, RunsEachJobOnceAndInOrder) {
    Driver(zelTest::stressSeed(), Way::Work).run(static_cast<int>(100 / zelTest::StressDivisor));
}

TEST_P(JobModelTest, RunsEachJobOnceAndInOrderWhereSeveralThreadsExecuteTasks) {
    Driver(zelTest::stressSeed(), Way::Execute).run(static_cast<int>(50 / zelTest::StressDivisor));
}

INSTANTIATE_TEST_SUITE_P(Rounds, JobModelTest, testing::Range(0, 4));

TEST_F(JobSoakTest, DISABLED_RunsEachJobOnceAndInOrder) {
    soak(Way::Work);
}

TEST_F(JobSoakTest, DISABLED_RunsEachJobOnceAndInOrderWhereSeveralThreadsExecuteTasks) {
    soak(Way::Execute);
}
