#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>

#include <string>

namespace zel {

/// The base of every library-wide service. Owned by the SingletonManager, which shuts services down and
/// destroys them by descending priority.
///
/// A service offers a static `instance()` that creates the object on first use, and its `shutdown()` clears
/// the static pointer, so that a later use makes a new object.
/// @threads registration any thread; everything else owner thread
class ZEL_CORE_API Singleton {
public:
    /// For a service without a wish about its place in the order.
    static constexpr int32 DefaultPriority = 0x40000000;

    Singleton(const Singleton&) = delete;
    Singleton& operator=(const Singleton&) = delete;

    virtual void shutdown() = 0;
    /// The compiler's pretty name of this very operation, which holds the name of the class.
    [[nodiscard]] virtual std::string getClassName() const = 0;
    /// Does not take the object off the manager's lists.
    virtual ~Singleton() = default;

    [[nodiscard]] int32 getPriority() const noexcept { return m_priority; }
    /// Calls shutdown() the first time, and nothing from then on.
    void _shutdown();

protected:
    /// Registers with the SingletonManager. A larger priority is shut down earlier.
    explicit Singleton(int32 priority = DefaultPriority);

private:
    int32 m_priority;
    bool m_isShutdown = false;
};

} // namespace zel
