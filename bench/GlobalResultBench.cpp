// Ten million numbers that the jobs of a task append to one buffer, 64 at a time, beside oneTBB.
#include "Threads.h"

#include <zel/GlobalResultBuffer.h>
#include <zel/ParallelTask.h>
#include <zel/RangeJob.h>
#include <zel/Thread.h>
#include <zelCore/zelCore.h>
#include <zelData/Buffer.h>
#include <zelData/Format.h>
#include <zelData/Type.h>

#include <benchmark/benchmark.h>

#ifdef ZEL_BENCH_TBB
#include <tbb/concurrent_vector.h>
#include <tbb/global_control.h>
#include <tbb/parallel_for.h>
#endif

#include <algorithm>
#include <array>
#include <memory>
#include <vector>

namespace {

using zel::GlobalResult;
using zel::GlobalResultBuffer;
using zel::IndexRange;
using zel::RangeJob;
using zel::ref_ptr;
using zel::uint64;
using zelData::Buffer;

constexpr uint64 BlockSize = 64;
constexpr uint64 NumBlocks = 10'000'000 / BlockSize;
constexpr uint64 NumJobs = 256;

std::array<uint64, BlockSize> makeBlock() {
    std::array<uint64, BlockSize> block{};
    for (uint64 i = 0; i < BlockSize; ++i)
        block[i] = i;
    return block;
}

/// A buffer, a result over it, and a task whose jobs append NumBlocks blocks.
class Appender {
public:
    explicit Appender(bool sorted) : m_sorted(sorted), m_block(makeBlock()), m_task("append") {
        for (uint64 i = 0; i < NumJobs; ++i) {
            m_jobs.push_back(std::make_unique<RangeJob>(
                [this](const RangeJob& job) { append(job.getRange()); },
                IndexRange(i * NumBlocks / NumJobs, (i + 1) * NumBlocks / NumJobs)));
            m_task.addJob(m_jobs.back().get());
        }
        renew();
    }
    /// Begins with an empty buffer, which overflows on its way.
    void renew() {
        m_result = nullptr;
        m_buffer = new Buffer("b", zelData::getFormat("UInt:64bit"));
        m_result = new GlobalResultBuffer(GlobalResult::TRUNCATE, "b", m_buffer.get());
        m_array.bind(m_buffer.get(), {0, 0});
    }
    void run() {
        m_result->prepare(&m_task);
        if (m_sorted)
            m_result->prepareResultSorting(NumBlocks);
        m_task.execute();
        m_result->finalize();
        benchmark::DoNotOptimize(m_buffer->getPtr());
    }
    [[nodiscard]] uint64 numOverflows() const { return m_result->getNumOverflows(); }

private:
    void append(const IndexRange& blocks) {
        for (uint64 i = blocks.begin(); i < blocks.end(); ++i)
            m_result->commit(
                m_array, BlockSize, m_block.data(), m_sorted ? static_cast<unsigned>(i) : zel::InvalidIndex);
    }

    bool m_sorted;
    std::array<uint64, BlockSize> m_block;
    ref_ptr<Buffer> m_buffer;
    ref_ptr<GlobalResultBuffer> m_result;
    zelData::AbstractArray m_array;
    std::vector<std::unique_ptr<RangeJob>> m_jobs;
    zel::ParallelTask m_task;
};

void warm(benchmark::State& state, bool sorted) {
    setThreads(state.range(0));
    {
        Appender appender(sorted);
        appender.run();
        for (auto _ : state)
            appender.run();
        state.counters["overflows"] = static_cast<double>(appender.numOverflows());
        state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(NumBlocks * BlockSize));
    }
    zel::setNumThreads(1);
}

void fresh(benchmark::State& state, bool sorted) {
    setThreads(state.range(0));
    {
        Appender appender(sorted);
        for (auto _ : state) {
            appender.renew();
            appender.run();
        }
        state.counters["overflows"] = static_cast<double>(appender.numOverflows());
        state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(NumBlocks * BlockSize));
    }
    zel::setNumThreads(1);
}

void zelWarm(benchmark::State& state) {
    warm(state, false);
}
void zelWarmSorted(benchmark::State& state) {
    warm(state, true);
}
void zelFresh(benchmark::State& state) {
    fresh(state, false);
}
void zelFreshSorted(benchmark::State& state) {
    fresh(state, true);
}
BENCHMARK(zelWarm)->Name("BM_AppendWarm/zel")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(zelWarmSorted)
    ->Name("BM_AppendWarm/zel_sorted")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(zelFresh)
    ->Name("BM_AppendWithOverflow/zel")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(zelFreshSorted)
    ->Name("BM_AppendWithOverflow/zel_sorted")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

#ifdef ZEL_BENCH_TBB

using TbbVector = tbb::concurrent_vector<uint64>;

void appendTbb(TbbVector& vector, const std::array<uint64, BlockSize>& block) {
    tbb::parallel_for(uint64{0}, NumJobs, [&](uint64 job) {
        for (uint64 i = job * NumBlocks / NumJobs; i < (job + 1) * NumBlocks / NumJobs; ++i)
            vector.grow_by(block.begin(), block.end());
    });
    benchmark::DoNotOptimize(vector.size());
}

/// The memory of the last round is used again.
void tbbWarm(benchmark::State& state) {
    setThreads(1); // our workers are not to be in the way
    const tbb::global_control control(tbb::global_control::max_allowed_parallelism,
                                      static_cast<size_t>(state.range(0)));
    const auto block = makeBlock();
    TbbVector vector;
    appendTbb(vector, block);
    for (auto _ : state) {
        vector.clear();
        appendTbb(vector, block);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(NumBlocks * BlockSize));
}

void tbbFresh(benchmark::State& state) {
    setThreads(1);
    const tbb::global_control control(tbb::global_control::max_allowed_parallelism,
                                      static_cast<size_t>(state.range(0)));
    const auto block = makeBlock();
    for (auto _ : state) {
        TbbVector vector;
        appendTbb(vector, block);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(NumBlocks * BlockSize));
}
BENCHMARK(tbbWarm)->Name("BM_AppendWarm/tbb")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(tbbFresh)
    ->Name("BM_AppendWithOverflow/tbb")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

#endif

} // namespace

BENCHMARK_MAIN();
