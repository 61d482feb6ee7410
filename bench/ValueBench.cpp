// One update of a thousand values: those of one format, which share the element, beside a list of a thousand
// std::functions; and those that convert.
#include <zelData/Format.h>
#include <zelData/Type.h>
#include <zelData/Value.h>
#include <zelData/ValueT.h>

#include <benchmark/benchmark.h>

#include <functional>
#include <vector>

namespace {

using Real = zelData::ValueT<double>;
using zel::ref_ptr;
using zelData::Value;

constexpr int NumDependents = 1000;

void callFunctions(benchmark::State& state) {
    std::vector<double> seen(NumDependents);
    std::vector<std::function<void(double)>> callbacks;
    for (double& each : seen)
        callbacks.emplace_back([&each](double content) { each = content; });
    double content = 0;
    for (auto _ : state) {
        content += 1;
        for (const auto& callback : callbacks)
            callback(content);
        benchmark::ClobberMemory();
    }
}
// The same peer for each of ours.
BENCHMARK(callFunctions)->Name("BM_ValueDependents/std");
BENCHMARK(callFunctions)->Name("BM_ValueChain/std");
BENCHMARK(callFunctions)->Name("BM_ValueCallbacks/std");

std::vector<ref_ptr<Value>> dependentsOf(Value* root, const char* format, bool chain) {
    std::vector<ref_ptr<Value>> values;
    for (int i = 0; i < NumDependents; ++i) {
        Value* binding = chain && i > 0 ? values.back().get() : root;
        values.push_back(new Value("v", zelData::getFormat(format)));
        values.back()->bind(binding);
    }
    return values;
}

void update(benchmark::State& state, const char* format, bool chain) {
    const ref_ptr<Real> root(new Real("root"));
    const auto values = dependentsOf(root.get(), format, chain);
    double content = 0;
    for (auto _ : state) {
        content += 1;
        root->set(content);
        benchmark::ClobberMemory();
    }
}

void updateDependents(benchmark::State& state) {
    update(state, "Real:64bit", false);
}
BENCHMARK(updateDependents)->Name("BM_ValueDependents/zel");

void updateChain(benchmark::State& state) {
    update(state, "Real:64bit", true);
}
BENCHMARK(updateChain)->Name("BM_ValueChain/zel");

void updateConverting(benchmark::State& state) {
    update(state, "Real:32bit", false);
}
BENCHMARK(updateConverting)->Name("BM_ValueConversions/zel");

/// Each dependent has a callback of its own.
void updateCallbacks(benchmark::State& state) {
    const ref_ptr<Real> root(new Real("root"));
    const auto values = dependentsOf(root.get(), "Real:64bit", false);
    std::vector<double> seen(NumDependents);
    for (int i = 0; i < NumDependents; ++i) {
        double& each = seen[static_cast<size_t>(i)];
        values[static_cast<size_t>(i)]->updateEvent.connect(
            [&each](Value* value) { each = *static_cast<const double*>(value->getData()); });
    }
    double content = 0;
    for (auto _ : state) {
        content += 1;
        root->set(content);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(updateCallbacks)->Name("BM_ValueCallbacks/zel");

} // namespace

BENCHMARK_MAIN();
