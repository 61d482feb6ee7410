#pragma once

#include <zel/Export.h>
#include <zel/Job.h>
#include <zel/Name.h>
#include <zel/Task.h>
#include <zel/Vector.h>

namespace zel {

/// A task that is made of other tasks, its subtasks, between a first and a last job of its own. The subtasks
/// are child objects of the group, which owns them; they run at the same time unless they depend on each
/// other. In a sequential group each subtask depends on the one before it.
///
///     TaskGroup frame("frame", true);
///     frame.addSubtask(new SerialTask("first", first));
///     frame.addSubtask(new SerialTask("second", second));
///     frame.execute();
/// @threads as Task: subtasks are added and removed while the group does not run
class ZEL_CORE_API TaskGroup : public Task {
public:
    explicit TaskGroup(const Name& name, bool sequential = false, Device* device = nullptr);
    ~TaskGroup() override;

    /// For the group's own jobs and for all subtasks.
    void setTargetThread(Thread* thread) override;
    [[nodiscard]] Job* getPreJob() override { return &m_preJob; }
    [[nodiscard]] Job* getPostJob() override { return &m_postJob; }
    /// Goes down through groups.
    void traverse(const Callback1<Task*>& callback, bool parentFirst) override;
    using Task::traverse;

    [[nodiscard]] static Model* ClassModel();
    /// Makes a group from an element of the tag "TaskGroup".
    /// @return a new group without owner
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static TaskGroup* load(TiXmlElement* element, Device* device);
    using Task::load;

    /// Appends the subtask, which must not be part of a group.
    void addSubtask(Task* subtask);
    /// Adds the subtask with a dependency on one that is there, and in a sequential group between that one
    /// and its follower.
    void addSubtaskAfter(Task* subtask, Task* parent);
    /// The same the other way round.
    void addSubtaskBefore(Task* subtask, Task* child);
    /// Adds the subtask with dependencies on both sides.
    void addSubtaskBetween(Task* subtask, Task* parent, Task* child);
    /// Lets the subtask go, and with it the dependencies between it and the others of the group. Without it,
    /// a sequential group goes on from the one before to the one after.
    /// @return whether it was a subtask
    bool removeSubtask(Task* subtask);
    /// The same for the first of the name.
    bool removeSubtask(const Name& name);
    void removeAllSubtasks();
    [[nodiscard]] const Vector<Task*>& getSubtasks() const noexcept { return m_subtasks; }
    [[nodiscard]] size_t getNumSubtasks() const noexcept { return m_subtasks.size(); }

    /// Switching on makes each subtask depend on the one before; switching off keeps the dependencies that
    /// are there.
    void setSequential(bool sequential);
    [[nodiscard]] bool isSequential() const noexcept { return m_sequential; }
    /// Adds a dependency between each pair of neighbours that lacks one.
    /// @param sequential  whether the group is sequential from now on
    void serialize(bool sequential);

    /// Writes the subtasks and their dependencies among each other as a Graphviz file into the working
    /// directory, named as the group, with "_" for blanks, and ".dot".
    /// @throws std::runtime_error if the file cannot be written
    void writeDependencyDotGraph() const;

protected:
    void configureChildren(TiXmlElement* element) override;
    void addConfiguredObject(Object* object) override;

private:
    friend class Task; // leave, replaceSubtask

    class ZEL_CORE_API PreJob : public Job {
    public:
        explicit PreJob(TaskGroup& group) : Job("Pre"), m_owner(group) {}
        void implementation() override;

    private:
        TaskGroup& m_owner;
    };
    class ZEL_CORE_API PostJob : public Job {
    public:
        explicit PostJob(TaskGroup& group) : Job("Post"), m_owner(group) {}
        void implementation() override;

    private:
        TaskGroup& m_owner;
    };

    using Task::endCallback;
    void endCallback();
    void registerSubtask(Task* subtask, size_t index);
    void verifyNoLoop(Task* subtask);
    /// Takes the subtask off the list and out of the job graph.
    void leave(Task* subtask);
    void replaceSubtask(Task* subtask, Task* with);
    [[nodiscard]] size_t indexOf(const Task* subtask) const;
    void configureDependency(TiXmlElement* element);

    bool m_sequential;
    Vector<Task*> m_subtasks; // child objects
    PreJob m_preJob;
    PostJob m_postJob;
};

} // namespace zel
