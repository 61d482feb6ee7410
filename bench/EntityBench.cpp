// Entity storages beside columns written by hand: std::vector for each attribute, and two tables of ids.

#include <zel/Vec.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/EntityData.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityStorage.h>
#include <zelData/GeneratedEntity.h>
#include <zelData/ScalarAttribute.h>
#include <zelData/Type.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <random>
#include <vector>

namespace {

using zel::uint32;
using zel::uint64;
using Vec3 = zel::Vec3T<double>;
using zelData::EntityPtr;
using zelData::EntityStorage;

constexpr uint64 NumInstances = 1'000'000;
constexpr uint64 NumDestroyed = NumInstances / 2;
constexpr uint64 NumReads = 10'000'000;
constexpr double TimeStep = 1e-3;

// Ours

class ParticleModel;

class ParticleData : public zelData::EntityData {
public:
    explicit ParticleData(EntityStorage* storage);

    zelData::Array<Vec3> position;
    zelData::Array<Vec3> velocity;
};

class ParticleModel : public zelData::EntityModel {
public:
    static ParticleModel* instance() {
        static ParticleModel* const model = [] {
            zelCore::init();
            auto* made = new ParticleModel;
            made->reference(); // until the process ends
            return made;
        }();
        return model;
    }
    zelData::EntityData* createData(EntityStorage* storage) override { return new ParticleData(storage); }

    zelData::Attribute* position = add("position", "Vec3:64bit");
    zelData::Attribute* velocity = add("velocity", "Vec3:64bit");
    zelData::Attribute* mass = add("mass", "Real:64bit");
    zelData::Attribute* flags = add("flags", "UInt:32bit");

private:
    ParticleModel() : EntityModel("Particle") { setBaseEntity(getRootModel()); }

    zelData::Attribute* add(const char* name, const char* format) {
        auto* attribute = new zelData::ScalarAttribute(name, zelData::getFormat(format));
        addAttribute(attribute);
        return attribute;
    }
};

ParticleData::ParticleData(EntityStorage* storage) : EntityData(storage) {
    zelData::bindColumn(this, ParticleModel::instance()->position, position);
    zelData::bindColumn(this, ParticleModel::instance()->velocity, velocity);
}

struct Ours {
    zel::ref_ptr<EntityStorage> storage{new EntityStorage(ParticleModel::instance())};

    void create(uint64 n) { static_cast<void>(storage->createInstances(n)); }
    void createOne() { static_cast<void>(storage->createInstance()); }
    void destroy(const std::vector<uint32>& ids) {
        std::vector<EntityPtr> list(ids.size());
        for (uint64 i = 0; i < ids.size(); ++i)
            list[i] = EntityPtr(storage.get(), ids[i]);
        storage->destroyInstances(list.data(), list.size());
    }
    void destroyOne(uint32 id) { storage->destroyInstance(id); }
    void reorder(const zel::VectorPOD<uint32>& permutation) { storage->reorder(permutation); }
};

// By hand

struct Columns {
    std::vector<Vec3> position, velocity;
    std::vector<double> mass;
    std::vector<uint32> flags;
    std::vector<uint32> indexToId, idToIndex; // ids up to the most instances that there were

    [[nodiscard]] uint64 size() const { return position.size(); }

