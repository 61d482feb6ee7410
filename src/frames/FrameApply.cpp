#include "ElementForm.h"
#include "FrameWalk.h"
#include "Recordable.h"
#include "RunState.h"

#include <zel/FirstException.h>
#include <zel/Log.h>
#include <zel/Verify.h>
#include <zelData/Array.h>
#include <zelData/Buffer.h>
#include <zelData/EntityPtr.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>
#include <zelData/FrameApply.h>
#include <zelData/FrameNodes.h>
#include <zelData/Value.h>

#include <algorithm>
#include <cstring>

namespace zelData {

namespace {

using zel::uint32;
using zel::uint64;

bool isTable(const zel::Object* node) {
    return node->getName() == EntityStorage::IdToIndexName || node->getName() == EntityStorage::IndexToIdName;
}

/// The column that a node tells of: itself, or the elements of a part.
const Buffer* columnOf(const zel::Object* node) {
    if (const auto* part = dynamic_cast<const Frame::PartialBuffer*>(node))
        return part->getDataBuffer();
    return dynamic_cast<const Buffer*>(node);
}

/// Numbers are 32 bits wide in older files.
zel::VectorPOD<uint32> tableOf(const Buffer* idToIndex) {
    const bool isWide = idToIndex->getElementSize() == sizeof(uint64);
    zel::VectorPOD<uint32> table;
    table.reserve(idToIndex->size());
    for (uint64 id = 0; id < idToIndex->size(); ++id)
        table.push_back(isWide ? static_cast<uint32>(std::min<uint64>(idToIndex->data<uint64>()[id],
                                                                      EntityStorage::MaximumCapacity))
                               : idToIndex->data<uint32>()[id]);
    return table;
}

zel::VectorPOD<uint32> tableOf(const EntityStorage* storage) {
    zel::VectorPOD<uint32> table;
    for (uint64 id = 0; id < storage->capacity(); ++id)
        table.push_back(storage->getIndex(static_cast<uint32>(id)));
    return table;
}

/// No storage tells of events meanwhile.
class EventsOff {
public:
    EventsOff() = default;
    EventsOff(const EventsOff&) = delete;
    EventsOff& operator=(const EventsOff&) = delete;
    ~EventsOff() {
        for (const zel::ref_ptr<EntityStorage>& storage : m_storages)
            storage->setEnableEvents(true);
    }
    void add(EntityStorage* storage) {
        if (!storage->getEnableEvents())
            return;
        storage->setEnableEvents(false);
        m_storages.push_back(storage);
    }

private:
    zel::Vector<zel::ref_ptr<EntityStorage>> m_storages;
};

} // namespace

/// Writes one frame: first finds what goes where, then writes it in the order that it needs.
class FrameApply::Pass {
public:
    Pass(FrameApply& owner, const Frame* frame) : m_owner(owner), m_frame(frame) {}

    void run() {
        if (m_frame->isKeyFrame())
            m_owner.m_storages.clear();
        const BindingVector& bindings = m_owner.getDataBindings();
        if (bindings.empty())
            matchChildren(m_frame, m_owner.m_root.get(), true);
        for (const zel::ref_ptr<Frame::DataBinding>& binding : bindings)
            match(*binding);

        for (const Storage& storage : m_matchedStorages)
            m_eventsOff.add(storage.live.get());
        for (const Storage& storage : m_matchedStorages)
            restore(storage);
        for (const Datum<Value>& value : m_values)
            m_failure.run([&] { write(value); });
        for (const Datum<Buffer>& buffer : m_buffers)
            write(buffer);
        for (const zel::ref_ptr<Buffer>& buffer : m_emptied)
            if (resize(buffer.get(), 0))
                m_failure.run([&] { buffer->commit(); });
        m_failure.rethrow();
    }

private:
    struct Storage {
        const Frame::EntityStorage* node; // null for one that is emptied
        zel::ref_ptr<EntityStorage> live;
    };
    template <typename Live>
    struct Datum {
        const zel::Object* node;
        zel::ref_ptr<Live> live;
    };

