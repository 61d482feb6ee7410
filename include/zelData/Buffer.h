#pragma once

#include <zel/ByteAllocator.h>
#include <zel/Callback.h>
#include <zel/Component.h>
#include <zel/Event.h>
#include <zel/Export.h>
#include <zel/Range.h>
#include <zel/Vector.h>
#include <zel/observer_ptr.h>
#include <zel/ref_ptr.h>
#include <zelData/Array.h>
#include <zelData/Value.h>
#include <zelData/ValueT.h>

#include <cstring>

namespace zel {
class Container;
} // namespace zel

namespace zelData {

class Attribute;
class BufferProxyAllocator;
class EntityStorage;
class Format;
class ShareHandle;
class SpareBlocks;
class Type;

/// A column: a resizable array of elements of one format, on a device. Its number of elements and its
/// capacity are values of the tree, "numElements" and "capacity": whoever writes them, directly or by a
/// binding, resizes the buffer.
///
/// A change of size that fails, for want of memory or because an initializer throws, leaves the elements, the
/// size and the value as they were; a value that is bound goes on showing what it is bound to. Who listens
/// hears of what has been done: what a listener throws is passed on, and the change stays.
///
/// Owned through ref_ptr. A buffer that is connected to a storage follows the storage's size and capacity,
/// and leaves both alone itself.
/// @threads owner thread; kernels may write distinct elements in parallel while the size stays as it is
/// @cost growth by a half, so that appending costs O(1) on average; growth moves all elements
class ZEL_CORE_API Buffer : public zel::Component {
public:
    /// Of the element memory, in bytes.
    static constexpr zel::size_t ALIGNMENT = 64;
    /// By which the capacity exceeds the size after growth.
    static constexpr double CAPACITY_MULTIPLIER = 1.5;
    /// A hint for callers; the buffer itself allocates what it is asked for.
    static constexpr zel::uint64 MIN_BUFFER_CAPACITY = 32;

    using Range = zel::IndexRangeT<zel::uint64>;
    using ElementCallback = zel::Callback2<Buffer*, const Range&>;

    /// What happens to a buffer, as a record.
    class ZEL_CORE_API Event : public zel::Object::Event {
    public:
        explicit Event(Buffer* buffer) : m_buffer(buffer) {}
        [[nodiscard]] Buffer* getBuffer() const noexcept { return m_buffer; }

    private:
        Buffer* m_buffer;
    };
    class ZEL_CORE_API UpdateEvent : public Event {
    public:
        using Event::Event;
    };
    class ZEL_CORE_API ResizeEvent : public Event {
    public:
        ResizeEvent(Buffer* buffer, zel::uint32 oldSize, zel::uint32 newSize)
            : Event(buffer), m_oldSize(oldSize), m_newSize(newSize) {}
        [[nodiscard]] zel::uint32 getOldSize() const noexcept { return m_oldSize; }
        [[nodiscard]] zel::uint32 getNewSize() const noexcept { return m_newSize; }

    private:
        zel::uint32 m_oldSize;
        zel::uint32 m_newSize;
    };

    /// Learns of changes of a buffer. Not owned by the buffers that it listens to.
    class ZEL_CORE_API EventListener {
    public:
        EventListener() = default;
        EventListener(const EventListener&) = default;
        EventListener& operator=(const EventListener&) = default;

        /// Elements have been changed: all of them may have.
        virtual void updateCallback(Buffer* buffer);
        virtual void resizeCallback(Buffer* buffer, unsigned int oldSize, unsigned int newSize);
        virtual ~EventListener() = default;
    };

    /// The listeners of one buffer. They may come and go while they are called; one that comes waits for the
    /// next event.
    class ZEL_CORE_API EventDispatch {
    public:
        void addListener(EventListener* listener) { m_listeners.insert(listener); }
        void removeListener(EventListener* listener) { m_listeners.erase(listener); }
        [[nodiscard]] bool hasListener(const EventListener* listener) const;
        [[nodiscard]] const zel::HashSet<EventListener*>& getListeners() const noexcept {
            return m_listeners;
        }
        void triggerUpdateEvent(Buffer* buffer);
        void triggerResizeEvent(Buffer* buffer, unsigned int oldSize, unsigned int newSize);

