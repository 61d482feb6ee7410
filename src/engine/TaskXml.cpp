#include "TaskPaths.h"
#include "tree/PathHint.h"
#include "tree/PathNotes.h"

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

Object* findTask(Object& object, const Path& path) {
    return object.getAutoScopedResource(path, Task::ClassModel());
}

Object* findValue(Object& object, const Path& path) {
    return object.getAutoScopedResource(path, zelData::Value::ClassModel());
}

Object* findTrigger(Object& object, const Path& path) {
    Object* const value = findValue(object, path);
    return value == nullptr ? object.getAutoScopedResource(path, Clock::ClassModel()) : value;
}

/// Hands the path in an attribute on, and notes it.
template <typename Take>
void takePath(
    Task& task, const TiXmlElement* element, const char* attribute, FindByPath find, const Take& take) {
    const char* const path = element->Attribute(attribute);
    if (path == nullptr)
        return;
    take(Path(path));
    notePath(task, element, attribute, Path(path), find);
}

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
    if (const char* enable = element->Attribute("enable")) {
        configureEnable(String(enable));
        notePath(m_enable, element, "enable", m_enable.getBindPath());
    }
    takePath(*this, element, "dispatch", &findTask, [this](const Path& path) { paths().dispatch = path; });
    takePath(*this, element, "trigger", &findTrigger, [this](const Path& path) { addTriggerPath(path); });
    takePath(*this, element, "resolve", &findValue, [this](const Path& path) { addResolvePath(path); });
    takePath(*this, element, "depends", &findTask, [this](const Path& path) { addDependency(path); });
    takePath(
        *this, element, "bindContext", nullptr, [this](const Path& path) { paths().bindContext = path; });
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
        ZEL_XML_ERROR(child,
                      String::format("Could not find instance '%s'", instance) +
                          hintOfPath(this, Path(instance)));
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
        ZEL_XML_ERROR(child,
                      String::format("No parameter with name '%s'", instance.c_str()) +
                          hintOfPath(this, instance));
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
