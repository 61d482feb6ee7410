#pragma once

#include <zel/Path.h>
#include <zel/String.h>

#include <json/forwards.h>

#include <string>
#include <vector>

namespace zel {
class Component;
class Object;
} // namespace zel

namespace zelIO {

/// How the beginning of a path may go on.
struct Completion {
    zel::Path matched;             ///< as far as one object was meant, in the real spelling
    std::vector<std::string> list; ///< the names that the last part may become, in order
    bool isNode = false;           ///< whether the whole text meant one object
    bool hasChildren = false;      ///< whether that one has children

    /// What a client is told.
    [[nodiscard]] Json::Value toJson(const zel::String& query) const;
};

/// Completes the text below the root, whatever its case.
/// @param root  null completes nothing
/// @threads one that looks at the tree, see zel/TreeGate.h
[[nodiscard]] Completion completePath(const zel::String& text, zel::Component* root);

} // namespace zelIO
