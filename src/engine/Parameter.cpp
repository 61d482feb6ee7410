#include "containers/NearName.h"
#include "tree/PathNotes.h"

#include <zel/EntityDataParameter.h>
#include <zel/EntityHandleParameter.h>
#include <zel/Exception.h>
#include <zel/Log.h>
#include <zel/Model.h>
#include <zel/Parameter.h>
#include <zel/Pointer.h>
#include <zel/PointerParameter.h>
#include <zel/Task.h>
#include <zel/UnresolvedParameter.h>
#include <zel/XmlLoader.h>
#include <zelData/Buffer.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <json/value.h>
#include <tinyxml.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <stdexcept>
#include <string_view>

namespace zel {

namespace {

const Name& bindEventName() {
    static const Name name("BindEvent");
    return name;
}

const Name& unbindEventName() {
    static const Name name("UnbindEvent");
    return name;
}

const Name& updateEventName() {
    static const Name name("UpdateEvent");
    return name;
}

/// Whether a binding keeps the object alive. Not components: those may have the task itself below them. Nor
/// members of other objects, which go with those.
bool isKept(const Object* object) {
    if (const auto* value = dynamic_cast<const zelData::Value*>(object))
        return !value->isMember();
    return dynamic_cast<const zelData::Buffer*>(object) != nullptr ||
           dynamic_cast<const Parameter*>(object) != nullptr;
}

/// One step of followPointers.
/// @return whether the object points at another one, or at nothing
bool followOnce(Object*& object) {
    if (const auto* pointer = dynamic_cast<const Pointer*>(object))
        object = pointer->getObject();
    else if (const auto* parameter = dynamic_cast<const PointerParameter*>(object))
        object = parameter->getObject();
    else if (const auto* unresolved = dynamic_cast<const UnresolvedParameter*>(object))
        object = unresolved->getTarget();
    else if (const auto* entities = dynamic_cast<const EntityDataParameter*>(object))
        object = entities->getStorage();
    else if (const auto* handle = dynamic_cast<const EntityHandleParameter*>(object))
        object = handle->getValue();
    else
        return false;
    return true;
}

} // namespace

Parameter::Parameter(
    const Name& name, Model* model, MetaType metaType, const zelData::Format* format, uint32 accessMode)
    : Object(name, model)
    , bindEvent(bindEventName(), this)
    , unbindEvent(unbindEventName(), this)
    , updateEvent(updateEventName(), this)
    , m_format(format)
    , m_metaType(metaType)
    , m_accessMode(static_cast<uint8>(accessMode)) {
    static_cast<void>(zelData::getAccessModeString(accessMode)); // ends the process for another number
}

Parameter::~Parameter() {
    letGo();
}

bool Parameter::hasGlobalResult() const {
    return false;
}

void Parameter::update() {}

void Parameter::commit() {}

void Parameter::prepareGlobalResultSorting(size_t) {}

const char* Parameter::getMetaTypeName(MetaType metaType) noexcept {
    switch (metaType) {
    case MetaType::Scalar:
        return "SCALAR";
    case MetaType::Array:
        return "Array";
    case MetaType::Pointer:
        return "POINTER";
    case MetaType::Unresolved:
        return "UNRESOLVED";
    case MetaType::EntityData:
        return "ENTITY_DATA";
    case MetaType::EntityPtr:
        return "ENTITY_PTR";
    case MetaType::EntityInstance:
        return "ENTITY_INSTANCE";
    }
    return "UNKNOWN";
}

Task* Parameter::getTask() const noexcept {
    if (m_task != nullptr)
        return m_task;
    const auto* whole = dynamic_cast<const Parameter*>(getContext());
    return whole == nullptr ? nullptr : whole->getTask();
}

void Parameter::setContext(Object* context) {
    // Of a task that is being destroyed only the component is left, which lets its objects go.
    Task* const task = m_task != nullptr && context != m_task && dynamic_cast<Task*>(getContext()) == m_task
                           ? m_task
                           : nullptr;
    Object::setContext(context);
    if (task != nullptr)
        task->leave(this);
}

void Parameter::setFormat(const zelData::Format* format) {
    m_format = format;
}

String Parameter::typeText(const zelData::Format* format) {
    return format == nullptr || format->getType() == nullptr ? String() : format->getType()->getName().str();
}

String Parameter::formatText(const zelData::Format* format) {
    return format == nullptr ? String() : format->fullName();
}

// Bindings

Object* Parameter::followPointers(Object* object) {
    constexpr int longestChain = 64;
    for (int i = 0; i < longestChain; ++i)
        if (!followOnce(object))
            return object;
    ZEL_LOG_WARNING("A chain of pointers has no end");
    return nullptr;
}

void Parameter::verifyNoLoop(Object* object) const {
    for (const Object* other = object; other != nullptr;) {
        if (other == this)
            ZEL_THROW(std::runtime_error,
                      String::format("%s: Can not be bound to '%s', which depends on it",
                                     getPath().c_str(),
                                     object->getPath().c_str()));
        const auto* parameter = dynamic_cast<const Parameter*>(other);
        other = parameter == nullptr ? nullptr : parameter->getBinding();
    }
}

void Parameter::hold(Object* object) {
    m_binding = object;
    if (object == nullptr)
        return;
    m_ownsBinding = m_metaType != MetaType::Pointer && isKept(object);
    if (m_ownsBinding)
        object->reference();
    else
        object->addListener(this);
}

void Parameter::letGo() noexcept {
    Object* const old = m_binding;
    m_binding = nullptr;
    if (old == nullptr)
        return;
    if (m_ownsBinding)
        old->unreference();
    else
        old->removeListener(this);
}

void Parameter::bind(Object* object) {
    Object* const target = followPointers(object);
    if (target == m_binding)
        return;
    verifyNoLoop(target);
    // A callback may let go of either.
    const ref_ptr<Object> keep(referenceCount() > 0 ? this : nullptr);
    const ref_ptr<Object> keepTarget(target != nullptr && isKept(target) ? target : nullptr);
    if (m_binding != nullptr)
        unbindEvent.fire(this);
    try {
        _bind(target);
    } catch (...) {
        _bind(nullptr);
        letGo();
        throw;
    }
    letGo();
    hold(target);
    if (m_binding != nullptr)
        bindEvent.fire(this);
}

void Parameter::bind(const Path& path) {
    m_bindPath = path;
    if (getEnableRebind())
        rebind();
}

void Parameter::set(Object* object) {
    m_bindPath = Path();
    bind(object);
}

void Parameter::unbind() {
    set(nullptr);
}

void Parameter::rebind() {
    if (!getEnableRebind())
        return;
    if (!m_bindPath.empty())
        bind(getAutoScopedResource(m_bindPath));
    if (m_binding != nullptr && m_binding->getContext() == this)
        m_binding->rebind();
}

void Parameter::destroyCallback(Object* object) {
    if (object != m_binding || m_ownsBinding)
        return;
    unbindEvent.fire(this);
    if (object != m_binding)
        return; // a callback has bound something else
    _bind(nullptr);
    m_binding = nullptr;
}

// XML

void Parameter::configure(TiXmlElement* element) {
    Object::configure(element);
    if (element->Attribute("required") != nullptr)
        m_required = parseAttribute<bool>(element, "required");
    // In another component, or task, what is bound to has the parameter's name unless told otherwise.
    const char* const path = element->Attribute("bind");
    const Path place = Path(element->Attribute("source")) + Path(element->Attribute("task"));
    if (!place.empty())
        bind(place + (path == nullptr ? Path(getName()) : Path(path)));
    else if (path != nullptr)
        bind(Path(path));
    if (!place.empty() || path != nullptr)
        notePath(*this, element, "bind", m_bindPath);
}

Name Parameter::loadName(TiXmlElement* element) {
    if (element->Attribute("name") == nullptr)
        ZEL_XML_ERROR(element, "Parameter does not have a name");
    return parseAttribute<Name>(element, "name");
}

uint32 Parameter::loadAccessMode(TiXmlElement* element) {
    const char* mode = element->Attribute("mode");
    if (mode == nullptr)
        return zelData::AccessMode::READ;
    constexpr const char* modes[] = {"READ", "WRITE", "READ_WRITE"};
    NearName near(mode);
    for (const char* const known : modes)
        near.consider(known);
    if (std::find(std::begin(modes), std::end(modes), std::string_view(mode)) == std::end(modes))
        ZEL_XML_ERROR(element,
                      String::format("Unknown mode '%s'", mode) + near.hint() +
                          ": it is READ, WRITE or READ_WRITE");
    return zelData::getAccessMode(std::string(mode));
}

void Parameter::buildNavigationTree(Json::Value& json) const {
    Object::buildNavigationTree(json);
    json["binding"] = m_binding == nullptr ? std::string() : std::string(m_binding->fullPath());
}

Model* Parameter::ClassModel() {
    static std::atomic<Model*> s_model{nullptr};
    return Model::createBuiltinModel("Parameter", Object::ClassModel(), s_model);
}

} // namespace zel
