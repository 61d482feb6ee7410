#pragma once

#include <zel/Export.h>
#include <zel/Xml.h>
#include <zelData/ScalarAttribute.h>

namespace zelData {

/// A link to an entity: a column of the type Pointer. XML tag "Attribute.Pointer".
class ZEL_CORE_API PointerAttribute : public ScalarAttribute {
public:
    explicit PointerAttribute(const zel::Name& name);

    /// Reads "name".
    /// @return a new attribute without owner
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static PointerAttribute* load(zel::TiXmlElement* element);

    [[nodiscard]] static zel::Model* ClassModel();
};

} // namespace zelData
