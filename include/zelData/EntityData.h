#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Object.h>
#include <zel/Range.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelData/Array.h>

namespace zelData {

class Attribute;
class Buffer;
class EntityModel;
class EntityStorage;
class SharedAttribute;
class Value;

/// A view of a whole storage: the number of instances, and an array for each attribute that a derived class
/// binds. The arrays follow when the storage grows or its columns move.
///
/// Belongs to its storage, which keeps it up to date; empty once the storage is gone.
/// @threads owner thread for changes; kernels read and write through the arrays in parallel, on disjoint
/// indices
class ZEL_CORE_API EntityData : public zel::Object {
public:
    /// An empty view.
    EntityData();
    explicit EntityData(EntityStorage* storage);
    ~EntityData() override;

    /// Gives the view and all its arrays another size. Called by the storage.
    virtual void setNumElements(unsigned int numElements);
    /// Called when the value of a shared attribute has changed. The base class has nothing to do: its
    /// bindings read the value itself.
    virtual void synchronizeSharedAttribute(Value* value);

    [[nodiscard]] zel::uint32 getNumElements() const noexcept { return m_numElements; }
    [[nodiscard]] EntityStorage* getStorage() const noexcept { return m_storage; }
    /// The entity of the storage; null without one.
    [[nodiscard]] EntityModel* getModel() const;

    /// Makes room for an array under the attribute. A slot may be taken once.
    /// @param array  must outlive the registration
    void registerArray(const Attribute* attribute, AbstractArray* array);
    /// Lets go of the attribute's array, which is left empty. Does nothing without one.
    void unregisterArray(const Attribute* attribute);
    /// The array that is registered under the attribute, or null.
    [[nodiscard]] AbstractArray* getArray(const Attribute* attribute) const;
    /// The number of elements of each instance in that array; 1 without one.
    [[nodiscard]] zel::uint32 getArraySize(const Attribute* attribute) const;
    /// Lets the attribute's array show the elements of the buffer from now on, wherever they move.
    void bind(const Attribute* attribute, Buffer* buffer);
    /// Lets the view know of each change of the shared attribute's value.
    void bind(const SharedAttribute* attribute, Value* value);
    /// The value that is bound to the shared attribute, or null.
    [[nodiscard]] Value* getSharedValue(const SharedAttribute* attribute) const;

    /// Shows the buffer as the storage's global order. Refused, as a failed verification, if there is one.
    void setGlobalOrderBuffer(Buffer* buffer);
    /// Empty unless the storage has a global order.
    [[nodiscard]] const Array<zel::uint32>& getGlobalOrder() const noexcept { return m_globalOrder; }

    /// Reads the size and all pointers anew.
    void sync();

    /// Makes room for kernels that add instances: opens a batch in the storage and resizes it to n, rounded
    /// up to a multiple of the batch size. The view keeps its number of elements; EntityStorage::commitBatch
    /// ends it.
    /// @param n  not below the number of elements
    void presize(zel::uint32 n);
    [[nodiscard]] zel::uint32 getInstanceBatchSize() const noexcept { return m_instanceBatchSize; }
    /// @param n  at least 1
    void setInstanceBatchSize(zel::uint32 n);
    /// Whether presize has been called and the batch is still open.
    [[nodiscard]] bool isBatchActive() const noexcept { return m_batchActive; }

    [[nodiscard]] static zel::Model* ClassModel();

private:
    friend class EntityStorage; // detaches the view when it goes

    /// What an array shows, and the callback that keeps it up to date.
    struct Column {
        zel::ref_ptr<Buffer> buffer;
        zel::uint64 callbackId = 0;
        zel::uint32 numElements = 1; // of each instance
        const Attribute* attribute = nullptr;
    };
    struct SharedValue {
        const SharedAttribute* attribute;
        zel::ref_ptr<Value> value;
        zel::uint64 callbackId;
    };

    [[nodiscard]] zel::IndexRangeT<zel::uint32> getOrderRange() const;
    void connect(Column& column, Buffer* buffer);
    static void disconnect(Column& column);
    void disconnectAll();
    void detach();
    void release(const Buffer* buffer);
    void realloactionCallback(Buffer* buffer);

    zel::uint32 m_numElements = 0;
    EntityStorage* m_storage = nullptr;
    zel::Vector<AbstractArray*> m_bindings; // by attribute id
    zel::Vector<SharedValue> m_sharedValues;
    Array<zel::uint32> m_globalOrder;
    zel::uint32 m_instanceBatchSize = 64;
    bool m_batchActive = false;
    zel::Vector<Column> m_columns; // of m_bindings
    Column m_globalOrderColumn;
};

} // namespace zelData