    void omit(const zel::Object* live, const char* reason) {
        m_owner.omit(live->getPath(m_owner.m_root.get()), zel::String(reason));
    }

    // What goes where

    void match(const Frame::DataBinding& binding) {
        const auto at = [](const zel::Component* top, const zel::Path& path) {
            return path.empty() ? const_cast<zel::Component*>(top) // NOLINT: the frame is only read
                                : findNode(top, namesOf(path));
        };
        zel::Object* const node = at(m_frame, binding.getInternalPath());
        zel::Object* const live = at(m_owner.m_root.get(), binding.getExternalPath());
        if (live == nullptr) {
            m_owner.omit(binding.getExternalPath(), zel::String("there is no such object"));
            return;
        }
        const Recordable what = recordableOf(nullptr, live);
        if (node != nullptr)
            match(node, live, what, binding.isRecursive());
        else if (m_frame->isKeyFrame())
            empty(live, what, binding.isRecursive());
    }

    void match(const zel::Object* node, zel::Object* live, const Recordable& what, bool recursive) {
        const Buffer* column = columnOf(node);
        if (const auto* storage = dynamic_cast<const Frame::EntityStorage*>(node)) {
            auto* liveStorage = dynamic_cast<EntityStorage*>(live);
            if (what.kind != RecordKind::Storage || liveStorage->getEntityModel() != storage->getModel()) {
                omit(live, "it is no storage of the entity of the frame");
                return;
            }
            m_owner.m_storages.insert(storage->getId(), live->getPath(m_owner.m_root.get()));
            m_matchedStorages.push_back({storage, zel::ref_ptr<EntityStorage>(liveStorage)});
            matchChildren(storage, liveStorage, recursive);
        } else if (column != nullptr || dynamic_cast<const Value*>(node) != nullptr) {
            matchDatum(node, column, live, what);
        } else if (const auto* component = dynamic_cast<const zel::Component*>(node)) {
            auto* liveComponent = dynamic_cast<zel::Component*>(live);
            const bool fits = what.kind == RecordKind::Component || what.kind == RecordKind::Storage;
            if (fits)
                matchChildren(component, liveComponent, recursive);
            else
                omit(live, "it is no component");
        }
    }

    void
    matchDatum(const zel::Object* node, const Buffer* column, zel::Object* live, const Recordable& what) {
        const auto* value = dynamic_cast<const Value*>(node);
        const Format* format = value != nullptr ? value->getFormat() : column->getFormat();
        if (what.kind == RecordKind::Value && what.format == format &&
            (value != nullptr || (node == column && column->size() == 1)))
            m_values.push_back({node, zel::ref_ptr<Value>(static_cast<Value*>(live))});
        else if (what.kind == RecordKind::Buffer && what.format == format && value == nullptr)
            m_buffers.push_back({node, zel::ref_ptr<Buffer>(static_cast<Buffer*>(live))});
        else
            omit(live, "it is not of the kind and format of the frame");
    }

    void matchChildren(const zel::Component* node, zel::Component* live, bool recursive) {
        const bool isStorage = dynamic_cast<const Frame::EntityStorage*>(node) != nullptr;
        for (zel::size_t i = 0; i < node->getNumObjects(); ++i) {
            const zel::Object* child = node->getObject(i);
            if ((isStorage && isTable(child)) || (node == m_frame && child->getName() == RunStateName))
                continue;
            zel::Object* liveChild = live->findObject(child->getName());
            if (liveChild == nullptr && isStorage && child->getName() == "globalOrder")
                liveChild = static_cast<EntityStorage*>(live)->getOrCreateGlobalOrderBuffer();
            if (liveChild == nullptr) {
                m_owner.omit(live->getPath(m_owner.m_root.get()) + child->getName(),
                             zel::String("there is no such object"));
                continue;
            }
            const Recordable what = recordableOf(live, liveChild);
            if (recursive || !isBranch(what))
                match(child, liveChild, what, recursive);
        }
        if (m_frame->isKeyFrame())
            emptyChildren(live, node, recursive);
    }

