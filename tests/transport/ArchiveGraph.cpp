#include "ArchiveGraph.h"

#include <zelStream/ClassInformation.h>
#include <zelStream/StorageManager.h>

#include <bit>
#include <cmath>
#include <iterator>
#include <limits>
#include <map>
#include <sstream>

namespace fleet {

ZEL_REGISTER_SERIALIZABLE(Inset)
ZEL_REGISTER_SERIALIZABLE(Node)

void Reference::store(zelStream::OutputArchive& archive) const {
    archive.write(isDeferred);
    if (isDeferred)
        archive.writeDeferred(target);
    else
        archive.write(target);
}

void Reference::restore(zelStream::InputArchive& archive) {
    archive.read(isDeferred);
    if (isDeferred)
        archive.readDeferred(target);
    else
        archive.read(target);
}

void Inset::store(zelStream::OutputArchive& archive) const {
    owner.store(archive);
    archive.write(number);
    other.store(archive);
}

void Inset::restore(zelStream::InputArchive& archive) {
    owner.restore(archive);
    archive.read(number);
    other.restore(archive);
}

void Node::store(zelStream::OutputArchive& archive) const {
    archive.addAttribute("value", value);
    archive.addAttribute("mark", mark);
    archive.addAttribute("label", label);
    archive.write(mark);
    archive.write(extreme);
    archive.write(label);
    archive.write(place);
    archive.write(isTransient);
    archive.write(static_cast<zel::uint32>(links.size()));
    for (const Reference& link : links)
        link.store(archive);
    archive.write(inset);
    archive.write(samples);
}

void Node::restore(zelStream::InputArchive& archive) {
    archive.getAttribute("value", value);
    archive.getAttribute("mark", mark);
    archive.getAttribute("label", label);
    archive.read(mark);
    archive.read(extreme);
    archive.read(label);
    archive.read(place);
    archive.read(isTransient);
    zel::uint32 numLinks = 0;
    archive.read(numLinks);
    links.resize(numLinks); // they stay where they are
    for (Reference& link : links)
        link.restore(archive);
    archive.read(inset);
    archive.read(samples);
}

} // namespace fleet

