#include <zel/Verify.h>
#include <zelData/EntityStorageEvents.h>
#include <zelData/SerializedFrame.h>
#include <zelData/SerializedNodes.h>

#include <cstring>

// Writing of binary headers.

namespace zelData {

namespace {

using zel::uint32;
using zel::uint64;

/// One kind of event, as it stands in files.
enum class EventKind { Create, Destroy, Permute, Batch, CreateRange, DestroyRange, Unknown };

EventKind kindOf(const zel::Object::Event* event) {
    if (dynamic_cast<const EntityStorage::CreateInstanceEvent*>(event) != nullptr)
        return EventKind::Create;
    if (dynamic_cast<const EntityStorage::DestroyInstanceEvent*>(event) != nullptr)
        return EventKind::Destroy;
    if (dynamic_cast<const EntityStorage::PermuteEvent*>(event) != nullptr)
        return EventKind::Permute;
    if (dynamic_cast<const SerializedFrame::StorageBatchEvent*>(event) != nullptr)
        return EventKind::Batch;
    if (dynamic_cast<const EntityStorage::CreateInstancesEvent*>(event) != nullptr)
        return EventKind::CreateRange;
    if (dynamic_cast<const EntityStorage::DestroyInstancesEvent*>(event) != nullptr)
        return EventKind::DestroyRange;
    return EventKind::Unknown;
}

uint64 sizeOf(const zel::Object::Event* event) {
    switch (kindOf(event)) {
    case EventKind::Create:
    case EventKind::Permute:
        return 8;
    case EventKind::Destroy:
    case EventKind::CreateRange:
        return 12;
    case EventKind::DestroyRange:
        return 16;
    case EventKind::Batch:
        return 16 + 8 * static_cast<const SerializedFrame::StorageBatchEvent*>(event)->getIdVector().size();
    case EventKind::Unknown:
        break;
    }
    zelAbort("An event of this class can not be serialized");
}

void writeHead(const char* type,
               const EntityStorage* storage,
               ByteStream& stream,
               SerializedFrame::NameTable& names) {
    stream.write<uint32>(SerializedFrame::BinaryHeader::getNameId(type, names));
    stream.write(static_cast<uint32>(reinterpret_cast<std::uintptr_t>(storage)));
}

void write(const zel::Object::Event* event, ByteStream& stream, SerializedFrame::NameTable& names) {
    const EventKind kind = kindOf(event);
    if (kind == EventKind::Batch) {
        const auto* batch = static_cast<const SerializedFrame::StorageBatchEvent*>(event);
        writeHead("EntityStorage.StorageBatchEvent", batch->getStorage(), stream, names);
        stream.write(batch->getType());
        stream.write(static_cast<uint32>(batch->getIdVector().size()));
        for (const uint64 id : batch->getIdVector())
            stream.write(id);
        return;
    }
    const auto* ofStorage = dynamic_cast<const EntityStorage::InstanceEvent*>(event);
    const EntityStorage* storage = ofStorage == nullptr ? nullptr : ofStorage->getStorage();
    switch (kind) {
    case EventKind::Create:
        writeHead("EntityStorage.CreateInstanceEvent", storage, stream, names);
        return;
    case EventKind::Destroy:
        writeHead("EntityStorage.DestroyInstanceEvent", storage, stream, names);
        stream.write<uint32>(
            static_cast<const EntityStorage::DestroyInstanceEvent*>(event)->getInstance().getId());
        return;
    case EventKind::Permute:
        writeHead("EntityStorage.PermuteEvent", storage, stream, names);
        return;
    default:
        zelAbort("An event of this class is not written any more, or was never");
    }
}

} // namespace

uint64 SerializedFrame::BinaryHeader::calculateNameTableSize(const NameTable& names, uint32 firstId) {
    uint64 size = 8 + 4;
    for (zel::size_t i = firstId; i < names.size(); ++i)
        size += 4 + std::strlen(names[i].key.c_str());
    return size;
}

void SerializedFrame::BinaryHeader::writeNameTable(ByteStream& stream,
                                                   const NameTable& names,
                                                   uint32 firstId) {
    stream.write(static_cast<uint32>(names.size()) - firstId);
    stream.write(firstId);
    for (zel::size_t i = firstId; i < names.size(); ++i) {
        const char* text = names[i].key.c_str();
        const zel::size_t length = std::strlen(text);
        stream.write(static_cast<uint32>(length));
        stream.writeBytes(text, length);
    }
    stream.write(EndTag);
}

uint32 SerializedFrame::BinaryHeader::getNameId(const zel::Name& name, NameTable& names) {
    if (name.empty())
        return EmptyName;
    if (const auto* known = names.find(name))
        return known->value;
    const auto id = static_cast<uint32>(names.size());
    names.push_back(name, id);
    return id;
}

uint64
SerializedFrame::BinaryHeader::calculateSerializedEventSize(const zelData::Frame::EventVector& events) {
    uint64 size = 4 + 4;
    for (const zel::ref_ptr<zel::Object::Event>& event : events)
        size += sizeOf(event.get());
    return size;
}

void SerializedFrame::BinaryHeader::writeEvents(const zelData::Frame::EventVector& events,
                                                ByteStream& stream,
                                                NameTable& names) {
    stream.write(static_cast<uint32>(events.size()));
    for (const zel::ref_ptr<zel::Object::Event>& event : events)
        write(event.get(), stream, names);
    stream.write(EndTag);
}

zel::ref_ptr<BinaryData>
SerializedFrame::BinaryHeader::writeEvents(const zelData::Frame::EventVector& events) {
    NameTable names;
    const zel::ref_ptr<BinaryData> body(new BinaryData(calculateSerializedEventSize(events)));
    ByteStream bodyStream(body.get());
    writeEvents(events, bodyStream, names);
    zel::ref_ptr<BinaryData> block(new BinaryData(calculateNameTableSize(names, 0) + body->getSize()));
    ByteStream stream(block.get());
    writeNameTable(stream, names, 0);
    stream.writeBytes(body->getData(), body->getSize());
    zelVerify(stream.head() == stream.end());
    return block;
}

zel::ref_ptr<BinaryData> SerializedFrame::writeBinaryHeader() const {
    NameTable names;
    return writeBinaryHeader(names);
}

zel::ref_ptr<BinaryData> SerializedFrame::writeBinaryHeader(NameTable& names) const {
    static const Frame::EventVector noEvents;
    const Frame::EventVector& events = m_frame == nullptr ? noEvents : m_frame->getEvents();
    const bool isKeyFrame = m_frame != nullptr && m_frame->isKeyFrame();
    if (isKeyFrame)
        names = NameTable();
    const auto firstId = static_cast<uint32>(names.size());

    const zel::ref_ptr<BinaryData> partialHeader(new BinaryData(
        BinaryHeader::calculateSerializedEventSize(events) + m_root->getBinaryHeaderNumBytes()));
    {
        ByteStream headerStream(partialHeader.get());
        BinaryHeader::writeEvents(events, headerStream, names);
        m_root->writeBinaryHeader(headerStream, names);
        zelVerify(headerStream.head() == headerStream.end());
    }

    BinaryHeader::Frame meta{};
    const uint64 tableSize = BinaryHeader::calculateNameTableSize(names, firstId);
    zel::ref_ptr<BinaryData> header(new BinaryData(sizeof(meta) + tableSize + partialHeader->getSize()));
    if (m_frame != nullptr) {
        meta.index = m_frame->getIndex();
        meta.timeStamp = m_frame->getTimeStamp();
        meta.timeStep = m_frame->getTimeStep();
        meta.id = m_frame->getId();
    }
    meta.isKeyFrame = isKeyFrame ? 1 : 0;
    meta.headerSize = header->getSize();
    meta.dataSize = m_dataSize;
    meta.endTag = BinaryHeader::EndTag;
    ByteStream headerStream(header.get());
    headerStream.write(meta);
    BinaryHeader::writeNameTable(headerStream, names, firstId);
    zelVerifyAs(headerStream.remaining() == partialHeader->getSize(),
                "(size_t)(headerStream.end() - headerStream.head()) == partialHeader->size()");
    headerStream.writeBytes(partialHeader->getData(), partialHeader->getSize());
    return header;
}

} // namespace zelData
