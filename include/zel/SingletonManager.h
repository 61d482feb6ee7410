#pragma once

#include <zel/Export.h>
#include <zel/HashSet.h>
#include <zel/LockRank.h>
#include <zel/Referenced.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>

namespace zel {

class DynamicLibrary;
class Singleton;

/// Owns the services of the library and tears them down in the order of their priorities.
///
/// Once shut down it stays so: services created later are kept until the process ends.
/// @threads registerSingleton any thread; everything else owner thread
class ZEL_CORE_API SingletonManager : public Referenced {
public:
    /// The priority from which on a service belongs to the upper list.
    static constexpr int UpperPriority = 10000;

    /// Created on first use; null once it has been destroyed at process exit.
    [[nodiscard]] static SingletonManager* instance();

    SingletonManager(const SingletonManager&) = delete;
    SingletonManager& operator=(const SingletonManager&) = delete;
    ~SingletonManager() override;

    /// Enters the service in the upper list, or in the lower one if its priority is below UpperPriority or
    /// shut-down has begun. Services of equal priority stand in no particular order.
    void registerSingleton(Singleton* singleton);

    /// A service of the upper list is removed and deleted; one of the lower list is only removed.
    /// @return true for the upper list; false for the lower list, and if the service is unknown
    bool unregisterSingleton(Singleton* singleton);

    /// Keeps the library loaded until all services are gone.
    void registerDynamicLibrary(DynamicLibrary* library);
    void unregisterDynamicLibrary(DynamicLibrary* library);

    /// Shuts down and destroys the services by descending priority, the upper list first, and then lets go of
    /// the libraries. Does nothing the second time and after a forced shutdown of the threads.
    ///
    /// A service may create others while it is shut down; they go to the lower list, which is given up after
    /// 200 passes.
    void shutdown();

    /// Writes priority and class name of each service to std::cerr.
    void print() const;

private:
    SingletonManager();
    void destroyLast(Vector<Singleton*>& list);

    Vector<Singleton*> m_upper; // ascending priority
    Vector<Singleton*> m_lower; // ascending priority
    bool m_modified = false;    // the lists changed since this was cleared; tells the shutdown loop
    bool m_shutdown = false;
    HashSet<ref_ptr<DynamicLibrary>> m_libraries;
    RankedMutex<LockRank::Singletons> m_mutex; // guards registration
};

} // namespace zel
