#include "ParameterEntity.h"

#include <zel/ArrayParameter.h>
#include <zel/EntityDataParameter.h>
#include <zel/Exception.h>
#include <zel/GlobalResultStorage.h>
#include <zel/Model.h>
#include <zel/Verify.h>
#include <zel/XmlLoader.h>
#include <zelData/EntityData.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityStorage.h>
#include <zelData/Type.h>

#include <tinyxml.h>

#include <atomic>
#include <stdexcept>

namespace zel {

namespace {

const XmlLoaderRegistrator s_entityDataParameterLoader("Parameter.EntityData", &EntityDataParameter::load);

} // namespace

EntityDataParameter::EntityDataParameter(const Name& name,
                                         zelData::EntityModel* model,
                                         uint32 accessMode,
                                         const Path& path)
    : Parameter(name,
                ClassModel(),
                MetaType::EntityData,
                zelData::getFormat("EntityInstance"), // what it is a row of
                accessMode)
    , m_entityModel(model) {
    zelVerify(model);
    bind(path);
}

EntityDataParameter::~EntityDataParameter() {
    // Others may hold the children.
    for (const ref_ptr<ArrayParameter>& child : m_children)
        child->setContext(nullptr);
}

zelData::Type* EntityDataParameter::getType() {
    return getFormat()->getType();
}

const zelData::Type* EntityDataParameter::getType() const {
    return getFormat()->getType();
}

bool EntityDataParameter::isValid() const {
    return static_cast<bool>(m_dataSet);
}

bool EntityDataParameter::hasGlobalResult() const {
    return static_cast<bool>(m_globalResult);
}

void EntityDataParameter::update() {
    if (m_globalResult)
        m_globalResult->prepare(getTask());
    refreshColumns();
}

void EntityDataParameter::commit() {
    if (m_globalResult)
        m_globalResult->finalize();
    for (const ref_ptr<ArrayParameter>& child : m_children)
        if (child->needsCommit())
            child->commit();
}

void EntityDataParameter::prepareGlobalResultSorting(size_t numJobs) {
    if (m_globalResult)
        m_globalResult->prepareResultSorting(numJobs);
}

void EntityDataParameter::refreshColumns() {
    for (const ref_ptr<ArrayParameter>& child : m_children)
        child->update();
}

Object* EntityDataParameter::getResourceImpl(const Path& path, Model* model) {
    if (path.empty())
        return Parameter::getResourceImpl(path, model);
    for (const ref_ptr<ArrayParameter>& child : m_children)
        if (child->getName() == path.root())
            return child->getResource(path.tail(), model);
    return nullptr;
}

void EntityDataParameter::addChildParameter(ArrayParameter* parameter) {
    zelVerify(parameter);
    const Name& name = parameter->getName();
    zelVerifyN(m_entityModel->getAttribute(name) != nullptr,
               "%s: The entity '%s' has no attribute '%s'",
               getPath().c_str(),
               m_entityModel->getPath().c_str(),
               name.c_str());
    m_children.push_back(parameter);
    parameter->setContext(this);
    if (m_storage != nullptr)
        bindChild(parameter);
    refreshFlags();
}

void EntityDataParameter::bindChild(ArrayParameter* child) {
    child->set(m_storage == nullptr ? nullptr : m_storage->getBuffer(child->getName()));
}

void EntityDataParameter::_bind(Object* object) {
    auto* storage = dynamic_cast<zelData::EntityStorage*>(object);
    zelVerifyN(storage != nullptr || object == nullptr,
               "%s: Can not bind an entity parameter to '%s', which is no storage",
               getPath().c_str(),
               object->getPath().c_str());
    if (storage != nullptr)
        verifyParameterEntity(*this, m_entityModel.get(), storage);
    m_storage = storage;
    m_dataSet = storage == nullptr ? nullptr : storage->getData();
    zelVerifyAs(storage == nullptr || m_dataSet, "m_dataSet");
    for (const ref_ptr<ArrayParameter>& child : m_children)
        bindChild(child.get());
    refreshGlobalResult();
}

void EntityDataParameter::setData(zelData::EntityData* data) {
    m_dataSet = data;
}

void EntityDataParameter::setGlobalResultMode(uint32 mode) {
    m_globalResultMode = mode;
    refreshGlobalResult();
}

void EntityDataParameter::refreshGlobalResult() {
    m_globalResult = nullptr;
    if (m_globalResultMode != 0 && m_storage != nullptr) {
        zelVerifyN(
            isWritten(), "%s: A parameter that is only read can have no global result", getPath().c_str());
        m_globalResult = new GlobalResultStorage(m_globalResultMode, getPath(), m_storage);
        m_globalResult->locateTargets(getTask());
    }
    refreshFlags();
}

void EntityDataParameter::refreshFlags() {
    bool commits = static_cast<bool>(m_globalResult);
    for (const ref_ptr<ArrayParameter>& child : m_children)
        commits = commits || child->needsCommit();
    setNeedsUpdate(m_globalResult || !m_children.empty());
    setNeedsCommit(commits);
}

void EntityDataParameter::configure(TiXmlElement* element) {
    for (TiXmlElement* child = element->FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement()) {
        const ref_ptr<Object> object(Object::load(child, nullptr));
        auto* parameter = dynamic_cast<ArrayParameter*>(object.get());
        if (parameter == nullptr)
            ZEL_XML_ERROR(child, "Only arrays can be parameters of columns");
        if (m_entityModel->getAttribute(parameter->getName()) == nullptr)
            ZEL_XML_ERROR(child,
                          String::format("The entity '%s' has no attribute '%s'",
                                         m_entityModel->getPath().c_str(),
                                         parameter->getName().c_str()));
        addChildParameter(parameter);
    }
    Parameter::configure(element);
}

EntityDataParameter* EntityDataParameter::load(TiXmlElement* element, Device*) {
    const Name name = loadName(element);
    zelData::EntityModel* const model = loadParameterEntity(element);
    ref_ptr<EntityDataParameter> parameter(new EntityDataParameter(name, model, loadAccessMode(element)));
    parameter->configure(element);
    return parameter.release_nodelete();
}

Model* EntityDataParameter::ClassModel() {
    static std::atomic<Model*> s_model{nullptr};
    return Model::createBuiltinModel("Parameter.EntityData", Parameter::ClassModel(), s_model);
}

} // namespace zel
