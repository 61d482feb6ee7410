#include "StreamFit.h"
#include "StreamText.h"
#include "engine/PluginLibrary.h"

#include <zel/Component.h>
#include <zel/Model.h>
#include <zel/Parameter.h>
#include <zel/Stream.h>
#include <zel/Task.h>
#include <zel/UnresolvedTask.h>
#include <zel/VerifyThrow.h>
#include <zelData/BinaryData.h>
#include <zelNet/StructuredMessage.h>

#include <json/value.h>

#include <utility>

namespace zel {

namespace {

ref_ptr<Task> loadTask(const String& implementation) {
    zelVerifyThrowN(
        isPlainPath(implementation), "'%s' is no name of a task", shortened(implementation).c_str());
    const SearchPathsOnly scope;
    ref_ptr<Task> task(Task::load(Path(implementation), nullptr));
    zelVerifyThrowAs(task, "m_task");
    return task;
}

/// Throws where a run of the task would end the process.
void verifyRunnable(Task* task) {
    bool isValid = true;
    task->traverse(
        [&isValid](Task* each) {
            // Those that stand for others report what is missing by themselves.
            const bool reports = dynamic_cast<UnresolvedTask*>(each) != nullptr;
            isValid = (each->isPassed() || reports || each->verifyParameters()) && isValid;
        },
        true);
    zelVerifyThrowN(isValid, "Parameter verification failed!");
}

/// The component that the message's paths are looked up from.
Object* parseContext(const Json::Value& eFunction) {
    Component* const top = root();
    zelVerifyThrowAs(top, "context");
    if (!hasMember(eFunction, "context"))
        return top;
    const Json::Value& eContext = eFunction["context"];
    zelVerifyThrow(eContext.isString());
    Object* const context = top->getResource(verifiedPath(eContext.asString()), Component::ClassModel());
    zelVerifyThrowN(context, "No component '%s'", shortened(eContext.asString()).c_str());
    return context;
}

} // namespace

Stream::Event::~Event() = default;

Stream::FunctionEvent::FunctionEvent(Model* model) {
    zelVerifyThrow(model);
    m_task = loadTask(model->getPath().str());
    FunctionEvent::setup();
}

Stream::FunctionEvent::FunctionEvent(const zelNet::StructuredMessage* message) {
    const Json::Value& eFunction = message->getHeader();
    zelVerifyThrowAs(hasMember(eFunction, "implementation"), "eFunction.hasMember(\"implementation\")");
    const Json::Value& eImplementation = eFunction["implementation"];
    zelVerifyThrow(eImplementation.isString());
    const ref_ptr<Task> task = loadTask(eImplementation.asString());
    Object* const context = parseContext(eFunction);
    zelVerifyThrowAs(hasMember(eFunction, "parameters"), "eFunction.hasMember(\"parameters\")");
    const Json::Value& eParameters = eFunction["parameters"];
    zelVerifyThrow(eParameters.isArray());

    // All is read and looked at ahead of the first binding.
    Vector<std::pair<Parameter*, Object*>> bindings;
    for (const Json::Value& eParameter : eParameters) {
        zelVerifyThrow(eParameter.isObject());
        const ref_ptr<Object> object = parseParameter(context, eParameter, message->getBinarySegment());
        const Name name = parseName(eParameter);
        zelVerifyThrowN(!m_parameters.contains(name),
                        "There are two parameters of the name '%s'",
                        shortened(name.str()).c_str());
        m_parameters.insert(name, object);
        auto* const taskParameter = dynamic_cast<Parameter*>(task->findObject(name, Parameter::ClassModel()));
        zelVerifyThrow(taskParameter);
        verifyBindable(taskParameter, object.get());
        bindings.push_back({taskParameter, object.get()});
    }
    for (const auto& [parameter, object] : bindings)
        parameter->bind(object);
    m_task = task;
    FunctionEvent::setup();
}

Stream::FunctionEvent::~FunctionEvent() = default;

void Stream::FunctionEvent::setup() {}

void Stream::FunctionEvent::evaluate() {
    verifyRunnable(m_task.get());
    m_task->execute();
}

} // namespace zel
