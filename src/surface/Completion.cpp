#include "surface/Completion.h"

#include <zel/Component.h>
#include <zel/Model.h>
#include <zel/Vector.h>

#include <json/value.h>
#include <pystring/pystring.h>

#include <algorithm>

namespace zelIO {

using zel::Component;
using zel::Object;
using zel::Path;
using zel::String;

namespace {

/// Walks the parts of the path from the root on, and takes at each one the only name that begins with the
/// part, or the one that equals it, whatever the case.
/// @param matched  gets the names taken
/// @param list  gets the names that begin with the part at which the walk ended
/// @return null where none or more than one was left
Object* findMatchingNode(const std::vector<std::string>& path,
                         Component* root,
                         Path& matched,
                         zel::Vector<String>& list) {
    Object* node = root;
    for (std::size_t i = 0; i < path.size(); ++i) {
        auto* const component = dynamic_cast<Component*>(node);
        list.clear();
        if (component == nullptr)
            return nullptr;
        component->autoComplete(path[i], list);
        const auto* candidate = list.begin();
        if (list.size() != 1)
            candidate = std::find_if(list.begin(), list.end(), [&](const String& name) {
                return pystring::upper(name) == pystring::upper(path[i]);
            });
        if (candidate == list.end())
            return nullptr;
        matched += Path(*candidate).back();
        const bool isLast = i + 1 == path.size();
        node =
            component->getResource(Path(*candidate), isLast ? Object::ClassModel() : Component::ClassModel());
    }
    return node;
}

} // namespace

Completion completePath(const String& text, Component* root) {
    // Of a text that ends with a point, the last part is empty.
    std::vector<std::string> parts;
    pystring::split(Path(text).str(), parts, ".");
    Completion completion;
    zel::Vector<String> list;
    const Object* const node = findMatchingNode(parts, root, completion.matched, list);
    const auto* const component = dynamic_cast<const Component*>(node);
    completion.isNode = node != nullptr;
    completion.hasChildren = component != nullptr && component->getNumObjects() > 0;
    completion.list.assign(list.begin(), list.end());
    std::sort(completion.list.begin(), completion.list.end());
    return completion;
}

Json::Value Completion::toJson(const String& query) const {
    Json::Value json;
    json["query"] = static_cast<const std::string&>(query);
    json["hasMatch"] = !list.empty();
    json["matchedPath"] = static_cast<const std::string&>(matched.str());
    json["uniqueMatchHasChildren"] = hasChildren;
    Json::Value& found = json["list"] = Json::Value(Json::arrayValue);
    for (const std::string& name : list)
        found.append(name);
    return json;
}

} // namespace zelIO
