#include "PluginLibrary.h"

#include <zel/Log.h>
#include <zel/Model.h>
#include <zel/ParameterBinding.h>
#include <zel/Path.h>
#include <zel/Task.h>
#include <zel/TaskManager.h>
#include <zel/TaskPlugin.h>
#include <zel/ref_ptr.h>

#include <mutex>

namespace zel {

namespace {

/// Makes the first implementation that the test accepts.
template <typename Test>
Task* createFirst(const Vector<TaskPluginImplementation*>& implementations,
                  const Name& name,
                  Device* device,
                  const Test& fits) {
    for (TaskPluginImplementation* implementation : implementations) {
        String failure;
        ref_ptr<Task> task(createImplementation(
            *implementation, name.empty() ? implementation->getName() : name, device, failure));
        if (!failure.empty())
            ZEL_LOG_WARNING("The implementation '" << implementation->getName() << "' of plug-in '"
                                                   << implementation->getPlugin().getPath()
                                                   << "' has thrown while it was made: " << failure);
        if (task && fits(*implementation, *task))
            return task.release_nodelete();
    }
    return nullptr;
}

bool succeeded(uint32 result) {
    return (result & Task::MatchFailed) == 0;
}

} // namespace

TaskPlugin::TaskPlugin(const char* path, Device::Type deviceType)
    : m_path(String(path)), m_deviceType(deviceType) {
    const std::lock_guard lock(TaskManager::getMutex());
    if (TaskManager::pluginTable().contains(m_path))
        ZEL_LOG_WARNING("There is a plug-in for the path '" << m_path << "' already");
    else
        TaskManager::pluginTable().insert(m_path, this);
}

TaskPlugin::~TaskPlugin() {
    const std::lock_guard lock(TaskManager::getMutex());
    const auto position = TaskManager::pluginTable().find(m_path);
    if (position != TaskManager::pluginTable().end() && position->value == this)
        TaskManager::pluginTable().erase(m_path);
}

void TaskPlugin::registerModels() {
    for (TaskPluginImplementation* implementation : m_implementations)
        implementation->registerModel();
}

Task* TaskPlugin::create(Device* device,
                         const ParameterTable& bindings,
                         const Name& name,
                         const Name& implementationName) {
    if (device->getType() != m_deviceType)
        return nullptr;
    return createFirst(m_implementations,
                       name,
                       device,
                       [&](const TaskPluginImplementation& implementation, const Task& task) {
                           return (implementationName.empty() ||
                                   implementationName == implementation.getName()) &&
                                  succeeded(task.matchParameters(bindings));
                       });
}

Task* TaskPlugin::create(Device* device, Vector<ParameterBinding>& bindings, const Name& name) {
    if (device->getType() != m_deviceType)
        return nullptr;
    // An exact fit is better than one that takes conversions.
    for (const bool allowPromotion : {false, true}) {
        Task* const task = createFirst(
            m_implementations, name, device, [&](const TaskPluginImplementation&, const Task& candidate) {
                return candidate.matchParameters(bindings, allowPromotion) == Task::MatchedAll;
            });
        if (task != nullptr)
            return task;
    }
    return nullptr;
}

TaskPluginImplementation::TaskPluginImplementation(TaskPlugin& plugin, const char* name)
    : m_plugin(plugin), m_name(name) {
    m_plugin.m_implementations.push_back(this);
}

TaskPluginImplementation::~TaskPluginImplementation() {
    m_plugin.m_implementations.findAndErase(this);
}

void TaskPluginImplementation::registerModel() {
    const Path path(m_plugin.getPath());
    if (Model::getModel(path.base(), path.back()) == nullptr)
        Model::createModel(path.base(), path.back(), Task::ClassModel());
}

} // namespace zel
