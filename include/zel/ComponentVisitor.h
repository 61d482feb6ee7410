#pragma once

#include <zel/Callback.h>
#include <zel/Export.h>

namespace zel {

class Component;
class Object;

/// Walks a tree of components; see Component::traverse(ComponentVisitor*).
class ZEL_CORE_API ComponentVisitor {
public:
    /// A child that is no component. Does nothing by default.
    virtual void visit(Object* object);
    /// A child component. Descends by default.
    virtual void visit(Component* component);
    virtual ~ComponentVisitor() = default;
};

/// Hands everything it meets to a callback and descends.
class ZEL_CORE_API CallbackComponentVisitor : public ComponentVisitor {
public:
    explicit CallbackComponentVisitor(const Callback1<Object*>& callback) : m_callback(callback) {}
    void visit(Object* object) override;
    void visit(Component* component) override;

private:
    Callback1<Object*> m_callback;
};

} // namespace zel
