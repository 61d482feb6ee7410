// A column of ten million doubles beside plain memory: growth with initialisation, copy, gather and scatter.
#include <zel/ByteAllocator.h>
#include <zelData/Buffer.h>
#include <zelData/Format.h>
#include <zelData/Type.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>

namespace {

using zel::ref_ptr;
using zel::uint32;
using zel::uint64;
using zelData::Buffer;

constexpr uint64 NumElements = 10'000'000;

ref_ptr<Buffer> makeBuffer() {
    ref_ptr<Buffer> buffer(new Buffer("b", zelData::getFormat("Real:64bit")));
    buffer->reserve(NumElements);
    buffer->resize(NumElements);
    return buffer;
}

/// Plain memory of the same allocator.
struct Plain {
    Plain()
        : elements(static_cast<double*>(zel::ByteAllocator::standaloneAllocateBytes(NumElements * 8, 64))) {
        std::memset(elements, 0, NumElements * 8);
    }
    Plain(const Plain&) = delete;
    Plain& operator=(const Plain&) = delete;
    ~Plain() { zel::ByteAllocator::standaloneDeallocateTypes(elements); }
    double* elements;
};

/// A random order, or one that visits neighbours together.
zel::VectorPOD<uint32> makeIndices(bool random) {
    zel::VectorPOD<uint32> indices(NumElements);
    for (uint64 i = 0; i < NumElements; ++i)
        indices[i] = static_cast<uint32>(i ^ 7U);
    if (random)
        std::shuffle(indices.begin(), indices.end(), std::mt19937(1)); // NOLINT: the same in each run
    return indices;
}

void zelResize(benchmark::State& state) {
    const ref_ptr<Buffer> buffer = makeBuffer();
    for (auto _ : state) {
        buffer->resize(0);
        buffer->resize(NumElements);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(zelResize)->Name("BM_BufferResize/zel")->Unit(benchmark::kMillisecond);

void plainResize(benchmark::State& state) {
    const Plain plain;
    for (auto _ : state) {
        std::memset(plain.elements, 0, NumElements * 8);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(plainResize)->Name("BM_BufferResize/plain")->Unit(benchmark::kMillisecond);

void zelCopy(benchmark::State& state) {
    const ref_ptr<Buffer> source = makeBuffer();
    const ref_ptr<Buffer> target = makeBuffer();
    for (auto _ : state) {
        Buffer::copy(target.get(), source.get());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(zelCopy)->Name("BM_BufferCopy/zel")->Unit(benchmark::kMillisecond);

void plainCopy(benchmark::State& state) {
    const Plain source;
    const Plain target;
    for (auto _ : state) {
        std::memcpy(target.elements, source.elements, NumElements * 8);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(plainCopy)->Name("BM_BufferCopy/plain")->Unit(benchmark::kMillisecond);

template <typename Operation>
void withBuffers(benchmark::State& state, Operation&& operation) {
    zel::VectorPOD<uint32> indices = makeIndices(state.range(0) != 0);
    const zelData::Array<uint32> view(indices);
    const ref_ptr<Buffer> source = makeBuffer();
    const ref_ptr<Buffer> target = makeBuffer();
    for (auto _ : state) {
        operation(target.get(), source.get(), view);
        benchmark::ClobberMemory();
    }
}

template <typename Operation>
void withPlainMemory(benchmark::State& state, Operation&& operation) {
    const zel::VectorPOD<uint32> indices = makeIndices(state.range(0) != 0);
    const Plain source;
    const Plain target;
    for (auto _ : state) {
        operation(target.elements, source.elements, indices.data());
        benchmark::ClobberMemory();
    }
}

void zelGather(benchmark::State& state) {
    withBuffers(state, &Buffer::copyGather);
}
BENCHMARK(zelGather)->Name("BM_BufferGather/zel")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void plainGather(benchmark::State& state) {
    withPlainMemory(state, [](double* target, const double* source, const uint32* indices) {
        for (uint64 i = 0; i < NumElements; ++i)
            target[i] = source[indices[i]];
    });
}
BENCHMARK(plainGather)->Name("BM_BufferGather/plain")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void zelScatter(benchmark::State& state) {
    withBuffers(state, &Buffer::copyScatter);
}
BENCHMARK(zelScatter)->Name("BM_BufferScatter/zel")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void plainScatter(benchmark::State& state) {
    withPlainMemory(state, [](double* target, const double* source, const uint32* indices) {
        for (uint64 i = 0; i < NumElements; ++i)
            target[indices[i]] = source[i];
    });
}
BENCHMARK(plainScatter)->Name("BM_BufferScatter/plain")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