    private:
        zel::HashSet<EventListener*> m_listeners;
    };

    /// @param format  of the elements; may not be null
    Buffer(const zel::Name& name, const Format* format);
    explicit Buffer(const Format* format);
    ~Buffer() override;

    /// Reads "numElements", an expression, and "data", the name of a dump, which is looked for beside the
    /// document; then the children.
    /// @throws std::runtime_error with file and row: a size that does not fit in memory, a dump that is not
    /// there or not of the right length
    void configure(TiXmlElement* element) override;
    /// Adds an element "Buffer", and writes the elements to a file in "buffers" below the directory.
    void snapshot(TiXmlNode* node, const zel::String& directory) override;
    /// Finds "numElements" and "capacity" also where they are the storage's, and "defaultValue" where the
    /// buffer has one of its own.
    zel::Object* getResourceImpl(const zel::Path& path, zel::Model* model) override;

    /// Moves the elements to new memory with room for `capacity`, or for all that there are if that is more.
    /// Changes neither the capacity nor the size; no event fires.
    virtual void reallocate(zel::uint64 capacity);

    // Size. Counts of elements; the values count in units of the element array size.

    [[nodiscard]] zel::uint64 size() const noexcept { return m_numElements; }
    [[nodiscard]] bool empty() const noexcept { return m_numElements == 0; }
    [[nodiscard]] zel::uint64 capacity() const noexcept { return m_capacity; }
    [[nodiscard]] zel::uint64 getNumElements() const noexcept { return m_numElements; }
    [[nodiscard]] zel::uint64 getCapacity() const noexcept { return m_capacity; }
    [[nodiscard]] zel::uint32 getLogicalSize() const noexcept { return m_logicalSize; }
    [[nodiscard]] ValueT<zel::uint64>* getNumElementsValue() const noexcept {
        return m_numElementsValue.get();
    }
    [[nodiscard]] ValueT<zel::uint64>* getCapacityValue() const noexcept { return m_capacityValue.get(); }

    /// Sets "numElements". Leaves a connected buffer as it is.
    /// @throws std::runtime_error, as every change of the values, for more than the machine's memory can hold
    /// @param initializeElements  whether new elements get the default value and dropped ones are destroyed
    void resize(zel::uint64 n, bool initializeElements = true);
    /// Sets "capacity", unless n is below the present one. Leaves a connected buffer as it is.
    void reserve(zel::uint64 n);
    /// resize(0).
    void clear() { resize(0); }
    /// Makes room, and sets the logical size to `capacity` and the number of elements to `numElements`,
    /// without events and without touching elements. For bulk readers, which write them next.
    void presize(zel::uint64 capacity, zel::uint64 numElements);
    /// Sets the capacity and allocates nothing. For journals, which track the capacity without data; a later
    /// resize makes the memory.
    void keyFrameReserve(zel::uint64 n);

