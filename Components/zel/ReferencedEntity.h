#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/SpinMutex.h>
#include <zel/Vector.h>
#include <zelData/GeneratedEntity.h>

#include <atomic>

namespace zel {

class ReferencedPtr;

/// Instances that are counted and observed as objects on the heap are. The entity "Referenced".
/// @threads as zelData::EntityModel
class ZEL_CORE_API ReferencedModel : public zelData::EntityModel {
public:
    explicit ReferencedModel(const Name& name);

    /// Loaded at the first call; an entity that cannot be loaded ends the process.
    [[nodiscard]] static ReferencedModel* instance();
    /// Makes an instance in the calling thread's default storage.
    static ReferencedPtr createInstance();
    [[nodiscard]] static zelData::EntityStorage* defaultStorage();

    void shutdownCleanup() override;
    [[nodiscard]] zelData::EntityData* createData(zelData::EntityStorage* storage) override;
    void initAttributeAccessors() override;
    void construct(zelData::EntityPtr instance) override;
    /// Called for each new instance if the entity has a constructor. Has nothing to do: the default values
    /// of the attributes are enough.
    virtual void construct(ReferencedPtr instance);

    static const zelData::Attribute* referenceCount;
    static const zelData::Attribute* observerMutex;
    static const zelData::Attribute* observers;

private:
    static std::atomic<ReferencedModel*> s_instance;
};

/// The columns of a storage of the entity "Referenced".
class ZEL_CORE_API ReferencedData : public zelData::EntityData {
public:
    ReferencedData();
    explicit ReferencedData(zelData::EntityStorage* storage);

    zelData::Array<uint32> referenceCount;                 // number of owners
    zelData::Array<SpinMutex> observerMutex;               // guards the observers
    zelData::Array<Vector<zelData::EntityPtr*>> observers; // handles that learn of the instance's end
};

/// Reads and writes the attributes of one instance through a handle.
template <typename Handle>
class ReferencedSemantics : public Handle {
public:
    using Handle::Handle;

    [[nodiscard]] uint32 getReferenceCount() const {
        return zelData::getElement<uint32>(*this, ReferencedModel::referenceCount);
    }
    void setReferenceCount(uint32 value) const {
        zelData::getElement<uint32>(*this, ReferencedModel::referenceCount) = value;
    }
    [[nodiscard]] SpinMutex& getObserverMutex() const {
        return zelData::getElement<SpinMutex>(*this, ReferencedModel::observerMutex);
    }
    [[nodiscard]] const Vector<zelData::EntityPtr*>& getObservers() const {
        return zelData::getElement<Vector<zelData::EntityPtr*>>(*this, ReferencedModel::observers);
    }
    void setObservers(const Vector<zelData::EntityPtr*>& value) const {
        zelData::getElement<Vector<zelData::EntityPtr*>>(*this, ReferencedModel::observers) = value;
    }
};

/// A handle of an instance of the entity "Referenced" or one that derives from it.
class ReferencedPtr : public ReferencedSemantics<zelData::EntityPtr> {
public:
    using ReferencedSemantics<zelData::EntityPtr>::ReferencedSemantics;
    ReferencedPtr() = default;
    explicit ReferencedPtr(const zelData::EntityPtr& instance)
        : ReferencedSemantics<zelData::EntityPtr>(instance.getStorage(), instance.getId()) {}
};

/// An instance by its place of the entity "Referenced" or one that derives from it.
class ReferencedInstance : public ReferencedSemantics<zelData::EntityInstance> {
public:
    using ReferencedSemantics<zelData::EntityInstance>::ReferencedSemantics;
    ReferencedInstance() = default;
    explicit ReferencedInstance(const zelData::EntityInstance& instance)
        : ReferencedSemantics<zelData::EntityInstance>(instance.getData(), instance.getIndex()) {}
};

} // namespace zel

namespace zelData {
template <>
struct TypeNameOf<zel::ReferencedPtr> {
    static constexpr const char* name = "ReferencedPtr";
};
template <>
struct TypeNameOf<zel::ReferencedInstance> {
    static constexpr const char* name = "ReferencedInstance";
};
} // namespace zelData
