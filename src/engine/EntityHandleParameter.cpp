#include "ParameterEntity.h"
#include "entities/EntityXml.h"

#include <zel/EntityHandleParameter.h>
#include <zel/EntityInstanceParameter.h>
#include <zel/EntityPtrParameter.h>
#include <zel/Exception.h>
#include <zel/Model.h>
#include <zel/ScalarParameter.h>
#include <zel/Verify.h>
#include <zel/XmlLoader.h>
#include <zelData/Attribute.h>
#include <zelData/Buffer.h>
#include <zelData/EntityData.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <tinyxml.h>

#include <atomic>
#include <stdexcept>

namespace zel {

namespace {

std::atomic<Model*> s_ptrModel{nullptr};
std::atomic<Model*> s_instanceModel{nullptr};

const XmlLoaderRegistrator s_ptrLoader("Parameter.EntityPtr", &EntityPtrParameter::load);
const XmlLoaderRegistrator s_instanceLoader("Parameter.EntityInstance", &EntityInstanceParameter::load);

} // namespace

// Handles of generated classes are those of the base class in memory, and have types of their own: "FooPtr"
// for the entity "Foo".
bool isHandle(const zelData::Format* format, const zelData::Format* handleFormat, const Name& entity) {
    if (format == handleFormat)
        return true;
    const zelData::Type* const type = format == nullptr ? nullptr : format->getType();
    const std::string suffix = handleFormat->getType()->getName().str().substr(6); // without "Entity"
    return type != nullptr && type->getDefaultFormat() == format &&
           format->getSize() == handleFormat->getSize() && type->getName().str() == entity.str() + suffix;
}

zelData::EntityModel* loadParameterEntity(TiXmlElement* element) {
    const char* type = element->Attribute("type");
    if (type == nullptr)
        ZEL_XML_ERROR(element, "Parameter must have a type!");
    zelData::EntityModel* model = zelData::findEntity(element, type);
    if (model == nullptr)
        ZEL_XML_ERROR(element,
                      String::format("Unable to load entity '%s'", type) +
                          zelData::explainMissingEntity(element, type));
    return model;
}

void verifyParameterEntity(const Parameter& parameter,
                           const zelData::EntityModel* entityModel,
                           const zelData::EntityStorage* storage) {
    const zelData::EntityModel* const model = storage->getEntityModel();
    zelVerifyNAs(model != nullptr && model->is(entityModel),
                 "m_storage->getEntityModel()->is(m_entityModel)",
                 "%s: Can not bind entity parameter of type '%s' to storage '%s' which has entity type '%s'",
                 parameter.getPath().c_str(),
                 entityModel->getPath().c_str(),
                 storage->getPath().c_str(),
                 model == nullptr ? "" : model->getPath().c_str());
}

EntityHandleParameter::EntityHandleParameter(const Name& name,
                                             Model* model,
                                             MetaType metaType,
                                             const zelData::Format* handleFormat,
                                             zelData::EntityModel* entityModel)
    : Parameter(name, model, metaType, handleFormat, zelData::AccessMode::READ), m_entityModel(entityModel) {
    zelVerify(entityModel);
}

EntityHandleParameter::~EntityHandleParameter() {
    follow(nullptr);
}

zelData::Type* EntityHandleParameter::getType() {
    return getFormat()->getType();
}

const zelData::Type* EntityHandleParameter::getType() const {
    return getFormat()->getType();
}

const void* EntityHandleParameter::getElement() const {
    return m_value ? m_value->getData() : nullptr;
}

bool EntityHandleParameter::isValid() const {
    uint32 index = 0;
    return locate(index) != nullptr;
}

void EntityHandleParameter::verifyEntity() const {
    uint32 index = 0;
    if (const zelData::EntityStorage* const storage = locate(index))
        verifyParameterEntity(*this, m_entityModel.get(), storage);
}

void EntityHandleParameter::follow(zelData::Value* value) {
    if (m_value)
        m_value->updateEvent.disconnect(m_callbackId);
    m_value = value;
    if (value == nullptr)
        return;
    m_callbackId = value->updateEvent.connect([this](zelData::Value*) {
        verifyEntity();
        updateEvent.fire(this);
    });
}

void EntityHandleParameter::_bind(Object* object) {
    auto* value = dynamic_cast<zelData::Value*>(object);
    if (const auto* parameter = dynamic_cast<const ScalarParameter*>(object))
        value = parameter->getValue();
    if (object != nullptr)
        zelVerifyN(value != nullptr && isHandle(value->getFormat(), getFormat(), m_entityModel->getName()),
                   "%s: Can not bind parameter of type %s to value of type %s (path: %s)",
                   getPath().c_str(),
                   typeText(getFormat()).c_str(),
                   value == nullptr ? "" : typeText(value->getFormat()).c_str(),
                   object->getPath().c_str());
    follow(value);
    verifyEntity();
}

void EntityHandleParameter::bindElement(const void* handle) {
    const ref_ptr<zelData::Value> value(new zelData::Value(getName(), getFormat()));
    value->set(handle);
    set(value.get());
}

void EntityHandleParameter::registerAttributeAccess(const zelData::Attribute* attribute, uint32 mode) {
    zelVerify(attribute);
    static_cast<void>(zelData::getAccessModeString(mode)); // ends the process for another number
    setAccessMode(getAccessMode() | mode);
    setNeedsCommit(isWritten());
    for (Access& access : m_accesses)
        if (access.attribute == attribute) {
            access.mode |= mode;
            return;
        }
    m_accesses.push_back(Access{attribute, mode});
}

uint32 EntityHandleParameter::getAttributeAccess(const zelData::Attribute* attribute) const {
    for (const Access& access : m_accesses)
        if (access.attribute == attribute)
            return access.mode;
    return 0;
}

void EntityHandleParameter::commit() {
    uint32 index = 0;
    const zelData::EntityStorage* const storage = locate(index);
    if (storage == nullptr)
        return;
    for (const Access& access : m_accesses) {
        zelData::Buffer* const buffer = storage->getBuffer(access.attribute.get());
        if (buffer != nullptr && (access.mode & zelData::AccessMode::WRITE) != 0)
            buffer->commit(index);
    }
}

// The two kinds of handles

EntityPtrParameter::EntityPtrParameter(const Name& name, zelData::EntityModel* model)
    : EntityHandleParameter(name, ClassModel(), MetaType::EntityPtr, zelData::getFormat("EntityPtr"), model) {
}

void EntityPtrParameter::bind(const zelData::EntityPtr& handle) {
    bindElement(&handle);
}

zelData::EntityPtr EntityPtrParameter::getHandle() const {
    const void* element = getElement();
    return element == nullptr ? zelData::EntityPtr() : *static_cast<const zelData::EntityPtr*>(element);
}

zelData::EntityStorage* EntityPtrParameter::locate(uint32& index) const {
    const zelData::EntityPtr handle = getHandle();
    index = handle.getIndex();
    return handle.getStorage();
}

EntityPtrParameter* EntityPtrParameter::load(TiXmlElement* element, Device*) {
    const Name name = loadName(element);
    ref_ptr<EntityPtrParameter> parameter(new EntityPtrParameter(name, loadParameterEntity(element)));
    parameter->configure(element);
    return parameter.release_nodelete();
}

Model* EntityPtrParameter::ClassModel() {
    return Model::createBuiltinModel("Parameter.EntityPtr", Parameter::ClassModel(), s_ptrModel);
}

EntityInstanceParameter::EntityInstanceParameter(const Name& name, zelData::EntityModel* model)
    : EntityHandleParameter(
          name, ClassModel(), MetaType::EntityInstance, zelData::getFormat("EntityInstance"), model) {}

void EntityInstanceParameter::bind(const zelData::EntityInstance& handle) {
    bindElement(&handle);
}

zelData::EntityInstance EntityInstanceParameter::getHandle() const {
    const void* element = getElement();
    return element == nullptr ? zelData::EntityInstance()
                              : *static_cast<const zelData::EntityInstance*>(element);
}

zelData::EntityStorage* EntityInstanceParameter::locate(uint32& index) const {
    const zelData::EntityInstance handle = getHandle();
    index = handle.getIndex();
    return handle.isNull() ? nullptr : handle.getStorage();
}

EntityInstanceParameter* EntityInstanceParameter::load(TiXmlElement* element, Device*) {
    const Name name = loadName(element);
    ref_ptr<EntityInstanceParameter> parameter(
        new EntityInstanceParameter(name, loadParameterEntity(element)));
    parameter->configure(element);
    return parameter.release_nodelete();
}

Model* EntityInstanceParameter::ClassModel() {
    return Model::createBuiltinModel("Parameter.EntityInstance", Parameter::ClassModel(), s_instanceModel);
}

} // namespace zel
