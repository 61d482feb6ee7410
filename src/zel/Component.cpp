#include "zelData/ValueText.h"

#include <zel/Component.h>
#include <zel/ComponentVisitor.h>
#include <zel/Device.h>
#include <zel/Model.h>
#include <zel/Verify.h>
#include <zelData/Value.h>

#include <json/value.h>
#include <pystring/pystring.h>

#include <cctype>
#include <iostream>
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

/// How many destructors of components are at work on this thread.
constinit thread_local uint32 t_destructorDepth = 0;

/// How many subtrees that have left their components are being rebound on this thread, one in another.
constinit thread_local uint32 t_detachingDepth = 0;

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

bool fits(const Object* object, const Model* model) {
    return model == nullptr || (object->getModel() != nullptr && object->getModel()->is(model));
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
    setDevice(device);
}

Component::~Component() {
    for (const ref_ptr<Object>& object : m_objects)
        object->setContext(nullptr);
    {
        const DepthScope scope(t_destructorDepth);
        removeAllObjects();
    }
    setDevice(nullptr);
}

void Component::setDevice(Device* device) {
    if (device != nullptr)
        device->reference();
    Device* old = std::exchange(m_device, device);
    if (old != nullptr)
        old->unreference();
}

Component::Chain* Component::findChain(const Name& name) const {
    if (!m_objectTable)
        return nullptr;
    const auto position = m_objectTable->find(name);
    return position == m_objectTable->end() ? nullptr : &position->value;
}

void Component::link(Object* object) {
    if (Chain* chain = findChain(object->getName())) {
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
    if (chain.head == object && chain.tail == object) {
        m_objectTable->erase(object->getName());
        return;
    }
    if (chain.head == object) {
        chain.head = object->m_nextSibling;
    } else {
        Object* before = chain.head;
        while (before->m_nextSibling != object)
            before = before->m_nextSibling;
        before->m_nextSibling = object->m_nextSibling;
        if (chain.tail == object)
            chain.tail = before;
    }
    object->m_nextSibling = nullptr;
}

void Component::trigger(EventT<Callback2<Component*, Object*>> Component::*event, Object* object) {
    (this->*event).fire(this, object);
    for (Object* above = getContext(); above != nullptr; above = above->getContext())
        if (auto* component = dynamic_cast<Component*>(above))
            (component->*event).fire(this, object);
}

void Component::addObject(Object* object, bool assignContext) {
    zelVerify(object);
    // A component inside itself would own itself; a second link to one object would tear its chain.
    zelVerifyN(object != this && !hasParent(object),
               "%s: a component can not be added below itself",
               object->getPath().c_str());
    const Chain* chain = findChain(object->getName());
    zelVerifyN(object->m_nextSibling == nullptr && (chain == nullptr || chain->tail != object),
               "%s: object is already part of a component",
               object->getPath().c_str());
    link(object);
    m_objects.push_back(object);
    if (assignContext)
        object->setContext(this);
    trigger(&Component::addObjectEvent, object);
    if (getEnableRebind()) {
        object->rebind();
        rebind();
    }
}

bool Component::isDetaching() noexcept {
    return t_detachingDepth != 0;
}

void Component::detach(const ref_ptr<Object>& object) {
    trigger(&Component::removeObjectEvent, object.get());
    object->setContext(nullptr);
    if (!getEnableRebind())
        return;
    const DepthScope scope(t_detachingDepth);
    try {
        object->rebind();
    } catch (const std::runtime_error&) {
        // What a bad model gets; the throw has logged it. The subtree of a dying component goes all the same.
        if (t_destructorDepth == 0)
            throw;
    }
}

bool Component::removeObject(Object* object) {
    const auto position = std::find_if(m_objects.begin(),
                                       m_objects.end(),
                                       [object](const ref_ptr<Object>& child) { return child == object; });
    if (position == m_objects.end())
        return false;
    const ref_ptr<Object> keep(object);
    unlink(object);
    m_objects.erase(position);
    detach(keep);
    return true;
}

bool Component::removeObject(const Name& name, size_t index) {
    Object* object = findObject(name, nullptr, index);
    return object != nullptr && removeObject(object);
}

void Component::removeAllObjects() {
    if (m_objects.empty())
        return;
    // At once rather than one by one, which would be quadratic in the number of children.
    const Vector<ref_ptr<Object>> objects(std::move(m_objects));
    m_objectTable.reset();
    for (const ref_ptr<Object>& object : objects)
        object->m_nextSibling = nullptr;
    for (const ref_ptr<Object>& object : objects)
        detach(object);
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
    for (const ref_ptr<Object>& object : m_objects)
        if (fits(object.get(), model))
            objects.push_back(object.get());
}

void Component::rebind() {
    if (m_rebindDepth > 0) {
        ++m_rebindDepth;
        return;
    }
    struct Depth {
        explicit Depth(uint64& d) : depth(d) { depth = 1; }
        Depth(const Depth&) = delete;
        Depth& operator=(const Depth&) = delete;
        ~Depth() { depth = 0; }
        uint64& depth;
    } guard(m_rebindDepth);

    for (size_t i = 0; i < m_objects.size();) {
        const ref_ptr<Object> object = m_objects[i];
        const uint64 before = m_rebindDepth;
        object->rebind();
        i = m_rebindDepth == before ? i + 1 : 0;
    }
}

Object* Component::getResourceImpl(const Path& path, Model* model) {
    if (path.empty())
        return Object::getResourceImpl(path, model);
    Path rest = path;
    if (path.root() == getName()) {
        if (!path.hasTail())
            return Object::getResourceImpl(Path(), model);
        rest = path.tail();
    }
    std::string part = rest.root().str();
    const size_t colon = part.find(':');
    if (colon != std::string::npos)
        part = pystring::strip(part.substr(0, colon));
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
    callback(this);
    for (size_t i = 0; i < m_objects.size(); ++i) {
        const ref_ptr<Object> object = m_objects[i];
        if (auto* component = dynamic_cast<Component*>(object.get()))
            component->traverse(callback);
        else
            callback(object.get());
    }
}

void Component::traverse(ComponentVisitor* visitor) {
    for (size_t i = 0; i < m_objects.size(); ++i) {
        const ref_ptr<Object> object = m_objects[i];
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
    for (const ref_ptr<Object>& object : m_objects) {
        if (const auto* component = dynamic_cast<const Component*>(object.get()))
            component->printSubtree(stream, indentation + 1);
        else
            line(object.get(), indentation + 1);
    }
}

void Component::buildNavigationTree(Json::Value& json) const {
    Object::buildNavigationTree(json);
    Json::Value& objects = json["objects"] = Json::Value(Json::arrayValue);
    for (const ref_ptr<Object>& object : m_objects) {
        Json::Value child(Json::objectValue);
        object->buildNavigationTree(child);
        objects.append(std::move(child));
    }
}

void Component::autoComplete(const String& text, Vector<String>& list) {
    for (const ref_ptr<Object>& object : m_objects)
        if (beginsWithIgnoringCase(object->getName().c_str(), text))
            list.push_back(object->getName().str());
}

Model* Component::ClassModel() {
    return Model::classModel(Model::CoreClass::Component);
}

} // namespace zel
