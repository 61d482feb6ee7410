#include "PluginLibrary.h"
#include "tree/LoadingModels.h"

#include <zel/CpuDevice.h>
#include <zel/Exception.h>
#include <zel/Kernel.h>
#include <zel/Log.h>
#include <zel/Model.h>
#include <zel/ScalarParameter.h>
#include <zel/TaskManager.h>
#include <zel/TreeGate.h>
#include <zel/UnresolvedParameter.h>
#include <zel/UnresolvedTask.h>
#include <zel/Verify.h>

#include <tinyxml.h>

#include <algorithm>
#include <mutex>
#include <stdexcept>

// How an unresolved task finds its implementation.

namespace zel {

namespace {

/// Of a device that nobody has told the kind of.
constexpr auto UnknownType = static_cast<Device::Type>(0xFFFFFFFFU);

/// How many tasks may stand for each other in turn.
constexpr size_t MaxDepth = 16;

/// Whether there is anything that could make a task of the path.
bool hasImplementation(const Path& path) {
    String file;
    Path remainder;
    return hasPlugin(path) || Model::getDiskPath(path, file, remainder, "zelKernel") ||
           Model::getDiskPath(path, file, remainder, "zelTask");
}

} // namespace

bool UnresolvedTask::isReady() const {
    return std::all_of(m_proxyParameters.begin(), m_proxyParameters.end(), [](const auto& parameter) {
        return parameter->isValid();
    });
}

bool UnresolvedTask::instantiateProxy() {
    if (m_instance)
        return true;
    const ref_ptr<UnresolvedTask> keep(referenceCount() > 0 ? this : nullptr);
    if (m_depth > MaxDepth) {
        ZEL_LOG_WARNING("Load loop detected for task '" << m_implementationName << "'");
        return false;
    }
    collectParameters();
    m_failure = String();
    try {
        performLoadAttempts();
        if (!m_instance) {
            const Device* const first = getDevice();
            swapDevice();
            if (getDevice() != first)
                performLoadAttempts();
        }
        if (m_instance)
            configureInstance();
    } catch (...) {
        // A bad file, or implementation, is no reason to end the run: what is missing is reported.
        m_failure = whatIsThrown();
        m_instance = nullptr;
    }
    m_failed = !m_instance;
    if (m_failed) {
        m_explained = false;
        m_searched = describeSearch();
        return false;
    }
    // It may let go of the function, and take the callback away.
    if (const auto callback = m_instanceCallback)
        callback(this);
    return true;
}

void UnresolvedTask::collectParameters() {
    m_parameterTable.clear();
    for (const ref_ptr<UnresolvedParameter>& parameter : m_proxyParameters)
        m_parameterTable.insert(parameter->getName().str(), ref_ptr<Parameter>(parameter.get()));
}

bool UnresolvedTask::fits(const Task& task) const {
    return (task.matchParameters(m_parameterTable) & MatchFailed) == 0;
}

void UnresolvedTask::performLoadAttempts() {
    tryPlugin();
    if (!m_instance)
        tryTask();
}

void UnresolvedTask::swapDevice() {
    const Device::Type type = getDevice()->getType();
    if (type == UnknownType) {
        setDevice(CpuDevice::instance());
        return;
    }
    // From the CPU there is no other kind of device to go to.
    if (type != Device::Type::Cpu)
        zelAbort("UnresolvedTask found a Device::Type enum value that it doesn't know how to create.");
}

void UnresolvedTask::tryPlugin() {
    const TreeChange change;
    const std::lock_guard lock(TaskManager::getMutex());
    for (Path prefix = m_proxyPath; !m_instance; prefix = prefix.base()) {
        const Path path = prefix + m_implementationName;
        // Only the outermost name is told to be missing.
        if (prefix.empty() || hasImplementation(path))
            m_instance = TaskManager::instance()->create(path, getDevice(), m_parameterTable, m_instanceName);
        if (prefix.empty())
            break;
    }
}

void UnresolvedTask::tryTask() {
    for (Path prefix = m_proxyPath; !m_instance; prefix = prefix.base()) {
        const Path path = prefix + m_implementationName;
        const Model* model = Model::getModel(path.base(), path.back(), Task::ClassModel());
        if (model != nullptr && !model->getSourcePath().empty()) {
            const auto document = openDocument(model->getSourcePath());
            for (TiXmlElement* element = document->FirstChildElement(); element != nullptr && !m_instance;
                 element = element->NextSiblingElement()) {
                const char* const name = element->Attribute("name");
                if (name != nullptr && element->ValueStr() != "Kernel" && path.back() == Name(name))
                    tryInstanciateTask(element);
            }
            if (m_instance)
                ZEL_LOG_INFO("Proxy '" << getName() << "' realized as Task: " << path);
        }
        if (prefix.empty())
            break;
    }
}

void UnresolvedTask::tryKernel() {
    if (!m_proxyPath.empty())
        tryKernel(m_proxyPath + m_implementationName);
    if (!m_instance)
        tryKernel(m_implementationName);
}

void UnresolvedTask::tryKernel(const Path& path) {
    const String file = TaskManager::getFileSystemPath(path, "zelKernel");
    if (file.empty())
        return;
    const auto document = openDocument(file);
    for (TiXmlElement* element = document->FirstChildElement(); element != nullptr && !m_instance;
         element = element->NextSiblingElement())
        tryInstanciateTask(element);
    if (m_instance)
        ZEL_LOG_INFO("Proxy '" << getName() << "' realized as Kernel: " << path);
}

void UnresolvedTask::tryInstanciateTask(TiXmlElement* element) {
    const ref_ptr<Object> object(Object::load(element, getDevice()));
    const ref_ptr<Task> task(dynamic_cast<Task*>(object.get()));
    if (!task || dynamic_cast<DummyTask*>(task.get()) != nullptr)
        return;
    // One that stands for another in turn takes what it is given.
    if (dynamic_cast<UnresolvedTask*>(task.get()) == nullptr && !fits(*task))
        return;
    task->setName(m_instanceName);
    m_instance = task;
}

void UnresolvedTask::configureInstance() {
    if (auto* next = dynamic_cast<UnresolvedTask*>(m_instance.get())) {
        next->m_depth = m_depth + 1;
        next->m_instanceName = m_instanceName;
        for (const ref_ptr<UnresolvedParameter>& parameter : m_proxyParameters) {
            if (next->findParameter(parameter->getName()) != nullptr)
                continue;
            const ref_ptr<UnresolvedParameter> copy(new UnresolvedParameter(parameter->getName()));
            next->addProxyParameter(copy.get());
        }
    }
    for (size_t i = 0; i < m_proxyParameters.size(); ++i)
        bindInstanceParameter(i);
    if (m_description) {
        const LoadingModelsScope loading(m_enclosing);
        TiXmlElement* const element = m_description->RootElement();
        if (auto* kernel = dynamic_cast<Kernel*>(m_instance.get()))
            kernel->configureDispatch(element);
        m_instance->Task::configure(element, true);
    }
    warnOfUnbound();
    // Edges of the job graph are left alone while it runs: the next rebind puts the instance in place.
    if (!m_isCall && getContext() != nullptr && !isRunning())
        injectInstance(this);
}

void UnresolvedTask::bindInstanceParameter(size_t index) {
    const UnresolvedParameter& proxy = *m_proxyParameters[index];
    Parameter* const parameter = m_instance->findParameter(proxy.getName());
    if (parameter == nullptr) {
        ZEL_LOG_WARNING(String::format("No parameter with name '%s' in implementation '%s'",
                                       proxy.getName().c_str(),
                                       m_implementationName.c_str()));
        return;
    }
    // A path stays one, which finds what takes the place of its present target.
    if (!m_isCall && !proxy.getBindPath().empty() && !isRunning())
        parameter->bind(proxy.getBindPath());
    else
        parameter->bind(proxy.getTarget());
}

} // namespace zel
