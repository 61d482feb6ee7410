#pragma once

#include <zel/Component.h>
#include <zel/Export.h>
#include <zel/HashTable.h>
#include <zel/Integers.h>
#include <zel/InvalidIndex.h>
#include <zel/Name.h>
#include <zel/Range.h>
#include <zel/Vector.h>
#include <zel/Xml.h>
#include <zel/ref_ptr.h>
#include <zelData/Array.h>
#include <zelData/Attribute.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityPtr.h>
#include <zelData/EntityRange.h>

#include <iosfwd>
#include <memory>
#include <utility>

namespace zel {
class FirstException;
} // namespace zel

namespace zelStream {
class InputArchive;
class OutputArchive;
} // namespace zelStream

namespace zelData {

class Buffer;
class EntityData;
class SpareBlocks;
class Value;
template <typename T>
class ValueT;

/// Holds the instances of one entity in columns: one buffer per attribute, all of the same length. The
/// instances in use lie at the indices 0 to size - 1 without gaps, so that a loop streams over each column;
/// each instance has an id besides, which never changes while the instance lives.
///
///     index            0     1     2  |  3 ... capacity - 1
///     instance table   id 0  id 2  id 1  id 3 ...              slots from size on hold the free ids, a stack
///     idToIndex        at id: the slot that holds the id
///
/// Creation takes the id in slot `size`; destruction moves the last instance into the hole and the freed id
/// to the top of the stack, so that the last id that was freed is used next. For every slot i below the
/// capacity, idToIndex[id in slot i] is i; verifyConsistency checks it.
///
/// The size and the capacity are values in the tree, "numElements" and "capacity": whoever writes them
/// resizes the storage. A capacity below the present one is not taken.
///
/// A change that fails, for want of memory or because an initializer or a constructor throws, leaves size,
/// capacity, ids and content as they were, but for room that has been made already; more than the machine or
/// the ids can hold is a std::runtime_error that names the storage or the column. Listeners hear of what has
/// been done: what one throws is passed on when all have heard, and the change stays.
///
/// A callback may change the storage in its turn: what it has destroyed is not destroyed again, and what it
/// has created stays, but that a storage which is resized comes to the size that was asked for. It may let go
/// of the last reference to the storage, which then ends with the operation that has called it.
/// @threads owner thread: the structure changes between task executions only. Kernels write elements in
///     parallel, and add instances by beginBatch and commitBatch.
/// @cost creation and destruction of an instance: one move per column, and no allocation while it fits
class ZEL_CORE_API EntityStorage : public zel::Component {
public:
    // Records of what has happened, in <zelData/EntityStorageEvents.h>
    class InstanceEvent;
    class DestroyEvent;
    class CreateInstanceEvent;
    class CreateInstancesEvent;
    class CreateInstancesEvent2;
    class DestroyInstanceEvent;
    class DestroyInstancesEvent;
    class DestroyInstancesEvent2;
    class PermuteEvent;

    /// Learns of what happens to the instances of a storage. Not owned by it. Creation is told after the
    /// fact, destruction while the instances are still intact. A listener may remove itself, or others, while
    /// it is called.
    class ZEL_CORE_API EventListener {
    public:
        virtual ~EventListener() = default;
        // None of them does anything by default.
        virtual void destroyCallback(EntityStorage* storage);
        virtual void createInstanceCallback(EntityStorage* storage, EntityPtr instance);
        virtual void createInstancesCallback(EntityStorage* storage, EntityRange range);
        virtual void createInstancesCallback(EntityStorage* storage, Array<EntityPtr> instances);
        virtual void destroyInstanceCallback(EntityStorage* storage, EntityPtr instance);
        virtual void destroyInstancesCallback(EntityStorage* storage, EntityRange range);
        virtual void destroyInstancesCallback(EntityStorage* storage, Array<EntityPtr> instances);
        virtual void permuteCallback(EntityStorage* storage, Array<zel::uint32> permutation);
    };

