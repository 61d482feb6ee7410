// Jobs beside oneTBB: spawning, job graphs, loops, the start of a parallel phase, and idle workers.
#include "Threads.h"

#include <zel/Job.h>
#include <zel/ParallelTask.h>
#include <zel/RangeJob.h>
#include <zel/Thread.h>
#include <zel/Timer.h>
#include <zelCore/zelCore.h>

#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <tbb/flow_graph.h>
#include <tbb/global_control.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>
#include <tbb/task_arena.h>
#include <tbb/task_group.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

namespace {

using zel::Job;
using zel::ParallelTask;
using zel::RangeJob;
using zel::Thread;
using zel::uint64;

void spinFor(uint64 ticks) {
    const uint64 start = zel::Timer::now();
    while (zel::Timer::now() - start < ticks) {
    }
}

uint64 ticksOf(double milliseconds) {
    return static_cast<uint64>(milliseconds / zel::Timer::s_clockSpeed);
}

// 100,000 empty jobs that one thread spawns one by one

constexpr int64_t NumEmptyJobs = 100'000;

void spawnZel(benchmark::State& state) {
    setThreads(state.range(0));
    std::vector<std::unique_ptr<Job>> jobs;
    ParallelTask task("spawn", [&jobs] {
        for (const auto& job : jobs)
            job->spawn();
    });
    for (int64_t i = 0; i < NumEmptyJobs; ++i) {
        jobs.push_back(std::make_unique<Job>([] {}));
        jobs.back()->addDependent(task.getPostJob());
    }
    task.execute();
    for (auto _ : state)
        task.execute();
    state.SetItemsProcessed(state.iterations() * NumEmptyJobs);
    zel::setNumThreads(1);
}

void spawnTbb(benchmark::State& state) {
    const TbbThreads threads(state.range(0));
    tbb::task_group group;
    const auto run = [&group] {
        for (int64_t i = 0; i < NumEmptyJobs; ++i)
            group.run([] {});
        group.wait();
    };
    run();
    for (auto _ : state)
        run();
    state.SetItemsProcessed(state.iterations() * NumEmptyJobs);
}

BENCHMARK(spawnZel)
    ->Name("BM_SpawnEmptyJobs/zel")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(spawnTbb)
    ->Name("BM_SpawnEmptyJobs/tbb")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void dispatchZel(benchmark::State& state) {
    setThreads(state.range(0));
    std::vector<std::unique_ptr<Job>> jobs;
    ParallelTask task("spawn");
    for (int64_t i = 0; i < NumEmptyJobs; ++i) {
        jobs.push_back(std::make_unique<Job>([] {}));
        task.addJob(jobs.back().get());
    }
    task.execute();
    for (auto _ : state)
        task.execute();
    state.SetItemsProcessed(state.iterations() * NumEmptyJobs);
    zel::setNumThreads(1);
}
BENCHMARK(dispatchZel)
    ->Name("BM_SpawnEmptyJobs/zel_dispatch")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// A job graph of 10 layers of 100 nodes, built once; each node waits for 4 random ones of the layer before

constexpr size_t NumLayers = 10;
constexpr size_t LayerSize = 100;
constexpr size_t NumInputs = 4;
constexpr size_t NumNodes = NumLayers * LayerSize;

/// The inputs of each node beyond the first layer: indices of other nodes, the same in each call.
std::vector<std::array<size_t, NumInputs>> graphInputs() {
    std::mt19937 random(12345);
    std::vector<std::array<size_t, NumInputs>> inputs(NumNodes);
    for (size_t node = LayerSize; node < NumNodes; ++node) {
        const size_t layer = (node / LayerSize - 1) * LayerSize;
        for (size_t i = 0; i < NumInputs; ++i) {
            size_t input = 0;
            const auto end = inputs[node].begin() + static_cast<std::ptrdiff_t>(i);
            do
                input = layer + random() % LayerSize;
            while (std::find(inputs[node].begin(), end, input) != end);
            inputs[node][i] = input;
        }
    }
    return inputs;
}

/// @param state  range 0: threads; range 1: work of a node in nanoseconds
void graphZel(benchmark::State& state) {
    setThreads(state.range(0));
    const uint64 work = ticksOf(static_cast<double>(state.range(1)) * 1e-6);
    const auto inputs = graphInputs();
    ParallelTask task("graph");
    std::vector<std::unique_ptr<Job>> jobs;
    for (size_t i = 0; i < NumNodes; ++i) {
        if (work == 0)
            jobs.push_back(std::make_unique<Job>([] {}));
        else
            jobs.push_back(std::make_unique<Job>([work] { spinFor(work); }));
    }
    for (size_t i = 0; i < NumNodes; ++i) {
        if (i < LayerSize)
            task.getDispatchJob()->addDependent(jobs[i].get());
        else
            for (const size_t input : inputs[i])
                jobs[input]->addDependent(jobs[i].get());
    }
    for (const auto& job : jobs)
        if (job->getDependents().empty())
            job->addDependent(task.getPostJob());
    task.execute();
    for (auto _ : state)
        task.execute();
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(NumNodes));
    zel::setNumThreads(1);
}

