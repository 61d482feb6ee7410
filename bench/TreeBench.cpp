// The object tree: adding, finding by path and removing in a tree with a fan-out of 18, beside nested
// standard maps; loading a model file, beside the bare parse of the same file.
#include <zel/Component.h>
#include <zel/Model.h>
#include <zelCore/zelCore.h>

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <tinyxml.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <list>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr size_t FanOut = 18;

std::string childName(size_t i) {
    return "child" + std::to_string(i % FanOut);
}

struct ZelTree {
    /// Fills level by level until there are n objects.
    explicit ZelTree(size_t n) : root(new zel::Component("top")) {
        std::vector<zel::Name> names;
        for (size_t i = 0; i < FanOut; ++i)
            names.emplace_back(childName(i));
        components.push_back(root.get());
        for (size_t parent = 0; components.size() < n; ++parent)
            for (size_t i = 0; i < FanOut && components.size() < n; ++i) {
                auto* child = new zel::Component(names[i]);
                components[parent]->addObject(child);
                components.push_back(child);
            }
    }
    zel::ref_ptr<zel::Component> root;
    std::vector<zel::Component*> components;
};

struct MapTree {
    struct Node {
        std::map<std::string, std::unique_ptr<Node>> children;
        Node* parent = nullptr;
        std::string name;
    };
    explicit MapTree(size_t n) {
        nodes.push_back(&root);
        for (size_t parent = 0; nodes.size() < n; ++parent)
            for (size_t i = 0; i < FanOut && nodes.size() < n; ++i) {
                auto child = std::make_unique<Node>();
                child->parent = nodes[parent];
                child->name = childName(i);
                nodes.push_back(child.get());
                nodes[parent]->children.emplace(child->name, std::move(child));
            }
    }
    Node root;
    std::vector<Node*> nodes;
};

void perItem(benchmark::State& state, size_t n) {
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n));
}

template <typename Tree>
void addAll(benchmark::State& state) {
    zel::Object::setEnableRebind(false);
    const auto n = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        auto tree = std::make_unique<Tree>(n);
        benchmark::DoNotOptimize(tree);
        state.PauseTiming();
        tree.reset();
        state.ResumeTiming();
    }
    perItem(state, n);
    zel::Object::setEnableRebind(true);
}

std::vector<std::string> pathsOfDepth4() {
    std::vector<std::string> paths;
    for (size_t i = 0; i < 1000; ++i)
        paths.push_back(childName(i) + "." + childName(i / 3) + "." + childName(i / 7) + "." +
                        childName(i % 15));
    return paths;
}

void findZel(benchmark::State& state) {
    zel::Object::setEnableRebind(false);
    const ZelTree tree(static_cast<size_t>(state.range(0)));
    zel::Object::setEnableRebind(true);
    std::vector<zel::Path> paths;
    for (const std::string& path : pathsOfDepth4())
        paths.emplace_back(path);
    for (auto _ : state)
        for (const zel::Path& path : paths)
            benchmark::DoNotOptimize(tree.root->getResource(path));
    perItem(state, paths.size());
}

void findMap(benchmark::State& state) {
    const MapTree tree(static_cast<size_t>(state.range(0)));
    const auto paths = pathsOfDepth4();
    for (auto _ : state)
        for (const std::string& path : paths) {
            const MapTree::Node* node = &tree.root;
            for (size_t begin = 0; node != nullptr && begin <= path.size();) {
                const size_t end = std::min(path.find('.', begin), path.size());
                const auto position = node->children.find(path.substr(begin, end - begin));
                node = position == node->children.end() ? nullptr : position->second.get();
                begin = end + 1;
            }
            benchmark::DoNotOptimize(node);
        }
    perItem(state, paths.size());
}

void removeZel(benchmark::State& state) {
    zel::Object::setEnableRebind(false);
    const auto n = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        ZelTree tree(n);
        state.ResumeTiming();
        for (size_t i = tree.components.size(); i-- > 1;)
            static_cast<zel::Component*>(tree.components[i]->getContext())->removeObject(tree.components[i]);
    }
    perItem(state, n);
    zel::Object::setEnableRebind(true);
}

void removeMap(benchmark::State& state) {
    const auto n = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        MapTree tree(n);
        state.ResumeTiming();
        for (size_t i = tree.nodes.size(); i-- > 1;)
            tree.nodes[i]->parent->children.erase(tree.nodes[i]->name);
    }
    perItem(state, n);
}

// One component with many children, which leave in any order

std::vector<size_t> shuffled(size_t n) {
    std::vector<size_t> order(n);
    std::iota(order.begin(), order.end(), size_t{0});
    std::shuffle(order.begin(), order.end(), std::mt19937(5));
    return order;
}

