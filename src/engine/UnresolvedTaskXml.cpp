#include "data/ValueLiteral.h"
#include "tree/LoadingModels.h"

#include <zel/CpuDevice.h>
#include <zel/Exception.h>
#include <zel/Log.h>
#include <zel/Model.h>
#include <zel/UnresolvedParameter.h>
#include <zel/UnresolvedTask.h>
#include <zel/XmlLoader.h>

#include <tinyxml.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string_view>

namespace zel {

namespace {

const XmlLoaderRegistrator s_unresolvedTaskLoader("Task", &UnresolvedTask::load);

/// The tags that bind the parameters of a task.
constexpr std::array<std::string_view, 7> BindingTags{
    "Value", "Pointer", "Buffer", "Storage", "HashTable", "EntityPtr", "EntityInstance"};

/// Values that tasks and kernels have of their own.
constexpr std::array<std::string_view, 5> SettingNames{
    "enable", "numJobsPerThread", "minJobSize", "maxJobSize", "costPerElement"};

template <typename List>
bool contains(const List& list, std::string_view text) {
    return std::find(list.begin(), list.end(), text) != list.end();
}

/// Whether the element is one whose parameter's type matters for the choice of an implementation. A bare
/// number takes the type that the implementation has for it.
bool isBinding(const TiXmlElement* element) {
    const char* const instance = element->Attribute("instance");
    if (instance == nullptr || !contains(BindingTags, element->ValueStr()) ||
        contains(SettingNames, instance))
        return false;
    const char* const value = element->Attribute("value");
    return value == nullptr || element->Attribute("type") != nullptr || !zelData::isLiteral(value);
}

} // namespace

Task* UnresolvedTask::load(TiXmlElement* element, Device* device) {
    const char* const source = element->Attribute("source");
    const char* const name = element->Attribute("name");
    if (source == nullptr) {
        if (name == nullptr && element->ValueStr() != "Init")
            ZEL_XML_ERROR(element, "Must specify a name for the task");
        ZEL_LOG_INFO("Creating dummy task for path " << Model::getPath(element, Name(name)));
        return new DummyTask(Name(name));
    }
    const Path path(source);
    const Name instanceName = name == nullptr ? path.back() : Name(name);
    ref_ptr<UnresolvedTask> task(new UnresolvedTask(instanceName, device, path, instanceName));
    task->setProxyPath(Model::getPath(element));
    task->configureSource(element);
    task->keepDescription(element);
    task->SerialTask::configure(element);
    return task.release_nodelete();
}

void UnresolvedTask::configureSource(TiXmlElement* element) {
    if (element->Attribute("instance") != nullptr)
        m_instanceName = parseAttribute<Name>(element, "instance");
    if (const char* const name = element->Attribute("device")) {
        if (String(name) != CpuDevice::instance()->getTypeName())
            ZEL_XML_ERROR(element, String::format("Unknown device type %s", name));
        setDevice(CpuDevice::instance());
    }
}

/// Keeps what concerns the implementation itself: everything but where it comes from, and the parameters.
void UnresolvedTask::keepDescription(const TiXmlElement* element) {
    const TiXmlDocument* const document = element->GetDocument();
    m_place =
        String::format("file '%s', row %d", document == nullptr ? "" : document->Value(), element->Row());
    m_enclosing = getLoadingModels();
    m_description = std::make_unique<TiXmlDocument>(document == nullptr ? "" : document->Value());
    TiXmlElement* const copy = m_description->LinkEndChild(element->Clone())->ToElement();
    for (const char* attribute : {"name", "source", "instance", "device"})
        copy->RemoveAttribute(attribute);
    for (TiXmlElement* child = copy->FirstChildElement(); child != nullptr;) {
        TiXmlElement* const next = child->NextSiblingElement();
        if (isBinding(child))
            copy->RemoveChild(child);
        child = next;
    }
}

void UnresolvedTask::configureChildren(TiXmlElement* element) {
    for (TiXmlElement* child = element->FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement()) {
        const std::string& tag = child->ValueStr();
        if (tag == "Argument")
            ZEL_XML_ERROR(child, "Argument is old syntax...");
        const char* const instance = child->Attribute("instance");
        if (isBinding(child)) {
            const ref_ptr<UnresolvedParameter> parameter(UnresolvedParameter::load(child, getDevice()));
            addProxyParameter(parameter.get());
        } else if (instance != nullptr && String(instance) == "enable") {
            configureChildElement(child); // this task's own, too
        }
    }
}

} // namespace zel
