#include "Fault.h"
#include "ForeignName.h"
#include "data/FormatLookup.h"

#include <zel/Log.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityStorageEvents.h>
#include <zelData/FrameExtractor.h>
#include <zelData/FrameIO.h>
#include <zelData/Type.h>

#include <string_view>
#include <utility>

// Reading of binary headers. Whatever a field says is held against the bytes that are there.

namespace zelData {

namespace {

using zel::uint32;
using zel::uint64;

using OnFault = SerializedFrame::OnFault;

void expectBytes(OnFault onFault, const ByteStream& stream, uint64 numBytes) {
    expect(onFault, stream.remaining() >= numBytes, "(size_t)(m_end-m_head) >= numBytes");
}

template <typename T>
T readFrom(OnFault onFault, ByteStream& stream) {
    expect(onFault, stream.remaining() >= sizeof(T), "(size_t)(m_end - m_head) >= sizeof(T)");
    return stream.read<T>();
}

void expectTag(OnFault onFault, ByteStream& stream) {
    const auto element = readFrom<uint32>(onFault, stream);
    constexpr uint32 value = SerializedFrame::BinaryHeader::EndTag;
    expect(onFault, element == value, "element == value");
}

SerializedFrame::BinaryHeader::Frame readMeta(OnFault onFault, ByteStream& stream) {
    const auto frameMeta = readFrom<SerializedFrame::BinaryHeader::Frame>(onFault, stream);
    expect(onFault,
           frameMeta.endTag == SerializedFrame::BinaryHeader::EndTag,
           "frameMeta.endTag == BinaryHeader::EndTag");
    return frameMeta;
}

EntityStorage* storageOf(uint32 number) {
    return reinterpret_cast<EntityStorage*>(std::uintptr_t{number}); // NOLINT: nobody follows it
}

} // namespace

void SerializedFrame::BinaryHeader::extractNameTable(ByteStream& stream, NameLookup& names, OnFault onFault) {
    const auto count = readFrom<uint32>(onFault, stream);
    const auto firstId = readFrom<uint32>(onFault, stream);
    expectBytes(onFault, stream, uint64{count} * sizeof(uint32));
    if (uint64{firstId} + count > EmptyName)
        fail(onFault,
             "firstId + count <= EmptyName",
             "A frame is damaged: its names end at %llu",
             static_cast<unsigned long long>(firstId) + count);
    for (uint32 i = 0; i < count; ++i) {
        const auto length = readFrom<uint32>(onFault, stream);
        expectBytes(onFault, stream, length);
        const auto* text = reinterpret_cast<const char*>(stream.readBytes(length));
        names.push_back(firstId + i, zel::Name(std::string(text, length)));
    }
    expectTag(onFault, stream);
}

using FrameExtractor = SerializedFrame::BinaryHeader::FrameExtractor;

FrameExtractor::FrameExtractor(const BinaryData* header,
                               const BinaryData* segment,
                               NameLookup& names,
                               FrameReader* reader,
                               OnFault onFault)
    : m_segment(segment), m_names(names), m_reader(reader), m_onFault(onFault), m_stream(header) {}

template <typename T>
T FrameExtractor::read() {
    return readFrom<T>(m_onFault, m_stream);
}

void FrameExtractor::expectEndTag() {
    expectTag(m_onFault, m_stream);
}

Frame* FrameExtractor::extract(bool clearNameTableOnKeyFrame, ElementSource* source) {
    const Frame meta = extractMeta();
    if (meta.isKeyFrame != 0 && clearNameTableOnKeyFrame)
        m_names.clear();
    extractNameTable();
    extractEvents();
    m_stream.rebase();
    const zel::ref_ptr<Node> rootNode(extractNode(false));
    const auto* root = dynamic_cast<const Component*>(rootNode.get());
    expect(m_onFault, root != nullptr, "rootNode->is<SerializedFrame::Component>()");

    zel::ref_ptr<zelData::Frame> frame(
        createFrame(root, meta.index, meta.timeStamp, meta.timeStep, m_onFault, source));
    frame->setKeyFrame(meta.isKeyFrame != 0);
    frame->addEvents(m_events);
    frame->setId(meta.id);
    frame->setIncrementalFrameArchiveBuffer(frame->getBuffer("FrameArchive.Incremental"));
    return frame.release_nodelete();
}

SerializedFrame::BinaryHeader::Frame FrameExtractor::extractMeta() {
    return readMeta(m_onFault, m_stream);
}

void FrameExtractor::extractNameTable() {
    BinaryHeader::extractNameTable(m_stream, m_names, m_onFault);
}

// Events

void FrameExtractor::extractEvents() {
    const auto count = read<uint32>();
    expectBytes(m_onFault, m_stream, uint64{count} * 8);
    for (uint32 i = 0; i < count; ++i)
        m_events.push_back(extractEvent());
    expectEndTag();
}

zel::ref_ptr<zel::Object::Event> FrameExtractor::extractEvent() {
    using Storage = zelData::EntityStorage;
    using EventRef = zel::ref_ptr<zel::Object::Event>;
    const zel::Name type = getName(read<uint32>());
    const std::string_view name(type.c_str());
    const auto number = [this] { return read<uint32>(); };
    if (name == "EntityStorage.CreateInstanceEvent") {
        Storage* storage = storageOf(number());
        return EventRef(
            new Storage::CreateInstanceEvent(storage, EntityPtr(storage, zel::uint32(zel::InvalidIndex))));
    }
    if (name == "EntityStorage.DestroyInstanceEvent") {
        Storage* storage = storageOf(number());
        return EventRef(new Storage::DestroyInstanceEvent(storage, EntityPtr(storage, number())));
    }
    if (name == "EntityStorage.PermuteEvent")
        return EventRef(new Storage::PermuteEvent(storageOf(number()), Array<uint32>()));
    if (name == "EntityStorage.StorageBatchEvent") {
        Storage* storage = storageOf(number());
        const auto batchType = static_cast<StorageBatchEvent::Type>(number());
        const uint32 count = number();
        expectBytes(m_onFault, m_stream, uint64{count} * sizeof(uint64));
        zel::ref_ptr<StorageBatchEvent> event(new StorageBatchEvent(batchType, storage));
        for (uint32 i = 0; i < count; ++i)
            event->add(read<uint64>());
        return EventRef(event.get());
    }
    if (name == "EntityStorage.CreateInstancesEvent") {
        ZEL_LOG_WARNING("Deprecated EntityStorage.CreateInstancesEvent");
        Storage* storage = storageOf(number());
        return EventRef(new Storage::CreateInstancesEvent(storage, EntityRange(storage, 0, number())));
    }
    if (name == "EntityStorage.DestroyInstancesEvent") {
        ZEL_LOG_WARNING("Deprecated EntityStorage.DestroyInstancesEvent");
        Storage* storage = storageOf(number());
        const uint32 begin = number();
        return EventRef(new Storage::DestroyInstancesEvent(storage, EntityRange(storage, begin, number())));
    }
    if (m_onFault == OnFault::Throw)
        throw std::runtime_error(zel::String::format("Unknown event type '%s'", type.c_str()));
    zelAbort("%p: Unknown event type '%s'", static_cast<const void*>(this), type.c_str());
}

// Nodes

SerializedFrame::Node* FrameExtractor::extractNode(bool skip) {
    expectBytes(m_onFault, m_stream, 3 * sizeof(uint32));
    if (++m_depth > MaxDepth)
        throw std::runtime_error(
            zel::String::format("SerializedFrame: nodes lie more than %u deep", MaxDepth));
    Common common;
    common.type = read<uint32>();
    common.id = read<uint32>();
    common.name = getName(read<uint32>());

    const zel::size_t parentLength = m_path.size();
    if (!skip) {
        if (!m_path.empty() && !common.name.empty())
            m_path += ".";
        m_path += common.name.c_str();
        // The root stands for the frame, and parts of a buffer belong to it.
        if (m_reader != nullptr && m_depth > 1 && !m_wantsAll)
            skip = !m_reader->shouldExtract(zel::Path(m_path));
    }
    Node* node = nullptr;
    switch (common.type) {
    case Node::ValueType:
        node = extractValue(common, skip);
        break;
    case Node::BufferType:
        node = extractBuffer(common, skip);
        break;
    case Node::ComponentType:
        node = extractComponent(common, skip);
        break;
    case Node::CustomBufferType:
        node = extractCustomBuffer(common, skip);
        break;
    case Node::PartialBufferType:
        node = extractPartialBuffer(common, skip);
        break;
    case Node::EntityStorageType:
        node = extractEntityStorage(common, skip);
        break;
    default:
        fail(m_onFault,
             "type <= EntityStorageType",
             "Unknown node type '%s'",
             std::to_string(common.type).c_str());
    }
    m_path.resize(parentLength);
    --m_depth;
    return node;
}

SerializedFrame::Node* FrameExtractor::extractValue(const Common& common, bool skip) {
    const auto format = read<uint32>();
    const auto numBytes = read<uint32>();
    const auto offset = read<uint32>();
    if (skip)
        return nullptr;
    zel::ref_ptr<Value> node(new Value(common.id, common.name, getFormat(format), offset, m_segment));
    expect(m_onFault, node->getFormat()->getSize() == numBytes, "format->getSize() == numBytes");
    return node.release_nodelete();
}

SerializedFrame::Node* FrameExtractor::extractBuffer(const Common& common, bool skip) {
    const auto format = read<uint32>();
    const auto numBytes = read<uint32>();
    const auto offset = read<uint32>();
    const auto numElements = read<uint32>();
    if (skip)
        return nullptr;
    zel::ref_ptr<Buffer> node(
        new Buffer(common.id, common.name, getFormat(format), numElements, offset, m_segment));
    expect(m_onFault, node->getNumBytes() == numBytes, "format->getSize() * numElements == numBytes");
    return node.release_nodelete();
}

void FrameExtractor::extractChildren(bool skip, Component* parent, uint32 count) {
    for (uint32 i = 0; i < count; ++i)
        if (const zel::ref_ptr<Node> child{extractNode(skip)})
            parent->addChild(child.get());
    expectEndTag();
}

SerializedFrame::Node* FrameExtractor::extractComponent(const Common& common, bool skip) {
    const auto numChildren = read<uint32>();
    zel::ref_ptr<Component> node(skip ? nullptr : new Component(common.id, common.name));
    extractChildren(skip, node.get(), numChildren);
    return node.release_nodelete();
}

SerializedFrame::Node* FrameExtractor::extractCustomBuffer(const Common& common, bool skip) {
    const auto numChildren = read<uint32>();
    const auto format = read<uint32>();
    const auto numElements = read<uint32>();
    zel::ref_ptr<CustomBuffer> node(
        skip ? nullptr : new CustomBuffer(common.id, common.name, getFormat(format), numElements));
    const bool wantsAll = std::exchange(m_wantsAll, true);
    extractChildren(skip, node.get(), numChildren);
    m_wantsAll = wantsAll;
    return node.release_nodelete();
}

SerializedFrame::Node* FrameExtractor::extractPartialBuffer(const Common& common, bool skip) {
    const auto numChildren = read<uint32>();
    const auto format = read<uint32>();
    const auto numElements = read<uint32>();
    const auto fullSize = read<uint32>();
    zel::ref_ptr<PartialBuffer> node(
        skip ? nullptr : new PartialBuffer(common.id, common.name, getFormat(format), numElements, fullSize));
    const bool wantsAll = std::exchange(m_wantsAll, true);
    extractChildren(skip, node.get(), numChildren);
    m_wantsAll = wantsAll;
    return node.release_nodelete();
}

SerializedFrame::Node* FrameExtractor::extractEntityStorage(const Common& common, bool skip) {
    const auto numChildren = read<uint32>();
    const auto entity = read<uint32>();
    const auto numElements = read<uint32>();
    const auto capacity = read<uint32>();
    zel::ref_ptr<EntityStorage> node(
        skip ? nullptr
             : new EntityStorage(common.id, common.name, getEntityModel(entity), numElements, capacity));
    extractChildren(skip, node.get(), numChildren);
    return node.release_nodelete();
}

zel::Name FrameExtractor::getName(uint32 id) const {
    if (id == EmptyName)
        return {};
    const auto* known = m_names.find(id);
    if (known == nullptr)
        fail(m_onFault, "name", "A frame is damaged: it has no name with the id %u", id);
    return known->value;
}

const Format* FrameExtractor::getFormat(uint32 id) const {
    const zel::Name name = getName(id);
    const Format* format = findFormat(name.c_str());
    if (format == nullptr)
        fail(m_onFault, "format", "No format with name '%s'", name.c_str());
    return format;
}

EntityModel* FrameExtractor::getEntityModel(uint32 id) const {
    const zel::Name name = getName(id);
    if (name.empty())
        return nullptr;
    EntityModel* model = findForeignEntity(name);
    if (model == nullptr)
        fail(m_onFault, "model", "No entity with name '%s'", name.c_str());
    return model;
}

// The ways in

Frame* SerializedFrame::extractFrame(const BinaryData* header,
                                     const BinaryData* segment,
                                     NameLookup& names,
                                     bool clearNameTableOnKeyFrame,
                                     FrameReader* reader,
                                     OnFault onFault) {
    return BinaryHeader::FrameExtractor(header, segment, names, reader, onFault)
        .extract(clearNameTableOnKeyFrame);
}

Frame* SerializedFrame::extractFrame(const BinaryData* header, const BinaryData* segment, OnFault onFault) {
    NameLookup names;
    return extractFrame(header, segment, names, true, nullptr, onFault);
}

void SerializedFrame::updateNameTable(const BinaryData* header, NameLookup& names, OnFault onFault) {
    ByteStream stream(header);
    (void)readMeta(onFault, stream);
    BinaryHeader::extractNameTable(stream, names, onFault);
}

} // namespace zelData
