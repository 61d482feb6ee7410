#pragma once

#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/String.h>
#include <zelData/GeneratedEntity.h>

#include <atomic>

// The classes of the entity "Orchard.Apple", by the pattern of the library's own entities.

class ApplePtr;

/// The model: takes the place of a plain EntityModel when the entity's file is loaded.
class AppleModel : public zelData::EntityModel {
public:
    explicit AppleModel(const zel::Name& name);

    [[nodiscard]] static AppleModel* instance();
    static ApplePtr createInstance();
    [[nodiscard]] static zelData::EntityStorage* defaultStorage();

    void shutdownCleanup() override;
    [[nodiscard]] zelData::EntityData* createData(zelData::EntityStorage* storage) override;
    void initAttributeAccessors() override;
    void construct(zelData::EntityPtr instance) override;
    /// Called for each new apple, as the model file says "hasConstructor".
    virtual void construct(ApplePtr instance);

    static const zelData::Attribute* diameter;
    static const zelData::Attribute* ripeness;
    static const zelData::Attribute* tree;
    static const zelData::Attribute* sort;

private:
    static std::atomic<AppleModel*> s_instance;
};

/// The columns of a storage of apples: what loops stream over.
class AppleData : public zelData::EntityData {
public:
    AppleData();
    explicit AppleData(zelData::EntityStorage* storage);

    zelData::Array<double> diameter; // metres
    zelData::Array<double> ripeness; // 0 to 1
    zelData::Array<zel::uint32> tree;
    zelData::Array<zel::String> sort;
};

/// Reads and writes the attributes of one apple through a handle.
template <typename Handle>
class AppleSemantics : public Handle {
public:
    using Handle::Handle;

    [[nodiscard]] double getDiameter() const {
        return zelData::getElement<double>(*this, AppleModel::diameter);
    }
    void setDiameter(double value) const { zelData::getElement<double>(*this, AppleModel::diameter) = value; }
    [[nodiscard]] double getRipeness() const {
        return zelData::getElement<double>(*this, AppleModel::ripeness);
    }
    void setRipeness(double value) const { zelData::getElement<double>(*this, AppleModel::ripeness) = value; }
    [[nodiscard]] zel::uint32 getTree() const {
        return zelData::getElement<zel::uint32>(*this, AppleModel::tree);
    }
    void setTree(zel::uint32 value) const {
        zelData::getElement<zel::uint32>(*this, AppleModel::tree) = value;
    }
    [[nodiscard]] const zel::String& getSort() const {
        return zelData::getElement<zel::String>(*this, AppleModel::sort);
    }
    void setSort(const zel::String& value) const {
        zelData::getElement<zel::String>(*this, AppleModel::sort) = value;
    }
};

/// A handle: stays valid wherever the apple moves within its storage.
class ApplePtr : public AppleSemantics<zelData::EntityPtr> {
public:
    using AppleSemantics<zelData::EntityPtr>::AppleSemantics;
    ApplePtr() = default;
    explicit ApplePtr(const zelData::EntityPtr& instance)
        : AppleSemantics<zelData::EntityPtr>(instance.getStorage(), instance.getId()) {}
};

/// An apple by its place, for inner loops.
class AppleInstance : public AppleSemantics<zelData::EntityInstance> {
public:
    using AppleSemantics<zelData::EntityInstance>::AppleSemantics;
    AppleInstance() = default;
    explicit AppleInstance(const zelData::EntityInstance& instance)
        : AppleSemantics<zelData::EntityInstance>(instance.getData(), instance.getIndex()) {}
};

namespace zelData {
template <>
struct TypeNameOf<ApplePtr> {
    static constexpr const char* name = "ApplePtr";
};
template <>
struct TypeNameOf<AppleInstance> {
    static constexpr const char* name = "AppleInstance";
};
} // namespace zelData
