#pragma once

#include <zel/Component.h>
#include <zel/Name.h>
#include <zel/Path.h>
#include <zel/Vector.h>

namespace zelData {

/// Nothing is looked up anew meanwhile: for trees of frames, in which nobody does.
class RebindOff {
public:
    RebindOff() noexcept : m_outer(zel::Object::getEnableRebind()) { zel::Object::setEnableRebind(false); }
    RebindOff(const RebindOff&) = delete;
    RebindOff& operator=(const RebindOff&) = delete;
    ~RebindOff() { zel::Object::setEnableRebind(m_outer); }

private:
    bool m_outer;
};

/// The parts of a path, for those who follow it again and again.
inline zel::Vector<zel::Name> namesOf(const zel::Path& path) {
    zel::Vector<zel::Name> names;
    for (const zel::Name& name : path)
        names.push_back(name);
    return names;
}

/// What the names lead to, child by child; null if they lead nowhere, and for none. A look-up of resources
/// would find the component's own name as well.
inline zel::Object* findNode(const zel::Component* from, const zel::Vector<zel::Name>& names) {
    zel::Object* object = nullptr;
    for (zel::size_t i = 0; i < names.size(); ++i) {
        if (i != 0)
            from = dynamic_cast<const zel::Component*>(object);
        object = from == nullptr ? nullptr : from->findObject(names[i]);
        if (object == nullptr)
            break;
    }
    return object;
}

} // namespace zelData
