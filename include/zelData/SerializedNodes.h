#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/Referenced.h>
#include <zel/String.h>
#include <zel/Vector.h>
#include <zel/Xml.h>
#include <zel/ref_ptr.h>
#include <zelData/BinaryData.h>
#include <zelData/SerializedFrame.h>

#include <iosfwd>

/// @file
/// The nodes of a serialized frame.

namespace zelData {

class EntityModel;
class Format;

/// A node of the tree. Owned by its parent.
/// @threads external lock
class ZEL_CORE_API SerializedFrame::Node : public zel::Referenced {
public:
    enum Type : zel::uint32 {
        ValueType = 0,
        BufferType = 1,
        ComponentType = 2,
        CustomBufferType = 3,
        PartialBufferType = 4,
        EntityStorageType = 5
    };

    ~Node() override;

    /// With all below it.
    [[nodiscard]] virtual zel::uint64 getBinaryHeaderNumBytes() const = 0;
    /// @throws std::runtime_error  for a number that does not fit into its field of 32 bits
    virtual void writeBinaryHeader(ByteStream& stream, NameTable& names) const = 0;
    virtual void writeXmlHeader(TiXmlElement* parent) const = 0;
    /// Writes the elements of the node and all below it.
    /// @param baseOffset  the stream's position at the beginning of the segment
    virtual void writeDataSegment(std::ostream& stream, zel::uint64 baseOffset) const = 0;

    [[nodiscard]] Type getType() const noexcept { return m_type; }
    /// As it stands in files, such as "CustomBuffer".
    [[nodiscard]] static const char* getTypeName(zel::uint32 type);
    /// The object id of what the node shows.
    [[nodiscard]] zel::uint32 getId() const noexcept { return m_id; }
    void setId(zel::uint32 id) noexcept { m_id = id; }
    [[nodiscard]] const zel::Name& getName() const noexcept { return m_name; }
    [[nodiscard]] Component* getParent() const noexcept { return m_parent; }
    /// The names from the root to this node, joined by ".".
    [[nodiscard]] zel::String getPath() const;

protected:
    Node(Type type, zel::uint32 id, const zel::Name& name) : m_type(type), m_id(id), m_name(name) {}
    /// The first 12 bytes of each record.
    void writeNode(ByteStream& stream, NameTable& names) const;
    /// A number as a field of 32 bits.
    void writeNumber(ByteStream& stream, zel::uint64 number) const;
    /// A new element of the parent with "name" and "id".
    [[nodiscard]] TiXmlElement* makeElement(TiXmlElement* parent, const char* tag) const;

private:
    friend class Component; // knows its children

    Type m_type;
    zel::uint32 m_id;
    zel::Name m_name;
    Component* m_parent = nullptr;
};

/// A node with elements, somewhere in a data segment.
class ZEL_CORE_API SerializedFrame::DataNode : public Node {
public:
    ~DataNode() override;

    void writeDataSegment(std::ostream& stream, zel::uint64 baseOffset) const override;

    [[nodiscard]] const Format* getFormat() const noexcept { return m_format.get(); }
    [[nodiscard]] zel::uint64 getNumBytes() const noexcept { return m_numBytes; }
    /// From the beginning of the segment to the first element, in bytes.
    [[nodiscard]] zel::uint64 getOffset() const noexcept { return m_offset; }
    /// Of a node that is to be written: its elements. Of one that was read: the whole segment.
    [[nodiscard]] const BinaryData* getData() const noexcept { return m_data.get(); }
    /// The full name of the format, for makers of many nodes who know it: it is put together each time.
    void setFormatName(const zel::Name& name) { m_formatName = name; }

protected:
    DataNode(Type type,
             zel::uint32 id,
             const zel::Name& name,
             const Format* format,
             zel::uint64 numBytes,
             zel::uint64 offset,
             const BinaryData* data);
    void writeDataNode(ByteStream& stream, NameTable& names) const;
    void writeDataAttributes(TiXmlElement* element) const;

private:
    zel::ref_ptr<const Format> m_format;
    zel::uint64 m_numBytes;
    zel::uint64 m_offset;
    zel::ref_ptr<const BinaryData> m_data;
    zel::Name m_formatName; // empty if nobody has told it
};

class ZEL_CORE_API SerializedFrame::Value : public DataNode {
public:
    Value(zel::uint32 id,
          const zel::Name& name,
          const Format* format,
          zel::uint64 offset,
          const BinaryData* data);

