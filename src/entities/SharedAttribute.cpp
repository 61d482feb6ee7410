#include "data/ExpressionCheck.h"

#include <zel/Exception.h>
#include <zel/Model.h>
#include <zel/Verify.h>
#include <zel/XmlLoader.h>
#include <zelData/Format.h>
#include <zelData/SharedAttribute.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <tinyxml.h>

#include <stdexcept>

namespace zelData {

namespace {

const Type* checkedTypeOf(const Format* format) {
    zelVerify(format);
    return format->getType();
}

} // namespace

SharedAttribute::SharedAttribute(const zel::Name& name, const Format* format, const zel::String& expression)
    : Attribute(name, checkedTypeOf(format), format), m_expression(expression) {
    setModel(ClassModel());
}

Value* SharedAttribute::createValue() const {
    zel::ref_ptr<Value> value(new Value(getName(), getDefaultFormat()));
    value->setDefaultValue();
    value->setExpression(m_expression);
    return value.release_nodelete();
}

SharedAttribute* SharedAttribute::load(zel::TiXmlElement* element) {
    const char* name = element->Attribute("name");
    if (name == nullptr)
        ZEL_XML_ERROR(element, "Attribute must have a name");
    if (element->Attribute("type") == nullptr)
        ZEL_XML_ERROR(element, "Attribute must have a type");
    const Format* format = getFormat(element, nullptr);
    if (format == nullptr)
        ZEL_XML_ERROR(element, "The type of the attribute has no format of its own");
    checkExpression(element, "value", format);
    const char* expression = element->Attribute("value");
    return new SharedAttribute(name, format, expression == nullptr ? "" : expression);
}

zel::Model* SharedAttribute::ClassModel() {
    static std::atomic<zel::Model*> s_model{nullptr};
    return zel::Model::createBuiltinModel("zelData.SharedAttribute", Attribute::ClassModel(), s_model);
}

} // namespace zelData
