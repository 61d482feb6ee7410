#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/InvalidIndex.h>
#include <zel/Object.h>
#include <zel/ref_ptr.h>

namespace zelData {

class EntityModel;
class Format;
class Type;
class Value;

/// One field of an entity: its name, type, format and default. Each storage of the entity holds one buffer
/// per attribute, but for shared attributes.
///
/// Owned by the entity that it is added to; belongs to one entity only.
/// @threads owner thread; concurrent reads once the entity is in use
class ZEL_CORE_API Attribute : public zel::Object {
public:
    /// @param type           kept alive; may not be null
    /// @param defaultFormat  the layout of new buffers; null takes the type's default format
    /// @param defaultValue   what new instances hold; null takes the format's default value
    /// @param numElements    the number of elements of each instance; null means one
    Attribute(const zel::Name& name,
              const Type* type,
              const Format* defaultFormat = nullptr,
              Value* defaultValue = nullptr,
              Value* numElements = nullptr);
    ~Attribute() override;

    /// The index in the entity; InvalidIndex until the attribute is added to one. Instances of the base
    /// entity's attributes come first.
    [[nodiscard]] zel::uint32 getAttributeId() const noexcept { return m_id; }
    [[nodiscard]] const Type* getType() const noexcept { return m_type.get(); }
    [[nodiscard]] const Format* getDefaultFormat() const noexcept { return m_defaultFormat.get(); }
    /// Changes the layout of the buffers that are made from now on.
    void setDefaultFormat(const Format* format);
    /// Null if new instances hold the format's default value.
    [[nodiscard]] Value* getDefaultValue() const noexcept { return m_defaultValue.get(); }
    /// Refused, as a failed verification, for a value of another type.
    void setDefaultValue(Value* value);
    /// The number of elements of each instance as a value of type UInt; null means one.
    [[nodiscard]] Value* getNumElementsValue() const noexcept { return m_numElementsValue.get(); }
    /// The present number of elements of each instance, at least 1 for an attribute without a value for it.
    [[nodiscard]] zel::uint64 getNumElements() const;
    /// The entity that the attribute was added to; null until then.
    [[nodiscard]] EntityModel* getEntity() const noexcept { return m_entity; }

    /// The entity's name, "." and the attribute's name; the bare name without an entity.
    [[nodiscard]] zel::String fullName() const;

    [[nodiscard]] static zel::Model* ClassModel();

private:
    friend class EntityModel;   // m_id, m_entity
    friend class EntityStorage; // m_id of an attribute that one storage has for itself

    zel::uint32 m_id = zel::InvalidIndex;
    zel::ref_ptr<const Type> m_type;
    zel::ref_ptr<const Format> m_defaultFormat;
    zel::ref_ptr<Value> m_defaultValue;
    zel::ref_ptr<Value> m_numElementsValue;
    EntityModel* m_entity = nullptr;
};

} // namespace zelData
