#include <zel/Clock.h>
#include <zel/Model.h>
#include <zel/Verify.h>
#include <zelData/Buffer.h>
#include <zelData/EntityData.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>
#include <zelData/Frame.h>
#include <zelData/FrameNodes.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <atomic>
#include <ostream>

namespace zelData {

namespace {

zel::uint64 numBytesOf(const Buffer* buffer) {
    if (buffer == nullptr)
        return 0;
    return buffer->size() * buffer->getElementSize() + numBytesOf(buffer->getElementBuffer());
}

} // namespace

Frame::Frame(zel::uint64 index, double timeStamp, double timeStep)
    : Component(zel::Name(), ClassModel()), m_index(index), m_timeStamp(timeStamp), m_timeStep(timeStep) {}

Frame::Frame(zel::Clock* clock) : Frame(clock->getFrame(), clock->getTime(), clock->getTimeStep()) {}

Frame::~Frame() = default;

// The header

Frame::Header Frame::getHeader() const {
    return {m_index, m_timeStep, m_timeStamp, getId(), m_isKeyFrame};
}

std::ostream& operator<<(std::ostream& stream, const Frame::Header& header) {
    return stream << "{ index=" << header.index << ", timeStep=" << header.timeStep
                  << ", timeStamp=" << header.timeStamp << ", isKeyFrame=" << header.isKeyFrame << "}";
}

void Frame::setIncrementalFrameArchiveBuffer(Buffer* buffer) {
    m_incrementalFrameArchiveBuffer = buffer;
}

// Building

zel::Component* Frame::getContext(const zel::Path& path) {
    zelVerifyN(!path.empty(), "%s: a node of a frame needs a path", getPath().c_str());
    Component* context = this;
    for (auto part = path.begin();;) {
        const zel::Name name = *part;
        if (++part == path.end())
            return context;
        Object* child = context->findObject(name);
        if (child == nullptr) {
            const zel::ref_ptr<Component> created(new Component(name));
            created->setId(NoId);
            context->addObject(created.get());
            child = created.get();
        }
        auto* component = dynamic_cast<Component*>(child);
        zelVerifyN(component != nullptr,
                   "%s: '%s' is no component, so that '%s' can not lie below it",
                   getPath().c_str(),
                   name.c_str(),
                   path.c_str());
        context = component;
    }
}

void Frame::addNamed(Component* component, const zel::Path& path) {
    Component* context = getContext(path);
    const zel::Name name = path.back();
    if (component->getName() != name)
        component->setName(name);
    addNode(context, component);
}

void Frame::addComponent(Component* component, const zel::Path& path) {
    addNamed(component, path);
}

void Frame::addStorage(EntityStorage* storage, const zel::Path& path) {
    addNamed(storage, path);
}

void Frame::addBuffer(Buffer* buffer, const zel::Path& path) {
    addNode(getContext(path), buffer);
}

void Frame::addBuffer(PartialBuffer* buffer, const zel::Path& path) {
    addNode(getContext(path), buffer);
}

void Frame::addValue(Value* value, const zel::Path& path) {
    addNode(getContext(path), value);
}

void Frame::addNode(Component* parent, zel::Object* node) {
    const zel::uint64 numBytes = calculateNumBytes(node);
    parent->addObject(node);
    m_numBytes += numBytes;
}

void Frame::removeNode(zel::Object* node) {
    auto* parent = dynamic_cast<Component*>(node->getContext());
    zelVerifyN(parent != nullptr, "%s: the node lies in no frame", node->getPath().c_str());
    m_numBytes -= calculateNumBytes(node);
    parent->removeObject(node);
}

void Frame::addStorageMetaData(const zelData::EntityStorage* storage, const zel::Path& path) {
    const Format* format = getFormat("UInt");
    const zel::ref_ptr<Buffer> idToIndex(new Buffer(zelData::EntityStorage::IdToIndexName, format));
    const zel::ref_ptr<Buffer> indexToId(new Buffer(zelData::EntityStorage::IndexToIdName, format));
    idToIndex->resize(storage->capacity(), false);
    indexToId->resize(storage->size(), false);
    for (zel::uint64 id = 0; id < storage->capacity(); ++id) {
        const zel::uint64 index = storage->getIndex(static_cast<zel::uint32>(id));
        idToIndex->data<zel::uint64>()[id] = index;
        if (index < storage->size())
            indexToId->data<zel::uint64>()[index] = id;
    }
    addBuffer(idToIndex.get(), path + idToIndex->getName());
    addBuffer(indexToId.get(), path + indexToId->getName());
}

void Frame::addEvent(zel::Object::Event* event) {
    m_events.push_back(event);
}

void Frame::addEvents(const EventVector& events) {
    for (const zel::ref_ptr<Object::Event>& event : events)
        m_events.push_back(event);
}

// Looking in

Buffer* Frame::getBuffer(const zel::Path& path) {
    return dynamic_cast<Buffer*>(getResource(path));
}

Frame::EntityStorage* Frame::getStorageWithId(const Component* component, zel::uint32 id) {
    for (zel::size_t i = 0; i < component->getNumObjects(); ++i) {
        Object* child = component->getObject(i);
        if (child->getId() == id) {
            auto* storage = dynamic_cast<EntityStorage*>(child);
            zelVerifyAs(storage != nullptr, "child->is<EntityStorage>()");
            return storage;
        }
        // What lies below a buffer are parts of it, whose ids come from the process that looks.
        const auto* below = dynamic_cast<const Component*>(child);
        if (below == nullptr || dynamic_cast<const Buffer*>(child) != nullptr)
            continue;
        if (EntityStorage* found = getStorageWithId(below, id))
            return found;
    }
    return nullptr;
}

zel::uint64 Frame::calculateNumBytes(const zel::Object* object) {
    if (const auto* value = dynamic_cast<const Value*>(object))
        return value->getFormat() == nullptr ? 0 : value->getFormat()->getSize();
    if (const auto* partial = dynamic_cast<const PartialBuffer*>(object)) {
        const Buffer* data = partial->getDataBuffer();
        const Buffer* index = partial->getIndexBuffer();
        return (data == nullptr ? 0 : data->size() * data->getElementSize()) +
               index->size() * index->getElementSize();
    }
    if (const auto* buffer = dynamic_cast<const Buffer*>(object))
        return numBytesOf(buffer);
    if (dynamic_cast<const EntityData*>(object) != nullptr)
        return 0;
    const auto* component = dynamic_cast<const Component*>(object);
    if (component == nullptr)
        zelAbort("Unknown frame node %s", object->getPath().c_str());
    zel::uint64 numBytes = 0;
    for (zel::size_t i = 0; i < component->getNumObjects(); ++i)
        numBytes += calculateNumBytes(component->getObject(i));
    return numBytes;
}

zel::Model* Frame::ClassModel() {
    static std::atomic<zel::Model*> s_model{nullptr};
    return zel::Model::createBuiltinModel("Frame", Component::ClassModel(), s_model);
}

} // namespace zelData