    /// The listeners of one storage, in the order in which they were added. They may come and go while they
    /// are called; one that comes waits for the next event.
    class ZEL_CORE_API EventDispatch {
    public:
        /// Adding one twice does nothing.
        void addListener(EventListener* listener);
        void removeListener(EventListener* listener);
        [[nodiscard]] bool hasListener(const EventListener* listener) const;
        [[nodiscard]] bool empty() const noexcept { return m_listeners.empty(); }

        void triggerDestroyEvent(EntityStorage* storage);
        void triggerCreateInstanceEvent(EntityStorage* storage, EntityPtr instance);
        void triggerCreateInstancesEvent(EntityStorage* storage, EntityRange range);
        void triggerCreateInstancesEvent(EntityStorage* storage, Array<EntityPtr> instances);
        void triggerDestroyInstanceEvent(EntityStorage* storage, EntityPtr instance);
        void triggerDestroyInstancesEvent(EntityStorage* storage, EntityRange range);
        void triggerDestroyInstancesEvent(EntityStorage* storage, Array<EntityPtr> instances);
        void triggerPermuteEvent(EntityStorage* storage, Array<zel::uint32> permutation);

    private:
        friend class EntityStorage; // calls them with what is left when their turn comes
        template <typename Call>
        void forEach(EntityStorage* storage, const Call& call);

        zel::Vector<EventListener*> m_listeners; // null where one went away during a walk
        zel::uint32 m_numWalks = 0;
    };

    static constexpr zel::uint64 DefaultCapacity = 32;
    /// Ids and indices are 32 bits wide, and the largest stands for none.
    static constexpr zel::uint64 MaximumCapacity = 0xFFFFFFFFU;

    /// The name of the buffer from id to index.
    static const char* const IdToIndexName;
    /// The name under which a frame carries the ids of the instance table.
    static const char* const IndexToIdName;

    /// @param model  kept alive; derives from the root model, which is verified
    explicit EntityStorage(EntityModel* model, zel::uint64 capacity = DefaultCapacity);
    EntityStorage(EntityModel* model, const zel::Name& name, zel::uint64 capacity = DefaultCapacity);
    /// A storage without an entity, which has no columns; a base for storages that register their own.
    explicit EntityStorage(const zel::Name& name);
    /// For readers of frames: takes size and capacity as they are and builds no instances.
    /// @param isFrameStorage  true, which is verified
    EntityStorage(EntityModel* model,
                  const zel::Name& name,
                  bool isFrameStorage,
                  zel::uint64 size,
                  zel::uint64 capacity);
    ~EntityStorage() override;

    using Component::configure;
    /// Reads "name", the child elements "Value", "capacity" and "numElements" (an expression).
    /// @throws std::runtime_error with file and row
    void configure(zel::TiXmlElement* element) override;
    zel::Object* getResourceImpl(const zel::Path& path, zel::Model* model) override;

    // Instances

    /// Makes an instance at the end. Handles and indices of the others stay valid.
    EntityPtr createInstance();
    /// Makes n instances at the end, column by column. Above 1000 the storage reserves size + n exactly.
    EntityRange createInstances(zel::uint64 n);
    /// Destroys an instance; the last one takes its place. Listeners are called ahead of the change.
    /// @pre the id is that of a live instance, which is verified
    void destroyInstance(zel::uint32 id);
    /// Destroys the instances of a list, column by column. Handles may be repeated. Handles of another
    /// storage, null ones included, are a failed verification.
    /// @param triggerEvent  whether listeners are called
    void destroyInstances(const EntityPtr* instances, zel::uint64 n, bool triggerEvent = true);
    void destroyInstances(const EntityRange& range);
    /// Moves an instance out of the live ones, without events and without writing the size value, for code
    /// that does both itself.
    void preDestroy(const EntityPtr& instance);
    /// Destroys all instances. The ids are used again in the order in which they stand in the table.
    void clear();
    /// Destroys all instances and begins anew with id 0.
    void reset();

