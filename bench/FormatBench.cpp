// Formats beside what one would write by hand for one kind of element: text beside printf and strtod,
// conversions and byte swaps beside plain loops.

#include <zel/String.h>
#include <zel/Vec.h>
#include <zelData/Format.h>
#include <zelData/Transform.h>
#include <zelData/Type.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

namespace {

constexpr size_t NumTexts = 1'000'000;
constexpr size_t NumNumbers = 10'000'000;

const std::vector<double>& reals() {
    static const std::vector<double> values = [] {
        std::mt19937_64 random(1);
        std::uniform_real_distribution<double> distribution(-1000, 1000);
        std::vector<double> fresh(NumNumbers);
        for (double& value : fresh)
            value = distribution(random);
        return fresh;
    }();
    return values;
}

const std::vector<zel::Vec3d>& vectors() {
    static const std::vector<zel::Vec3d> values = [] {
        std::vector<zel::Vec3d> fresh(NumTexts);
        for (size_t i = 0; i < NumTexts; ++i)
            fresh[i] = {reals()[3 * i], reals()[3 * i + 1], reals()[3 * i + 2]};
        return fresh;
    }();
    return values;
}

zelData::TransformFunction transformer(const char* target, const char* source) {
    return zelData::getTransformer(zelData::getFormat(target), zelData::getFormat(source));
}

/// Texts with room for what is written into them, so that allocation is nobody's cost.
std::vector<zel::String>& texts() {
    static std::vector<zel::String> all(NumTexts, zel::String(48, ' '));
    return all;
}

// Text.

void BM_WriteReal_zel(benchmark::State& state) {
    const auto write = transformer("Real:ascii", "Real:64bit");
    for (auto _ : state) {
        write(texts().data(), reals().data(), NumTexts);
        benchmark::ClobberMemory();
    }
}
void BM_WriteReal_snprintf(benchmark::State& state) {
    for (auto _ : state) {
        for (size_t i = 0; i < NumTexts; ++i) {
            char buffer[32];
            const int length = std::snprintf(buffer, sizeof(buffer), "%g", reals()[i]);
            texts()[i].assign(buffer, static_cast<size_t>(length));
        }
        benchmark::ClobberMemory();
    }
}
void BM_WriteVec3_zel(benchmark::State& state) {
    const auto write = transformer("Vec3:ascii", "Vec3:64bit");
    for (auto _ : state) {
        write(texts().data(), vectors().data(), NumTexts);
        benchmark::ClobberMemory();
    }
}
void BM_WriteVec3_snprintf(benchmark::State& state) {
    for (auto _ : state) {
        for (size_t i = 0; i < NumTexts; ++i) {
            const zel::Vec3d& v = vectors()[i];
            char buffer[96];
            const int length = std::snprintf(buffer, sizeof(buffer), "%f, %f, %f", v.x(), v.y(), v.z());
            texts()[i].assign(buffer, static_cast<size_t>(length));
        }
        benchmark::ClobberMemory();
    }
}

void BM_ReadReal_zel(benchmark::State& state) {
    transformer("Real:ascii", "Real:64bit")(texts().data(), reals().data(), NumTexts);
    const auto read = transformer("Real:64bit", "Real:ascii");
    std::vector<double> target(NumTexts);
    for (auto _ : state) {
        read(target.data(), texts().data(), NumTexts);
        benchmark::ClobberMemory();
    }
}
void BM_ReadReal_strtod(benchmark::State& state) {
    transformer("Real:ascii", "Real:64bit")(texts().data(), reals().data(), NumTexts);
    std::vector<double> target(NumTexts);
    for (auto _ : state) {
        for (size_t i = 0; i < NumTexts; ++i)
            target[i] = std::strtod(texts()[i].c_str(), nullptr);
        benchmark::ClobberMemory();
    }
}
void BM_ReadVec3_zel(benchmark::State& state) {
    transformer("Vec3:ascii", "Vec3:64bit")(texts().data(), vectors().data(), NumTexts);
    const auto read = transformer("Vec3:64bit", "Vec3:ascii");
    std::vector<zel::Vec3d> target(NumTexts);
    for (auto _ : state) {
        read(target.data(), texts().data(), NumTexts);
        benchmark::ClobberMemory();
    }
}
void BM_ReadVec3_strtod(benchmark::State& state) {
    transformer("Vec3:ascii", "Vec3:64bit")(texts().data(), vectors().data(), NumTexts);
    std::vector<zel::Vec3d> target(NumTexts);
    for (auto _ : state) {
        for (size_t i = 0; i < NumTexts; ++i) {
            char* at = texts()[i].data();
            for (size_t k = 0; k < 3; ++k, ++at)
                target[i][k] = std::strtod(at, &at);
        }
        benchmark::ClobberMemory();
    }
}

// Numbers. Both sides write over the same target.

template <typename T>
std::vector<T>& target() {
    static std::vector<T> elements(NumNumbers);
    return elements;
}

template <typename T>
void transformAll(benchmark::State& state, zelData::TransformFunction function) {
    for (auto _ : state) {
        function(target<T>().data(), reals().data(), NumNumbers);
        benchmark::ClobberMemory();
    }
}

void BM_RealToFloat_zel(benchmark::State& state) {
    transformAll<float>(state, transformer("Real:32bit", "Real:64bit"));
}
void BM_RealToFloat_loop(benchmark::State& state) {
    for (auto _ : state) {
        float* const to = target<float>().data();
        const double* const from = reals().data();
        for (size_t i = 0; i < NumNumbers; ++i)
            to[i] = static_cast<float>(from[i]);
        benchmark::ClobberMemory();
    }
}
void BM_RealToVec3_zel(benchmark::State& state) {
    transformAll<zel::Vec3d>(state, transformer("Vec3:64bit", "Real:64bit"));
}
void BM_RealToVec3_loop(benchmark::State& state) {
    for (auto _ : state) {
        double* to = target<zel::Vec3d>().data()->data();
        const double* const from = reals().data();
        for (size_t i = 0; i < NumNumbers; ++i, to += 4) {
            to[0] = to[1] = to[2] = from[i];
            to[3] = 0;
        }
        benchmark::ClobberMemory();
    }
}
void BM_RealToInt_zel(benchmark::State& state) {
    transformAll<zel::int32>(state, transformer("Int:32bit", "Real:64bit"));
}
void BM_RealToInt_loop(benchmark::State& state) {
    for (auto _ : state) {
        zel::int32* const to = target<zel::int32>().data();
        const double* const from = reals().data();
        for (size_t i = 0; i < NumNumbers; ++i)
            to[i] = static_cast<zel::int32>(from[i]);
        benchmark::ClobberMemory();
    }
}
void BM_Swap64_zel(benchmark::State& state) {
    transformAll<double>(state, zelData::getFormat("Real:64bit")->getSwapFunction());
}
void BM_Swap64_loop(benchmark::State& state) {
    for (auto _ : state) {
        auto* const to = reinterpret_cast<zel::uint64*>(target<double>().data());
        const auto* const from = reinterpret_cast<const zel::uint64*>(reals().data());
        for (size_t i = 0; i < NumNumbers; ++i)
            to[i] = __builtin_bswap64(from[i]);
        benchmark::ClobberMemory();
    }
}
void BM_Swap32_zel(benchmark::State& state) {
    transformAll<float>(state, zelData::getFormat("Real:32bit")->getSwapFunction());
}
void BM_Swap32_loop(benchmark::State& state) {
    for (auto _ : state) {
        auto* const to = reinterpret_cast<zel::uint32*>(target<float>().data());
        const auto* const from = reinterpret_cast<const zel::uint32*>(reals().data());
        for (size_t i = 0; i < NumNumbers; ++i)
            to[i] = __builtin_bswap32(from[i]);
        benchmark::ClobberMemory();
    }
}

BENCHMARK(BM_WriteReal_zel)->Name("BM_WriteReal/zel")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WriteReal_snprintf)->Name("BM_WriteReal/snprintf")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WriteVec3_zel)->Name("BM_WriteVec3/zel")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WriteVec3_snprintf)->Name("BM_WriteVec3/snprintf")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadReal_zel)->Name("BM_ReadReal/zel")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadReal_strtod)->Name("BM_ReadReal/strtod")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadVec3_zel)->Name("BM_ReadVec3/zel")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadVec3_strtod)->Name("BM_ReadVec3/strtod")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RealToFloat_zel)->Name("BM_RealToFloat/zel")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RealToFloat_loop)->Name("BM_RealToFloat/loop")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RealToVec3_zel)->Name("BM_RealToVec3/zel")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RealToVec3_loop)->Name("BM_RealToVec3/loop")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RealToInt_zel)->Name("BM_RealToInt/zel")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RealToInt_loop)->Name("BM_RealToInt/loop")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Swap64_zel)->Name("BM_Swap64/zel")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Swap64_loop)->Name("BM_Swap64/loop")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Swap32_zel)->Name("BM_Swap32/zel")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Swap32_loop)->Name("BM_Swap32/loop")->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
    // Made ahead of all measurements.
    static_cast<void>(vectors());
    static_cast<void>(texts());
    static_cast<void>(target<double>());
    static_cast<void>(target<float>());
    static_cast<void>(target<zel::int32>());
    static_cast<void>(target<zel::Vec3d>());
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
