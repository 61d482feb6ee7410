// Frames turned into time series beside a loop over the same columns in memory: 1,000 frames of a storage of
// 1,000 instances, of each of which one attribute is wanted.

#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/Buffer.h>
#include <zelData/EntityStorage.h>
#include <zelData/Frame.h>
#include <zelData/FrameNodes.h>
#include <zelData/FrameTranspose.h>
#include <zelData/Type.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <numeric>
#include <vector>

namespace {

using zel::ref_ptr;
using zel::uint32;
using zel::uint64;
using zelData::Buffer;
using zelData::Frame;

constexpr uint64 NumFrames = 1000;
constexpr uint64 NumInstances = 1000;

ref_ptr<Frame> makeFrame(uint64 index) {
    ref_ptr<Frame> frame(new Frame(index, static_cast<double>(index), 1));
    frame->setKeyFrame(true);
    const ref_ptr<Frame::EntityStorage> storage(
        new Frame::EntityStorage("planets", nullptr, NumInstances, NumInstances));
    const ref_ptr<Buffer> ids(new Buffer(zelData::EntityStorage::IdToIndexName, zelData::getFormat("UInt")));
    const ref_ptr<Buffer> speeds(new Buffer("speed", zelData::getFormat("Real")));
    ids->resize(NumInstances);
    speeds->resize(NumInstances);
    for (uint64 i = 0; i < NumInstances; ++i) {
        ids->data<uint64>()[i] = (i + index) % NumInstances;
        speeds->data<double>()[i] = static_cast<double>(i * index);
    }
    storage->addObject(ids.get());
    storage->addObject(speeds.get());
    frame->addStorage(storage.get(), "sun.planets");
    return frame;
}

const std::vector<ref_ptr<Frame>>& frames() {
    static const std::vector<ref_ptr<Frame>>* const made = [] {
        zelCore::init();
        auto* list = new std::vector<ref_ptr<Frame>>;
        for (uint64 i = 0; i < NumFrames; ++i)
            list->push_back(makeFrame(i));
        return list;
    }();
    return *made;
}

void transposeOurs(benchmark::State& state) {
    const auto& list = frames();
    for (auto _ : state) { // NOLINT
        const ref_ptr<zelData::FrameTranspose> transpose(new zelData::FrameTranspose(true));
        std::vector<zelData::FrameTranspose::AttributeTrack*> tracks;
        for (uint32 id = 0; id < NumInstances; ++id)
            tracks.push_back(transpose->registerTrack("sun.planets", "speed", id));
        for (const ref_ptr<Frame>& frame : list)
            transpose->writeFrame(frame.get());
        for (auto* track : tracks)
            if (track->getBuffer()->size() != NumFrames)
                std::abort();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * NumFrames * NumInstances));
}
BENCHMARK(transposeOurs)->Name("BM_Transpose/zel")->Unit(benchmark::kMillisecond);

void transposeByHand(benchmark::State& state) {
    struct Columns {
        const uint64* idToIndex;
        const double* speeds;
    };
    std::vector<Columns> columns;
    for (const ref_ptr<Frame>& frame : frames())
        columns.push_back({frame->getBuffer("sun.planets._idToIndex")->data<uint64>(),
                           frame->getBuffer("sun.planets.speed")->data<double>()});
    for (auto _ : state) { // NOLINT
        std::vector<std::vector<double>> series(NumInstances);
        for (const Columns& frame : columns)
            for (uint64 id = 0; id < NumInstances; ++id)
                series[id].push_back(frame.speeds[frame.idToIndex[id]]);
        benchmark::DoNotOptimize(series.data());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * NumFrames * NumInstances));
}
BENCHMARK(transposeByHand)->Name("BM_Transpose/loop")->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
