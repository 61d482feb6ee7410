#pragma once

#include <zel/Export.h>
#include <zel/Xml.h>
#include <zelData/Attribute.h>

namespace zelData {

/// An attribute with one column: one element per instance, or a number of them if a number of elements is
/// given. XML tag "Attribute.Scalar".
class ZEL_CORE_API ScalarAttribute : public Attribute {
public:
    ScalarAttribute(const zel::Name& name,
                    const Type* type,
                    const Format* defaultFormat = nullptr,
                    Value* defaultValue = nullptr,
                    Value* numElements = nullptr);
    /// With the type of the format.
    ScalarAttribute(const zel::Name& name,
                    const Format* format,
                    Value* defaultValue = nullptr,
                    Value* numElements = nullptr);

    /// Reads "name", the format, "value" (an expression) and "numElements" (an expression; "1" if absent).
    /// @return a new attribute without owner
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static ScalarAttribute* load(zel::TiXmlElement* element);

    [[nodiscard]] static zel::Model* ClassModel();
};

/// A scalar attribute whose elements are of a type that the program knows. Generated entity classes add these
/// for fields that no type of the registry describes.
///
///     new ScalarAttributeT<double>("charge", getFormat("Real:64bit"));
template <typename T>
class ScalarAttributeT : public ScalarAttribute {
public:
    using value_type = T;
    using ScalarAttribute::ScalarAttribute;

    /// The elements of a storage, by index; as many for each instance as the attribute says.
    /// @pre the storage holds the attribute in a format whose elements are T; not checked
    template <typename Storage>
    [[nodiscard]] T* getElements(Storage* storage) const {
        return static_cast<T*>(storage->getElements(this));
    }
    /// The element of an instance; the first one of several.
    template <typename Handle>
    [[nodiscard]] const T& get(const Handle& instance) const {
        return *static_cast<T*>(instance.getStorage()->getElement(this, instance.getIndex()));
    }
    template <typename Handle>
    void set(const Handle& instance, const T& value) const {
        *static_cast<T*>(instance.getStorage()->getElement(this, instance.getIndex())) = value;
    }
};

} // namespace zelData