    /// Opens a batch: until commitBatch, no event tells of new instances. Refused while one is open.
    void beginBatch();
    /// Closes the batch with a size not below that at its beginning. Listeners learn of the new instances. A
    /// batch that cannot be brought to that size is closed without any.
    void commitBatch(zel::uint64 size);
    [[nodiscard]] bool isBatchOpen() const noexcept { return m_batchIndex != zel::InvalidIndex; }

    // Size

    [[nodiscard]] zel::uint64 size() const noexcept { return m_size; }
    [[nodiscard]] zel::uint64 capacity() const noexcept { return m_capacity; }
    [[nodiscard]] bool empty() const noexcept { return m_size == 0; }
    /// @param initialize  whether new instances get their default values and destroyed ones are destructed
    void resize(zel::uint64 n, bool initialize = true);
    /// Makes room for n instances; never gives room back.
    void reserve(zel::uint64 n);
    /// For bulk readers: reserves, and sets the size without value, events and initialisation.
    void presize(zel::uint64 size, zel::uint64 capacity);
    /// For readers that replace all content: sets size and capacity; buffers keep their memory if only the
    /// capacity changes.
    void keyFrameResize(zel::uint64 size, zel::uint64 capacity);
    /// For readers of frames: brings the storage back to a size, a capacity and a table of ids that it, or
    /// one like it, had. The same ids are alive at the same indices as then, and the ids that are created
    /// next are those that would have been created then. Of the columns, new elements get default values, for
    /// the reader to write over; columns of a storage that shares them are resized, too. No event tells of
    /// it, no instance is constructed, and a size that is bound is not written.
    /// @param idToIndex  the index of each id below the capacity, free ids included: those from `size` on
    /// @throws std::runtime_error, with nothing changed, if not each index below the capacity is that of one
    ///     id; else as resize
    void restoreInstances(zel::uint64 size, const zel::VectorPOD<zel::uint32>& idToIndex);

    /// Kernels have filled the storage, and its columns have got memory for `capacity` instances: makes the
    /// ids of the new ones. Size and capacity values follow when the batch is committed.
    void overflowCallback(zel::uint64 capacity);

    // Order

    void swapInstances(zel::uint64 index1, zel::uint64 index2);
    /// The swaps of the list one after the other, buffer by buffer.
    void swapInstances(const zel::Vector<std::pair<zel::uint32, zel::uint32>>& pairs);
    /// Exchanges the identities of two instances and leaves their data where it is.
    void swapInstanceIds(zel::uint32 id1, zel::uint32 id2);
    /// Brings the instances into another order: new element i is old element permutation[i]. Handles stay
    /// valid.
    /// @param permutation  of the length size(), with each index once, which is verified
    /// @param spares  where columns take their new memory and leave the old one, for a caller that reorders
    ///                again and again; null for the heap
    void reorder(const Array<zel::uint32>& permutation, SpareBlocks* spares = nullptr);
    void reorder(const zel::VectorPOD<zel::uint32>& permutation);
    /// The steps of reorder, for callers that spread them over jobs: preparePermutation; reorderAttributes
    /// over disjoint ranges, in parallel; commitPermutation. In between nothing may change the size, the
    /// capacity or the order, which is verified.
    void preparePermutation();
    /// @param range  of the new indices
    void reorderAttributes(const zel::IndexRange& range, const Array<zel::uint32>& permutation);
    void commitPermutation(const Array<zel::uint32>& permutation);

    /// Writes the id in each slot, the free ones too, so that ids and handles survive a save and a load; of a
    /// storage without an instance table, that there are none.
    void storePermutation(zelStream::OutputArchive& archive) const;
    /// Brings the ids back that storePermutation wrote: the instances that are created from now on get, in
    /// their order, the ids that the stored ones had, and then those that would have been created next. No
    /// event tells of it.
    /// @param skip  reads them, and leaves the storage as it is
    /// @pre the storage is empty, unless they are skipped; its capacity may be larger than the stored one
    /// @throws zelStream::ArchiveException, as extractPermutation
    void restorePermutation(zelStream::InputArchive& archive, bool skip);
    /// Reads the id of each slot.
    /// @param ids  left alone where it throws
    /// @throws zelStream::ArchiveException where the archive ends, or an id comes twice; one that is not
    ///     below the stored capacity fails a verification
    static void extractPermutation(zel::VectorPOD<zel::uint32>& ids, zelStream::InputArchive& archive);