    [[nodiscard]] zel::uint64 getBinaryHeaderNumBytes() const override;
    void writeBinaryHeader(ByteStream& stream, NameTable& names) const override;
    void writeXmlHeader(TiXmlElement* parent) const override;
};

class ZEL_CORE_API SerializedFrame::Buffer : public DataNode {
public:
    Buffer(zel::uint32 id,
           const zel::Name& name,
           const Format* format,
           zel::uint64 numElements,
           zel::uint64 offset,
           const BinaryData* data);

    [[nodiscard]] zel::uint64 getBinaryHeaderNumBytes() const override;
    void writeBinaryHeader(ByteStream& stream, NameTable& names) const override;
    void writeXmlHeader(TiXmlElement* parent) const override;

    [[nodiscard]] zel::uint64 getNumElements() const noexcept { return m_numElements; }

private:
    zel::uint64 m_numElements;
};

class ZEL_CORE_API SerializedFrame::Component : public Node {
public:
    using NodeVector = zel::Vector<zel::ref_ptr<Node>>;

    Component(zel::uint32 id, const zel::Name& name) : Component(ComponentType, id, name) {}
    ~Component() override;

    [[nodiscard]] zel::uint64 getBinaryHeaderNumBytes() const override;
    void writeBinaryHeader(ByteStream& stream, NameTable& names) const override;
    void writeXmlHeader(TiXmlElement* parent) const override;
    void writeDataSegment(std::ostream& stream, zel::uint64 baseOffset) const override;

    void addChild(Node* node);
    [[nodiscard]] const NodeVector& getChildren() const noexcept { return m_children; }
    /// The first child of the name; null without one.
    [[nodiscard]] const Node* findChild(const zel::Name& name) const;
    /// Runs writeXmlHeader of each child.
    void writeChildren(TiXmlElement* element) const;

protected:
    Component(Type type, zel::uint32 id, const zel::Name& name) : Node(type, id, name) {}
    /// The children, and the tag behind them.
    void writeChildren(ByteStream& stream, NameTable& names) const;

private:
    NodeVector m_children;
};

/// A buffer whose elements hold pointers, as the plain buffers that it is made of.
class ZEL_CORE_API SerializedFrame::CustomBuffer : public Component {
public:
    CustomBuffer(zel::uint32 id, const zel::Name& name, const Format* format, zel::uint64 numElements);
    ~CustomBuffer() override;

    [[nodiscard]] zel::uint64 getBinaryHeaderNumBytes() const override;
    void writeBinaryHeader(ByteStream& stream, NameTable& names) const override;
    void writeXmlHeader(TiXmlElement* parent) const override;

    [[nodiscard]] const Format* getFormat() const noexcept { return m_format.get(); }
    [[nodiscard]] zel::uint64 getNumElements() const noexcept { return m_numElements; }

private:
    zel::ref_ptr<const Format> m_format;
    zel::uint64 m_numElements;
};

class ZEL_CORE_API SerializedFrame::PartialBuffer : public Component {
public:
    PartialBuffer(zel::uint32 id,
                  const zel::Name& name,
                  const Format* format,
                  zel::uint64 numElements,
                  zel::uint64 fullSize);
    ~PartialBuffer() override;

    [[nodiscard]] zel::uint64 getBinaryHeaderNumBytes() const override;
    void writeBinaryHeader(ByteStream& stream, NameTable& names) const override;
    void writeXmlHeader(TiXmlElement* parent) const override;

    [[nodiscard]] const Format* getFormat() const noexcept { return m_format.get(); }
    [[nodiscard]] zel::uint64 getNumElements() const noexcept { return m_numElements; }
    [[nodiscard]] zel::uint64 getFullSize() const noexcept { return m_fullSize; }

private:
    zel::ref_ptr<const Format> m_format;
    zel::uint64 m_numElements;
    zel::uint64 m_fullSize;
};

class ZEL_CORE_API SerializedFrame::EntityStorage : public Component {
public:
    EntityStorage(zel::uint32 id,
                  const zel::Name& name,
                  EntityModel* model,
                  zel::uint64 numElements,
                  zel::uint64 capacity);
    ~EntityStorage() override;

    [[nodiscard]] zel::uint64 getBinaryHeaderNumBytes() const override;
    void writeBinaryHeader(ByteStream& stream, NameTable& names) const override;
    void writeXmlHeader(TiXmlElement* parent) const override;

    [[nodiscard]] EntityModel* getModel() const noexcept { return m_model.get(); }
    [[nodiscard]] zel::uint64 getNumElements() const noexcept { return m_numElements; }
    [[nodiscard]] zel::uint64 getCapacity() const noexcept { return m_capacity; }

private:
    zel::ref_ptr<EntityModel> m_model;
    zel::uint64 m_numElements;
    zel::uint64 m_capacity;
};

} // namespace zelData
