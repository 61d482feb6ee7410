#include "Farewell.h"
#include "PathNotes.h"
#include "Root.h"
#include "data/ValueText.h"

#include <zel/Component.h>
#include <zel/ComponentVisitor.h>
#include <zel/Device.h>
#include <zel/FirstException.h>
#include <zel/Log.h>
#include <zel/Model.h>
#include <zel/Verify.h>
#include <zelData/Value.h>

#include <json/value.h>
#include <pystring/pystring.h>

#include <algorithm>
#include <cctype>
#include <exception>
#include <iostream>
#include <list>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace zel {

namespace {

const Name& addObjectEventName() {
    static const Name name("AddObjectEvent");
    return name;
}

const Name& removeObjectEventName() {
    static const Name name("RemoveObjectEvent");
    return name;
}

/// How many subtrees that have left their components are being rebound on this thread, one in another.
constinit thread_local uint32 t_detachingDepth = 0;

/// How many rebinds, and changes of trees that rebind, are under way on this thread, one in another.
constinit thread_local uint32 t_rebindingDepth = 0;

/// One level of such a depth.
class DepthScope {
public:
    explicit DepthScope(uint32& depth) noexcept : m_depth(depth) { ++m_depth; }
    DepthScope(const DepthScope&) = delete;
    DepthScope& operator=(const DepthScope&) = delete;
    ~DepthScope() { --m_depth; }

private:
    uint32& m_depth;
};

/// Keeps an object while callbacks run, which may let go of the last reference to it. One that nobody owns,
/// as it is still being made or is being destroyed already, is left to itself.
class Keep {
public:
    explicit Keep(const Object& object) : m_object(object), m_isOwned(object.referenceCount() != 0) {
        m_object.reference();
    }
    Keep(const Keep&) = delete;
    Keep& operator=(const Keep&) = delete;
    ~Keep() {
        if (m_isOwned)
            m_object.unreference();
        else
            m_object.unreference_nodelete();
    }

private:
    const Object& m_object;
    bool m_isOwned;
};

bool fits(const Object* object, const Model* model) {
    return model == nullptr || (object->getModel() != nullptr && object->getModel()->is(model));
}

/// Whether the path begins with what fullName() gives for the object, blanks around the ":" aside.
/// @param rest  what is behind it
bool standsAhead(const Object& object, const Path& path, Path& rest) {
    const Name implementation = object.getImplementationName();
    const std::string_view text = path.c_str();
    const size_t colon = text.find(':');
    if (implementation.empty() || colon == std::string_view::npos ||
        pystring::strip(std::string(text.substr(0, colon))) != object.getName().str())
        return false;
    const size_t begin = text.find_first_not_of(' ', colon + 1);
    if (begin == std::string_view::npos || !text.substr(begin).starts_with(implementation.c_str()))
        return false;
    const std::string_view behind = text.substr(begin + implementation.str().size());
    const size_t end = behind.find_first_not_of(' ');
    if (end != std::string_view::npos && behind[end] != Path::Separator)
        return false;
    rest = end == std::string_view::npos ? Path() : Path(std::string(behind.substr(end + 1)));
    return true;
}

bool beginsWithIgnoringCase(std::string_view text, std::string_view prefix) {
    if (text.size() < prefix.size())
        return false;
    for (size_t i = 0; i < prefix.size(); ++i)
        if (std::toupper(static_cast<unsigned char>(text[i])) !=
            std::toupper(static_cast<unsigned char>(prefix[i])))
            return false;
    return true;
}

} // namespace

Component::Component(const Name& name, Model* model, Device* device)
    : Object(name, model)
    , addObjectEvent(addObjectEventName(), this)
    , removeObjectEvent(removeObjectEventName(), this) {
    rebindsOnDemand(typeid(Component));
    setDevice(device);
}

Component::~Component() {
    for (size_t place = 0; place < m_objects.getNumPlaces(); ++place)
        if (Object* object = m_objects.at(place))
            object->setContext(nullptr);
    runWhileDestroyed(*this, [this] { removeAllObjects(); });
    // What callbacks have added to the dying component goes without farewell.
    for (const ref_ptr<Object>& object : m_objects.hold()) {
        m_objects.erase(object.get());
        unlink(object.get());
        if (object->getContext() == this)
            object->setContext(nullptr);
    }
    setDevice(nullptr);
}

void Component::setDevice(Device* device) {
    takeDevice(device, true);
}

void Component::takeDevice(Device* device, bool counted) {
    if (device != nullptr && counted)
        device->reference();
    Device* const old = std::exchange(m_device, device);
    if (std::exchange(m_countsDevice, counted) && old != nullptr)
        old->unreference();
}

Component::Chain* Component::findChain(const Name& name) const {
    if (!m_objectTable)
        return nullptr;
    const auto position = m_objectTable->find(name);
    return position == m_objectTable->end() ? nullptr : &position->value;
}

