#pragma once

#include <zel/Export.h>
#include <zel/Parameter.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>

namespace zelData {
class EntityData;
class EntityModel;
class EntityStorage;
} // namespace zelData

namespace zel {

class ArrayParameter;
class GlobalResultStorage;

/// A parameter for all instances of a storage. Its child parameters are array parameters that are named as
/// attributes of the entity: they get the columns.
/// @threads as Parameter
class ZEL_CORE_API EntityDataParameter : public Parameter {
public:
    /// @param model  kept alive; storages of entities that derive from it fit as well
    EntityDataParameter(const Name& name,
                        zelData::EntityModel* model,
                        uint32 accessMode = zelData::AccessMode::READ,
                        const Path& path = Path());
    ~EntityDataParameter() override;

    /// Reads also the child parameters.
    void configure(TiXmlElement* element) override;
    [[nodiscard]] zelData::Type* getType() override;
    [[nodiscard]] const zelData::Type* getType() const override;
    /// Whether a view is set.
    [[nodiscard]] bool isValid() const override;
    [[nodiscard]] bool hasGlobalResult() const override;
    /// Brings the view and the child parameters up to date, and begins the global result.
    void update() override;
    /// Ends the global result, and commits the columns of written child parameters.
    void commit() override;
    void prepareGlobalResultSorting(size_t numJobs) override;
    /// Finds the child parameters by name.
    Object* getResourceImpl(const Path& path, Model* model) override;

    /// The parameter of a column. A name that the entity has no attribute for is refused, as a failed
    /// verification.
    void addChildParameter(ArrayParameter* parameter);
    [[nodiscard]] const Vector<ref_ptr<ArrayParameter>>& getChildParameters() const noexcept {
        return m_children;
    }
    /// Reads pointers and sizes of the columns anew.
    void refreshColumns();
    [[nodiscard]] zelData::EntityModel* getEntityModel() const noexcept { return m_entityModel.get(); }
    [[nodiscard]] zelData::EntityStorage* getStorage() const noexcept { return m_storage; }
    [[nodiscard]] zelData::EntityData* getData() const noexcept { return m_dataSet.get(); }
    /// Sets the view by itself, without a storage to find columns in.
    void setData(zelData::EntityData* data);

    /// Lets jobs append instances to the storage: see GlobalResult. The parameter must be a written one.
    /// @param mode  a setting of GlobalResult, or 0 for none
    void setGlobalResultMode(uint32 mode);
    /// Null unless a storage is bound and the mode asks for one.
    [[nodiscard]] GlobalResultStorage* getGlobalResult() const noexcept { return m_globalResult.get(); }

    [[nodiscard]] static Model* ClassModel();
    /// Makes a parameter from an element of the tag "Parameter.EntityData".
    /// @return a new parameter without owner
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static EntityDataParameter* load(TiXmlElement* element, Device* device);

protected:
    void _bind(Object* object) override;

private:
    void bindChild(ArrayParameter* child);
    void refreshFlags();
    void refreshGlobalResult();

    ref_ptr<zelData::EntityModel> m_entityModel;
    zelData::EntityStorage* m_storage = nullptr; // the binding
    ref_ptr<zelData::EntityData> m_dataSet;
    Vector<ref_ptr<ArrayParameter>> m_children;
    uint32 m_globalResultMode = 0;
    ref_ptr<GlobalResultStorage> m_globalResult;
};

} // namespace zel
