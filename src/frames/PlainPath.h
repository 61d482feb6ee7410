#pragma once

#include <zel/String.h>
#include <zelData/PlainFrame.h>

#include <algorithm>
#include <string_view>
#include <vector>

namespace zelData {

/// The path that nodes lie at, from the first below the root on, to be told. A name stands once in a file,
/// and may stand at each depth of each path: what is longer than anybody reads ends in "...".
inline zel::String toldPathOf(const std::vector<const PlainFrame::Node*>& nodes) {
    constexpr zel::size_t most = 4096;
    std::string path;
    for (const PlainFrame::Node* node : nodes) {
        const std::string_view name(node->name.c_str());
        path += path.empty() ? "" : ".";
        path += name.substr(0, std::min(name.size(), most + 1));
        if (path.size() > most)
            return path.substr(0, most) + "...";
    }
    return path;
}

} // namespace zelData
