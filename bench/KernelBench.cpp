// Kernels beside oneTBB's parallel_for and OpenMP's static loop: y = a * x + y, and items of about 100 ns
// each.
#include <zel/LambdaKernel.h>
#include <zel/RangeJob.h>
#include <zel/Statistics.h>
#include <zel/Task.h>
#include <zel/Thread.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>

#include <benchmark/benchmark.h>
#include <omp.h>
#include <tbb/blocked_range.h>
#include <tbb/global_control.h>
#include <tbb/parallel_for.h>

#include <cstddef>
#include <vector>

namespace {

using zel::size_t;

/// y = a * x + y over a range of two arrays.
class Axpy {
public:
    explicit Axpy(size_t n) : m_x(n, 1.5), m_y(n, 1) {}
    [[nodiscard]] size_t size() const { return m_y.size(); }
    void operator()(size_t begin, size_t end) {
        const double* const x = m_x.data();
        double* const y = m_y.data();
        for (size_t i = begin; i != end; ++i)
            y[i] = 1e-3 * x[i] + y[i];
    }

private:
    std::vector<double> m_x;
    std::vector<double> m_y;
};

/// A chain of dependent operations for each item, which takes about 100 ns. Each item goes on from the one
/// before: the processor is not to work at several at once.
class Chain {
public:
    explicit Chain(size_t n) : m_y(n, 1) {}
    [[nodiscard]] size_t size() const { return m_y.size(); }
    void operator()(size_t begin, size_t end) {
        constexpr int Links = 38; // of a multiplication and an addition, some 8 cycles
        double y = 0;
        for (size_t i = begin; i != end; ++i) {
            y = y * 1e-9 + m_y[i];
            for (int k = 0; k < Links; ++k)
                y = y * 0.999 + 1e-3;
            m_y[i] = y;
        }
    }

private:
    std::vector<double> m_y;
};

template <typename Work>
void runZel(benchmark::State& state, bool observed) {
    zelCore::init();
    zel::setNumThreads(static_cast<size_t>(state.range(1)));
    zel::Statistics::setEnable(observed);
    zel::Task::setProfilingMode(observed ? zel::Task::ProfilingFull : zel::Task::ProfilingOff);
    {
        Work work(static_cast<size_t>(state.range(0)));
        const zel::ref_ptr<zel::LambdaKernel> kernel(
            new zel::LambdaKernel("kernel", [&work](const zel::RangeJob& job) {
                work(job.getRange().begin(), job.getRange().end());
            }));
        kernel->setNumWorkItems(work.size());
        kernel->execute();
        for (auto _ : state) {
            if (observed)
                zel::Thread::resetStartTick();
            kernel->execute();
            if (observed)
                zel::Thread::exportAllTimelines();
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    zel::Task::setProfilingMode(zel::Task::ProfilingOff);
    zel::Statistics::setEnable(false);
    zel::setNumThreads(1);
}

template <typename Work>
void zelKernel(benchmark::State& state) {
    runZel<Work>(state, false);
}

template <typename Work>
void zelKernelObserved(benchmark::State& state) {
    runZel<Work>(state, true);
}

template <typename Work>
void tbbLoop(benchmark::State& state) {
    zelCore::init();
    zel::setNumThreads(1); // our workers are not to be in the way
    const tbb::global_control control(tbb::global_control::max_allowed_parallelism,
                                      static_cast<size_t>(state.range(1)));
    Work work(static_cast<size_t>(state.range(0)));
    for (auto _ : state)
        tbb::parallel_for(
            tbb::blocked_range<size_t>(0, work.size()),
            [&work](const tbb::blocked_range<size_t>& range) { work(range.begin(), range.end()); });
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <typename Work>
void openMpLoop(benchmark::State& state) {
    zelCore::init();
    zel::setNumThreads(1);
    const int numThreads = static_cast<int>(state.range(1));
    Work work(static_cast<size_t>(state.range(0)));
    const size_t n = work.size();
    for (auto _ : state) {
#pragma omp parallel num_threads(numThreads)
        {
            // What schedule(static) gives each thread.
            const auto thread = static_cast<size_t>(omp_get_thread_num());
            const auto threads = static_cast<size_t>(omp_get_num_threads());
            work(n * thread / threads, n * (thread + 1) / threads);
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void axpySizes(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgsProduct({{1'000, 100'000, 10'000'000}, {1, 2}})
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
}

void chainSizes(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgsProduct({{10'000, 100'000}, {1, 2}})->UseRealTime()->Unit(benchmark::kMicrosecond);
}

BENCHMARK(zelKernel<Axpy>)->Name("BM_Axpy/zel_LambdaKernel")->Apply(axpySizes);
BENCHMARK(tbbLoop<Axpy>)->Name("BM_Axpy/tbb_parallel_for")->Apply(axpySizes);
BENCHMARK(openMpLoop<Axpy>)->Name("BM_Axpy/openmp_static")->Apply(axpySizes);
BENCHMARK(zelKernel<Chain>)->Name("BM_Items100ns/zel_LambdaKernel")->Apply(chainSizes);
BENCHMARK(tbbLoop<Chain>)->Name("BM_Items100ns/tbb_parallel_for")->Apply(chainSizes);
BENCHMARK(openMpLoop<Chain>)->Name("BM_Items100ns/openmp_static")->Apply(chainSizes);
// What watching costs: all of it on, beside all of it off.
BENCHMARK(zelKernelObserved<Chain>)->Name("BM_Observed100ns/zel_observed")->Apply(chainSizes);
BENCHMARK(zelKernel<Chain>)->Name("BM_Observed100ns/unobserved")->Apply(chainSizes);

} // namespace

BENCHMARK_MAIN();
