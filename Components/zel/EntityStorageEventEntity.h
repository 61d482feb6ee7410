#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/ObjectEventEntity.h>
#include <zel/Range.h>
#include <zelData/GeneratedEntity.h>

#include <atomic>

namespace zel {

class EntityStorageEventPtr;

/// A record of what has happened to the instances of a storage. The entity "EntityStorageEvent".
/// @threads as zelData::EntityModel
class ZEL_CORE_API EntityStorageEventModel : public ObjectEventModel {
public:
    /// What the attribute "type" holds.
    enum Kind : uint32 {
        Destroy,
        CreateInstance,
        CreateInstances,
        DestroyInstance,
        DestroyInstances,
        Permute
    };

    explicit EntityStorageEventModel(const Name& name);

    /// Loaded at the first call; an entity that cannot be loaded ends the process.
    [[nodiscard]] static EntityStorageEventModel* instance();
    /// Makes an instance in the calling thread's default storage.
    static EntityStorageEventPtr createInstance();
    [[nodiscard]] static zelData::EntityStorage* defaultStorage();

    void shutdownCleanup() override;
    [[nodiscard]] zelData::EntityData* createData(zelData::EntityStorage* storage) override;
    void initAttributeAccessors() override;
    void construct(zelData::EntityPtr instance) override;
    /// Called for each new instance if the entity has a constructor. Has nothing to do: the default values
    /// of the attributes are enough.
    virtual void construct(EntityStorageEventPtr instance);
    using ObjectEventModel::construct;

    static const zelData::Attribute* instanceId;
    static const zelData::Attribute* range;

private:
    static std::atomic<EntityStorageEventModel*> s_instance;
};

/// The columns of a storage of the entity "EntityStorageEvent".
class ZEL_CORE_API EntityStorageEventData : public ObjectEventData {
public:
    EntityStorageEventData();
    explicit EntityStorageEventData(zelData::EntityStorage* storage);

    zelData::Array<uint32> instanceId; // of the instance, for an event of one
    zelData::Array<IndexRange> range;  // of the indices, for an event of many
};

/// Reads and writes the attributes of one instance through a handle.
template <typename Handle>
class EntityStorageEventSemantics : public ObjectEventSemantics<Handle> {
public:
    using ObjectEventSemantics<Handle>::ObjectEventSemantics;

    [[nodiscard]] uint32 getInstanceId() const {
        return zelData::getElement<uint32>(*this, EntityStorageEventModel::instanceId);
    }
    void setInstanceId(uint32 value) const {
        zelData::getElement<uint32>(*this, EntityStorageEventModel::instanceId) = value;
    }
    [[nodiscard]] IndexRange getRange() const {
        return zelData::getElement<IndexRange>(*this, EntityStorageEventModel::range);
    }
    void setRange(IndexRange value) const {
        zelData::getElement<IndexRange>(*this, EntityStorageEventModel::range) = value;
    }
};

/// A handle of an instance of the entity "EntityStorageEvent" or one that derives from it.
class EntityStorageEventPtr : public EntityStorageEventSemantics<zelData::EntityPtr> {
public:
    using EntityStorageEventSemantics<zelData::EntityPtr>::EntityStorageEventSemantics;
    EntityStorageEventPtr() = default;
    explicit EntityStorageEventPtr(const zelData::EntityPtr& instance)
        : EntityStorageEventSemantics<zelData::EntityPtr>(instance.getStorage(), instance.getId()) {}
};

/// An instance by its place of the entity "EntityStorageEvent" or one that derives from it.
class EntityStorageEventInstance : public EntityStorageEventSemantics<zelData::EntityInstance> {
public:
    using EntityStorageEventSemantics<zelData::EntityInstance>::EntityStorageEventSemantics;
    EntityStorageEventInstance() = default;
    explicit EntityStorageEventInstance(const zelData::EntityInstance& instance)
        : EntityStorageEventSemantics<zelData::EntityInstance>(instance.getData(), instance.getIndex()) {}
};

} // namespace zel

namespace zelData {
template <>
struct TypeNameOf<zel::EntityStorageEventPtr> {
    static constexpr const char* name = "EntityStorageEventPtr";
};
template <>
struct TypeNameOf<zel::EntityStorageEventInstance> {
    static constexpr const char* name = "EntityStorageEventInstance";
};
} // namespace zelData
