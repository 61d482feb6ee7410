#include "Fault.h"
#include "data/Ascii.h"
#include "data/FormatLookup.h"

#include <zel/Exception.h>
#include <zel/String.h>
#include <zel/XmlLoader.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityStorage.h>
#include <zelData/EntityStorageEvents.h>
#include <zelData/Format.h>
#include <zelData/SerializedNodes.h>

#include <tinyxml.h>

#include <memory>
#include <string>

// Headers in XML.

namespace zelData {

namespace {

using zel::parseAttribute;
using zel::uint32;
using zel::uint64;

using Node = SerializedFrame::Node;
using OnFault = SerializedFrame::OnFault;

void setNumber(TiXmlElement* element, const char* name, uint64 number) {
    element->SetAttribute(name, zel::String::format("%llu", static_cast<unsigned long long>(number)).c_str());
}

/// With all digits, so that the same number comes back.
void setReal(TiXmlElement* element, const char* name, double number) {
    element->SetAttribute(name, AsciiText().exact(number).str());
}

bool isTrue(const TiXmlElement* element, const char* name) {
    const char* text = element->Attribute(name);
    return text != nullptr && std::string(text) == "true";
}

// Events. A storage stands by its object id, or by the number that a serialized frame has in its place.

uint64 storageNumber(const EntityStorage* storage, bool serialized) {
    if (serialized || storage == nullptr)
        return static_cast<uint32>(reinterpret_cast<std::uintptr_t>(storage));
    return storage->getId();
}

void writeEvent(TiXmlElement* events, const zel::Object::Event* event, bool serialized) {
    const auto* ofStorage = dynamic_cast<const EntityStorage::InstanceEvent*>(event);
    auto element = std::make_unique<TiXmlElement>("Event");
    const auto setType = [&](const char* type) {
        element->SetAttribute("type", type);
        setNumber(element.get(), "storageId", storageNumber(ofStorage->getStorage(), serialized));
    };
    if (dynamic_cast<const EntityStorage::CreateInstanceEvent*>(event) != nullptr) {
        setType("EntityStorage.CreateInstanceEvent");
    } else if (const auto* created = dynamic_cast<const EntityStorage::CreateInstancesEvent*>(event)) {
        setType("EntityStorage.CreateInstancesEvent");
        setNumber(element.get(), "numInstances", created->getRange().end() - created->getRange().begin());
    } else if (const auto* destroyed = dynamic_cast<const EntityStorage::DestroyInstanceEvent*>(event)) {
        setType("EntityStorage.DestroyInstanceEvent");
        setNumber(element.get(), "instanceId", destroyed->getInstance().getId());
    } else if (const auto* range = dynamic_cast<const EntityStorage::DestroyInstancesEvent*>(event)) {
        setType("EntityStorage.DestroyInstancesEvent");
        setNumber(element.get(), "rangeBegin", range->getRange().begin());
        setNumber(element.get(), "rangeEnd", range->getRange().end());
    } else {
        zelAbort("An event of this class can not be written in XML");
    }
    events->LinkEndChild(element.release());
}

zel::ref_ptr<zel::Object::Event> extractEvent(const TiXmlElement* element) {
    using EventRef = zel::ref_ptr<zel::Object::Event>;
    const auto type = parseAttribute<zel::String>(element, "type");
    const auto storage = [element] {
        return reinterpret_cast<EntityStorage*>(parseAttribute<uint64>(element, "storageId")); // NOLINT
    };
    if (type == "EntityStorage.CreateInstanceEvent")
        return EventRef(new EntityStorage::CreateInstanceEvent(
            storage(), EntityPtr(storage(), static_cast<uint32>(zel::InvalidIndex))));
    if (type == "EntityStorage.CreateInstancesEvent")
        return EventRef(new EntityStorage::CreateInstancesEvent(
            storage(), EntityRange(storage(), 0, parseAttribute<uint64>(element, "numInstances"))));
    if (type == "EntityStorage.DestroyInstanceEvent")
        return EventRef(new EntityStorage::DestroyInstanceEvent(
            storage(), EntityPtr(storage(), parseAttribute<uint32>(element, "instanceId"))));
    if (type == "EntityStorage.DestroyInstancesEvent")
        return EventRef(new EntityStorage::DestroyInstancesEvent(
            storage(),
            EntityRange(storage(),
                        parseAttribute<uint64>(element, "rangeBegin"),
                        parseAttribute<uint64>(element, "rangeEnd"))));
    ZEL_XML_ERROR(element, "Unknown event type '" + type + "'");
}

/// Reads the nodes of a header.
class XmlHeader {
public:
    explicit XmlHeader(const BinaryData* data) : m_data(data) {}