    /// What updates of the two values do; a storage calls them for its buffers with its own values.
    void resizeCallback(Value* numElements);
    void reserveCallback(Value* capacity);
    /// As resizeCallback, with the storage's decision about initialising and destroying elements.
    void resizeCallback(Value* numElements, bool initializeElements);
    /// The same in fewer steps where nothing more is to do than to count, and to copy a default value: for a
    /// storage, which does it for each column of each instance.
    /// @param numElements  of the storage
    /// @return whether listeners are to hear of it, by tellColumnSize once all columns have changed
    bool resizeColumn(zel::uint64 numElements, bool initializeElements) {
        const zel::uint64 old = m_numElements;
        if (!isSimpleColumn() || numElements > old + 1 || numElements > m_capacity) {
            resizeColumnElements(numElements, initializeElements);
            return hasListeners();
        }
        m_numElements = numElements;
        m_logicalSize = static_cast<zel::uint32>(numElements);
        ++m_revision;
        if (initializeElements && numElements > old && m_elementInitializer)
            copyPlain(getElement(old), m_defaultValue->getData());
        return false;
    }
    /// Lets listeners hear of such a change, in numbers of instances.
    void tellColumnSize(zel::uint64 oldNumElements, zel::uint64 numElements);
    /// The capacity of a column for that many instances. All or nothing, as each change. Who caches the
    /// memory has still to hear of it, by signalReallocation.
    void reserveColumn(zel::uint64 numInstances);
    /// Takes back a change of a column, for a storage in which another column has failed: drops the elements
    /// above `numElements`, and gives back the number `capacity`; the memory stays. Nobody hears of it.
    void restoreColumn(zel::uint64 numElements, zel::uint64 capacity, bool destroyElements) noexcept;
    /// Makes the memory for that many elements that keyFrameReserve has left out.
    void provideMemory(zel::uint64 numElements);
    /// Moves one element of a connected buffer to another place, with all that belong to its entry.
    void moveColumnElement(zel::uint64 target, zel::uint64 source) {
        if (m_plain && m_elementsPerEntry == 1)
            copyPlain(getElement(target), getElement(source));
        else
            moveEntry(target, source);
    }

    /// The number of elements of each logical entry; 1 without a value for it.
    [[nodiscard]] zel::uint64 getElementArraySize() const noexcept { return m_elementsPerEntry; }
    /// Null unless one was set.
    [[nodiscard]] Value* getElementArraySizeValue() const noexcept { return m_elementArraySize.get(); }
    /// Copies the value into the buffer's own "elementArraySize", which is made on demand. Whoever writes
    /// that value resizes the buffer at the end: the number of entries stays.
    /// @throws std::runtime_error for a column that has instances, or that the storage drives by its own
    ///     values; the number stays as it was
    void setElementArraySize(const Value* value);

    // Elements

    [[nodiscard]] const Format* getFormat() const noexcept { return m_format.get(); }
    [[nodiscard]] const Type* getType() const;
    /// The element memory, at a multiple of ALIGNMENT; null without any. Moves when the capacity grows.
    [[nodiscard]] void* getPtr() const noexcept { return m_ptr; }
    /// @pre T is the element of the format; not checked
    template <typename T>
    [[nodiscard]] T* data() const noexcept {
        return static_cast<T*>(m_ptr);
    }
    /// @pre index is below the capacity; not checked
    [[nodiscard]] void* getElement(zel::uint64 index) const noexcept {
        return static_cast<char*>(m_ptr) + index * m_elementSize;
    }
    /// Of one element, in bytes.
    [[nodiscard]] zel::uint64 getElementSize() const noexcept { return m_elementSize; }
    /// Raised by every commit, resize and reservation.
    [[nodiscard]] zel::uint64 getRevision() const noexcept { return m_revision; }
    /// Raised whenever the element memory changes.
    [[nodiscard]] zel::uint32 getPtrRevision() const noexcept { return m_ptrRevision; }

    /// Announces that elements have been changed in place.
    void commit() {
        ++m_revision;
        if (!m_eventDispatch.getListeners().empty())
            m_eventDispatch.triggerUpdateEvent(this);
    }
    void commit(const zel::IndexRangeT<zel::uint32>& /*range*/) { commit(); }
    void commit(zel::uint32 /*index*/) { commit(); }
    void commit(const Array<zel::uint32>& /*indices*/) { commit(); }

    /// Assigns all elements of the source to the first ones of the target, which is resized if it is too
    /// small, and commits. The formats must be the same.
    static void copy(Buffer* target, const Buffer* source);
    /// Assigns n elements and commits the range. Both ranges must exist.
    static void copy(Buffer* target,
                     zel::uint64 targetOffset,
                     const Buffer* source,
                     zel::uint64 sourceOffset,
                     zel::uint64 n);
    /// Target element i takes source element indices[i]. The indices must exist.
    static void copyGather(Buffer* target, const Buffer* source, const Array<zel::uint32>& indices);
    /// Target element indices[i] takes source element i. The indices must exist.
    static void copyScatter(Buffer* target, const Buffer* source, const Array<zel::uint32>& indices);