void Component::link(Object* object) {
    object->m_holder = this;
    if (Chain* chain = findChain(object->getName())) {
        object->m_previousSibling = chain->tail;
        chain->tail->m_nextSibling = object;
        chain->tail = object;
        return;
    }
    if (!m_objectTable)
        m_objectTable = std::make_unique<HashTable<Name, Chain>>();
    m_objectTable->insert(object->getName(), Chain{object, object});
}

void Component::unlink(Object* object) {
    Chain& chain = *findChain(object->getName());
    Object* const before = std::exchange(object->m_previousSibling, nullptr);
    Object* const behind = std::exchange(object->m_nextSibling, nullptr);
    (before == nullptr ? chain.head : before->m_nextSibling) = behind;
    (behind == nullptr ? chain.tail : behind->m_previousSibling) = before;
    object->m_holder = nullptr;
    if (chain.head == nullptr)
        m_objectTable->erase(object->getName());
}

void Component::rename(Object* object, Name name) {
    unlink(object);
    object->m_name = std::move(name);
    link(object);
}

/// Whether the object is this component, or one of those that own it, or of those that are its contexts: an
/// object that is just leaving still has its context, and may have been taken in elsewhere.
bool Component::liesWithin(const Object* object) const {
    for (const Object* above = this; above != nullptr; above = above->m_holder)
        if (above == object)
            return true;
    return hasParent(object);
}

void Component::trigger(TreeEvent Component::*event, Object* object) {
    // Those above now: callbacks may turn the tree upside down, and each is told once.
    Vector<Component*> listening;
    std::list<Keep> keep;
    for (Object* above = getContext(); above != nullptr; above = above->getContext())
        if (auto* component = dynamic_cast<Component*>(above);
            component != nullptr && !(component->*event).empty()) {
            keep.emplace_back(*component);
            listening.push_back(component);
        }
    FirstException failure;
    failure.run([&] { (this->*event).fire(this, object); });
    for (Component* above : listening) {
        // The object may have left again, or come back, and this component may lie elsewhere by now.
        const bool isHere = object->m_holder == this;
        if (isHere != (event == &Component::addObjectEvent))
            break;
        if (hasParent(above))
            failure.run([&] { (above->*event).fire(this, object); });
    }
    failure.rethrow();
}

void Component::addObject(Object* object, bool assignContext) {
    zelVerify(object);
    // A component inside itself would own itself; a second link to one object would tear its chain.
    zelVerifyN(
        !liesWithin(object), "%s: a component can not be added below itself", object->getPath().c_str());
    zelVerifyN(
        object->m_holder == nullptr, "%s: object is already part of a component", object->getPath().c_str());
    const Keep self(*this);
    const ref_ptr<Object> keep(object);
    m_objects.push_back(object);
    link(object);
    object->updateDemand();
    if (assignContext)
        object->setContext(this);
    trigger(&Component::addObjectEvent, object);
    if (!getEnableRebind())
        return;
    const DepthScope rebinding(t_rebindingDepth);
    if (object->m_holder == this)
        object->rebind();
    rebind();
}

bool Component::isDetaching() noexcept {
    return t_detachingDepth != 0;
}

/// What follows when a child has left: the news, the context, the paths.
void Component::detach(Object* object) {
    const auto leave = [this, object] {
        if (object->m_holder == nullptr || (object->m_holder != this && object->getContext() == this))
            object->setContext(nullptr);
    };
    try {
        trigger(&Component::removeObjectEvent, object);
    } catch (...) {
        leave();
        throw;
    }
    leave();
    if (object->m_holder != nullptr || !getEnableRebind())
        return;
    const DepthScope scope(t_detachingDepth);
    object->rebind();
}

void Component::remove(Object* object) {
    const Keep self(*this);
    const ref_ptr<Object> keep(object);
    m_objects.erase(object);
    // A pass under way goes by the places.
    if (m_rebindDepth == 0)
        m_objects.closeUp();
    unlink(object);
    updateHolding();
    detach(object);
}

void Component::noteDemand(Object* object, bool demands) {
    m_objects.setDemanding(object, demands);
    updateHolding();
}

void Component::updateHolding() {
    m_holdsDemanding = m_objects.getNumDemanding() != 0;
    updateDemand();
}

bool Component::removeObject(Object* object) {
    if (object == nullptr || object->m_holder != this)
        return false;
    remove(object);
    return true;
}

bool Component::removeObject(const Name& name, size_t index) {
    Object* object = findObject(name, nullptr, index);
    return object != nullptr && removeObject(object);
}

void Component::removeAllObjects() {
    const Keep self(*this);
    const Vector<ref_ptr<Object>> objects = m_objects.hold();
    FirstException failure;
    for (size_t i = objects.size(); i-- > 0;)
        if (objects[i]->m_holder == this)
            failure.run([&] { removeObject(objects[i].get()); });
    failure.rethrow();
}

Object* Component::findObject(const Name& name, Model* model, size_t index) const {
    const Chain* chain = findChain(name);
    for (Object* object = chain == nullptr ? nullptr : chain->head; object != nullptr;
         object = object->getNextSibling())
        if (fits(object, model) && index-- == 0)
            return object;
    return nullptr;
}

