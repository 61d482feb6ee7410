#include "ElementForm.h"

#include <zel/Log.h>
#include <zel/Model.h>
#include <zel/String.h>
#include <zelData/ArrayFormat.h>
#include <zelData/Buffer.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityPtr.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>
#include <zelData/FrameNodes.h>
#include <zelData/SerializedFrame.h>
#include <zelData/SerializedNodes.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <algorithm>
#include <iostream>
#include <ostream>
#include <stdexcept>
#include <string_view>

// From a frame to nodes.

namespace zelData {

namespace {

using zel::uint32;
using zel::uint64;

/// The low half of a reference, which is what a file holds of it.
uint64 lowHalf(const void* reference) {
    return static_cast<uint32>(reinterpret_cast<std::uintptr_t>(reference));
}

/// What stands for a storage or a buffer: its object id, or the number that the reference is already, and
/// which is not to be taken for an object.
template <typename T>
uint64 idOf(const T* object, bool serialized) {
    if (serialized)
        return lowHalf(object);
    return object == nullptr ? Frame::NoId : static_cast<const zel::Object*>(object)->getId();
}

} // namespace

/// Adds the nodes of a frame to its serialized form.
class SerializedFrame::Builder {
public:
    Builder(SerializedFrame& target, bool serialized) : m_target(target), m_serialized(serialized) {}

    /// @param leftOut  the name of a child that is passed over; empty for none
    void
    addChildren(Component* parent, const zel::Component* source, const zel::Name& leftOut = zel::Name()) {
        const Level level(m_depth, source);
        for (zel::size_t i = 0; i < source->getNumObjects(); ++i)
            if (leftOut.empty() || source->getObject(i)->getName() != leftOut)
                add(parent, source->getObject(i));
    }

private:
    /// One node further down, of which a reader takes so many and no more.
    struct Level {
        Level(uint32& numLevels, const zel::Object* source) : depth(numLevels) {
            if (++depth > MaxDepth)
                throw std::runtime_error(
                    zel::String::format("SerializedFrame: the nodes of %s lie more than %u deep",
                                        source->getPath().c_str(),
                                        MaxDepth));
        }
        Level(const Level&) = delete;
        Level& operator=(const Level&) = delete;
        ~Level() { --depth; }
        uint32& depth;
    };

    void add(Component* parent, const zel::Object* object) {
        if (const auto* value = dynamic_cast<const zelData::Value*>(object))
            add(parent, value);
        else if (const auto* partial = dynamic_cast<const Frame::PartialBuffer*>(object))
            add(parent, partial);
        else if (const auto* buffer = dynamic_cast<const zelData::Buffer*>(object))
            add(parent, buffer, buffer->getName());
        else if (const auto* storage = dynamic_cast<const Frame::EntityStorage*>(object))
            add(parent,
                new EntityStorage(storage->getId(),
                                  storage->getName(),
                                  storage->getModel(),
                                  storage->size(),
                                  storage->capacity()),
                storage);
        else if (const auto* component = dynamic_cast<const zel::Component*>(object))
            add(parent, new Component(component->getId(), component->getName()), component);
        else
            std::cerr << "SerializedFrame: Don't know how to write a "
                      << (object->getModel() == nullptr ? zel::String() : object->getModel()->fullPath())
                      << ", ignoring..." << std::endl;
    }

    /// A component enters only with children.
    void add(Component* parent, const zel::ref_ptr<Component>& node, const zel::Component* source) {
        addChildren(node.get(), source);
        if (!node->getChildren().empty())
            parent->addChild(node.get());
    }

    void add(Component* parent, const zelData::Value* value) {
        const Format* format = value->getFormat();
        auto* content = const_cast<zelData::Value*>(value)->getData(); // NOLINT: only read
        if (format == nullptr || content == nullptr)
            return;
        if (elementFormOf(format) != ElementForm::Plain) {
            warn(value, format);
            return;
        }
        const Level level(m_depth, value);
        const uint64 size = format->getSize();
        const zel::ref_ptr<BinaryData> data = view(content, size, value);
        const uint64 offset = place(data, size, size);
        addNode(parent, new Value(value->getId(), value->getName(), format, offset, data.get()));
    }

