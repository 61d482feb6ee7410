#include "TaskRunRoot.h"

#include <zel/TaskGroup.h>

#include <algorithm>

// Which edges count in a run.

namespace zel {

void Task::countOuterEdges(int64 number) noexcept {
    for (Task* task = this; task != nullptr; task = task->m_group) {
        task->m_numOuterEdges += number;
        task->m_leaving.store(Leaving::Unknown, std::memory_order_relaxed);
    }
}

void Task::countThreadTasks(int64 number) noexcept {
    for (Task* task = this; task != nullptr; task = task->m_group)
        task->m_numThreadTasks += number;
}

bool Task::runsIn(const Task* run) const noexcept {
    for (const Task* task = this; task != nullptr; task = task->m_group)
        if (task == run || task->m_run.load(std::memory_order_relaxed) == run)
            return true;
    return false;
}

// A frame and somebody who executes the task claims it, or joins it to the run, and then looks for the
// mark of the other one: all four are sequentially consistent, so that at least one sees the other. A frame
// leaves a task that is claimed to the one who executes it, and executes it as well; who executes a task that
// is part of a frame holds it back.

bool Task::RunRoot::join(Task& task, Task* run) noexcept {
    Task* none = nullptr;
    if (!task.m_run.compare_exchange_strong(none, run, std::memory_order_seq_cst))
        return false;
    if (task.m_claimedBy.load(std::memory_order_seq_cst) == nullptr)
        return true;
    leave(task);
    return false;
}

void Task::RunRoot::leave(Task& task) noexcept {
    // Release: pairs with isShared, behind the last change of the task's edges.
    task.m_run.store(nullptr, std::memory_order_release);
}

/// Whether one of the tasks below that have edges out of their groups answers true; the others are not asked
/// then.
template <typename Visit>
bool Task::RunRoot::anyBelow(Task& task, const Visit& visit) {
    if (task.m_numOuterEdges == 0)
        return false;
    const auto* group = dynamic_cast<const TaskGroup*>(&task);
    return group != nullptr &&
           std::any_of(group->getSubtasks().begin(), group->getSubtasks().end(), [&visit](Task* subtask) {
               return subtask->m_numOuterEdges != 0 && (visit(*subtask) || anyBelow(*subtask, visit));
           });
}

// Found out once for each shape of the tree: groups whose subtasks depend on each other in all directions are
// the common case, and nothing is to be taken out of them.
bool Task::RunRoot::hasLeavingEdges(Task& task) {
    Leaving leaving = task.m_leaving.load(std::memory_order_relaxed);
    if (leaving == Leaving::Unknown) {
        const auto isOutside = [&task](const Task* other) { return !other->runsIn(&task); };
        const bool any = anyBelow(task, [&isOutside](const Task& below) {
            return std::any_of(below.m_parents.begin(), below.m_parents.end(), isOutside) ||
                   std::any_of(below.m_children.begin(), below.m_children.end(), isOutside);
        });
        leaving = any ? Leaving::Some : Leaving::None;
        task.m_leaving.store(leaving, std::memory_order_relaxed);
    }
    return leaving == Leaving::Some;
}

/// The task, and those below it that have edges out of their groups. But not one that is the run itself: it
/// is started by itself, and at its end tells nobody else.
template <typename Visit>
void Task::RunRoot::visitTasks(Task& task, const Visit& visit) const {
    if (&task != m_run)
        visit(task);
    if (hasLeavingEdges(task))
        anyBelow(task, [&visit](Task& below) {
            visit(below);
            return false;
        });
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
    uint32 count = 0;
    for (const Task* parent : task.m_parents)
        if (!parent->runsIn(m_run))
            ++count;
    if (&task == m_task && task.m_group != nullptr && !task.m_group->runsIn(m_run))
        ++count;
    return count;
}

void Task::RunRoot::cut() {
    visitTasks(*m_task, [this](Task& task) {
        cutChildren(task);
        task.getPreJob()->changeNumDependencies(-static_cast<int32>(countCutParents(task)));
    });
    if (TaskGroup* group = m_task->m_group; m_task != m_run && group != nullptr && !group->runsIn(m_run)) {
        m_groupPost = group->getPostJob();
        m_task->getPostJob()->suspendDependent(m_groupPost);
    }
}

void Task::RunRoot::restore() {
    if (m_groupPost != nullptr)
        m_task->getPostJob()->resumeDependent(m_groupPost);
    visitTasks(*m_task, [this](Task& task) {
        restoreChildren(task);
        task.getPreJob()->changeNumDependencies(static_cast<int32>(countCutParents(task)));
    });
}

} // namespace zel
