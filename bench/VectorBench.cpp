// The growable arrays beside the standard library's.

#include <zel/Vector.h>

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

namespace {

constexpr size_t NumInts = 10'000'000;
constexpr size_t NumStrings = 1'000'000;

template <typename Array>
void pushBackInts(benchmark::State& state) {
    for (auto _ : state) {
        Array array;
        for (size_t i = 0; i < NumInts; ++i)
            array.push_back(static_cast<int>(i));
        benchmark::DoNotOptimize(array.begin());
    }
}

template <typename Array>
void pushBackStrings(benchmark::State& state, const std::string& text) {
    for (auto _ : state) {
        Array array;
        for (size_t i = 0; i < NumStrings; ++i)
            array.push_back(text);
        benchmark::DoNotOptimize(array.begin());
    }
}
template <typename Array>
void pushBackShortStrings(benchmark::State& state) {
    pushBackStrings<Array>(state, "position");
}
template <typename Array>
void pushBackLongStrings(benchmark::State& state) {
    pushBackStrings<Array>(state, "a text too long for the small string optimisation");
}

template <typename Array>
void resizeOnce(benchmark::State& state) {
    for (auto _ : state) {
        Array array;
        array.resize(NumInts);
        benchmark::DoNotOptimize(array.begin());
    }
}

/// One element from the front, the middle and the end, by turns.
template <typename Array>
void eraseSome(benchmark::State& state, size_t size, size_t erased) {
    using T = typename Array::value_type;
    for (auto _ : state) {
        state.PauseTiming();
        Array array;
        array.resize(size, T());
        state.ResumeTiming();
        for (size_t i = 0; i < erased; ++i)
            array.erase(array.begin() + static_cast<std::ptrdiff_t>((array.size() - 1) / 2 * (i % 3)));
        benchmark::DoNotOptimize(array.begin());
    }
}
template <typename Array>
void eraseInts(benchmark::State& state) {
    eraseSome<Array>(state, 100'000, 1000);
}
template <typename Array>
void eraseStrings(benchmark::State& state) {
    eraseSome<Array>(state, 10'000, 1000);
}

template <typename Ints, typename Strings>
void registerArrays(const std::string& ints, const std::string& strings) {
    const auto add = [](const std::string& name, void (*function)(benchmark::State&)) {
        benchmark::RegisterBenchmark(("BM_" + name).c_str(), function)->Unit(benchmark::kMillisecond);
    };
    add("PushBackInts/" + ints, pushBackInts<Ints>);
    add("ResizeInts/" + ints, resizeOnce<Ints>);
    add("EraseInts/" + ints, eraseInts<Ints>);
    if (strings.empty())
        return;
    add("PushBackShortStrings/" + strings, pushBackShortStrings<Strings>);
    add("PushBackLongStrings/" + strings, pushBackLongStrings<Strings>);
    add("EraseStrings/" + strings, eraseStrings<Strings>);
}

} // namespace

int main(int argc, char** argv) {
    registerArrays<zel::Vector<int>, zel::Vector<std::string>>("zel_Vector", "zel_Vector");
    registerArrays<zel::VectorPOD<int>, zel::Vector<std::string>>("zel_VectorPOD", "");
    registerArrays<std::vector<int>, std::vector<std::string>>("std", "std");
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
