// Random graphs of groups and tasks over many threads: each task that is to run runs once, and none before
// those that it depends on.
#include <zel/ParallelTask.h>
#include <zel/SerialTask.h>
#include <zel/TaskGroup.h>
#include <zel/Thread.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>

#include <support/Stress.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using zel::ParallelTask;
using zel::ref_ptr;
using zel::SerialTask;
using zel::Task;
using zel::TaskGroup;

namespace {

/// What is known of a task beside the graph itself.
struct Node {
    Task* task = nullptr;
    Node* group = nullptr; // null for the top
    std::vector<Node*> subtasks;
    std::vector<Node*> parents;
    bool sequential = false;
    bool isGroup = false;
    bool enabled = true;
    // Of the last run: the numbers that a counter had at the begin and at the end; -1 without a run.
    std::atomic<int> begin{-1};
    std::atomic<int> end{-1};
    std::atomic<int> runs{0};

    bool active() const { return enabled && (group == nullptr || group->active()); }
};

/// A graph and the knowledge of what is to come of it.
class Graph {
public:
    Graph(std::mt19937& random, int depth) : m_random(random) {
        m_top = new TaskGroup("top");
        m_nodes.push_back(std::make_unique<Node>());
        m_nodes[0]->task = m_top.get();
        m_nodes[0]->isGroup = true;
        note(*m_nodes[0]);
        fill(*m_nodes[0], depth);
    }

    /// Runs all, or now and then a part alone.
    void run() {
        m_root = m_random() % 4 == 0 ? m_nodes[m_random() % m_nodes.size()].get() : m_nodes[0].get();
        for (const auto& node : m_nodes) {
            node->begin = node->end = -1;
            node->runs = 0;
        }
        m_counter = 0;
        m_root->task->execute();
    }

    void check() const {
        for (const auto& node : m_nodes) {
            ASSERT_EQ(node->runs, runs(*node) ? 1 : 0)
                << node->task->getPath() << " in a run of " << m_root->task->getPath();
            if (!runs(*node))
                continue;
            for (const Node* group = node->group; node.get() != m_root && group != m_root->group;
                 group = group->group) {
                ASSERT_LT(group->begin, node->begin);
                ASSERT_GT(group->end, node->end);
            }
            checkParents(*node);
        }
    }

    /// Something that may happen between two runs.
    void change() {
        Node& node = *m_nodes[m_random() % m_nodes.size()];
        switch (m_random() % 4) {
        case 0:
        case 1:
            node.enabled = !node.enabled;
            node.task->setEnable(node.enabled);
            break;
        case 2:
            addDependency(node, *m_nodes[m_random() % m_nodes.size()]);
            break;
        default:
            // The order of a sequential group is its own.
            if (!node.parents.empty() && !(node.group != nullptr && node.group->sequential)) {
                node.task->removeDependency(node.parents.back()->task);
                node.parents.pop_back();
            }
            break;
        }
    }

private:
    void note(Node& node) {
        node.task->preEvent.connect([this, &node](Task*) { node.begin = m_counter.fetch_add(1); });
        node.task->postEvent.connect([this, &node](Task*) {
            node.end = m_counter.fetch_add(1);
            node.runs.fetch_add(1);
        });
    }

    void fill(Node& group, int depth) {
        const size_t count = 1 + m_random() % 5;
        for (size_t i = 0; i < count; ++i) {
            m_nodes.push_back(std::make_unique<Node>());
            Node& node = *m_nodes.back();
            node.group = &group;
            const std::string name = "t" + std::to_string(m_nodes.size());
            switch (depth > 0 ? m_random() % 4 : m_random() % 3) {
            case 0:
            case 1:
                node.task = new SerialTask(zel::Name(name), [] {});
                break;
            case 2: {
                auto* task = new ParallelTask(zel::Name(name));
                m_jobs.push_back(std::make_unique<zel::Job>([] {}));
                task->addJob(m_jobs.back().get());
                node.task = task;
                break;
            }
            default:
                node.sequential = m_random() % 2 == 0;
                node.isGroup = true;
                node.task = new TaskGroup(zel::Name(name), node.sequential);
                break;
            }
            note(node);
            static_cast<TaskGroup*>(group.task)->addSubtask(node.task);
            if (group.sequential && !group.subtasks.empty())
                node.parents.push_back(group.subtasks.back());
            group.subtasks.push_back(&node);
            if (node.isGroup)
                fill(node, depth - 1);
        }
    }

