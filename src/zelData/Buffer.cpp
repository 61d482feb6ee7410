#include "ListenerLoop.h"

#include <zel/Container.h>
#include <zel/CpuDevice.h>
#include <zel/Exception.h>
#include <zel/Model.h>
#include <zel/Verify.h>
#include <zelData/Buffer.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>
#include <zelData/GenericFormat.h>
#include <zelData/ShareHandle.h>
#include <zelData/SpareBlocks.h>
#include <zelData/Type.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <stdexcept>

namespace zelData {

using zel::uint32;
using zel::uint64;

namespace {

std::atomic<zel::Model*> s_model{nullptr};

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

bool isZero(const void* bytes, uint64 size) {
    const auto* first = static_cast<const unsigned char*>(bytes);
    return std::all_of(first, first + size, [](unsigned char byte) { return byte == 0; });
}

} // namespace

// Events

void Buffer::EventListener::updateCallback(Buffer*) {}
void Buffer::EventListener::resizeCallback(Buffer*, unsigned int, unsigned int) {}

bool Buffer::EventDispatch::hasListener(const EventListener* listener) const {
    return m_listeners.contains(const_cast<EventListener*>(listener)); // NOLINT: only looked up
}

void Buffer::EventDispatch::triggerUpdateEvent(Buffer* buffer) {
    forEachListener(m_listeners, [buffer](EventListener* listener) { listener->updateCallback(buffer); });
}

void Buffer::EventDispatch::triggerResizeEvent(Buffer* buffer, unsigned int oldSize, unsigned int newSize) {
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
    m_plain = format->getSwapFunction() != nullptr || dynamic_cast<const GenericFormat*>(format) != nullptr;
    m_defaultValue = format->getDefaultValue();
    makeValues(0, 0);
}

Buffer::~Buffer() {
    disconnectCallbacks();
    if (m_shareHandle)
        m_shareHandle->removeBuffer(this);
    registerSharedContainer(nullptr);
    if (m_ptr != nullptr && m_elementDestructor && m_numElements > 0)
        m_elementDestructor(this, Range(0, m_numElements));
    releaseMemory(m_ptr, m_allocated);
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

uint64 Buffer::getElementArraySize() const {
    return m_elementArraySize ? m_elementArraySize->get() : 1;
}

void Buffer::setElementArraySize(const Value* value) {
    if (!m_elementArraySize) {
        m_elementArraySize = new ValueT<uint64>("elementArraySize");
        addObject(m_elementArraySize.get());
    }
    static_cast<Value*>(m_elementArraySize.get())->set(value);
}

/// A number of logical entries as one of elements.
uint64 Buffer::inElements(uint64 n) const {
    uint64 elements = 0;
    if (__builtin_mul_overflow(n, getElementArraySize(), &elements))
        elements = ~uint64{0};
    verifyFits(elements);
    return elements;
}

/// How many logical entries n elements take.
uint64 Buffer::inEntries(uint64 n) const {
    const uint64 arraySize = std::max(getElementArraySize(), uint64{1});
    return n / arraySize + (n % arraySize == 0 ? 0 : 1);
}

void Buffer::verifyFits(uint64 n) const {
    uint64 bytes = 0;
    if (__builtin_mul_overflow(n, std::max(m_elementSize, uint64{1}), &bytes) || bytes > memoryLimit())
        ZEL_THROW(std::runtime_error,
                  zel::String::format("%s: %lu elements of format '%s' do not fit in memory",
                                      getPath().c_str(),
                                      n,
                                      m_format->fullName().c_str()));
}

void Buffer::resize(uint64 n, bool initializeElements) {
    if (m_storage != nullptr)
        return;
    m_initializeOnResize = initializeElements;
    m_noInitializeOnce = true;
    m_numElementsValue->set(n);
}

void Buffer::reserve(uint64 n) {
    if (m_storage == nullptr && inElements(n) >= m_capacity)
        m_capacityValue->set(n);
}

void Buffer::resizeCallback(Value* numElements) {
    const bool chosen = !m_noInitializeOnce || m_initializeOnResize;
    m_noInitializeOnce = false;
    m_initializeOnResize = true;
    resizeCallback(numElements, m_storage == nullptr ? chosen : m_storage->getInitializeOnResize());
}

void Buffer::resizeCallback(Value* numElements, bool initializeElements) {
    const uint64 entries = contentOf(numElements);
    const uint64 n = inElements(entries);
    if (m_capacity < n) {
        const auto grown = [](uint64 count) {
            return static_cast<uint64>(static_cast<double>(count) * CAPACITY_MULTIPLIER);
        };
        if (m_storage == nullptr)
            reserve(grown(entries));
        else
            reserveElements(grown(n));
    }
    resizeElements(n, initializeElements);
}

void Buffer::resizeElements(uint64 n, bool initialize) {
    if (m_memoryOnResize && n > m_allocated) {
        m_memoryOnResize = false;
        reallocate(m_capacity);
        signalReallocation();
    }
    const uint64 old = m_numElements;
    m_numElements = n;
    m_logicalSize = static_cast<uint32>(n);
    mirrorInContainer();
    if (initialize && n > old && m_elementInitializer)
        m_elementInitializer(this, Range(old, n));
    if (initialize && n < old && m_elementDestructor)
        m_elementDestructor(this, Range(n, old));
    ++m_revision;
    m_eventDispatch.triggerResizeEvent(this, static_cast<uint32>(old), static_cast<uint32>(n));
}

void Buffer::reserveCallback(Value* capacity) {
    reserveElements(inElements(contentOf(capacity)));
}

void Buffer::reserveElements(uint64 capacity) {
    verifyFits(capacity);
    if (capacity > m_capacity || (m_memoryOnResize && capacity > m_allocated))
        reallocate(capacity);
    m_capacity = capacity;
    m_memoryOnResize = m_memoryOnResize && m_capacity > m_allocated;
    mirrorInContainer();
    ++m_revision;
    signalReallocation();
}

void Buffer::presize(uint64 capacity, uint64 numElements) {
    const uint64 room = std::max(capacity, numElements);
    verifyFits(room);
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

// Memory

void* Buffer::allocateMemory(uint64 n) {
    // An element without size has an address all the same.
    return n == 0 ? nullptr
                  : m_allocator.allocateBytes(
                        std::max(zel::detail::byteCount(n, m_elementSize), zel::size_t{1}), ALIGNMENT);
}

void Buffer::releaseMemory(void* pointer, uint64 n) {
    m_allocator.deallocateBytes(pointer, n * m_elementSize);
}

void Buffer::setMemory(void* pointer, uint64 n) {
    m_ptr = pointer;
    m_allocated = n;
    ++m_ptrRevision;
}

/// Lets the callback work on other memory, which it finds in the buffer.
void Buffer::runOn(const ElementCallback& callback, void* pointer, const Range& range) {
    if (!callback || range.empty() || pointer == nullptr)
        return;
    void* const present = std::exchange(m_ptr, pointer);
    callback(this, range);
    m_ptr = present;
}

void Buffer::reallocate(uint64 capacity) {
    // The capacity may have been lowered below what there is.
    const uint64 room = std::max(capacity, m_numElements);
    void* const fresh = allocateMemory(room);
    const Range live(0, m_numElements);
    // Plain elements are overwritten by the move as they are by the default initializer.
    if (m_ptr == nullptr || !m_plain || !m_defaultInitializer) {
        if (m_elementInitializer)
            runOn(m_elementInitializer, fresh, live);
        else if (!m_plain)
            m_format->constructElements(fresh, m_numElements); // the move assigns to elements
    }
    const uint64 numMoved =
        m_movesWholeCapacity ? std::max(std::min(m_capacity, m_allocated), m_numElements) : m_numElements;
    if (m_ptr != nullptr && numMoved != 0)
        m_format->moveElements(fresh, m_ptr, numMoved);
    runOn(m_elementDestructor, m_ptr, live);
    releaseMemory(m_ptr, m_allocated);
    setMemory(fresh, room);
}

void Buffer::signalReallocation() {
    m_allocatedPtr = m_ptr;
    reallocationEvent.fire(this);
}

void* Buffer::allocateBackBuffer(SpareBlocks* spares) {
    void* const spare = spares == nullptr ? nullptr : spares->take(getRoom() * m_elementSize);
    return spare == nullptr ? allocateMemory(getRoom()) : spare;
}

void Buffer::swapBackBuffer(void* pointer, SpareBlocks* spares) {
    if (spares == nullptr)
        releaseMemory(m_ptr, m_allocated);
    else
        spares->give(m_ptr, m_allocated * m_elementSize);
    setMemory(pointer, getRoom());
    m_memoryOnResize = false;
    mirrorInContainer();
    signalReallocation();
}

void Buffer::releaseBackBuffer(void* pointer) {
    releaseMemory(pointer, getRoom());
}

void* Buffer::kernelOverflowReallocation(uint64 n) {
    verifyFits(n);
    void* const old = m_ptr;
    const uint64 oldRoom = std::min(std::max(m_capacity, m_numElements), m_allocated);
    setMemory(allocateMemory(n), n);
    // The ids of a storage are no results of kernels, which may read them meanwhile.
    if (m_movesWholeCapacity && old != nullptr)
        m_format->copyElements(m_ptr, old, std::min(oldRoom, n));
    m_numElements = m_capacity = n;
    m_logicalSize = static_cast<uint32>(n);
    m_memoryOnResize = false;
    mirrorInContainer();
    if (m_elementInitializer && n != 0)
        m_elementInitializer(this, Range(0, n));
    if (m_movesWholeCapacity && m_storage != nullptr)
        m_storage->overflowCallback(n);
    signalReallocation();
    return old;
}

void Buffer::deleteOverflowBuffer(void* pointer, uint64 n) {
    runOn(m_elementDestructor, pointer, Range(0, n));
    releaseMemory(pointer, n);
}

void Buffer::initializeElements(Buffer* buffer, const Range& range) {
    const void* element = buffer->m_defaultValue->getData();
    void* const first = buffer->getElement(range.begin());
    if (buffer->m_plain && isZero(element, buffer->m_elementSize))
        std::memset(first, 0, range.size() * buffer->m_elementSize);
    else
        buffer->m_format->initializeElements(first, element, range.size());
}

void Buffer::destroyElements(Buffer* buffer, const Range& range) {
    if (!buffer->m_plain)
        buffer->m_format->destroyElements(buffer->getElement(range.begin()), range.size());
}

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
    const uint64 count = getElementArraySize();
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
    if (m_elementBuffer)
        removeObject(m_elementBuffer.get());
    m_elementBuffer = buffer;
    if (buffer != nullptr)
        addObject(buffer);
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
    return zel::Model::createBuiltinModel("zelData.Buffer", Component::ClassModel(), s_model);
}

} // namespace zelData
