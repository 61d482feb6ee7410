#pragma once

#include "ArchiveFixture.h"

#include <zel/Vec.h>

#include <random>
#include <string>
#include <vector>

namespace fleet {

class Node;

/// A reference, and whether its body is to be put off.
struct Reference {
    Node* target = nullptr;
    bool isDeferred = false;

    void store(zelStream::OutputArchive& archive) const;
    /// The reference has to stay where it is.
    void restore(zelStream::InputArchive& archive);
};

/// Lies within a node, and refers to others.
class Inset : public zelStream::Serializable {
    ZEL_SERIALIZABLE(Inset)
public:
    void store(zelStream::OutputArchive& archive) const override;
    void restore(zelStream::InputArchive& archive) override;

    zel::int32 number = 0;
    Reference owner;
    Reference other;
};

/// One of a graph; holds none of the others.
class Node : public zelStream::Serializable {
    ZEL_SERIALIZABLE(Node)
public:
    void store(zelStream::OutputArchive& archive) const override;
    void restore(zelStream::InputArchive& archive) override;

    zel::int64 value = 0;
    char mark = 0;
    double extreme = 0;
    std::string label;
    zel::Vec3d place;
    zel::Vector<float> samples;
    bool isTransient = false; ///< referred to once, and removed from the archive as soon as it is restored
    std::vector<Reference> links;
    Inset inset;
};

} // namespace fleet

namespace zelTest {

/// Objects that refer to each other at random, and in which order a program stores them.
class Graph {
public:
    explicit Graph(std::mt19937& random);

    /// Also of those that lead nowhere and that nothing leads to.
    [[nodiscard]] const std::vector<zel::ref_ptr<fleet::Node>>& nodes() const { return m_nodes; }
    /// What is stored, one after the other; null among them.
    [[nodiscard]] const std::vector<fleet::Reference>& roots() const { return m_roots; }
    void store(zelStream::OutputArchive& archive) const;

private:
    fleet::Node* pick(std::mt19937& random) const;

    std::vector<zel::ref_ptr<fleet::Node>> m_nodes;
    std::vector<fleet::Reference> m_roots;
};

/// What an archive held.
class RestoredGraph {
public:
    explicit RestoredGraph(const Graph& original) : m_original(original) {}
    void restore(zelStream::InputArchive& archive);

    /// Walks both graphs at once, and says where they differ first; empty if nowhere.
    [[nodiscard]] std::string difference() const;
    [[nodiscard]] const std::vector<fleet::Reference>& roots() const { return m_roots; }

private:
    const Graph& m_original;
    std::vector<fleet::Reference> m_roots;
    std::vector<zel::ref_ptr<zelStream::Serializable>> m_held;
};

/// Tells all that an archive keeps of the nodes that the roots lead to, each with the number under which it
/// was first met, so that equal texts are equal graphs. Numbers of the other kind stand there by their bits.
/// @param roots  of the graph itself, or as they were restored
[[nodiscard]] std::string describe(const std::vector<fleet::Reference>& roots, const Graph& original);

} // namespace zelTest
