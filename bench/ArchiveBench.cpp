// Object archives in memory: a graph of a million small objects with shared references, beside two libraries
// and a table of pointers by hand, and large vectors beside the copy of their bytes.
#include <zel/Random.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelStream/InputArchive.h>
#include <zelStream/OutputArchive.h>
#include <zelStream/Serializable.h>
#include <zelStream/StorageAgent.h>
#include <zelStream/StorageManager.h>

#include <benchmark/benchmark.h>

#ifdef ZEL_BENCH_CEREAL
#include <cereal/archives/binary.hpp>
#include <cereal/types/memory.hpp>
#include <cereal/types/polymorphic.hpp>
#include <cereal/types/vector.hpp>
#endif
#ifdef ZEL_BENCH_BOOST
#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/serialization/export.hpp>
#include <boost/serialization/shared_ptr.hpp>
#include <boost/serialization/vector.hpp>
#endif

#include <malloc.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

namespace archivebench {

constexpr std::size_t NumNodes = 1'000'000;
constexpr std::size_t NumReals = 10'000'000;

void require(bool good) {
    if (!good)
        std::abort();
}

/// A stream over memory that is there already, so that the two sides see the same pages.
class MemoryBuffer : public std::streambuf {
public:
    explicit MemoryBuffer(std::vector<char>& memory) { setp(memory.data(), memory.data() + memory.size()); }
    [[nodiscard]] std::size_t size() const { return static_cast<std::size_t>(pptr() - pbase()); }
};

std::vector<char>& memory() {
    static std::vector<char> bytes(NumNodes * 128);
    return bytes;
}

/// The parent of each node: one of the 10,000 ahead of it, or none.
const std::vector<std::int64_t>& parents() {
    static const std::vector<std::int64_t> list = [] {
        std::mt19937_64 random(7);
        std::vector<std::int64_t> parent(NumNodes, -1);
        for (std::size_t i = 1; i < NumNodes; ++i)
            parent[i] = random() % 8 == 0
                            ? -1
                            : static_cast<std::int64_t>(i - 1 - random() % std::min<std::size_t>(i, 10'000));
        return parent;
    }();
    return list;
}

double massOf(std::size_t i) {
    return 0.5 * static_cast<double>(i);
}

class Node : public zelStream::Serializable {
    ZEL_SERIALIZABLE(Node)

public:
    void store(zelStream::OutputArchive& archive) const override {
        archive.write(mass);
        archive.write(kind);
        archive.write(parent.get());
    }
    void restore(zelStream::InputArchive& archive) override {
        archive.read(mass);
        archive.read(kind);
        archive.read(parent);
    }

    double mass = 0;
    zel::int32 kind = 0;
    zel::ref_ptr<Node> parent;
};

/// The same as objects of the other libraries, which know its class by its name as ours do.
struct PlainObject {
    PlainObject() = default;
    PlainObject(const PlainObject&) = delete;
    PlainObject& operator=(const PlainObject&) = delete;
    virtual ~PlainObject() = default;
    [[nodiscard]] virtual double getMass() const = 0;
};

struct PlainNode : PlainObject {
    template <typename Archive>
    void serialize(Archive& archive) {
        archive(mass, kind, parent);
    }

    [[nodiscard]] double getMass() const override { return mass; }

    double mass = 0;
    std::int32_t kind = 0;
    std::shared_ptr<PlainObject> parent;
};

double massOf(const zel::ref_ptr<Node>& node) {
    return node->mass;
}
double massOf(const std::shared_ptr<PlainObject>& node) {
    return node->getMass();
}
const auto& parentOf(const zel::ref_ptr<Node>& node) {
    return node->parent;
}
const auto& parentOf(const std::shared_ptr<PlainObject>& node) {
    return dynamic_cast<const PlainNode&>(*node).parent;
}

} // namespace archivebench

#ifdef ZEL_BENCH_CEREAL
CEREAL_REGISTER_TYPE(archivebench::PlainNode)
CEREAL_REGISTER_POLYMORPHIC_RELATION(archivebench::PlainObject, archivebench::PlainNode)
#endif
#ifdef ZEL_BENCH_BOOST
namespace boost::serialization {
// Here, so that the other library does not find them.
template <typename Archive>
void serialize(Archive&, archivebench::PlainObject&, unsigned) {}
template <typename Archive>
void serialize(Archive& archive, archivebench::PlainNode& node, unsigned) {
    void_cast_register<archivebench::PlainNode, archivebench::PlainObject>();
    archive& node.mass& node.kind& node.parent;
}
} // namespace boost::serialization
BOOST_CLASS_EXPORT(archivebench::PlainNode)
#endif

namespace archivebench {

const std::vector<zel::ref_ptr<Node>>& nodes() {
    static const std::vector<zel::ref_ptr<Node>> list = [] {
        std::vector<zel::ref_ptr<Node>> made;
        for (std::size_t i = 0; i < NumNodes; ++i) {
            made.emplace_back(new Node);
            made[i]->mass = massOf(i);
            made[i]->kind = static_cast<zel::int32>(i % 5);
            if (parents()[i] >= 0)
                made[i]->parent = made[static_cast<std::size_t>(parents()[i])];
        }
        return made;
    }();
    return list;
}

const std::vector<std::shared_ptr<PlainObject>>& plainNodes() {
    static const std::vector<std::shared_ptr<PlainObject>> list = [] {
        std::vector<std::shared_ptr<PlainObject>> made;
        for (std::size_t i = 0; i < NumNodes; ++i) {
            const auto node = std::make_shared<PlainNode>();
            node->mass = massOf(i);
            node->kind = static_cast<std::int32_t>(i % 5);
            if (parents()[i] >= 0)
                node->parent = made[static_cast<std::size_t>(parents()[i])];
            made.push_back(node);
        }
        return made;
    }();
    return list;
}

template <typename List>
void verify(const List& restored) {
    require(restored.size() == NumNodes);
    for (std::size_t i = 0; i < NumNodes; i += 997) {
        require(massOf(restored[i]) == massOf(i));
        require(parents()[i] < 0 ? parentOf(restored[i]) == nullptr
                                 : parentOf(restored[i]) == restored[static_cast<std::size_t>(parents()[i])]);
    }
}

void count(benchmark::State& state, std::size_t numBytes) {
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(NumNodes));
    state.counters["bytes per object"] = static_cast<double>(numBytes) / static_cast<double>(NumNodes);
}

/// Stores again and again in memory that is there.
/// @param store  takes the stream
template <typename Store>
void storeGraph(benchmark::State& state, const Store& store) {
    std::size_t numBytes = 0;
    for (auto _ : state) {
        MemoryBuffer buffer(memory());
        std::ostream stream(&buffer);
        store(stream);
        numBytes = buffer.size();
    }
    count(state, numBytes);
}

/// Restores again and again what was stored.
/// @param restore  takes the stream and fills the list
template <typename List, typename Store, typename Restore>
void restoreGraph(benchmark::State& state, const Store& store, const Restore& restore) {
    std::ostringstream stored;
    store(stored);
    std::istringstream stream(stored.str());
    for (auto _ : state) {
        stream.seekg(0);
        List restored;
        restore(stream, restored);
        state.PauseTiming();
        verify(restored);
        restored.clear();
        malloc_trim(0); // each run begins with fresh memory, as one that starts with restoring does
        state.ResumeTiming();
    }
    count(state, stored.str().size());
}

using Nodes = std::vector<zel::ref_ptr<Node>>;
using PlainNodes = std::vector<std::shared_ptr<PlainObject>>;

void store(std::ostream& stream) {
    zelStream::OutputArchive archive;
    archive.open(stream);
    archive.write(zel::uint64{NumNodes});
    for (const zel::ref_ptr<Node>& node : nodes())
        archive.write(node.get());
    archive.close();
}

void restore(std::istream& stream, Nodes& restored) {
    zelStream::InputArchive archive;
    archive.open(stream);
    zel::uint64 size = 0;
    archive.read(size);
    restored.resize(size);
    for (zel::ref_ptr<Node>& node : restored)
        archive.read(node);
}

void StoreGraph(benchmark::State& state) {
    (void)nodes();
    storeGraph(state, store);
}
BENCHMARK(StoreGraph)->Name("BM_ArchiveStoreGraph/zel")->Unit(benchmark::kMillisecond);

void RestoreGraph(benchmark::State& state) {
    restoreGraph<Nodes>(state, store, restore);
}
BENCHMARK(RestoreGraph)->Name("BM_ArchiveRestoreGraph/zel")->Unit(benchmark::kMillisecond);

#ifdef ZEL_BENCH_CEREAL
void storeCereal(std::ostream& stream) {
    cereal::BinaryOutputArchive archive(stream);
    archive(plainNodes());
}

void restoreCereal(std::istream& stream, PlainNodes& restored) {
    cereal::BinaryInputArchive archive(stream);
    archive(restored);
}

void StoreGraphCereal(benchmark::State& state) {
    (void)plainNodes();
    storeGraph(state, storeCereal);
}
BENCHMARK(StoreGraphCereal)->Name("BM_ArchiveStoreGraph/cereal")->Unit(benchmark::kMillisecond);

void RestoreGraphCereal(benchmark::State& state) {
    restoreGraph<PlainNodes>(state, storeCereal, restoreCereal);
}
BENCHMARK(RestoreGraphCereal)->Name("BM_ArchiveRestoreGraph/cereal")->Unit(benchmark::kMillisecond);
#endif

#ifdef ZEL_BENCH_BOOST
void storeBoost(std::ostream& stream) {
    boost::archive::binary_oarchive archive(stream);
    archive << plainNodes();
}

void restoreBoost(std::istream& stream, PlainNodes& restored) {
    boost::archive::binary_iarchive archive(stream);
    archive >> restored;
}

void StoreGraphBoost(benchmark::State& state) {
    (void)plainNodes();
    storeGraph(state, storeBoost);
}
BENCHMARK(StoreGraphBoost)->Name("BM_ArchiveStoreGraph/boost")->Unit(benchmark::kMillisecond);

void RestoreGraphBoost(benchmark::State& state) {
    restoreGraph<PlainNodes>(state, storeBoost, restoreBoost);
}
BENCHMARK(RestoreGraphBoost)->Name("BM_ArchiveRestoreGraph/boost")->Unit(benchmark::kMillisecond);
#endif

void storeByHand(std::ostream& stream) {
    std::unordered_map<const PlainObject*, std::uint32_t> ids;
    const auto put = [&stream](const auto& value) {
        stream.rdbuf()->sputn(reinterpret_cast<const char*>(&value), sizeof(value));
    };
    for (const std::shared_ptr<PlainObject>& object : plainNodes()) {
        const auto* const node = static_cast<const PlainNode*>(object.get());
        ids.emplace(object.get(), static_cast<std::uint32_t>(ids.size() + 1));
        put(node->mass);
        put(node->kind);
        put(node->parent == nullptr ? std::uint32_t{0} : ids.at(node->parent.get()));
    }
}

void restoreByHand(std::istream& stream, PlainNodes& restored) {
    const auto take = [&stream](auto& value) {
        stream.rdbuf()->sgetn(reinterpret_cast<char*>(&value), sizeof(value));
    };
    restored.resize(NumNodes);
    for (std::shared_ptr<PlainObject>& object : restored) {
        const auto node = std::make_shared<PlainNode>();
        object = node;
        std::uint32_t parent = 0;
        take(node->mass);
        take(node->kind);
        take(parent);
        if (parent != 0)
            node->parent = restored[parent - 1];
    }
}

void StoreGraphByHand(benchmark::State& state) {
    (void)plainNodes();
    storeGraph(state, storeByHand);
}
BENCHMARK(StoreGraphByHand)->Name("BM_ArchiveStoreGraph/by_hand")->Unit(benchmark::kMillisecond);

void RestoreGraphByHand(benchmark::State& state) {
    restoreGraph<PlainNodes>(state, storeByHand, restoreByHand);
}
BENCHMARK(RestoreGraphByHand)->Name("BM_ArchiveRestoreGraph/by_hand")->Unit(benchmark::kMillisecond);

const std::vector<double>& reals() {
    static const std::vector<double> list(NumReals, 0.25);
    return list;
}

void StoreVector(benchmark::State& state) {
    for (auto _ : state) {
        MemoryBuffer buffer(memory());
        std::ostream stream(&buffer);
        zelStream::OutputArchive archive;
        archive.open(stream);
        archive.write(reals());
        archive.close();
        require(stream.good());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(NumReals * sizeof(double)));
}
BENCHMARK(StoreVector)->Name("BM_ArchiveStoreVector/zel")->Unit(benchmark::kMillisecond);

void StoreVectorMemcpy(benchmark::State& state) {
    for (auto _ : state) {
        std::memcpy(memory().data(), reals().data(), NumReals * sizeof(double));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(NumReals * sizeof(double)));
}
BENCHMARK(StoreVectorMemcpy)->Name("BM_ArchiveStoreVector/memcpy")->Unit(benchmark::kMillisecond);

/// An archive of the reals, and nothing behind them.
std::string storedReals() {
    std::ostringstream stored;
    zelStream::OutputArchive output;
    output.open(stored);
    output.write(reals());
    output.close();
    return stored.str();
}

/// @param read  reads the reals from the stream, which stands at its begin
template <typename Read>
void restoreVector(benchmark::State& state, const Read& read) {
    std::istringstream stream(storedReals());
    std::vector<double> restored(NumReals);
    for (auto _ : state) {
        stream.seekg(0);
        read(stream, restored);
    }
    require(restored == reals());
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(NumReals * sizeof(double)));
}

void RestoreVector(benchmark::State& state) {
    restoreVector(state, [](std::istream& stream, std::vector<double>& restored) {
        zelStream::InputArchive archive;
        archive.open(stream);
        archive.read(restored);
        archive.close();
    });
}
BENCHMARK(RestoreVector)->Name("BM_ArchiveRestoreVector/zel")->Unit(benchmark::kMillisecond);

/// The same bytes from the same place.
void RestoreVectorMemcpy(benchmark::State& state) {
    const auto numBytes = static_cast<std::streamoff>(NumReals * sizeof(double));
    restoreVector(state, [numBytes](std::istream& stream, std::vector<double>& restored) {
        stream.seekg(-numBytes, std::ios::end);
        stream.read(reinterpret_cast<char*>(restored.data()), numBytes);
    });
}
BENCHMARK(RestoreVectorMemcpy)->Name("BM_ArchiveRestoreVector/memcpy")->Unit(benchmark::kMillisecond);

ZEL_REGISTER_SERIALIZABLE(Node)

} // namespace archivebench

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    zelCore::init();
    benchmark::RunSpecifiedBenchmarks();
    zelCore::shutdown();
    return 0;
}
