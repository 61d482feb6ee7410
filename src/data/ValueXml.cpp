#include "ExpressionCheck.h"
#include "ValueLiteral.h"
#include "tree/PathNotes.h"

#include <zel/Exception.h>
#include <zel/XmlLoader.h>
#include <zelData/Format.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <json/value.h>
#include <tinyxml.h>

#include <memory>

namespace zelData {

namespace {

const zel::XmlLoaderRegistrator s_valueLoader("Value", &Value::load);

} // namespace

Value* Value::load(TiXmlElement* element, zel::Device*) {
    if (element->Attribute("fn") != nullptr)
        ZEL_XML_ERROR(element, "TODO New function syntax...");
    if (element->Attribute("name") == nullptr)
        ZEL_XML_ERROR(element, "Value does not have a name!");
    const auto name = zel::parseAttribute<zel::Name>(element, "name");
    const Format* format =
        element->Attribute("type") == nullptr ? nullptr : zelData::getFormat(element, nullptr);
    zel::ref_ptr<Value> value(new Value(name, format));
    value->configure(element);
    return value.release_nodelete();
}

void Value::configure(TiXmlElement* element) {
    Object::configure(element);
    if (const char* path = element->Attribute("bind")) {
        bind(zel::Path(path));
        zel::notePath(*this, element, "bind", getBindPath());
    }
    const std::string* const expression = element->Attribute(std::string("value"));
    if (expression == nullptr)
        return;
    if (element->Attribute("literal") == nullptr || !zel::parseAttribute<bool>(element, "literal")) {
        setFromAttribute(*this, element, "value");
        return;
    }
    checkExpression(element, "value", m_format.get());
    if (isUntyped())
        takeFormat(zelData::getFormat("String"));
    setText(*expression);
}

namespace {

/// Whether Value::setExpression reads the text of an element of the format back as it is.
bool isExpression(const Format* format, const zel::String& text) {
    if (text.empty() || stripped(text).size() != text.size())
        return false;
    return format == zelData::getFormat("String") ? text.front() != '@' : isLiteral(text);
}

} // namespace

void Value::writeContent(TiXmlElement* element) const {
    zel::String text;
    if (!writeText(text))
        return;
    element->SetAttribute("value", text);
    if (!isExpression(m_format.get(), text))
        element->SetAttribute("literal", "true");
}

void Value::save(TiXmlElement* element) const {
    auto child = std::make_unique<TiXmlElement>("Value");
    child->SetAttribute("name", getName().str());
    if (m_format && m_format->getType() != nullptr)
        child->SetAttribute("type", m_format->fullName());
    writeContent(child.get());
    element->LinkEndChild(child.release());
}

void Value::snapshot(TiXmlNode* node, const zel::String&) {
    auto child = std::make_unique<TiXmlElement>("Value");
    child->SetAttribute("instance", getName().str());
    writeContent(child.get());
    node->LinkEndChild(child.release());
}

void Value::buildNavigationTree(Json::Value& json) const {
    Object::buildNavigationTree(json);
    json["type"] = m_format ? m_format->fullName() : zel::String();
    zel::String text;
    if (writeText(text))
        json["value"] = text;
    if (m_binding)
        json["binding"] = m_binding->getPath().str();
}

} // namespace zelData
