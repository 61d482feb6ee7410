#pragma once

#include <zel/Export.h>
#include <zel/Parameter.h>
#include <zel/ref_ptr.h>

namespace zelData {
class Value;
} // namespace zelData

namespace zel {

/// Stands for a parameter of a task that is not known yet: takes whatever it is bound to, and learns from it
/// of what kind it is. The task's own parameter is bound to getTarget() once there is one.
/// @threads as Parameter
class ZEL_CORE_API UnresolvedParameter : public Parameter {
public:
    explicit UnresolvedParameter(const Name& name);
    ~UnresolvedParameter() override;

    /// Reads the kind from the element's tag: one of those of the parameters, or "Value", "Buffer",
    /// "Pointer", "Storage", "EntityPtr", "EntityInstance"; "Parameter.Unresolved" leaves it open, or takes
    /// it from a child element of such a tag. Then "type", "required", "bind" and "value", an expression.
    void configure(TiXmlElement* element) override;
    [[nodiscard]] zelData::Type* getType() override;
    [[nodiscard]] const zelData::Type* getType() const override;
    /// False while kind or type are open. Scalars are as valid as their target, other kinds are.
    [[nodiscard]] bool isValid() const override;
    [[nodiscard]] bool hasGlobalResult() const override;
    /// Forwards to the parameter that it is bound to.
    void update() override;
    void commit() override;
    void prepareGlobalResultSorting(size_t numJobs) override;

    /// What the parameter stands for: what it is bound to; null for nothing.
    [[nodiscard]] Object* getTarget() const noexcept { return getBinding(); }
    /// A value that follows the target's, while the kind is scalar.
    [[nodiscard]] zelData::Value* getValue() const noexcept { return m_value.get(); }
    /// As ScalarParameter::setExpression; the kind becomes scalar.
    void setExpression(const String& expression);
    /// Called at each update of the value; the first one tells format and type.
    void triggerUpdateCallback(zelData::Value* value);

    [[nodiscard]] static Model* ClassModel();
    /// Makes a parameter from an element of one of the tags that configure knows; its attribute "instance"
    /// names it.
    /// @return a new parameter without owner
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static UnresolvedParameter* load(TiXmlElement* element, Device* device);

protected:
    void _bind(Object* object) override;

private:
    void followValue(zelData::Value* value);
    void dropValue();
    void setKind(MetaType kind, const zelData::Format* format, const Object* object);

    ref_ptr<zelData::Value> m_value; // of its own; follows the target's
    MetaType m_declaredKind = MetaType::Unresolved;
    ref_ptr<const zelData::Format> m_declaredFormat;
    uint64 m_callbackId = 0;
};

} // namespace zel
