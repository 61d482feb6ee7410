#pragma once

#include <zel/Export.h>
#include <zel/Parameter.h>

namespace zelData {
class Value;
} // namespace zelData

namespace zel {

/// A parameter for an object of any kind, which it does not keep alive: when the object dies, the parameter
/// is unbound. Paths lead through it: what follows its name is looked up from the object.
/// @threads as Parameter
class ZEL_CORE_API PointerParameter : public Parameter {
public:
    PointerParameter(const Name& name, const Path& path);
    explicit PointerParameter(const Name& name, Object* object = nullptr);
    ~PointerParameter() override;

    /// `ObjectPointer`.
    [[nodiscard]] zelData::Type* getType() override;
    [[nodiscard]] const zelData::Type* getType() const override;
    /// Whether an object is set.
    [[nodiscard]] bool isValid() const override;
    Object* getResourceImpl(const Path& path, Model* model) override;

    [[nodiscard]] Object* getObject() const noexcept { return getBinding(); }
    /// Called at each update of the object, if it is a value.
    void triggerUpdateCallback(Object* object);

    /// The object goes: unbinds. Not for callers.
    void destroyCallback(Object* object) override;

    [[nodiscard]] static Model* ClassModel();
    /// Makes a parameter from an element of the tag "Parameter.Pointer".
    /// @return a new parameter without owner
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static PointerParameter* load(TiXmlElement* element, Device* device);

protected:
    void _bind(Object* object) override;

private:
    uint64 m_callbackId = 0;
    zelData::Value* m_observed = nullptr; // the object, if it is a value
};

} // namespace zel
