#include "ElementForm.h"
#include "ElementSource.h"
#include "Fault.h"
#include "FrameWalk.h"

#include <zel/String.h>
#include <zelData/Array.h>
#include <zelData/ArrayFormat.h>
#include <zelData/Buffer.h>
#include <zelData/EntityPtr.h>
#include <zelData/Format.h>
#include <zelData/FrameNodes.h>
#include <zelData/SerializedNodes.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

// From nodes to a frame, which copies all elements.

namespace zelData {

namespace {

using zel::uint32;
using zel::uint64;

using OnFault = SerializedFrame::OnFault;
using Range = zel::IndexRangeT<uint32>;

/// Whether the elements of the node lie in its segment.
bool liesInSegment(const SerializedFrame::DataNode* node) {
    const uint64 size = node->getData()->getSize();
    return node->getOffset() <= size && node->getNumBytes() <= size - node->getOffset();
}

void requirePlain(const SerializedFrame::DataNode* node) {
    if (elementFormOf(node->getFormat()) != ElementForm::Plain)
        throw std::runtime_error(
            zel::String::format("SerializedFrame: elements of format '%s' can not stand as bytes in node %s",
                                node->getFormat()->fullName().c_str(),
                                node->getPath().c_str()));
}

[[noreturn]] void throwRange(const SerializedFrame::Node* node, uint64 index) {
    throw std::runtime_error(
        zel::String::format("SerializedFrame: the range of element %llu lies outside in node %s",
                            static_cast<unsigned long long>(index),
                            node->getPath().c_str()));
}

} // namespace

/// Makes the nodes of a frame.
class SerializedFrame::Creator {
public:
    Creator(OnFault onFault, ElementSource* source) : m_onFault(onFault), m_source(source) {}

    /// @return the payload of what it has made, in bytes
    uint64 createChildren(zel::Component* target, const Component* source) {
        uint64 numBytes = 0;
        for (const zel::ref_ptr<Node>& child : source->getChildren()) {
            const zel::ref_ptr<zel::Object> object = createNode(child.get(), numBytes);
            object->setId(child->getId());
            target->addObject(object.get());
        }
        return numBytes;
    }

private:
    zel::ref_ptr<zel::Object> createNode(const Node* node, uint64& numBytes) {
        zel::ref_ptr<zel::Object> object;
        switch (node->getType()) {
        case Node::ValueType:
            object = createValue(static_cast<const Value*>(node));
            break;
        case Node::BufferType:
            object = createBuffer(static_cast<const Buffer*>(node));
            break;
        case Node::CustomBufferType:
            object = createCustomBuffer(static_cast<const CustomBuffer*>(node));
            break;
        case Node::PartialBufferType:
            object = createPartialBuffer(static_cast<const PartialBuffer*>(node));
            break;
        case Node::ComponentType: {
            const zel::ref_ptr<zel::Component> component(new zel::Component(node->getName()));
            numBytes += createChildren(component.get(), static_cast<const Component*>(node));
            return component;
        }
        case Node::EntityStorageType: {
            const auto* storage = static_cast<const EntityStorage*>(node);
            const zel::ref_ptr<Frame::EntityStorage> made(new Frame::EntityStorage(
                node->getName(), storage->getModel(), storage->getNumElements(), storage->getCapacity()));
            numBytes += createChildren(made.get(), storage);
            return made;
        }
        default:
            zelAbort("Unknown node type %u", static_cast<unsigned>(node->getType()));
        }
        numBytes += Frame::calculateNumBytes(object.get());
        return object;
    }

    zel::ref_ptr<zel::Object> createValue(const Value* serializedValue) {
        if (!liesInSegment(serializedValue))
            fail(m_onFault,
                 "offset + numBytes <= serializedValue->getData()->size()",
                 "SerializedFrame: Unable to copy %llu bytes from offset %llu in node %s",
                 static_cast<unsigned long long>(serializedValue->getNumBytes()),
                 static_cast<unsigned long long>(serializedValue->getOffset()),
                 serializedValue->getPath().c_str());
        requirePlain(serializedValue);
        const zel::ref_ptr<zelData::Value> value(
            new zelData::Value(serializedValue->getName(), serializedValue->getFormat()));
        copyElements(serializedValue, value->getData());
        return value;
    }