    void extractChildren(SerializedFrame::Component* parent, TiXmlElement* element) {
        ++m_depth;
        for (TiXmlElement* child = element->FirstChildElement(); child != nullptr;
             child = child->NextSiblingElement())
            if (m_depth > 1 || child->ValueStr() != "Events")
                parent->addChild(extractNode(child).get());
        --m_depth;
    }

private:
    zel::ref_ptr<Node> extractNode(TiXmlElement* element) {
        if (m_depth >= SerializedFrame::MaxDepth)
            throw std::runtime_error(zel::String::format("SerializedFrame: nodes lie more than %u deep",
                                                         SerializedFrame::MaxDepth));
        const std::string& tag = element->ValueStr();
        const auto id = parseAttribute<uint32>(element, "id");
        const auto name = zel::Name(parseAttribute<zel::String>(element, "name"));
        if (tag == "Value")
            return extractValue(element, id, name);
        if (tag == "Component")
            return withChildren(element, new SerializedFrame::Component(id, name));
        if (tag == "Storage")
            return extractEntityStorage(element, id, name);
        if (tag != "Buffer")
            ZEL_XML_ERROR(element, "SerializedFrame: Unknown tag '" + tag + "'");
        if (isTrue(element, "customSerialization"))
            return withChildren(
                element,
                new SerializedFrame::CustomBuffer(
                    id, name, bufferFormat(element), parseAttribute<uint64>(element, "numElements")));
        if (isTrue(element, "isPartial"))
            return withChildren(
                element,
                new SerializedFrame::PartialBuffer(id,
                                                   name,
                                                   bufferFormat(element),
                                                   parseAttribute<uint64>(element, "numElements"),
                                                   parseAttribute<uint64>(element, "fullSize")));
        return extractBuffer(element, id, name);
    }

    zel::ref_ptr<Node> withChildren(TiXmlElement* element, SerializedFrame::Component* made) {
        const zel::ref_ptr<SerializedFrame::Component> node(made);
        extractChildren(node.get(), element);
        return node;
    }

    zel::ref_ptr<Node> extractValue(TiXmlElement* element, uint32 id, const zel::Name& name) {
        const Format* format = requireFormat(element, "FileFrameReader");
        const auto numBytes = parseAttribute<uint64>(element, "numBytes");
        const auto offset = parseAttribute<uint64>(element, "byteOffset");
        zelVerify(format->getSize() == numBytes);
        return zel::ref_ptr<Node>(new SerializedFrame::Value(id, name, format, offset, m_data));
    }

    zel::ref_ptr<Node> extractBuffer(TiXmlElement* element, uint32 id, const zel::Name& name) {
        const Format* format = bufferFormat(element);
        const auto numElements = parseAttribute<uint64>(element, "numElements");
        const auto numBytes = parseAttribute<uint64>(element, "numBytes");
        const auto offset = parseAttribute<uint64>(element, "byteOffset");
        const uint64 size = format->getSize();
        zelVerifyAs(size == 0 ? numBytes == 0 : numBytes / size == numElements && numBytes % size == 0,
                    "format->getSize() * numElements == numBytes");
        return zel::ref_ptr<Node>(new SerializedFrame::Buffer(id, name, format, numElements, offset, m_data));
    }

    zel::ref_ptr<Node> extractEntityStorage(TiXmlElement* element, uint32 id, const zel::Name& name) {
        const auto entity = parseAttribute<zel::String>(element, "entity");
        EntityModel* model = entity.empty() ? nullptr : getEntity(zel::Path(entity));
        if (model == nullptr && !entity.empty())
            ZEL_XML_ERROR(element, "FileFrameReader: No entiy with name '" + entity + "'");
        return withChildren(element,
                            new SerializedFrame::EntityStorage(id,
                                                               name,
                                                               model,
                                                               parseAttribute<uint64>(element, "numElements"),
                                                               parseAttribute<uint64>(element, "capacity")));
    }

    static const Format* bufferFormat(TiXmlElement* element) {
        return requireFormat(element, "SerializedFrame");
    }

    static const Format* requireFormat(TiXmlElement* element, const char* origin) {
        const auto name = parseAttribute<zel::String>(element, "type");
        const Format* format = findFormat(name);
        if (format == nullptr)
            ZEL_XML_ERROR(element, zel::String::format("%s: Invalid format '%s'", origin, name.c_str()));
        return format;
    }