    void resize(uint64 n) {
        position.resize(n);
        velocity.resize(n);
        mass.resize(n);
        flags.resize(n);
    }
    void create(uint64 n) {
        const uint64 end = size() + n;
        resize(end);
        for (uint64 i = indexToId.size(); i < end; ++i) {
            indexToId.push_back(static_cast<uint32>(i));
            idToIndex.push_back(static_cast<uint32>(i));
        }
    }
    void createOne() {
        position.push_back({});
        velocity.push_back({});
        mass.push_back(0);
        flags.push_back(0);
        if (indexToId.size() < position.size()) {
            indexToId.push_back(static_cast<uint32>(indexToId.size()));
            idToIndex.push_back(static_cast<uint32>(idToIndex.size()));
        }
    }
    void destroyOne(uint32 id) {
        const uint32 index = idToIndex[id];
        const auto last = static_cast<uint32>(size() - 1);
        position[index] = position[last];
        velocity[index] = velocity[last];
        mass[index] = mass[last];
        flags[index] = flags[last];
        std::swap(indexToId[index], indexToId[last]);
        idToIndex[indexToId[index]] = index;
        idToIndex[indexToId[last]] = last;
        position.pop_back();
        velocity.pop_back();
        mass.pop_back();
        flags.pop_back();
    }
    void destroy(const std::vector<uint32>& ids) {
        for (const uint32 id : ids)
            destroyOne(id);
    }
    void reorder(const zel::VectorPOD<uint32>& permutation) {
        gather(position, permutation);
        gather(velocity, permutation);
        gather(mass, permutation);
        gather(flags, permutation);
        gather(indexToId, permutation);
        for (uint64 i = 0; i < size(); ++i)
            idToIndex[indexToId[i]] = static_cast<uint32>(i);
    }
    template <typename T>
    static void gather(std::vector<T>& column, const zel::VectorPOD<uint32>& permutation) {
        std::vector<T> back(column.size());
        for (uint64 i = 0; i < back.size(); ++i)
            back[i] = column[permutation[i]];
        column.swap(back);
    }
};

std::vector<uint32> randomIds(uint64 n) {
    std::vector<uint32> ids(NumInstances);
    std::iota(ids.begin(), ids.end(), 0U);
    std::shuffle(ids.begin(), ids.end(), std::mt19937(1));
    ids.resize(n);
    return ids;
}

// The work

template <typename Side>
void createInstances(benchmark::State& state) {
    for (auto _ : state) {
        Side side;
        side.create(NumInstances);
        benchmark::DoNotOptimize(&side);
    }
}

template <typename Side>
void createOneByOne(benchmark::State& state) {
    for (auto _ : state) {
        Side side;
        for (uint64 i = 0; i < NumInstances; ++i)
            side.createOne();
        benchmark::DoNotOptimize(&side);
    }
}

/// Creation in a storage that has had as many instances before.
template <typename Side, typename Create>
void createWarm(benchmark::State& state, const Create& create) {
    Side side;
    side.create(NumInstances);
    const std::vector<uint32> ids = randomIds(NumDestroyed);
    for (auto _ : state) {
        state.PauseTiming();
        side.destroy(ids);
        state.ResumeTiming();
        create(side);
        benchmark::DoNotOptimize(&side);
    }
}

template <typename Side>
void createOneByOneWarm(benchmark::State& state) {
    createWarm<Side>(state, [](Side& side) {
        for (uint64 i = 0; i < NumDestroyed; ++i)
            side.createOne();
    });
}

template <typename Side>
void createAgain(benchmark::State& state) {
    createWarm<Side>(state, [](Side& side) { side.create(NumDestroyed); });
}

template <typename Side>
void destroyList(benchmark::State& state) {
    Side side;
    side.create(NumInstances);
    const std::vector<uint32> ids = randomIds(NumDestroyed);
    for (auto _ : state) {
        side.destroy(ids);
        state.PauseTiming();
        side.create(NumDestroyed);
        state.ResumeTiming();
    }
}

template <typename Side>
void destroyOneByOne(benchmark::State& state) {
    Side side;
    side.create(NumInstances);
    const std::vector<uint32> ids = randomIds(NumDestroyed);
    for (auto _ : state) {
        for (const uint32 id : ids)
            side.destroyOne(id);
        state.PauseTiming();
        side.create(NumDestroyed);
        state.ResumeTiming();
    }
}

void step(Vec3* __restrict position, const Vec3* __restrict velocity, uint64 n) {
    for (uint64 i = 0; i < n; ++i)
        position[i] += velocity[i] * TimeStep;
}

void stepOurs(benchmark::State& state) {
    Ours ours;
    ours.create(NumInstances);
    auto* data = static_cast<ParticleData*>(ours.storage->getData());
    for (auto _ : state) {
        step(data->position.data(), data->velocity.data(), data->position.size());
        benchmark::ClobberMemory();
    }
}

void stepColumns(benchmark::State& state) {
    Columns columns;
    columns.create(NumInstances);
    for (auto _ : state) {
        step(columns.position.data(), columns.velocity.data(), columns.size());
        benchmark::ClobberMemory();
    }
}

/// As many bytes as the loop touches: two columns read, one written.
void copyMemory(benchmark::State& state) {
    std::vector<char> source(NumInstances * sizeof(Vec3) * 3 / 2, 1);
    std::vector<char> target(source.size());
    for (auto _ : state) {
        std::memcpy(target.data(), source.data(), source.size());
        benchmark::ClobberMemory();
    }
}

std::vector<uint32> randomReads() {
    std::vector<uint32> reads(NumReads);
    std::mt19937 random(2);
    for (uint32& read : reads)
        read = static_cast<uint32>(random() % NumInstances);
    return reads;
}

void readOurs(benchmark::State& state) {
    Ours ours;
    ours.create(NumInstances);
    std::vector<EntityPtr> handles;
    for (const uint32 id : randomReads())
        handles.emplace_back(ours.storage.get(), id);
    const zelData::Attribute* mass = ParticleModel::instance()->mass;
    for (auto _ : state) {
        double sum = 0;
        for (const EntityPtr& handle : handles)
            sum += zelData::getElement<double>(handle, mass);
        benchmark::DoNotOptimize(sum);
    }
}

void readColumns(benchmark::State& state) {
    Columns columns;
    columns.create(NumInstances);
    // A handle is a pointer and an id for both, so that both stream over the same bytes.
    struct Handle {
        Columns* columns;
        uint32 id;
    };
    std::vector<Handle> handles;
    for (const uint32 id : randomReads())
        handles.push_back({&columns, id});
    for (auto _ : state) {
        double sum = 0;
        for (const Handle& handle : handles)
            sum += handle.columns->mass[handle.columns->idToIndex[handle.id]];
        benchmark::DoNotOptimize(sum);
    }
}

template <typename Side>
void reorder(benchmark::State& state, const zel::VectorPOD<uint32>& permutation) {
    Side side;
    side.create(NumInstances);
    for (auto _ : state) {
        side.reorder(permutation);
        benchmark::ClobberMemory();
    }
}

template <typename Side>
void reorderAtRandom(benchmark::State& state) {
    zel::VectorPOD<uint32> permutation;
    for (const uint32 id : randomIds(NumInstances))
        permutation.push_back(id);
    reorder<Side>(state, permutation);
}

template <typename Side>
void reorderNearlySorted(benchmark::State& state) {
    zel::VectorPOD<uint32> permutation(NumInstances);
    std::iota(permutation.begin(), permutation.end(), 0U);
    std::mt19937 random(3);
    for (uint64 i = 0; i < NumInstances / 100; ++i) {
        const uint64 at = random() % (NumInstances - 16);
        std::swap(permutation[at], permutation[at + random() % 16]);
    }
    reorder<Side>(state, permutation);
}

#define ENTITY_BENCH(Work, function)                                                                         \
    BENCHMARK_TEMPLATE(function, Ours)->Name("BM_" Work "/zel")->Unit(benchmark::kMillisecond);              \
    BENCHMARK_TEMPLATE(function, Columns)->Name("BM_" Work "/columns")->Unit(benchmark::kMillisecond)

ENTITY_BENCH("EntityCreate", createInstances);
ENTITY_BENCH("EntityCreateOneByOne", createOneByOne);
ENTITY_BENCH("EntityCreateOneByOneWarm", createOneByOneWarm);
ENTITY_BENCH("EntityCreateAgain", createAgain);
ENTITY_BENCH("EntityDestroyList", destroyList);
ENTITY_BENCH("EntityDestroyOneByOne", destroyOneByOne);
BENCHMARK(stepOurs)->Name("BM_EntityStep/zel")->Unit(benchmark::kMillisecond);
BENCHMARK(stepColumns)->Name("BM_EntityStep/columns")->Unit(benchmark::kMillisecond);
BENCHMARK(copyMemory)->Name("BM_EntityStep/memcpy")->Unit(benchmark::kMillisecond);
BENCHMARK(readOurs)->Name("BM_EntityRandomRead/zel")->Unit(benchmark::kMillisecond);
BENCHMARK(readColumns)->Name("BM_EntityRandomRead/columns")->Unit(benchmark::kMillisecond);
ENTITY_BENCH("EntityReorderRandom", reorderAtRandom);
ENTITY_BENCH("EntityReorderNearlySorted", reorderNearlySorted);

} // namespace

BENCHMARK_MAIN();