namespace zelTest {

using fleet::Inset;
using fleet::Node;
using fleet::Reference;

namespace {

std::size_t drawBelow(std::mt19937& random, std::size_t n) {
    return std::uniform_int_distribution<std::size_t>(0, n - 1)(random);
}

bool drawOneIn(std::mt19937& random, std::size_t n) {
    return drawBelow(random, n) == 0;
}

/// A real at the limits, or any bits but those of what is no number, which equals nothing.
double drawExtreme(std::mt19937& random) {
    using Limits = std::numeric_limits<double>;
    constexpr double Extremes[] = {
        0, -0.0, Limits::denorm_min(), Limits::min(), Limits::max(), Limits::lowest(), Limits::infinity()};
    if (drawOneIn(random, 2))
        return Extremes[drawBelow(random, std::size(Extremes))];
    double drawn = 0;
    do
        drawn = std::bit_cast<double>(zel::uint64{random()} << 32U | random());
    while (std::isnan(drawn));
    return drawn;
}

std::string drawLabel(std::mt19937& random) {
    constexpr const char* Pieces[] = {
        "a",    " ",        "  ",       "\t",           "\r\n",         "\\",          "\\e",
        "<&>",  "\"'",      "]]>",      "&#x41;",       "<![CDATA[",    "-->",         "\x7f",
        "\xff", "\xc2\x85", "\xc3\xa4", "\xed\xa0\x80", "\xef\xbb\xbf", "\xef\xbf\xbf"};
    std::string label;
    for (std::size_t n = drawBelow(random, 10); n > 0; --n)
        if (drawOneIn(random, 3))
            label += static_cast<char>(random());
        else
            label += Pieces[drawBelow(random, std::size(Pieces))];
    return label;
}

/// Walks two graphs at once.
class Comparison {
public:
    /// @return what differs; empty if nothing does
    std::string run(const std::vector<Reference>& roots, const std::vector<Reference>& others) {
        if (roots.size() != others.size())
            return "the number of roots";
        for (std::size_t i = 0; i < roots.size(); ++i)
            meet(roots[i], others[i], "root");
        while (!m_open.empty() && m_difference.empty()) {
            const auto [node, other] = m_open.back();
            m_open.pop_back();
            compare(*node, *other);
        }
        return m_difference;
    }

private:
    void expect(bool isEqual, const Node& node, const std::string& what) {
        if (!isEqual && m_difference.empty())
            m_difference = what + " of node " + std::to_string(node.value);
    }
    void meet(const Reference& reference, const Reference& other, const std::string& what) {
        const bool isStored = reference.target != nullptr && reference.target->isSerializationEnabled();
        if (isStored != (other.target != nullptr) || reference.isDeferred != other.isDeferred) {
            m_difference = what;
            return;
        }
        if (!isStored)
            return;
        const auto [there, isNew] = m_others.try_emplace(reference.target, other.target);
        const auto [back, isNewBack] = m_nodes.try_emplace(other.target, reference.target);
        if (there->second != other.target || back->second != reference.target)
            m_difference = what + " leads to another node";
        else if (isNew)
            m_open.emplace_back(reference.target, other.target);
    }
    void compare(const Node& node, const Node& other) {
        expect(node.value == other.value, node, "value");
        expect(node.mark == other.mark, node, "mark");
        expect(node.extreme == other.extreme, node, "extreme");
        expect(node.label == other.label, node, "label");
        expect(node.place == other.place, node, "place");
        expect(
            std::equal(node.samples.begin(), node.samples.end(), other.samples.begin(), other.samples.end()),
            node,
            "samples");
        expect(node.getUuid() == other.getUuid(), node, "uuid");
        expect(other.isFinished() && other.isDynamicallyAllocated(), node, "flags");
        expect(node.links.size() == other.links.size(), node, "number of links");
        if (!m_difference.empty())
            return;
        for (std::size_t i = 0; i < node.links.size(); ++i)
            meet(node.links[i], other.links[i], "link of node " + std::to_string(node.value));
        if (!node.inset.isSerializationEnabled()) {
            expect(other.inset.number == 0 && other.inset.owner.target == nullptr &&
                       other.inset.other.target == nullptr,
                   node,
                   "inset that was off");
            return;
        }
        expect(node.inset.number == other.inset.number, node, "number of the inset");
        expect(node.inset.getUuid() == other.inset.getUuid(), node, "uuid of the inset");
        meet(node.inset.owner, other.inset.owner, "owner of the inset of node " + std::to_string(node.value));
        meet(node.inset.other, other.inset.other, "other of the inset of node " + std::to_string(node.value));
    }

