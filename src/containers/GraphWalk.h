#pragma once

#include <zel/HashSet.h>
#include <zel/Vector.h>

namespace zel {

/// Visits a node of a graph and what can be reached from it, each once: the number of ways to a node may be
/// exponential in the number of nodes.
/// @param visit  gets a node, and returns its list of neighbours to go on to; null for none
template <typename Node, typename Visit>
void walkGraph(Node* start, const Visit& visit) {
    HashSet<Node*> seen;
    VectorPOD<Node*> open;
    seen.insert(start);
    open.push_back(start);
    while (!open.empty()) {
        Node* const node = open.back();
        open.pop_back();
        const auto* const neighbours = visit(node);
        if (neighbours == nullptr)
            continue;
        for (Node* next : *neighbours) {
            if (!seen.contains(next)) {
                seen.insert(next);
                open.push_back(next);
            }
        }
    }
}

} // namespace zel
