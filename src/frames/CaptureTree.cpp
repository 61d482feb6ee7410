#include "CaptureTree.h"

#include "FrameWalk.h"

#include <zelData/Attribute.h>
#include <zelData/Buffer.h>
#include <zelData/EntityStorageEvents.h>
#include <zelData/FrameNodes.h>
#include <zelData/SerializedFrame.h>
#include <zelData/Value.h>

#include <algorithm>

namespace zelData {

namespace {

using zel::uint32;
using zel::uint64;

using Batch = SerializedFrame::StorageBatchEvent;

/// What stands for a storage in a frame that nobody follows.
EntityStorage* numberOf(const EntityStorage* storage) {
    const uint64 id = static_cast<const zel::Object*>(storage)->getId();
    return reinterpret_cast<EntityStorage*>(id); // NOLINT(performance-no-int-to-ptr)
}

bool isReady(zel::Object* object) {
    if (const auto* value = dynamic_cast<const Value*>(object))
        return value->getFormat() != nullptr;
    if (const auto* storage = dynamic_cast<const EntityStorage*>(object))
        return storage->getInstanceBuffer() != nullptr;
    return true;
}

/// Whether the size of the buffer is told by that of the storage.
bool followsStorage(const Buffer* buffer, const CaptureNode* parent) {
    if (parent == nullptr || parent->kind != RecordKind::Storage || buffer->getStorage() != parent->object)
        return false;
    const Attribute* attribute = buffer->getAttribute();
    return attribute != nullptr &&
           buffer->getElementArraySize() == std::max<uint64>(attribute->getNumElements(), 1);
}

/// Whether the path is the other one, or lies below it.
bool liesBelow(const zel::Path& path, const zel::Path& other) {
    return other.empty() || path == other || path.str().starts_with(other.str() + zel::Path::Separator);
}

/// What the path has more than the other one, below which it lies.
zel::Path below(const zel::Path& path, const zel::Path& other) {
    if (path == other)
        return {};
    return zel::Path(path.str().substr(other.empty() ? 0 : other.str().size() + 1));
}

/// Whether the frame has no data on the way to the path, nor there.
bool hasRoom(const Frame* frame, const zel::Path& path) {
    const zel::Component* context = frame;
    for (const zel::Name& name : path) {
        const zel::Object* child = context->findObject(name);
        if (child == nullptr)
            return true;
        context = dynamic_cast<const zel::Component*>(child);
        if (context == nullptr || dynamic_cast<const Buffer*>(child) != nullptr)
            return false;
    }
    return false;
}

} // namespace

// Events

StorageWatch::StorageWatch(EntityStorage* storage, std::atomic<uint64>& places)
    : m_storage(storage), m_places(places) {
    storage->addListener(this);
}

StorageWatch::~StorageWatch() {
    if (m_storage != nullptr)
        m_storage->removeListener(this);
}

void StorageWatch::add(zel::Object::Event* event) {
    const zel::ref_ptr<zel::Object::Event> keep(event);
    m_entries.push_back({m_places.fetch_add(1, std::memory_order_relaxed), keep}); // an order, and no more
}

void StorageWatch::destroyCallback(EntityStorage* /*storage*/) {
    m_storage = nullptr;
}

void StorageWatch::createInstanceCallback(EntityStorage* storage, EntityPtr instance) {
    add(new EntityStorage::CreateInstanceEvent(numberOf(storage), {numberOf(storage), instance.getId()}));
}

void StorageWatch::createInstancesCallback(EntityStorage* storage, EntityRange range) {
    auto* event = new Batch(Batch::Type::Create, numberOf(storage));
    event->add(range);
    add(event);
}

void StorageWatch::createInstancesCallback(EntityStorage* storage, Array<EntityPtr> instances) {
    auto* event = new Batch(Batch::Type::Create, numberOf(storage));
    event->add(instances);
    add(event);
}

void StorageWatch::destroyInstanceCallback(EntityStorage* storage, EntityPtr instance) {
    add(new EntityStorage::DestroyInstanceEvent(numberOf(storage), {numberOf(storage), instance.getId()}));
}

void StorageWatch::destroyInstancesCallback(EntityStorage* storage, EntityRange range) {
    auto* event = new Batch(Batch::Type::Destroy, numberOf(storage));
    event->add(range);
    add(event);
}

void StorageWatch::destroyInstancesCallback(EntityStorage* storage, Array<EntityPtr> instances) {
    auto* event = new Batch(Batch::Type::Destroy, numberOf(storage));
    event->add(instances);
    add(event);
}

void StorageWatch::permuteCallback(EntityStorage* storage, Array<uint32> permutation) {
    add(new EntityStorage::PermuteEvent(numberOf(storage), permutation));
}

// What there is

/// Takes over the bindings, but for those that another one covers in the frame.
void CaptureTree::bind(const FrameIO::BindingVector& bindings) {
    m_bound.clear();
    m_bindings.clear();
    for (const zel::ref_ptr<Frame::DataBinding>& binding : bindings) {
        m_bound.push_back({binding, binding->isRecursive()});
        const auto covers = [&binding](const zel::ref_ptr<Frame::DataBinding>& other) {
            return other != binding && other->isRecursive() &&
                   liesBelow(binding->getExternalPath(), other->getExternalPath()) &&
                   (other->getExternalPath() != binding->getExternalPath() || !binding->isRecursive() ||
                    FrameIO::bindingComparor(other.get(), binding.get()));
        };
        const auto* const cover = std::find_if(bindings.begin(), bindings.end(), covers);
        const auto* const taken =
            std::find_if(m_bindings.begin(), m_bindings.end(), [&](const Binding& other) {
                return other.externalPath == binding->getExternalPath();
            });
        const bool isSame =
            cover != bindings.end() &&
            (*cover)->getInternalPath() + below(binding->getExternalPath(), (*cover)->getExternalPath()) ==
                binding->getInternalPath();
        if (cover == bindings.end() && taken == m_bindings.end()) {
            Binding bound;
            bound.internalPath = binding->getInternalPath();
            bound.externalPath = binding->getExternalPath();
            bound.recursive = binding->isRecursive();
            bound.names = namesOf(bound.internalPath);
            m_bindings.push_back(std::move(bound));
        } else if (!isSame) {
            m_omit(binding->getInternalPath(), zel::String("another binding has its place in the frame"));
        }
    }
    // Whatever lies on the way to another one comes ahead of it.
    std::sort(m_bindings.begin(), m_bindings.end(), [](const Binding& a, const Binding& b) {
        return a.externalPath.str() < b.externalPath.str();
    });
    if (bindings.empty()) {
        m_bindings.push_back({});
        m_bindings.back().recursive = true;
    }
    m_isBound = true;
}

bool CaptureTree::update(const FrameIO::BindingVector& bindings) {
    m_hasLost = false;
    const bool isSame =
        m_isBound && bindings.size() == m_bound.size() &&
        std::equal(
            bindings.begin(), bindings.end(), m_bound.begin(), [](const auto& binding, const auto& bound) {
                return binding == bound.first && binding->isRecursive() == bound.second;
            });
    if (!isSame) {
        m_hasLost = true;
        bind(bindings);
    }
    for (Binding& binding : m_bindings) {
        zel::Object* object = binding.names.empty() ? m_root : findNode(m_root, binding.names);
        if (object == nullptr)
            m_omit(binding.internalPath, zel::String("there is no such object"));
        const Recordable what = object == nullptr ? Recordable() : recordableOf(nullptr, object);
        if (what.kind == RecordKind::Omitted)
            m_omit(binding.internalPath, what.reason);
        const bool isTaken = what.kind != RecordKind::None && what.kind != RecordKind::Omitted;
        if (binding.node && (!isTaken || binding.node->object != object ||
                             binding.node->id != object->getId() || binding.node->kind != what.kind)) {
            binding.node = nullptr;
            m_hasLost = true;
        }
        if (!isTaken)
            continue;
        if (!binding.node) {
            binding.node = makeNode(object, what, nullptr);
            binding.node->name = binding.externalPath.empty() ? zel::Name() : binding.externalPath.back();
        }
        updateChildren(*binding.node, binding.recursive, 1);
    }
    return m_hasLost;
}

bool CaptureTree::isUnchanged(const CaptureNode& node) const {
    const auto* live = static_cast<const zel::Component*>(node.object);
    if (live->getNumObjects() != node.seen.size())
        return false;
    for (zel::size_t i = 0; i < node.seen.size(); ++i) {
        const CaptureNode::Seen& seen = node.seen[i];
        zel::Object* child = live->getObject(i);
        if (child != seen.object || child->getId() != seen.id || child->getName() != seen.name)
            return false;
    }
    return std::all_of(node.seen.begin(), node.seen.end(), [](const CaptureNode::Seen& seen) {
        return seen.isReady == isReady(seen.object);
    });
}

void CaptureTree::updateChildren(CaptureNode& node, bool recursive, uint32 depth) {
    if (node.kind != RecordKind::Component && node.kind != RecordKind::Storage)
        return;
    if (!isUnchanged(node)) {
        auto* live = static_cast<zel::Component*>(node.object);
        zel::HashTable<zel::Object*, std::unique_ptr<CaptureNode>*> old;
        zel::Vector<std::unique_ptr<CaptureNode>> oldChildren = std::move(node.children);
        for (std::unique_ptr<CaptureNode>& child : oldChildren)
            old.insert(child->object, &child);
        node.children = {};
        node.seen.clear();
        for (zel::size_t i = 0; i < live->getNumObjects(); ++i) {
            zel::Object* child = live->getObject(i);
            node.seen.push_back({child, child->getId(), isReady(child), child->getName()});
            Recordable what = recordableOf(live, child);
            const bool isBranch = what.kind == RecordKind::Component || what.kind == RecordKind::Storage;
            if (isBranch && depth + 3 >= SerializedFrame::MaxDepth) // parts of texts lie two levels below
                what = {RecordKind::Omitted, nullptr, zel::String("it lies too deep")};
            if (what.kind == RecordKind::Omitted)
                m_omit(child->getPath(m_root), what.reason);
            if (what.kind == RecordKind::None || what.kind == RecordKind::Omitted || (isBranch && !recursive))
                continue;
            const auto found = old.find(child);
            const bool isKnown = found != old.end() && (*found->value)->id == child->getId() &&
                                 (*found->value)->kind == what.kind &&
                                 (*found->value)->name == child->getName();
            node.children.push_back(isKnown ? std::move(*found->value) : makeNode(child, what, &node));
        }
        for (const std::unique_ptr<CaptureNode>& child : oldChildren)
            m_hasLost = m_hasLost || child != nullptr;
    }
    for (std::unique_ptr<CaptureNode>& child : node.children)
        updateChildren(*child, recursive, depth + 1);
}

std::unique_ptr<CaptureNode>
CaptureTree::makeNode(zel::Object* object, const Recordable& what, const CaptureNode* parent) {
    auto node = std::make_unique<CaptureNode>();
    node->object = object;
    node->id = object->getId();
    node->kind = what.kind;
    node->name = object->getName();
    if (what.kind == RecordKind::Value) {
        node->column = std::make_unique<CaptureColumn>(what.format, false);
    } else if (what.kind == RecordKind::Buffer) {
        const bool follows = followsStorage(static_cast<const Buffer*>(object), parent);
        node->column = std::make_unique<CaptureColumn>(what.format, follows);
    } else if (what.kind == RecordKind::Storage) {
        auto* storage = static_cast<EntityStorage*>(object);
        node->watch = std::make_unique<StorageWatch>(storage, m_numEvents);
        node->ids = std::make_unique<CaptureColumn>(storage->getIdToIndexBuffer()->getFormat(), false);
    }
    return node;
}

template <typename Visit>
void CaptureTree::forEachNode(CaptureNode& node, const Visit& visit) {
    visit(node);
    for (std::unique_ptr<CaptureNode>& child : node.children)
        forEachNode(*child, visit);
}

template <typename Visit>
void CaptureTree::forEachNode(const Visit& visit) {
    for (Binding& binding : m_bindings)
        if (binding.node)
            forEachNode(*binding.node, visit);
}

void CaptureTree::look() {
    m_storages.clear();
    forEachNode([this](CaptureNode& node) { look(node); });
}

void CaptureTree::look(CaptureNode& node) {
    const auto complain = [this, &node](const char* reason) {
        m_omit(node.object->getPath(m_root), zel::String(reason));
    };
    if (node.kind == RecordKind::Value) {
        auto* value = static_cast<Value*>(node.object);
        node.column->look(value->getData(), 1, nullptr, m_storages, complain);
    } else if (node.kind == RecordKind::Buffer) {
        const auto* buffer = static_cast<const Buffer*>(node.object);
        if (buffer->getGlobalOrderBuffer() != nullptr)
            complain("the global order of a buffer has no place in a frame");
        node.column->look(buffer->getPtr(), buffer->size(), buffer->getElementBuffer(), m_storages, complain);
    } else if (node.kind == RecordKind::Storage) {
        const auto* storage = static_cast<const EntityStorage*>(node.object);
        node.ids->look(
            storage->getIdToIndexBuffer()->getPtr(), storage->capacity(), nullptr, m_storages, complain);
    }
}

void CaptureTree::startCompare(CapturePieces& pieces) {
    forEachNode([&pieces](CaptureNode& node) {
        if (node.column)
            node.column->startCompare(pieces);
        if (node.ids)
            node.ids->startCompare(pieces);
    });
}

// What is told

bool CaptureTree::decide(bool isKeyFrame, const CapturePieces& compared) {
    m_toldBytes = m_wholeBytes = 0;
    bool canTell = true;
    for (Binding& binding : m_bindings)
        if (binding.node)
            canTell = decide(*binding.node, isKeyFrame, false, compared) && canTell;
    return canTell;
}

bool CaptureTree::decide(CaptureNode& node,
                         bool isKeyFrame,
                         bool sizeChanged,
                         const CapturePieces& compared) {
    if (node.column) {
        node.column->decide(isKeyFrame, sizeChanged, compared);
        node.isTold = node.column->getMode() != CaptureColumn::Mode::Nothing;
        m_toldBytes += node.column->getToldBytes();
        m_wholeBytes += node.column->getWholeBytes();
        return isKeyFrame || !node.column->isEmptied();
    }
    bool canTell = true;
    sizeChanged = false;
    node.isTold = false;
    if (node.kind == RecordKind::Storage) {
        const auto* storage = static_cast<const EntityStorage*>(node.object);
        const bool wasTold = node.wasTold && !isKeyFrame;
        sizeChanged = !wasTold || storage->size() != node.size;
        node.ids->decide(isKeyFrame, false, compared);
        node.tellsTables = sizeChanged || storage->capacity() != node.capacity ||
                           node.ids->getMode() != CaptureColumn::Mode::Nothing;
        node.isTold = node.tellsTables;
        canTell = !node.tellsTables || storage->capacity() != 0 || !wasTold;
        const uint64 numBytes = (storage->capacity() + storage->size()) * sizeof(uint64);
        m_wholeBytes += numBytes;
        m_toldBytes += node.tellsTables ? numBytes : 0;
    }
    for (std::unique_ptr<CaptureNode>& child : node.children) {
        canTell = decide(*child, isKeyFrame, sizeChanged, compared) && canTell;
        node.isTold = node.isTold || child->isTold;
    }
    return canTell;
}

void CaptureTree::build(Frame* frame, CapturePieces& copies) {
    for (Binding& binding : m_bindings) {
        if (!binding.node || !binding.node->isTold)
            continue;
        if (binding.externalPath.empty())
            buildChildren(*binding.node, frame, frame, {}, copies);
        else if (!hasRoom(frame, binding.externalPath))
            m_omit(binding.internalPath, zel::String("another binding has its place in the frame"));
        else
            build(
                *binding.node, frame, frame->getContext(binding.externalPath), binding.externalPath, copies);
    }
    // What is not told is in step, too.
    forEachNode([&copies](CaptureNode& node) {
        if (node.column)
            node.column->startCopy(copies);
        if (node.ids)
            node.ids->startCopy(copies);
    });
    addEvents(frame);
}

void CaptureTree::build(
    CaptureNode& node, Frame* frame, zel::Component* parent, const zel::Path& path, CapturePieces& copies) {
    if (node.column) {
        const zel::ref_ptr<zel::Object> made =
            node.column->make(node.name, node.id, node.kind == RecordKind::Value);
        frame->addNode(parent, made.get());
        return;
    }
    zel::ref_ptr<zel::Component> made;
    if (node.kind == RecordKind::Storage) {
        const auto* storage = static_cast<const EntityStorage*>(node.object);
        made = new Frame::EntityStorage(
            node.name, storage->getEntityModel(), storage->size(), storage->capacity());
    } else {
        made = new zel::Component(node.name);
    }
    made->setId(node.id);
    frame->addNode(parent, made.get());
    buildChildren(node, frame, made.get(), path, copies);
}

void CaptureTree::buildChildren(
    CaptureNode& node, Frame* frame, zel::Component* parent, const zel::Path& path, CapturePieces& copies) {
    if (node.kind == RecordKind::Storage) {
        const auto* storage = static_cast<const EntityStorage*>(node.object);
        if (node.tellsTables) {
            frame->addStorageMetaData(storage, path);
            const auto* made = static_cast<const Frame::EntityStorage*>(parent);
            made->getIdToIndexBuffer()->setId(Frame::NoId); // so that equal runs have equal bytes
            made->getIndexToIdBuffer()->setId(Frame::NoId);
        }
        node.size = storage->size();
        node.capacity = storage->capacity();
        node.wasTold = true;
    }
    for (std::unique_ptr<CaptureNode>& child : node.children)
        if (child->isTold)
            build(*child, frame, parent, path + child->name, copies);
}

void CaptureTree::addEvents(Frame* frame) {
    zel::Vector<StorageWatch::Entry> entries;
    forEachNode([&entries](CaptureNode& node) {
        if (!node.watch)
            return;
        for (StorageWatch::Entry& entry : node.watch->entries())
            entries.push_back(std::move(entry));
        node.watch->entries().clear();
    });
    std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.place < b.place; });
    for (const StorageWatch::Entry& entry : entries)
        frame->addEvent(entry.event.get());
}

uint64 CaptureTree::getMemory() const {
    uint64 sum = 0;
    const_cast<CaptureTree*>(this)->forEachNode([&sum](CaptureNode& node) { // NOLINT: only read
        sum += sizeof node + (node.column ? node.column->getMemory() : 0) +
               (node.ids ? node.ids->getMemory() : 0);
    });
    return sum;
}

} // namespace zelData