    static bool isBranch(const Recordable& what) {
        return what.kind == RecordKind::Component || what.kind == RecordKind::Storage;
    }

    /// @param node  whose children stay; null for none
    void emptyChildren(zel::Component* live, const zel::Component* node, bool recursive) {
        for (zel::size_t i = 0; i < live->getNumObjects(); ++i) {
            zel::Object* child = live->getObject(i);
            if (node != nullptr && node->findObject(child->getName()) != nullptr)
                continue;
            const Recordable what = recordableOf(live, child);
            if (recursive || !isBranch(what))
                empty(child, what, recursive);
        }
    }

    void empty(zel::Object* live, const Recordable& what, bool recursive) {
        if (what.kind == RecordKind::Buffer) {
            auto* buffer = static_cast<Buffer*>(live);
            if (buffer->getStorage() == nullptr && !buffer->empty())
                m_emptied.push_back(zel::ref_ptr<Buffer>(buffer));
        } else if (isBranch(what)) {
            if (what.kind == RecordKind::Storage)
                m_matchedStorages.push_back(
                    {nullptr, zel::ref_ptr<EntityStorage>(static_cast<EntityStorage*>(live))});
            emptyChildren(static_cast<zel::Component*>(live), nullptr, recursive);
        }
    }

    // Storages

    void restore(const Storage& storage) {
        if (storage.node == nullptr) {
            if (!storage.live->empty())
                storage.live->restoreInstances(0, tableOf(storage.live.get()));
            return;
        }
        if (const Buffer* ids = storage.node->getIdToIndexBuffer())
            storage.live->restoreInstances(storage.node->size(), tableOf(ids));
        else if (storage.live->size() != storage.node->size())
            omit(storage.live.get(), "it has another size than the frame, which holds no ids");
    }

    /// The storage that a handle of the frame leads to.
    EntityStorage* storageOf(const EntityPtr& handle) {
        if (!m_frame->isSerialized())
            return handle.getStorage();
        const auto id = static_cast<uint32>(reinterpret_cast<std::uintptr_t>(handle.getStorage()));
        if (id == Frame::NoId)
            return nullptr;
        const auto known = m_liveStorages.find(id);
        if (known != m_liveStorages.end())
            return known->value;
        const auto path = m_owner.m_storages.find(id);
        EntityStorage* live = nullptr;
        if (path != m_owner.m_storages.end())
            live = dynamic_cast<EntityStorage*>(findNode(m_owner.m_root.get(), namesOf(path->value)));
        if (live == nullptr && !m_warned) {
            m_warned = true;
            ZEL_LOG_WARNING("Frame " << m_frame->getIndex()
                                     << " holds handles of storages that it does not hold: they are null");
        }
        m_liveStorages.insert(id, live);
        return live;
    }

    EntityPtr mapped(const EntityPtr& handle) {
        EntityStorage* const storage = storageOf(handle);
        return storage == nullptr ? EntityPtr() : EntityPtr(storage, handle.getId());
    }

    // Elements

    void write(const Datum<Value>& datum) {
        Value& live = *datum.live;
        if (live.getBinding() != nullptr)
            return;
        const auto* value = dynamic_cast<const Value*>(datum.node);
        const void* element = value != nullptr ? const_cast<Value*>(value)->getData() // NOLINT: only read
                                               : columnOf(datum.node)->getPtr();
        const Format* format = live.getFormat();
        if (elementFormOf(format) == ElementForm::Handle) {
            const EntityPtr handle = mapped(*static_cast<const EntityPtr*>(element));
            live.set(&handle);
        } else if (elementFormOf(format) != ElementForm::Plain ||
                   std::memcmp(live.getData(), element, format->getSize()) != 0) {
            live.set(element);
        }
    }