void graphTbb(benchmark::State& state) {
    const TbbThreads threads(state.range(0));
    const uint64 work = ticksOf(static_cast<double>(state.range(1)) * 1e-6);
    const auto inputs = graphInputs();
    using Node = tbb::flow::continue_node<tbb::flow::continue_msg>;
    tbb::flow::graph graph;
    tbb::flow::broadcast_node<tbb::flow::continue_msg> start(graph);
    std::vector<std::unique_ptr<Node>> nodes;
    for (size_t i = 0; i < NumNodes; ++i) {
        if (work == 0)
            nodes.push_back(std::make_unique<Node>(graph, [](const tbb::flow::continue_msg&) {}));
        else
            nodes.push_back(
                std::make_unique<Node>(graph, [work](const tbb::flow::continue_msg&) { spinFor(work); }));
    }
    for (size_t i = 0; i < NumNodes; ++i) {
        if (i < LayerSize)
            tbb::flow::make_edge(start, *nodes[i]);
        else
            for (const size_t input : inputs[i])
                tbb::flow::make_edge(*nodes[input], *nodes[i]);
    }
    const auto run = [&start, &graph] {
        start.try_put(tbb::flow::continue_msg());
        graph.wait_for_all();
    };
    run();
    for (auto _ : state)
        run();
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(NumNodes));
}

void graphArguments(benchmark::internal::Benchmark* bench) {
    bench->ArgsProduct({{1, 2}, {0, 1000}})
        ->ArgNames({"threads", "ns"})
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
}
BENCHMARK(graphZel)->Name("BM_JobGraph/zel")->Apply(graphArguments);
BENCHMARK(graphTbb)->Name("BM_JobGraph/tbb")->Apply(graphArguments);

// y = a * x + y

struct Axpy {
    explicit Axpy(size_t n) : x(n, 1.0), y(n, 2.0) {}
    void operator()(size_t begin, size_t end) {
        const double* in = x.data();
        double* out = y.data();
        for (size_t i = begin; i < end; ++i)
            out[i] = a * in[i] + out[i];
    }
    double a = 1e-9;
    std::vector<double> x;
    std::vector<double> y;
};