    /// A new free buffer without owner, of the same name, format and content.
    [[nodiscard]] Buffer* clone() const;
    /// The same of some elements. A buffer with an element buffer cannot be cloned in parts.
    [[nodiscard]] Buffer* clone(const Range& range) const;
    [[nodiscard]] Buffer* clone(const Array<zel::uint32>& indices) const;
    [[nodiscard]] Buffer* clone(const zel::VectorPOD<zel::uint32>& indices) const;
    /// The buffer that this one was cloned from, or is a device's copy of; this one itself otherwise; null
    /// once the original has gone.
    [[nodiscard]] Buffer* getOriginalBuffer() const noexcept;
    void setOriginalBuffer(Buffer* original);

    /// What new elements are copies of; the default value of the format unless it was replaced.
    [[nodiscard]] Value* getDefaultValue() const noexcept { return m_defaultValue.get(); }
    /// @param value  of this buffer's format; null goes back to the format's
    void setDefaultValue(Value* value);
    /// Called with the buffer and a range of raw elements that it is to construct; empty for none. One that
    /// throws leaves no constructed element behind.
    void setElementInitializer(ElementCallback initializer) {
        m_elementInitializer = std::move(initializer);
        m_defaultInitializer = false;
    }
    /// Called with the buffer and a range of elements that it is to destroy; empty for none. Throws nothing.
    void setElementDestructor(ElementCallback destructor) {
        m_elementDestructor = std::move(destructor);
        m_defaultDestructor = false;
    }
    /// The initializer by default: copies of the default value.
    static void initializeElements(Buffer* buffer, const Range& range);
    /// The destructor by default: the format's.
    static void destroyElements(Buffer* buffer, const Range& range);

    /// Writes all elements as they lie in memory. Means something only for elements that are plain bytes.
    /// A write that fails ends the process.
    void writeBinaryDump(const zel::String& path) const;
    /// Reads all present elements. A read that fails, or comes out short, ends the process.
    void readBinaryDump(const zel::String& path);
    /// Whether the elements are plain bytes: numbers and what is made of them, and opaque blocks.
    [[nodiscard]] bool hasPlainElements() const noexcept { return m_plain; }

    /// Writes all elements to the log, one line each.
    void print() const;
    void print(const Range& range) const;

    // Memory that kernels and permutations prepare at the side. Blocks are those of the buffer's allocator.

    /// @param spares  where to look for the memory first; null for nowhere
    /// @return raw memory for `capacity` elements; null for none. Goes to swapBackBuffer or releaseBackBuffer
    [[nodiscard]] void* allocateBackBuffer(SpareBlocks* spares = nullptr);
    /// Of such a block, and of the present memory, in bytes.
    [[nodiscard]] zel::uint64 getBackBufferSize() const noexcept { return getRoom() * m_elementSize; }
    [[nodiscard]] zel::uint64 getMemorySize() const noexcept { return m_allocated * m_elementSize; }
    /// Releases the present memory, whose elements are destroyed already, and takes the other.
    /// @param spares  gets the memory in place of its release; null for nobody
    void swapBackBuffer(void* pointer, SpareBlocks* spares = nullptr);
    /// The same, and leaves signalReallocation to the caller.
    void takeBackBuffer(void* pointer, SpareBlocks* spares = nullptr);
    /// Releases raw memory of allocateBackBuffer that was not taken.
    void releaseBackBuffer(void* pointer);
    /// Gives the buffer new memory with n initialised elements and signals the reallocation. A storage's
    /// table of handles keeps its content, and the storage makes the new ones.
    /// @return the old memory, whose elements are still there, for deleteOverflowBuffer
    [[nodiscard]] void* kernelOverflowReallocation(zel::uint64 n);
    /// Destroys the n elements of such a block and releases it.
    void deleteOverflowBuffer(void* pointer, zel::uint64 n);
    /// Notes the present memory and tells those who cache the pointer.
    void signalReallocation();
    /// Lets reallocate move all slots up to the capacity, whether or not they are below the size: for a
    /// storage's table of handles, whose free ids lie behind the size.
    void setMovesWholeCapacity(bool flag) noexcept { m_movesWholeCapacity = flag; }