    /// @return whether the buffer has that size now
    bool resize(Buffer* live, uint64 size) {
        if (live->size() == size)
            return true;
        const uint64 count = live->getElementArraySize();
        if (live->getStorage() != nullptr || count == 0 || size % count != 0) {
            omit(live, "it has another size than the frame");
            return false;
        }
        if (live->getNumElementsValue()->getBinding() != nullptr) {
            omit(live, "its size is bound");
            return false;
        }
        m_failure.run([=] { live->resize(size / count); });
        return live->size() == size;
    }

    void write(const Datum<Buffer>& datum) {
        Buffer* live = datum.live.get();
        const auto* part = dynamic_cast<const Frame::PartialBuffer*>(datum.node);
        const Buffer* column = columnOf(datum.node);
        if (!resize(live, part != nullptr ? part->getFullSize() : column->size()))
            return;
        if (part == nullptr)
            copy(live, 0, column, 0, column->size());
        else
            scatter(live, part);
        m_failure.run([live] { live->commit(); });
    }

    void scatter(Buffer* live, const Frame::PartialBuffer* part) {
        const Buffer* data = part->getDataBuffer();
        const auto* places = part->getIndexBuffer()->data<uint64>();
        if (std::any_of(
                places, places + data->size(), [live](uint64 place) { return place >= live->size(); })) {
            omit(live, "the frame holds elements beyond its end");
            return;
        }
        for (uint64 i = 0; i < data->size(); ++i)
            copy(live, places[i], data, i, 1);
    }

    void copy(Buffer* live, uint64 target, const Buffer* column, uint64 source, uint64 n) {
        const ElementForm form = elementFormOf(live->getFormat());
        if (form == ElementForm::Handle) {
            for (uint64 i = 0; i < n; ++i)
                live->data<EntityPtr>()[target + i] = mapped(column->data<EntityPtr>()[source + i]);
        } else if (form == ElementForm::Array) {
            copyArrays(live, column);
        } else if (n != 0) {
            live->getFormat()->copyElements(live->getElement(target), column->getElement(source), n);
        }
    }

    /// Columns of arrays are told in whole.
    void copyArrays(Buffer* live, const Buffer* column) {
        Buffer* liveElements = live->getElementBuffer();
        const Buffer* elements = column->getElementBuffer();
        const uint64 numElements = elements == nullptr ? 0 : elements->size();
        if (liveElements == nullptr ||
            (elements != nullptr && elements->getFormat() != liveElements->getFormat())) {
            omit(live, "its arrays show no elements of the format of the frame");
            return;
        }
        if (!resize(liveElements, numElements))
            return;
        if (elements != nullptr)
            copy(liveElements, 0, elements, 0, numElements);
        for (uint64 i = 0; i < column->size(); ++i) {
            const auto& range = column->data<AbstractArray>()[i].range();
            auto& array = live->data<AbstractArray>()[i];
            if (range.begin() >= range.end() || range.end() > numElements)
                array.bind(nullptr, {});
            else
                array.bind(liveElements, range);
        }
        m_failure.run([liveElements] { liveElements->commit(); });
    }

    FrameApply& m_owner;
    const Frame* m_frame;
    zel::Vector<Storage> m_matchedStorages;
    zel::Vector<Datum<Value>> m_values;
    zel::Vector<Datum<Buffer>> m_buffers;
    zel::Vector<zel::ref_ptr<Buffer>> m_emptied;
    zel::HashTable<uint32, EntityStorage*> m_liveStorages; // that handles have led to
    bool m_warned = false;
    zel::FirstException m_failure;
    EventsOff m_eventsOff;
};

FrameApply::FrameApply(zel::Component* root) : FrameWriter(false), m_root(root) {
    zelVerify(root);
}

FrameApply::~FrameApply() = default;

void FrameApply::omit(const zel::Path& path, const zel::String& reason) {
    noteOmission(m_omissions, path, "replayed", reason);
}

void FrameApply::writeFrame(const Frame* frame) {
    zelVerify(frame);
    Pass(*this, frame).run();
}

} // namespace zelData
