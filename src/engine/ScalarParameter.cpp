#include "data/ExpressionCheck.h"
#include "tree/PathNotes.h"

#include <zel/Model.h>
#include <zel/ScalarParameter.h>
#include <zel/Verify.h>
#include <zel/XmlLoader.h>
#include <zelData/Format.h>
#include <zelData/Transform.h>
#include <zelData/Type.h>

#include <json/value.h>
#include <tinyxml.h>

#include <atomic>

namespace zel {

namespace {

const XmlLoaderRegistrator s_scalarParameterLoader("Parameter.Scalar", &ScalarParameter::load);

} // namespace

ScalarParameter::ScalarParameter(const Name& name,
                                 const zelData::Format* format,
                                 uint32 accessMode,
                                 const Path& path)
    : Parameter(name, ClassModel(), MetaType::Scalar, format, accessMode)
    , m_value(new zelData::Value(name, format)) {
    m_value->setContext(this);
    m_callbackId =
        m_value->updateEvent.connect([this](zelData::Value* value) { triggerUpdateCallback(value); });
    setNeedsCommit(isWritten());
    bind(path);
}

ScalarParameter::~ScalarParameter() {
    // Others may hold the value.
    m_value->updateEvent.disconnect(m_callbackId);
    m_value->unbind(true);
    m_value->setContext(nullptr);
}

zelData::Type* ScalarParameter::getType() {
    const zelData::Format* format = m_value->getFormat();
    return format == nullptr ? nullptr : format->getType();
}

const zelData::Type* ScalarParameter::getType() const {
    return m_value->getType();
}

bool ScalarParameter::isValid() const {
    return m_value->getData() != nullptr;
}

void ScalarParameter::commit() {
    // What the task wrote lies in the parameter's value. Values above in the same format share the element.
    zelData::Value* value = m_value.get();
    for (zelData::Value* above = value->getBinding(); above != nullptr; above = value->getBinding()) {
        if (above->getData() == nullptr)
            return;
        if (above->getFormat() != value->getFormat())
            zelData::transform(above->getData(), above->getFormat(), value->getData(), value->getFormat(), 1);
        value = above;
    }
    value->update();
}

void ScalarParameter::set(zelData::Value* value) {
    Parameter::set(value);
}

void ScalarParameter::setExpression(const String& expression) {
    const ref_ptr<zelData::Value> value(new zelData::Value(getName(), getFormat()));
    value->setContext(this);
    value->setExpression(expression);
    set(value.get());
}

void ScalarParameter::triggerUpdateCallback(zelData::Value* value) {
    // A callback may let go of the function that this is an argument of.
    const ref_ptr<ScalarParameter> keep(referenceCount() > 0 ? this : nullptr);
    if (getFormat() == nullptr)
        setFormat(value->getFormat());
    updateEvent.fire(this);
}

void ScalarParameter::_bind(Object* object) {
    if (auto* other = dynamic_cast<ScalarParameter*>(object)) {
        zelVerifyN(m_value->isTypeCompatible(other->getValue()),
                   "%s: Can not bind parameter of type %s to parameter of type %s",
                   getPath().c_str(),
                   typeText(m_value->getFormat()).c_str(),
                   typeText(other->getValue()->getFormat()).c_str());
        m_value->bind(other->getValue());
        return;
    }
    auto* value = dynamic_cast<zelData::Value*>(object);
    if (value == nullptr) {
        zelVerifyN(object == nullptr,
                   "%s: Can not bind a scalar parameter to '%s', which is no value",
                   getPath().c_str(),
                   object->getPath().c_str());
        m_value->unbind(true);
        return;
    }
    zelVerifyN(m_value->isTypeCompatible(value),
               "%s: Can not bind parameter of type %s to value of type %s (path: %s)",
               getPath().c_str(),
               typeText(m_value->getFormat()).c_str(),
               typeText(value->getFormat()).c_str(),
               value->getPath().c_str());
    m_value->bind(value);
}

void ScalarParameter::configure(TiXmlElement* element) {
    Parameter::configure(element);
    if (const std::string* expression = element->Attribute(std::string("value"))) {
        zelData::checkExpression(element, "value", getFormat());
        setExpression(*expression);
        notePathsOf(*this, element, "value");
    }
}

ScalarParameter* ScalarParameter::load(TiXmlElement* element, Device* device) {
    const Name name = loadName(element);
    const zelData::Format* format =
        element->Attribute("type") == nullptr ? nullptr : zelData::getFormat(element, device);
    ref_ptr<ScalarParameter> parameter(new ScalarParameter(name, format, loadAccessMode(element)));
    parameter->configure(element);
    return parameter.release_nodelete();
}

void ScalarParameter::buildNavigationTree(Json::Value& json) const {
    Parameter::buildNavigationTree(json);
    if (getBinding() != nullptr)
        json["value"] = m_value->toString();
}

Model* ScalarParameter::ClassModel() {
    static std::atomic<Model*> s_model{nullptr};
    return Model::createBuiltinModel("Parameter.Scalar", Parameter::ClassModel(), s_model);
}

} // namespace zel
