#include <zel/Component.h>
#include <zel/ComponentVisitor.h>

namespace zel {

void ComponentVisitor::visit(Object*) {}

void ComponentVisitor::visit(Component* component) {
    component->traverse(this);
}

void CallbackComponentVisitor::visit(Object* object) {
    m_callback(object);
}

void CallbackComponentVisitor::visit(Component* component) {
    m_callback(component);
    component->traverse(this);
}

} // namespace zel
