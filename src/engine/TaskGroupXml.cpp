#include "tree/PathHint.h"

#include <zel/Exception.h>
#include <zel/TaskGroup.h>
#include <zel/XmlLoader.h>

#include <tinyxml.h>

#include <stdexcept>
#include <utility>

namespace zel {

namespace {

Object* loadGroup(TiXmlElement* element, Device* device) {
    return TaskGroup::load(element, device);
}

const XmlLoaderRegistrator s_groupLoader("TaskGroup", loadGroup);

} // namespace

TaskGroup* TaskGroup::load(TiXmlElement* element, Device* device) {
    const char* name = element->Attribute("name");
    if (name == nullptr)
        ZEL_XML_ERROR(element, "Must specify a name for the task!");
    const bool sequential =
        element->Attribute("sequential") != nullptr && parseAttribute<bool>(element, "sequential");
    ref_ptr<TaskGroup> group(new TaskGroup(name, sequential, device));
    group->configure(element);
    return group.release_nodelete();
}

void TaskGroup::addConfiguredObject(Object* object) {
    if (auto* task = dynamic_cast<Task*>(object))
        addSubtask(task);
    else
        Task::addConfiguredObject(object);
}

void TaskGroup::configureChildren(TiXmlElement* element) {
    // First all subtasks, so that those told later can be named earlier. By name: what stands for another
    // task may give its place to it meanwhile.
    Vector<std::pair<TiXmlElement*, Name>> dependencies;
    for (TiXmlElement* child = element->FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement()) {
        if (child->ValueStr() == "dependency") {
            dependencies.push_back({child, Name()});
            continue;
        }
        auto* subtask = dynamic_cast<Task*>(configureChildElement(child));
        if (subtask != nullptr && child->Attribute("depends") != nullptr)
            dependencies.push_back({child, subtask->getName()});
    }
    for (const auto& [child, name] : dependencies) {
        if (child->ValueStr() == "dependency")
            configureDependency(child);
        else if (auto* subtask = dynamic_cast<Task*>(findObject(name, Task::ClassModel())))
            if (const Path missing = subtask->resolveDependencies(this); !missing.empty())
                ZEL_XML_ERROR(child,
                              String::format("Could not locate subtask '%s'", missing.c_str()) +
                                  hintOfPath(this, missing));
    }
}

void TaskGroup::configureDependency(TiXmlElement* element) {
    const auto find = [&](const char* attribute) {
        const Path path(parseAttribute<String>(element, attribute));
        // An empty path would lead to the group itself.
        return path.empty() ? nullptr : dynamic_cast<Task*>(getResource(path, Task::ClassModel()));
    };
    Task* parent = find("parent");
    if (parent == nullptr)
        ZEL_XML_ERROR(
            element,
            String::format("Could not find dependency parent node '%s'", element->Attribute("parent")) +
                hintOfPath(this, element->Attribute("parent")));
    Task* child = find("child");
    if (child == nullptr)
        ZEL_XML_ERROR(
            element,
            String::format("Could not find dependency child node '%s'", element->Attribute("child")) +
                hintOfPath(this, element->Attribute("child")));
    child->addDependency(parent);
}

} // namespace zel