    void add(Component* parent, const zelData::Buffer* buffer, const zel::Name& name) {
        if (buffer->empty())
            return;
        const Level level(m_depth, buffer);
        switch (elementFormOf(buffer->getFormat())) {
        case ElementForm::Plain:
            addPlainBuffer(parent, buffer, name);
            break;
        case ElementForm::Array:
            addArrayBuffer(parent, buffer, name);
            break;
        case ElementForm::Handle:
            addPtrBuffer(parent, buffer, name);
            break;
        case ElementForm::Text:
            if (buffer->getType()->getName() == "Name")
                addStringBuffer<zel::Name>(parent, buffer, name);
            else
                addStringBuffer<zel::String>(parent, buffer, name);
            break;
        case ElementForm::Vector:
            ZEL_LOG_WARNING("Serialization of vector attributes not implemented");
            break;
        case ElementForm::None:
            warn(buffer, buffer->getFormat());
            break;
        }
    }

    void addPlainBuffer(Component* parent, const zelData::Buffer* buffer, const zel::Name& name) {
        const uint64 size = buffer->getElementSize();
        const zel::ref_ptr<BinaryData> data = view(buffer->getPtr(), size * buffer->size(), buffer);
        const uint64 offset = place(data, size, data->getSize());
        addNode(parent,
                new Buffer(buffer->getId(), name, buffer->getFormat(), buffer->size(), offset, data.get()));
    }

    void addNode(Component* parent, DataNode* node) {
        parent->addChild(node);
        if (node->getFormat() != m_lastFormat) {
            m_lastFormat = node->getFormat();
            m_lastFormatName = m_lastFormat->fullName();
        }
        node->setFormatName(m_lastFormatName);
    }

    void add(Component* parent, const Frame::PartialBuffer* partial) {
        const zelData::Buffer* data = partial->getDataBuffer();
        if (data == nullptr || data->empty())
            return;
        const Level level(m_depth, partial);
        const zel::ref_ptr<PartialBuffer> node(new PartialBuffer(
            partial->getId(), partial->getName(), data->getFormat(), data->size(), partial->getFullSize()));
        add(node.get(), partial->getIndexBuffer(), partial->getIndexBuffer()->getName());
        add(node.get(), data, data->getName());
        // Without elements that a file can hold, the places mean nothing.
        if (node->getChildren().size() == 2)
            parent->addChild(node.get());
    }

    zel::ref_ptr<CustomBuffer> makeCustom(const zelData::Buffer* buffer, const zel::Name& name) {
        return zel::ref_ptr<CustomBuffer>(
            new CustomBuffer(buffer->getId(), name, buffer->getFormat(), buffer->size()));
    }

    void addPtrBuffer(Component* parent, const zelData::Buffer* buffer, const zel::Name& name) {
        zelData::Buffer* ids = m_target.createCustomBuffer("id", zelData::getFormat("UInt"), buffer->size());
        zelData::Buffer* storages =
            m_target.createCustomBuffer("storage", zelData::getFormat("UInt"), buffer->size());
        const auto* elements = buffer->data<EntityPtr>();
        for (uint64 i = 0; i < buffer->size(); ++i) {
            ids->data<uint64>()[i] = elements[i].getId();
            storages->data<uint64>()[i] = idOf(elements[i].getStorage(), m_serialized);
        }
        const zel::ref_ptr<CustomBuffer> node = makeCustom(buffer, name);
        add(node.get(), ids, ids->getName());
        add(node.get(), storages, storages->getName());
        parent->addChild(node.get());
    }

    void addArrayBuffer(Component* parent, const zelData::Buffer* buffer, const zel::Name& name) {
        zelData::Buffer* ranges = m_target.createCustomBuffer("range", rangeFormat(), buffer->size());
        zelData::Buffer* buffers =
            m_target.createCustomBuffer("buffer", zelData::getFormat("UInt"), buffer->size());
        const auto* elements = buffer->data<AbstractArray>();
        for (uint64 i = 0; i < buffer->size(); ++i) {
            ranges->data<zel::IndexRangeT<uint32>>()[i] = elements[i].range();
            // Those that were read show the elements, also where all other references are numbers.
            const bool isOwn =
                elements[i].buffer() != nullptr && elements[i].buffer() == buffer->getElementBuffer();
            buffers->data<uint64>()[i] = idOf(elements[i].buffer(), m_serialized && !isOwn);
        }
        const zel::ref_ptr<CustomBuffer> node = makeCustom(buffer, name);
        add(node.get(), ranges, ranges->getName());
        add(node.get(), buffers, buffers->getName());
        if (const zelData::Buffer* arrayElements = buffer->getElementBuffer())
            add(node.get(), arrayElements, "elements");
        parent->addChild(node.get());
    }