    /// Adds a dependency unless it is there, or would be a loop: tasks may only depend on ones that are
    /// older and neither around them nor in them.
    void addDependency(Node& a, Node& b) {
        Node* child = &a;
        Node* parent = &b;
        if (indexOf(child) < indexOf(parent))
            std::swap(child, parent);
        if (child == parent || isIn(*child, *parent) || isIn(*parent, *child) ||
            std::find(child->parents.begin(), child->parents.end(), parent) != child->parents.end())
            return;
        child->task->addDependency(parent->task);
        child->parents.push_back(parent);
    }

    size_t indexOf(const Node* node) const {
        for (size_t i = 0; i < m_nodes.size(); ++i)
            if (m_nodes[i].get() == node)
                return i;
        return m_nodes.size();
    }

    static bool isIn(const Node& node, const Node& group) {
        for (const Node* above = node.group; above != nullptr; above = above->group)
            if (above == &group)
                return true;
        return false;
    }

    bool belongs(const Node& node) const { return &node == m_root || isIn(node, *m_root); }
    bool runs(const Node& node) const { return belongs(node) && node.active(); }

    /// The run passes a disabled task, and what it waits for is waited for all the same. What does not belong
    /// to the run is not waited for.
    void checkParents(const Node& node) const {
        std::vector<const Node*> open(node.parents.begin(), node.parents.end());
        std::vector<const Node*> seen;
        while (!open.empty()) {
            const Node* parent = open.back();
            open.pop_back();
            if (std::find(seen.begin(), seen.end(), parent) != seen.end())
                continue;
            seen.push_back(parent);
            if (!belongs(*parent))
                continue;
            if (parent->active())
                ASSERT_LT(parent->end, node.begin)
                    << parent->task->getPath() << " -> " << node.task->getPath();
            else
                open.insert(open.end(), parent->parents.begin(), parent->parents.end());
        }
    }

    std::mt19937& m_random;
    ref_ptr<TaskGroup> m_top;
    std::vector<std::unique_ptr<Node>> m_nodes; // subtasks after their groups
    Node* m_root = nullptr;                     // of the last run
    std::vector<std::unique_ptr<zel::Job>> m_jobs;
    std::atomic<int> m_counter{0};
};

class TaskGraphTest : public testing::TestWithParam<size_t> {
protected:
    void SetUp() override {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        zelCore::init();
        zel::setNumThreads(GetParam());
    }
    void TearDown() override {
        zel::setNumThreads(1);
        zelCore::shutdown();
    }
};
using TaskGraphDeathTest = TaskGraphTest;

void nest(int depth, std::atomic<int>& runs) {
    runs.fetch_add(1);
    if (depth > 1)
        ref_ptr<SerialTask>(new SerialTask("nested", [depth, &runs] { nest(depth - 1, runs); }))->execute();
}

} // namespace

TEST_P(TaskGraphTest, EachTaskRunsOnceAndInOrder) {
    std::mt19937 random(zelTest::stressSeed());
    // 10,000 executions over the four numbers of threads.
    for (size_t graphs = 0; graphs < 50 / zelTest::StressDivisor; ++graphs) {
        Graph graph(random, 3);
        for (int i = 0; i < 50; ++i) {
            graph.run();
            graph.check();
            if (HasFatalFailure())
                return;
            for (size_t n = random() % 4; n > 0; --n)
                graph.change();
        }
    }
}

