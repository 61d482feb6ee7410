#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/ObjectEventEntity.h>
#include <zelData/GeneratedEntity.h>

#include <atomic>

namespace zel {

class ValueEventPtr;

/// A record of what has happened to a value. The entity "ValueEvent".
/// @threads as zelData::EntityModel
class ZEL_CORE_API ValueEventModel : public ObjectEventModel {
public:
    /// What the attribute "type" holds.
    enum Kind : uint32 { Destroy, Update, Bind };

    explicit ValueEventModel(const Name& name);

    /// Loaded at the first call; an entity that cannot be loaded ends the process.
    [[nodiscard]] static ValueEventModel* instance();
    /// Makes an instance in the calling thread's default storage.
    static ValueEventPtr createInstance();
    [[nodiscard]] static zelData::EntityStorage* defaultStorage();

    void shutdownCleanup() override;
    [[nodiscard]] zelData::EntityData* createData(zelData::EntityStorage* storage) override;
    void initAttributeAccessors() override;
    void construct(zelData::EntityPtr instance) override;
    /// Called for each new instance if the entity has a constructor. Has nothing to do: the default values
    /// of the attributes are enough.
    virtual void construct(ValueEventPtr instance);
    using ObjectEventModel::construct;

    static const zelData::Attribute* newBinding;
    static const zelData::Attribute* oldBinding;

private:
    static std::atomic<ValueEventModel*> s_instance;
};

/// The columns of a storage of the entity "ValueEvent".
class ZEL_CORE_API ValueEventData : public ObjectEventData {
public:
    ValueEventData();
    explicit ValueEventData(zelData::EntityStorage* storage);

    zelData::Array<Object*>
        newBinding; // what the value follows now; null for other events than a new binding
    zelData::Array<Object*> oldBinding; // what it followed before
};

/// Reads and writes the attributes of one instance through a handle.
template <typename Handle>
class ValueEventSemantics : public ObjectEventSemantics<Handle> {
public:
    using ObjectEventSemantics<Handle>::ObjectEventSemantics;

    [[nodiscard]] Object* getNewBinding() const {
        return zelData::getElement<Object*>(*this, ValueEventModel::newBinding);
    }
    void setNewBinding(Object* value) const {
        zelData::getElement<Object*>(*this, ValueEventModel::newBinding) = value;
    }
    [[nodiscard]] Object* getOldBinding() const {
        return zelData::getElement<Object*>(*this, ValueEventModel::oldBinding);
    }
    void setOldBinding(Object* value) const {
        zelData::getElement<Object*>(*this, ValueEventModel::oldBinding) = value;
    }
};

/// A handle of an instance of the entity "ValueEvent" or one that derives from it.
class ValueEventPtr : public ValueEventSemantics<zelData::EntityPtr> {
public:
    using ValueEventSemantics<zelData::EntityPtr>::ValueEventSemantics;
    ValueEventPtr() = default;
    explicit ValueEventPtr(const zelData::EntityPtr& instance)
        : ValueEventSemantics<zelData::EntityPtr>(instance.getStorage(), instance.getId()) {}
};

/// An instance by its place of the entity "ValueEvent" or one that derives from it.
class ValueEventInstance : public ValueEventSemantics<zelData::EntityInstance> {
public:
    using ValueEventSemantics<zelData::EntityInstance>::ValueEventSemantics;
    ValueEventInstance() = default;
    explicit ValueEventInstance(const zelData::EntityInstance& instance)
        : ValueEventSemantics<zelData::EntityInstance>(instance.getData(), instance.getIndex()) {}
};

} // namespace zel

namespace zelData {
template <>
struct TypeNameOf<zel::ValueEventPtr> {
    static constexpr const char* name = "ValueEventPtr";
};
template <>
struct TypeNameOf<zel::ValueEventInstance> {
    static constexpr const char* name = "ValueEventInstance";
};
} // namespace zelData
