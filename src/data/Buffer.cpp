#include "ListenerLoop.h"
#include "RestoreContent.h"

#include <zel/Container.h>
#include <zel/CpuDevice.h>
#include <zel/Exception.h>
#include <zel/FirstException.h>
#include <zel/Model.h>
#include <zel/Verify.h>
#include <zelData/ArrayFormat.h>
#include <zelData/Buffer.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>
#include <zelData/ShareHandle.h>
#include <zelData/Type.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>

namespace zelData {

using zel::uint32;
using zel::uint64;

namespace {

const zel::Name& numElementsName() {
    static const zel::Name name("numElements");
    return name;
}

const zel::Name& capacityName() {
    static const zel::Name name("capacity");
    return name;
}

uint64 contentOf(Value* value) {
    const void* content = value->getData();
    zelVerifyN(content != nullptr, "%s: The value has no content", value->getPath().c_str());
    return *static_cast<const uint64*>(content);
}

/// More can not be held, whatever the system would promise: twice the machine's memory, in bytes.
uint64 memoryLimit() {
    static const uint64 bytes = [] {
        const long pages = sysconf(_SC_PHYS_PAGES);
        const long size = sysconf(_SC_PAGESIZE);
        return pages > 0 && size > 0 ? 2 * static_cast<uint64>(pages) * static_cast<uint64>(size)
                                     : uint64{1} << 47;
    }();
    return bytes;
}

} // namespace

// Events

void Buffer::EventListener::updateCallback(Buffer*) {}
void Buffer::EventListener::resizeCallback(Buffer*, unsigned int, unsigned int) {}

bool Buffer::EventDispatch::hasListener(const EventListener* listener) const {
    return m_listeners.contains(const_cast<EventListener*>(listener)); // NOLINT: only looked up
}

void Buffer::EventDispatch::triggerUpdateEvent(Buffer* buffer) {
    const zel::ref_ptr<Buffer> keep(buffer->hold());
    forEachListener(m_listeners, [buffer](EventListener* listener) { listener->updateCallback(buffer); });
}

void Buffer::EventDispatch::triggerResizeEvent(Buffer* buffer, unsigned int oldSize, unsigned int newSize) {
    const zel::ref_ptr<Buffer> keep(buffer->hold());
    forEachListener(m_listeners,
                    [=](EventListener* listener) { listener->resizeCallback(buffer, oldSize, newSize); });
}

// Life

Buffer::Buffer(const Format* format) : Buffer(zel::Name(), format) {}

Buffer::Buffer(const zel::Name& name, const Format* format)
    : Component(name, ClassModel(), zel::CpuDevice::instance())
    , m_format(format)
    , m_elementInitializer(&Buffer::initializeElements)
    , m_elementDestructor(&Buffer::destroyElements) {
    zelVerify(format);
    m_elementSize = format->getSize();
    m_plain = format->hasPlainElements();
    m_defaultValue = format->getDefaultValue();
    makeValues(0, 0);
}

Buffer::~Buffer() {
    disconnectCallbacks();
    if (m_elementArraySize)
        m_elementArraySize->updateEvent.disconnect(m_arraySizeCallbackId);
    setElementBuffer(nullptr); // it may outlive this one
    if (m_shareHandle)
        m_shareHandle->removeBuffer(this);
    registerSharedContainer(nullptr);
    if (m_ptr != nullptr && m_elementDestructor && m_numElements > 0)
        m_elementDestructor(this, Range(0, m_numElements));
    releaseMemory(m_ptr, m_allocated);
}

/// Keeps the buffer, and the storage whose operation is under way, while callbacks run: they may let go of
/// the last references. One that nobody owns is left to itself.
zel::ref_ptr<Buffer> Buffer::hold() {
    // The tables that a storage has beside its columns are its children.
    if (auto* storage = m_storage != nullptr ? m_storage : dynamic_cast<EntityStorage*>(getContext()))
        storage->hold();
    return referenceCount() > 0 ? this : nullptr;
}

void Buffer::makeValues(uint64 numElements, uint64 capacity) {
    m_numElementsValue = new ValueT<uint64>(numElementsName(), inEntries(numElements));
    m_capacityValue = new ValueT<uint64>(capacityName(), inEntries(capacity));
    addObject(m_numElementsValue.get());
    addObject(m_capacityValue.get());
    m_connections.push_back(
        {m_numElementsValue,
         m_numElementsValue->updateEvent.connect([this](Value* value) { resizeCallback(value); })});
    m_connections.push_back({m_capacityValue, m_capacityValue->updateEvent.connect([this](Value* value) {
                                 reserveCallback(value);
                             })});
}

void Buffer::disconnectCallbacks() {
    for (const Connection& connection : m_connections)
        connection.value->updateEvent.disconnect(connection.callbackId);
    m_connections.clear();
}

zel::Object* Buffer::getResourceImpl(const zel::Path& path, zel::Model* model) {
    if (zel::Object* object = Component::getResourceImpl(path, model))
        return object;
    const zel::Path rest = path.hasTail() && path.root() == getName() ? path.tail() : path;
    Value* value = nullptr;
    if (rest == numElementsName())
        value = m_numElementsValue.get();
    else if (rest == capacityName())
        value = m_capacityValue.get();
    else if (rest == zel::Path("defaultValue") && m_defaultValue != m_format->getDefaultValue())
        value = m_defaultValue.get();
    return value == nullptr ? nullptr : value->getResourceImpl(zel::Path(), model);
}

const Type* Buffer::getType() const {
    return m_format->getType();
}

// Size

void Buffer::setElementArraySize(const Value* value) {
    if (!m_elementArraySize) {
        m_elementArraySize = new ValueT<uint64>("elementArraySize", 1);
        m_arraySizeCallbackId =
            m_elementArraySize->updateEvent.connect([this](Value*) { elementArraySizeCallback(); });
        addObject(m_elementArraySize.get());
    }
    static_cast<Value*>(m_elementArraySize.get())->set(value);
}

void Buffer::elementArraySizeCallback() {
    const uint64 n = m_elementArraySize->get();
    if (n == m_elementsPerEntry)
        return;
    const zel::ref_ptr<Buffer> keep(hold());
    try {
        setElementsPerEntry(n);
    } catch (...) {
        restoreContent(*m_elementArraySize, m_elementsPerEntry);
        throw;
    }
}

void Buffer::setElementsPerEntry(uint64 n) {
    // The elements of an instance would not be where they were, and the storage's own values do not multiply.
    if (m_storage != nullptr && (m_numElements != 0 || m_numElementsValue == m_storage->getSizeValue()))
        ZEL_THROW(std::runtime_error,
                  zel::String::format("%s: The number of elements of each instance, %lu, can not become %lu "
                                      "in a column of a storage",
                                      getPath().c_str(),
                                      m_elementsPerEntry,
                                      n));
    // Entries of no elements are counted by the values alone.
    const bool counts = m_elementsPerEntry != 0;
    const uint64 entries = counts ? inEntries(m_numElements) : m_numElementsValue->get();
    const uint64 capacity = std::max(counts ? inEntries(m_capacity) : m_capacityValue->get(), entries);
    const uint64 oldSize = m_numElements;
    const uint64 oldCapacity = m_capacity;
    const uint64 old = std::exchange(m_elementsPerEntry, n);
    try {
        const uint64 elements = inElements(entries);
        const uint64 room = inElements(capacity);
        if (elements < oldSize)
            resizeElements(elements, true);
        makeRoom(room);
        if (elements > oldSize)
            resizeElements(elements, true);
    } catch (...) {
        m_elementsPerEntry = old;
        m_capacity = oldCapacity;
        mirrorInContainer();
        throw;
    }
    const uint64 size = m_numElements;
    zel::FirstException failure;
    failure.run([this] { signalReallocation(); });
    if (size != oldSize)
        failure.run([=, this] { tellResize(oldSize, size); });
    failure.rethrow();
}

/// A number of logical entries as one of elements.
uint64 Buffer::inElements(uint64 n) const {
    uint64 elements = 0;
    if (__builtin_mul_overflow(n, m_elementsPerEntry, &elements))
        elements = ~uint64{0};
    verifyFits(elements);
    return elements;
}

/// How many logical entries n elements take.
uint64 Buffer::inEntries(uint64 n) const {
    const uint64 arraySize = std::max(m_elementsPerEntry, uint64{1});
    return n / arraySize + (n % arraySize == 0 ? 0 : 1);
}

void Buffer::verifyFits(uint64 n) const {
    uint64 bytes = 0;
    if (__builtin_mul_overflow(n, std::max(m_elementSize, uint64{1}), &bytes) || bytes > memoryLimit())
        throwTooMany(n);
}

void Buffer::throwTooMany(uint64 n) const {
    ZEL_THROW(std::runtime_error,
              zel::String::format("%s: %lu elements of format '%s' do not fit in memory",
                                  getPath().c_str(),
                                  n,
                                  m_format->fullName().c_str()));
}

void Buffer::resize(uint64 n, bool initializeElements) {
    if (m_storage != nullptr)
        return;
    static_cast<void>(inElements(n)); // refused ahead of any change
    const zel::ref_ptr<Buffer> keep(hold());
    m_initializeOnResize = initializeElements;
    m_noInitializeOnce = true;
    setOrStay(*m_numElementsValue, n);
}

void Buffer::reserve(uint64 n) {
    if (m_storage != nullptr || inElements(n) < m_capacity)
        return;
    const zel::ref_ptr<Buffer> keep(hold());
    setOrStay(*m_capacityValue, n);
}

void Buffer::resizeCallback(Value* numElements) {
    const bool chosen = !m_noInitializeOnce || m_initializeOnResize;
    m_noInitializeOnce = false;
    m_initializeOnResize = true;
    resizeCallback(numElements, m_storage == nullptr ? chosen : m_storage->getInitializeOnResize());
}

void Buffer::resizeCallback(Value* numElements, bool initializeElements) {
    const zel::ref_ptr<Buffer> keep(hold());
    // A callback may have asked for another size meanwhile, and the value shows what holds.
    const auto showSize = [this, numElements] {
        if (numElements == m_numElementsValue.get() && m_storage == nullptr && m_elementsPerEntry != 0)
            restoreContent(*m_numElementsValue, inEntries(m_numElements));
    };
    try {
        resizeEntries(contentOf(numElements), initializeElements);
    } catch (...) {
        showSize();
        throw;
    }
    showSize();
}

namespace {

uint64 withReserve(uint64 count) {
    return static_cast<uint64>(static_cast<double>(count) * Buffer::CAPACITY_MULTIPLIER);
}

} // namespace

void Buffer::resizeEntries(uint64 entries, bool initializeElements) {
    const uint64 n = inElements(entries);
    zel::FirstException failure;
    if (m_capacity < n) {
        failure.run([&] {
            if (m_storage == nullptr)
                reserve(withReserve(entries));
            else
                reserveElements(withReserve(n));
        });
        if (m_capacity < n)
            failure.rethrow(); // otherwise the room is there, and a callback has thrown
    }
    const uint64 old = m_numElements;
    const void* const memory = m_ptr;
    resizeElements(n, initializeElements);
    if (m_ptr != memory)
        failure.run([this] { signalReallocation(); });
    failure.run([=, this] { tellResize(old, n); });
    failure.rethrow();
}

void Buffer::resizeColumnElements(uint64 numInstances, bool initializeElements) {
    const uint64 n = inElements(numInstances);
    const void* const memory = m_ptr;
    if (m_capacity < n)
        makeRoom(withReserve(n));
    resizeElements(n, initializeElements);
    if (m_ptr != memory)
        signalReallocation();
}

void Buffer::tellResize(uint64 old, uint64 n) {
    if (hasListeners())
        m_eventDispatch.triggerResizeEvent(this, static_cast<uint32>(old), static_cast<uint32>(n));
}

void Buffer::tellColumnSize(uint64 oldNumElements, uint64 numElements) {
    tellResize(inElements(oldNumElements), inElements(numElements));
}

/// Nobody hears of it yet.
void Buffer::resizeElements(uint64 n, bool initialize) {
    // Initializers are code of others.
    const zel::ref_ptr<Buffer> keep(initialize && !(m_defaultInitializer && m_defaultDestructor) ? hold()
                                                                                                 : nullptr);
    if (m_memoryOnResize && n > m_allocated)
        reallocate(std::max(m_capacity, n));
    const uint64 old = m_numElements;
    m_numElements = n;
    m_logicalSize = static_cast<uint32>(n);
    mirrorInContainer();
    if (initialize && n > old && m_elementInitializer) {
        try {
            m_elementInitializer(this, Range(old, n));
        } catch (...) {
            m_numElements = old;
            m_logicalSize = static_cast<uint32>(old);
            mirrorInContainer();
            throw;
        }
    }
    if (initialize && n < old && m_elementDestructor)
        m_elementDestructor(this, Range(n, old));
    ++m_revision;
}

void Buffer::reserveCallback(Value* capacity) {
    const zel::ref_ptr<Buffer> keep(hold());
    const auto showCapacity = [this, capacity] {
        if (capacity == m_capacityValue.get() && m_storage == nullptr && m_elementsPerEntry != 0)
            restoreContent(*m_capacityValue, inEntries(m_capacity));
    };
    try {
        reserveElements(inElements(contentOf(capacity)));
    } catch (...) {
        showCapacity();
        throw;
    }
    showCapacity();
}

void Buffer::reserveColumn(uint64 numInstances) {
    makeRoom(inElements(numInstances));
}

void Buffer::restoreColumn(uint64 numElements, uint64 capacity, bool destroyElements) noexcept {
    m_capacity = capacity;
    const uint64 old = m_numElements;
    if (numElements < old) {
        m_numElements = numElements;
        m_logicalSize = static_cast<uint32>(numElements);
        if (destroyElements && m_elementDestructor)
            m_elementDestructor(this, Range(numElements, old));
    }
    mirrorInContainer();
    ++m_revision;
}

void Buffer::provideMemory(uint64 numElements) {
    if (m_memoryOnResize && numElements > m_allocated)
        reserveElements(std::max(numElements, m_capacity));
}

void Buffer::reserveElements(uint64 capacity) {
    makeRoom(capacity);
    signalReallocation();
}

void Buffer::makeRoom(uint64 capacity) {
    verifyFits(capacity);
    if (capacity > m_capacity || (m_memoryOnResize && capacity > m_allocated))
        reallocate(capacity);
    m_capacity = capacity;
    m_memoryOnResize = m_memoryOnResize && m_capacity > m_allocated;
    mirrorInContainer();
    ++m_revision;
}

void Buffer::presize(uint64 capacity, uint64 numElements) {
    const uint64 room = std::max(capacity, numElements);
    verifyFits(room);
    const zel::ref_ptr<Buffer> keep(hold());
    const auto tooSmall = [this, room] {
        return room > m_capacity || (m_memoryOnResize && room > m_allocated);
    };
    if (tooSmall() && m_storage == nullptr)
        reserve(inEntries(room));
    if (tooSmall())
        reserveElements(room);
    m_logicalSize = static_cast<uint32>(capacity);
    m_numElements = numElements;
    mirrorInContainer();
}

void Buffer::keyFrameReserve(uint64 n) {
    m_capacity = inElements(n);
    m_memoryOnResize = m_capacity > m_allocated;
}

// Default values

void Buffer::setDefaultValue(Value* value) {
    Value* const chosen = value == nullptr ? m_format->getDefaultValue() : value;
    zelVerifyN(chosen->getFormat() == m_format.get() && chosen->getData() != nullptr,
               "%s: The default value is of format '%s' and the buffer of format '%s'",
               getPath().c_str(),
               chosen->getFormat() == nullptr ? "" : chosen->getFormat()->fullName().c_str(),
               m_format->fullName().c_str());
    m_defaultValue = chosen;
}

void Buffer::moveEntry(uint64 target, uint64 source) {
    const uint64 count = m_elementsPerEntry;
    if (count == 1)
        m_format->moveElement(getElement(target), getElement(source));
    else
        m_format->moveElements(getElement(target * count), getElement(source * count), count);
}

// Company

void Buffer::registerSharedContainer(zel::Container* container) {
    m_sharedContainer = container;
    mirrorInContainer();
}

void Buffer::mirrorInContainer() {
    if (m_sharedContainer == nullptr)
        return;
    m_sharedContainer->m_size = m_numElements;
    m_sharedContainer->m_capacity = m_capacity;
    m_sharedContainer->m_buffer = m_ptr;
}

void Buffer::setElementBuffer(Buffer* buffer) {
    if (m_elementBuffer == buffer)
        return;
    if (m_elementBuffer) {
        m_elementBuffer->reallocationEvent.disconnect(m_elementsCallbackId);
        removeObject(m_elementBuffer.get());
    }
    m_elementBuffer = buffer;
    if (buffer == nullptr)
        return;
    addObject(buffer);
    if (dynamic_cast<const ArrayFormat*>(m_format.get()) != nullptr)
        m_elementsCallbackId =
            buffer->reallocationEvent.connect([this](Buffer* moved) { rebaseArrays(moved, moved); });
}

/// Lets the arrays among the elements that show the one buffer show the other one's memory.
void Buffer::rebaseArrays(const Buffer* from, Buffer* to) {
    auto* const arrays = data<AbstractArray>();
    for (uint64 i = 0; i < m_numElements; ++i)
        if (arrays[i].buffer() == from)
            arrays[i].bind(to, arrays[i].range());
}

Buffer* Buffer::getOrCreateGlobalOrderBuffer() {
    if (!m_globalOrderBuffer) {
        m_globalOrderBuffer = new Buffer("globalOrder", zelData::getFormat("UInt:32bit"));
        addObject(m_globalOrderBuffer.get());
    }
    return m_globalOrderBuffer.get();
}

Buffer* Buffer::getOriginalBuffer() const noexcept {
    return m_isOwnOriginal ? const_cast<Buffer*>(this) : m_originalBuffer.get(); // NOLINT: this one itself
}

void Buffer::setOriginalBuffer(Buffer* original) {
    m_isOwnOriginal = original == this;
    m_originalBuffer = m_isOwnOriginal ? nullptr : original;
}

zel::Model* Buffer::ClassModel() {
    static std::atomic<zel::Model*> s_model{nullptr};
    return zel::Model::createBuiltinModel("zelData.Buffer", Component::ClassModel(), s_model);
}

} // namespace zelData
