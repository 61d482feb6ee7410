#include <zel/Verify.h>
#include <zelData/EntityStorage.h>
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

template <typename Call>
void EntityStorage::EventDispatch::forEach(const Call& call) {
    if (m_listeners.empty())
        return;
    struct Walk {
        explicit Walk(EventDispatch& d) : dispatch(d) { ++dispatch.m_numWalks; }
        Walk(const Walk&) = delete;
        Walk& operator=(const Walk&) = delete;
        ~Walk() {
            if (--dispatch.m_numWalks == 0)
                while (dispatch.m_listeners.findAndErase(nullptr)) {
                }
        }
        EventDispatch& dispatch;
    } const walk(*this);
    const zel::size_t count = m_listeners.size();
    for (zel::size_t i = 0; i < count; ++i)
        if (m_listeners[i] != nullptr)
            call(m_listeners[i]);
}

void EntityStorage::EventDispatch::triggerDestroyEvent(EntityStorage* storage) {
    forEach([=](EventListener* listener) { listener->destroyCallback(storage); });
}

void EntityStorage::EventDispatch::triggerCreateInstanceEvent(EntityStorage* storage, EntityPtr instance) {
    forEach([=](EventListener* listener) { listener->createInstanceCallback(storage, instance); });
}

void EntityStorage::EventDispatch::triggerCreateInstancesEvent(EntityStorage* storage, EntityRange range) {
    forEach([=](EventListener* listener) { listener->createInstancesCallback(storage, range); });
}

void EntityStorage::EventDispatch::triggerCreateInstancesEvent(EntityStorage* storage,
                                                               Array<EntityPtr> instances) {
    forEach([=](EventListener* listener) { listener->createInstancesCallback(storage, instances); });
}

void EntityStorage::EventDispatch::triggerDestroyInstanceEvent(EntityStorage* storage, EntityPtr instance) {
    forEach([=](EventListener* listener) { listener->destroyInstanceCallback(storage, instance); });
}

void EntityStorage::EventDispatch::triggerDestroyInstancesEvent(EntityStorage* storage, EntityRange range) {
    forEach([=](EventListener* listener) { listener->destroyInstancesCallback(storage, range); });
}

void EntityStorage::EventDispatch::triggerDestroyInstancesEvent(EntityStorage* storage,
                                                                Array<EntityPtr> instances) {
    forEach([=](EventListener* listener) { listener->destroyInstancesCallback(storage, instances); });
}

void EntityStorage::EventDispatch::triggerPermuteEvent(EntityStorage* storage,
                                                       Array<zel::uint32> permutation) {
    forEach([=](EventListener* listener) { listener->permuteCallback(storage, permutation); });
}

} // namespace zelData