void removeChildZel(benchmark::State& state) {
    const auto n = static_cast<size_t>(state.range(0));
    const std::vector<size_t> order = shuffled(n);
    for (auto _ : state) {
        state.PauseTiming();
        const zel::ref_ptr<zel::Component> top(new zel::Component("top"));
        std::vector<zel::Object*> children;
        for (size_t i = 0; i < n; ++i) {
            children.push_back(new zel::Object);
            top->addObject(children.back());
        }
        state.ResumeTiming();
        for (const size_t i : order)
            top->removeObject(children[i]);
    }
    perItem(state, n);
}

void removeChildList(benchmark::State& state) {
    const auto n = static_cast<size_t>(state.range(0));
    const std::vector<size_t> order = shuffled(n);
    for (auto _ : state) {
        state.PauseTiming();
        std::list<zel::ref_ptr<zel::Object>> top;
        std::vector<std::list<zel::ref_ptr<zel::Object>>::iterator> children;
        for (size_t i = 0; i < n; ++i)
            children.push_back(top.insert(top.end(), zel::ref_ptr<zel::Object>(new zel::Object)));
        state.ResumeTiming();
        for (const size_t i : order)
            top.erase(children[i]);
    }
    perItem(state, n);
}

/// A model file of 100,000 elements below a directory that looks like a search path, for the whole process.
class ModelFile {
public:
    ModelFile() {
        std::string pattern = (std::filesystem::temp_directory_path() / "zelBench-XXXXXX").string();
        m_directory = mkdtemp(pattern.data());
        std::filesystem::create_directories(m_directory / "Components/zel");
        m_path = (m_directory / "Components/zel/Big.zelComponent").string();
        std::ofstream stream(m_path);
        stream << "<Component name=\"Big\">\n";
        for (size_t i = 0; i < 100000 / FanOut; ++i) {
            stream << "  <Component name=\"group" << i << "\">\n";
            for (size_t j = 1; j < FanOut; ++j)
                stream << "    <Object name=\"object" << j << "\"/>\n";
            stream << "  </Component>\n";
        }
        stream << "</Component>\n";
    }
    ModelFile(const ModelFile&) = delete;
    ModelFile& operator=(const ModelFile&) = delete;
    ~ModelFile() { std::filesystem::remove_all(m_directory); }
    [[nodiscard]] const std::string& path() const { return m_path; }

private:
    std::filesystem::path m_directory;
    std::string m_path;
};

const std::string& modelFile() {
    static const ModelFile file;
    return file.path();
}

void loadZel(benchmark::State& state) {
    // The model is known after the first load; what is measured is the parse and the building of the
    // component.
    const zel::ref_ptr<zel::Component> first(zel::Component::loadFile(modelFile(), nullptr));
    for (auto _ : state) {
        const zel::ref_ptr<zel::Component> component(zel::Component::loadFile(modelFile(), nullptr));
        benchmark::DoNotOptimize(component.get());
    }
    perItem(state, 100000);
}

void loadTinyXml(benchmark::State& state) {
    for (auto _ : state) {
        TiXmlDocument document;
        benchmark::DoNotOptimize(document.LoadFile(modelFile().c_str()));
    }
    perItem(state, 100000);
}

BENCHMARK(addAll<ZelTree>)->Name("BM_TreeAdd/zel")->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(addAll<MapTree>)->Name("BM_TreeAdd/std_map")->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(findZel)->Name("BM_TreeFindDepth4/zel")->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(findMap)->Name("BM_TreeFindDepth4/std_map")->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(removeZel)->Name("BM_TreeRemove/zel")->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(removeMap)->Name("BM_TreeRemove/std_map")->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(removeChildZel)
    ->Name("BM_TreeRemoveChild/zel")
    ->Arg(1000)
    ->Arg(100000)
    ->Arg(1000000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(removeChildList)
    ->Name("BM_TreeRemoveChild/std_list")
    ->Arg(1000)
    ->Arg(100000)
    ->Arg(1000000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(loadZel)->Name("BM_LoadModel/zel")->Unit(benchmark::kMillisecond);
BENCHMARK(loadTinyXml)->Name("BM_LoadModel/TinyXML_parse")->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
    // Freed memory stays with the process: what is measured is the tree, not the kernel's page faults, which
    // would hit the trees that outgrow the heap's spare room and only those.
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
    mallopt(M_MMAP_THRESHOLD, 1 << 30);
    zelCore::init();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    zelCore::shutdown();
    return 0;
}
