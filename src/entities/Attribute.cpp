#include <zel/Model.h>
#include <zel/Verify.h>
#include <zelData/Attribute.h>
#include <zelData/EntityModel.h>
#include <zelData/Format.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

namespace zelData {

Attribute::Attribute(const zel::Name& name,
                     const Type* type,
                     const Format* defaultFormat,
                     Value* defaultValue,
                     Value* numElements)
    : zel::Object(name, ClassModel())
    , m_type(type)
    , m_defaultFormat(defaultFormat)
    , m_numElementsValue(numElements) {
    zelVerify(type);
    zelVerifyN(numElements == nullptr || numElements->getFormat() == zelData::getFormat("UInt"),
               "%s: the number of elements must be a value of the format UInt:64bit",
               name.c_str());
    if (!m_defaultFormat)
        m_defaultFormat = type->getDefaultFormat();
    if (defaultValue != nullptr)
        setDefaultValue(defaultValue);
}

Attribute::~Attribute() = default;

void Attribute::setDefaultFormat(const Format* format) {
    m_defaultFormat = format;
}

void Attribute::setDefaultValue(Value* value) {
    zelVerify(value);
    zelVerify(value->getType() == this->getType());
    m_defaultValue = value;
}

zel::uint64 Attribute::getNumElements() const {
    if (!m_numElementsValue)
        return 1;
    const void* element = m_numElementsValue->getData();
    return element == nullptr ? 1 : *static_cast<const zel::uint64*>(element);
}

zel::String Attribute::fullName() const {
    return m_entity == nullptr ? zel::String(getName().str()) : m_entity->getName() + "." + getName().c_str();
}

zel::Model* Attribute::ClassModel() {
    static std::atomic<zel::Model*> s_model{nullptr};
    return zel::Model::createBuiltinModel("zelData.Attribute", zel::Object::ClassModel(), s_model);
}

} // namespace zelData
