#include "LoadScope.h"
#include "TagHint.h"
#include "XmlPlace.h"

#include <zel/Component.h>
#include <zel/Exception.h>
#include <zel/HashTable.h>
#include <zel/Model.h>
#include <zel/Object.h>
#include <zel/TreeGate.h>
#include <zel/Vector.h>
#include <zel/Verify.h>
#include <zel/XmlLoader.h>

#include <json/value.h>
#include <tinyxml.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <utility>

namespace zel {

namespace {

// Numbers only; nothing else is published through the counter.
std::atomic<uint32> s_nextId{0};

thread_local bool t_enableRebind = true;
thread_local uint32 t_loadDepth = 0;

const Name& anonymousName() {
    static const Name name("[anonymous]");
    return name;
}

const Name& rootName() {
    static const Name name("Root");
    return name;
}

} // namespace

LoadScope::LoadScope() noexcept {
    ++t_loadDepth;
    Object::setEnableRebind(false);
}

LoadScope::~LoadScope() {
    if (--t_loadDepth == 0)
        Object::setEnableRebind(true);
}

/// The listeners of one object, each with its turn. Thousands may listen to one object: only the one event
/// that there is brings them into order.
class Object::EventDispatch {
public:
    void add(EventListener* listener) {
        if (!has(listener))
            m_turns.insert(listener, m_nextTurn++);
    }
    void remove(EventListener* listener) { m_turns.erase(listener); }
    [[nodiscard]] bool has(const EventListener* listener) const {
        return m_turns.contains(const_cast<EventListener*>(listener)); // NOLINT: only looked up
    }

