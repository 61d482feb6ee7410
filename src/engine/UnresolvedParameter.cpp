#include "data/ExpressionCheck.h"
#include "tree/PathNotes.h"

#include <zel/ArrayParameter.h>
#include <zel/Exception.h>
#include <zel/Model.h>
#include <zel/ScalarParameter.h>
#include <zel/UnresolvedParameter.h>
#include <zel/Verify.h>
#include <zel/XmlLoader.h>
#include <zelData/Buffer.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <tinyxml.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <stdexcept>
#include <string_view>

namespace zel {

namespace {

const XmlLoaderRegistrator s_unresolvedParameterLoader("Parameter.Unresolved", &UnresolvedParameter::load);

constexpr std::string_view UnresolvedTag = "Parameter.Unresolved";

struct TagKind {
    std::string_view tag;
    Parameter::MetaType kind;
};

constexpr TagKind TagKinds[] = {
    {"Value", Parameter::MetaType::Scalar},
    {"Parameter.Scalar", Parameter::MetaType::Scalar},
    {"Buffer", Parameter::MetaType::Array},
    {"Parameter.Array", Parameter::MetaType::Array},
    {"Pointer", Parameter::MetaType::Pointer},
    {"Parameter.Pointer", Parameter::MetaType::Pointer},
    {"HashTable", Parameter::MetaType::Pointer},
    {"Parameter.HashTable", Parameter::MetaType::Pointer},
    {"Storage", Parameter::MetaType::EntityData},
    {"Parameter.EntityData", Parameter::MetaType::EntityData},
    {"EntityPtr", Parameter::MetaType::EntityPtr},
    {"Parameter.EntityPtr", Parameter::MetaType::EntityPtr},
    {"EntityInstance", Parameter::MetaType::EntityInstance},
    {"Parameter.EntityInstance", Parameter::MetaType::EntityInstance},
};

const zelData::Format* handleFormat(Parameter::MetaType kind) {
    return zelData::getFormat(kind == Parameter::MetaType::EntityPtr ? "EntityPtr" : "EntityInstance");
}

/// The kind of parameter that a value is for: handles have kinds of their own.
Parameter::MetaType kindOf(const zelData::Value* value) {
    for (const auto kind : {Parameter::MetaType::EntityPtr, Parameter::MetaType::EntityInstance})
        if (value->getFormat() != nullptr && value->getFormat() == handleFormat(kind))
            return kind;
    return Parameter::MetaType::Scalar;
}

} // namespace

UnresolvedParameter::UnresolvedParameter(const Name& name)
    : Parameter(name, ClassModel(), MetaType::Unresolved, nullptr, zelData::AccessMode::READ_WRITE) {}

UnresolvedParameter::~UnresolvedParameter() {
    dropValue();
}

zelData::Type* UnresolvedParameter::getType() {
    return getFormat() == nullptr ? nullptr : getFormat()->getType();
}

const zelData::Type* UnresolvedParameter::getType() const {
    return getFormat() == nullptr ? nullptr : getFormat()->getType();
}

bool UnresolvedParameter::isValid() const {
    if (getMetaType() == MetaType::Unresolved || getType() == nullptr)
        return false;
    if (getMetaType() != MetaType::Scalar)
        return true;
    if (const auto* parameter = dynamic_cast<const Parameter*>(getTarget()))
        return parameter->isValid();
    auto* value = dynamic_cast<zelData::Value*>(getTarget());
    return value != nullptr && value->getData() != nullptr;
}

bool UnresolvedParameter::hasGlobalResult() const {
    const auto* parameter = dynamic_cast<const Parameter*>(getTarget());
    return parameter != nullptr && parameter->hasGlobalResult();
}

void UnresolvedParameter::update() {
    if (auto* parameter = dynamic_cast<Parameter*>(getTarget()))
        parameter->update();
}

void UnresolvedParameter::commit() {
    if (auto* parameter = dynamic_cast<Parameter*>(getTarget()))
        parameter->commit();
}

void UnresolvedParameter::prepareGlobalResultSorting(size_t numJobs) {
    if (auto* parameter = dynamic_cast<Parameter*>(getTarget()))
        parameter->prepareGlobalResultSorting(numJobs);
}

/// Becomes a parameter of the kind, which must be the one that was declared, if any.
void UnresolvedParameter::setKind(MetaType kind, const zelData::Format* format, const Object* object) {
    zelVerifyN(m_declaredKind == MetaType::Unresolved || m_declaredKind == kind,
               "%s: Can not bind parameter of kind %s to '%s', which is of kind %s",
               getPath().c_str(),
               getMetaTypeName(m_declaredKind),
               object->getPath().c_str(),
               getMetaTypeName(kind));
    setMetaType(kind);
    setFormat(format);
}

void UnresolvedParameter::_bind(Object* object) {
    dropValue();
    setMetaType(m_declaredKind);
    setFormat(m_declaredFormat.get());
    const auto* parameter = dynamic_cast<const Parameter*>(object);
    setNeedsUpdate(parameter != nullptr && parameter->needsUpdate());
    setNeedsCommit(parameter != nullptr && parameter->needsCommit());
    if (object == nullptr)
        return;
    if (m_declaredKind == MetaType::Pointer)
        return setKind(MetaType::Pointer, zelData::getFormat("ObjectPointer"), object);
    if (auto* value = dynamic_cast<zelData::Value*>(object))
        return followValue(value);
    if (const auto* scalar = dynamic_cast<const ScalarParameter*>(object))
        return followValue(scalar->getValue());
    if (const auto* array = dynamic_cast<const ArrayParameter*>(object))
        return setKind(MetaType::Array,
                       array->getBuffer() == nullptr ? array->getFormat() : array->getBuffer()->getFormat(),
                       object);
    if (const auto* buffer = dynamic_cast<const zelData::Buffer*>(object))
        return setKind(MetaType::Array, buffer->getFormat(), object);
    if (dynamic_cast<const zelData::EntityStorage*>(object) != nullptr)
        return setKind(MetaType::EntityData, handleFormat(MetaType::EntityData), object);
    setKind(MetaType::Pointer, zelData::getFormat("ObjectPointer"), object);
}

void UnresolvedParameter::followValue(zelData::Value* value) {
    const zelData::Format* format = m_declaredFormat ? m_declaredFormat.get() : value->getFormat();
    setKind(m_declaredKind == MetaType::Scalar ? MetaType::Scalar : kindOf(value), format, value);
    m_value = new zelData::Value(getName(), m_declaredFormat.get());
    zelVerifyN(m_value->isTypeCompatible(value),
               "%s: Can not bind parameter of type %s to value of type %s (path: %s)",
               getPath().c_str(),
               typeText(m_value->getFormat()).c_str(),
               typeText(value->getFormat()).c_str(),
               value->getPath().c_str());
    m_callbackId =
        m_value->updateEvent.connect([this](zelData::Value* changed) { triggerUpdateCallback(changed); });
    m_value->bind(value);
}

void UnresolvedParameter::dropValue() {
    if (!m_value)
        return;
    m_value->updateEvent.disconnect(m_callbackId);
    m_value->unbind(true);
    m_value = nullptr;
}

void UnresolvedParameter::setExpression(const String& expression) {
    const ref_ptr<zelData::Value> value(new zelData::Value(getName(), m_declaredFormat.get()));
    value->setContext(this);
    value->setExpression(expression);
    set(value.get());
}

void UnresolvedParameter::triggerUpdateCallback(zelData::Value* value) {
    // A callback may let go of the function that this is an argument of.
    const ref_ptr<UnresolvedParameter> keep(referenceCount() > 0 ? this : nullptr);
    if (getFormat() == nullptr)
        setFormat(value->getFormat());
    updateEvent.fire(this);
}

void UnresolvedParameter::configure(TiXmlElement* element) {
    TiXmlElement* described = element;
    if (element->ValueStr() == UnresolvedTag)
        if (TiXmlElement* child = element->FirstChildElement())
            described = child;
    if (described->ValueStr() != UnresolvedTag) {
        const auto* const known =
            std::find_if(std::begin(TagKinds), std::end(TagKinds), [described](const TagKind& entry) {
                return described->ValueStr() == entry.tag;
            });
        if (known == std::end(TagKinds))
            ZEL_XML_ERROR(described, "Unknown parameter tag: " + described->ValueStr());
        m_declaredKind = known->kind;
        setMetaType(m_declaredKind);
    }
    const bool hasFormat = m_declaredKind == MetaType::Unresolved || m_declaredKind == MetaType::Scalar ||
                           m_declaredKind == MetaType::Array;
    if (hasFormat && described->Attribute("type") != nullptr) {
        m_declaredFormat = zelData::getFormat(described, nullptr);
        setFormat(m_declaredFormat.get());
    }
    Parameter::configure(element);
    if (described != element)
        Parameter::configure(described);
    const std::string* expression = described->Attribute(std::string("value"));
    if (expression == nullptr)
        return;
    if (m_declaredKind != MetaType::Unresolved && m_declaredKind != MetaType::Scalar)
        ZEL_XML_ERROR(described, "Only a single datum can have a value");
    zelData::checkExpression(described, "value", m_declaredFormat.get());
    setExpression(*expression);
    notePathsOf(*this, described, "value");
}

UnresolvedParameter* UnresolvedParameter::load(TiXmlElement* element, Device*) {
    if (element->Attribute("instance") == nullptr)
        ZEL_XML_ERROR(element, "UnresolvedParameter must be an instance");
    ref_ptr<UnresolvedParameter> parameter(
        new UnresolvedParameter(parseAttribute<Name>(element, "instance")));
    parameter->configure(element);
    return parameter.release_nodelete();
}

Model* UnresolvedParameter::ClassModel() {
    static std::atomic<Model*> s_model{nullptr};
    return Model::createBuiltinModel("Parameter.Unresolved", Parameter::ClassModel(), s_model);
}

} // namespace zel