    // Company

    /// Makes the buffer a column of the storage: size and capacity follow the storage's from now on.
    void connect(EntityStorage* storage, Attribute* attribute);
    /// Makes a column a free buffer again, with the content that it has.
    void disconnect();
    [[nodiscard]] EntityStorage* getStorage() const noexcept { return m_storage; }
    [[nodiscard]] Attribute* getAttribute() const noexcept { return m_attribute; }
    void setAttribute(Attribute* attribute) noexcept { m_attribute = attribute; }
    /// A second buffer for what the elements of this one refer to. Becomes a child. Arrays that show its
    /// elements follow when they move.
    void setElementBuffer(Buffer* buffer);
    [[nodiscard]] Buffer* getElementBuffer() const noexcept { return m_elementBuffer.get(); }
    /// A buffer "globalOrder" of `UInt:32bit`, made on demand. Becomes a child.
    [[nodiscard]] Buffer* getOrCreateGlobalOrderBuffer();
    [[nodiscard]] Buffer* getGlobalOrderBuffer() const noexcept { return m_globalOrderBuffer.get(); }
    /// Lets an array's size, capacity and memory mirror the buffer's; null ends it. Not owned.
    void registerSharedContainer(zel::Container* container);
    [[nodiscard]] zel::Container* getSharedContainer() const noexcept { return m_sharedContainer; }
    [[nodiscard]] ShareHandle* getShareHandle() const noexcept { return m_shareHandle.get(); }

    using zel::Object::addListener;
    using zel::Object::hasListener;
    using zel::Object::removeListener;
    /// The listener must be removed, or outlive the buffer.
    void addListener(EventListener* listener) { m_eventDispatch.addListener(listener); }
    void removeListener(EventListener* listener) { m_eventDispatch.removeListener(listener); }
    [[nodiscard]] bool hasListener(const EventListener* listener) const {
        return m_eventDispatch.hasListener(listener);
    }
    [[nodiscard]] bool hasListeners() const noexcept { return !m_eventDispatch.getListeners().empty(); }

    [[nodiscard]] static zel::Model* ClassModel();
    /// Makes a buffer from an element of the tag "Buffer".
    /// @return a new buffer without owner
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static Buffer* load(TiXmlElement* element, zel::Device* device);

    /// Called at each change of the element memory, on the thread that resizes.
    zel::Event1<Buffer*> reallocationEvent;

private:
    friend class BufferProxyAllocator;
    friend class ShareHandle;

    /// Whether a change of size neither runs code of others nor looks at elements, but for default values.
    [[nodiscard]] bool isSimpleColumn() const noexcept {
        const bool plain = m_plain && m_defaultInitializer && m_defaultDestructor;
        return (plain || (!m_elementInitializer && !m_elementDestructor)) && m_elementsPerEntry == 1 &&
               m_sharedContainer == nullptr && !m_memoryOnResize && !hasListeners();
    }
    /// Copies one plain element, in words: most have one to four.
    void copyPlain(void* target, const void* source) const noexcept {
        auto* to = static_cast<char*>(target);
        const auto* from = static_cast<const char*>(source);
        zel::uint64 size = m_elementSize;
        for (; size >= 8; size -= 8, to += 8, from += 8)
            std::memcpy(to, from, 8);
        for (; size >= 4; size -= 4, to += 4, from += 4)
            std::memcpy(to, from, 4);
        for (; size != 0; --size, ++to, ++from)
            *to = *from;
    }
    void moveEntry(zel::uint64 target, zel::uint64 source);

