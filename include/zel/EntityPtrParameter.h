#pragma once

#include <zel/EntityHandleParameter.h>
#include <zel/Export.h>
#include <zelData/EntityPtr.h>

namespace zel {

/// A parameter for one instance, by its zelData::EntityPtr: bound to a value that holds a handle, or to a
/// handle. An instance stays the same wherever it moves in its storage.
/// @threads as Parameter
class ZEL_CORE_API EntityPtrParameter : public EntityHandleParameter {
public:
    /// @param model  kept alive; instances of entities that derive from it fit as well
    EntityPtrParameter(const Name& name, zelData::EntityModel* model);

    using Parameter::bind;
    /// Binds to the handle itself. Forgets the path.
    void bind(const zelData::EntityPtr& handle);
    /// A null handle while nothing is bound.
    [[nodiscard]] zelData::EntityPtr getHandle() const;

    [[nodiscard]] static Model* ClassModel();
    /// Makes a parameter from an element of the tag "Parameter.EntityPtr".
    /// @return a new parameter without owner
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static EntityPtrParameter* load(TiXmlElement* element, Device* device);

protected:
    zelData::EntityStorage* locate(uint32& index) const override;
};

} // namespace zel
