#include "containers/FlagScope.h"

#include <zel/CpuDevice.h>
#include <zel/Exception.h>
#include <zel/Log.h>
#include <zel/Model.h>
#include <zel/Singleton.h>
#include <zel/TaskManager.h>
#include <zel/UnresolvedParameter.h>
#include <zel/UnresolvedTask.h>
#include <zelData/Value.h>

#include <tinyxml.h>

#include <mutex>
#include <stdexcept>
#include <utility>

// The life of an unresolved task in the graph. See UnresolvedTaskResolve.cpp for the search, and
// UnresolvedTaskReport.cpp for what is said when it was in vain.

namespace zel {

namespace {

/// Lets go of the retained tasks at shutdown.
class UnresolvedTaskCleanUp : public Singleton {
public:
    static void ensure() {
        if (s_instance == nullptr)
            s_instance = new UnresolvedTaskCleanUp;
    }
    void shutdown() override {
        s_instance = nullptr;
        UnresolvedTask::deleteAllConfiguredProxies();
    }
    [[nodiscard]] std::string getClassName() const override { return __PRETTY_FUNCTION__; }

private:
    UnresolvedTaskCleanUp() : Singleton(10010) {}

    static UnresolvedTaskCleanUp* s_instance; // guarded by TaskManager's mutex
};

UnresolvedTaskCleanUp* UnresolvedTaskCleanUp::s_instance = nullptr;

/// The list of retained tasks; guarded by TaskManager's mutex. Never destroyed.
ref_ptr<UnresolvedTask>& s_retainHead() {
    static auto& head = *new ref_ptr<UnresolvedTask>;
    return head;
}

Name nameFor(const Name& name, const Path& path) {
    return name.empty() ? Name("UnresolvedTask(" + path.str() + ")") : name;
}

} // namespace

UnresolvedTask::UnresolvedTask(const Name& name, Device* device, const Path& path, const Name& instanceName)
    : SerialTask(nameFor(name, path), device == nullptr ? CpuDevice::instance() : device)
    , m_implementationName(path)
    , m_instanceName(instanceName) {
    setRunsUnverified(true); // the report of a run says more
}

UnresolvedTask::~UnresolvedTask() = default;

void UnresolvedTask::addProxyParameter(UnresolvedParameter* parameter) {
    parameter->setRequired(false); // it is the implementation that requires
    m_proxyParameters.push_back(parameter);
    addParameter(parameter);
    for (auto* event : {&parameter->bindEvent, &parameter->unbindEvent})
        event->connect([this](Parameter* changed) {
            m_failed = false;
            m_reported = String();
            valueUpdateCallback(changed);
        });
    parameter->updateEvent.connect([this](Parameter* changed) { valueUpdateCallback(changed); });
    m_failed = false;
}

void UnresolvedTask::setContext(Object* context) {
    SerialTask::setContext(context);
    for (const Argument& argument : m_arguments)
        if (argument.value)
            argument.value->setContext(context);
}

void UnresolvedTask::run() {
    const bool isWorthIt = m_instance || !m_failed || describeSearch() != m_searched;
    if (isWorthIt && instantiateProxy()) {
        m_instance->execute();
        return;
    }
    report();
    explainFailure();
}

void UnresolvedTask::rebind() {
    SerialTask::rebind();
    if (!getEnableRebind())
        return;
    if (m_isCall) {
        const FlagScope binding(m_binding);
        bindArguments();
        setLiterals();
        return; // whoever wants the result asks for the implementation
    }
    if (m_injected || getContext() == nullptr)
        return;
    if (m_instance)
        injectInstance(this);
    else if (isReady() && !m_failed && !instantiateProxy())
        explainFailure();
}

void UnresolvedTask::valueUpdateCallback(Parameter* parameter) {
    if (!m_isCall)
        return;
    // What follows the result may let go of the function.
    const ref_ptr<UnresolvedTask> keep(referenceCount() > 0 ? this : nullptr);
    if (m_instance) {
        for (size_t i = 0; i < m_proxyParameters.size(); ++i)
            if (m_proxyParameters[i].get() == parameter)
                bindInstanceParameter(i);
    } else if (!m_binding && !m_failed && getEnableRebind() && getContext() != nullptr) {
        // An argument that had no type may have one now.
        {
            const FlagScope binding(m_binding);
            setLiterals();
        }
        if (isReady() && !instantiateProxy())
            explainFailure();
    }
}

void UnresolvedTask::injectInstance(UnresolvedTask* self) {
    const ref_ptr<UnresolvedTask> keep(self);
    m_injected = true;
    auto* enable = dynamic_cast<zelData::Value*>(findObject("enable"));
    // One that is bound has been described to the implementation as well.
    if (enable == nullptr || (enable->getBinding() == nullptr && enable->getBindPath().empty()))
        m_instance->setEnable(isEnabled());
    retain();
    replace(m_instance.get());
    m_instance->rebind();
}

void UnresolvedTask::retain() {
    const std::lock_guard lock(TaskManager::getMutex());
    UnresolvedTaskCleanUp::ensure();
    m_retainLink = s_retainHead();
    s_retainHead() = this;
}

void UnresolvedTask::deleteAllConfiguredProxies() {
    const std::lock_guard lock(TaskManager::getMutex());
    ref_ptr<UnresolvedTask> next = std::exchange(s_retainHead(), nullptr);
    while (next) // one by one: a long list is not to end in as many nested destructors
        next = std::exchange(next->m_retainLink, nullptr);
}

DummyTask::DummyTask(const Name& name) : SerialTask("Dummy task: " + name.str(), CpuDevice::instance()) {}

} // namespace zel