size_t Component::getNumObjects(const Name& name) const {
    const Chain* chain = findChain(name);
    size_t count = 0;
    for (Object* object = chain == nullptr ? nullptr : chain->head; object != nullptr;
         object = object->getNextSibling())
        ++count;
    return count;
}

void Component::getObjects(Vector<Object*>& objects, Model* model) const {
    m_objects.forEach([&objects, model](Object* object) {
        if (fits(object, model))
            objects.push_back(object);
    });
}

void Component::rebind() {
    if (m_rebindDepth > 0) {
        ++m_rebindDepth;
        return;
    }
    const Keep self(*this);
    {
        const DepthScope rebinding(t_rebindingDepth);
        struct Depth {
            explicit Depth(uint64& d) : depth(d) { depth = 1; }
            Depth(const Depth&) = delete;
            Depth& operator=(const Depth&) = delete;
            ~Depth() { depth = 0; }
            uint64& depth;
        } guard(m_rebindDepth);

        for (size_t place = 0; (place = m_objects.nextDemanding(place)) != ObjectList::NoPlace;) {
            const ref_ptr<Object> object(m_objects.at(place));
            const uint64 before = m_rebindDepth;
            object->rebind();
            place = m_rebindDepth == before ? place + 1 : 0;
        }
    }
    // A tree that is still being put together is not looked at: what is missing may be added next.
    if (t_rebindingDepth == 0 && t_detachingDepth == 0 && getEnableRebind() && findRoot() != nullptr &&
        getRootContext() == findRoot())
        warnOfLostPaths(*this);
}

Object* Component::getResourceImpl(const Path& path, Model* model) {
    if (path.empty())
        return Object::getResourceImpl(path, model);
    Path rest = path;
    if (path.root() == getName() || standsAhead(*this, path, rest)) {
        if (path.root() == getName())
            rest = path.tail();
        if (rest.empty())
            return Object::getResourceImpl(Path(), model);
    }
    std::string part = rest.root().str();
    const size_t colon = part.find(':');
    if (colon != std::string::npos) {
        part = pystring::strip(part.substr(0, colon));
        // An implementation has dots of its own.
        const Chain* chain = findChain(part);
        Path behind;
        for (Object* object = chain == nullptr ? nullptr : chain->head; object != nullptr;
             object = object->getNextSibling())
            if (standsAhead(*object, rest, behind) && (!behind.empty() || fits(object, model)))
                return behind.empty() ? object : object->getResourceImpl(behind, model);
    }
    Object* object = findObject(part, rest.hasTail() ? nullptr : model, 0);
    if (object != nullptr)
        return rest.hasTail() ? object->getResourceImpl(rest.tail(), model) : object;
    if (rest.hasTail() || model == nullptr)
        return nullptr;
    // A pointer that stands there may lead to an object of the model.
    const Chain* chain = findChain(part);
    for (object = chain == nullptr ? nullptr : chain->head; object != nullptr;
         object = object->getNextSibling())
        if (Object* target = object->getResourceImpl(Path(), model))
            return target;
    return nullptr;
}

void Component::traverse(const Callback1<Object*>& callback) {
    const Keep self(*this);
    callback(this);
    for (const ref_ptr<Object>& object : m_objects.hold()) {
        if (object->m_holder != this)
            continue;
        if (auto* component = dynamic_cast<Component*>(object.get()))
            component->traverse(callback);
        else
            callback(object.get());
    }
}

void Component::traverse(ComponentVisitor* visitor) {
    const Keep self(*this);
    for (const ref_ptr<Object>& object : m_objects.hold()) {
        if (object->m_holder != this)
            continue;
        if (auto* component = dynamic_cast<Component*>(object.get()))
            visitor->visit(component);
        else
            visitor->visit(object.get());
    }
}

void Component::printSubtree() const {
    printSubtree(std::cout, 0);
}

void Component::printSubtree(std::ostream& stream, int indentation) const {
    const auto line = [&stream](const Object* object, int depth) {
        for (int i = 0; i < depth; ++i)
            stream << "| ";
        stream << "|-" << object->fullName();
        if (const auto* value = dynamic_cast<const zelData::Value*>(object))
            zelData::describeValue(stream, *value);
        stream << '\n';
    };
    line(this, indentation);
    m_objects.forEach([&](const Object* object) {
        if (const auto* component = dynamic_cast<const Component*>(object))
            component->printSubtree(stream, indentation + 1);
        else
            line(object, indentation + 1);
    });
}

void Component::buildNavigationTree(Json::Value& json) const {
    Object::buildNavigationTree(json);
    Json::Value& objects = json["objects"] = Json::Value(Json::arrayValue);
    m_objects.forEach([&objects](const Object* object) {
        Json::Value child(Json::objectValue);
        object->buildNavigationTree(child);
        objects.append(std::move(child));
    });
}

void Component::autoComplete(const String& text, Vector<String>& list) {
    m_objects.forEach([&](const Object* object) {
        if (beginsWithIgnoringCase(object->getName().c_str(), text))
            list.push_back(object->getName().str());
    });
}

Model* Component::ClassModel() {
    return Model::classModel(Model::CoreClass::Component);
}

} // namespace zel