    // Copies

    /// Makes an instance in the other storage with the content of the one here.
    /// @throws std::runtime_error where a listener has destroyed one of the two before it was copied
    EntityPtr copyInstance(zel::uint32 id, EntityStorage* target);
    /// Gives the instance `targetId` of the other storage, whose model must be this one's or one that it
    /// derives from, the content of the one here. Arrays get elements of their own.
    void copyInstance(zel::uint32 id, EntityStorage* target, zel::uint32 targetId);
    /// Moves an instance to another storage.
    /// @return its new handle
    EntityPtr transferInstance(zel::uint32 id, EntityStorage* target);
    /// Not implemented: end the process.
    [[noreturn]] static void copy(EntityStorage* target, const EntityStorage* source);
    [[noreturn]] EntityStorage* clone() const;

    // Handles

    /// The present index of an instance.
    /// @pre the id is below the capacity; not checked
    [[nodiscard]] zel::uint32 getIndex(zel::uint32 id) const noexcept {
        return m_idToIndexPtr == nullptr ? id : m_idToIndexPtr[id];
    }
    /// The id of the instance at an index.
    /// @pre the index is below the capacity; not checked
    [[nodiscard]] zel::uint32 getId(zel::uint64 index) const noexcept {
        return m_instancePtr == nullptr ? static_cast<zel::uint32>(index) : m_instancePtr[index].getId();
    }
    /// The handle of the instance at an index.
    [[nodiscard]] EntityPtr getInstance(zel::uint64 index) noexcept { return {this, getId(index)}; }
    using Component::getId;
    /// Whether the id is that of a live instance.
    [[nodiscard]] bool isAlive(zel::uint32 id) const noexcept {
        return id < m_capacity && getIndex(id) < m_size;
    }

    // Columns

    [[nodiscard]] EntityModel* getEntityModel() const noexcept { return m_entity.get(); }
    /// The column of an attribute, or null.
    [[nodiscard]] Buffer* getBuffer(const Attribute* attribute) const noexcept;
    /// The column of the attribute with the name, or a buffer that the storage has beside its columns; null
    /// if there is neither.
    [[nodiscard]] Buffer* getBuffer(const zel::Name& name) const;
    /// The first element of an attribute's column; null without one.
    [[nodiscard]] void* getElements(const Attribute* attribute) const noexcept;
    /// The first element of the instance at an index; null without a column.
    /// @pre the index is below the capacity; not checked
    [[nodiscard]] void* getElement(const Attribute* attribute, zel::uint64 index) const noexcept;
    /// By attribute id; an entry may be null.
    [[nodiscard]] const zel::Vector<zel::ref_ptr<Buffer>>& getBuffers() const noexcept { return m_buffers; }
    [[nodiscard]] Buffer* getInstanceBuffer() const noexcept { return m_instanceBuffer.get(); }
    [[nodiscard]] Buffer* getIdToIndexBuffer() const noexcept { return m_idToIndexBuffer.get(); }
    /// Makes and registers the column of an attribute; null for an attribute that has none.
    Buffer* createBuffer(Attribute* attribute);
    /// Enters a buffer that has an attribute: a free one, which becomes a column, or a column of a storage
    /// that shares its columns with this one.
    void registerBuffer(Buffer* buffer);
    /// Connects a free buffer to this storage and the attribute, and enters it.
    void explicityRegisterBuffer(Buffer* buffer, Attribute* attribute);
    void unregisterBuffer(Buffer* buffer);
    /// Gives this storage alone a further column.
    /// @param attribute  of no entity; kept alive
    void addCustomAttribute(Attribute* attribute);
    [[nodiscard]] const zel::Vector<zel::ref_ptr<Attribute>>& getCustomAttributes() const noexcept {
        return m_customAttributes;
    }

