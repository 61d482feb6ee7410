#include "PointerPath.h"

#include <zel/Model.h>
#include <zel/PointerParameter.h>
#include <zel/XmlLoader.h>
#include <zel/ref_ptr.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <atomic>

namespace zel {

namespace {

const XmlLoaderRegistrator s_pointerParameterLoader("Parameter.Pointer", &PointerParameter::load);

} // namespace

PointerParameter::PointerParameter(const Name& name, const Path& path) : PointerParameter(name) {
    bind(path);
}

PointerParameter::PointerParameter(const Name& name, Object* object)
    : Parameter(name,
                ClassModel(),
                MetaType::Pointer,
                zelData::getFormat("ObjectPointer"),
                zelData::AccessMode::READ) {
    bind(object);
}

PointerParameter::~PointerParameter() {
    PointerParameter::_bind(nullptr);
}

zelData::Type* PointerParameter::getType() {
    return getFormat()->getType();
}

const zelData::Type* PointerParameter::getType() const {
    return getFormat()->getType();
}

bool PointerParameter::isValid() const {
    return getBinding() != nullptr;
}

Object* PointerParameter::getResourceImpl(const Path& path, Model* model) {
    return lookThrough(this, Parameter::getResourceImpl(path, model), path, model);
}

void PointerParameter::triggerUpdateCallback(Object*) {
    updateEvent.fire(this);
}

void PointerParameter::destroyCallback(Object* object) {
    if (object == getBinding())
        m_observed = nullptr; // its events are gone already
    Parameter::destroyCallback(object);
}

void PointerParameter::_bind(Object* object) {
    if (m_observed != nullptr)
        m_observed->updateEvent.disconnect(m_callbackId);
    m_observed = dynamic_cast<zelData::Value*>(object);
    if (m_observed != nullptr)
        m_callbackId =
            m_observed->updateEvent.connect([this](zelData::Value* value) { triggerUpdateCallback(value); });
}

PointerParameter* PointerParameter::load(TiXmlElement* element, Device*) {
    ref_ptr<PointerParameter> parameter(new PointerParameter(loadName(element)));
    parameter->configure(element);
    return parameter.release_nodelete();
}

Model* PointerParameter::ClassModel() {
    static std::atomic<Model*> s_model{nullptr};
    return Model::createBuiltinModel("Parameter.Pointer", Parameter::ClassModel(), s_model);
}

} // namespace zel