    zel::ref_ptr<zelData::Buffer> createBuffer(const Buffer* serializedBuffer) {
        if (!liesInSegment(serializedBuffer))
            fail(m_onFault,
                 "offset + numBytes <= serializedBuffer->getData()->size()",
                 "SerializedFrame: Unable to copy %llu bytes from offset %llu in node %s",
                 static_cast<unsigned long long>(serializedBuffer->getNumBytes()),
                 static_cast<unsigned long long>(serializedBuffer->getOffset()),
                 serializedBuffer->getPath().c_str());
        requirePlain(serializedBuffer);
        count(serializedBuffer);
        zel::ref_ptr<zelData::Buffer> buffer = makeBuffer(
            serializedBuffer->getName(), serializedBuffer->getFormat(), serializedBuffer->getNumElements());
        if (!buffer->empty())
            copyElements(serializedBuffer, buffer->getPtr());
        buffer->commit();
        return buffer;
    }

    void copyElements(const DataNode* node, void* target) {
        if (m_source != nullptr)
            m_source->read(node->getOffset(), target, node->getNumBytes());
        else
            std::memcpy(target, node->getData()->getData() + node->getOffset(), node->getNumBytes());
    }

    /// Buffers may show the same bytes, but not so often that a small file asks for any amount of memory.
    void count(const DataNode* node) {
        if (m_countedData != node->getData()) {
            m_countedData = node->getData();
            m_numCounted = 0;
        }
        m_numCounted += node->getNumBytes();
        if (m_numCounted > MaxOverlap * m_countedData->getSize())
            throw std::runtime_error(zel::String::format(
                "SerializedFrame: the buffers up to node %s show the same bytes again and again",
                node->getPath().c_str()));
    }

    static zel::ref_ptr<zelData::Buffer>
    makeBuffer(const zel::Name& name, const Format* format, uint64 numElements) {
        zel::ref_ptr<zelData::Buffer> buffer(new zelData::Buffer(name, format));
        buffer->resize(numElements, !buffer->hasPlainElements());
        return buffer;
    }

    zel::ref_ptr<zel::Object> createPartialBuffer(const PartialBuffer* node) {
        const auto* serializedIndexBuffer = dynamic_cast<const Buffer*>(node->findChild("index"));
        if (serializedIndexBuffer == nullptr)
            fail(m_onFault,
                 "serializedIndexBuffer",
                 "SerializedFrame: Expected index buffer in node %s",
                 node->getPath().c_str());
        const Node* serializedDataBuffer = node->findChild("data");
        const zel::ref_ptr<zelData::Buffer> data = createElements(serializedDataBuffer);
        if (data == nullptr)
            fail(m_onFault,
                 "serializedDataBuffer",
                 "SerializedFrame: Expected data buffer in node %s",
                 node->getPath().c_str());
        const zel::ref_ptr<zelData::Buffer> index = createNumbers(serializedIndexBuffer);
        expect(m_onFault, index->size() == data->size(), "indexBuffer->size() == dataBuffer->size()");
        if (m_onFault == OnFault::Throw)
            checkPlaces(node, index.get());
        index->setId(serializedIndexBuffer->getId());
        data->setId(serializedDataBuffer->getId());
        return zel::ref_ptr<zel::Object>(
            new Frame::PartialBuffer(node->getName(), index.get(), data.get(), node->getFullSize()));
    }

    static void checkPlaces(const PartialBuffer* node, const zelData::Buffer* index) {
        const auto* places = index->data<uint64>();
        for (uint64 i = 0; i < index->size(); ++i)
            if (places[i] >= node->getFullSize() || (i != 0 && places[i] <= places[i - 1]))
                throw std::runtime_error(
                    zel::String::format("SerializedFrame: the place of element %llu is wrong in node %s",
                                        static_cast<unsigned long long>(i),
                                        node->getPath().c_str()));
    }

