#include "FrameNames.h"
#include "FrameOverlay.h"
#include "FrameWalk.h"
#include "data/ScatterElements.h"

#include <zel/Exception.h>
#include <zel/HashSet.h>
#include <zel/Model.h>
#include <zel/String.h>
#include <zel/Verify.h>
#include <zelData/Buffer.h>
#include <zelData/EntityModel.h>
#include <zelData/Format.h>
#include <zelData/Frame.h>
#include <zelData/FrameNodes.h>
#include <zelData/Value.h>

// One frame applied onto another.

namespace zelData {

namespace {

[[noreturn]] void throwCollision(const zel::Object* node, const zel::Object* existing) {
    ZEL_THROW(Frame::MergeException, node, existing);
}

/// Gives a copy, and the parts that belong to it, the ids of its original, and no link to that: the original
/// may be another thread's, and go at any time.
void adopt(zel::Object* copy, const zel::Object* node) {
    copy->setId(node->getId());
    if (const auto* partial = dynamic_cast<const Frame::PartialBuffer*>(node)) {
        auto* partialCopy = static_cast<Frame::PartialBuffer*>(copy);
        adopt(partialCopy->getIndexBuffer(), partial->getIndexBuffer());
        if (partial->getDataBuffer() != nullptr)
            adopt(partialCopy->getDataBuffer(), partial->getDataBuffer());
    } else if (const auto* buffer = dynamic_cast<const Buffer*>(node)) {
        auto* bufferCopy = static_cast<Buffer*>(copy);
        bufferCopy->setOriginalBuffer(bufferCopy);
        if (buffer->getElementBuffer() != nullptr)
            adopt(bufferCopy->getElementBuffer(), buffer->getElementBuffer());
    }
}

/// The format of the elements that the node holds, whole or in part.
const Format* formatOf(const zel::Object* node) {
    if (const auto* partial = dynamic_cast<const Frame::PartialBuffer*>(node))
        node = partial->getDataBuffer();
    const auto* buffer = dynamic_cast<const Buffer*>(node);
    return buffer == nullptr ? nullptr : buffer->getFormat();
}

} // namespace

void scatter(const Frame::PartialBuffer* source, Buffer* target) {
    const Buffer* data = source->getDataBuffer();
    if (target->size() != source->getFullSize())
        target->resize(source->getFullSize());
    const auto* index = source->getIndexBuffer()->data<zel::uint64>();
    for (zel::uint64 i = 0; i < data->size(); ++i)
        if (index[i] >= target->size())
            target->resize(index[i] == zel::InvalidIndex ? index[i] : index[i] + 1);
    scatterElements(target->getPtr(),
                    data->getPtr(),
                    index,
                    data->size(),
                    target->getFormat(),
                    target->hasPlainElements() && data->hasPlainElements());
    target->commit();
}

Frame::MergeException::MergeException(const zel::Object* node, const zel::Object* collisionNode)
    : std::runtime_error("MergeException"), m_node(node), m_collisionNode(collisionNode) {}

Frame::MergeException::~MergeException() = default;

void Frame::merge(const Frame* other, bool overwrite) {
    zelVerifyN(other != this, "%s: a frame can not be merged into itself", getPath().c_str());
    /// Ends with the merge, whichever way.
    struct SourceScope {
        SourceScope(const Frame*& slot, const Frame* source) : m_slot(slot) { m_slot = source; }
        SourceScope(const SourceScope&) = delete;
        SourceScope& operator=(const SourceScope&) = delete;
        ~SourceScope() { m_slot = nullptr; }
        const Frame*& m_slot;
    };
    const SourceScope scope(m_mergeSource, other);
    const RebindOff rebindOff;
    if (other->isKeyFrame())
        m_isKeyFrame = true;
    if (other->isSerialized())
        m_serialized = true;
    addEvents(other->m_events);
    mergeChildren(other, this, overwrite);
    if (other->getId() < NoId)
        setId(other->getId());
}

void Frame::mergeChildren(const Component* source, Component* target, bool overwrite) {
    for (zel::size_t i = 0; i < source->getNumObjects(); ++i) {
        const Object* node = source->getObject(i);
        if (const auto* value = dynamic_cast<const Value*>(node))
            merge(value, target, overwrite);
        else if (const auto* partial = dynamic_cast<const PartialBuffer*>(node))
            merge(partial, target, overwrite);
        else if (const auto* buffer = dynamic_cast<const Buffer*>(node))
            merge(buffer, target, overwrite);
        else if (const auto* storage = dynamic_cast<const EntityStorage*>(node))
            merge(storage, target, overwrite);
        else if (const auto* component = dynamic_cast<const Component*>(node))
            merge(component, target, overwrite);
        else
            zelAbort("Unknown frame node %s, model: %s",
                     node->getPath().c_str(),
                     node->getModel() == nullptr ? "" : node->getModel()->fullPath().c_str());
    }
}

template <typename Node>
void Frame::addClone(const Node* node, Component* target) {
    const zel::ref_ptr<Node> clone(node->clone());
    adopt(clone.get(), node);
    addNode(target, clone.get());
}

void Frame::merge(const Value* source, Component* target, bool overwrite) {
    if (Object* existing = target->findObject(source->getName())) {
        const auto* value = dynamic_cast<const Value*>(existing);
        if (!overwrite || value == nullptr || value->getFormat() != source->getFormat())
            throwCollision(source, existing);
        removeNode(existing);
    }
    addClone(source, target);
}

void Frame::merge(const Buffer* source, Component* target, bool overwrite) {
    Object* existing = target->findObject(source->getName());
    const bool isArchive =
        source == m_mergeSource->getIncrementalFrameArchiveBuffer() || source->getName() == incrementalName();
    if (existing != nullptr && !isArchive) {
        if (!overwrite || formatOf(existing) != source->getFormat())
            throwCollision(source, existing);
        removeNode(existing);
    }
    addClone(source, target);
}

void Frame::merge(const PartialBuffer* source, Component* target, bool overwrite) {
    Object* existing = target->findObject(source->getName());
    if (existing == nullptr) {
        addClone(source, target);
        return;
    }
    auto* whole = dynamic_cast<Buffer*>(existing);
    auto* partial = dynamic_cast<PartialBuffer*>(existing);
    const bool fits = formatOf(existing) == formatOf(source);
    if (!fits || (whole == nullptr && partial == nullptr) || (whole != nullptr && !overwrite))
        throwCollision(source, existing);
    const zel::uint64 numBytes = calculateNumBytes(existing);
    if (whole != nullptr)
        scatter(source, whole);
    else
        partial->merge(source, overwrite);
    m_numBytes += calculateNumBytes(existing) - numBytes;
}

void Frame::merge(const EntityStorage* source, Component* target, bool overwrite) {
    Object* existing = target->findObject(source->getName());
    zel::ref_ptr<EntityStorage> storage(dynamic_cast<EntityStorage*>(existing));
    if (existing == nullptr) {
        storage =
            new EntityStorage(source->getName(), source->getModel(), source->size(), source->capacity());
        storage->setId(source->getId());
        addNode(target, storage.get());
    } else if (!storage) {
        throwCollision(source, existing);
    }
    zelVerifyAs(storage->getModel() == source->getModel(), "storage->getModel() == subTarget->getModel()");
    const zel::uint64 numBytes = calculateNumBytes(storage.get());
    storage->reserve(source->capacity());
    storage->resize(source->size());
    m_numBytes += calculateNumBytes(storage.get()) - numBytes;
    mergeChildren(source, storage.get(), overwrite);
}

void Frame::merge(const Component* source, Component* target, bool overwrite) {
    Object* existing = target->findObject(source->getName());
    zel::ref_ptr<Component> component(dynamic_cast<Component*>(existing));
    if (existing == nullptr) {
        component = new Component(source->getName());
        component->setId(source->getId());
        addNode(target, component.get());
    } else if (!component) {
        throwCollision(source, existing);
    }
    mergeChildren(source, component.get(), overwrite);
}

void Frame::PartialBuffer::merge(const PartialBuffer* other, bool overwrite) {
    zelVerifyN(other != this, "%s: a partial buffer can not be merged into itself", getPath().c_str());
    zelVerifyN(formatOf(this) == formatOf(other),
               "%s: partial buffers of different formats can not be merged",
               getPath().c_str());
    const Format* format = formatOf(this);
    const zel::uint64 fullSize = other->m_fullSize;
    zel::HashSet<zel::uint64> held;
    held.rebuild(static_cast<zel::uint64>(static_cast<double>(size()) / 0.8));
    auto* index = m_indexBuffer->data<zel::uint64>();
    const auto* otherIndex = other->m_indexBuffer->data<zel::uint64>();
    for (zel::uint64 i = 0; i < size(); ++i)
        if (index[i] < fullSize)
            held.insert(index[i]);
        else if (!overwrite)
            throwCollision(other, this);
    if (!overwrite)
        for (zel::uint64 i = 0; i < other->size(); ++i)
            if (held.contains(otherIndex[i]))
                throwCollision(other, this);

    // The whole may have become shorter than some of the places.
    zel::uint64 count = size();
    for (zel::uint64 i = 0; i < count;) {
        if (index[i] < fullSize) {
            ++i;
            continue;
        }
        index[i] = index[--count];
        if (format != nullptr && i != count)
            format->moveElement(m_dataBuffer->getElement(i), m_dataBuffer->getElement(count));
    }
    resize(count + other->size());
    index = m_indexBuffer->data<zel::uint64>();
    for (zel::uint64 i = 0; i < other->size(); ++i) {
        if (held.contains(otherIndex[i]))
            continue;
        index[count] = otherIndex[i];
        if (format != nullptr)
            format->copyElement(m_dataBuffer->getElement(count), other->m_dataBuffer->getElement(i));
        ++count;
    }
    m_indexBuffer->commit();
    if (m_dataBuffer)
        m_dataBuffer->commit();
    resize(count);
    m_fullSize = other->m_fullSize;
}

} // namespace zelData
