#include "EntityStorageImplementation.h"

#include <zel/Verify.h>
#include <zelData/EntityStorageEvents.h>

namespace zelData {

void EntityStorage::EventListener::destroyCallback(EntityStorage*) {}
void EntityStorage::EventListener::createInstanceCallback(EntityStorage*, EntityPtr) {}
void EntityStorage::EventListener::createInstancesCallback(EntityStorage*, EntityRange) {}
void EntityStorage::EventListener::createInstancesCallback(EntityStorage*, Array<EntityPtr>) {}
void EntityStorage::EventListener::destroyInstanceCallback(EntityStorage*, EntityPtr) {}
void EntityStorage::EventListener::destroyInstancesCallback(EntityStorage*, EntityRange) {}
void EntityStorage::EventListener::destroyInstancesCallback(EntityStorage*, Array<EntityPtr>) {}
void EntityStorage::EventListener::permuteCallback(EntityStorage*, Array<zel::uint32>) {}

void EntityStorage::EventDispatch::addListener(EventListener* listener) {
    zelVerify(listener);
    if (!hasListener(listener))
        m_listeners.push_back(listener);
}

void EntityStorage::EventDispatch::removeListener(EventListener* listener) {
    EventListener** position = m_listeners.find(listener);
    if (position == m_listeners.end())
        return;
    if (m_numWalks == 0)
        m_listeners.erase(position);
    else
        *position = nullptr; // those that are being called keep their places
}

bool EntityStorage::EventDispatch::hasListener(const EventListener* listener) const {
    return listener != nullptr && m_listeners.contains(listener);
}

void EntityStorage::EventDispatch::triggerDestroyEvent(EntityStorage* storage) {
    forEach(storage, [=](EventListener* listener) { listener->destroyCallback(storage); });
}

void EntityStorage::EventDispatch::triggerCreateInstanceEvent(EntityStorage* storage, EntityPtr instance) {
    forEach(storage, [=](EventListener* listener) { listener->createInstanceCallback(storage, instance); });
}

void EntityStorage::EventDispatch::triggerCreateInstancesEvent(EntityStorage* storage, EntityRange range) {
    forEach(storage, [=](EventListener* listener) { listener->createInstancesCallback(storage, range); });
}

void EntityStorage::EventDispatch::triggerCreateInstancesEvent(EntityStorage* storage,
                                                               Array<EntityPtr> instances) {
    forEach(storage, [=](EventListener* listener) { listener->createInstancesCallback(storage, instances); });
}

void EntityStorage::EventDispatch::triggerDestroyInstanceEvent(EntityStorage* storage, EntityPtr instance) {
    forEach(storage, [=](EventListener* listener) { listener->destroyInstanceCallback(storage, instance); });
}

void EntityStorage::EventDispatch::triggerDestroyInstancesEvent(EntityStorage* storage, EntityRange range) {
    forEach(storage, [=](EventListener* listener) { listener->destroyInstancesCallback(storage, range); });
}

void EntityStorage::EventDispatch::triggerDestroyInstancesEvent(EntityStorage* storage,
                                                                Array<EntityPtr> instances) {
    forEach(storage,
            [=](EventListener* listener) { listener->destroyInstancesCallback(storage, instances); });
}

void EntityStorage::EventDispatch::triggerPermuteEvent(EntityStorage* storage,
                                                       Array<zel::uint32> permutation) {
    forEach(storage, [=](EventListener* listener) { listener->permuteCallback(storage, permutation); });
}

} // namespace zelData
