// Object archives as XML beside TinyXML with the same document and nothing else.
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelStream/Serializable.h>
#include <zelStream/StorageAgent.h>
#include <zelStream/StorageManager.h>
#include <zelStream/XMLInputArchive.h>
#include <zelStream/XMLOutputArchive.h>

#include <benchmark/benchmark.h>
#include <tinyxml.h>

#include <sstream>
#include <string>

namespace xmlbench {

constexpr std::size_t NumNodes = 100'000;

class Node : public zelStream::Serializable {
    ZEL_SERIALIZABLE(Node)

public:
    void store(zelStream::OutputArchive& archive) const override {
        archive.write(mass);
        archive.write(kind);
        archive.write(name);
        archive.write(parent.get());
    }
    void restore(zelStream::InputArchive& archive) override {
        archive.read(mass);
        archive.read(kind);
        archive.read(name);
        archive.read(parent);
    }

    double mass = 0;
    zel::int32 kind = 0;
    std::string name = "a node";
    zel::ref_ptr<Node> parent;
};

ZEL_REGISTER_SERIALIZABLE(Node)

namespace {

/// Each node shares one of the ten ahead of it.
const zel::Vector<zel::ref_ptr<Node>>& nodes() {
    static const zel::Vector<zel::ref_ptr<Node>> list = [] {
        zel::Vector<zel::ref_ptr<Node>> made;
        for (std::size_t i = 0; i < NumNodes; ++i) {
            made.push_back(new Node);
            made[i]->mass = 0.37 * static_cast<double>(i);
            made[i]->kind = static_cast<zel::int32>(i % 7);
            if (i % 8 != 0)
                made[i]->parent = made[i - 1 - i % 10 % i];
        }
        return made;
    }();
    return list;
}

std::string stored() {
    std::ostringstream stream;
    zelStream::XMLOutputArchive archive;
    archive.open(stream, "bench");
    for (const auto& node : nodes())
        archive.write(node.get());
    archive.close();
    return std::move(stream).str();
}

const std::string& document() {
    static const std::string text = stored();
    return text;
}

void report(benchmark::State& state) {
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * NumNodes));
    state.counters["bytes"] = static_cast<double>(document().size());
}

void storeXml(benchmark::State& state) {
    document();
    for (auto _ : state)
        benchmark::DoNotOptimize(stored());
    report(state);
}

void storeTinyXml(benchmark::State& state) {
    TiXmlDocument parsed;
    parsed.Parse(document().c_str(), nullptr, TIXML_ENCODING_UTF8);
    for (auto _ : state) {
        TiXmlPrinter printer;
        parsed.Accept(&printer);
        std::ostringstream stream;
        stream << printer.Str();
        benchmark::DoNotOptimize(std::move(stream).str());
    }
    report(state);
}

void restoreXml(benchmark::State& state) {
    document();
    for (auto _ : state) {
        std::istringstream stream(document());
        zelStream::XMLInputArchive archive;
        archive.open(stream);
        zel::Vector<zel::ref_ptr<Node>> restored(NumNodes);
        for (auto& node : restored)
            archive.read(node);
        archive.close();
        benchmark::DoNotOptimize(restored.back()->mass);
    }
    report(state);
}

void restoreTinyXml(benchmark::State& state) {
    document();
    for (auto _ : state) {
        TiXmlDocument parsed;
        parsed.Parse(document().c_str(), nullptr, TIXML_ENCODING_UTF8);
        benchmark::DoNotOptimize(parsed.RootElement());
    }
    report(state);
}

BENCHMARK(storeXml)->Unit(benchmark::kMillisecond);
BENCHMARK(storeTinyXml)->Unit(benchmark::kMillisecond);
BENCHMARK(restoreXml)->Unit(benchmark::kMillisecond);
BENCHMARK(restoreTinyXml)->Unit(benchmark::kMillisecond);

} // namespace

} // namespace xmlbench

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    zelCore::init();
    benchmark::RunSpecifiedBenchmarks();
    zelCore::shutdown();
    return 0;
}
