#include "TaskDisableHelper.h"
#include "containers/GraphWalk.h"
#include "tree/Farewell.h"

#include <zel/Exception.h>
#include <zel/FirstException.h>
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
    rebindsOnDemand(typeid(TaskGroup));
    adoptJob(m_preJob);
    adoptJob(m_postJob);
    m_postJob.m_endsGroup = true;
    // Also without any subtask.
    m_preJob.addDependent(&m_postJob);
}

TaskGroup::~TaskGroup() {
    disconnect();
    runWhileDestroyed(*this, [this] { removeAllSubtasks(); });
    // What callbacks have added to the dying group goes without farewell.
    while (!m_subtasks.empty())
        leave(m_subtasks.back());
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

namespace {

/// Whether one job can be reached from another one along the edges of one kind.
bool leadsTo(const Job* from, const Job* goal, const VectorPOD<Job*>& (Job::*edges)() const noexcept) {
    bool found = false;
    walkGraph(from, [&found, goal, edges](const Job* job) {
        found = found || job == goal;
        return found ? nullptr : &(job->*edges)();
    });
    return found;
}

} // namespace

size_t TaskGroup::indexOf(const Task* subtask) const {
    // From the back, where a group is taken apart.
    size_t end = m_subtasks.size();
    while (end > 0 && m_subtasks[end - 1] != subtask)
        --end;
    zelVerifyNAs(end > 0,
                 "subtask->getGroup() == this",
                 "%s: '%s' is not a subtask of the group",
                 getPath().c_str(),
                 subtask == nullptr ? "nullptr" : subtask->getName().c_str());
    return end - 1;
}

void TaskGroup::registerSubtask(Task* subtask, size_t index) {
    zelVerify(subtask);
    zelVerifyNAs(subtask->getGroup() == nullptr,
                 "!subtask->getGroup()",
                 "Subtask '%s' is already part of a group!",
                 subtask->getPath().c_str());
    verifyNoLoop(subtask);
    const ref_ptr<Task> keep(subtask);
    FirstException failure;
    failure.run([this, subtask] { addObject(subtask); });
    // The callbacks may have let it go again, or have taken others out.
    if (subtask->getContext() != this || subtask->getGroup() != nullptr) {
        failure.rethrow();
        return;
    }
    m_subtasks.insert(m_subtasks.begin() + std::min(index, m_subtasks.size()), subtask);
    subtask->markJobs();
    m_preJob.addDependent(subtask->getPreJob());
    subtask->getPostJob()->addDependent(&m_postJob);
    // Its edges to other subtasks lead out of no group any more.
    for (const Vector<Task*>* neighbours : {&subtask->m_parents, &subtask->m_children}) {
        for (Task* neighbour : *neighbours) {
            if (neighbour->m_group == this) {
                neighbour->countOuterEdges(-1);
                subtask->countOuterEdges(-1);
            }
        }
    }
    subtask->setGroup(this);
    countOuterEdges(subtask->m_numOuterEdges);
    countThreadTasks(subtask->m_numThreadTasks);
    if (DisableHelper* helper = getDisableHelper())
        helper->registerSubtask(subtask);
    failure.run([this, subtask] { subtaskAddedCallback(subtask); });
    failure.rethrow();
}

void TaskGroup::verifyNoLoop(Task* subtask) {
    if (subtask->m_numOuterEdges == 0)
        return;
    // What the subtask waits for, and what waits for it, must not lie before and after the group.
    const bool closesLoop = leadsTo(subtask->getPreJob(), &m_preJob, &Job::getDependents) ||
                            leadsTo(subtask->getPostJob(), &m_postJob, &Job::getDependencies);
    zelVerifyNAs(!closesLoop,
                 "!parent->hasDependency(child)",
                 "Detected dependency loop between %s and %s",
                 getPath().c_str(),
                 subtask->getPath().c_str());
}

namespace {

void verifyGiven(const TaskGroup& group, const Task* subtask) {
    zelVerifyNAs(subtask != nullptr, "subtask", "%s: Adding nullptr subtask", group.getPath().c_str());
}

} // namespace

void TaskGroup::addSubtask(Task* subtask) {
    verifyGiven(*this, subtask);
    if (m_sequential && !m_subtasks.empty())
        addSubtaskAfter(subtask, m_subtasks.back());
    else
        registerSubtask(subtask, m_subtasks.size());
}

void TaskGroup::addSubtaskAfter(Task* subtask, Task* parent) {
    const size_t index = indexOf(parent) + 1;
    verifyGiven(*this, subtask);
    const ref_ptr<Task> keep(subtask);
    const ref_ptr<Task> keepParent(parent);
    const ref_ptr<Task> follower(m_sequential && index < m_subtasks.size() ? m_subtasks[index] : nullptr);
    FirstException failure;
    failure.run([this, subtask, index] { registerSubtask(subtask, index); });
    if (subtask->getGroup() == this) {
        // The callbacks may have let go of the neighbours, or have put others between them.
        const size_t place = indexOf(subtask);
        const Task* const behind = place + 1 < m_subtasks.size() ? m_subtasks[place + 1] : nullptr;
        const bool isAsAsked = place != 0 && m_subtasks[place - 1] == parent && behind == follower.get();
        if (m_sequential && !isAsAsked) {
            serialize(true);
        } else if (parent->getGroup() == this) {
            subtask->addDependency(parent);
            if (follower) {
                follower->removeDependency(parent);
                follower->addDependency(subtask);
            }
        }
    }
    failure.rethrow();
}

void TaskGroup::addSubtaskBefore(Task* subtask, Task* child) {
    const size_t index = indexOf(child);
    verifyGiven(*this, subtask);
    if (m_sequential && index > 0) {
        addSubtaskAfter(subtask, m_subtasks[index - 1]);
        return;
    }
    const ref_ptr<Task> keep(subtask);
    const ref_ptr<Task> keepChild(child);
    FirstException failure;
    failure.run([this, subtask, index] { registerSubtask(subtask, index); });
    if (subtask->getGroup() == this) {
        if (child->getGroup() == this)
            child->addDependency(subtask);
        if (m_sequential)
            serialize(true); // the callbacks may have changed the neighbours
    }
    failure.rethrow();
}

void TaskGroup::addSubtaskBetween(Task* subtask, Task* parent, Task* child) {
    static_cast<void>(indexOf(child));
    const ref_ptr<Task> keep(subtask);
    const ref_ptr<Task> keepChild(child);
    FirstException failure;
    failure.run([this, subtask, parent] { addSubtaskAfter(subtask, parent); });
    if (subtask->getGroup() == this && child->getGroup() == this && !child->getParents().contains(subtask))
        child->addDependency(subtask);
    failure.rethrow();
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
    // The callbacks may take out others, add some, and let go of the group.
    const ref_ptr<TaskGroup> keep(referenceCount() > 0 ? this : nullptr);
    // Not held, so that leave sees which of them survive: only looked for among those that are there.
    const Vector<Task*> subtasks = m_subtasks;
    FirstException failure;
    for (size_t i = subtasks.size(); i-- > 0;) {
        Task* const subtask = subtasks[i];
        if (!m_subtasks.empty() && (m_subtasks.back() == subtask || m_subtasks.contains(subtask)))
            failure.run([this, subtask] { removeSubtask(subtask); });
    }
    failure.rethrow();
}

void TaskGroup::leave(Task* subtask) {
    const size_t index = indexOf(subtask);
    m_subtasks.erase(m_subtasks.begin() + index);
    m_preJob.removeDependent(subtask->getPreJob());
    subtask->getPostJob()->removeDependent(&m_postJob);
    // The others have nothing to do any more with a task that does not run with them.
    for (size_t i = subtask->m_parents.size(); i-- > 0;)
        if (Task* parent = subtask->m_parents[i]; parent->m_group == this)
            subtask->removeDependency(parent);
    for (size_t i = subtask->m_children.size(); i-- > 0;)
        if (Task* child = subtask->m_children[i]; child->m_group == this)
            child->removeDependency(subtask);
    countOuterEdges(-subtask->m_numOuterEdges);
    countThreadTasks(-subtask->m_numThreadTasks);
    subtask->setGroup(nullptr);
    if (DisableHelper* helper = getDisableHelper())
        helper->removeSubtask(subtask, subtask->referenceCount() > 1); // one is held by who removes it
    if (m_sequential && index > 0 && index < m_subtasks.size() &&
        !m_subtasks[index]->getParents().contains(m_subtasks[index - 1]))
        m_subtasks[index]->addDependency(m_subtasks[index - 1]);
}

void TaskGroup::replaceSubtask(Task* subtask, Task* with) {
    const ref_ptr<TaskGroup> keep(referenceCount() > 0 ? this : nullptr);
    const ref_ptr<Task> keepWith(with);
    const size_t index = indexOf(subtask);
    FirstException failure;
    failure.run([this, subtask] { removeSubtask(subtask); });
    // The neighbours that a sequential group has joined are apart again: the caller adds the dependencies
    // that were there.
    if (m_sequential && index > 0 && index < m_subtasks.size())
        m_subtasks[index]->removeDependency(m_subtasks[index - 1]);
    if (with->getGroup() == nullptr) // the callbacks may have put it into one
        failure.run([this, with, index] { registerSubtask(with, index); });
    failure.rethrow();
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
