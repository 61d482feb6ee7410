// Tasks beside oneTBB and a pool of std::threads: one small task, and graphs of them.
#include "Threads.h"

#include <zel/SerialTask.h>
#include <zel/TaskGroup.h>
#include <zel/Thread.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>

#include <benchmark/benchmark.h>
#include <tbb/flow_graph.h>
#include <tbb/global_control.h>
#include <tbb/task_group.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using zel::ref_ptr;
using zel::SerialTask;
using zel::Task;
using zel::TaskGroup;

/// What one would write with the standard library alone: one worker, a mutex and a condition variable.
class StandardPool {
public:
    StandardPool() : m_worker([this] { work(); }) {}
    StandardPool(const StandardPool&) = delete;
    StandardPool& operator=(const StandardPool&) = delete;
    ~StandardPool() {
        hand([this] { m_stop = true; });
        m_worker.join();
    }

    /// Runs the work on the worker and waits for its end.
    void hand(std::function<void()> work) {
        std::unique_lock lock(m_mutex);
        m_work = std::move(work);
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return !m_work; });
    }

private:
    void work() {
        std::unique_lock lock(m_mutex);
        while (!m_stop) {
            m_changed.wait(lock, [this] { return static_cast<bool>(m_work); });
            m_work();
            m_work = nullptr;
            m_changed.notify_all();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::function<void()> m_work; // guarded by m_mutex
    bool m_stop = false;          // guarded by m_mutex
    std::thread m_worker;
};

// One empty task: back to back, or with a pause of 2 ms ahead of each run, in which the others fall asleep

constexpr auto Pause = std::chrono::milliseconds(2);
constexpr std::size_t NumPausedRuns = 200;

/// With pauses each run is timed by itself, and an iteration is the median of many: one run in ten meets an
/// interrupt, which takes longer than all the others together.
template <typename Run>
void measure(benchmark::State& state, bool pause, const Run& run) {
    run();
    if (!pause) {
        for (auto _ : state)
            run();
        return;
    }
    std::vector<double> seconds(NumPausedRuns);
    for (auto _ : state) {
        for (double& time : seconds) {
            std::this_thread::sleep_for(Pause);
            const auto start = std::chrono::steady_clock::now();
            run();
            time = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        }
        const auto middle = seconds.begin() + NumPausedRuns / 2;
        std::nth_element(seconds.begin(), middle, seconds.end());
        state.SetIterationTime(*middle);
    }
}

template <bool pause>
void executeZel(benchmark::State& state) {
    setThreads(state.range(0));
    const ref_ptr<SerialTask> task(new SerialTask("empty", [] {}));
    measure(state, pause, [&] { task->execute(); });
    zel::setNumThreads(1);
}

template <bool pause>
void executeTbb(benchmark::State& state) {
    const TbbThreads threads(state.range(0));
    tbb::task_group group;
    measure(state, pause, [&] {
        group.run([] {});
        group.wait();
    });
}

template <bool pause>
void executeStandard(benchmark::State& state) {
    setThreads(1);
    if (state.range(0) == 1) {
        // No thread to hand the work to.
        const std::function<void()> work = [] {};
        measure(state, pause, [&] { work(); });
        return;
    }
    StandardPool pool;
    measure(state, pause, [&] { pool.hand([] {}); });
}

void backToBack(benchmark::internal::Benchmark* bench) {
    bench->Arg(1)->Arg(2)->UseRealTime();
}

void afterPauses(benchmark::internal::Benchmark* bench) {
    bench->Arg(1)->Arg(2)->Iterations(3)->UseManualTime();
}

BENCHMARK(executeZel<false>)->Name("BM_ExecuteEmpty/zel")->Apply(backToBack);
BENCHMARK(executeTbb<false>)->Name("BM_ExecuteEmpty/tbb")->Apply(backToBack);
BENCHMARK(executeStandard<false>)->Name("BM_ExecuteEmpty/std")->Apply(backToBack);
BENCHMARK(executeZel<true>)->Name("BM_ExecuteEmptyAfterPause/zel")->Apply(afterPauses);
BENCHMARK(executeTbb<true>)->Name("BM_ExecuteEmptyAfterPause/tbb")->Apply(afterPauses);
BENCHMARK(executeStandard<true>)->Name("BM_ExecuteEmptyAfterPause/std")->Apply(afterPauses);

// An empty task from a thread that is not the library's

/// Runs the whole measurement on a thread of its own.
template <typename Measure>
void outside(const Measure& measure) {
    std::thread(measure).join();
}

/// @param registered  whether the thread stays registered between the runs
template <bool registered>
void executeOutsideZel(benchmark::State& state) {
    setThreads(1);
    const ref_ptr<SerialTask> task(new SerialTask("empty", [] {}));
    outside([&] {
        if (registered)
            zel::Thread::registerAsZelThread();
        for (auto _ : state)
            task->execute();
        if (registered)
            zel::Thread::unregisterAsZelThread();
    });
}

void executeOutsideTbb(benchmark::State& state) {
    const TbbThreads threads(1);
    outside([&] {
        for (auto _ : state) {
            tbb::task_group group;
            group.run([] {});
            group.wait();
        }
    });
}

BENCHMARK(executeOutsideZel<false>)->Name("BM_ExecuteOutside/zel")->UseRealTime();
BENCHMARK(executeOutsideZel<true>)->Name("BM_ExecuteOutside/zelRegistered")->UseRealTime();
BENCHMARK(executeOutsideTbb)->Name("BM_ExecuteOutside/tbb")->UseRealTime();

// 1,000 empty tasks in 10 layers of 100, each of which waits for 4 random ones of the layer before

constexpr size_t NumLayers = 10;
constexpr size_t LayerSize = 100;
constexpr size_t NumDependencies = 4;

/// The dependencies of each task but those of the first layer; the same ones each time.
std::vector<std::vector<size_t>> randomParents() {
    std::mt19937 random(7);
    std::vector<std::vector<size_t>> parents(NumLayers * LayerSize);
    for (size_t i = LayerSize; i < parents.size(); ++i) {
        const size_t before = (i / LayerSize - 1) * LayerSize;
        while (parents[i].size() < NumDependencies) {
            const size_t parent = before + random() % LayerSize;
            if (std::find(parents[i].begin(), parents[i].end(), parent) == parents[i].end())
                parents[i].push_back(parent);
        }
    }
    return parents;
}

/// @param nested  whether the tasks lie in groups of 25, and those in two groups at the top, and not all in
///                one group
template <bool nested>
void graphZel(benchmark::State& state) {
    setThreads(state.range(0));
    zel::Object::setEnableRebind(false); // the tree is built at once
    const ref_ptr<TaskGroup> top(new TaskGroup("top"));
    std::vector<TaskGroup*> leaves;
    if (nested) {
        for (size_t half = 0; half < 2; ++half) {
            auto* middle = new TaskGroup("middle");
            top->addSubtask(middle);
            for (size_t i = 0; i < NumLayers * LayerSize / 50; ++i) {
                leaves.push_back(new TaskGroup("leaf"));
                middle->addSubtask(leaves.back());
            }
        }
    }
    const auto parents = randomParents();
    std::vector<Task*> tasks;
    for (size_t i = 0; i < parents.size(); ++i) {
        tasks.push_back(new SerialTask("t", [] {}));
        (nested ? leaves[i % leaves.size()] : top.get())->addSubtask(tasks.back());
        for (const size_t parent : parents[i])
            tasks.back()->addDependency(tasks[parent]);
    }
    zel::Object::setEnableRebind(true);
    top->execute();
    for (auto _ : state)
        top->execute();
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(tasks.size()));
    zel::setNumThreads(1);
}