    /// Makes a storage that has instances and handles of its own over the columns of this one: when one
    /// changes its size or order, so does the other, and what one takes away or gets the other one loses or
    /// has as well. Its capacity is the default one, or the present size if that is more.
    /// @return a new storage without owner, which keeps this one alive
    [[nodiscard]] EntityStorage* createSharedStorage();

    /// The order of the instances as a user sees it, which a permutation leaves alone; made at the first call
    /// with the present order.
    Buffer* getOrCreateGlobalOrderBuffer();
    [[nodiscard]] Buffer* getGlobalOrderBuffer() const noexcept { return m_globalOrderBuffer.get(); }

    [[nodiscard]] EntityData* getData() const noexcept { return m_data.get(); }
    [[nodiscard]] ValueT<zel::uint64>* getSizeValue() const noexcept { return m_sizeValue.get(); }
    [[nodiscard]] ValueT<zel::uint64>* getCapacityValue() const noexcept { return m_capacityValue.get(); }
    /// Whether the change of size under way initialises new elements and destructs old ones.
    [[nodiscard]] bool getInitializeOnResize() const noexcept { return m_initializeOnResize; }

    [[nodiscard]] bool useInstanceTable() const noexcept { return m_useInstanceTable; }
    /// Makes the instance table anew, or drops it: without one, handles hold indices.
    void setUseInstanceTable(bool use);

    // Events

    [[nodiscard]] bool getEnableEvents() const noexcept { return m_enableEvents; }
    void setEnableEvents(bool enable) noexcept { m_enableEvents = enable; }
    using Object::addListener;
    using Object::hasListener;
    using Object::removeListener;
    /// The listener must be removed, or outlive the storage. Adding one twice does nothing.
    void addListener(EventListener* listener) { m_eventDispatch.addListener(listener); }
    void removeListener(EventListener* listener) { m_eventDispatch.removeListener(listener); }
    [[nodiscard]] bool hasListener(const EventListener* listener) const {
        return m_eventDispatch.hasListener(listener);
    }

    /// For code that creates or destroys instances by other ways than the operations above.
    [[nodiscard]] EventDispatch& getEventDispatch() noexcept { return m_eventDispatch; }

    // Diagnosis

    /// The bytes of all columns for the present capacity, with the tables of ids.
    [[nodiscard]] zel::uint64 getNumBytes() const;
    /// Ends the process unless each id leads to the slot that holds it.
    void verifyConsistency() const;
    void print(std::ostream& stream) const;
    /// The same on the standard output stream.
    void print() const;
    /// Writes size, capacity and the id in each slot on the standard output stream.
    void printInstanceTable() const;

    /// Makes the storage that an element of the tag "Entity.Storage" describes.
    /// @return a new storage without owner
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static EntityStorage* load(zel::TiXmlElement* element, zel::Device* device);
    /// The storage at an address, if there is one that lives.
    [[nodiscard]] static EntityStorage* find(const void* address);

    [[nodiscard]] static zel::Model* ClassModel();

private:
    friend class EntityModel; // gives storages a buffer for a new attribute
    friend class EntityData;
    friend class Buffer; // keeps the storage while it calls back

    class Operation;
    class Watch;
    class Victims;
    struct OwnChange;
    struct SharedStorageTag {};
    EntityStorage(EntityStorage* master, SharedStorageTag tag);

    void createValues(zel::uint64 size, zel::uint64 capacity);
    void init(zel::uint64 capacity);
    void createColumns();
    void createSharedStorages();
    void enterModel();
    void createIdToIndexBuffer();
    void addAttribute(Attribute* attribute);
    static void createElementBuffer(Buffer* buffer, Attribute* attribute);
    void connect(Buffer* buffer, Attribute* attribute);
    void forgetBuffer(const Buffer* buffer);
    void provideIds(zel::uint64 n);
    void initializeInstances(zel::uint64 begin, zel::uint64 end);
    void refreshTables();

