#include "AsciiFormat.h"
#include "FormatElement.h"
#include "ListenerLoop.h"
#include "ValueWalk.h"
#include "tree/Farewell.h"

#include <zel/Component.h>
#include <zel/Exception.h>
#include <zel/FirstException.h>
#include <zel/Log.h>
#include <zel/Model.h>
#include <zel/ScalarParameter.h>
#include <zel/Verify.h>
#include <zelData/Format.h>
#include <zelData/FunctionValue.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <stdexcept>
#include <utility>

namespace zelData {

namespace {

constexpr zel::uint32 NotOwned = 0xFFFFFFFFU;

// Bindings that destructors on the way have let go of.
constinit thread_local zel::VectorPOD<const Value*>* t_released = nullptr;

/// Gives up one reference. A value that ends with it gives up its own binding in turn: a long chain is not
/// to end in as many nested destructors.
void release(const Value* value) {
    if (t_released != nullptr) {
        t_released->push_back(value);
        return;
    }
    zel::VectorPOD<const Value*> released;
    t_released = &released;
    for (;;) {
        value->unreference();
        if (released.empty())
            break;
        value = released.back();
        released.pop_back();
    }
    t_released = nullptr;
}

} // namespace

// Events

void Value::EventListener::destroyCallback(Value*) {}
void Value::EventListener::updateCallback(Value*) {}
void Value::EventListener::bindCallback(Value*, Value*, Value*) {}

bool Value::EventDispatch::hasListener(const EventListener* listener) const {
    return m_listeners.contains(const_cast<EventListener*>(listener)); // NOLINT: only looked up
}

void Value::EventDispatch::triggerDestroyEvent(Value* value) {
    forEachListener(m_listeners, [value](EventListener* listener) { listener->destroyCallback(value); });
}

void Value::EventDispatch::triggerUpdateEvent(Value* value) {
    forEachListener(m_listeners, [value](EventListener* listener) { listener->updateCallback(value); });
}

void Value::EventDispatch::triggerBindEvent(Value* value, Value* newBinding, Value* oldBinding) {
    forEachListener(m_listeners,
                    [=](EventListener* listener) { listener->bindCallback(value, newBinding, oldBinding); });
}

zel::uint64 Value::CallbackEvent::connect(zel::Callback1<Value*> callback, bool oneShot) {
    const zel::uint64 id = EventT::connect(std::move(callback), oneShot);
    static_cast<Value*>(getSource())->updateAudible();
    return id;
}

bool Value::CallbackEvent::disconnect(zel::uint64 id) {
    const bool found = EventT::disconnect(id);
    static_cast<Value*>(getSource())->updateAudible();
    return found;
}

void Value::addListener(EventListener* listener) {
    m_eventDispatch.addListener(listener);
    updateAudible();
}

void Value::removeListener(EventListener* listener) {
    m_eventDispatch.removeListener(listener);
    updateAudible();
}

/// Brings the counts of audible dependents up to date, from here upwards.
void Value::updateAudible() {
    for (Value* value = this;; value = value->m_binding.get()) {
        const bool audible =
            value->m_transform != nullptr || value->m_numAudible != 0 || value->hasCallbacks();
        if (audible == value->m_audible)
            return;
        value->m_audible = audible;
        if (!value->m_binding)
            return;
        if (audible)
            ++value->m_binding->m_numAudible;
        else
            --value->m_binding->m_numAudible;
    }
}

// Life

Value::Value(const Type* type) : Value(zel::Name(), type) {}

Value::Value(const Format* format) : Value(zel::Name(), format) {}

Value::Value(const zel::Name& name, const Type* type)
    : Value(name, type == nullptr ? static_cast<const Format*>(nullptr) : type->getDefaultFormat()) {}

Value::Value(const zel::Name& name, const Format* format) : Object(name, ClassModel()) {
    rebindsOnDemand(typeid(Value));
    setFormat(format);
}

Value::~Value() {
    m_eventDispatch.triggerDestroyEvent(this);
    dropDependents();
    leaveBinding();
    deallocate();
    Walk::forget(this);
}

void Value::forceRemove() {
    // The tree may be the last owner; the caller of the callback that runs is not to lose the value under
    // its feet.
    const zel::ref_ptr<Value> keep(referenceCount() > 0 ? this : nullptr);
    zel::FirstException failure;
    if (auto* component = dynamic_cast<zel::Component*>(getContext()))
        failure.run([this, component] { component->removeObject(this); });
    dropDependents();
    m_propagationAborted = true;
    failure.rethrow();
}

void Value::enterOwner() noexcept {
    reference();
    m_isMember = true;
}

void Value::leaveOwner() {
    // While their callbacks can still read the value.
    zel::runWhileDestroyed(*this, [this] { announceDestruction(); });
    zel::runWhileDestroyed(*this, [this] { forceRemove(); });
    unreference_nodelete();
}

void Value::forceInvalidateDefaultFormatValue() {
    deallocate();
    m_format = nullptr;
}

/// All that follow this value lose it. Those that read its element get a fresh one: this one's may go.
void Value::dropDependents() {
    const zel::Vector<Value*> dependents(m_dependents);
    m_dependents.averagedClear();
    m_numLeft = 0;
    m_numAudible = 0;
    updateAudible();
    Walk::dependentsCleared(this);
    for (Value* dependent : dependents) {
        if (dependent == nullptr)
            continue;
        // This value may have no owner left but them, and is not to be deleted by them.
        static_cast<void>(dependent->m_binding.release_nodelete());
        if (dependent->m_ownsStorage == NotOwned)
            dependent->setStorage(nullptr);
        dependent->m_transform = nullptr;
        dependent->updateAudible();
        if (dependent->m_format && dependent->m_storage == nullptr)
            dependent->allocate();
    }
}

// Storage

void Value::allocate() {
    const zel::size_t size = m_format->getSize();
    void* const element = std::malloc(size == 0 ? 1 : size);
    zelVerifyN(element != nullptr, "%s: no memory for %lu bytes", getPath().c_str(), size);
    m_format->constructElement(element);
    setStorage(element);
    m_ownsStorage = 0;
}

namespace {

void destroy(const Format* format, void* element) {
    format->destroyElement(element);
    std::free(element);
}

} // namespace

void Value::deallocate() {
    if (m_storage == nullptr || m_ownsStorage == NotOwned)
        return;
    void* const element = m_storage;
    setStorage(nullptr);
    m_ownsStorage = NotOwned;
    destroy(m_format.get(), element);
}

// Not recursive, so that a chain may be of any length.
void Value::setStorage(void* storage) {
    m_storage = storage;
    if (m_dependents.empty())
        return;
    zel::VectorPOD<Value*> pending;
    pending.push_back(this);
    while (!pending.empty()) {
        const Value* value = pending.back();
        pending.pop_back();
        for (Value* dependent : value->m_dependents) {
            if (dependent == nullptr || dependent->m_format != value->m_format)
                continue;
            if (dependent->m_ownsStorage != NotOwned) { // until now, since nobody above had a format
                dependent->m_ownsStorage = NotOwned;
                destroy(dependent->m_format.get(), dependent->m_storage);
            }
            dependent->m_storage = storage;
            if (!dependent->m_dependents.empty())
                pending.push_back(dependent);
        }
    }
}

bool Value::isUntyped() const {
    return !m_format || m_format == Format::Auto();
}

const Type* Value::getType() const {
    return m_format ? m_format->getType() : nullptr;
}

bool Value::isTypeCompatible(const Value* other) const {
    const Type* type = getType();
    const Type* otherType = other->getType();
    return type == nullptr || otherType == nullptr || type->is(otherType);
}

void Value::verifyElement(zel::size_t size, const char* implementation) const {
    zelVerifyN(m_format && m_format->getSize() == size &&
                   std::strcmp(m_format->getImplementationName().c_str(), implementation) == 0,
               "%s: The format '%s' does not have elements of class '%s'",
               getPath().c_str(),
               m_format ? m_format->fullName().c_str() : "",
               implementation);
}

void Value::setFormat(const Format* format) {
    zelVerifyN(!m_format, "%s: TODO Allow switching format?", getPath().c_str());
    if (format != nullptr)
        takeFormat(format);
}

/// Fails, ahead of any change, if what follows this value could not be converted from the format.
void Value::verifyDependents(const Format* format) const {
    zel::VectorPOD<const Value*> pending;
    pending.push_back(this);
    while (!pending.empty()) {
        const Value* value = pending.back();
        pending.pop_back();
        for (const Value* dependent : value->m_dependents) {
            if (dependent == nullptr)
                continue;
            if (dependent->isUntyped())
                pending.push_back(dependent);
            else if (dependent->m_format != format &&
                     getTransformer(dependent->m_format.get(), format) == nullptr)
                ZEL_THROW(std::runtime_error,
                          zel::String::format("%s: Can not take the format '%s', which can not be converted "
                                              "to the format '%s' of '%s'",
                                              getPath().c_str(),
                                              format->fullName().c_str(),
                                              dependent->m_format->fullName().c_str(),
                                              dependent->getPath().c_str()));
        }
    }
}

/// Gives an untyped value a format, and passes it on to all untyped values below.
void Value::takeFormat(const Format* format) {
    if (!m_dependents.empty())
        verifyDependents(format);
    zel::VectorPOD<Value*> pending; // mostly there is none
    for (Value* value = this; value != nullptr;) {
        value->deallocate(); // of an auto-typed value
        value->m_format = format;
        for (Value* dependent : value->m_dependents) {
            if (dependent == nullptr)
                continue;
            if (dependent->isUntyped())
                pending.push_back(dependent);
            else if (dependent->m_format != format) {
                dependent->m_transform = getTransformer(dependent->m_format.get(), format);
                dependent->updateAudible();
            }
        }
        value = pending.empty() ? nullptr : pending.back();
        if (value != nullptr)
            pending.pop_back();
    }
    if (!m_binding || m_binding->m_format != m_format)
        allocate();
}

// Updates

thread_local constinit Value::Walk* Value::Walk::t_innermost = nullptr;

void Value::propagate() {
    if (m_numAudible == 0 && !hasCallbacks())
        return;
    Walk(this).run();
}

void Value::update() {
    propagate();
}

void Value::set(const void* element) {
    zelVerifyN(m_format, "%s: A value without a format can not be set", getPath().c_str());
    const zel::ref_ptr<Value> keep(m_binding); // the element may lie there
    unbind(true);
    if (m_storage == nullptr)
        allocate();
    m_format->copyElement(m_storage, element);
    propagate();
}

namespace {

/// The way from one format to another, which must exist.
TransformFunction requireTransformer(const Value* value, const Format* target, const Format* source) {
    const TransformFunction function = getTransformer(target, source);
    if (function == nullptr)
        ZEL_THROW(std::runtime_error,
                  zel::String::format("%s: Can not convert from format '%s' to format '%s'",
                                      value->getPath().c_str(),
                                      source->fullName().c_str(),
                                      target->fullName().c_str()));
    return function;
}

} // namespace

void Value::set(const Value* other) {
    zelVerifyN(other->m_storage != nullptr,
               "%s: Can not be set from '%s', which has no content",
               getPath().c_str(),
               other->getPath().c_str());
    if (isUntyped())
        takeFormat(other->m_format.get());
    if (m_format == other->m_format) {
        set(other->m_storage);
        return;
    }
    const TransformFunction function = requireTransformer(this, m_format.get(), other->m_format.get());
    const FormatElement element(m_format.get());
    function(element.data(), other->m_storage, 1);
    set(element.data());
}

void Value::setDefaultValue() {
    zelVerifyN(m_format, "%s: A value without a format has no default", getPath().c_str());
    set(m_format->getDefaultValue());
}

void Value::copy(Value* target, const Value* source) {
    target->set(source);
}

void* Value::getData() {
    return m_storage;
}

Value* Value::clone() const {
    zel::ref_ptr<Value> copy(new Value(getName(), m_format.get()));
    if (m_storage != nullptr && m_format)
        m_format->copyElement(copy->m_storage, m_storage);
    return copy.release_nodelete();
}

// Bindings

/// Fails, ahead of any change, if this value can not follow the other one.
void Value::verifyBindable(const Value* other) const {
    // A circle must lead through the dependents.
    if ((other == this || !m_dependents.empty()) && FunctionValue::follows(other, this))
        ZEL_THROW(std::runtime_error,
                  zel::String::format("%s: Can not be bound to '%s', which depends on it",
                                      getPath().c_str(),
                                      other->getPath().c_str()));
    if (other->isUntyped())
        return;
    if (isUntyped())
        verifyDependents(other->m_format.get());
    else if (m_format != other->m_format)
        static_cast<void>(requireTransformer(this, m_format.get(), other->m_format.get()));
}

void Value::joinBinding(Value* binding) {
    demandRebind();
    updateAudible(); // while no binding counts this value
    m_binding = binding;
    m_place = static_cast<zel::uint32>(binding->m_dependents.size());
    binding->m_dependents.push_back(this);
    if (m_audible) {
        ++binding->m_numAudible;
        binding->updateAudible();
    }
}

/// Leaves the place empty, and closes up when half of all are: nobody looks through thousands for one.
void Value::removeDependent(const Value* dependent) {
    m_dependents[dependent->m_place] = nullptr;
    if (++m_numLeft < (m_dependents.size() + 1) / 2)
        return;
    Walk::dependentsClosingUp(this);
    zel::uint32 place = 0;
    for (Value* present : m_dependents) {
        if (present == nullptr)
            continue;
        present->m_place = place;
        m_dependents[place++] = present;
    }
    m_dependents.resize(place);
    m_numLeft = 0;
}

zel::Vector<Value*> Value::getDependents() const {
    zel::Vector<Value*> dependents;
    for (Value* dependent : m_dependents)
        if (dependent != nullptr)
            dependents.push_back(dependent);
    return dependents;
}

/// Takes this value off the one it follows, and leaves it without the other's element.
void Value::leaveBinding() {
    if (!m_binding)
        return;
    Value* const binding = m_binding.get();
    binding->reference();
    m_binding = nullptr;
    binding->removeDependent(this);
    // One that got its format while the binding had none has an element, and no conversion.
    if (m_ownsStorage == NotOwned)
        setStorage(nullptr);
    if (m_audible) {
        --binding->m_numAudible;
        binding->updateAudible();
    }
    m_transform = nullptr;
    updateAudible();
    release(binding);
}

void Value::unbind(bool clearPath) {
    if (clearPath && !m_bindPath.empty())
        m_bindPath = zel::Path();
    if (!m_binding)
        return;
    leaveBinding();
    if (m_format && m_storage == nullptr)
        allocate();
}

void Value::bind(Value* other) {
    if (m_binding == other)
        return;
    const zel::ref_ptr<Value> keep(referenceCount() > 0 ? this : nullptr);
    const zel::ref_ptr<Value> oldBinding(m_binding);
    if (other == nullptr) {
        unbind(true);
        m_eventDispatch.triggerBindEvent(this, nullptr, oldBinding.get());
        return;
    }
    verifyBindable(other);
    const zel::ref_ptr<Value> newBinding(other);
    if (isUntyped() && !other->isUntyped()) {
        leaveBinding();
        takeFormat(other->m_format.get());
    }
    unbind(false);
    if (!other->isUntyped() && m_format != other->m_format) {
        if (m_storage == nullptr)
            allocate();
        m_transform = getTransformer(m_format.get(), other->m_format.get());
        if (other->m_storage != nullptr)
            m_transform(m_storage, other->m_storage, 1);
    } else {
        deallocate();
        if (m_format == other->m_format)
            setStorage(other->m_storage);
    }
    joinBinding(other);
    zel::FirstException failure;
    failure.run([this] { propagate(); });
    failure.run([&] { m_eventDispatch.triggerBindEvent(this, other, oldBinding.get()); });
    failure.rethrow();
}

bool Value::bind(zel::Object* object) {
    if (auto* value = dynamic_cast<Value*>(object)) {
        bind(value);
        return true;
    }
    if (const auto* parameter = dynamic_cast<zel::ScalarParameter*>(object)) {
        bind(parameter->getValue());
        return true;
    }
    const Format* pointerFormat = zelData::getFormat("ObjectPointer");
    if (isUntyped())
        takeFormat(pointerFormat);
    if (m_format != pointerFormat)
        ZEL_THROW(
            std::runtime_error,
            zel::String::format("%s: A value of format '%s' can not be bound to '%s', which is no value",
                                getPath().c_str(),
                                m_format->fullName().c_str(),
                                object == nullptr ? "" : object->getPath().c_str()));
    set(static_cast<const void*>(&object));
    return true;
}

void Value::setBindPath(const zel::Path& path) {
    demandRebind();
    m_bindPath = path;
}

void Value::bind(const zel::Path& path) {
    const zel::ref_ptr<Value> keep(referenceCount() > 0 ? this : nullptr);
    const zel::ref_ptr<Value> oldBinding(m_binding);
    const zel::Path oldPath(m_bindPath);
    setBindPath(path);
    if (!getEnableRebind())
        return;
    try {
        rebind();
    } catch (...) {
        // What the path names can not be followed. Once it is, it is a callback that has failed.
        if (m_binding == oldBinding && m_bindPath == path)
            m_bindPath = oldPath;
        throw;
    }
}

void Value::rebind() {
    if (m_bindPath.empty()) {
        if (FunctionValue* function = getFunction())
            function->rebind();
        return;
    }
    // What is not there yet may come: the path stays.
    if (zel::Object* object = getAutoScopedResource(m_bindPath))
        bind(object);
}

Value* Value::getRootBinding() {
    Value* root = this;
    while (root->m_binding)
        root = root->m_binding.get();
    return root;
}

// Text

bool Value::writeText(zel::String& text) const {
    const Format* ascii = asciiFormat(m_format.get());
    if (ascii == nullptr || m_storage == nullptr)
        return false;
    transform(&text, ascii, m_storage, m_format.get(), 1);
    return true;
}

zel::String Value::toString() const {
    zel::String text;
    if (!writeText(text))
        ZEL_LOG_WARNING(zel::String::format("No ascii format for type '%s'",
                                            getType() == nullptr ? "" : getType()->getName().c_str()));
    return text;
}

void Value::print() const {
    ZEL_LOG_INFO(getPath() << ": " << *this);
}

std::ostream& operator<<(std::ostream& stream, const Value& value) {
    if (asciiFormat(value.getFormat()) == nullptr)
        return stream << '\'' << value.getName() << "': No ascii format'";
    return stream << value.toString();
}

zel::Model* Value::ClassModel() {
    static std::atomic<zel::Model*> s_model{nullptr};
    return zel::Model::createBuiltinModel("zelData.Value", Object::ClassModel(), s_model);
}

} // namespace zelData
