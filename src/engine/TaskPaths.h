#pragma once

#include <zel/Clock.h>
#include <zel/Integers.h>
#include <zel/Path.h>
#include <zel/Task.h>
#include <zel/Vector.h>
#include <zel/observer_ptr.h>
#include <zelData/Value.h>

#include <memory>
#include <utility>

namespace zel {

/// A value that does something to a task whenever it is updated, or a clock whose frames the task is part of.
class Task::Trigger {
public:
    /// @param execute  whether the task is executed, and not rebound
    Trigger(Task& task, const Path& path, bool execute) : m_task(task), m_path(path), m_execute(execute) {}
    Trigger(const Trigger&) = delete;
    Trigger& operator=(const Trigger&) = delete;
    ~Trigger() { disarm(); }

    void rebind();
    /// Lets go of what it follows.
    void disarm() {
        follow(nullptr);
        join(nullptr);
    }
    [[nodiscard]] const Path& getPath() const noexcept { return m_path; }
    [[nodiscard]] bool executes() const noexcept { return m_execute; }
    /// Whether the path leads to a value or a clock.
    [[nodiscard]] bool isFound() const noexcept { return m_value || m_clock; }

private:
    void follow(zelData::Value* value);
    void join(Clock* clock);
    void fire();

    Task& m_task;
    Path m_path;
    bool m_execute;
    observer_ptr<zelData::Value> m_value;
    uint64 m_connection = 0;
    observer_ptr<Clock> m_clock;
};

/// What a task refers to by path.
struct Task::Paths {
    Vector<Path> dependencies; // not found yet
    Vector<std::unique_ptr<Trigger>> triggers;
    Vector<std::unique_ptr<Trigger>> retiredTriggers; // handed to another task
    Path dispatch;
    observer_ptr<Task> dispatchTarget;
    Path bindContext;
    observer_ptr<Object> context;
};

} // namespace zel