    [[nodiscard]] EntityStorage& first() noexcept { return m_master ? *m_master : *this; }
    void hold();
    void letGo() noexcept;
    void writeSize(zel::uint64 n);
    void writeSize(zel::uint64 n, OwnChange& own);
    void resizeCallback(zel::uint64 n);
    void reserveCallback(zel::uint64 n);
    [[noreturn]] void throwTooMany() const;
    void changeSize(zel::uint64 n, bool initialize, OwnChange* own);
    void provideRoom(zel::uint64 n, zel::FirstException& failure);
    [[nodiscard]] bool isHeard();
    void tellGrowth(zel::uint64 begin, zel::uint64 end, const OwnChange* own, zel::FirstException& failure);
    void tellShrinkage(zel::uint64 n, zel::FirstException& failure);
    void tellColumns(zel::uint64 old, zel::uint64 n, bool moves, zel::FirstException& failure);
    [[nodiscard]] bool resizeColumns(zel::uint64 n, bool initialize);
    void setSize(zel::uint64 n);
    void changeCapacity(zel::uint64 n);
    void setCapacity(zel::uint64 capacity, bool family);
    void verifyTable(zel::uint64 size, const zel::VectorPOD<zel::uint32>& idToIndex) const;
    void showSize(zel::uint64 n);
    void showCapacity(zel::uint64 n);
    void syncViews();
    void constructInstances(zel::uint64 begin, zel::uint64 end, bool isHeard, zel::FirstException& failure);
    void createAtEnd(OwnChange& own, zel::FirstException& failure);
    [[nodiscard]] bool growGlobalOrder(zel::uint64 n);
    void abandonBatch() noexcept;
    [[nodiscard]] EntityPtr createInstance(zel::FirstException& failure);
    [[nodiscard]] EntityPtr createFor(zel::uint32 id, EntityStorage* target, zel::FirstException& failure);
    [[nodiscard]] EntityPtr makeCopy(zel::uint32 id, EntityStorage* target, zel::FirstException& failure);
    void
    copyContent(zel::uint32 id, EntityStorage* target, zel::uint32 targetId, zel::FirstException& failure);
    void copyObservers(zel::uint32 id, EntityStorage* target, const EntityPtr& instance) const;
    void takeBack(const EntityPtr& instance) noexcept;

    void verifyAlive(zel::uint32 id) const;
    [[nodiscard]] bool isRelative(const EntityStorage* other) const noexcept;
    [[nodiscard]] bool tellDestruction(zel::uint64& index, zel::FirstException& failure);
    template <typename IndexList>
    void destroyAt(IndexList& indices);
    [[nodiscard]] bool moveToEnd(zel::uint64 index, zel::uint64 last);
    void tellMoves(zel::FirstException& failure);
    void noteGone(zel::uint64 begin);
    [[nodiscard]] EntityStorage& withTable();
    void exchangeSlots(zel::uint64 i, zel::uint64 j) noexcept;
    void verifyNoPermutation() const {
        if (hasRelatives() || !m_permutationBuffers.empty())
            verifyNoPermutationOfFamily();
    }
    void verifyNoPermutationOfFamily() const;
    [[nodiscard]] void* prepareColumn(Buffer* buffer, SpareBlocks* spares = nullptr);
    void permuteColumn(const Buffer* buffer,
                       void* backBuffer,
                       const zel::IndexRange& range,
                       const Array<zel::uint32>& permutation) const;
    static void commitColumn(Buffer* buffer, void* backBuffer, SpareBlocks* spares);
    void verifyPermutation(const Array<zel::uint32>& permutation, zel::VectorPOD<zel::uint64>& seen) const;
    void getOrderedColumns(zel::VectorPOD<Buffer*>& columns);
    [[nodiscard]] zel::VectorPOD<Buffer*> getOrderedColumns();
    void releasePermutation() noexcept;
    void provideBlocks(const zel::VectorPOD<Buffer*>& columns,
                       zel::VectorPOD<zel::uint64>& sizes,
                       SpareBlocks& spares) const;
    void commitOrder(const Array<zel::uint32>& permutation,
                     const zel::VectorPOD<Buffer*>& columns,
                     const zel::VectorPOD<void*>& backBuffers,
                     SpareBlocks* spares);
    void permuteSlots(const Array<zel::uint32>& permutation);
    template <typename Visit>
    void forEachOwnBuffer(const Visit& visit);
    template <typename Visit>
    void forEachColumn(const Visit& visit);
    template <typename Call>
    void callForEachOwnBuffer(const Call& call);
    template <typename Visit>
    void forEachRelative(const Visit& visit);
    [[nodiscard]] bool hasRelatives() const noexcept { return m_master || !m_sharedStorages.empty(); }
    [[nodiscard]] bool firesEvents() const noexcept { return m_enableEvents && m_useInstanceTable; }

