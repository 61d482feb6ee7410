#pragma once

#include <zel/Export.h>
#include <zel/Parameter.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>

namespace zelData {
class Attribute;
class EntityModel;
class EntityStorage;
class Value;
} // namespace zelData

namespace zel {

/// What the two parameters for a single instance of an entity have in common: a value that holds the handle,
/// bound or of the parameter's own, and the attributes that the task reads and writes.
/// @threads as Parameter
class ZEL_CORE_API EntityHandleParameter : public Parameter {
public:
    ~EntityHandleParameter() override;

    [[nodiscard]] zelData::Type* getType() override;
    [[nodiscard]] const zelData::Type* getType() const override;
    /// Whether the handle is set.
    [[nodiscard]] bool isValid() const override;
    /// Commits the columns of the attributes that the task writes.
    void commit() override;

    /// Notes that the task reads or writes an attribute of the instance. The modes of several calls for one
    /// attribute add up.
    void registerAttributeAccess(const zelData::Attribute* attribute, uint32 mode);
    /// The modes that were noted for the attribute; 0 for none.
    [[nodiscard]] uint32 getAttributeAccess(const zelData::Attribute* attribute) const;

    [[nodiscard]] zelData::EntityModel* getEntityModel() const noexcept { return m_entityModel.get(); }
    /// The value that holds the handle; null while there is none.
    [[nodiscard]] zelData::Value* getValue() const noexcept { return m_value.get(); }

protected:
    /// @param handleFormat  of the handles that the class takes
    EntityHandleParameter(const Name& name,
                          Model* model,
                          MetaType metaType,
                          const zelData::Format* handleFormat,
                          zelData::EntityModel* entityModel);

    void _bind(Object* object) override;
    /// The storage of the instance and its present index there; null for a null handle.
    virtual zelData::EntityStorage* locate(uint32& index) const = 0;

    /// The handle's memory; null while there is no value.
    [[nodiscard]] const void* getElement() const;
    /// Binds to a value of the parameter's own with the handle. Forgets the path.
    void bindElement(const void* handle);

private:
    struct Access {
        ref_ptr<const zelData::Attribute> attribute;
        uint32 mode;
    };

    void verifyEntity() const;
    void follow(zelData::Value* value);

    ref_ptr<zelData::EntityModel> m_entityModel;
    ref_ptr<zelData::Value> m_value;
    uint64 m_callbackId = 0;
    Vector<Access> m_accesses;
};

} // namespace zel