TEST_P(TaskGraphTest, TasksExecuteTasks) {
    // One frame of the stack is the outermost task's.
    std::atomic<int> runs{0};
    const ref_ptr<TaskGroup> group(new TaskGroup("g"));
    for (int i = 0; i < 4; ++i)
        group->addSubtask(new SerialTask("t", [&] { nest(8, runs); }));
    for (int i = 0; i < 50; ++i)
        group->execute();
    EXPECT_EQ(runs, 50 * 4 * 8);
}

TEST_P(TaskGraphTest, TasksExecuteTasksToTheGreatestDepth) {
    std::atomic<int> runs{0};
    nest(ZEL_THREAD_FRAME_STACK_MAX_DEPTH + 1, runs); // the first call is no task
    EXPECT_EQ(runs, ZEL_THREAD_FRAME_STACK_MAX_DEPTH + 1);
}

TEST_P(TaskGraphTest, OutsideThreadsExecuteAtTheSameTime) {
    std::atomic<int> runs{0};
    const ref_ptr<SerialTask> shared(new SerialTask("shared", [&] { runs.fetch_add(1); }));
    zelTest::onThreads(3, zelTest::stressSeed(), [&](size_t, std::mt19937&) {
        const ref_ptr<TaskGroup> group(new TaskGroup("g", true));
        int own = 0;
        for (int i = 0; i < 5; ++i)
            group->addSubtask(new SerialTask("t", [&own] { ++own; }));
        for (int i = 0; i < 50; ++i) {
            group->execute();
            shared->execute();
        }
        EXPECT_EQ(own, 250);
    });
    EXPECT_EQ(runs, 150);
}

TEST_P(TaskGraphTest, TheNumberOfThreadsChangesWhenTheTasksAreDone) {
    const ref_ptr<SerialTask> task(new SerialTask("t", [&] {
        zel::setNumThreads(GetParam() + 1);
        EXPECT_EQ(zel::getNumThreads(), GetParam());
    }));
    task->execute();
    EXPECT_EQ(zel::getNumThreads(), GetParam() + 1);
    zel::setNumThreads(GetParam());
}

// The end of the process is the end of what a job has thrown: each kind of task on its own.
TEST_P(TaskGraphDeathTest, ExceptionsReachWhoeverExecutes) {
    const auto caught = [](Task* task) {
        zel::Thread* thread = zel::Thread::getCurrentThread();
        task->setTargetThread(thread); // workers have nobody to catch what they throw
        try {
            task->execute();
        } catch (const std::runtime_error& error) {
            std::cerr << "caught " << error.what() << " " << Task::hasUnhandledException() << std::endl;
            std::_Exit(3);
        }
        std::_Exit(0);
    };
    const auto fail = [] { throw std::runtime_error("bad"); };
    const auto exits = testing::ExitedWithCode(3);
    EXPECT_EXIT(caught(new SerialTask("s", fail)), exits, "caught bad 1");
    EXPECT_EXIT(caught(new ParallelTask("p", fail)), exits, "caught bad 1");
    EXPECT_EXIT(
        {
            auto* group = new TaskGroup("g");
            auto* inner = new TaskGroup("i", true);
            group->addSubtask(inner);
            inner->addSubtask(new SerialTask("ok"));
            inner->addSubtask(new SerialTask("s", fail));
            caught(group);
        },
        exits,
        "caught bad 1");
    EXPECT_EXIT(
        {
            auto* group = new TaskGroup("g");
            group->addSubtask(new SerialTask("ok"));
            group->preEvent.connect([&](Task*) { fail(); });
            caught(group);
        },
        exits,
        "caught bad 1");
}

INSTANTIATE_TEST_SUITE_P(Threads, TaskGraphTest, testing::Values(1, 2, 4, 16));
// With more threads the first to wake up sees the exception, too, and a worker ends the process.
INSTANTIATE_TEST_SUITE_P(OneThread, TaskGraphDeathTest, testing::Values(1));