    /// Lists that a reorder needs, kept from one to the next.
    struct OrderLists {
        zel::VectorPOD<Buffer*> columns;
        zel::VectorPOD<void*> backBuffers;
        zel::VectorPOD<zel::uint64> sizes;
        zel::VectorPOD<zel::uint64> seen;
    };

    zel::ref_ptr<ValueT<zel::uint64>> m_sizeValue;
    zel::ref_ptr<ValueT<zel::uint64>> m_capacityValue;
    zel::uint64 m_size = 0;
    zel::uint64 m_capacity = 0;
    bool m_useInstanceTable = true;
    bool m_initializeOnResize = true;
    bool m_noInitializeOnce = false;
    zel::ref_ptr<EntityModel> m_entity;
    zel::HashTable<const Attribute*, zel::ref_ptr<Buffer>> m_bufferTable;
    zel::Vector<zel::ref_ptr<Buffer>> m_buffers;
    zel::ref_ptr<Buffer> m_instanceBuffer;
    zel::ref_ptr<EntityData> m_data;
    zel::Vector<zel::ref_ptr<Attribute>> m_customAttributes;
    std::unique_ptr<OrderLists> m_orderLists;   // null while a reorder has them
    zel::VectorPOD<void*> m_permutationBuffers; // of getOrderedColumns; empty unless one is under way
    zel::ref_ptr<Buffer> m_globalOrderBuffer;
    zel::Vector<EntityStorage*> m_sharedStorages; // made by createSharedStorage; not owned
    zel::uint32 m_numSizeWrites = 0;
    OwnChange* m_ownChange = nullptr; // what the update of the size value that comes next is for
    zel::uint32 m_numWatches = 0;
    zel::VectorPOD<zel::uint32> m_gone; // ids that have gone since the first of the watches began
    // Of the one whose columns the others share, or that is alone: how many operations are under way on one
    // of them, and, once one of those has called back, all of them.
    zel::uint32 m_numOperations = 0;
    zel::Vector<zel::ref_ptr<EntityStorage>> m_held;
    zel::ref_ptr<Buffer> m_idToIndexBuffer;
    Array<zel::uint32> m_idToIndex;
    zel::uint64 m_resizeCallbackId = 0;
    zel::uint64 m_reserveCallbackId = 0;
    zel::uint64 m_instanceCallbackId = 0;
    zel::uint64 m_idToIndexCallbackId = 0;
    EventDispatch m_eventDispatch;
    bool m_sizeIsShown = false; // the update of the value that comes next asks for nothing
    bool m_capacityIsShown = false;
    zel::uint64 m_batchIndex = zel::InvalidIndex;
    bool m_enableEvents = true;
    zel::ref_ptr<EntityStorage> m_master;  // of a shared storage
    zel::uint32* m_idToIndexPtr = nullptr; // the elements of the two tables
    EntityPtr* m_instancePtr = nullptr;
};

} // namespace zelData