    std::map<const Node*, const Node*> m_others; ///< of each node of the first graph
    std::map<const Node*, const Node*> m_nodes;  ///< of each of the second
    std::vector<std::pair<const Node*, const Node*>> m_open;
    std::string m_difference;
};

} // namespace

Graph::Graph(std::mt19937& random) : m_nodes(1 + drawBelow(random, drawOneIn(random, 10) ? 200 : 30)) {
    for (std::size_t i = 0; i < m_nodes.size(); ++i) {
        Node* const node = new Node;
        m_nodes[i] = node;
        node->value = static_cast<zel::int64>(i);
        node->mark = static_cast<char>(random());
        node->extreme = drawExtreme(random);
        node->label = drawLabel(random);
        node->place =
            zel::Vec3d(static_cast<double>(random()) / 7, drawExtreme(random), static_cast<double>(i));
        node->samples.resize(drawBelow(random, 5));
        for (float& sample : node->samples)
            sample = drawOneIn(random, 4)
                         ? std::bit_cast<float>(1U + static_cast<zel::uint32>(drawBelow(random, 9)))
                         : static_cast<float>(random()) / 3;
        node->setEnableSerialization(!drawOneIn(random, 12));
        node->inset.setEnableSerialization(!drawOneIn(random, 5));
    }
    const auto refer = [&](Reference& reference) {
        reference.isDeferred = drawOneIn(random, 2);
        reference.target = drawOneIn(random, 8) ? nullptr : pick(random);
    };
    for (const auto& node : m_nodes) {
        node->links.resize(drawBelow(random, 5));
        for (Reference& link : node->links)
            refer(link);
        node->inset.number = static_cast<zel::int32>(random());
        refer(node->inset.other);
        node->inset.owner.isDeferred = drawOneIn(random, 2);
        node->inset.owner.target = drawOneIn(random, 3) ? nullptr : node.get();
    }
    // Some that one place alone refers to, and that archives give away at once.
    for (std::size_t i = drawBelow(random, 4); i > 0; --i) {
        const zel::ref_ptr<Node> node(new Node);
        node->value = static_cast<zel::int64>(m_nodes.size());
        node->isTransient = true;
        node->links.resize(drawBelow(random, 3));
        for (Reference& link : node->links)
            refer(link);
        pick(random)->links.push_back({node.get(), drawOneIn(random, 2)});
        m_nodes.push_back(node);
    }
    m_roots.resize(1 + drawBelow(random, 4));
    for (Reference& root : m_roots)
        refer(root);
}

Node* Graph::pick(std::mt19937& random) const {
    Node* node = nullptr;
    do
        node = m_nodes[drawBelow(random, m_nodes.size())].get();
    while (node->isTransient);
    return node;
}

void Graph::store(zelStream::OutputArchive& archive) const {
    for (const Reference& root : m_roots)
        root.store(archive);
}

void RestoredGraph::restore(zelStream::InputArchive& archive) {
    const zel::ref_ptr<Listening> listener(
        new Listening([this](zelStream::Serializable* object, zelStream::InputArchive& from) {
            auto* const node = dynamic_cast<Node*>(object);
            if (node == nullptr)
                return;
            m_held.emplace_back(node);
            if (node->isTransient)
                from.removeObject(node);
        }));
    archive.addRestoreListener(listener.get());
    m_roots.resize(m_original.roots().size());
    for (Reference& root : m_roots)
        root.restore(archive);
}

std::string RestoredGraph::difference() const {
    return Comparison().run(m_original.roots(), m_roots);
}

namespace {

/// Writes the description of a graph, node by node as they are met.
class Description {
public:
    explicit Description(const Graph& original) : m_original(original) {}
    std::string run(const std::vector<Reference>& roots) {
        for (const Reference& root : roots)
            refer(root);
        for (std::size_t i = 0; i < m_nodes.size(); ++i) // which grow meanwhile
            tell(*m_nodes[i]);
        return m_text.str();
    }

private:
    void refer(const Reference& reference) {
        m_text << (reference.isDeferred ? " later:" : " now:");
        const Node* const node = reference.target;
        if (node == nullptr || !originalOf(*node).isSerializationEnabled()) {
            m_text << "null";
            return;
        }
        const auto [number, isNew] = m_numbers.try_emplace(node, m_nodes.size());
        if (isNew)
            m_nodes.push_back(node);
        m_text << number->second;
    }
    void tell(const Node& node) {
        m_text << "\nvalue " << node.value << " mark " << static_cast<int>(node.mark) << " extreme "
               << std::bit_cast<zel::uint64>(node.extreme) << " place";
        for (std::size_t i = 0; i < 3; ++i)
            m_text << ' ' << std::bit_cast<zel::uint64>(node.place[i]);
        m_text << " label";
        for (const char c : node.label)
            m_text << ' ' << static_cast<int>(c);
        m_text << " samples";
        for (const float sample : node.samples)
            m_text << ' ' << std::bit_cast<zel::uint32>(sample);
        m_text << " transient " << node.isTransient << " uuid " << node.getUuid().str() << " links";
        for (const Reference& link : node.links)
            refer(link);
        if (!originalOf(node).inset.isSerializationEnabled())
            return;
        m_text << " inset " << node.inset.number << " uuid " << node.inset.getUuid().str();
        refer(node.inset.owner);
        refer(node.inset.other);
    }
    const Node& originalOf(const Node& node) const {
        return *m_original.nodes().at(static_cast<std::size_t>(node.value));
    }

    const Graph& m_original;
    std::map<const Node*, std::size_t> m_numbers;
    std::vector<const Node*> m_nodes;
    std::ostringstream m_text;
};

} // namespace

std::string describe(const std::vector<Reference>& roots, const Graph& original) {
    return Description(original).run(roots);
}

} // namespace zelTest
