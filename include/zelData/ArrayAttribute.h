#pragma once

#include <zel/Export.h>
#include <zel/Xml.h>
#include <zelData/ContainerAttribute.h>

namespace zelData {

/// A fixed array per instance: each element of the column is an Array view into the buffer named "elements".
/// When that buffer moves, the views follow. XML tag "Attribute.Array".
class ZEL_CORE_API ArrayAttribute : public ContainerAttribute {
public:
    ArrayAttribute(const zel::Name& name, ScalarAttribute* elementAttribute);

    /// Reads what a scalar attribute reads; it describes the elements.
    /// @return a new attribute without owner
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static ArrayAttribute* load(zel::TiXmlElement* element);

    [[nodiscard]] static zel::Model* ClassModel();
};

} // namespace zelData
