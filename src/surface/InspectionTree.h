#pragma once

#include <zel/Integers.h>
#include <zel/String.h>

#include <json/value.h>

#include <string_view>

namespace zel {
class Component;
class Object;
} // namespace zel

namespace zelNet {

// Objects as the inspection protocol names and describes them.

/// Counts the objects that have come and gone below the root.
class TreeRevision {
public:
    /// @param root  outlives this
    explicit TreeRevision(zel::Component* root);
    TreeRevision(const TreeRevision&) = delete;
    TreeRevision& operator=(const TreeRevision&) = delete;
    ~TreeRevision();

    [[nodiscard]] zel::uint64 get() const noexcept { return m_revision; }

private:
    zel::Component* m_root;
    zel::uint64 m_revision = 1;
    zel::uint64 m_added;
    zel::uint64 m_removed;
};

/// @return null if the path leads nowhere
[[nodiscard]] zel::Object* findInspected(zel::Component* root, std::string_view path);
/// The same, and an error that names the path instead of null.
/// @throws std::runtime_error
[[nodiscard]] zel::Object& requireInspected(zel::Component* root, const zel::String& path);
/// Whether each part of the path names a child of the one before: else it leads through an object that may
/// come to stand for another one without a change of the tree.
[[nodiscard]] bool isOfChildren(zel::Component* root, std::string_view path);
/// The path that leads to the object; empty for one that does not lie below the root.
[[nodiscard]] zel::String inspectedPath(const zel::Component* root, const zel::Object* object);

/// Which of the children are described.
struct InspectedRange {
    zel::uint64 depth = 1;
    zel::uint64 begin = 0;
    zel::uint64 count = 1000;
};

/// The entry of the object. One that would become too long for a message has fewer children.
/// @param path  that leads to the object
[[nodiscard]] Json::Value describeInspected(const zel::Component* root,
                                            zel::Object& object,
                                            const zel::String& path,
                                            const InspectedRange& range);

} // namespace zelNet
