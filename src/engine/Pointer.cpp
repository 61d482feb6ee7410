#include "PointerPath.h"
#include "tree/PathNotes.h"

#include <zel/Exception.h>
#include <zel/Model.h>
#include <zel/Pointer.h>
#include <zel/XmlLoader.h>
#include <zel/ref_ptr.h>
#include <zelData/Type.h>

#include <tinyxml.h>

#include <atomic>
#include <stdexcept>

namespace zel {

namespace {

const XmlLoaderRegistrator s_pointerLoader("Pointer", &Pointer::load);

} // namespace

Pointer::Pointer(const Name& name, Object* object) : Value(name, zelData::getFormat("ObjectPointer")) {
    setModel(ClassModel());
    if (object != nullptr)
        refer(object);
}

Pointer::Pointer(const Name& name, const Path& path) : Pointer(name) {
    bind(path);
}

Pointer::~Pointer() {
    if (m_object != nullptr)
        m_object->removeListener(static_cast<Object::EventListener*>(this));
}

void Pointer::configure(TiXmlElement* element) {
    // Not the value's: a pointer has no expression.
    Object::configure(element); // NOLINT(bugprone-parent-virtual-call)
    if (const char* path = element->Attribute("bind"))
        bind(Path(path));
    notePath(*this, element, "bind", getBindPath());
}

void Pointer::rebind() {
    const Path path = getBindPath();
    if (path.empty())
        return;
    // What is not there yet may come: the path stays.
    Object* const object = getAutoScopedResource(path);
    if (object != nullptr && object != m_object)
        refer(object);
    setBindPath(path);
}

Object* Pointer::getResourceImpl(const Path& path, Model* model) {
    return lookThrough(this, Value::getResourceImpl(path, model), path, model);
}

bool Pointer::bind(Object* object) {
    refer(object);
    return true;
}

void Pointer::unbind() {
    refer(nullptr);
}

/// Setting the value forgets the path.
void Pointer::refer(Object* object) {
    if (m_object != nullptr)
        m_object->removeListener(static_cast<Object::EventListener*>(this));
    m_object = object;
    if (m_object != nullptr)
        m_object->addListener(static_cast<Object::EventListener*>(this));
    set(static_cast<const void*>(&object));
}

void Pointer::destroyCallback(Object* object) {
    if (object != m_object)
        return;
    m_object = nullptr;
    const Path path = getBindPath();
    const Object* none = nullptr;
    set(static_cast<const void*>(&none));
    setBindPath(path); // another object may take its place
}

Pointer* Pointer::load(TiXmlElement* element, Device*) {
    if (element->Attribute("name") == nullptr)
        ZEL_XML_ERROR(element, "Pointer does not have a name!");
    ref_ptr<Pointer> pointer(new Pointer(parseAttribute<Name>(element, "name")));
    pointer->configure(element);
    return pointer.release_nodelete();
}

Model* Pointer::ClassModel() {
    static std::atomic<Model*> s_model{nullptr};
    return Model::createBuiltinModel("zel.Pointer", zelData::Value::ClassModel(), s_model);
}

} // namespace zel
