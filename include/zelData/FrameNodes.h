#pragma once

#include <zel/Component.h>
#include <zel/Export.h>
#include <zel/HashTable.h>
#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/ref_ptr.h>
#include <zelData/Frame.h>

/// @file
/// The nodes that stand in frames alone.

namespace zelData {

class Buffer;
class EntityModel;
class Format;

/// Some elements of a buffer: element i of the data belongs at place index[i] of the whole. Both buffers are
/// children, named "index" and "data", and have the same size.
/// @threads external lock
class ZEL_CORE_API Frame::PartialBuffer : public zel::Component {
public:
    /// @param indexBuffer  of `UInt:64bit`
    /// @param dataBuffer   of the same size
    /// @param fullSize     the number of elements of the whole
    PartialBuffer(const zel::Name& name, Buffer* indexBuffer, Buffer* dataBuffer, zel::uint64 fullSize);
    /// Without data: for one whose elements are set later.
    PartialBuffer(const zel::Name& name, zel::uint64 numElements, zel::uint64 fullSize);
    PartialBuffer(const zel::Name& name, const Format* format, zel::uint64 numElements, zel::uint64 fullSize);
    ~PartialBuffer() override;

    [[nodiscard]] Buffer* getIndexBuffer() const noexcept { return m_indexBuffer.get(); }
    /// Null until there is one.
    [[nodiscard]] Buffer* getDataBuffer() const noexcept { return m_dataBuffer.get(); }
    /// Names the buffer "data" and takes it in place of the present one.
    void setDataBuffer(Buffer* buffer);
    [[nodiscard]] zel::uint64 getFullSize() const noexcept { return m_fullSize; }
    void setFullSize(zel::uint64 n) noexcept { m_fullSize = n; }
    /// The number of elements that are here.
    [[nodiscard]] zel::uint64 size() const;
    /// Resizes both buffers, which keep their content.
    void resize(zel::uint64 n);
    /// A new partial buffer without owner, of the same name and content.
    [[nodiscard]] PartialBuffer* clone() const;
    /// Adds the elements of the other one that are not here yet; those that are here stay as they are.
    /// @param overwrite  whether an element that both have, and one above the other's full size, is no
    ///     collision: the first stays as it is here, and the second is dropped
    /// @throws MergeException
    void merge(const PartialBuffer* other, bool overwrite);

    [[nodiscard]] static zel::Model* ClassModel();

private:
    zel::ref_ptr<Buffer> m_indexBuffer;
    zel::ref_ptr<Buffer> m_dataBuffer;
    zel::uint64 m_fullSize;
};

/// A storage of the simulation as it was: its columns are the children, and the two tables of ids.
/// @threads external lock
class ZEL_CORE_API Frame::EntityStorage : public zel::Component {
public:
    /// Takes name, model, size, capacity and object id of a storage, and no columns.
    explicit EntityStorage(const zelData::EntityStorage* storage);
    EntityStorage(const zel::Name& name, EntityModel* model, zel::uint64 size, zel::uint64 capacity);
    ~EntityStorage() override;

    /// A buffer becomes a column, with as many elements for each instance as the model says of the attribute
    /// of its name, or else as it has for each of the present instances; one named as a table of ids becomes
    /// that.
    void addObject(zel::Object* object, bool assignContext = true) override;
    using Component::removeObject;
    bool removeObject(zel::Object* object) override;

    [[nodiscard]] EntityModel* getModel() const noexcept { return m_model.get(); }
    /// The number of instances.
    [[nodiscard]] zel::uint64 size() const noexcept { return m_size; }
    [[nodiscard]] zel::uint64 capacity() const noexcept { return m_capacity; }
    /// These two set the number and nothing else.
    void setSize(zel::uint64 n) noexcept { m_size = n; }
    void setCapacity(zel::uint64 n) noexcept { m_capacity = n; }
    /// The index of each id, and the id at each index; null without one.
    [[nodiscard]] Buffer* getIdToIndexBuffer() const noexcept { return m_idToIndex; }
    [[nodiscard]] Buffer* getIndexToIdBuffer() const noexcept { return m_indexToId; }

    /// Resizes the columns, which keep their content, and not the tables of ids.
    void resize(zel::uint64 n);
    /// Notes the capacity.
    void reserve(zel::uint64 n) noexcept { m_capacity = n; }
    /// What the destruction of an instance does to the columns and tables: the last one takes its place.
    void destroyInstance(zel::uint32 id);

    [[nodiscard]] static zel::Model* ClassModel();

private:
    zel::ref_ptr<EntityModel> m_model;
    zel::uint64 m_size;
    zel::uint64 m_capacity;
    Buffer* m_idToIndex = nullptr; // children, as the columns
    Buffer* m_indexToId = nullptr;
    zel::HashTable<Buffer*, zel::uint64> m_columns; // with the elements for each instance
};

} // namespace zelData