void graphTbb(benchmark::State& state) {
    const TbbThreads threads(state.range(0));
    using Node = tbb::flow::continue_node<tbb::flow::continue_msg>;
    tbb::flow::graph graph;
    tbb::flow::broadcast_node<tbb::flow::continue_msg> start(graph);
    const auto parents = randomParents();
    std::vector<std::unique_ptr<Node>> nodes;
    for (const auto& list : parents) {
        nodes.push_back(std::make_unique<Node>(graph, [](const tbb::flow::continue_msg&) {}));
        if (list.empty())
            tbb::flow::make_edge(start, *nodes.back());
        for (const size_t parent : list)
            tbb::flow::make_edge(*nodes[parent], *nodes.back());
    }
    const auto run = [&] {
        start.try_put(tbb::flow::continue_msg());
        graph.wait_for_all();
    };
    run();
    for (auto _ : state)
        run();
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(nodes.size()));
}

void graphArguments(benchmark::internal::Benchmark* bench) {
    bench->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMicrosecond);
}

BENCHMARK(graphZel<false>)->Name("BM_TaskGraph/zel")->Apply(graphArguments);
BENCHMARK(graphZel<true>)->Name("BM_TaskGraph/zelNested")->Apply(graphArguments);
BENCHMARK(graphTbb)->Name("BM_TaskGraph/tbb")->Apply(graphArguments);

// A group with its tasks, built and taken apart

void buildGroup(benchmark::State& state) {
    setThreads(1);
    const auto n = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        const ref_ptr<TaskGroup> group(new TaskGroup("group"));
        for (size_t i = 0; i < n; ++i)
            group->addSubtask(new SerialTask("t", [] {}));
        benchmark::DoNotOptimize(group.get());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(buildGroup)
    ->Name("BM_TaskGroupBuild/zel")
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
