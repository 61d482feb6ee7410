#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Object.h>
#include <zel/Vector.h>
#include <zelData/Array.h>
#include <zelData/EntityPtr.h>
#include <zelData/EntityRange.h>
#include <zelData/EntityStorage.h>

/// @file
/// Records of what has happened to a storage, for those that keep them. A record owns its lists and does not
/// keep the storage alive.

namespace zelData {

/// What all records have: the storage.
class ZEL_CORE_API EntityStorage::InstanceEvent : public zel::Object::Event {
public:
    [[nodiscard]] EntityStorage* getStorage() const noexcept { return m_storage; }

protected:
    explicit InstanceEvent(EntityStorage* storage) : m_storage(storage) {}

private:
    EntityStorage* m_storage;
};

namespace detail {

/// A record of one instance.
class ZEL_CORE_API SingleInstanceEvent : public EntityStorage::InstanceEvent {
public:
    SingleInstanceEvent(EntityStorage* storage, EntityPtr instance)
        : InstanceEvent(storage), m_instance(instance) {}
    [[nodiscard]] EntityPtr getInstance() const noexcept { return m_instance; }

private:
    EntityPtr m_instance;
};

/// A record of a range of instances.
class ZEL_CORE_API InstanceRangeEvent : public EntityStorage::InstanceEvent {
public:
    InstanceRangeEvent(EntityStorage* storage, EntityRange range) : InstanceEvent(storage), m_range(range) {}
    [[nodiscard]] const EntityRange& getRange() const noexcept { return m_range; }

private:
    EntityRange m_range;
};

/// A record of a list of instances.
class ZEL_CORE_API InstanceListEvent : public EntityStorage::InstanceEvent {
public:
    InstanceListEvent(EntityStorage* storage, const Array<EntityPtr>& instances) : InstanceEvent(storage) {
        m_instances.assign(instances.begin(), instances.end());
    }
    [[nodiscard]] const zel::Vector<EntityPtr>& getInstances() const noexcept { return m_instances; }

private:
    zel::Vector<EntityPtr> m_instances;
};

} // namespace detail

class ZEL_CORE_API EntityStorage::DestroyEvent : public EntityStorage::InstanceEvent {
public:
    explicit DestroyEvent(EntityStorage* storage) : InstanceEvent(storage) {}
};

class ZEL_CORE_API EntityStorage::CreateInstanceEvent : public detail::SingleInstanceEvent {
public:
    using SingleInstanceEvent::SingleInstanceEvent;
};

class ZEL_CORE_API EntityStorage::CreateInstancesEvent : public detail::InstanceRangeEvent {
public:
    using InstanceRangeEvent::InstanceRangeEvent;
};

/// As CreateInstancesEvent, of a list.
class ZEL_CORE_API EntityStorage::CreateInstancesEvent2 : public detail::InstanceListEvent {
public:
    using InstanceListEvent::InstanceListEvent;
};

class ZEL_CORE_API EntityStorage::DestroyInstanceEvent : public detail::SingleInstanceEvent {
public:
    using SingleInstanceEvent::SingleInstanceEvent;
};

class ZEL_CORE_API EntityStorage::DestroyInstancesEvent : public detail::InstanceRangeEvent {
public:
    using InstanceRangeEvent::InstanceRangeEvent;
};

/// As DestroyInstancesEvent, of a list.
class ZEL_CORE_API EntityStorage::DestroyInstancesEvent2 : public detail::InstanceListEvent {
public:
    using InstanceListEvent::InstanceListEvent;
};

/// A record of a permutation: new element i was old element permutation[i].
class ZEL_CORE_API EntityStorage::PermuteEvent : public EntityStorage::InstanceEvent {
public:
    PermuteEvent(EntityStorage* storage, const Array<zel::uint32>& permutation) : InstanceEvent(storage) {
        m_permutation.assign(permutation.begin(), permutation.end());
    }
    [[nodiscard]] const zel::Vector<zel::uint32>& getPermutation() const noexcept { return m_permutation; }

private:
    zel::Vector<zel::uint32> m_permutation;
};

} // namespace zelData
