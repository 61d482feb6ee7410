#pragma once

#include <zel/Export.h>
#include <zel/Xml.h>
#include <zelData/ContainerAttribute.h>

namespace zelData {

/// A growing vector per instance: each element of the column is a zel::Vector of the element format's C++
/// type. XML tag "Attribute.Vector".
class ZEL_CORE_API VectorAttribute : public ContainerAttribute {
public:
    VectorAttribute(const zel::Name& name, ScalarAttribute* elementAttribute);

    /// Reads what a scalar attribute reads; it describes the elements.
    /// @return a new attribute without owner
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static VectorAttribute* load(zel::TiXmlElement* element);

    [[nodiscard]] static zel::Model* ClassModel();
};

} // namespace zelData