    /// Of a plain buffer or one that was taken apart; null for anything else.
    zel::ref_ptr<zelData::Buffer> createElements(const Node* node) {
        if (const auto* plain = dynamic_cast<const Buffer*>(node))
            return createBuffer(plain);
        if (const auto* custom = dynamic_cast<const CustomBuffer*>(node))
            return createCustomBuffer(custom);
        return {};
    }

    /// Brings numbers of 32 bits, as older files hold them, to 64.
    zel::ref_ptr<zelData::Buffer> createNumbers(const Buffer* node) {
        const Format* wide = zelData::getFormat("UInt");
        zel::ref_ptr<zelData::Buffer> buffer = createBuffer(node);
        if (buffer->getFormat() == wide)
            return buffer;
        if (buffer->getFormat() != zelData::getFormat("UInt:32bit"))
            throw std::runtime_error(
                zel::String::format("SerializedFrame: format '%s' holds no numbers in node %s",
                                    buffer->getFormat()->fullName().c_str(),
                                    node->getPath().c_str()));
        zel::ref_ptr<zelData::Buffer> numbers = makeBuffer(node->getName(), wide, buffer->size());
        std::copy_n(buffer->data<uint32>(), buffer->size(), numbers->data<uint64>());
        return numbers;
    }

    zel::ref_ptr<zelData::Buffer> createCustomBuffer(const CustomBuffer* node) {
        switch (elementFormOf(node->getFormat())) {
        case ElementForm::Array:
            return createArrayBuffer(node);
        case ElementForm::Text:
            if (node->getFormat()->getType()->getName() == "Name")
                return createNameBuffer<zel::Name>(node);
            return createNameBuffer<zel::String>(node);
        case ElementForm::Handle:
            return createPtrBuffer(node);
        default:
            throw std::runtime_error(
                zel::String::format("SerializedFrame: Unknown custom buffer format '%s' in node %s",
                                    node->getFormat()->fullName().c_str(),
                                    node->getPath().c_str()));
        }
    }

    /// One of the buffers that a custom one is made of.
    const Buffer* requirePart(const CustomBuffer* node, const char* name, const char* expression) {
        const auto* part = dynamic_cast<const Buffer*>(node->findChild(name));
        if (part == nullptr)
            fail(m_onFault,
                 expression,
                 "SerializedFrame: Expected %s buffer in node %s",
                 name,
                 node->getPath().c_str());
        return part;
    }

    static void requireSize(const CustomBuffer* node, const zelData::Buffer* part) {
        if (part->size() != node->getNumElements())
            throw std::runtime_error(
                zel::String::format("SerializedFrame: '%s' has %llu elements, and not %llu, in node %s",
                                    part->getName().c_str(),
                                    static_cast<unsigned long long>(part->size()),
                                    static_cast<unsigned long long>(node->getNumElements()),
                                    node->getPath().c_str()));
    }

    zel::ref_ptr<zelData::Buffer> createPtrBuffer(const CustomBuffer* node) {
        const auto ids = createNumbers(requirePart(node, "id", "serializedIdBuffer"));
        const auto storages = createNumbers(requirePart(node, "storage", "serializedStorageBuffer"));
        requireSize(node, ids.get());
        requireSize(node, storages.get());
        zel::ref_ptr<zelData::Buffer> buffer = makeBuffer(node->getName(), node->getFormat(), ids->size());
        for (uint64 i = 0; i < ids->size(); ++i)
            buffer->data<EntityPtr>()[i] =
                EntityPtr(reinterpret_cast<zelData::EntityStorage*>(storages->data<uint64>()[i]), // NOLINT
                          static_cast<uint32>(ids->data<uint64>()[i]));
        buffer->commit();
        return buffer;
    }

    zel::ref_ptr<zelData::Buffer> createRanges(const CustomBuffer* node) {
        zel::ref_ptr<zelData::Buffer> ranges =
            createBuffer(requirePart(node, "range", "serializedRangeBuffer"));
        if (ranges->getFormat() != zelData::getFormat("IndexRange:32bit"))
            throw std::runtime_error(
                zel::String::format("SerializedFrame: format '%s' holds no ranges in node %s",
                                    ranges->getFormat()->fullName().c_str(),
                                    node->getPath().c_str()));
        requireSize(node, ranges.get());
        return ranges;
    }