    /// A listener may remove itself or others while it is called.
    void triggerDestroyEvent(Object* object) {
        Vector<std::pair<uint64, EventListener*>> listeners;
        for (const auto& entry : m_turns)
            listeners.push_back({entry.value, entry.key});
        std::sort(listeners.begin(), listeners.end());
        for (const auto& [turn, listener] : listeners)
            if (has(listener))
                listener->destroyCallback(object);
    }

private:
    HashTable<EventListener*, uint64> m_turns;
    uint64 m_nextTurn = 0;
};

void Object::EventListener::destroyCallback(Object*) {}

Object::Object(const Name& name, Model* model)
    : m_id(s_nextId.fetch_add(1, std::memory_order_relaxed)), m_name(name) {
    rebindsOnDemand(typeid(Object));
    setModel(model);
}

Object::~Object() {
    announceDestruction();
    setModel(nullptr);
}

void Object::announceDestruction() {
    if (m_eventDispatch == nullptr)
        return;
    m_eventDispatch->triggerDestroyEvent(this);
    delete std::exchange(m_eventDispatch, nullptr);
}

void Object::configure(TiXmlElement*) {}

void Object::save(TiXmlElement*) const {}

void Object::snapshot(TiXmlNode*, const String&) {}

void Object::printSubtree() const {
    std::cout << fullName() << '\n';
}

void Object::buildNavigationTree(Json::Value& json) const {
    json["name"] = m_name.str();
    json["model"] = m_model == nullptr ? std::string() : m_model->fullName();
}

void Object::setContext(Object* context) {
    m_context = context;
}

void Object::rebind() {}

void Object::updateDemand() {
    if (m_holder == nullptr)
        return;
    // Also true of an object that is still being made, or is being destroyed: its class is another then.
    const bool demands =
        m_demandsRebind || m_holdsDemanding || m_demandClass == nullptr || *m_demandClass != typeid(*this);
    if (demands != m_isDemanding)
        m_holder->noteDemand(this, demands);
}

Object* Object::getResourceImpl(const Path& path, Model* model) {
    const bool fits = model == nullptr || (m_model != nullptr && m_model->is(model));
    return path.empty() && fits ? this : nullptr;
}

void Object::setName(const Name& name) {
    zelVerifyNAs(m_context == nullptr,
                 "!m_context",
                 "%s: TODO Support renaming objects after they have been added to a context...",
                 getPath().c_str());
    if (m_holder != nullptr)
        m_holder->rename(this, name);
    else
        m_name = name;
}

void Object::setModel(Model* model) {
    // Neither is counted that is the object itself.
    const Object* self = this;
    if (model != nullptr && static_cast<Object*>(model) != self)
        model->reference();
    Model* old = std::exchange(m_model, model);
    if (old != nullptr && static_cast<Object*>(old) != self)
        old->unreference();
}

Object* Object::getRootContext() {
    Object* top = this;
    while (top->m_context != nullptr)
        top = top->m_context;
    return top;
}

bool Object::hasParent(const Object* object) const {
    for (const Object* above = m_context; above != nullptr; above = above->m_context)
        if (above == object)
            return true;
    return false;
}

namespace {

/// Calls `visit` on the object and those above it, up to `stopAt` or a component with the root's name.
template <typename Visit>
void walkUp(const Object* object, const Object* stopAt, Visit&& visit) {
    for (; object != nullptr && object != stopAt; object = object->getContext()) {
        if (object->getName() == rootName() && dynamic_cast<const Component*>(object) != nullptr)
            return;
        visit(object);
    }
}

template <typename Text>
String joinUp(const Object* object, const Object* stopAt, Text&& text) {
    Vector<const Object*> chain;
    walkUp(object, stopAt, [&chain](const Object* above) { chain.push_back(above); });
    String result;
    for (size_t i = chain.size(); i-- > 0;) {
        if (!result.empty())
            result += Path::Separator;
        result += chain[i]->getName().empty() ? anonymousName().str() : std::string(text(chain[i]));
    }
    return result;
}

} // namespace

Path Object::getPath(const Object* stopAt) const {
    return joinUp(this, stopAt, [](const Object* object) { return object->getName().str(); });
}

String Object::fullPath(const Object* stopAt) const {
    return joinUp(this, stopAt, [](const Object* object) { return object->fullName(); });
}

String Object::fullName() const {
    const Name implementation = getImplementationName();
    return implementation.empty() ? String(m_name.str()) : m_name + ":" + implementation.c_str();
}

Name Object::getImplementationName() const {
    return m_model == nullptr ? Name() : m_model->getImplementationName();
}

Object* Object::getAutoScopedResource(const Path& path, Model* model) {
    if (path.empty() || m_context == nullptr)
        return nullptr;
    Object* top = m_context;
    for (Object* above = m_context; above != nullptr; above = above->m_context) {
        Object* found = above->getResource(path, model);
        if (found != nullptr && found != this)
            return found;
        top = above;
    }
    return !path.hasTail() && path.root() == top->getName() ? top->getResourceImpl(Path(), model) : nullptr;
}

void Object::addListener(EventListener* listener) {
    if (m_eventDispatch == nullptr)
        m_eventDispatch = new EventDispatch;
    m_eventDispatch->add(listener);
}

void Object::removeListener(EventListener* listener) {
    if (m_eventDispatch != nullptr)
        m_eventDispatch->remove(listener);
}

bool Object::hasListener(const EventListener* listener) const {
    return m_eventDispatch != nullptr && m_eventDispatch->has(listener);
}

void Object::setEnableRebind(bool enable) noexcept {
    t_enableRebind = enable;
}

bool Object::getEnableRebind() noexcept {
    return t_enableRebind;
}

String Object::generateName(const String& text) {
    String result(text.substr(1));
    std::replace(result.begin(), result.end(), '.', '_');
    if (!result.empty() && result.front() <= 96)
        result.front() = static_cast<char>(result.front() + 32);
    return result;
}

namespace {

/// What a load throws for whatever has been thrown inside of it, which is nested in it.
class LoadError : public std::runtime_error {
public:
    explicit LoadError(const TiXmlElement* element)
        : runtime_error(
              xmlErrorText(__FILE__, static_cast<unsigned>(__LINE__), element, "Caught exception")) {}
};

[[noreturn]] void throwInnermost(const LoadError& error) {
    dynamic_cast<const std::nested_exception&>(error).rethrow_nested();
}

/// Throws an error of the element with the exception that is being handled nested in it. Of an error of an
/// element inside of it, what is nested there: the reason is told once and stays at hand, however deep it
/// lies.
[[noreturn]] void throwLoadError(const TiXmlElement* element) {
    try {
        throw;
    } catch (const LoadError& inner) {
        try {
            throwInnermost(inner);
        } catch (...) {
            std::throw_with_nested(LoadError(element));
        }
    } catch (const std::exception& reason) {
        if (!tellsPlace(reason))
            warnAt(element, reason.what());
        std::throw_with_nested(LoadError(element));
    }
}

} // namespace

Object* Object::load(TiXmlElement* element, Device* device) {
    const TreeChange change;
    const LoadScope scope;
    const String tag(element->ValueStr());
    if (tag == "Object")
        return new Object(parseAttribute<Name>(element, "name"));
    const auto& loadFunction = XmlLoaderRegistrator::getLoadFunction(tag);
    if (!loadFunction)
        ZEL_XML_ERROR(element, "Unknown tag '" + tag + "'" + hintOfTag(tag));
    try {
        if (Object* object = loadFunction(element, device))
            return object;
        ZEL_XML_ERROR(element, "The load function of the tag '" + tag + "' has made no object");
    } catch (const std::exception&) {
        throwLoadError(element);
    }
}

void Object::getActiveObjects() {
    zelAbort("ZEL_TRACK_OBJECTS is disabled");
}

Model* Object::ClassModel() {
    return Model::classModel(Model::CoreClass::Object);
}

} // namespace zel
