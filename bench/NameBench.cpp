// Names made from text that is interned already, beside a table of strings under a mutex; and what comparing
// and hashing of names cost beside the same for pointers.

#include <zel/HashFn.h>
#include <zel/Name.h>

#include <benchmark/benchmark.h>

#include <array>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace {

constexpr size_t NumTexts = 1024;

const std::vector<std::string>& texts() {
    static const std::vector<std::string> all = [] {
        std::vector<std::string> fresh;
        for (size_t i = 0; i < NumTexts; ++i)
            fresh.push_back("System.Belt.attribute" + std::to_string(i));
        return fresh;
    }();
    return all;
}

const std::vector<zel::Name>& names() {
    static const std::vector<zel::Name> all(texts().begin(), texts().end());
    return all;
}

/// What a program without names would write.
class StringTable {
public:
    StringTable() : m_strings(texts().begin(), texts().end()) {}
    const std::string* intern(const char* text) {
        const std::lock_guard lock(m_mutex);
        return &*m_strings.emplace(text).first;
    }

private:
    std::mutex m_mutex;
    std::unordered_set<std::string> m_strings;
};

/// The same at its best: a look-up that makes no string.
class TransparentStringTable {
public:
    TransparentStringTable() : m_strings(texts().begin(), texts().end()) {}
    const std::string* intern(const char* text) {
        const std::lock_guard lock(m_mutex);
        const auto position = m_strings.find(std::string_view(text));
        return position != m_strings.end() ? &*position : &*m_strings.emplace(text).first;
    }

private:
    struct Hash {
        using is_transparent = void;
        size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
    };
    std::mutex m_mutex;
    std::unordered_set<std::string, Hash, std::equal_to<>> m_strings;
};

template <typename Intern>
void internAll(benchmark::State& state, Intern intern) {
    const auto& all = texts();
    size_t i = static_cast<size_t>(state.thread_index()) * 37;
    for (auto _ : state)
        intern(all[i++ % NumTexts].c_str());
}

void nameFromText(benchmark::State& state) {
    benchmark::DoNotOptimize(names().data()); // holds one of each
    internAll(state, [](const char* text) {
        const zel::Name name(text);
        benchmark::DoNotOptimize(name.c_str());
    });
}

template <typename Table>
void stringFromTable(benchmark::State& state) {
    static Table table;
    internAll(state, [](const char* text) { benchmark::DoNotOptimize(table.intern(text)); });
}

/// Values in an order that the branch predictor cannot learn.
template <typename T>
std::vector<T> mixed(const std::vector<T>& values) {
    std::vector<T> result;
    for (size_t i = 0; i < 4 * NumTexts; ++i)
        result.push_back(values[i * i * 7919 % NumTexts]);
    return result;
}
std::vector<const char*> pointers() {
    std::vector<const char*> result;
    for (const auto& name : names())
        result.push_back(name.c_str());
    return result;
}

template <typename T>
void compareAll(benchmark::State& state, const std::vector<T>& values) {
    for (auto _ : state) {
        size_t equal = 0;
        for (size_t i = 0; i + 1 < values.size(); ++i)
            equal += static_cast<size_t>(values[i] == values[i + 1]);
        benchmark::DoNotOptimize(equal);
    }
}
template <typename T, typename Hash>
void hashAll(benchmark::State& state, const std::vector<T>& values) {
    for (auto _ : state) {
        zel::uint32 sum = 0;
        for (const T& value : values)
            sum += Hash()(value);
        benchmark::DoNotOptimize(sum);
    }
}

} // namespace

int main(int argc, char** argv) {
    for (const int threads : {1, 2}) {
        benchmark::RegisterBenchmark("BM_NameFromText/zel", nameFromText)->Threads(threads)->UseRealTime();
        benchmark::RegisterBenchmark("BM_NameFromText/std", stringFromTable<StringTable>)
            ->Threads(threads)
            ->UseRealTime();
        benchmark::RegisterBenchmark("BM_NameFromText/std_transparent",
                                     stringFromTable<TransparentStringTable>)
            ->Threads(threads)
            ->UseRealTime();
    }
    const auto someNames = mixed(names());
    const auto somePointers = mixed(pointers());
    benchmark::RegisterBenchmark("BM_CompareNames/zel", [&](auto& state) { compareAll(state, someNames); });
    benchmark::RegisterBenchmark("BM_CompareNames/pointer",
                                 [&](auto& state) { compareAll(state, somePointers); });
    benchmark::RegisterBenchmark("BM_HashNames/zel", [&](auto& state) {
        hashAll<zel::Name, zel::HashFn<zel::Name>>(state, someNames);
    });
    benchmark::RegisterBenchmark("BM_HashNames/pointer", [&](auto& state) {
        hashAll<const char*, zel::HashFn<const void*>>(state, somePointers);
    });
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
