#include "PathHint.h"

#include "containers/NearName.h"

#include <zel/Component.h>

#include <algorithm>

namespace zel {

namespace {

/// Among more children no name is looked for.
constexpr size_t ManyChildren = 10000;

void considerChildren(NearName& near, const Object* object) {
    const auto* const component = dynamic_cast<const Component*>(object);
    for (size_t i = 0; component != nullptr && i < std::min(component->getNumObjects(), ManyChildren); ++i)
        near.consider(component->getObject(i)->getName().str());
}

Object* find(Object* scope, const Path& path) {
    Object* const found = scope->getResource(path);
    return found == nullptr ? scope->getAutoScopedResource(path) : found;
}

} // namespace

std::string hintOfPath(Object* scope, const Path& path) {
    if (scope == nullptr || path.empty())
        return {};
    String text(path.str());
    std::replace(text.begin(), text.end(), '/', Path::Separator);
    const Path dotted(text);
    if (text != path.str() && find(scope, dotted) != nullptr)
        return NearName::hint(text);
    // The part behind the longest beginning that leads somewhere is the wrong one.
    Path known = dotted.base();
    Path rest(dotted.back());
    while (!known.empty() && find(scope, known) == nullptr) {
        rest = Path(known.back()) + rest;
        known = known.base();
    }
    NearName near(rest.root().str());
    if (!known.empty())
        considerChildren(near, find(scope, known));
    else
        for (const Object* above = scope; above != nullptr; above = above->getContext()) {
            considerChildren(near, above);
            near.consider(above->getName().str());
        }
    const Path meant = known + Path(near.get()) + rest.tail();
    return near.get().empty() || find(scope, meant) == nullptr ? std::string() : NearName::hint(meant.str());
}

} // namespace zel
