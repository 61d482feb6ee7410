#include "EntityXml.h"
#include "data/ExpressionCheck.h"

#include <zel/Exception.h>
#include <zel/Model.h>
#include <zel/Verify.h>
#include <zel/XmlLoader.h>
#include <zelData/Format.h>
#include <zelData/ScalarAttribute.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <tinyxml.h>

#include <stdexcept>

namespace zelData {

namespace {

/// Of one instance; what a 32-bit range of elements can hold.
constexpr zel::uint64 MaximumNumElements = 0xFFFFFFFFU;

const Type* typeOf(const Format* format) {
    zelVerify(format);
    return format->getType();
}

} // namespace

ScalarAttribute::ScalarAttribute(const zel::Name& name,
                                 const Type* type,
                                 const Format* defaultFormat,
                                 Value* defaultValue,
                                 Value* numElements)
    : Attribute(name, type, defaultFormat, defaultValue, numElements) {
    setModel(ClassModel());
}

ScalarAttribute::ScalarAttribute(const zel::Name& name,
                                 const Format* format,
                                 Value* defaultValue,
                                 Value* numElements)
    : ScalarAttribute(name, typeOf(format), format, defaultValue, numElements) {}

ScalarAttribute* ScalarAttribute::load(zel::TiXmlElement* element) {
    const char* name = element->Attribute("name");
    if (name == nullptr)
        ZEL_XML_ERROR(element, "Attribute must have a name!");
    const Format* format = getFormat(element, nullptr);
    if (format == nullptr)
        ZEL_XML_ERROR(element, "The type of the attribute has no format of its own");
    if (element->Attribute("defaultValue") != nullptr)
        ZEL_XML_ERROR(element, "Attribute syntax update, Use 'value' instead!");

    zel::ref_ptr<Value> defaultValue;
    if (element->Attribute("value") != nullptr) {
        defaultValue = new Value("default", format);
        setFromAttribute(*defaultValue, element, "value");
    }
    const zel::ref_ptr<Value> numElements(new Value("numElements", getFormat("UInt")));
    if (element->Attribute("numElements") != nullptr)
        checkCount(element, "numElements", 1, MaximumNumElements);
    const char* expression = element->Attribute("numElements");
    numElements->setExpression(expression == nullptr ? "1" : expression);
    return new ScalarAttribute(name, format, defaultValue.get(), numElements.get());
}

zel::Model* ScalarAttribute::ClassModel() {
    static std::atomic<zel::Model*> s_model{nullptr};
    return zel::Model::createBuiltinModel("zelData.ScalarAttribute", Attribute::ClassModel(), s_model);
}

} // namespace zelData
