#include "Envelope.h"
#include "data/FormatLookup.h"
#include "frames/Fault.h"
#include "frames/ForeignName.h"

#include <zel/Name.h>
#include <zelData/EntityModel.h>
#include <zelData/Format.h>
#include <zelData/Frame.h>
#include <zelData/SerializedNodes.h>
#include <zelNet/FramePacket.h>

#include <json/value.h>

#include <limits>
#include <stdexcept>
#include <string_view>

namespace zelNet {

using zel::uint32;
using zel::uint64;
using zel::uint8;
using zelData::BinaryData;
using zelData::Format;
using zelData::Frame;
using zelData::SerializedFrame;

namespace {

constexpr const char* InvalidHeader = "FramePacket: Invalid header";
constexpr zel::size_t PreHeaderSize = sizeof(StructuredMessage::PreHeader);

zel::String textOf(const Json::Value& json, const char* key) {
    return json[key].asString();
}

/// A whole number that is not above `max`; 0 for a member that lacks.
uint64 numberOf(const Json::Value& json, const char* key, uint64 max = std::numeric_limits<uint64>::max()) {
    const Json::Value& number = json[key];
    if (number.isNull())
        return 0;
    // What is no such number has no value in C++ either, where the parser holds it as a real one.
    if (!number.isUInt64() || number.asUInt64() > max)
        throw std::runtime_error(InvalidHeader);
    return number.asUInt64();
}

/// What each node but a component is known by.
struct Identity {
    explicit Identity(const Json::Value& json)
        : id(static_cast<uint32>(numberOf(json, "id", Frame::NoId))), name(textOf(json, "name").c_str()) {}

