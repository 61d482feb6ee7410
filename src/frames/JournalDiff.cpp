#include "data/Ascii.h"

#include <zelData/JournalDiff.h>
#include <zelData/PlainElements.h>
#include <zelData/PlainJournal.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <stdexcept>
#include <string>

namespace zelData {

using zel::uint64;
using PlainNode = PlainFrame::Node;

namespace {

using NodeType = PlainFrame::Type;
using NodesByPath = std::map<zel::String, const PlainNode*>;

/// All nodes that hold something; of those of one path the first.
/// @param path      of the node, which this is after the call again
/// @param maxBytes  that the paths may take, and which become less
// NOLINTNEXTLINE(misc-no-recursion): MaxDepth bounds it
void gather(const PlainNode& node, zel::String& path, uint64& maxBytes, NodesByPath& nodes) {
    const zel::size_t length = path.size();
    for (const PlainNode& child : node.children) {
        path.resize(length);
        path.append(length == 0 ? "" : ".").append(child.name.c_str());
        if (path.size() > maxBytes)
            throw std::runtime_error("the paths of its nodes are longer than those of such a file can be");
        maxBytes -= path.size();
        if (child.type != NodeType::ComponentType)
            nodes.emplace(path, &child);
        if (child.type == NodeType::ComponentType || child.type == NodeType::EntityStorageType)
            gather(child, path, maxBytes, nodes);
    }
    path.resize(length);
}

/// A name stands once in a file, and may stand at each depth of each path.
NodesByPath gather(const PlainFrame& frame, uint64 maxBytes) {
    NodesByPath nodes;
    zel::String path;
    try {
        gather(frame.getRoot(), path, maxBytes, nodes);
    } catch (const std::runtime_error& error) {
        throw std::runtime_error("frame " + std::to_string(frame.getRecord().index) + ": " + error.what());
    }
    return nodes;
}

/// A node but for its elements.
zel::String describe(const PlainNode& node) {
    switch (node.type) {
    case NodeType::ValueType:
        return "a value of " + node.format.str();
    case NodeType::EntityStorageType:
        return "a storage of " + std::to_string(node.numElements) + " " + node.format.str();
    case NodeType::PartialBufferType:
        return "a partial buffer of " + node.format.str();
    default:
        return std::to_string(node.numElements) + " elements of " + node.format.str();
    }
}

class Comparison {
public:
    /// @param maxBytes  that the paths of a frame may take
    Comparison(JournalDifference& difference, double tolerance, uint64 maxBytes)
        : m_difference(difference), m_tolerance(tolerance), m_maxBytes(maxBytes) {}

    /// @return whether there is no difference
    bool areEqual(const PlainFrame& first, const PlainFrame& second) {
        const auto& a = first.getRecord();
        const auto& b = second.getRecord();
        m_difference.frame = a.index;
        const bool isSame =
            a.timeStamp == b.timeStamp || (std::isnan(a.timeStamp) && std::isnan(b.timeStamp));
        if (!isSame && !(std::abs(a.timeStamp - b.timeStamp) <= m_tolerance))
            return tell({}, "time " + text(a.timeStamp), "time " + text(b.timeStamp));
        const NodesByPath firstNodes = gather(first, m_maxBytes);
        const NodesByPath secondNodes = gather(second, m_maxBytes);
        auto i = firstNodes.begin();
        auto k = secondNodes.begin();
        while (i != firstNodes.end() || k != secondNodes.end()) {
            if (k == secondNodes.end() || (i != firstNodes.end() && i->first < k->first))
                return tell(i->first, describe(*i->second), "nothing");
            if (i == firstNodes.end() || k->first < i->first)
                return tell(k->first, "nothing", describe(*k->second));
            if (!areEqual(i->first, *i->second, *k->second))
                return false;
            ++i;
            ++k;
        }
        return true;
    }
    bool tell(const zel::String& path, const zel::String& first, const zel::String& second) {
        m_difference.isDifferent = true;
        m_difference.path = path;
        m_difference.first = first;
        m_difference.second = second;
        return false;
    }

private:
    static std::string text(double number) { return AsciiText().exact(number).str(); }

    bool areEqual(const zel::String& path, const PlainNode& a, const PlainNode& b) {
        if (describe(a) != describe(b))
            return tell(path, describe(a), describe(b));
        const PlainElements first(a);
        const PlainElements second(b);
        for (uint64 i = 0; i < first.size(); ++i) {
            if (!first.differs(i, second, m_tolerance))
                continue;
            if (a.type != NodeType::ValueType)
                m_difference.element = i;
            return tell(path, first.text(i), second.text(i));
        }
        return true;
    }

    JournalDifference& m_difference;
    double m_tolerance;
    uint64 m_maxBytes;
};

} // namespace

JournalDifference
diffJournals(const zel::String& firstPath, const zel::String& secondPath, double tolerance) {
    PlainJournal first(firstPath);
    PlainJournal second(secondPath);
    JournalDifference difference;
    Comparison comparison(difference, tolerance, std::max(first.getMaxBytes(), second.getMaxBytes()));
    const auto& firstFrames = first.getFrames();
    const auto& secondFrames = second.getFrames();
    for (zel::size_t i = 0; i < firstFrames.size() || i < secondFrames.size(); ++i) {
        const auto nameOf = [i](const auto& frames) {
            return i < frames.size() ? "frame " + std::to_string(frames[i].record.index)
                                     : zel::String("nothing");
        };
        if (nameOf(firstFrames) != nameOf(secondFrames)) {
            difference.frame =
                std::min(i < firstFrames.size() ? firstFrames[i].record.index : zel::InvalidIndex,
                         i < secondFrames.size() ? secondFrames[i].record.index : zel::InvalidIndex);
            comparison.tell({}, nameOf(firstFrames), nameOf(secondFrames));
            return difference;
        }
        if (!comparison.areEqual(first.readComplete(i), second.readComplete(i)))
            return difference;
        ++difference.numFrames;
    }
    difference.frame = zel::InvalidIndex;
    return difference;
}

} // namespace zelData
