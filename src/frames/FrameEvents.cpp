#include <zel/HashTable.h>
#include <zel/Verify.h>
#include <zelData/Buffer.h>
#include <zelData/EntityStorage.h>
#include <zelData/EntityStorageEvents.h>
#include <zelData/Frame.h>
#include <zelData/FrameNodes.h>

#include <iostream>

// What the events of a frame do to its own storages.

namespace zelData {

namespace {

using FrameMap = zel::HashTable<const zel::Object*, zel::Object*>;

/// Maps the objects of the simulation to the nodes that show them.
void buildFrameMap(const zel::Component* component, FrameMap& map, const Frame* frame) {
    auto* simulation = dynamic_cast<zel::Component*>(zel::root()->findObject("Simulation"));
    zelVerify(simulation);
    for (zel::size_t i = 0; i < component->getNumObjects(); ++i) {
        zel::Object* child = component->getObject(i);
        if (child->getName() == EntityStorage::IdToIndexName ||
            child->getName() == EntityStorage::IndexToIdName)
            continue;
        zel::Object* binding = simulation->getResource(child->getPath(frame));
        zelVerify(binding);
        map.insert(binding, child);
        if (const auto* below = dynamic_cast<const zel::Component*>(child))
            buildFrameMap(below, map, frame);
    }
}

void apply(const zel::Object::Event* event, Frame::EntityStorage* storage) {
    if (dynamic_cast<const EntityStorage::CreateInstanceEvent*>(event) != nullptr) {
        storage->resize(storage->size() + 1);
    } else if (const auto* created = dynamic_cast<const EntityStorage::CreateInstancesEvent*>(event)) {
        storage->resize(storage->size() + created->getRange().end() - created->getRange().begin());
    } else if (const auto* destroyed = dynamic_cast<const EntityStorage::DestroyInstanceEvent*>(event)) {
        storage->destroyInstance(destroyed->getInstance().getId());
    } else if (const auto* range = dynamic_cast<const EntityStorage::DestroyInstancesEvent*>(event)) {
        zelVerifyAs(range->getRange().end() == storage->size(), "range.end() == storage->size()");
        storage->resize(range->getRange().begin());
    } else if (dynamic_cast<const EntityStorage::PermuteEvent*>(event) != nullptr) {
        std::cout << "Ignoring permute" << std::endl;
    } else {
        zelAbort("Unknown event of a storage");
    }
}

} // namespace

void Frame::evaluateEventsLocally() {
    FrameMap map;
    buildFrameMap(this, map, this);
    for (const zel::ref_ptr<Object::Event>& event : m_events) {
        const auto* ofStorage = dynamic_cast<const zelData::EntityStorage::InstanceEvent*>(event.get());
        if (ofStorage == nullptr)
            zelAbort("Unknown event of a frame");
        const auto node = map.find(ofStorage->getStorage());
        auto* storage = node == map.end() ? nullptr : dynamic_cast<EntityStorage*>(node->value);
        zelVerify(storage);
        apply(event.get(), storage);
    }
    m_events.clear();
    m_numBytes = calculateNumBytes(this);
}

} // namespace zelData
