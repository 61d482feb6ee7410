#include "PluginLibrary.h"
#include "tree/KnownAttributes.h"
#include "tree/PathHint.h"
#include "tree/XmlDocument.h"

#include <zel/CpuDevice.h>
#include <zel/Exception.h>
#include <zel/Kernel.h>
#include <zel/Log.h>
#include <zel/Model.h>
#include <zel/ParameterBinding.h>
#include <zel/SerialTask.h>
#include <zel/ServicePointer.h>
#include <zel/TaskManager.h>
#include <zel/TaskPlugin.h>
#include <zel/TreeGate.h>
#include <zel/UnresolvedTask.h>
#include <zel/Verify.h>
#include <zel/XmlLoader.h>
#include <zel/ref_ptr.h>
#include <zelData/Format.h>
#include <zelData/Type.h>
#include <zelIO/FileSystem.h>

#include <tinyxml.h>

#include <algorithm>
#include <memory>
#include <sstream>

namespace zel {

namespace {

constinit ServicePointer<TaskManager> s_taskManager;

/// What a task is asked for with: bindings by name, or by position.
struct Request {
    const Path& path;
    Device* device;
    Name name;
    const ParameterTable* table;
    Vector<ParameterBinding>* bindings;

    [[nodiscard]] bool fits(const Task& task) const {
        const uint32 result =
            table != nullptr ? task.matchParameters(*table) : task.matchParameters(*bindings, true);
        return (result & Task::MatchFailed) == 0;
    }
    [[nodiscard]] Task* create(TaskPlugin& plugin) const {
        return table != nullptr ? plugin.create(device, *table, name)
                                : plugin.create(device, *bindings, name);
    }
};

/// A description file, and the elements of it that concern a path.
class Description {
public:
    /// @return whether there is a file; one that can not be read is an error
    bool open(const Path& path, const char* category) {
        Path remainder;
        String file;
        if (!Model::getDiskPath(path, file, remainder, category))
            return true;
        XmlFileError error;
        m_document = parseXmlFile(file, error);
        if (!m_document)
            ZEL_LOG_ERROR(String::format("Unable to load document '%s', error on row %d: %s",
                                         file.c_str(),
                                         static_cast<int>(error.row),
                                         error.reason.c_str()));
        else
            warnOfSlips(*m_document);
        return m_document != nullptr;
    }
    [[nodiscard]] bool exists() const noexcept { return m_document != nullptr; }
    [[nodiscard]] TiXmlElement* first() const {
        return m_document == nullptr ? nullptr : m_document->FirstChildElement();
    }

private:
    std::unique_ptr<TiXmlDocument> m_document;
};

/// Whether the element describes the kernel of that name.
bool isKernel(const TiXmlElement* element, const Name& name) {
    const char* own = element->Attribute("name");
    return element->ValueStr() == "Kernel" && (own == nullptr || name == Name(own));
}

/// Whether the element is for the device; without a word about it it is for the CPU.
bool isFor(const TiXmlElement* element, const Device* device) {
    const char* const wanted = element->Attribute("device");
    if (wanted == nullptr)
        return device->getType() == Device::Type::Cpu;
    return device->getName() == Name(wanted) || device->getTypeName() == String(wanted);
}

bool isParameter(const TiXmlElement* element) {
    return element->ValueStr().compare(0, 9, "Parameter") == 0;
}

/// Whether the types that the element names for parameters are those of what is bound to them.
bool typesFit(TiXmlElement* element, const Request& request) {
    if (request.table == nullptr)
        return true;
    const ref_ptr<SerialTask> task(new SerialTask("tmp", request.device));
    ParameterTable table;
    for (TiXmlElement* child = element->FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement()) {
        const char* const type = child->Attribute("type");
        const char* const name = child->Attribute("name");
        if (!isParameter(child) || type == nullptr || name == nullptr || String(type) == "Auto")
            continue;
        const auto binding = request.table->find(String(name));
        if (binding == request.table->end())
            continue;
        const ref_ptr<Object> parameter(Object::load(child, request.device));
        task->addParameter(dynamic_cast<Parameter*>(parameter.get()));
        table.insert(binding->key, binding->value);
    }
    return table.empty() || (task->matchParameters(table) & Task::MatchFailed) == 0;
}

/// Gives the task the settings of the element.
void configure(Task& task, TiXmlElement* element, const Path& path) {
    const Name name = task.getName();
    task.configure(element, false);
    task.setName(name); // the element has that of the implementation
    if (auto* kernel = dynamic_cast<Kernel*>(&task))
        kernel->configureDispatch(element);
    for (TiXmlElement* child = element->FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement()) {
        if (!isParameter(child))
            continue;
        const auto parameterName = parseAttribute<Name>(child, "name");
        auto* parameter = dynamic_cast<Parameter*>(task.findObject(parameterName));
        if (parameter == nullptr)
            ZEL_XML_ERROR(child,
                          String::format("No parameter with name '%s' in implementation '%s'",
                                         parameterName.c_str(),
                                         path.c_str()) +
                              hintOfPath(&task, Path(parameterName)));
        parameter->Parameter::configure(child); // not that of its class: what it is, the implementation says
    }
}

String describe(const ParameterTable& table) {
    Vector<String> names;
    for (const auto& entry : table)
        names.push_back(entry.key);
    std::sort(names.begin(), names.end());
    std::ostringstream text;
    for (const String& name : names) {
        const Parameter& parameter = *table.find(name)->value;
        const zelData::Type* type = parameter.getType();
        const zelData::Format* format = parameter.getFormat();
        text << "  '" << name << "' (" << parameter.getMetaTypeName() << ") of type "
             << (type == nullptr ? "" : type->getName().c_str()) << ", format "
             << (format == nullptr ? "" : format->getName().c_str()) << '\n';
    }
    return text.str();
}

/// Makes the object of the element; null if it is no task.
ref_ptr<Task> loadTask(TiXmlElement* element, Device* device) {
    const ref_ptr<Object> object(Object::load(element, device));
    return dynamic_cast<Task*>(object.get());
}

/// A task of the description files alone.
Task* createFromFiles(const Request& request, const Description& kernels) {
    if (kernels.exists()) {
        ref_ptr<Task> task;
        for (TiXmlElement* element = kernels.first(); element != nullptr;
             element = element->NextSiblingElement()) {
            if (!isKernel(element, request.path.back())) {
                TaskManager::loadCallback(element);
                continue;
            }
            if (task || !isFor(element, request.device))
                continue;
            task = loadTask(element, request.device);
            if (task && !request.fits(*task))
                task = nullptr;
        }
        if (task)
            task->setName(request.name);
        return task.release_nodelete();
    }
    Description tasks;
    if (!tasks.open(request.path, "zelTask"))
        return nullptr;
    for (TiXmlElement* element = tasks.first(); element != nullptr; element = element->NextSiblingElement()) {
        const char* const implementation = element->Attribute("implementation");
        if (element->ValueStr() != "Task" || implementation == nullptr ||
            (request.path.str() != String(implementation) && request.path.back() != Name(implementation)))
            continue;
        ref_ptr<Task> task = loadTask(element, request.device);
        if (task)
            task->setName(request.name);
        return task.release_nodelete();
    }
    if (!tasks.exists())
        ZEL_LOG_WARNING("Unable to find plugin for resource: '" << request.path << "'");
    return nullptr;
}

/// A task of a plug-in, with the settings of the description file.
Task* createFromPlugin(const Request& request, TaskPlugin& plugin, const Description& kernels) {
    plugin.registerModels();
    ref_ptr<Task> task(request.create(plugin));
    if (!task) {
        ZEL_LOG_WARNING("Could not create implementation '"
                        << request.name << "' from plugin '" << plugin.getPath()
                        << "' when given parameter list:\n"
                        << (request.table == nullptr ? String() : describe(*request.table)));
        return nullptr;
    }
    Model* const model = Model::getModel(request.path.base(), request.path.back());
    zelVerify(model != nullptr);
    task->setModel(model);
    for (TiXmlElement* element = kernels.first(); element != nullptr;
         element = element->NextSiblingElement()) {
        if (isKernel(element, request.path.back()) && isFor(element, request.device) &&
            typesFit(element, request)) {
            configure(*task, element, request.path);
            break;
        }
    }
    return task.release_nodelete();
}

Task* createTask(Request request) {
    const TreeChange change; // ahead of the lock, as always
    const std::lock_guard lock(TaskManager::getMutex());
    UnresolvedTask::deleteAllConfiguredProxies();
    static_cast<void>(Task::ClassModel());
    static_cast<void>(Kernel::ClassModel());
    if (request.path.str().find('/') != std::string::npos) {
        ZEL_LOG_WARNING("Wrong separator '/' should be '.'");
        return nullptr;
    }
    if (request.device == nullptr)
        request.device = CpuDevice::instance();
    if (request.name.empty())
        request.name = request.path.back();
    Description kernels;
    if (!kernels.open(request.path, "zelKernel"))
        return nullptr;
    // Also of a path that is described: its library may lie where the system looks for libraries alone.
    String failure;
    TaskPlugin* const plugin = loadPlugin(request.path, failure);
    if (plugin == nullptr)
        ZEL_LOG_WARNING("TaskManager::create(...): " << failure);
    return plugin == nullptr ? createFromFiles(request, kernels)
                             : createFromPlugin(request, *plugin, kernels);
}

} // namespace

TaskManager::TaskManager() = default;

TaskManager* TaskManager::instance() {
    return s_taskManager.get([] { return new TaskManager; });
}

void TaskManager::shutdown() {
    {
        const std::lock_guard lock(getMutex());
        forgetPluginLibraries();
    }
    s_taskManager.forget(this);
}

std::string TaskManager::getClassName() const {
    return __PRETTY_FUNCTION__;
}

Task* TaskManager::create(const Path& path,
                          Device* device,
                          const ParameterTable& parameters,
                          const Name& name) {
    return createTask({path, device, name, &parameters, nullptr});
}

Task* TaskManager::create(const Path& path, Device* device, const Name& name) {
    const ParameterTable none;
    return createTask({path, device, name, &none, nullptr});
}

Task* TaskManager::create(const Path& path, const Name& name, Vector<ParameterBinding>& bindings) {
    return createTask({path, nullptr, name, nullptr, &bindings});
}

String TaskManager::getFileSystemPath(const Path& path, const String& category) {
    if (path.str().find('/') != std::string::npos) {
        ZEL_LOG_WARNING("Wrong separator '/' should be '.'");
        return {};
    }
    String file;
    Path remainder;
    if (!Model::getDiskPath(path, file, remainder, category))
        ZEL_LOG_WARNING("Unable to find plugin for resource: '" << path << "'");
    return file;
}

String TaskManager::getPluginPath(const Path& path) {
    return "lib" + path.str() + zelIO::FileSystem::DLL_SUFFIX;
}

void TaskManager::loadCallback(TiXmlElement* element) {
    Device* device = CpuDevice::instance();
    if (const char* name = element->Attribute("device");
        name != nullptr && device->getTypeName() != String(name))
        ZEL_XML_ERROR(element, String::format("Unknown device type %s", name));
    if (XmlLoaderRegistrator::hasLoadFunction(element->ValueStr()) && element->ValueStr() != "Kernel")
        const ref_ptr<Object> registered(Object::load(element, device));
}

HashTable<String, TaskPlugin*>& TaskManager::pluginTable() {
    // Never destroyed: the plug-ins of a program leave it after all other static objects may have gone.
    static auto& table = *new HashTable<String, TaskPlugin*>;
    return table;
}

TypeSystemMutex& TaskManager::getMutex() {
    // Loading a model resolves functions, and making a task loads models: with two mutexes, each road would
    // take them in the other's order.
    return getTypeSystemMutex();
}

} // namespace zel
