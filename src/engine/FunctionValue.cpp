#include "containers/FlagScope.h"

#include <zel/Exception.h>
#include <zel/FirstException.h>
#include <zel/HashSet.h>
#include <zel/Parameter.h>
#include <zel/ScalarParameter.h>
#include <zel/SerialTask.h>
#include <zel/UnresolvedParameter.h>
#include <zel/UnresolvedTask.h>
#include <zelData/FunctionValue.h>

#include <stdexcept>

namespace zelData {

FunctionValue::FunctionValue(const Format* format, const zel::String& expression)
    : Value(zel::Name("FunctionValue(" + expression + ")"), format)
    , m_proxy(zel::UnresolvedTask::parse(expression)) {
    m_proxy->setResultFormat(format);
    m_proxy->setFunction(this);
    m_proxy->setInstanceCallback([this](zel::UnresolvedTask* proxy) { injectFunctionInstance(proxy); });
}

FunctionValue::~FunctionValue() {
    m_proxy->setInstanceCallback({});
    m_proxy->setFunction(nullptr);
    m_proxy->setContext(nullptr);
    leaveTask();
}

void FunctionValue::leaveTask() {
    if (!m_task)
        return;
    for (const Connection& connection : m_connections)
        connection.parameter->updateEvent.disconnect(connection.id);
    m_connections.clear();
    m_task->setContext(nullptr);
    m_task = nullptr;
}

void FunctionValue::setContext(zel::Object* context) {
    Value::setContext(context);
    m_proxy->setContext(context);
    if (m_task)
        m_task->setContext(context);
}

void FunctionValue::rebind() {
    const zel::ref_ptr<FunctionValue> keep(referenceCount() > 0 ? this : nullptr);
    m_proxy->rebind();
    findTask();
}

void FunctionValue::prepare(const Value* follower) {
    const zel::ref_ptr<FunctionValue> keep(referenceCount() > 0 ? this : nullptr);
    m_proxy->rebind();
    if (follows(this, follower))
        refuseItself();
    findTask();
}

void FunctionValue::findTask() {
    if (m_task || !m_proxy->isReady() || m_proxy->hasFailed())
        return;
    if (m_proxy->getInstance() != nullptr) {
        injectFunctionInstance(m_proxy.get()); // which has failed so far
    } else if (!m_proxy->instantiateProxy()) {
        m_proxy->report();
        m_proxy->explainFailure();
    }
}

void FunctionValue::refuseItself() const {
    ZEL_THROW(std::runtime_error,
              zel::String::format("%s: The function depends on its own result", getName().c_str()));
}

void FunctionValue::injectFunctionInstance(zel::UnresolvedTask* proxy) {
    // What follows the result may let go of this value and of the task.
    const zel::ref_ptr<FunctionValue> keep(referenceCount() > 0 ? this : nullptr);
    leaveTask();
    const zel::ref_ptr<zel::Task> task(proxy->getInstance());
    auto* result = dynamic_cast<zel::ScalarParameter*>(task->findParameter("result"));
    if (result == nullptr)
        ZEL_THROW(std::runtime_error,
                  zel::String::format("%s: The function has no output named 'result'", getName().c_str()));
    m_task = task;
    m_task->setContext(getContext());
    for (const zel::ref_ptr<zel::Parameter>& parameter : task->getParameters())
        if (parameter != result)
            m_connections.push_back(
                {parameter, parameter->updateEvent.connect([this](zel::Parameter* changed) {
                     parameterUpdateCallback(changed);
                 })});
    // One that fails is followed all the same: with other arguments it may succeed.
    zel::FirstException failure;
    failure.run([this] { compute(); });
    if (m_task == task) {
        try {
            bind(result->getValue());
        } catch (...) {
            leaveTask();
            throw;
        }
    }
    failure.rethrow();
}

void FunctionValue::compute() {
    const zel::ref_ptr<zel::Task> keep(m_task); // what the result sets off may let go of it
    // An argument may have come to follow a value that has no content yet, which is announced once it has.
    for (const zel::ref_ptr<zel::Parameter>& parameter : m_task->getParameters())
        if (parameter->isRequired() && !parameter->isValid())
            return;
    auto* const serial = dynamic_cast<zel::SerialTask*>(m_task.get());
    if (serial == nullptr) {
        m_task->execute();
        return;
    }
    // On this thread, outside of any graph: as the task's job does it, but for events and times.
    for (const zel::ref_ptr<zel::Parameter>& parameter : serial->getParameters())
        if (parameter->needsUpdate())
            parameter->update();
    if (const zel::Callback& callback = serial->getJob()->getCallback())
        callback();
    else
        serial->run();
    for (const zel::ref_ptr<zel::Parameter>& parameter : serial->getParameters())
        if (parameter->needsCommit())
            parameter->commit();
}

void FunctionValue::parameterUpdateCallback(zel::Parameter*) {
    if (m_computing)
        refuseItself();
    // What follows the result may let go of this value.
    const zel::ref_ptr<FunctionValue> keep(referenceCount() > 0 ? this : nullptr);
    const zel::FlagScope computing(m_computing);
    compute();
}

bool FunctionValue::follows(const zel::Object* object, const Value* other) {
    if (object != other && other->isUnobserved())
        return false; // nothing follows it
    zel::HashSet<const FunctionValue*> seen;
    zel::Vector<const zel::Object*> open;
    open.push_back(object);
    while (!open.empty()) {
        const zel::Object* next = open.back();
        open.pop_back();
        while (const auto* parameter = dynamic_cast<const zel::Parameter*>(next)) {
            const auto* const scalar = dynamic_cast<const zel::ScalarParameter*>(parameter);
            next = scalar == nullptr ? parameter->getBinding() : scalar->getValue();
        }
        for (const auto* value = dynamic_cast<const Value*>(next); value != nullptr;
             value = value->getBinding()) {
            if (value == other)
                return true;
            const auto* function = dynamic_cast<const FunctionValue*>(value);
            if (function == nullptr || seen.contains(function))
                continue;
            seen.insert(function);
            for (const auto& argument : function->m_proxy->getProxyParameters())
                open.push_back(argument->getBinding());
        }
    }
    return false;
}

} // namespace zelData