    const BinaryData* m_data;
    uint32 m_depth = 0;
};

} // namespace

// Writing

TiXmlElement* SerializedFrame::Node::makeElement(TiXmlElement* parent, const char* tag) const {
    auto* element = new TiXmlElement(tag);
    parent->LinkEndChild(element);
    element->SetAttribute("name", m_name.c_str());
    setNumber(element, "id", m_id);
    return element;
}

void SerializedFrame::DataNode::writeDataAttributes(TiXmlElement* element) const {
    setNumber(element, "numBytes", m_numBytes);
    setNumber(element, "byteOffset", m_offset);
}

void SerializedFrame::Value::writeXmlHeader(TiXmlElement* parent) const {
    TiXmlElement* element = makeElement(parent, "Value");
    element->SetAttribute("type", getFormat()->fullName().c_str());
    writeDataAttributes(element);
}

void SerializedFrame::Buffer::writeXmlHeader(TiXmlElement* parent) const {
    TiXmlElement* element = makeElement(parent, "Buffer");
    element->SetAttribute("type", getFormat()->fullName().c_str());
    setNumber(element, "numElements", m_numElements);
    writeDataAttributes(element);
}

void SerializedFrame::Component::writeXmlHeader(TiXmlElement* parent) const {
    writeChildren(makeElement(parent, "Component"));
}

void SerializedFrame::Component::writeChildren(TiXmlElement* element) const {
    for (const zel::ref_ptr<Node>& child : m_children)
        child->writeXmlHeader(element);
}

void SerializedFrame::CustomBuffer::writeXmlHeader(TiXmlElement* parent) const {
    TiXmlElement* element = makeElement(parent, "Buffer");
    element->SetAttribute("type", m_format->fullName().c_str());
    setNumber(element, "numElements", m_numElements);
    element->SetAttribute("customSerialization", "true");
    Component::writeChildren(element);
}

void SerializedFrame::PartialBuffer::writeXmlHeader(TiXmlElement* parent) const {
    TiXmlElement* element = makeElement(parent, "Buffer");
    element->SetAttribute("type", m_format->fullName().c_str());
    setNumber(element, "numElements", m_numElements);
    setNumber(element, "fullSize", m_fullSize);
    element->SetAttribute("isPartial", "true");
    Component::writeChildren(element);
}

void SerializedFrame::EntityStorage::writeXmlHeader(TiXmlElement* parent) const {
    TiXmlElement* element = makeElement(parent, "Storage");
    element->SetAttribute("entity", m_model ? m_model->fullPath().c_str() : "");
    setNumber(element, "numElements", m_numElements);
    setNumber(element, "capacity", m_capacity);
    Component::writeChildren(element);
}

TiXmlElement* SerializedFrame::writeXmlHeader() const {
    auto element = std::make_unique<TiXmlElement>("Frame");
    const Frame::Header header = m_frame == nullptr ? Frame::Header{} : m_frame->getHeader();
    setNumber(element.get(), "index", header.index);
    setReal(element.get(), "timeStamp", header.timeStamp);
    setReal(element.get(), "timeStep", header.timeStep);
    setNumber(element.get(), "id", header.id);
    element->SetAttribute("keyFrame", header.isKeyFrame ? "true" : "false");
    if (m_frame != nullptr && !m_frame->getEvents().empty()) {
        auto* events = new TiXmlElement("Events");
        element->LinkEndChild(events);
        for (const zel::ref_ptr<zel::Object::Event>& event : m_frame->getEvents())
            writeEvent(events, event.get(), m_frame->isSerialized());
    }
    m_root->writeChildren(element.get());
    return element.release();
}

// Reading

Frame* SerializedFrame::extractFrame(TiXmlElement* element, const BinaryData* segment) {
    const auto index = parseAttribute<uint64>(element, "index");
    const auto timeStamp = parseAttribute<double>(element, "timeStamp");
    const auto timeStep = parseAttribute<double>(element, "timeStep");
    const auto isKeyFrame = parseAttribute<bool>(element, "keyFrame");
    const auto id = parseAttribute<uint32>(element, "id");
    const zel::ref_ptr<Component> root(new Component(Frame::NoId, zel::Name()));
    XmlHeader(segment).extractChildren(root.get(), element);
    zel::ref_ptr<Frame> frame(createFrame(root.get(), index, timeStamp, timeStep));
    frame->setKeyFrame(isKeyFrame);
    frame->setId(id);
    if (TiXmlElement* events = element->FirstChildElement("Events"))
        for (TiXmlElement* event = events->FirstChildElement(); event != nullptr;
             event = event->NextSiblingElement())
            frame->addEvent(extractEvent(event).get());
    return frame.release_nodelete();
}

} // namespace zelData
