#include <zel/Model.h>
#include <zel/Namespace.h>

namespace zel {

Namespace::Namespace(const Name& name) : Component(name, nullptr) {}

void Namespace::autoComplete(const String& text, Vector<String>& list) {
    const size_t before = list.size();
    Component::autoComplete(text, list);
    if (list.size() == before + 1)
        list.back() = (getPath() + Path(list.back())).str();
}

Model* Namespace::ClassModel() {
    return Model::classModel(Model::CoreClass::Namespace);
}

} // namespace zel