    [[nodiscard]] zel::uint64 inElements(zel::uint64 n) const;
    [[nodiscard]] zel::uint64 inEntries(zel::uint64 n) const;
    void verifyFits(zel::uint64 n) const;
    /// For how many elements memory is made: the capacity may have been lowered below the size.
    [[nodiscard]] zel::uint64 getRoom() const noexcept {
        return m_capacity > m_numElements ? m_capacity : m_numElements;
    }
    [[noreturn]] void throwTooMany(zel::uint64 n) const;
    [[nodiscard]] void* allocateMemory(zel::uint64 n);
    void releaseMemory(void* pointer, zel::uint64 n) noexcept;
    [[nodiscard]] void* makeElements(zel::uint64 room);
    [[nodiscard]] bool movesAsBytes() const noexcept;
    void setMemory(void* pointer, zel::uint64 n);
    void runOn(const ElementCallback& callback, void* pointer, const Range& range);
    [[nodiscard]] zel::ref_ptr<Buffer> hold();
    void resizeEntries(zel::uint64 entries, bool initialize);
    void resizeColumnElements(zel::uint64 numInstances, bool initialize);
    void resizeElements(zel::uint64 n, bool initialize);
    void tellResize(zel::uint64 old, zel::uint64 n);
    void makeRoom(zel::uint64 capacity);
    void reserveElements(zel::uint64 capacity);
    void elementArraySizeCallback();
    void setElementsPerEntry(zel::uint64 n);
    void rebaseArrays(const Buffer* from, Buffer* to);
    void makeValues(zel::uint64 numElements, zel::uint64 capacity);
    void disconnectCallbacks();
    void followStorage(ValueT<zel::uint64>* own, ValueT<zel::uint64>* storage);
    void mirrorInContainer();
    [[nodiscard]] Buffer* makeClone(zel::uint64 n) const;
    void takeElementArraySize(const Buffer* other);
    void configureSize(TiXmlElement* element);
    void configureData(TiXmlElement* element);

    zel::ref_ptr<ValueT<zel::uint64>> m_numElementsValue;
    zel::ref_ptr<ValueT<zel::uint64>> m_capacityValue;
    zel::ref_ptr<ValueT<zel::uint64>> m_elementArraySize;
    zel::uint64 m_numElements = 0;
    zel::uint64 m_capacity = 0;
    zel::uint64 m_revision = 0;
    void* m_ptr = nullptr;
    zel::ByteAllocator m_allocator;
    void* m_allocatedPtr = nullptr; // as last announced
    zel::observer_ptr<Buffer> m_originalBuffer;
    zel::uint32 m_ptrRevision = 0;
    zel::uint32 m_logicalSize = 0;
    bool m_initializeOnResize = true;
    bool m_noInitializeOnce = false; // the update under way comes from resize, which has chosen
    EntityStorage* m_storage = nullptr;
    Attribute* m_attribute = nullptr;
    zel::ref_ptr<const Format> m_format;
    zel::ref_ptr<Value> m_defaultValue;
    zel::ref_ptr<Buffer> m_elementBuffer;
    zel::ref_ptr<Buffer> m_globalOrderBuffer;
    zel::Container* m_sharedContainer = nullptr;
    EventDispatch m_eventDispatch;
    ElementCallback m_elementInitializer;
    ElementCallback m_elementDestructor;

    zel::uint64 m_elementSize;
    zel::uint64 m_elementsPerEntry = 1; // what the value said when it last took effect
    zel::uint64 m_allocated = 0;        // elements that the memory has room for, whatever the capacity says
    bool m_plain;                       // see hasPlainElements
    bool m_defaultInitializer = true;
    bool m_defaultDestructor = true;
    bool m_isOwnOriginal = true;
    bool m_movesWholeCapacity = false;
    bool m_memoryOnResize = false; // the memory has less room than the capacity says
    /// A value that the buffer's callback is connected to, its own or its storage's.
    struct Connection {
        zel::ref_ptr<ValueT<zel::uint64>> value;
        zel::uint64 callbackId;
    };
    zel::Vector<Connection> m_connections;
    zel::uint64 m_arraySizeCallbackId = 0;
    zel::uint64 m_elementsCallbackId = 0; // at the element buffer, for arrays that show its elements
    zel::ref_ptr<ShareHandle> m_shareHandle;
};

} // namespace zelData
