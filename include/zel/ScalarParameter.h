#pragma once

#include <zel/Export.h>
#include <zel/Parameter.h>
#include <zel/ref_ptr.h>
#include <zelData/Value.h>

namespace zel {

/// A parameter for a single datum. It has a value of its own, which follows the value or scalar parameter
/// that it is bound to, in its own format; until then, the value holds the format's default.
/// @threads as Parameter
class ZEL_CORE_API ScalarParameter : public Parameter {
public:
    /// @param format  null takes that of what it is bound to
    ScalarParameter(const Name& name,
                    const zelData::Format* format,
                    uint32 accessMode = zelData::AccessMode::READ,
                    const Path& path = Path());
    ~ScalarParameter() override;

    /// Reads also "value", an expression.
    void configure(TiXmlElement* element) override;
    /// Adds also "value", the content as text, if the parameter is bound.
    void buildNavigationTree(Json::Value& json) const override;
    [[nodiscard]] zelData::Type* getType() override;
    [[nodiscard]] const zelData::Type* getType() const override;
    /// Whether the value has content.
    [[nodiscard]] bool isValid() const override;
    /// Tells all that follow the value that the task has written it.
    void commit() override;

    [[nodiscard]] zelData::Value* getValue() const noexcept { return m_value.get(); }
    /// The element; null while there is none.
    [[nodiscard]] void* getData() const { return m_value->getData(); }

    using Parameter::set;
    /// Forgets the path and binds to the value.
    void set(zelData::Value* value);
    /// Binds to a value of the parameter's own that the expression describes, see Value::setExpression. Paths
    /// in it are looked up from the parameter. Forgets the path.
    void setExpression(const String& expression);
    /// Called at each update of the value.
    void triggerUpdateCallback(zelData::Value* value);

    [[nodiscard]] static Model* ClassModel();
    /// Makes a parameter from an element of the tag "Parameter.Scalar".
    /// @return a new parameter without owner
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static ScalarParameter* load(TiXmlElement* element, Device* device);

protected:
    void _bind(Object* object) override;

private:
    ref_ptr<zelData::Value> m_value;
    uint64 m_callbackId = 0;
};

} // namespace zel