    /// Arrays take their elements for what their own format says.
    static void requireElements(const CustomBuffer* node, const zelData::Buffer* elements) {
        const auto* format = dynamic_cast<const ArrayFormat*>(node->getFormat());
        if (format == nullptr || elements->getFormat() != format->getElementFormat())
            throw std::runtime_error(
                zel::String::format("SerializedFrame: format '%s' is not that of the elements in node %s",
                                    elements->getFormat()->fullName().c_str(),
                                    node->getPath().c_str()));
    }

    zel::ref_ptr<zelData::Buffer> createArrayBuffer(const CustomBuffer* node) {
        const auto ranges = createRanges(node);
        zel::ref_ptr<zelData::Buffer> buffers;
        if (const auto* part = dynamic_cast<const Buffer*>(node->findChild("buffer"))) {
            buffers = createNumbers(part);
            requireSize(node, buffers.get());
        }
        const Node* elementNode = node->findChild("elements");
        const zel::ref_ptr<zelData::Buffer> elements = createElements(elementNode);
        zel::ref_ptr<zelData::Buffer> buffer = makeBuffer(node->getName(), node->getFormat(), ranges->size());
        if (elements) {
            requireElements(node, elements.get());
            elements->setId(elementNode->getId());
            buffer->setElementBuffer(elements.get());
        }
        for (uint64 i = 0; i < ranges->size(); ++i) {
            const Range& range = ranges->data<Range>()[i];
            auto& array = buffer->data<AbstractArray>()[i];
            if (!elements) {
                const uint64 number = buffers ? buffers->data<uint64>()[i] : 0;
                array.setReference(reinterpret_cast<zelData::Buffer*>(number), range); // NOLINT
                continue;
            }
            if (range.begin() > range.end() || range.end() > elements->size())
                throwRange(node, i);
            array.bind(elements.get(), range);
            // The arrays know the elements by this number, also where the node has none.
            if (elements->getId() == Frame::NoId && buffers)
                elements->setId(static_cast<uint32>(buffers->data<uint64>()[i]));
        }
        buffer->commit();
        return buffer;
    }

    template <typename Text>
    zel::ref_ptr<zelData::Buffer> createNameBuffer(const CustomBuffer* node) {
        const auto ranges = createRanges(node);
        zel::ref_ptr<zelData::Buffer> characters;
        if (const auto* part = dynamic_cast<const Buffer*>(node->findChild("characters")))
            characters = createBuffer(part);
        if (characters && characters->getElementSize() != 1)
            throw std::runtime_error(
                zel::String::format("SerializedFrame: format '%s' holds no characters in node %s",
                                    characters->getFormat()->fullName().c_str(),
                                    node->getPath().c_str()));
        const uint64 numCharacters = characters ? characters->size() : 0;
        zel::ref_ptr<zelData::Buffer> buffer = makeBuffer(node->getName(), node->getFormat(), ranges->size());
        for (uint64 i = 0; i < ranges->size(); ++i) {
            const Range& range = ranges->data<Range>()[i];
            if (range.begin() > range.end() || range.end() > numCharacters)
                throwRange(node, i);
            if (range.begin() != range.end())
                buffer->data<Text>()[i] =
                    Text(std::string(characters->data<char>() + range.begin(), range.end() - range.begin()));
        }
        buffer->commit();
        return buffer;
    }

    static constexpr uint64 MaxOverlap = 16;

    OnFault m_onFault;
    ElementSource* m_source;
    const BinaryData* m_countedData = nullptr; // whose buffers have been counted
    uint64 m_numCounted = 0;
};

Frame* SerializedFrame::createFrame(const Component* root,
                                    zel::uint64 index,
                                    double timeStamp,
                                    double timeStep,
                                    OnFault onFault,
                                    ElementSource* source) {
    const RebindOff rebindOff;
    zel::ref_ptr<Frame> frame(new Frame(index, timeStamp, timeStep));
    frame->setNumBytes(Creator(onFault, source).createChildren(frame.get(), root));
    frame->setSerialized(true);
    return frame.release_nodelete();
}

} // namespace zelData
