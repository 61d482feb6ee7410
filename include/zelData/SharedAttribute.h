#pragma once

#include <zel/Export.h>
#include <zel/String.h>
#include <zel/Xml.h>
#include <zelData/Attribute.h>

namespace zelData {

/// An attribute with one value for a whole storage instead of a column. Each storage holds it as a child
/// value of the attribute's name. XML tag "Attribute.Shared".
class ZEL_CORE_API SharedAttribute : public Attribute {
public:
    /// @param expression  what the value of a new storage is set to; empty for the format's default
    SharedAttribute(const zel::Name& name, const Format* format, const zel::String& expression = {});

    [[nodiscard]] const zel::String& getExpression() const noexcept { return m_expression; }
    /// Makes the value of a storage.
    /// @return a new value without owner
    [[nodiscard]] Value* createValue() const;

    /// Reads "name", "type" (type, or type and format) and "value" (an expression).
    /// @return a new attribute without owner
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static SharedAttribute* load(zel::TiXmlElement* element);

    [[nodiscard]] static zel::Model* ClassModel();

private:
    zel::String m_expression;
};

} // namespace zelData
