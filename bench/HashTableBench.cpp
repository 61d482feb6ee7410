// The hash tables beside those of the standard library and of Abseil: a million keys each.

#include <zel/HashSet.h>
#include <zel/LinearProbingHashTable.h>
#include <zel/String.h>

#include <benchmark/benchmark.h>

#ifdef ZEL_BENCH_ABSL
#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>
#endif

#include <malloc.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace {

constexpr size_t NumKeys = 1'000'000;

using U64 = zel::uint64;

/// Keys to insert, the same in another order, and as many that are not among them.
template <typename Key>
struct Keys {
    std::vector<Key> inserted;
    std::vector<Key> shuffled;
    std::vector<Key> absent;
};

template <typename Key>
void shuffleInto(Keys<Key>& keys, std::mt19937_64& random) {
    keys.shuffled = keys.inserted;
    std::shuffle(keys.shuffled.begin(), keys.shuffled.end(), random);
}

template <typename Key>
const Keys<Key>& sharedKeys();

template <>
const Keys<U64>& sharedKeys<U64>() {
    static const Keys<U64> keys = [] {
        std::mt19937_64 random(1);
        Keys<U64> fresh;
        for (size_t i = 0; i < NumKeys; ++i) {
            fresh.inserted.push_back(random() | 1U);
            fresh.absent.push_back(random() & ~U64{1});
        }
        shuffleInto(fresh, random);
        return fresh;
    }();
    return keys;
}

/// Texts as they come in models: paths with a number in them.
template <typename Text>
const Keys<Text>& textKeys() {
    static const Keys<Text> keys = [] {
        std::mt19937_64 random(2);
        Keys<Text> fresh;
        for (size_t i = 0; i < NumKeys; ++i) {
            const std::string number = std::to_string(random() % 1'000'000'000);
            fresh.inserted.push_back("System.Belt.particle" + number + "." + std::to_string(i));
            fresh.absent.push_back("System.Belt.particle" + number + ":" + std::to_string(i));
        }
        shuffleInto(fresh, random);
        return fresh;
    }();
    return keys;
}
template <>
const Keys<zel::String>& sharedKeys<zel::String>() {
    return textKeys<zel::String>();
}
template <>
const Keys<std::string>& sharedKeys<std::string>() {
    return textKeys<std::string>();
}

template <typename Table>
concept IsMap = requires {
    typename Table::mapped_type;
};

// One spelling for all tables.

template <typename Key, typename... Rest>
void add(zel::HashSet<Key, Rest...>& table, const Key& key) {
    table.insert(key);
}
template <typename Key, typename Value, typename... Rest>
void add(zel::LinearProbingHashTable<Key, Value, Rest...>& table, const Key& key) {
    table.insert(key, Value());
}
template <typename Table>
void add(Table& table, const typename Table::key_type& key) {
    if constexpr (IsMap<Table>)
        table.emplace(key, typename Table::mapped_type());
    else
        table.insert(key);
}

template <typename Table, typename Key>
std::unique_ptr<Table> filled() {
    auto table = std::make_unique<Table>();
    for (const Key& key : sharedKeys<Key>().inserted)
        add(*table, key);
    return table;
}

/// Gives a table's memory back outside the time. The trim makes the C library's allocator tidy up at once
/// what it would otherwise leave to the next table's first large request.
template <typename Table>
void clearAway(benchmark::State& state, std::unique_ptr<Table> table) {
    state.PauseTiming();
    table.reset();
    malloc_trim(0);
    state.ResumeTiming();
}

/// Setting up and clearing away are left out of the time.
template <typename Table, typename Key>
void insertAll(benchmark::State& state) {
    const auto& keys = sharedKeys<Key>().inserted;
    for (auto _ : state) {
        auto table = std::make_unique<Table>();
        for (const Key& key : keys)
            add(*table, key);
        benchmark::DoNotOptimize(table->size());
        clearAway(state, std::move(table));
    }
}

template <typename Table, typename Key>
void eraseAll(benchmark::State& state) {
    const auto& keys = sharedKeys<Key>().shuffled;
    for (auto _ : state) {
        state.PauseTiming();
        auto table = filled<Table, Key>();
        state.ResumeTiming();
        for (const Key& key : keys)
            table->erase(key);
        benchmark::DoNotOptimize(table->size());
        clearAway(state, std::move(table));
    }
}

template <typename Table, typename Key>
void look(benchmark::State& state, const std::vector<Key>& keys) {
    const auto table = filled<Table, Key>();
    for (auto _ : state) {
        size_t found = 0;
        for (const Key& key : keys)
            found += static_cast<size_t>(table->find(key) != table->end());
        benchmark::DoNotOptimize(found);
    }
}
template <typename Table, typename Key>
void hit(benchmark::State& state) {
    look<Table, Key>(state, sharedKeys<Key>().shuffled);
}
template <typename Table, typename Key>
void miss(benchmark::State& state) {
    look<Table, Key>(state, sharedKeys<Key>().absent);
}

template <typename Table, typename Key>
void iterate(benchmark::State& state) {
    const auto table = filled<Table, Key>();
    for (auto _ : state) {
        size_t count = 0;
        for (const auto& entry : *table) {
            benchmark::DoNotOptimize(&entry);
            ++count;
        }
        benchmark::DoNotOptimize(count);
    }
}

template <typename Table, typename Key>
void registerTable(const std::string& kind, const std::string& table) {
    const auto add = [&](const char* work, void (*function)(benchmark::State&)) {
        benchmark::RegisterBenchmark(("BM_" + (work + kind) + "/" + table).c_str(), function)
            ->Unit(benchmark::kMillisecond);
    };
    add("Insert", insertAll<Table, Key>);
    add("Hit", hit<Table, Key>);
    add("Miss", miss<Table, Key>);
    add("Erase", eraseAll<Table, Key>);
    add("Iterate", iterate<Table, Key>);
}

template <typename OurKey, typename TheirKey>
void registerKind(const std::string& kind) {
    registerTable<zel::HashSet<OurKey>, OurKey>("Set" + kind, "zel_HashSet");
    registerTable<std::unordered_set<TheirKey>, TheirKey>("Set" + kind, "std");
    registerTable<zel::LinearProbingHashTable<OurKey, U64>, OurKey>("Map" + kind, "zel_LinearProbing");
    registerTable<std::unordered_map<TheirKey, U64>, TheirKey>("Map" + kind, "std");
#ifdef ZEL_BENCH_ABSL
    registerTable<absl::flat_hash_set<TheirKey>, TheirKey>("Set" + kind, "absl");
    registerTable<absl::flat_hash_map<TheirKey, U64>, TheirKey>("Map" + kind, "absl");
#endif
}

} // namespace

int main(int argc, char** argv) {
    registerKind<U64, U64>("U64");
    registerKind<zel::String, std::string>("String");
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