void axpyPlain(benchmark::State& state) {
    setThreads(1);
    Axpy axpy(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        axpy(0, axpy.x.size());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void axpyZel(benchmark::State& state) {
    setThreads(2);
    Axpy axpy(static_cast<size_t>(state.range(0)));
    const size_t n = axpy.x.size();
    const auto body = [&axpy](const RangeJob& job) { axpy(job.getRange().begin(), job.getRange().end()); };
    RangeJob first(body, zel::IndexRange(size_t{0}, n / 2));
    RangeJob second(body, zel::IndexRange(n / 2, n));
    ParallelTask task("axpy");
    task.addJob(&first);
    task.addJob(&second);
    task.execute();
    for (auto _ : state) {
        task.execute();
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    zel::setNumThreads(1);
}

void axpyTbb(benchmark::State& state) {
    const TbbThreads threads(2);
    Axpy axpy(static_cast<size_t>(state.range(0)));
    const auto run = [&axpy] {
        tbb::parallel_for(
            tbb::blocked_range<size_t>(0, axpy.x.size()),
            [&axpy](const tbb::blocked_range<size_t>& range) { axpy(range.begin(), range.end()); },
            tbb::static_partitioner());
    };
    run();
    for (auto _ : state) {
        run();
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void axpyArguments(benchmark::internal::Benchmark* bench) {
    bench->Arg(1'000)->Arg(100'000)->Arg(10'000'000)->UseRealTime()->Unit(benchmark::kMicrosecond);
}
BENCHMARK(axpyPlain)->Name("BM_Axpy/plain")->Apply(axpyArguments);
BENCHMARK(axpyZel)->Name("BM_Axpy/zel")->Apply(axpyArguments);
BENCHMARK(axpyTbb)->Name("BM_Axpy/tbb")->Apply(axpyArguments);

// The start of a parallel phase: from the call until both threads are at work, the second one asleep before

/// Two bodies that meet, and the time from the call until they have met.
class Meeting {
public:
    void begin() { m_start = std::chrono::steady_clock::now(); }
    void arrive() {
        // The round is noted ahead of the arrival, so that one who still waits when the next begins sees that
        // it ended.
        const unsigned round = m_round.load(std::memory_order_acquire);
        if (m_arrived.fetch_add(1, std::memory_order_acq_rel) == 1) {
            m_end = std::chrono::steady_clock::now();
            m_arrived.store(0, std::memory_order_relaxed);
            m_round.store(round + 1, std::memory_order_release);
        }
        while (m_round.load(std::memory_order_acquire) == round) {
        }
    }
    [[nodiscard]] double seconds() const { return std::chrono::duration<double>(m_end - m_start).count(); }

private:
    std::atomic<int> m_arrived{0};
    std::atomic<unsigned> m_round{0};
    std::chrono::steady_clock::time_point m_start;
    std::chrono::steady_clock::time_point m_end;
};

/// Lets the second thread fall asleep: the caller works, or sleeps, for longer than any of them spins.
void quietTime(bool callerSleeps) {
    if (callerSleeps)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    else
        spinFor(ticksOf(5));
}

void pinCaller(uint64_t mask) {
    cpu_set_t processors;
    CPU_ZERO(&processors);
    for (unsigned i = 0; i < 64; ++i)
        if ((mask >> i) & 1U)
            CPU_SET(i, &processors);
    pthread_setaffinity_np(pthread_self(), sizeof(processors), &processors);
}

constexpr uint64_t AllProcessors = ~uint64_t{0};

/// @param state  range 0: whether the caller sleeps before; range 1: whether the threads are pinned
void phaseZel(benchmark::State& state) {
    setThreads(2);
    Meeting meeting;
    Job first([&meeting] { meeting.arrive(); });
    Job second([&meeting] { meeting.arrive(); });
    ParallelTask task("phase");
    task.addJob(&first);
    task.addJob(&second);
    if (state.range(1) != 0) {
        pinCaller(1);
        Job pin([] { pinCaller(2); });
        // Two jobs that meet run on both threads; the one on the worker pins it.
        ParallelTask pinTask("pin");
        Meeting both;
        const auto body = [&both] {
            if (Thread::getCurrentThread()->getId() == 1)
                pinCaller(2);
            both.arrive();
        };
        Job a(body);
        Job b(body);
        pinTask.addJob(&a);
        pinTask.addJob(&b);
        both.begin();
        pinTask.execute();
    }
    for (auto _ : state) {
        quietTime(state.range(0) != 0);
        meeting.begin();
        task.execute();
        state.SetIterationTime(meeting.seconds());
    }
    zel::setNumThreads(1);
    pinCaller(AllProcessors);
}

void phaseTbb(benchmark::State& state) {
    const TbbThreads threads(2);
    Meeting meeting;
    const auto run = [&meeting](auto&& body) {
        meeting.begin();
        tbb::parallel_for(
            0, 2, [&body](int) { body(); }, tbb::static_partitioner());
    };
    const std::thread::id caller = std::this_thread::get_id();
    run([&meeting] { meeting.arrive(); }); // starts the second thread, unpinned
    if (state.range(1) != 0) {
        pinCaller(1);
        run([&] {
            if (std::this_thread::get_id() != caller)
                pinCaller(2);
            meeting.arrive();
        });
    }
    for (auto _ : state) {
        quietTime(state.range(0) != 0);
        run([&meeting] { meeting.arrive(); });
        state.SetIterationTime(meeting.seconds());
    }
    if (state.range(1) != 0)
        run([&] {
            pinCaller(AllProcessors);
            meeting.arrive();
        });
    pinCaller(AllProcessors);
}

/// The least that a sleeping thread costs: a mutex, a flag and a condition variable.
void phaseHandOver(benchmark::State& state) {
    setThreads(1);
    Meeting meeting;
    std::mutex mutex;
    std::condition_variable condition;
    int request = 0; // 1: meet; 2: end
    const bool pinned = state.range(1) != 0;
    Meeting ready;
    ready.begin();
    std::thread second([&] {
        pinCaller(pinned ? 2 : AllProcessors);
        ready.arrive();
        for (;;) {
            std::unique_lock lock(mutex);
            condition.wait(lock, [&request] { return request != 0; });
            if (std::exchange(request, 0) == 2)
                return;
            lock.unlock();
            meeting.arrive();
        }
    });
    ready.arrive();
    if (pinned)
        pinCaller(1);
    const auto send = [&](int value) {
        {
            const std::lock_guard lock(mutex);
            request = value;
        }
        condition.notify_one();
    };
    for (auto _ : state) {
        quietTime(state.range(0) != 0);
        meeting.begin();
        send(1);
        meeting.arrive();
        state.SetIterationTime(meeting.seconds());
    }
    send(2);
    second.join();
    pinCaller(AllProcessors);
}

void phaseArguments(benchmark::internal::Benchmark* bench) {
    bench->ArgsProduct({{0, 1}, {0, 1}})
        ->ArgNames({"asleep", "pinned"})
        ->Iterations(200)
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond);
}
BENCHMARK(phaseZel)->Name("BM_PhaseStart/zel")->Apply(phaseArguments);
BENCHMARK(phaseTbb)->Name("BM_PhaseStart/tbb")->Apply(phaseArguments);
BENCHMARK(phaseHandOver)->Name("BM_PhaseStart/condition")->Apply(phaseArguments);

// What idle workers cost

double processorMilliseconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto milliseconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) * 1e-3;
    };
    return milliseconds(usage.ru_utime) + milliseconds(usage.ru_stime);
}

void idleZel(benchmark::State& state) {
    setThreads(2);
    Meeting meeting;
    Job first([&meeting] { meeting.arrive(); });
    Job second([&meeting] { meeting.arrive(); });
    ParallelTask task("wake");
    task.addJob(&first);
    task.addJob(&second);
    double used = 0;
    for (auto _ : state) {
        meeting.begin();
        task.execute();
        const double start = processorMilliseconds();
        std::this_thread::sleep_for(std::chrono::seconds(5));
        used = std::max(used, processorMilliseconds() - start);
    }
    state.counters["cpu_ms"] = used;
    zel::setNumThreads(1);
}
BENCHMARK(idleZel)->Name("BM_IdleWorkers/zel")->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    zelCore::shutdown();
    return 0;
}
