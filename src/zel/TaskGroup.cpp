#include "TaskDisableHelper.h"

#include <zel/Exception.h>
#include <zel/Model.h>
#include <zel/TaskGroup.h>
#include <zel/Verify.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <string>

namespace zel {

TaskGroup::TaskGroup(const Name& name, bool sequential, Device* device)
    : Task(name, device), m_sequential(sequential), m_preJob(*this), m_postJob(*this) {
    setModel(ClassModel());
    adoptJob(m_preJob);
    adoptJob(m_postJob);
    // Also without any subtask.
    m_preJob.addDependent(&m_postJob);
}

TaskGroup::~TaskGroup() {
    disconnect();
    removeAllSubtasks();
    releaseJob(m_preJob);
    releaseJob(m_postJob);
}

Model* TaskGroup::ClassModel() {
    static std::atomic<Model*> s_model{nullptr};
    return Model::createBuiltinModel("zel.TaskGroup", Task::ClassModel(), s_model);
}

void TaskGroup::setTargetThread(Thread* thread) {
    m_preJob.setTargetThread(thread);
    m_postJob.setTargetThread(thread);
    for (Task* subtask : m_subtasks)
        subtask->setTargetThread(thread);
}

void TaskGroup::traverse(const Callback1<Task*>& callback, bool parentFirst) {
    if (parentFirst)
        callback(this);
    for (size_t i = 0; i < m_subtasks.size(); ++i) {
        const ref_ptr<Task> subtask(m_subtasks[i]);
        subtask->traverse(callback, parentFirst);
    }
    if (!parentFirst)
        callback(this);
}

// Subtasks

size_t TaskGroup::indexOf(const Task* subtask) const {
    const auto position = std::find(m_subtasks.begin(), m_subtasks.end(), subtask);
    zelVerifyNAs(position != m_subtasks.end(),
                 "subtask->getGroup() == this",
                 "%s: '%s' is not a subtask of the group",
                 getPath().c_str(),
                 subtask == nullptr ? "nullptr" : subtask->getName().c_str());
    return static_cast<size_t>(position - m_subtasks.begin());
}

void TaskGroup::registerSubtask(Task* subtask, size_t index) {
    zelVerify(subtask);
    zelVerifyNAs(subtask->getGroup() == nullptr,
                 "!subtask->getGroup()",
                 "Subtask '%s' is already part of a group!",
                 subtask->getPath().c_str());
    addObject(subtask);
    m_subtasks.insert(m_subtasks.begin() + index, subtask);
    m_preJob.addDependent(subtask->getPreJob());
    subtask->getPostJob()->addDependent(&m_postJob);
    subtask->setGroup(this);
    if (DisableHelper* helper = getDisableHelper())
        helper->registerSubtask(subtask);
    subtaskAddedCallback(subtask);
}

void TaskGroup::addSubtask(Task* subtask) {
    zelVerifyNAs(subtask != nullptr, "subtask", "%s: Adding nullptr subtask", getPath().c_str());
    if (m_sequential && !m_subtasks.empty())
        addSubtaskAfter(subtask, m_subtasks.back());
    else
        registerSubtask(subtask, m_subtasks.size());
}

void TaskGroup::addSubtaskAfter(Task* subtask, Task* parent) {
    const size_t index = indexOf(parent) + 1;
    Task* follower = m_sequential && index < m_subtasks.size() ? m_subtasks[index] : nullptr;
    registerSubtask(subtask, index);
    subtask->addDependency(parent);
    if (follower != nullptr) {
        follower->removeDependency(parent);
        follower->addDependency(subtask);
    }
}

void TaskGroup::addSubtaskBefore(Task* subtask, Task* child) {
    const size_t index = indexOf(child);
    if (m_sequential && index > 0) {
        addSubtaskAfter(subtask, m_subtasks[index - 1]);
        return;
    }
    registerSubtask(subtask, index);
    child->addDependency(subtask);
}

void TaskGroup::addSubtaskBetween(Task* subtask, Task* parent, Task* child) {
    static_cast<void>(indexOf(child));
    addSubtaskAfter(subtask, parent);
    if (!child->getParents().contains(subtask))
        child->addDependency(subtask);
}

bool TaskGroup::removeSubtask(Task* subtask) {
    if (subtask == nullptr || subtask->getGroup() != this)
        return false;
    removeObject(subtask); // which ends in leave
    return true;
}

bool TaskGroup::removeSubtask(const Name& name) {
    for (Task* subtask : m_subtasks)
        if (subtask->getName() == name)
            return removeSubtask(subtask);
    return false;
}

void TaskGroup::removeAllSubtasks() {
    while (!m_subtasks.empty())
        removeSubtask(m_subtasks.back());
}

void TaskGroup::leave(Task* subtask) {
    const size_t index = indexOf(subtask);
    m_subtasks.erase(m_subtasks.begin() + index);
    m_preJob.removeDependent(subtask->getPreJob());
    subtask->getPostJob()->removeDependent(&m_postJob);
    subtask->setGroup(nullptr);
    if (DisableHelper* helper = getDisableHelper())
        helper->removeSubtask(subtask, subtask->referenceCount() > 1); // one is held by who removes it
    // The others would wait for a task that does not run with them.
    for (size_t i = m_subtasks.size(); i-- > 0;) {
        subtask->removeDependency(m_subtasks[i]);
        m_subtasks[i]->removeDependency(subtask);
    }
    if (m_sequential && index > 0 && index < m_subtasks.size() &&
        !m_subtasks[index]->getParents().contains(m_subtasks[index - 1]))
        m_subtasks[index]->addDependency(m_subtasks[index - 1]);
}

void TaskGroup::replaceSubtask(Task* subtask, Task* with) {
    const size_t index = indexOf(subtask);
    removeSubtask(subtask);
    // The neighbours that a sequential group has joined are apart again: the caller adds the dependencies
    // that were there.
    if (m_sequential && index > 0 && index < m_subtasks.size())
        m_subtasks[index]->removeDependency(m_subtasks[index - 1]);
    registerSubtask(with, index);
}

void TaskGroup::setSequential(bool sequential) {
    if (sequential)
        serialize(true);
    m_sequential = sequential;
}

void TaskGroup::serialize(bool sequential) {
    for (size_t i = 1; i < m_subtasks.size(); ++i)
        if (!m_subtasks[i]->getParents().contains(m_subtasks[i - 1]))
            m_subtasks[i]->addDependency(m_subtasks[i - 1]);
    if (sequential)
        m_sequential = true;
}

// Runs

void TaskGroup::PreJob::implementation() {
    if (m_callback)
        m_callback();
    else
        m_owner.beginCallback();
}

void TaskGroup::PostJob::implementation() {
    if (m_callback)
        m_callback();
    else
        m_owner.endCallback();
}

void TaskGroup::endCallback() {
    float computeCost = 0;
    float overhead = 0;
    if (getProfilingMode() == ProfilingFull) {
        for (const Task* subtask : m_subtasks) {
            computeCost += subtask->getComputeCost();
            overhead += subtask->getOverhead();
        }
    }
    endCallback(computeCost, overhead);
}

// The graph as a file

namespace {

/// A label of a Graphviz node.
std::string quoted(const Name& name) {
    std::string text;
    for (const char c : name.str()) {
        if (c == '"' || c == '\\')
            text += '\\';
        text += c;
    }
    return text;
}

} // namespace

void TaskGroup::writeDependencyDotGraph() const {
    std::string graph = "digraph {\n";
    for (const Task* subtask : m_subtasks)
        graph +=
            "  " + std::to_string(subtask->getId()) + " [label=\"" + quoted(subtask->getName()) + "\"];\n";
    graph += '\n';
    for (const Task* subtask : m_subtasks)
        for (const Task* parent : subtask->getParents())
            if (parent->getGroup() == this)
                graph += "  " + std::to_string(parent->getId()) + " -> " + std::to_string(subtask->getId()) +
                         ";\n";
    graph += "}\n";

    std::string file = getName().str() + ".dot";
    std::replace(file.begin(), file.end(), ' ', '_');
    std::FILE* stream = std::fopen(file.c_str(), "wb");
    const bool written =
        stream != nullptr && std::fwrite(graph.data(), 1, graph.size(), stream) == graph.size();
    const bool closed = stream != nullptr && std::fclose(stream) == 0;
    if (!written || !closed)
        ZEL_THROW(std::runtime_error, "Could not write the file '" + file + "'");
}

} // namespace zel
