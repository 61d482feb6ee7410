#include <zel/String.h>
#include <zel/Verify.h>
#include <zelData/EntityModel.h>
#include <zelData/Format.h>
#include <zelData/SerializedNodes.h>

#include <array>
#include <ostream>
#include <stdexcept>

// The nodes, and their records in a binary header.

namespace zelData {

namespace {

using uint32 = zel::uint32;
using uint64 = zel::uint64;

constexpr uint64 NodeBytes = 12;
constexpr uint64 DataNodeBytes = NodeBytes + 12;

} // namespace

// Node

SerializedFrame::Node::~Node() = default;

const char* SerializedFrame::Node::getTypeName(uint32 type) {
    static constexpr std::array names{
        "Value", "Buffer", "Component", "CustomBuffer", "PartialBuffer", "EntityStorage"};
    zelVerifyN(type < names.size(), "Unknown node type %u", type);
    return names[type];
}

zel::String SerializedFrame::Node::getPath() const {
    zel::String path = m_name.c_str();
    for (const Node* node = m_parent; node != nullptr; node = node->m_parent)
        if (!node->m_name.empty())
            path = zel::String(node->m_name.c_str()) + "." + path;
    return path;
}

void SerializedFrame::Node::writeNode(ByteStream& stream, NameTable& names) const {
    stream.write<uint32>(m_type);
    stream.write<uint32>(m_id);
    stream.write<uint32>(BinaryHeader::getNameId(m_name, names));
}

void SerializedFrame::Node::writeNumber(ByteStream& stream, uint64 number) const {
    if (number > 0xFFFFFFFFU)
        throw std::runtime_error(
            zel::String::format("SerializedFrame: node %s does not fit into a frame: %llu is above 32 bits",
                                getPath().c_str(),
                                static_cast<unsigned long long>(number)));
    stream.write(static_cast<uint32>(number));
}

// DataNode

SerializedFrame::DataNode::DataNode(Type type,
                                    uint32 id,
                                    const zel::Name& name,
                                    const Format* format,
                                    uint64 numBytes,
                                    uint64 offset,
                                    const BinaryData* data)
    : Node(type, id, name), m_format(format), m_numBytes(numBytes), m_offset(offset), m_data(data) {}

SerializedFrame::DataNode::~DataNode() = default;

void SerializedFrame::DataNode::writeDataSegment(std::ostream& stream, uint64 baseOffset) const {
    static constexpr std::array<char, 128> zeros{};
    const auto position = static_cast<uint64>(stream.tellp());
    if (stream.good()) {
        const uint64 padding = baseOffset + m_offset - position;
        zelVerify(padding <= zeros.size());
        stream.write(zeros.data(), static_cast<std::streamsize>(padding));
        stream.write(reinterpret_cast<const char*>(m_data->getData()),
                     static_cast<std::streamsize>(m_numBytes));
    }
    zelVerifyNAs(stream.good(),
                 "binaryFile.good()",
                 "SerializedFrame: Could not write '%s' to binary file",
                 getPath().c_str());
}

void SerializedFrame::DataNode::writeDataNode(ByteStream& stream, NameTable& names) const {
    writeNode(stream, names);
    stream.write<uint32>(m_formatName.empty() ? BinaryHeader::getNameId(m_format->fullName(), names)
                                              : BinaryHeader::getNameId(m_formatName, names));
    writeNumber(stream, m_numBytes);
    writeNumber(stream, m_offset);
}

SerializedFrame::Value::Value(
    uint32 id, const zel::Name& name, const Format* format, uint64 offset, const BinaryData* data)
    : DataNode(ValueType, id, name, format, format->getSize(), offset, data) {}

uint64 SerializedFrame::Value::getBinaryHeaderNumBytes() const {
    return DataNodeBytes;
}

void SerializedFrame::Value::writeBinaryHeader(ByteStream& stream, NameTable& names) const {
    writeDataNode(stream, names);
}

SerializedFrame::Buffer::Buffer(uint32 id,
                                const zel::Name& name,
                                const Format* format,
                                uint64 numElements,
                                uint64 offset,
                                const BinaryData* data)
    : DataNode(BufferType, id, name, format, format->getSize() * numElements, offset, data)
    , m_numElements(numElements) {}

uint64 SerializedFrame::Buffer::getBinaryHeaderNumBytes() const {
    return DataNodeBytes + sizeof(uint32);
}

void SerializedFrame::Buffer::writeBinaryHeader(ByteStream& stream, NameTable& names) const {
    writeDataNode(stream, names);
    writeNumber(stream, m_numElements);
}

// Component

SerializedFrame::Component::~Component() = default;

void SerializedFrame::Component::addChild(Node* node) {
    m_children.push_back(node);
    node->m_parent = this;
}

const SerializedFrame::Node* SerializedFrame::Component::findChild(const zel::Name& name) const {
    for (const zel::ref_ptr<Node>& child : m_children)
        if (child->getName() == name)
            return child.get();
    return nullptr;
}

uint64 SerializedFrame::Component::getBinaryHeaderNumBytes() const {
    uint64 numBytes = NodeBytes + sizeof(uint32) + sizeof(BinaryHeader::EndTag);
    for (const zel::ref_ptr<Node>& child : m_children)
        numBytes += child->getBinaryHeaderNumBytes();
    return numBytes;
}

void SerializedFrame::Component::writeBinaryHeader(ByteStream& stream, NameTable& names) const {
    writeNode(stream, names);
    writeNumber(stream, m_children.size());
    writeChildren(stream, names);
}

void SerializedFrame::Component::writeChildren(ByteStream& stream, NameTable& names) const {
    for (const zel::ref_ptr<Node>& child : m_children)
        child->writeBinaryHeader(stream, names);
    stream.write(BinaryHeader::EndTag);
}

void SerializedFrame::Component::writeDataSegment(std::ostream& stream, uint64 baseOffset) const {
    for (const zel::ref_ptr<Node>& child : m_children)
        child->writeDataSegment(stream, baseOffset);
}

SerializedFrame::CustomBuffer::CustomBuffer(uint32 id,
                                            const zel::Name& name,
                                            const Format* format,
                                            uint64 numElements)
    : Component(CustomBufferType, id, name), m_format(format), m_numElements(numElements) {}

SerializedFrame::CustomBuffer::~CustomBuffer() = default;

uint64 SerializedFrame::CustomBuffer::getBinaryHeaderNumBytes() const {
    return Component::getBinaryHeaderNumBytes() + 2 * sizeof(uint32);
}

void SerializedFrame::CustomBuffer::writeBinaryHeader(ByteStream& stream, NameTable& names) const {
    writeNode(stream, names);
    writeNumber(stream, getChildren().size());
    stream.write<uint32>(BinaryHeader::getNameId(m_format->fullName(), names));
    writeNumber(stream, m_numElements);
    writeChildren(stream, names);
}

SerializedFrame::PartialBuffer::PartialBuffer(
    uint32 id, const zel::Name& name, const Format* format, uint64 numElements, uint64 fullSize)
    : Component(PartialBufferType, id, name)
    , m_format(format)
    , m_numElements(numElements)
    , m_fullSize(fullSize) {}

SerializedFrame::PartialBuffer::~PartialBuffer() = default;

uint64 SerializedFrame::PartialBuffer::getBinaryHeaderNumBytes() const {
    return Component::getBinaryHeaderNumBytes() + 3 * sizeof(uint32);
}

void SerializedFrame::PartialBuffer::writeBinaryHeader(ByteStream& stream, NameTable& names) const {
    writeNode(stream, names);
    writeNumber(stream, getChildren().size());
    stream.write<uint32>(BinaryHeader::getNameId(m_format->fullName(), names));
    writeNumber(stream, m_numElements);
    writeNumber(stream, m_fullSize);
    writeChildren(stream, names);
}

SerializedFrame::EntityStorage::EntityStorage(
    uint32 id, const zel::Name& name, EntityModel* model, uint64 numElements, uint64 capacity)
    : Component(EntityStorageType, id, name)
    , m_model(model)
    , m_numElements(numElements)
    , m_capacity(capacity) {}

SerializedFrame::EntityStorage::~EntityStorage() = default;

uint64 SerializedFrame::EntityStorage::getBinaryHeaderNumBytes() const {
    return Component::getBinaryHeaderNumBytes() + 3 * sizeof(uint32);
}

void SerializedFrame::EntityStorage::writeBinaryHeader(ByteStream& stream, NameTable& names) const {
    writeNode(stream, names);
    writeNumber(stream, getChildren().size());
    stream.write<uint32>(BinaryHeader::getNameId(m_model ? m_model->fullPath() : zel::String(), names));
    writeNumber(stream, m_numElements);
    writeNumber(stream, m_capacity);
    writeChildren(stream, names);
}

} // namespace zelData