    template <typename Text>
    void addStringBuffer(Component* parent, const zelData::Buffer* buffer, const zel::Name& name) {
        zelData::Buffer* ranges = m_target.createCustomBuffer("range", rangeFormat(), buffer->size());
        const auto* texts = buffer->data<Text>();
        uint64 numCharacters = 0;
        for (uint64 i = 0; i < buffer->size(); ++i) {
            const uint64 begin = numCharacters;
            numCharacters += std::string_view(texts[i].c_str()).size();
            if (numCharacters > 0xFFFFFFFFU)
                throw std::runtime_error(zel::String::format(
                    "SerializedFrame: the texts of %s have more than 4 GiB", buffer->getPath().c_str()));
            ranges->data<zel::IndexRangeT<uint32>>()[i] = {static_cast<uint32>(begin),
                                                           static_cast<uint32>(numCharacters)};
        }
        zelData::Buffer* characters =
            m_target.createCustomBuffer("characters", zelData::getFormat("UInt:8bit"), numCharacters);
        auto* head = characters->data<char>();
        for (uint64 i = 0; i < buffer->size(); ++i) {
            const std::string_view text(texts[i].c_str());
            head = std::copy(text.begin(), text.end(), head);
        }
        const zel::ref_ptr<CustomBuffer> node = makeCustom(buffer, name);
        add(node.get(), ranges, ranges->getName());
        add(node.get(), characters, characters->getName());
        parent->addChild(node.get());
    }

    static const Format* rangeFormat() { return zelData::getFormat("IndexRange:32bit"); }

    /// Bytes that the frame keeps alive.
    static zel::ref_ptr<BinaryData> view(void* bytes, uint64 size, const zel::Referenced* owner) {
        return zel::ref_ptr<BinaryData>(new BinaryData(bytes, size, owner));
    }

    /// Gives the bytes their place in the segment.
    uint64 place(const zel::ref_ptr<BinaryData>& data, uint64 elementSize, uint64 numBytes) {
        const uint64 alignment = std::clamp<uint64>(elementSize, 1, 128);
        const uint64 offset = (m_target.m_dataOffset + alignment - 1) / alignment * alignment;
        m_target.m_segments.push_back({data, offset});
        m_target.m_dataOffset = offset + numBytes;
        return offset;
    }

    void warn(const zel::Object* object, const Format* format) const {
        ZEL_LOG_WARNING("Elements of format " << format->fullName() << " can not be written to a file: '"
                                              << object->getPath(m_target.m_frame) << "' is left out");
    }

    SerializedFrame& m_target;
    bool m_serialized;
    uint32 m_depth = 0;
    const Format* m_lastFormat = nullptr; // most nodes have that of the one ahead
    zel::Name m_lastFormatName;
};

SerializedFrame::SerializedFrame(const Frame* frame, const zel::Name& leftOut)
    : m_frame(frame), m_root(new Component(Frame::NoId, zel::Name())) {
    Builder(*this, frame->isSerialized()).addChildren(m_root.get(), frame, leftOut);
    m_dataSize = m_dataOffset;
}

SerializedFrame::SerializedFrame(Component* root) : m_root(root) {}

SerializedFrame::~SerializedFrame() = default;

zelData::Buffer*
SerializedFrame::createCustomBuffer(const zel::Name& name, const Format* format, zel::uint64 size) {
    m_customBuffers.push_back(new zelData::Buffer(name, format));
    zelData::Buffer* buffer = m_customBuffers.back().get();
    buffer->setId(Frame::NoId); // so that equal frames have equal bytes
    buffer->resize(size);
    return buffer;
}

void SerializedFrame::writeDataSegment(std::ostream& stream) const {
    m_root->writeDataSegment(stream, static_cast<uint64>(stream.tellp()));
}

void SerializedFrame::StorageBatchEvent::add(const EntityRange& range) {
    for (uint64 i = range.begin(); i < range.end(); ++i)
        m_ids.push_back(range.getStorage()->getId(i));
}

void SerializedFrame::StorageBatchEvent::add(const Array<EntityPtr>& instances) {
    for (const EntityPtr& instance : instances)
        m_ids.push_back(instance.getId());
}

void SerializedFrame::StorageBatchEvent::add(const Array<uint32>& ids) {
    for (const uint32 id : ids)
        m_ids.push_back(id);
}

} // namespace zelData
