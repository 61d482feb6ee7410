#include "ArchiveGraph.h"

#include <zelStream/ClassInformation.h>
#include <zelStream/StorageManager.h>

#include <map>

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
        node->label = std::string(drawBelow(random, 20), static_cast<char>('a' + drawBelow(random, 26)));
        if (drawOneIn(random, 4))
            node->label += " \t<&\"'>\n\\";
        node->place = zel::Vec3d(static_cast<double>(random()) / 7, -1e-300, static_cast<double>(i));
        node->samples.resize(drawBelow(random, 5));
        for (float& sample : node->samples)
            sample = static_cast<float>(random()) / 3;
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

} // namespace zelTest
