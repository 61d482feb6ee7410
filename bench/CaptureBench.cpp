// A step in which one element of a hundred has changed, captured as an increment, beside a comparison with a
// shadow by hand: memcmp of each block, and a copy of the blocks that differ, to the shadow and to memory
// that goes away.

#include <zel/Component.h>
#include <zel/Thread.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/Buffer.h>
#include <zelData/Frame.h>
#include <zelData/FrameCapture.h>
#include <zelData/Type.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using zel::ref_ptr;
using zel::uint64;
using zelData::Buffer;

constexpr uint64 NumColumns = 10;
constexpr uint64 NumInstances = 1'000'000;
constexpr uint64 BlockSize = 512; // elements: 4 KiB

struct State {
    ref_ptr<zel::Component> root{new zel::Component("root")};
    std::vector<Buffer*> columns;
    uint64 numSteps = 0;

    State() {
        for (uint64 i = 0; i < NumColumns; ++i) {
            const ref_ptr<Buffer> column(
                new Buffer(("column" + std::to_string(i)).c_str(), zelData::getFormat("Real")));
            column->resize(NumInstances);
            root->addObject(column.get());
            columns.push_back(column.get());
        }
    }
    /// Runs of ten elements, as neighbours in an order that follows space.
    void step() {
        ++numSteps;
        for (Buffer* column : columns)
            for (uint64 i = numSteps * 7919 % 1000; i + 10 < NumInstances; i += 1000)
                for (uint64 k = 0; k < 10; ++k)
                    column->data<double>()[i + k] += 1;
    }
};

State& state() {
    static State* const made = [] {
        zelCore::init();
        return new State;
    }();
    return *made;
}

void captureOurs(benchmark::State& run) {
    State& tree = state();
    zel::setNumThreads(static_cast<zel::size_t>(run.range(0)));
    const ref_ptr<zelData::FrameCapture> capture(new zelData::FrameCapture(tree.root.get()));
    capture->setKeyFrameInterval(0);
    (void)capture->capture(0, 0, 1);
    for (auto _ : run) { // NOLINT
        run.PauseTiming();
        tree.step();
        run.ResumeTiming();
        const ref_ptr<zelData::Frame> frame = capture->capture(tree.numSteps, 0, 1);
        if (frame->isKeyFrame() || frame->getNumObjects() != NumColumns)
            std::abort();
    }
    run.counters["kept_MB"] = static_cast<double>(capture->getMemory()) / 1e6;
    zel::setNumThreads(1);
}
BENCHMARK(captureOurs)
    ->Name("BM_CaptureOnePercent/zel")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void captureByHand(benchmark::State& run) {
    State& tree = state();
    std::vector<std::vector<double>> shadows;
    for (const Buffer* column : tree.columns)
        shadows.emplace_back(column->data<double>(), column->data<double>() + NumInstances);
    for (auto _ : run) { // NOLINT
        run.PauseTiming();
        tree.step();
        run.ResumeTiming();
        std::vector<double> changed;
        for (uint64 c = 0; c < NumColumns; ++c)
            for (uint64 i = 0; i < NumInstances; i += BlockSize) {
                const uint64 n = std::min(BlockSize, NumInstances - i);
                const double* live = tree.columns[c]->data<double>() + i;
                if (std::memcmp(live, shadows[c].data() + i, n * sizeof(double)) == 0)
                    continue;
                std::memcpy(shadows[c].data() + i, live, n * sizeof(double));
                changed.insert(changed.end(), live, live + n);
            }
        benchmark::DoNotOptimize(changed.data());
    }
}
BENCHMARK(captureByHand)->Name("BM_CaptureOnePercent/memcmp/1")->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
