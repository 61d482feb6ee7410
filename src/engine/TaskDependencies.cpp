#include "TaskPaths.h"
#include "containers/FlagScope.h"
#include "containers/GraphWalk.h"

#include <zel/Exception.h>
#include <zel/FirstException.h>
#include <zel/Log.h>
#include <zel/Task.h>
#include <zel/TaskGroup.h>
#include <zel/Verify.h>

#include <stdexcept>

// Which tasks wait for which.

namespace zel {

void Task::addDependency(Task* task) {
    zelVerify(task);
    addConnection(task, this);
}

bool Task::removeDependency(Task* task) {
    if (!m_parents.findAndErase(task))
        return false;
    task->m_children.findAndErase(this);
    if (isOuterEdge(this, task)) {
        countOuterEdges(-1);
        task->countOuterEdges(-1);
    }
    task->getPostJob()->removeDependent(getPreJob());
    return true;
}

bool Task::hasDependency(Task* task) const {
    bool found = false;
    walkGraph(this, [&found, task](const Task* next) {
        found = found || next->m_parents.contains(task);
        return found ? nullptr : &next->m_parents;
    });
    return found;
}

bool Task::reaches(Task* parent) {
    // Over the jobs, so that a way through a group counts. From the child on: a graph is mostly built from
    // its beginning to its end, and then there is little behind the child.
    const Job* const goal = parent->getPostJob();
    bool found = false;
    walkGraph<const Job>(getPreJob(), [&found, goal](const Job* job) {
        found = found || job == goal;
        return found ? nullptr : &job->getDependents();
    });
    return found;
}

void Task::addConnection(Task* parent, Task* child) {
    zelVerify(parent);
    zelVerify(child);
    zelVerifyNAs(!child->reaches(parent),
                 "!parent->hasDependency(child)",
                 "Detected dependency loop between %s and %s",
                 parent->getPath().c_str(),
                 child->getPath().c_str());
    parent->markJobs();
    child->markJobs();
    parent->m_children.push_back(child);
    child->m_parents.push_back(parent);
    if (isOuterEdge(parent, child)) {
        parent->countOuterEdges(1);
        child->countOuterEdges(1);
    }
    // A disabled task lets the run pass: it needs no detour.
    parent->getPostJob()->addDependent(child->getPreJob());
}

namespace {

/// Calls `connect` on the nearest enabled tasks that lie in one direction, each once; on the task itself if
/// it is enabled.
template <typename Neighbours, typename Connect>
void forEachEnabled(Task* task, const Neighbours& neighbours, const Connect& connect) {
    walkGraph(task, [&](Task* next) -> const Vector<Task*>* {
        if (!next->isEnabled())
            return &neighbours(next);
        connect(next);
        return nullptr;
    });
}

const Vector<Task*>& parentsOf(Task* task) {
    return task->getParents();
}

const Vector<Task*>& childrenOf(Task* task) {
    return task->getChildren();
}

} // namespace

void Task::connectToParent(Task* parent) {
    forEachEnabled(parent, parentsOf, [this](Task* task) { task->getPostJob()->addDependent(getPreJob()); });
}

void Task::connectToChild(Task* child) {
    forEachEnabled(child, childrenOf, [this](Task* task) { getPostJob()->addDependent(task->getPreJob()); });
}

void Task::disconnectFromParent(Task* parent) {
    forEachEnabled(
        parent, parentsOf, [this](Task* task) { task->getPostJob()->removeDependent(getPreJob()); });
}

void Task::disconnectFromChild(Task* child) {
    forEachEnabled(
        child, childrenOf, [this](Task* task) { getPostJob()->removeDependent(task->getPreJob()); });
}

void Task::disconnect() {
    while (!m_parents.empty())
        removeDependency(m_parents.back());
    while (!m_children.empty())
        m_children.back()->removeDependency(this);
}

namespace {

Vector<observer_ptr<Task>> observe(const Vector<Task*>& tasks) {
    Vector<observer_ptr<Task>> observed;
    observed.reserve(tasks.size());
    for (Task* task : tasks)
        observed.push_back(observer_ptr<Task>(task));
    return observed;
}

} // namespace

void Task::replace(Task* task) {
    zelVerify(task);
    zelVerify(task != this);
    const ref_ptr<Task> keep(this);
    // The callbacks may let go of any of them.
    const observer_ptr<Task> successor(task);
    const Vector<observer_ptr<Task>> parents(observe(m_parents));
    const Vector<observer_ptr<Task>> children(observe(m_children));
    disconnect();
    FirstException failure;
    if (m_group != nullptr) {
        failure.run([this, task] { m_group->replaceSubtask(this, task); });
    } else if (auto* component = dynamic_cast<Component*>(getContext())) {
        const ref_ptr<Component> keepComponent(component->referenceCount() > 0 ? component : nullptr);
        failure.run([this, component] { component->removeObject(this); });
        if (successor && task->getContext() == nullptr)
            failure.run([task, component] { component->addObject(task); });
    }
    if (successor)
        takeOver(*task, parents, children, failure);
    failure.rethrow();
}

/// Gives the other task what this one had.
void Task::takeOver(Task& task,
                    const Vector<observer_ptr<Task>>& parents,
                    const Vector<observer_ptr<Task>>& children,
                    FirstException& failure) {
    for (const observer_ptr<Task>& parent : parents)
        if (parent && !task.m_parents.contains(parent.get()))
            addConnection(parent.get(), &task);
    for (const observer_ptr<Task>& child : children)
        if (child && !child->m_parents.contains(&task))
            addConnection(&task, child.get());
    failure.run([this, &task] { handTriggersTo(&task); });
    handFramesTo(&task);
}

void Task::handFramesTo(Task* task) {
    const VectorPOD<Clock*> clocks(m_frameClocks);
    for (Clock* clock : clocks)
        clock->replaceFrameTask(this, task);
}

/// Those of this task are kept, disarmed: one of them may be what has led here.
void Task::handTriggersTo(Task* task) {
    if (!m_paths)
        return;
    for (const std::unique_ptr<Trigger>& trigger : m_paths->triggers) {
        trigger->disarm();
        task->paths().triggers.push_back(
            std::make_unique<Trigger>(*task, trigger->getPath(), trigger->executes()));
        task->paths().triggers.back()->rebind();
    }
    for (std::unique_ptr<Trigger>& trigger : m_paths->triggers)
        m_paths->retiredTriggers.push_back(std::move(trigger));
    m_paths->triggers.clear();
}

// By path

namespace {

/// It may come later, so this is no warning.
void noteMissing(const Task& task, const char* attribute, const Path& path) {
    ZEL_LOG_INFO("Task '" << task.getPath() << "': there is nothing yet under the path '" << path
                          << "' of its " << attribute);
}

} // namespace

Task::Paths& Task::paths() {
    if (!m_paths) {
        m_paths = std::make_unique<Paths>();
        demandRebind();
    }
    return *m_paths;
}

void Task::addDependency(const Path& path) {
    if (!path.empty())
        paths().dependencies.push_back(path);
}

void Task::addTriggerPath(const Path& path) {
    paths().triggers.push_back(std::make_unique<Trigger>(*this, path, true));
}

void Task::addResolvePath(const Path& path) {
    paths().triggers.push_back(std::make_unique<Trigger>(*this, path, false));
}

Path Task::resolveDependencies(Component* from) {
    Path missing;
    if (!m_paths)
        return missing;
    Vector<Path> left;
    for (const Path& path : m_paths->dependencies) {
        auto* task = dynamic_cast<Task*>(from == nullptr ? getAutoScopedResource(path, ClassModel())
                                                         : from->getResource(path, ClassModel()));
        if (task == nullptr) {
            if (missing.empty())
                missing = path;
            left.push_back(path);
        } else if (!m_parents.contains(task)) {
            addDependency(task);
        }
    }
    m_paths->dependencies = std::move(left);
    return missing;
}

void Task::rebind() {
    if (m_paths && !m_paths->bindContext.empty())
        m_paths->context = getAutoScopedResource(m_paths->bindContext);
    Component::rebind();
    if (m_paths) {
        resolveDependencies(nullptr);
        for (const std::unique_ptr<Trigger>& trigger : m_paths->triggers)
            trigger->rebind();
        if (!m_paths->dispatch.empty())
            m_paths->dispatchTarget =
                dynamic_cast<Task*>(getAutoScopedResource(m_paths->dispatch, ClassModel()));
    }
    // Outside of a tree there is nothing yet, or any more, that paths could lead to.
    if (getContext() == nullptr || !getEnableRebind() || isDetaching())
        return;
    if (m_paths)
        noteMissingPaths();
    verifyParameters();
}

void Task::noteMissingPaths() const {
    for (const Path& path : m_paths->dependencies)
        noteMissing(*this, "dependency", path);
    for (const std::unique_ptr<Trigger>& trigger : m_paths->triggers)
        if (!trigger->isFound())
            noteMissing(*this, "trigger", trigger->getPath());
    if (!m_paths->dispatch.empty() && !m_paths->dispatchTarget)
        noteMissing(*this, "dispatch", m_paths->dispatch);
    if (!m_paths->bindContext.empty() && !m_paths->context)
        noteMissing(*this, "bindContext", m_paths->bindContext);
}

Object* Task::getResourceImpl(const Path& path, Model* model) {
    Object* const found = Component::getResourceImpl(path, model);
    // Two tasks may be each other's contexts.
    if (found != nullptr || !m_paths || !m_paths->context || m_inBindContext)
        return found;
    const FlagScope scope(m_inBindContext);
    return m_paths->context->getResourceImpl(path, model);
}

void Task::executeDispatchTarget() {
    if (m_paths && m_paths->dispatchTarget)
        m_paths->dispatchTarget->execute();
}

void Task::Trigger::rebind() {
    auto* value =
        dynamic_cast<zelData::Value*>(m_task.getAutoScopedResource(m_path, zelData::Value::ClassModel()));
    follow(value);
    if (m_execute && value == nullptr)
        join(dynamic_cast<Clock*>(m_task.getAutoScopedResource(m_path, Clock::ClassModel())));
    else
        join(nullptr);
}

void Task::Trigger::join(Clock* clock) {
    if (m_clock == clock)
        return;
    if (m_clock)
        m_clock->removeFrameTask(&m_task);
    m_clock = nullptr;
    if (clock == nullptr)
        return;
    if (m_task.getGroup() != nullptr)
        ZEL_THROW(std::runtime_error,
                  String::format("%s: A task of a group can not run in the frames of the clock '%s'",
                                 m_task.getPath().c_str(),
                                 clock->getPath().c_str()));
    clock->addFrameTask(&m_task);
    m_clock = clock;
}

void Task::Trigger::follow(zelData::Value* value) {
    if (m_value == value)
        return;
    if (m_value)
        m_value->updateEvent.disconnect(m_connection);
    m_value = value;
    if (value != nullptr)
        m_connection = value->updateEvent.connect([this](zelData::Value*) { fire(); });
}

void Task::Trigger::fire() {
    if (!m_execute)
        m_task.rebind();
    else if (!m_task.isRunning()) // an update from within the task is its own
        m_task.execute();
}

} // namespace zel
