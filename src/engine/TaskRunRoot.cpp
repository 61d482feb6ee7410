#include "TaskRunRoot.h"

#include <zel/TaskGroup.h>

// Which edges count in a run.

namespace zel {

void Task::countOuterEdges(int64 number) noexcept {
    for (Task* task = this; task != nullptr; task = task->m_group)
        task->m_numOuterEdges += number;
}

void Task::countThreadTasks(int64 number) noexcept {
    for (Task* task = this; task != nullptr; task = task->m_group)
        task->m_numThreadTasks += number;
}

bool Task::runsIn(const Task* run) const noexcept {
    for (const Task* task = this; task != nullptr; task = task->m_group)
        if (task->m_run.load(std::memory_order_relaxed) == run)
            return true;
    return false;
}

Task::RunRoot::RunRoot(Task& task, Task& run)
    : m_task(&task)
    , m_run(&run)
    , m_outerRun(task.m_run.load(std::memory_order_relaxed))
    , m_needed(isNeeded(task)) {
    task.m_run.store(&run, std::memory_order_relaxed);
}

/// The task, and those below it that have edges out of their groups.
template <typename Visit>
void Task::RunRoot::visitTasks(Task& task, const Visit& visit) {
    visit(task);
    if (task.m_numOuterEdges == 0)
        return;
    if (auto* group = dynamic_cast<TaskGroup*>(&task))
        for (Task* subtask : group->getSubtasks())
            if (subtask->m_numOuterEdges != 0)
                visitTasks(*subtask, visit);
}

void Task::RunRoot::cutChildren(Task& task) const {
    Job* const post = task.getPostJob();
    // Newest first: edges are looked for from the back.
    for (size_t i = task.m_children.size(); i-- > 0;)
        if (!task.m_children[i]->runsIn(m_run))
            post->suspendDependent(task.m_children[i]->getPreJob());
}

void Task::RunRoot::restoreChildren(Task& task) const {
    Job* const post = task.getPostJob();
    for (Task* child : task.m_children)
        if (!child->runsIn(m_run))
            post->resumeDependent(child->getPreJob());
}

uint32 Task::RunRoot::countCutParents(const Task& task) const {
    // The first job of a spawned root may be counted down to by another run meanwhile.
    if (&task == m_task && m_spawned)
        return 0;
    uint32 count = 0;
    for (const Task* parent : task.m_parents)
        if (!parent->runsIn(m_run))
            ++count;
    if (&task == m_task && task.m_group != nullptr && !task.m_group->runsIn(m_run))
        ++count;
    return count;
}

void Task::RunRoot::cut(bool spawned) {
    m_spawned = spawned;
    if (!m_needed)
        return;
    visitTasks(*m_task, [this](Task& task) {
        cutChildren(task);
        task.getPreJob()->m_numDependencies -= countCutParents(task);
    });
    Job* const post = m_task->getPostJob();
    if (TaskGroup* group = m_task->m_group; group != nullptr && !group->runsIn(m_run)) {
        m_groupPost = group->getPostJob();
        post->suspendDependent(m_groupPost);
    }
    if (m_outerRun != nullptr && m_outerRun != m_run && post->suspendDependent(m_outerRun->getPostJob()))
        m_outerPost = m_outerRun->getPostJob();
}

void Task::RunRoot::restore() {
    if (m_needed) {
        Job* const post = m_task->getPostJob();
        if (m_outerPost != nullptr)
            post->resumeDependent(m_outerPost);
        if (m_groupPost != nullptr)
            post->resumeDependent(m_groupPost);
        visitTasks(*m_task, [this](Task& task) {
            restoreChildren(task);
            task.getPreJob()->m_numDependencies += countCutParents(task);
        });
    }
}

void Task::RunRoot::leave() {
    m_task->m_run.store(m_outerRun, std::memory_order_relaxed);
}

} // namespace zel
