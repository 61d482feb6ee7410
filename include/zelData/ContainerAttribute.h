#pragma once

#include <zel/Export.h>
#include <zelData/ScalarAttribute.h>

namespace zelData {

/// An attribute whose elements hold many elements of another attribute's kind. Its buffer has a second buffer
/// named "elements" at its side, for those that share one memory.
class ZEL_CORE_API ContainerAttribute : public ScalarAttribute {
public:
    ~ContainerAttribute() override;

    /// Describes what the containers hold.
    [[nodiscard]] ScalarAttribute* getElementAttribute() const noexcept { return m_elementAttribute.get(); }

protected:
    /// @param container         the name of the container type, such as "Array"
    /// @param elementAttribute  kept alive; may not be null
    ContainerAttribute(const zel::Name& name, const char* container, ScalarAttribute* elementAttribute);

private:
    zel::ref_ptr<ScalarAttribute> m_elementAttribute;
};

} // namespace zelData
