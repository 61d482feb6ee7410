#pragma once

#include <zel/Export.h>

/// @file
/// The gate between those who change the tree of objects and those who look at it from another thread, as
/// servers do: at any time there is only the one kind or the other. It is one for the process. Changes do not
/// wait for each other, and neither do looks; the two kinds take turns, so that a simulation that steps
/// without a pause is looked at between two steps, and looks without a pause do not stop it.
///
/// The ticks of clocks and Object::load are changes by themselves.

namespace zel {

/// While it lives, nobody looks at the tree. For code that adds, removes or changes objects outside of a tick
/// and of Object::load, while a server runs that looks at them:
///
///     const zel::TreeChange change;
///     system->addObject(rover);
///
/// Waits for the looks that are under way, unless this thread or another one is changing the tree already: a
/// tick waits for its tasks on other threads, which may change the tree as well. On a thread that looks, or
/// that loads models, it does nothing: models have a lock of their own.
/// @threads any thread. Taken ahead of all locks
class ZEL_CORE_API TreeChange {
public:
    TreeChange();
    TreeChange(const TreeChange&) = delete;
    TreeChange& operator=(const TreeChange&) = delete;
    /// On the thread of the constructor.
    ~TreeChange();

    /// Whether the calling thread is within a change, as within a tick.
    [[nodiscard]] static bool isUnderWay() noexcept;

private:
    bool m_hasEntered;
};

/// While it lives, nobody changes the tree, unless it is the thread itself that did so already. Not to be
/// held while one waits for something else, such as a client: the simulation waits.
/// @threads any thread. Taken ahead of all locks
class ZEL_CORE_API TreeLook {
public:
    /// @param patience  for how many seconds a change may go on until this look gives up
    /// @throws std::runtime_error when it has given up
    explicit TreeLook(double patience = 2);
    TreeLook(const TreeLook&) = delete;
    TreeLook& operator=(const TreeLook&) = delete;
    /// On the thread of the constructor.
    ~TreeLook();

private:
    bool m_hasEntered;
};

} // namespace zel
