#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/Object.h>
#include <zelData/GeneratedEntity.h>

#include <atomic>

namespace zel {

class ObjectEventPtr;

/// A record of what has happened to an object. The entity "ObjectEvent".
/// @threads as zelData::EntityModel
class ZEL_CORE_API ObjectEventModel : public zelData::EntityModel {
public:
    /// What the attribute "type" holds.
    enum Kind : uint32 { Destroy };

    explicit ObjectEventModel(const Name& name);

    /// Loaded at the first call; an entity that cannot be loaded ends the process.
    [[nodiscard]] static ObjectEventModel* instance();
    /// Makes an instance in the calling thread's default storage.
    static ObjectEventPtr createInstance();
    [[nodiscard]] static zelData::EntityStorage* defaultStorage();

    void shutdownCleanup() override;
    [[nodiscard]] zelData::EntityData* createData(zelData::EntityStorage* storage) override;
    void initAttributeAccessors() override;
    void construct(zelData::EntityPtr instance) override;
    /// Called for each new instance if the entity has a constructor. Has nothing to do: the default values
    /// of the attributes are enough.
    virtual void construct(ObjectEventPtr instance);

    static const zelData::Attribute* type;
    static const zelData::Attribute* object;

private:
    static std::atomic<ObjectEventModel*> s_instance;
};

/// The columns of a storage of the entity "ObjectEvent".
class ZEL_CORE_API ObjectEventData : public zelData::EntityData {
public:
    ObjectEventData();
    explicit ObjectEventData(zelData::EntityStorage* storage);

    zelData::Array<uint32> type;    // the kind of event; its values are those of the class of the object
    zelData::Array<Object*> object; // that it happened to
};

/// Reads and writes the attributes of one instance through a handle.
template <typename Handle>
class ObjectEventSemantics : public Handle {
public:
    using Handle::Handle;

    [[nodiscard]] uint32 getType() const {
        return zelData::getElement<uint32>(*this, ObjectEventModel::type);
    }
    void setType(uint32 value) const { zelData::getElement<uint32>(*this, ObjectEventModel::type) = value; }
    [[nodiscard]] Object* getObject() const {
        return zelData::getElement<Object*>(*this, ObjectEventModel::object);
    }
    void setObject(Object* value) const {
        zelData::getElement<Object*>(*this, ObjectEventModel::object) = value;
    }
};

/// A handle of an instance of the entity "ObjectEvent" or one that derives from it.
class ObjectEventPtr : public ObjectEventSemantics<zelData::EntityPtr> {
public:
    using ObjectEventSemantics<zelData::EntityPtr>::ObjectEventSemantics;
    ObjectEventPtr() = default;
    explicit ObjectEventPtr(const zelData::EntityPtr& instance)
        : ObjectEventSemantics<zelData::EntityPtr>(instance.getStorage(), instance.getId()) {}
};

/// An instance by its place of the entity "ObjectEvent" or one that derives from it.
class ObjectEventInstance : public ObjectEventSemantics<zelData::EntityInstance> {
public:
    using ObjectEventSemantics<zelData::EntityInstance>::ObjectEventSemantics;
    ObjectEventInstance() = default;
    explicit ObjectEventInstance(const zelData::EntityInstance& instance)
        : ObjectEventSemantics<zelData::EntityInstance>(instance.getData(), instance.getIndex()) {}
};

} // namespace zel

namespace zelData {
template <>
struct TypeNameOf<zel::ObjectEventPtr> {
    static constexpr const char* name = "ObjectEventPtr";
};
template <>
struct TypeNameOf<zel::ObjectEventInstance> {
    static constexpr const char* name = "ObjectEventInstance";
};
} // namespace zelData