    uint32 id;
    zel::Name name;
};

const Format* requireFormat(const Json::Value& json, SerializedFrame::OnFault onFault) {
    const zel::String name = textOf(json, "type");
    const Format* format = zelData::findFormat(name);
    if (format == nullptr)
        zelData::fail(onFault, "format", "FramePacket: Invalid format '%s'", name.c_str());
    return format;
}

/// Tells each kind of node to the packet.
void addNode(FramePacket& packet, Json::Value& children, const SerializedFrame::Node* node) {
    using Node = SerializedFrame::Node;
    switch (node->getType()) {
    case Node::ValueType:
        return packet.add(children, static_cast<const SerializedFrame::Value*>(node));
    case Node::BufferType:
        return packet.add(children, static_cast<const SerializedFrame::Buffer*>(node));
    case Node::CustomBufferType:
        return packet.add(children, static_cast<const SerializedFrame::CustomBuffer*>(node));
    case Node::PartialBufferType:
        return packet.add(children, static_cast<const SerializedFrame::PartialBuffer*>(node));
    case Node::EntityStorageType:
        return packet.add(children, static_cast<const SerializedFrame::EntityStorage*>(node));
    case Node::ComponentType:
        return packet.add(children, static_cast<const SerializedFrame::Component*>(node));
    }
}

} // namespace

FramePacket::FramePacket(const Frame* frame, const zel::Name& leftOut)
    : SerializedFrame(frame, leftOut), m_header(std::make_unique<Json::Value>()) {
    Json::Value& header = *m_header;
    header["index"] = Json::Value::UInt64{frame->getIndex()};
    header["timeStamp"] = frame->getTimeStamp();
    header["timeStep"] = frame->getTimeStep();
    header["keyFrame"] = frame->isKeyFrame();
    addChildren(header, getRoot());
    m_headerText = writeJsonLine(header);

    const uint64 textsEnd = PreHeaderSize + m_headerText.size();
    const uint64 payloadOffset = payloadOffsetBehind(textsEnd);
    constexpr uint64 MaxSize = std::numeric_limits<uint32>::max();
    if (payloadOffset > MaxSize || getDataSize() > MaxSize - payloadOffset)
        throw std::runtime_error("FramePacket: the packet is larger than 4 GiB");
    m_preHeader.headerSize = static_cast<uint32>(m_headerText.size());
    m_preHeader.payloadOffset = static_cast<uint32>(payloadOffset);
    m_preHeader.payloadSize = static_cast<uint32>(getDataSize());
    m_paddingSize = static_cast<uint32>(payloadOffset - textsEnd);
}

FramePacket::~FramePacket() = default;

// From nodes to JSON

Json::Value FramePacket::makeNode(const char* nodeType, const Node* node) const {
    Json::Value json;
    json["nodeType"] = nodeType;
    json["name"] = node->getName().c_str();
    json["id"] = node->getId();
    return json;
}

Json::Value FramePacket::makeBuffer(const Node* node, const Format* format, uint64 size) {
    Json::Value json = makeNode("Buffer", node);
    m_scratch = format->fullName();
    json["type"] = m_scratch;
    json["numElements"] = Json::Value::UInt64{size};
    return json;
}

void FramePacket::add(Json::Value& children, const Value* node) {
    Json::Value json = makeNode("Value", node);
    m_scratch = node->getFormat()->fullName();
    json["type"] = m_scratch;
    json["numBytes"] = Json::Value::UInt64{node->getNumBytes()};
    json["byteOffset"] = Json::Value::UInt64{node->getOffset()};
    children.append(std::move(json));
}

void FramePacket::add(Json::Value& children, const Buffer* node) {
    Json::Value json = makeBuffer(node, node->getFormat(), node->getNumElements());
    json["numBytes"] = Json::Value::UInt64{node->getNumBytes()};
    json["byteOffset"] = Json::Value::UInt64{node->getOffset()};
    children.append(std::move(json));
}

void FramePacket::add(Json::Value& children, const CustomBuffer* node) {
    Json::Value json = makeBuffer(node, node->getFormat(), node->getNumElements());
    json["customSerialization"] = true;
    addChildren(json, node);
    children.append(std::move(json));
}

void FramePacket::add(Json::Value& children, const PartialBuffer* node) {
    Json::Value json = makeBuffer(node, node->getFormat(), node->getNumElements());
    json["isPartial"] = true;
    addChildren(json, node);
    children.append(std::move(json));
}

void FramePacket::add(Json::Value& children, const EntityStorage* node) {
    Json::Value json = makeNode("Storage", node);
    json["numElements"] = Json::Value::UInt64{node->getNumElements()};
    json["capacity"] = Json::Value::UInt64{node->getCapacity()};
    // A storage need not have a model.
    m_scratch = node->getModel() == nullptr ? zel::String() : node->getModel()->fullPath();
    json["entity"] = m_scratch;
    addChildren(json, node);
    children.append(std::move(json));
}

void FramePacket::add(Json::Value& children, const Component* node) {
    Json::Value json = makeNode("Component", node);
    addChildren(json, node);
    children.append(std::move(json));
}

void FramePacket::addChildren(Json::Value& json, const Component* component) {
    Json::Value children(Json::arrayValue);
    for (const zel::ref_ptr<Node>& child : component->getChildren())
        addNode(*this, children, child.get());
    json["children"] = std::move(children);
}

// From JSON to nodes

SerializedFrame::Component*
FramePacket::createComponent(const Json::Value& json, BinaryData* payload, OnFault onFault) {
    zel::ref_ptr<Component> component(new Component(Frame::NoId, textOf(json, "name").c_str()));
    addChildren(component.get(), json, payload, onFault);
    return component.release_nodelete();
}

SerializedFrame::EntityStorage*
FramePacket::createStorage(const Json::Value& json, BinaryData* payload, OnFault onFault) {
    const Identity identity(json);
    const zel::String entity = textOf(json, "entity");
    zelData::EntityModel* model = zelData::findForeignEntity(entity.c_str());
    if (model == nullptr && !entity.empty())
        zelData::fail(onFault, "model", "FramePacket: No entiy with name '%s'", entity.c_str());
    zel::ref_ptr<EntityStorage> storage(new EntityStorage(
        identity.id, identity.name, model, numberOf(json, "numElements"), numberOf(json, "capacity")));
    addChildren(storage.get(), json, payload, onFault);
    return storage.release_nodelete();
}

SerializedFrame::Node*
FramePacket::createBuffer(const Json::Value& json, BinaryData* payload, OnFault onFault) {
    const Identity identity(json);
    const uint64 numElements = numberOf(json, "numElements");
    const Format* format = requireFormat(json, onFault);
    if (textOf(json, "customSerialization") == "true") {
        zel::ref_ptr<CustomBuffer> buffer(new CustomBuffer(identity.id, identity.name, format, numElements));
        for (const Json::Value& child : json["children"])
            buffer->addChild(zel::ref_ptr<Node>(createBuffer(child, payload, onFault)).get());
        return buffer.release_nodelete();
    }
    const uint64 offset = numberOf(json, "byteOffset");
    uint64 numBytes = 0;
    const bool overflows = __builtin_mul_overflow(uint64{format->getSize()}, numElements, &numBytes);
    zelData::expect(onFault,
                    !overflows && numBytes == numberOf(json, "numBytes"),
                    "format->getSize() * numElements == numBytes");
    return new Buffer(identity.id, identity.name, format, numElements, offset, payload);
}

SerializedFrame::Value*
FramePacket::createValue(const Json::Value& json, BinaryData* payload, OnFault onFault) {
    const Identity identity(json);
    const uint64 offset = numberOf(json, "byteOffset");
    const uint64 numBytes = numberOf(json, "numBytes");
    const Format* format = requireFormat(json, onFault);
    zelData::expect(onFault, format->getSize() == numBytes, "format->getSize() == numBytes");
    return new Value(identity.id, identity.name, format, offset, payload);
}

void FramePacket::addChildren(Component* component,
                              const Json::Value& json,
                              BinaryData* payload,
                              OnFault onFault) {
    for (const Json::Value& child : json["children"]) {
        const zel::String nodeType = textOf(child, "nodeType");
        zel::ref_ptr<Node> node;
        if (nodeType == "Component")
            node = createComponent(child, payload, onFault);
        else if (nodeType == "Storage")
            node = createStorage(child, payload, onFault);
        else if (nodeType == "Buffer")
            node = createBuffer(child, payload, onFault);
        else if (nodeType == "Value")
            node = createValue(child, payload, onFault);
        else if (onFault == OnFault::Throw)
            throw std::runtime_error("FramePacket: Unknown node type '" + nodeType + "'");
        else
            zelAbort("FramePacket: Unknown node type '%s'", nodeType.c_str());
        component->addChild(node.get());
    }
}

Frame* FramePacket::parseFrame(const Json::Value& header, BinaryData* payload, OnFault onFault) {
    try {
        if (!header.isObject())
            throw std::runtime_error(InvalidHeader);
        const uint64 index = numberOf(header, "index");
        const double timeStamp = header["timeStamp"].asDouble();
        const double timeStep = header["timeStep"].asDouble();
        const zel::ref_ptr<BinaryData> data(payload == nullptr ? new BinaryData() : payload);
        const zel::ref_ptr<Component> root(createComponent(header, data.get(), onFault));
        return createFrame(root.get(), index, timeStamp, timeStep, onFault);
    } catch (const Json::Exception&) {
        throw std::runtime_error(InvalidHeader);
    }
}

Frame* FramePacket::parseFrame(uint8* data, zel::size_t size, OnFault onFault) {
    if (size < PreHeaderSize)
        throw std::runtime_error(InvalidHeader);
    const auto preHeader = StructuredMessage::PreHeader::read(data);
    if (size - PreHeaderSize < preHeader.headerSize)
        throw std::runtime_error(InvalidHeader);
    Json::Value header;
    const char* text = reinterpret_cast<const char*>(data) + PreHeaderSize;
    if (!parseJson(std::string_view(text, preHeader.headerSize), MaxHeaderDepth, header))
        throw std::runtime_error(InvalidHeader);
    if (preHeader.payloadOffset < uint64{PreHeaderSize} + preHeader.headerSize)
        throw std::runtime_error(InvalidHeader);
    if (uint64{preHeader.payloadOffset} + preHeader.payloadSize != size)
        throw std::runtime_error("FramePacket: Invalid packet");
    const zel::ref_ptr<BinaryData> payload(viewOf(data + preHeader.payloadOffset, preHeader.payloadSize));
    return parseFrame(header, payload.get(), onFault);
}

} // namespace zelNet
