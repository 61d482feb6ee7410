#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/ObjectEventEntity.h>
#include <zelData/GeneratedEntity.h>

#include <atomic>

namespace zel {

class BufferEventPtr;

/// A record of what has happened to a buffer. The entity "BufferEvent".
/// @threads as zelData::EntityModel
class ZEL_CORE_API BufferEventModel : public ObjectEventModel {
public:
    /// What the attribute "type" holds.
    enum Kind : uint32 { Update, Resize };

    explicit BufferEventModel(const Name& name);

    /// Loaded at the first call; an entity that cannot be loaded ends the process.
    [[nodiscard]] static BufferEventModel* instance();
    /// Makes an instance in the calling thread's default storage.
    static BufferEventPtr createInstance();
    [[nodiscard]] static zelData::EntityStorage* defaultStorage();

    void shutdownCleanup() override;
    [[nodiscard]] zelData::EntityData* createData(zelData::EntityStorage* storage) override;
    void initAttributeAccessors() override;
    void construct(zelData::EntityPtr instance) override;
    /// Called for each new instance if the entity has a constructor. Has nothing to do: the default values
    /// of the attributes are enough.
    virtual void construct(BufferEventPtr instance);
    using ObjectEventModel::construct;

    static const zelData::Attribute* oldSize;
    static const zelData::Attribute* newSize;

private:
    static std::atomic<BufferEventModel*> s_instance;
};

/// The columns of a storage of the entity "BufferEvent".
class ZEL_CORE_API BufferEventData : public ObjectEventData {
public:
    BufferEventData();
    explicit BufferEventData(zelData::EntityStorage* storage);

    zelData::Array<uint32> oldSize; // number of elements before a change of size
    zelData::Array<uint32> newSize; // number of elements after it
};

/// Reads and writes the attributes of one instance through a handle.
template <typename Handle>
class BufferEventSemantics : public ObjectEventSemantics<Handle> {
public:
    using ObjectEventSemantics<Handle>::ObjectEventSemantics;

    [[nodiscard]] uint32 getOldSize() const {
        return zelData::getElement<uint32>(*this, BufferEventModel::oldSize);
    }
    void setOldSize(uint32 value) const {
        zelData::getElement<uint32>(*this, BufferEventModel::oldSize) = value;
    }
    [[nodiscard]] uint32 getNewSize() const {
        return zelData::getElement<uint32>(*this, BufferEventModel::newSize);
    }
    void setNewSize(uint32 value) const {
        zelData::getElement<uint32>(*this, BufferEventModel::newSize) = value;
    }
};

/// A handle of an instance of the entity "BufferEvent" or one that derives from it.
class BufferEventPtr : public BufferEventSemantics<zelData::EntityPtr> {
public:
    using BufferEventSemantics<zelData::EntityPtr>::BufferEventSemantics;
    BufferEventPtr() = default;
    explicit BufferEventPtr(const zelData::EntityPtr& instance)
        : BufferEventSemantics<zelData::EntityPtr>(instance.getStorage(), instance.getId()) {}
};

/// An instance by its place of the entity "BufferEvent" or one that derives from it.
class BufferEventInstance : public BufferEventSemantics<zelData::EntityInstance> {
public:
    using BufferEventSemantics<zelData::EntityInstance>::BufferEventSemantics;
    BufferEventInstance() = default;
    explicit BufferEventInstance(const zelData::EntityInstance& instance)
        : BufferEventSemantics<zelData::EntityInstance>(instance.getData(), instance.getIndex()) {}
};

} // namespace zel

namespace zelData {
template <>
struct TypeNameOf<zel::BufferEventPtr> {
    static constexpr const char* name = "BufferEventPtr";
};
template <>
struct TypeNameOf<zel::BufferEventInstance> {
    static constexpr const char* name = "BufferEventInstance";
};
} // namespace zelData
