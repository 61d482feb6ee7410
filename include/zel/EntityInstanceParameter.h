#pragma once

#include <zel/EntityHandleParameter.h>
#include <zel/Export.h>
#include <zelData/EntityInstance.h>

namespace zel {

/// A parameter for one instance, by its zelData::EntityInstance: bound to a value that holds a handle, or to
/// a handle. The handle is a place, and ends when anything moves instances.
/// @threads as Parameter
class ZEL_CORE_API EntityInstanceParameter : public EntityHandleParameter {
public:
    /// @param model  kept alive; instances of entities that derive from it fit as well
    EntityInstanceParameter(const Name& name, zelData::EntityModel* model);

    using Parameter::bind;
    /// Binds to the handle itself. Forgets the path.
    void bind(const zelData::EntityInstance& handle);
    /// A null handle while nothing is bound.
    [[nodiscard]] zelData::EntityInstance getHandle() const;

    [[nodiscard]] static Model* ClassModel();
    /// Makes a parameter from an element of the tag "Parameter.EntityInstance".
    /// @return a new parameter without owner
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static EntityInstanceParameter* load(TiXmlElement* element, Device* device);

protected:
    zelData::EntityStorage* locate(uint32& index) const override;
};

} // namespace zel
