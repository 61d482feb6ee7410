#include "TaskDisableHelper.h"

#include <zel/TaskGroup.h>
#include <zel/Verify.h>

#include <utility>

// How runs pass a disabled task.

namespace zel {

Task::DisableHelper::DisableHelper(Task& task) : m_task(task) {
    Job* pre = task.getPreJob();
    Job* post = task.getPostJob();
    m_oldPostCallback = post->getCallback();
    if (pre != post) {
        m_oldPreCallback = pre->getCallback();
        pre->setCallback(&emptyPre);
    }
    post->setCallback([this] { emptyPost(); });
    if (auto* group = dynamic_cast<TaskGroup*>(&task)) {
        for (Task* subtask : group->getSubtasks())
            registerSubtask(subtask);
    } else if (pre != post) {
        takeOut(pre, post);
    }
}

void Task::DisableHelper::takeOut(Job* pre, Job* post) {
    m_oldPreChildren = pre->getDependents();
    m_oldPostParents = post->getDependencies();
    // Newest first: edges are looked for from the back.
    for (size_t i = m_oldPreChildren.size(); i-- > 0;)
        if (m_oldPreChildren[i] != post)
            pre->removeDependent(m_oldPreChildren[i]);
    for (size_t i = m_oldPostParents.size(); i-- > 0;)
        m_oldPostParents[i]->removeDependent(post);
    pre->addDependent(post);
}

void Task::DisableHelper::putBack(Job* pre, Job* post) {
    pre->removeDependent(post);
    for (Job* parent : m_oldPostParents)
        parent->addDependent(post);
    for (Job* child : m_oldPreChildren)
        if (child != post)
            pre->addDependent(child);
}

void Task::DisableHelper::restore() {
    Job* pre = m_task.getPreJob();
    Job* post = m_task.getPostJob();
    if (pre != post)
        pre->setCallback(std::move(m_oldPreCallback));
    post->setCallback(std::move(m_oldPostCallback));
    if (auto* group = dynamic_cast<TaskGroup*>(&m_task)) {
        for (Task* subtask : group->getSubtasks())
            removeSubtask(subtask, true);
    } else if (pre != post) {
        putBack(pre, post);
    }
}

void Task::DisableHelper::registerSubtask(Task* subtask) {
    m_oldPreChildren.push_back(subtask->getPreJob());
    subtask->m_groupPassed = true;
    subtask->updatePassed();
}

void Task::DisableHelper::removeSubtask(Task* subtask, bool survives) {
    zelVerify(m_oldPreChildren.findAndErase(subtask->getPreJob()));
    if (!survives)
        return;
    subtask->m_groupPassed = false;
    subtask->updatePassed();
}

void Task::DisableHelper::setCallback(const Job& job, Callback callback) {
    (&job == m_task.getPostJob() ? m_oldPostCallback : m_oldPreCallback) = std::move(callback);
}

void Task::setEnable(bool enable) {
    m_enable.set(enable);
}

void Task::enableCallback() {
    if (m_enabled == m_enable.get())
        return;
    m_enabled = !m_enabled;
    updatePassed();
}

void Task::updatePassed() {
    const bool passed = !m_enabled || m_groupPassed;
    if (passed == isPassed())
        return;
    if (passed) {
        m_disableHelper = std::make_unique<DisableHelper>(*this);
    } else {
        m_disableHelper->restore();
        m_disableHelper.reset();
    }
}

void Task::setJobCallback(Job& job, Callback callback) {
    if (m_disableHelper && (&job == getPreJob() || &job == getPostJob()))
        m_disableHelper->setCallback(job, std::move(callback));
    else
        job.setCallback(std::move(callback));
}

} // namespace zel
