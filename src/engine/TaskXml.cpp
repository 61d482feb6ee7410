#include "TaskPaths.h"

#include <zel/Exception.h>
#include <zel/Model.h>
#include <zel/Parameter.h>
#include <zel/Task.h>
#include <zel/XmlLoader.h>
#include <zelData/Type.h>

#include <pystring/pystring.h>
#include <tinyxml.h>

#include <stdexcept>
#include <utility>

namespace zel {

namespace {

/// Makes models from the top-level elements of the tags "Task" and "TaskGroup".
class TaskType : public Model::Loader {
public:
    TaskType() : Loader("Task", "zelTask") { addAlias("TaskGroup"); }

    Model* load(TiXmlElement* element, const Path&) override {
        const char* name = element->Attribute("name");
        if (name == nullptr)
            ZEL_XML_ERROR(element, "Must specify a name for the task!");
        const char* implementation = element->Attribute("implementation");
        ref_ptr<Model> model(new Model(name, Name(implementation)));
        model->setSource(Task::ClassModel());
        return model.release_nodelete();
    }
};

TaskType s_taskType;

/// The tags that bind the parameters of a task.
bool isBindingTag(const std::string& tag) {
    return tag == "Value" || tag == "Pointer" || tag == "Buffer" || tag == "Storage" || tag == "HashTable";
}

} // namespace

Task* Task::load(TiXmlElement* element, Device* device) {
    // An initializer is a task that is run at once, and not loaded by its tag.
    ref_ptr<Object> object(element->ValueStr() == "Init"
                               ? XmlLoaderRegistrator::getLoadFunction("Task")(element, device)
                               : Object::load(element, device));
    auto* task = dynamic_cast<Task*>(object.get());
    if (task == nullptr)
        ZEL_XML_ERROR(element, "'" + element->ValueStr() + "' is no task");
    static_cast<void>(object.release_nodelete());
    return task;
}

void Task::configure(TiXmlElement* element) {
    configure(element, true);
}

void Task::configureEnable(const String& text) {
    if (text == "true" || text == "false" || text.rfind('@', 0) == 0)
        m_enable.setExpression(text);
    else
        m_enable.bind(Path(text));
}

void Task::configure(TiXmlElement* element, bool children) {
    // Not the component's: the child elements are read below.
    Object::configure(element); // NOLINT(bugprone-parent-virtual-call)
    if (element->Attribute("wait") != nullptr)
        ZEL_XML_ERROR(element, "Old syntax, use depends instead");
    if (const char* name = element->Attribute("name"))
        if (getName() != Name(name)) {
            if (getContext() != nullptr)
                ZEL_XML_ERROR(element, String::format("The task '%s' can not be renamed", getPath().c_str()));
            setName(name);
        }
    if (const char* enable = element->Attribute("enable"))
        configureEnable(String(enable));
    if (const char* path = element->Attribute("dispatch"))
        paths().dispatch = Path(path);
    if (const char* path = element->Attribute("trigger"))
        addTriggerPath(Path(path));
    if (const char* path = element->Attribute("resolve"))
        addResolvePath(Path(path));
    if (const char* path = element->Attribute("depends"))
        addDependency(Path(path));
    if (const char* path = element->Attribute("bindContext"))
        paths().bindContext = Path(path);
    if (children)
        configureChildren(element);
}

void Task::configureChildren(TiXmlElement* element) {
    for (TiXmlElement* child = element->FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement())
        configureChildElement(child);
}

Object* Task::configureChildElement(TiXmlElement* child) {
    const std::string& tag = child->ValueStr();
    if (tag == "description")
        return nullptr;
    if (tag == "Argument")
        ZEL_XML_ERROR(child, "Argument is old syntax...");
    const char* instance = child->Attribute("instance");
    if (instance == nullptr) {
        const ref_ptr<Object> object(Object::load(child, getDevice()));
        addConfiguredObject(object.get());
        return object.get();
    }
    if (isBindingTag(tag)) {
        configureBinding(child);
        return nullptr;
    }
    Object* object = getResource(Path(instance));
    if (object == nullptr)
        ZEL_XML_ERROR(child, String::format("Could not find instance '%s'", instance));
    object->configure(child);
    return nullptr;
}

void Task::addConfiguredObject(Object* object) {
    if (auto* parameter = dynamic_cast<Parameter*>(object))
        addParameter(parameter);
    else
        addObject(object, true);
}

void Task::configureBinding(TiXmlElement* child) {
    const Path instance(child->Attribute("instance"));
    Parameter* parameter = instance.hasTail() ? nullptr : findParameter(instance.root());
    if (parameter == nullptr) {
        // A value of the task's own, such as "enable", is no parameter and may be set all the same.
        if (auto* value = dynamic_cast<zelData::Value*>(findObject(instance.root()))) {
            value->configure(child);
            return;
        }
        ZEL_XML_ERROR(child, String::format("No parameter with name '%s'", instance.c_str()));
    }
    if (const char* type = child->Attribute("type")) {
        const String wanted(pystring::replace(type, "::", "."));
        if (const Model* actual = std::as_const(*parameter).getType();
            actual != nullptr && wanted != actual->getName().str() && wanted != actual->getPath().str())
            ZEL_XML_ERROR(child,
                          String::format("Parameter '%s' is not of type '%s'", instance.c_str(), type));
    }
    parameter->configure(child);
}

} // namespace zel
